#!/usr/bin/env python3
"""Prints what a run of the benchmarks measured, and writes docs/performance.md with its plots.

usage: report.py RESULTS DOCS
"""
import datetime
import math
import os
import pathlib
import re
import statistics
import subprocess
import sys

# Benchmark, and the goal for its ratio: the library's figure divided by that of raw system calls (MD5: of OpenSSL).
RATIOS = [
    ("receive 222 B at 20 k/s", 1.08), ("receive 222 B at 100 k/s", 1.08),
    ("receive saturated 222 B", 0.95), ("receive saturated 1400 B", 0.95),
    ("receive 50 groups at 20 k/s", 1.05),
    ("stream of 222 B at 20 k/s", 1.05), ("stream of 222 B at 100 k/s", 1.05),
    ("stream of 222 B, saturated", 1.05), ("50 streams at 20 k/s", 1.0),
    ("send 222 B", 1.03), ("send 64 x 222 B in one call", 1.03),
    ("UDP round trip, median", 1.05), ("UDP round trip, 99th percentile", 1.05),
    ("TCP stream received", 0.97), ("TCP stream sent", 0.97),
    ("TCP round trip, median", 1.05), ("TCP round trip, 99th percentile", 1.05),
    ("TCP server, 1 KiB to 1", 1.15), ("TCP server, 1 KiB to 10", 1.15),
    ("TCP server, 1 KiB to 100", 1.15), ("TCP server, 1 KiB to 500", 1.15),
    ("TCP server, 1 of 100 never reads, messages to the others", 0.9),
    ("discovery of 49 two-stream hosts", 1.5),
    ("MD5 64 KiB", 1 / 1.05), ("MD5 64 B", 1.0),
]
LIMITS = [  # of the library's own figure
    ("TCP server, 5 of 100 stalled, the others have it", 2.0),
    ("TCP server, 5 of 100 stalled, the call returns", 550.0),  # the send time-out of 500, and the system's tick
    ("one long announcement", 2000.0),
    ("one long announcement, allocations", 0.5),
    ("one long announcement, profile opens", 0.0),
    ("idle display, processor in 30 s", 1.0),
]
WITHOUT_GOAL = ["getAddress, 1 entry", "getAddress, 147 entries", "getRadar as array, 147 entries",
         "getRadar as texts, 147 entries"]
MORE_IS_BETTER = ("thousand/s", "MB/s", "listed")


class Results:
    def __init__(self, path):
        self.values, self.units, self.failures, self.busy = {}, {}, [], {}
        for line in path.read_text().splitlines():
            benchmark, implementation, unit, text = line.split("\t")
            if benchmark == "busy":
                self.busy[implementation] = int(text)
            elif unit == "failed":
                self.failures.append((benchmark, implementation, text))
            else:
                self.values[benchmark, implementation] = [float(value) for value in text.split()]
                self.units[benchmark] = unit

    def median(self, benchmark, implementation):
        return statistics.median(self.values[benchmark, implementation])

    def base(self, benchmark):
        """What the library is measured against there."""
        return "OpenSSL" if benchmark.startswith("MD5") else "raw"

    def has(self, benchmark, implementation):
        return (benchmark, implementation) in self.values

    def implementations(self, benchmark):
        return [implementation for (name, implementation) in self.values if name == benchmark]

    def ratio(self, benchmark, implementation, base):
        """Median of the ratios of each repetition, in which both took turns, and its 95 % confidence interval."""
        pairs = zip(self.values[benchmark, implementation], self.values[benchmark, base])
        return median_interval([mine / other for mine, other in pairs if other])

    def curve(self, name):
        """{implementation: [(x, median)]} of the benchmarks "growth/NAME/X"."""
        result = {}
        for (benchmark, implementation), values in self.values.items():
            if benchmark.startswith(f"growth/{name}/"):
                point = int(benchmark.rsplit("/", 1)[1]), statistics.median(values)
                result.setdefault(implementation, []).append(point)
        return {implementation: sorted(points) for implementation, points in result.items()}


