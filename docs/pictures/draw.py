#!/usr/bin/env python3
"""Draws the pictures of README, docs/architecture.md and docs/protocol.md as SVG files beside this program. They have a
paper of their own, so that they are readable on dark pages too."""

import html
import os

INK, PALE, PAPER = "#1d2430", "#5b6577", "#fbfcfe"
FILL = {"plain": "#ffffff", "ours": "#dcebfa", "pure": "#dff2df", "group": "#fdf0d5"}
FONT = "DejaVu Sans, Verdana, sans-serif"


class Picture:
    def __init__(self, name, title, width, height):
        self.name = name
        self.parts = [
            f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}"'
            f' viewBox="0 0 {width} {height}" role="img" font-family="{FONT}" font-size="13" fill="{INK}">',
            f"<title>{html.escape(title)}</title>",
            f'<defs><marker id="head" viewBox="0 0 10 10" refX="9" refY="5" markerWidth="8" markerHeight="8"'
            f' orient="auto-start-reverse"><path d="M0 0 L10 5 L0 10 z" fill="{INK}"/></marker></defs>',
            f'<rect width="{width}" height="{height}" rx="8" fill="{PAPER}"/>']

    def text(self, x, y, text, anchor="middle", bold=False, pale=False, inside=False):
        """Words that are not inside a box keep lines away from their letters."""
        style = (' font-weight="bold"' if bold else "") + (f' fill="{PALE}"' if pale else "")
        style += "" if inside else f' stroke="{PAPER}" stroke-width="5" paint-order="stroke"'
        self.parts.append(f'<text x="{x}" y="{y}" text-anchor="{anchor}"{style}>{html.escape(text)}</text>')

    def box(self, x, y, width, height, lines=(), fill="plain", rounded=6):
        """Lines stand in the middle, the first in bold where there are several."""
        self.parts.append(f'<rect x="{x}" y="{y}" width="{width}" height="{height}" rx="{rounded}" fill="{FILL[fill]}"'
                          f' stroke="{INK}"/>')
        top = y + height / 2 - 9 * len(lines) + 13.5
        for number, line in enumerate(lines):
            self.text(x + width / 2, top + 18 * number, line, bold=number == 0 and len(lines) > 1, pale=number > 0,
                      inside=True)

    def frame(self, x, y, width, height, title):
        self.parts.append(f'<rect x="{x}" y="{y}" width="{width}" height="{height}" rx="6" fill="none" stroke="{PALE}"'
                          f' stroke-dasharray="5 4"/>')
        self.text(x + 10, y + 18, title, anchor="start", pale=True)

    def line(self, *points, head=True, tail=False, dashed=False, color=INK):
        path = "M" + " L".join(f"{x} {y}" for x, y in points)
        self.parts.append(f'<path d="{path}" fill="none" stroke="{color}"'
                          + (' stroke-dasharray="5 4"' if dashed else "")
                          + (' marker-end="url(#head)"' if head else "")
                          + (' marker-start="url(#head)"' if tail else "") + "/>")

    def save(self):
        path = os.path.join(os.path.dirname(os.path.abspath(__file__)), self.name + ".svg")
        with open(path, "w", encoding="utf-8") as file:
            file.write("\n".join(self.parts + ["</svg>", ""]))


def sequence(name, title, actors, steps, loop=None):
    """Who says what to whom, downwards in time: (from, to, words), or (at, words) for a note; actors by their number."""
    gap, left, step = 270, 120, 44
    top = 70 if loop is None else 96
    bottom = top + step * len(steps) + 6
    picture = Picture(name, title, 2 * left + gap * (len(actors) - 1), bottom + 20)
    for number, actor in enumerate(actors):
        x = left + gap * number
        picture.line((x, 46), (x, bottom), head=False, color=PALE)
        picture.box(x - 105, 14, 210, 32, [actor], "group" if actor[0].isdigit() else "ours")
    if loop is not None:
        picture.frame(12, 58, 2 * left + gap * (len(actors) - 1) - 24, bottom - 66, loop)
    for number, words in enumerate(steps):
        y = top + step * number + 22
        if len(words) == 2:
            x = left + gap * words[0]
            width = 20 + 7.2 * len(words[1])
            x = max(24 + width / 2, min(x, 2 * left + gap * (len(actors) - 1) - 24 - width / 2))
            picture.box(x - width / 2, y - 18, width, 28, [words[1]], "plain", 2)
        else:
            start, end = left + gap * words[0], left + gap * words[1]
            picture.line((start, y + 4), (end, y + 4))
            picture.text((start + end) / 2, y - 4, words[2])
    picture.save()


