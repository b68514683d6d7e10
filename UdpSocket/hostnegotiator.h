/// @file
/// How a radar host comes by a host id of its own.
#pragma once

#include <cstdint>
#include <functional>

class HostNegotiatorPrivate;

/// Claims a host id on group 236.6.7.4 port 6768: proposes it, waits a second for objections, confirms it,
/// waits another second, and starts again with a random id from 16 to 63 whenever another host objects.
///
/// Once logged in, the negotiator gives its id up when somebody objects to it (a display does so to renumber
/// a host) and negotiates another. Only the holder of id 1 objects to the claims of others, and to every
/// claim: two hosts can come to hold one id from 16 to 63, and a display that sees it can make both
/// renumber. A claim that cannot be sent, or is lost on its way, counts as unopposed: log in once there are
/// an address and a route to the group.
///
/// The random ids follow from the millisecond in which the negotiator was made, and the generator's first
/// draws differ little: hosts that were switched on within some 2.7 seconds, or whose clocks all start at one
/// time, draw the same ids again and again. So propose an id that nobody announces: listen to the
/// announcements for a moment first, as "radarctl host" does.
///
/// Threads: a receive thread, and a login thread from when it is first needed. onReset is called on the
/// receive thread; onLogin on the login thread, or on the caller's thread by syncLogin, whose caller gets
/// what it throws. Callbacks run without a lock, may call any operation, and must return quickly; onLogin may
/// even destroy the negotiator. All operations may be called from any thread. When the destructor returns, no
/// thread, callback or socket is left and nothing more is sent; a callback in progress is waited for, unless
/// it is the one that destroys. In a child made by fork the object is left alone, as udpsocket.h says.
class __attribute__((visibility("default"))) HostNegotiator {
public:
    /// Listens from here on; nothing is sent before a login.
    /// @param onReset called when other equipment asks for a reset (2 bytes, code 0xA120); may be empty
    /// @param onLogin called with the id at the end of every negotiation, also of those that an objection
    /// starts
    ///                later; may be empty
    HostNegotiator(std::function<void()> onReset, std::function<void(std::uint8_t)> onLogin);
    ~HostNegotiator();
    HostNegotiator(const HostNegotiator&) = delete;
    HostNegotiator& operator=(const HostNegotiator&) = delete;

    /// Starts negotiating on a thread of its own.
    /// @param id the id to propose first; used as given, also outside 16 to 63 (1, say)
    /// @return false when a login was started before; one line on standard output says so
    /// @throws std::system_error where the system has no thread left; nothing was started then
    bool asyncLogin(std::uint8_t id);

    /// Negotiates on the caller's thread: two seconds when nobody objects, without limit as long as somebody
    /// does.
    /// @return the id that is held in the end, or 0 when a login was started before
    std::uint8_t syncLogin(std::uint8_t id);

private:
    HostNegotiatorPrivate* d;
};
