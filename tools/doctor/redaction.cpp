#include "redaction.h"

#include "../table.h"

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

bool isWordAt(const std::string& text, std::size_t at, const std::string& word) {
    const std::size_t end = at + word.size();
    return text.compare(at, word.size(), word) == 0 &&
           (at == 0 || !isWordCharacter(text[at - 1]) || !isWordCharacter(word.front())) &&
           (end == text.size() || !isWordCharacter(text[end]) || !isWordCharacter(word.back()));
}

} // namespace

void Redaction::hide(const std::string& name, const std::string& replacement) {
    for (const std::string& form : {name, printable(name)})
        if (!form.empty())
            m_names.emplace(form, replacement);
}

std::string Redaction::radarName(const std::string& name) {
    const auto known = m_names.find(name);
    if (known != m_names.end())
        return known->second;
    std::string replacement = "radar-" + std::to_string(++m_radars);
    hide(name, replacement);
    return replacement;
}

/// The longest that stands there.
Redaction::Names::const_iterator Redaction::nameAt(const std::string& text, std::size_t at) const {
    auto found = m_names.end();
    for (auto name = m_names.lower_bound(text.substr(at, 1));
         name != m_names.end() && name->first.front() == text[at]; ++name)
        if (isWordAt(text, at, name->first))
            found = name; // of names that begin alike, a longer one comes later
    return found;
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
    std::sregex_iterator address(text.begin(), text.end(), kAddresses);
    for (std::size_t at = 0; at < text.size();) { // once: what is put in may be the name of another radar
        const auto here = static_cast<std::ptrdiff_t>(at);
        while (address != std::sregex_iterator() && address->position() < here)
            ++address;
        const bool isAddress = address != std::sregex_iterator() && address->position() == here;
        const auto length = isAddress ? static_cast<std::size_t>(address->length()) : 0;
        const auto name = nameAt(text, at);
        if (name != m_names.end() && name->first.size() > length) {
            result += name->second;
            at += name->first.size();
        } else if (isAddress) {
            result += word(address->str());
            at += length;
        } else {
            result += text[at++];
        }
    }
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
