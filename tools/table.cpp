#include "table.h"

#include <UdpSocket/udpsocket.h>

#include <cwchar>

#include <algorithm>
#include <cstdio>
#include <string_view>
#include <utility>

namespace {

constexpr int kNameWidth = 22;
constexpr int kIdWidth = 5; // with a mark
constexpr int kStreamsWidth = 9;
constexpr int kTimeWidth = 12;
constexpr int kAgeWidth = 10;
constexpr int kEndpointsWidth = 80;
constexpr std::size_t kMaxNames = 4; // in a sentence
constexpr std::size_t kMaxNotes = 3;

/// The bytes that the first character of a text takes, one where it is none, and its columns.
std::pair<std::size_t, int> firstCharacter(std::string_view text) {
    std::mbstate_t state{};
    wchar_t character;
    const std::size_t length = std::mbrtowc(&character, text.data(), text.size(), &state);
    if (length == 0 || length > text.size())
        return {1, 1};
    return {length, std::max(0, ::wcwidth(character))};
}

/// Columns that printable text takes.
int width(std::string_view text) {
    int columns = 0;
    while (!text.empty()) {
        const auto [bytes, wide] = firstCharacter(text);
        columns += wide;
        text.remove_prefix(bytes);
    }
    return columns;
}

/// As much of printable text as fits, with a sign that there is more.
std::string cut(const std::string& text, int columns) {
    if (width(text) <= columns)
        return text;
    std::size_t end = 0;
    for (int used = 1;;) {
        const auto [bytes, wide] = firstCharacter(std::string_view(text).substr(end));
        used += wide;
        if (used > columns)
            return text.substr(0, end) + "\u2026";
        end += bytes;
    }
}

template <class... Values>
std::string format(const char* pattern, Values... values) {
    char text[128];
    std::snprintf(text, sizeof text, pattern, values...);
    return text;
}

std::string endpointLine(std::size_t stream, const char* label, const NetAddress& data,
                         const NetAddress& control, const NetAddress& state) {
    return format("  %zu %-6s%-19scontrol %-19sstate %s", stream, label, endpointText(data).c_str(),
                  endpointText(control).c_str(), endpointText(state).c_str());
}

} // namespace

std::string printable(const std::string& bytes) {
    std::string result;
    std::mbstate_t state{};
    for (std::size_t at = 0; at < bytes.size();) {
        wchar_t character;
        const std::size_t length = std::mbrtowc(&character, bytes.data() + at, bytes.size() - at, &state);
        const bool isCharacter = length != 0 && length <= bytes.size() - at;
        if (isCharacter && ::wcwidth(character) > 0) {
            result.append(bytes, at, length);
            at += length;
        } else {
            state = {};
            result += format("\\x%02X", static_cast<unsigned int>(static_cast<unsigned char>(bytes[at])));
            ++at;
        }
    }
    return result;
}

std::string padded(const std::string& text, int columns) {
    return text + std::string(static_cast<std::size_t>(std::max(1, columns - width(text))), ' ');
}

std::string endpointText(const NetAddress& endpoint) {
    return isAnnounced(endpoint)
               ? std::string(net::transAddr(endpoint.ip)) + ":" + std::to_string(net::NtoHs(endpoint.port))
               : "-";
}

std::string endpointText(const wire::Group& group) {
    return std::string(group.address) + ":" + std::to_string(group.port);
}