def outer_ranks(count):
    """How many of so many sorted values lie outside of the median's 95 % confidence interval, on each side."""
    tail, outer = 0.0, 0
    while outer < (count - 1) // 2:
        tail += math.comb(count, outer) / 2 ** count
        if tail > 0.025:
            break
        outer += 1
    return max(outer - 1, 0)


def median_interval(values):
    """The median with the ends of its 95 % confidence interval."""
    values = sorted(values)
    outer = outer_ranks(len(values))
    return statistics.median(values), values[outer], values[-1 - outer]


def number(value):
    return f"{value:.0f}" if abs(value) >= 100 else f"{value:.1f}" if abs(value) >= 10 else f"{value:.2f}"


def ratio_text(ratio, low, high):
    """A ratio whose interval holds 1 is no difference."""
    return "equal" if low <= 1 <= high else f"{ratio:.2f}"


def verdict(value, low, high, bound, more):
    if value >= bound if more else value <= bound:
        return "met"
    return "not clear" if low <= bound <= high else "missed"


def rows_of_ratios(results):
    for benchmark, bound in RATIOS:
        base = results.base(benchmark)
        if not (results.has(benchmark, "library") and results.has(benchmark, base)):
            yield [benchmark, "", "", "did not run", "", "", "", "missed"]
            continue
        unit = results.units[benchmark]
        more = unit in MORE_IS_BETTER
        ratio, low, high = results.ratio(benchmark, "library", base)
        competitors = [name for name in results.implementations(benchmark)
                       if name != "library" and not name.startswith(("raw", base))]
        best = ""
        if competitors:
            name = (max if more else min)(competitors, key=lambda competitor: results.median(benchmark, competitor))
            best = f"{name} {ratio_text(*results.ratio(benchmark, name, base))}"
        yield [benchmark, f"{number(results.median(benchmark, base))} {unit}",
               number(results.median(benchmark, "library")), ratio_text(ratio, low, high), f"{low:.3f} to {high:.3f}", best,
               f"{'>=' if more else '<='} {bound:.2f}", verdict(ratio, low, high, bound, more)]


def rows_of_limits(results):
    for benchmark, bound in LIMITS + [(benchmark, None) for benchmark in WITHOUT_GOAL]:
        if not results.has(benchmark, "library"):
            yield [benchmark, "did not run", "", "", "", "missed"]
            continue
        values = results.values[benchmark, "library"]
        median = results.median(benchmark, "library")
        others = "; ".join(f"{name} {number(results.median(benchmark, name))}"
                           for name in results.implementations(benchmark) if name != "library")
        yield [benchmark, f"{number(median)} {results.units[benchmark]}",
               f"{number(min(values))} to {number(max(values))}",
               others, "" if bound is None else f"<= {number(bound)}",
               "" if bound is None else verdict(median, min(values), max(values), bound, False)]


def plain_table(head, rows):
    widths = [max(len(row[i]) for row in [head, *rows]) for i in range(len(head))]
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip()
                     for row in [head, *rows])


def page_table(head, rows):
    lines = ["| " + " | ".join(row) + " |" for row in [head, *rows]]
    return "\n".join([lines[0], "|" + "---|" * len(head), *lines[1:]])


# ---------------------------------------------------------------------------------------------------- the plots