def overview():
    picture = Picture("overview", "A display finds radar hosts through multicast groups", 900, 376)
    picture.frame(12, 12, 360, 352, "Display computer")
    picture.frame(678, 12, 210, 352, "Radar host")
    picture.box(32, 44, 120, 42, ["application"])
    picture.box(212, 112, 140, 60, ["MultiRadarClient", "radar table"], "ours")
    picture.box(32, 112, 140, 60, ["presence checker", "local address"], "ours")
    picture.box(212, 284, 140, 60, ["net::UdpReceiver", "net::UdpSender"], "ours")
    picture.line((152, 65), (282, 65), (282, 112))
    picture.text(164, 58, "query(), getAddress()", anchor="start", pale=True)
    picture.line((172, 142), (212, 142))
    picture.line((72, 86), (72, 104), (22, 104), (22, 314), (212, 314))
    picture.text(34, 306, "streams", anchor="start", pale=True)

    picture.box(440, 112, 170, 60, ["236.6.7.5 : 6878", "discovery"], "group", 26)
    picture.box(440, 198, 170, 60, ["236.6.7.4 : 6768", "negotiation"], "group", 26)
    picture.box(440, 284, 170, 60, ["a group a stream", "and its port"], "group", 26)

    picture.box(698, 112, 170, 60, ["HostServer", "announcement"], "ours")
    picture.box(698, 198, 170, 60, ["HostNegotiator", "host id"], "ours")
    picture.box(698, 284, 170, 60, ["radar software", "image, ARPA targets"])

    for start, end in (352, 440), (610, 698):
        picture.line((start, 132), (end, 132))
        picture.line((end, 154), (start, 154))
        picture.text((start + end) / 2, 126, "query", pale=True)
    picture.text(396, 169, "answers", pale=True)
    picture.text(654, 169, "answer", pale=True)
    picture.line((312, 172), (312, 228), (440, 228))
    picture.text(322, 221, "renumber, reset", anchor="start", pale=True)
    picture.line((610, 228), (698, 228), tail=True)
    picture.line((783, 198), (783, 172))
    picture.text(790, 190, "id", anchor="start", pale=True)
    picture.line((698, 314), (610, 314))
    picture.line((440, 314), (352, 314))
    picture.save()


def layers():
    picture = Picture("layers", "The layers: each uses only those below it", 900, 486)
    picture.text(20, 30, "Each layer uses only those below it.", anchor="start", pale=True)
    left, width = 20, 620

    def layer(y, height, folder, *lines, fill="ours", x=left, wide=width):
        picture.box(x, y, wide, height, [folder, *lines], fill)

    layer(44, 50, "UdpSocket/*.h", "the eight public headers: what applications compile against")
    layer(104, 68, "host/", "HostServer", "HostNegotiator", wide=200)
    layer(104, 68, "discovery/", "MultiRadarClient", "and its checker", x=230, wide=200)
    layer(104, 68, "management/", "tNetIPHelper", "and its restart", x=440, wide=200)
    layer(182, 68, "transport/", "UdpSocket, UdpSender, UdpReceiver, UdpChecker, TcpClient, TcpServer",
          "interfaces; the library's own sockets")
    layer(260, 68, "protocol/", "wire, address plan, announcement, TCP framing, radar table, search, negotiation",
          "no socket, thread, lock, clock or stdio", fill="pure")
    layer(338, 50, "settings/, and IniProfile/ below it", "what each key of profile.ini means; the file's reader")
    layer(398, 68, "base/", "descriptor, socket, addresses, mutex, thread, clock and timing,",
          "error line, command")
    right, users = 706, 174
    picture.box(right, 44, users, 50, ["applications", "examples/"])
    picture.box(right, 142, users, 50, ["RadarWatch/, tools/", "lab/"])
    picture.box(right, 269, users, 50, ["tests/simulation/", "fuzz/"])
    picture.line((right, 69), (640, 69))
    picture.line((right, 157), (672, 157), (672, 81), (640, 81))
    picture.line((right, 177), (672, 177), (672, 280), (640, 280))
    picture.line((right, 300), (640, 300))
    picture.save()


overview()
layers()
sequence("discovery", "Discovery", ["display", "236.6.7.5 port 6878", "host North, id 20", "host South, id 1"], [
    (0, 1, "query 01 B1"), (1, 2, "query"), (2, 1, "announcement, 222 bytes"), (1, 3, "query"),
    (3, 1, "announcement, 150 bytes"), (1, 0, "both announcements"),
    (0, "table of radars by name, each with the time it was last heard")],
    "about once a second; a query drops radars not heard for 8 seconds")
sequence("negotiation", "Negotiation without an objection", ["host", "236.6.7.4 port 6768"], [
    (0, 1, "probe 01 A1 14 01 (id 20)"), (0, "1 second: no objection"), (0, 1, "confirm 02 A1 14 01"),
    (0, "1 second: no objection"), (0, "holds id 20, answers queries")])
sequence("objection", "Negotiation with an objection", ["host", "236.6.7.4 port 6768", "holder of id 1"], [
    (0, 1, "probe 01 A1 01 01 (id 1)"), (1, 2, "probe"), (2, 1, "objection 03 A1 01 01"),
    (1, 0, "objection: names my candidate"), (0, "the rest of the second, then draws id 37"),
    (0, 1, "probe 01 A1 25 01 (id 37)"), (1, 2, "probe"), (2, 1, "objection 03 A1 01 01"),
    (0, "names another id: ignored"), (0, 1, "confirm 02 A1 25 01"), (2, 1, "objection 03 A1 01 01"),
    (0, "holds id 37 a second later")])
sequence("renumbering", "Renumbering", ["display", "236.6.7.4 port 6768", "host with id 20"], [
    (0, 1, "objection 03 A1 14 01"), (1, 2, "objection: names my id"), (2, "draws an id from 16 to 63"),
    (2, 1, "probe"), (2, "1 second"), (2, 1, "confirm"), (2, "1 second"),
    (2, "holds the new id, announces the new endpoints"), (0, "the next query brings them, under the same name")])