std::string counted(std::uint64_t number, const std::string& what) {
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

std::string ageText(std::chrono::milliseconds age) {
    return format("%.1f s ago", static_cast<double>(age.count()) / 1000);
}

std::string hostIdText(int hostId) {
    return hostId != 0 ? std::to_string(hostId) : "-";
}

std::string inWords(const std::set<std::string>& names) {
    std::string text;
    std::size_t left = names.size();
    for (const std::string& name : names) {
        if (names.size() - left == kMaxNames - 1 && left > 1)
            return text + " and " + std::to_string(left) + " more";
        text += (text.empty() ? "" : left == 1 ? " and " : ", ") + printable(name);
        --left;
    }
    return text;
}

std::string shellWord(const std::string& text) {
    std::string word = "'";
    for (const char character : text)
        word += character == '\'' ? "'\\''" : std::string(1, character);
    return word + "'";
}

TableLayout::TableLayout(const std::string& interface, int columns, bool firstSeen)
    : m_interface(printable(interface)),
      m_interfaceWidth(std::max(width("INTERFACE"), width(m_interface)) + 2), m_nameWidth(kNameWidth),
      m_hasFirstSeen(firstSeen) {
    if (columns == 0)
        return;
    constexpr int kShortestName = 6;
    const int left = columns - kIdWidth - m_interfaceWidth - kAgeWidth;
    m_hasFirstSeen = firstSeen && left >= kNameWidth + kStreamsWidth + kTimeWidth;
    m_hasStreams = left >= kNameWidth + kStreamsWidth;
    m_nameWidth = std::clamp(left, kShortestName, kNameWidth);
    m_cutsNames = true;
}

std::string TableLayout::row(const std::string& name, const std::string& id, const std::string& streams,
                             const std::string& interface, const std::string& firstSeen,
                             const std::string& lastHeard) const {
    return padded(m_cutsNames ? cut(name, m_nameWidth - 1) : name, m_nameWidth) + padded(id, kIdWidth) +
           (m_hasStreams ? padded(streams, kStreamsWidth) : "") + padded(interface, m_interfaceWidth) +
           (m_hasFirstSeen ? padded(firstSeen, kTimeWidth) : "") + lastHeard;
}

std::string TableLayout::heading() const {
    return row("RADAR", " ID", "STREAMS", "INTERFACE", "FIRST SEEN", "LAST HEARD");
}

std::string TableLayout::line(const radar::Radar& entry, bool sharesId, const std::string& lastHeard,
                              const std::string& firstSeen) const {
    return row(printable(entry.name), format("%3s%s", hostIdText(entry.hostId).c_str(), sharesId ? "!" : " "),
               format("%7zu", entry.streams.size()), m_interface, firstSeen, lastHeard);
}

std::vector<std::string> sharedIdNotes(const SharedIds& shared, int columns) {
    std::vector<std::string> notes;
    std::size_t told = 0;
    for (const auto& [id, names] : shared) {
        if (told++ == kMaxNotes) {
            notes.push_back("! " + std::to_string(shared.size() - kMaxNotes) + " more host ids are shared");
            break;
        }
        const std::string what = "! " + inWords(names) + " share host id " + std::to_string(id);
        const std::string remedy = "radarctl renumber " + shellWord(printable(*names.begin()));
        if (columns == 0 || width(what + "; " + remedy) <= columns)
            notes.push_back(what + "; " + remedy);
        else
            notes.insert(notes.end(), {what, "  " + remedy});
    }
    return notes;
}

std::vector<std::string> endpointLines(const radar::Radar& entry, int columns) {
    std::vector<std::string> lines;
    const auto add = [&](std::size_t stream, const char* label, const NetAddress& data,
                         const NetAddress& control, const NetAddress& state) {
        if (columns == 0 || columns >= kEndpointsWidth) {
            lines.push_back(endpointLine(stream, label, data, control, state));
        } else {
            lines.push_back(format("  %zu %-6s%s", stream, label, endpointText(data).c_str()));
            lines.push_back("    control " + endpointText(control));
            lines.push_back("    state   " + endpointText(state));
        }
    };
    for (std::size_t i = 0; i < entry.streams.size(); ++i) {
        const RadarAddress& record = entry.streams[i];
        add(i, "image", record.imageStream, record.imageCtrl, record.imageState);
        add(i, "ARPA", record.arpaStream, record.arpaCtrl, record.arpaState);
    }
    return lines;
}

std::string summary(const radar::Radar& entry) {
    std::string text = printable(entry.name) + " id " + hostIdText(entry.hostId) + " streams " +
                       std::to_string(entry.streams.size());
    for (const RadarAddress& record : entry.streams)
        text += " image " + endpointText(record.imageStream) + " " + endpointText(record.imageCtrl) + " " +
                endpointText(record.imageState) + " ARPA " + endpointText(record.arpaStream) + " " +
                endpointText(record.arpaCtrl) + " " + endpointText(record.arpaState);
    return text;
}