def gnuplot(path, title, x, y, curves, extra=""):
    """@param curves: {label: [(x, y)]}"""
    data = "".join(f"$d{i} << E\n" + "".join(f"{a} {b}\n" for a, b in points) + "E\n"
                   for i, points in enumerate(curves.values()))
    lines = ", ".join(f"$d{i} using 1:2 with linespoints pointtype 7 pointsize 0.5 linewidth 2 title '{label}'"
                      for i, label in enumerate(curves))
    script = (f"set terminal svg size 720,360 font 'sans,12' background 'white'\nset output '{path}'\n"
              f"set title '{title}'\nset xlabel '{x}'\nset ylabel '{y}'\nset grid\nset key left top\n"
              f"set yrange [0:*]\n{extra}\n{data}plot {lines}\n")
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def ratio_bars(path, results):
    benchmarks = [benchmark for benchmark, _ in RATIOS
                  if not benchmark.startswith(("MD5", "discovery")) and results.has(benchmark, "raw")]
    implementations = ["library", "asio", "libuv", "POCO"]
    rows = ""
    for benchmark in benchmarks:
        cells = [f"{results.ratio(benchmark, name, 'raw')[0]:.3f}" if results.has(benchmark, name) else "NaN"
                 for name in implementations]
        rows += f'"{benchmark}" ' + " ".join(cells) + "\n"
    plots = ", ".join(f"$d using {i + 2}:xtic(1) title '{name}'" for i, name in enumerate(implementations))
    script = (f"set terminal svg size 960,480 font 'sans,11' background 'white'\nset output '{path}'\n"
              "set title 'Against raw system calls (1); streams and saturated: more is better, else less'\n"
              "set style data histogram\nset style histogram clustered gap 1\nset style fill solid 0.8\n"
              "set yrange [0:2.5]\nset xtics rotate by -35 scale 0\nset rmargin 12\nset grid ytics\n"
              f"set key top left horizontal\n$d << E\n{rows}E\nplot {plots}, 1 with lines notitle linecolor 'black'\n")
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def slope(points):
    return statistics.linear_regression(*zip(*points)).slope if len(points) > 1 else 0.0


def growth(results, directory):
    """The plots, and a text for each."""
    sections = []

    def section(name, file, title, x, y, text, extra=""):
        curves = results.curve(name)
        if not curves:
            return
        gnuplot(directory / file, title, x, y, curves, extra)
        sections.append(f"### {title}\n\n![{title}](performance/{file})\n\n{text(curves)}\n")

    section("hosts", "hosts.svg", "Hosts on the LAN", "hosts", "query to the last entry, ms", lambda curves: (
        f"Each host adds {slope(curves['library']) * 1000:.0f} us (raw: {slope(curves['raw']) * 1000:.0f} us): its thread has "
        "to be woken, and its answer is copied to every port of the LAN. In the lab all hosts share this machine's "
        "processors, so that they answer one after the other; on a real LAN they do so at the same time, and what "
        "remains is the display's share, a few microseconds a host. The address plan ends at 49."))
    section("names, getRadar", "names.svg", "Names in the table: getRadar as an array", "names", "ns a call",
            lambda curves: (
                f"Listing copies every name, {slope(curves['library']):.1f} ns each. `getAddress` searches a balanced "
                "tree and copies one record: "
                + ", ".join(f"{y:.0f} ns with {x}" for x, y in results.curve("names, getAddress")["library"])
                + " names in these turns. 500 names are ten times what an address plan allows."))
    section("displays", "displays.svg", "Displays that ask 49 hosts once a second", "displays",
            "one display, ms of processor a second", lambda curves: (
                f"Hosts answer to the group, so each display hears everybody's answers: every further display costs "
                f"each of the others {slope(curves['library']):.2f} ms of processor a second, and the wire 49 "
                "answers of 264 bytes, 0.1 Mbit/s. With 20 displays a host sends 20 answers, and a display handles "
                "980, a second. That takes little of its processor. What limits the number of displays is the receive "
                "buffer: when more than "
                f"{buffer_holds(results) // 49} displays ask at the moment at which another is kept off its "
                "processor, the 256 KiB receive buffer of that one overflows. Up to that number one query a second is right; "
                f"D displays should ask every D / {buffer_holds(results) // 49} seconds, but not less often than "
                "every 3 seconds: an entry is removed after 8, and one lost answer must not be enough for that."))
    section("TCP clients", "clients.svg", "Clients of one TCP server", "clients", "one call to all, us",
            lambda curves: (
                "A call costs, in us a client: "
                + ", ".join(f"{y / x:.1f} with {x}" for x, y in curves["library"]) + " clients (raw: "
                + ", ".join(f"{y / x:.1f}" for x, y in curves["raw"]) + "). That is the "
                "system's `send` with the peer's part of it, which runs on the sender's processor here; that it grows with "
                "the clients is the system's as well, since raw sends grow alike. Each client also has a receive thread, and 2 MB of address space that is not touched before it sends."))
    section("receivers", "receivers.svg", "Receivers in one process, 20 000 datagrams/s among them", "receivers",
            "us of processor a datagram", lambda curves: (
                "The more threads share the datagrams, the more often a datagram finds its thread asleep and the thread's "
                "working set out of the cache, and pays for a switch of threads. An event loop finds several sockets ready each "
                "time it wakes; the library keeps a thread a receiver, since a listener may take its time without "
                "holding up the other groups."))
    return "\n".join(sections)


