#include "table.h"

#include <cwchar>

#include <algorithm>
#include <cstdio>

namespace {

constexpr int kNameWidth = 22;

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

std::string padded(const std::string& text, int columns) {
    return text + std::string(static_cast<std::size_t>(std::max(1, columns - width(text))), ' ');
}

template <class... Values>
std::string format(const char* pattern, Values... values) {
    char text[128];
    std::snprintf(text, sizeof text, pattern, values...);
    return text;
}

std::string orDash(int number) {
    return number != 0 ? std::to_string(number) : "-";
}

std::string endpointLine(const char* label, const NetAddress& stream, const NetAddress& control,
                         const NetAddress& state) {
    return format("    %-6s%-19scontrol %-19sstate %s", label, endpointText(stream).c_str(),
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

std::string endpointText(const NetAddress& endpoint) {
    return net::transAddr(endpoint.ip) + (":" + std::to_string(net::NtoHs(endpoint.port)));
}

std::string summary(const Radar& radar) {
    return printable(radar.name) + " id " + orDash(radar.hostId) + " streams " + orDash(radar.streams) +
           " image " + endpointText(radar.endpoints.imageStream) + " " +
           endpointText(radar.endpoints.imageCtrl) + " " + endpointText(radar.endpoints.imageState) +
           " ARPA " + endpointText(radar.endpoints.arpaStream) + " " +
           endpointText(radar.endpoints.arpaCtrl) + " " + endpointText(radar.endpoints.arpaState);
}

std::vector<std::string> table(const std::vector<Radar>& radars) {
    std::vector<std::string> lines{padded("RADAR", kNameWidth) + " ID  STREAMS  LAST HEARD"};
    for (const Radar& radar : radars) {
        const std::string age =
            radar.age ? format("%.1f s ago", static_cast<double>(radar.age->count()) / 1000) : "-";
        lines.push_back(padded(printable(radar.name), kNameWidth) +
                        format("%3s  %7d  %s", orDash(radar.hostId).c_str(), radar.streams, age.c_str()));
        const RadarAddress& record = radar.endpoints;
        lines.push_back(endpointLine("image", record.imageStream, record.imageCtrl, record.imageState));
        lines.push_back(endpointLine("ARPA", record.arpaStream, record.arpaCtrl, record.arpaState));
    }
    return lines;
}
