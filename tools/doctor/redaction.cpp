#include "redaction.h"

#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/udpsocket.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <regex>

namespace doctor {

namespace {

bool isWordCharacter(char character) {
    return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_';
}

void replaceWord(std::string& text, const std::string& word, const std::string& replacement) {
    for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at)) {
        const std::size_t end = at + word.size();
        const bool isWord =
            (at == 0 || !isWordCharacter(text[at - 1]) || !isWordCharacter(word.front())) &&
            (end == text.size() || !isWordCharacter(text[end]) || !isWordCharacter(word.back()));
        if (isWord)
            text.replace(at, word.size(), replacement);
        at += isWord ? replacement.size() : 1;
    }
}

} // namespace

void Redaction::hide(const std::string& name, const std::string& replacement) {
    if (!name.empty())
        m_names.emplace(name, replacement);
}

std::string Redaction::radarName(const std::string& name) {
    const auto [known, isNew] = m_names.try_emplace(name, "radar-" + std::to_string(m_radars + 1));
    m_radars += isNew ? 1 : 0;
    return known->second;
}

std::uint32_t Redaction::address(std::uint32_t networkOrder) {
    const std::uint32_t address = net::NtoHl(networkOrder);
    const std::uint32_t first = address >> 24;
    if (first == 0 || first == 127 || first >= 224)
        return networkOrder;
    const auto number = [&](std::uint32_t network) {
        return m_networks.try_emplace(network, static_cast<std::uint32_t>(m_networks.size() + 1))
                   .first->second %
               256;
    };
    const std::uint32_t two = number(address >> 16);
    const std::uint32_t three = number(address >> 8 | 0xFF000000); // no first two octets are that
    return net::HtoNl(10U << 24 | two << 16 | three << 8 | (address & 0xFF));
}

std::string Redaction::word(const std::string& found) {
    if (found.find('.') != std::string::npos) {
        const unsigned int ip = net::transAddr(found.c_str());
        return ip == 0xFFFFFFFF ? found : net::transAddr(address(ip));
    }
    const auto [known, isNew] = m_words.try_emplace(found);
    if (isNew) {
        char text[32];
        const bool isEthernet = found.size() == 17 && found[2] == ':' && found[5] == ':';
        std::snprintf(text, sizeof text, isEthernet ? "02:00:00:00:%02zx:%02zx" : "fd00::%zx:%zx",
                      m_words.size() / 256, m_words.size() % 256);
        known->second = text;
    }
    return known->second;
}

std::string Redaction::text(const std::string& text) {
    static const std::regex kAddresses(
        "[0-9A-Fa-f]{2}(:[0-9A-Fa-f]{2}){5}"
        "|[0-9A-Fa-f]{0,4}(:[0-9A-Fa-f]{0,4}){3,7}|[0-9A-Fa-f]{1,4}::[0-9A-Fa-f]{0,4}"
        "|[0-9]{1,3}(\\.[0-9]{1,3}){3}");
    std::string result;
    std::string::const_iterator rest = text.begin();
    for (std::sregex_iterator found(text.begin(), text.end(), kAddresses), end; found != end; ++found) {
        result.append(rest, (*found)[0].first).append(word(found->str()));
        rest = (*found)[0].second;
    }
    result.append(rest, text.end());
    for (const auto& [name, replacement] : m_names)
        replaceWord(result, name, replacement);
    return result;
}

std::string Redaction::message(std::string_view datagram) {
    std::string result(datagram);
    const auto announcement = protocol::readAnnouncement(datagram, {});
    if (!announcement)
        return result;
    const auto put = [&](std::size_t offset, std::uint32_t ip) {
        result.replace(offset, sizeof ip, reinterpret_cast<const char*>(&ip), sizeof ip);
    };
    std::string name = radarName(std::string(announcement->name.view()));
    name.resize(wire::kName.width, '\0');
    result.replace(wire::kName.offset, name.size(), name);
    put(wire::kRadarIp.offset, address(wire::addressAt(datagram, wire::kRadarIp)));
    const bool isLong = protocol::isLongAnnouncement(datagram);
    const auto redact = [&](std::span<const wire::EndpointPlace> places) {
        for (const wire::EndpointPlace& place : places)
            put(place.offset, address(wire::endpointAt(datagram, place).ip));
    };
    redact((isLong ? wire::kLongAnnouncement : wire::kShortAnnouncement).endpoints);
    if (isLong && wire::byteAt(datagram, wire::kExtended) == 1) {
        redact(wire::kTcpEndpoints);
        redact(wire::kUserEndpoints);
    }
    return result;
}

} // namespace doctor
