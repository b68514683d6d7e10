/// @file
/// Makes what is shown to others unrecognisable, the same thing the same way everywhere.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace doctor {

/// Replaces addresses and names, each by one of its own. Of an address that computers have, what networks of
/// 16 and of 24 bits have in common stays in common, and the last octet stays; groups, loopback and netmasks
/// stay.
class Redaction {
public:
    /// This name is replaced from now on, also as printable() shows it. @param replacement at most 16 bytes
    void hide(const std::string& name, const std::string& replacement);
    /// A radar's: replaced by a number.
    std::string radarName(const std::string& name);

    std::uint32_t address(std::uint32_t address); ///< network order
    /// With the addresses of IPv4, IPv6 and Ethernet, and the names told of, where they are words.
    std::string text(const std::string& text);
    /// A message of the radar protocols.
    std::string message(std::string_view datagram);

private:
    using Names = std::map<std::string, std::string>;
    std::string word(const std::string& address);
    Names::const_iterator nameAt(const std::string& text, std::size_t at) const;

    Names m_names; // in each form, with their replacements
    std::map<std::string, std::string> m_words;
    std::map<std::uint32_t, std::uint32_t> m_networks; // first two and first three octets, with their numbers
    std::size_t m_radars = 0;
};

} // namespace doctor
