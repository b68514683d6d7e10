/// @file
/// What an engine has of the system on one local address.
#pragma once

#include <UdpSocket/base/socket.h>
#include <UdpSocket/protocol/wire.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace radar::detail {

/// The interface that has a local address.
struct Interface {
    std::string name; ///< as the system gives it; an alias keeps its suffix ("eth0:1")
    unsigned index = 0;
    std::string device() const { return name.substr(0, name.find(':')); }
    bool operator==(const Interface&) const = default;
};

/// @param address network order
/// @param found   empty: this computer does not have that address
/// @return false: the system cannot say, and @p found is as it was
bool findInterface(std::uint32_t address, std::optional<Interface>& found);

/// A socket that hears announcements, and one that sends to the radars' groups; on a recording's address,
/// what is sent goes nowhere. One thread at a time.
class LocalLink {
public:
    /// Opens both in the place of those before. @param localIp network order @param hears whether
    /// announcements are to be heard @return null: done; else the call that was refused (errno)
    const char* open(std::uint32_t localIp, const Interface& interface, bool hears);
    void close();

    bool isOpen() const { return m_sender.isOpen() || (m_isRecorded && m_receiver.isOpen()); }
    int receiver() const { return m_receiver.get(); } ///< to be polled; -1: none
    /// Does not wait.
    net::detail::Received receive(char* buffer, int size) const;
    /// Does not wait. @return whether the system took it (errno)
    bool send(const wire::Group& group, std::string_view message) const;

private:
    const char* openRecording(std::uint32_t localIp);
    const char* openReceiver(std::uint32_t localIp, const Interface& interface);
    const char* openSender(std::uint32_t localIp);

    net::detail::Descriptor m_receiver;
    unsigned m_joined = 0; // index of the interface on which the receiver is in the group; 0: none
    net::detail::Descriptor m_sender;
    bool m_isRecorded = false;
};

} // namespace radar::detail
