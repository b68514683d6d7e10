/// @file
/// Which local address leads to the radars: what a search listens to, for how long, and what follows from
/// what it has heard.
#pragma once

#include <UdpSocket/base/timing.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <vector>

namespace protocol {

/// A search over all local addresses at the same time, repeated after a pause. Addresses are in network
/// order.
///
///     Pause ----------> FirstBeacons ---heard---> SecondBeacons ---heard---> Pause, with a result
///       ^  over, or         | silence                   | silence
///       |  other addresses  +-------------+-------------+
///       |                                 v
///       +------- with a result ------- Answers <--- Joining
///
/// Beacons count when they are heard through an address in two periods in a row. Where none is, every address
/// asks for announcements; what is heard since it joined the group counts. A change of the local addresses
/// ends a pause, never a search; an address that is gone at the end does not count.
class InterfaceSearch {
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Addresses = std::set<std::uint32_t>;

    enum class Phase { Pause, FirstBeacons, SecondBeacons, Joining, Answers };

    /// What the listeners have to be told.
    struct Result {
        bool byBeacon;
        std::uint32_t previous;               ///< the address in force so far, 0: none
        std::vector<std::uint32_t> addresses; ///< to be told in this order; the last one stays in force
    };

    explicit InterfaceSearch(const net::detail::SearchTiming& timing) : m_timing(timing) {}

    Phase phase() const { return m_phase; }
    /// Through which addresses this phase listens; none in a pause.
    const Addresses& listening() const { return m_listening; }
    /// When this phase ends by itself.
    TimePoint phaseEnd() const { return m_phaseEnd; }
    /// The address told last, 0: none.
    std::uint32_t current() const { return m_current; }

    /// A sign of a radar (isSignOfRadar) came through @p address on what this phase listens to: the beacon
    /// group, or from Joining on the discovery group.
    void heard(std::uint32_t address);

    /// Moves on by one phase where @p now or @p localAddresses, those that the machine has, ask for it. A new
    /// phase lasts from now, or from listeningSince() on. On entering Answers a query is due on every
    /// address.
    /// @return what this ends the search with, when the listeners are to be told
    std::optional<Result> advance(TimePoint now, const Addresses& localAddresses);

    /// The sockets of this phase are open since @p now only.
    void listeningSince(TimePoint now) { m_phaseEnd = now + duration(); }

    /// Gives up a search in progress: @p address is in force by configuration. The next advance() searches.
    void configure(std::uint32_t address);

private:
    std::chrono::milliseconds duration() const;
    void enter(Phase phase, const Addresses& listening, TimePoint now);
    std::optional<Result> conclude(const Addresses& heard, TimePoint now, bool byBeacon);

    const net::detail::SearchTiming m_timing;
    Phase m_phase = Phase::Pause;
    TimePoint m_phaseEnd = TimePoint::min();
    Addresses m_searched; // the local addresses when the last search began
    Addresses m_listening;
    Addresses m_heard; // in this phase; Answers goes on with what Joining heard
    std::uint32_t m_current = 0;
    bool m_found = false; // the last search heard a radar
};

} // namespace protocol
