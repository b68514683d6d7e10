#include "table.h"

#include <cwchar>

#include <algorithm>
#include <cstdio>

namespace {

constexpr int kNameWidth = 22;
constexpr int kInterfaceWidth = 12;

/// Columns that printable text takes.
int width(const std::string& text) {
    int columns = 0;
    std::mbstate_t state{};
    for (std::size_t at = 0; at < text.size();) {
        wchar_t character;
        at += std::mbrtowc(&character, text.data() + at, text.size() - at, &state);
        columns += ::wcwidth(character);
    }
    return columns;
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

const std::string kTableHeading =
    padded("RADAR", kNameWidth) + " ID  STREAMS  " + padded("INTERFACE", kInterfaceWidth);

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
    return isTold(endpoint) ? net::transAddr(endpoint.ip) + (":" + std::to_string(net::NtoHs(endpoint.port)))
                            : "-";
}

std::string ageText(const std::optional<std::chrono::milliseconds>& age) {
    return age ? format("%.1f s ago", static_cast<double>(age->count()) / 1000) : "-";
}

std::string hostIdText(int hostId) {
    return hostId != 0 ? std::to_string(hostId) : "-";
}

std::string tableLine(const Radar& radar, const std::string& interface) {
    return padded(printable(radar.name), kNameWidth) +
           format("%3s  %7zu  ", hostIdText(radar.hostId).c_str(), radar.streams.size()) +
           padded(interface, kInterfaceWidth);
}

std::vector<std::string> endpointLines(const Radar& radar) {
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < radar.streams.size(); ++i) {
        const RadarAddress& record = radar.streams[i];
        lines.push_back(endpointLine(i, "image", record.imageStream, record.imageCtrl, record.imageState));
        lines.push_back(endpointLine(i, "ARPA", record.arpaStream, record.arpaCtrl, record.arpaState));
    }
    return lines;
}

std::string summary(const Radar& radar) {
    std::string text = printable(radar.name) + " id " + hostIdText(radar.hostId) + " streams " +
                       std::to_string(radar.streams.size());
    for (const RadarAddress& record : radar.streams)
        text += " image " + endpointText(record.imageStream) + " " + endpointText(record.imageCtrl) + " " +
                endpointText(record.imageState) + " ARPA " + endpointText(record.arpaStream) + " " +
                endpointText(record.arpaCtrl) + " " + endpointText(record.arpaState);
    return text;
}