# ------------------------------------------------------------------------------------------- the receive buffer

def buffer_rows(results):
    rows = {}
    for (benchmark, _), values in results.values.items():
        if benchmark.startswith("buffer/"):
            _, size, delay, hosts = benchmark.split("/")
            rows.setdefault((int(size), int(delay)), {})[int(hosts)] = min(values)
    return rows


def buffer_holds(results):
    return int(buffer_rows(results).get((256, 10), {0: 400}).get(500, 400))


def buffer_table(results):
    rows = buffer_rows(results)
    hosts = sorted(next(iter(rows.values()))) if rows else []
    return page_table(["receive buffer", "held off for", *(f"of {count}" for count in hosts)],
                      [[f"{size} KiB", f"{delay} ms", *(f"{cells[count]:.0f}" for count in hosts)]
                       for (size, delay), cells in sorted(rows.items())])


def replace_block(path, name, text):
    page = path.read_text()
    block = re.compile(rf"(<!-- {name}[^>]*-->\n).*?(\n<!-- end -->)", re.S)
    assert block.search(page), f"{path} has no place for {name}"
    path.write_text(block.sub(lambda match: f"{match[1]}\n{text}\n{match[2]}", page))


# ------------------------------------------------------------------------------------------------------ the page

def machine():
    model = next((line.split(":")[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")),
                 os.uname().machine)
    return f"{model}, {os.cpu_count()} processors, Linux {os.uname().release}"


def main():
    results = Results(pathlib.Path(sys.argv[1]))
    docs = pathlib.Path(sys.argv[2])
    plots = docs / "performance"
    plots.mkdir(exist_ok=True)
    ratio_head = ["benchmark", "raw", "library", "ratio", "95 %", "best competitor", "goal", ""]
    limit_head = ["figure", "library", "range", "others", "goal", ""]
    ratios, limits = list(rows_of_ratios(results)), list(rows_of_limits(results))
    idle = [benchmark for benchmark in results.units if benchmark.startswith("idle")]
    implementations = results.implementations(idle[0]) if idle else []
    idle_rows = [[name, *(number(results.median(benchmark, name)) if results.has(benchmark, name) else ""
                          for benchmark in idle)] for name in implementations]
    idle_head = ["", *(benchmark.removeprefix("idle display, ").replace("memory", "memory, MiB")
                       for benchmark in idle)]
    discovery = "discovery of 49 two-stream hosts"
    found = [[name, number(results.median(discovery, name))] for name in results.implementations(discovery)]
    destruction = [[benchmark.removeprefix("destruction, "), number(results.median(benchmark, "library")),
                    number(max(results.values[benchmark, "library"]))]
                   for benchmark in results.units if benchmark.startswith("destruction, ")]
    watch, display, recording = ([[benchmark.removeprefix(group), name, number(results.median(benchmark, name)),
                                   results.units[benchmark]]
                                  for benchmark in results.units if benchmark.startswith(group)
                                  for name in results.implementations(benchmark)]
                                 for group in ("watch/", "display/", "record/"))
    failures = [[implementation, benchmark, reason] for benchmark, implementation, reason in results.failures]
    turns = [len(values) for (benchmark, _), values in results.values.items() if not benchmark.startswith("idle")]
    least, most = min(turns), max(turns)

    for head, rows in [(ratio_head, ratios), (limit_head, limits), (idle_head, idle_rows),
                       (["ms", discovery], found),
                       (["RadarWatch", "", "", ""], watch), (["a display", "", "", ""], display),
                       (["a recording", "", "", ""], recording), (["implementation", "did not run", "reason"], failures)]:
        if rows:
            print(plain_table(head, rows) + "\n")

    ratio_bars(plots / "ratios.svg", results)
    busy = ", ".join(f"{share} % {when}" for when, share in results.busy.items())
    quiet = max(results.busy.values(), default=0) <= 10
    load = "nothing else ran" if quiet else "other work, builds and tests, ran on the machine too"
    text = f"""# Performance

What the library costs beside raw system calls, and beside what an application would otherwise be built on. This page
and its plots are written by `scripts/bench`, from one run:

- {machine()}
- {datetime.date.today()}; {load} (processors busy: {busy})

Everything runs in network namespaces on one machine, the two sides in processes of their own. Implementations take turns
within each of {least} to {most} repetitions (the idle display is measured once); figures are medians, and so is the ratio, which is taken turn by turn. Beside it stands its 95 %
confidence interval; a ratio whose interval holds 1 is printed as "equal". A goal is met when the median meets it, missed when the
whole interval fails it, and not clear between. Processor time is that of the measured process, from `getrusage`.

## Benchmarks

{page_table(ratio_head, ratios)}

For MD5, "raw" is OpenSSL. An event loop on all 50 groups would cost {ratio_to_raw_threads(results, "raw event loop")} of a thread a
group, and threads whose waits end after half a second, as the library's do, {ratio_to_raw_threads(results, "raw with time-out")}.

Where datagrams come one at a time, each wakes a thread, and what follows is cold. A Stream's `recvmmsg` looks a second time
whether more has come, and its wait has an end: most of what "stream of 222 B" pays there; the rest is counting. The second
look makes a Stream cheaper where several datagrams wait already, as in "saturated". A pool of 50 streams saves wake-ups and
pays an `epoll_wait`, so it is the cheaper, the more a wake-up costs, and may be the dearer where that is little.

![Ratios to raw system calls](performance/ratios.svg)

{page_table(limit_head, limits)}

Each long announcement looks whether `profile.ini` has changed, since `TCPService` in it decides how the announcement is read:
the `stat` beside it is most of its time. A message to the 95 clients that read and were idle takes the system alone what
"raw, not waiting" shows, sends that leave out whoever has no room.

## Discovery

Milliseconds from a display's query to the last of 49 hosts, each on a computer of its own with two streams. The
library and the raw pair ask and are answered; DDS starts a participant, whose hosts are processes on one computer; mDNS
asks a daemon that has heard of all hosts before; SSDP spreads its answers over the second that a search names at least;
the beacon is heard once a second.

{page_table(["", "ms"], found)}

## An idle display

30 seconds without a query, with 49 hosts known. A tick is 10 ms of processor time. For mDNS the daemon is measured.

{page_table(idle_head, idle_rows)}

## RadarWatch

How soon a change that a radar announces is told, beside a receiver of the same datagrams in the same process; and what a
display has that knows one radar: threads, and memory of its own, with a configured address and after a search.

{page_table(["", "", "median", "unit"], watch)}

## A display

From the start of a process until the radar on the LAN is known to the application, and what a display has that knows 49 radars
of two streams and receives six of these, none of which sends.

{page_table(["", "", "median", "unit"], display)}

## A recording

48 hosts announce two streams each, and four of the streams send. Beside `radarctl record` stands a capture of everything that
comes through the interface. Processor time is that of the recording process.

{page_table(["", "", "median", "unit"], recording)}

## The receive buffer

How many of the hosts that answer at one moment are listed after one query, by the receive buffer that the display
asked for and by how long its receive thread was kept off the processor (the worst of all turns):

{buffer_table(results)}

The library asks for 256 KiB for its own receivers. [configuration.md](configuration.md#receive-buffers) says how the
system is made to grant it.

## How it grows

{growth(results, plots)}
## Destruction

How long the destructor of an object takes whose threads wait, in milliseconds.

{page_table(["object", "median", "longest"], destruction)}
"""
    if failures:
        text += "\n## What did not run\n\n" + page_table(["implementation", "benchmark", "reason"], failures) + "\n"
    (docs / "performance.md").write_text(text)
    if buffer_rows(results):
        replace_block(docs / "configuration.md", "scripts/bench: receive buffers", buffer_table(results))


def ratio_to_raw_threads(results, implementation):
    benchmark = "receive 50 groups at 20 k/s"
    if not results.has(benchmark, implementation):
        return "an unknown share"
    return f"{results.ratio(benchmark, implementation, 'raw')[0]:.2f}"


if __name__ == "__main__":
    main()
