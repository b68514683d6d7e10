/// @file
/// The datagrams of the simulation, with what they mean.
#pragma once

#include "lan.h"

namespace simulation {

/// Network order. @param number from 1 to 65534
std::uint32_t address(int segment, std::uint32_t number);

/// How a host announces itself.
enum class Form { Short, Long, User, Tcp, UserTcp };
inline constexpr std::uint32_t kForms = 5;

/// @param name 20 characters at most
Datagram announcement(const Node& sender, std::uint32_t source, const std::string& name, std::uint8_t hostId,
                      Form form);
Datagram query(const Node& sender, std::uint32_t source);
Datagram negotiation(const Node& sender, std::string_view bytes);
Datagram beacon(const Node& sender);
/// What is no message, but as long as an announcement.
Datagram noise(const Node& sender);

/// The messages of the negotiation, byte by byte.
namespace bytes {
inline constexpr char kProbe = 1;
inline constexpr char kConfirm = 2;
inline constexpr char kObjection = 3;

inline std::string message(char code, std::uint8_t hostId, std::uint8_t fourth = 1) {
    return {code, '\xA1', static_cast<char>(hostId), static_cast<char>(fourth)};
}
inline bool isMessage(std::string_view bytes) {
    return bytes.size() == 4 && bytes[1] == '\xA1' && bytes[0] >= kProbe && bytes[0] <= kObjection;
}
inline std::uint8_t id(std::string_view message) {
    return static_cast<std::uint8_t>(message[2]);
}
} // namespace bytes

} // namespace simulation
