/// @file
/// A LAN in one process and in virtual time: nodes with interfaces on segments, and what happens to datagrams
/// between them. Everything that happens follows from the seed.
#pragma once

#include "random.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace simulation {

using Time = std::int64_t; ///< virtual milliseconds
using NameId = std::uint32_t;
inline constexpr NameId kNoName = 0xFFFFFFFF;

/// A property does not hold.
struct Violation : std::runtime_error {
    using std::runtime_error::runtime_error;
};

inline void require(bool holds, const char* property) {
    if (!holds)
        throw Violation(property);
}

enum class Traffic : std::uint8_t { Query, Announcement, Negotiation, Beacon };

/// Datagrams are kept as long as the LAN, and sent by number as often as needed.
using DatagramId = std::uint32_t;

struct Datagram {
    Traffic traffic;
    std::string bytes;
    std::size_t sender;   ///< the node that really sends it
    std::uint32_t source; ///< the address that it claims to come from, network order
    std::string what;     ///< in words

    // What the sender means by it: oracles go by this, never by the library's reading of the bytes.
    NameId name = kNoName;      ///< under which displays have to list it
    NameId tcpName = kNoName;   ///< and those that use the TCP service
    std::uint16_t arpaPort = 0; ///< network order
    bool sign = false;          ///< counts where a display searches
};

struct Interface {
    int segment;           ///< -1: none
    std::uint32_t address; ///< network order, 0: none
};

enum class Power { Off, On, Frozen };

/// A computer. Only one that is on gets timers and datagrams; those of a frozen one wait, up to a limit.
class Node {
public:
    Node(std::string name, std::vector<Interface> on) : interfaces(std::move(on)), m_name(std::move(name)) {}
    virtual ~Node() = default;

    virtual bool takes(Traffic traffic) const = 0;
    virtual void receive(const Datagram& datagram, std::size_t interface) = 0;
    virtual void timer(int which) = 0;

    const std::string& name() const { return m_name; }
    std::size_t number() const { return m_number; }
    Power power() const { return m_power; }
    bool frozenSince(Time since) const { return m_power == Power::Frozen || m_thawed >= since; }

    std::vector<Interface> interfaces;
    int side = 0; ///< nodes on different sides of a partition do not hear each other

private:
    friend class Lan;
    struct Event {
        std::uint16_t node;
        std::uint16_t life;
        std::uint16_t interface;
        bool isTimer;
        std::uint32_t what; // timer, or datagram
    };

    const std::string m_name;
    std::size_t m_number = 0;
    Power m_power = Power::Off;
    std::uint16_t m_life = 0; // counts how often it was switched on: older timers and datagrams are void
    Time m_thawed = -1000000;
    std::vector<Event> m_waiting;
};

class Lan {
public:
    /// What happens to a datagram on its way to each receiver. Chances are in 1000.
    struct Weather {
        std::uint32_t loss = 0;
        std::uint32_t duplicates = 0;
        std::uint32_t delay = 1; ///< at most, in milliseconds
    };

    explicit Lan(std::uint64_t seed);

    Time now() const { return m_now; }
    Random& random() { return m_random; }
    Weather weather;

    void add(Node& node);
    void switchOn(Node& node);
    void switchOff(Node& node);
    void freeze(Node& node);
    void thaw(Node& node);

    /// @param delay less than kHorizon
    void schedule(const Node& node, Time delay, int timer);
    void run(Time until);

    DatagramId keep(Datagram datagram);
    const Datagram& datagram(DatagramId id) const { return m_datagrams[id]; }
    /// To all on the interface's segment; the sender's own copy arrives at once.
    void send(const Node& from, std::size_t interface, DatagramId id);
    /// Whether a datagram of the negotiation between two nodes was lost since then.
    bool lostBetween(const Node& a, const Node& b, Time since) const;

    NameId nameId(const std::string& name);
    NameId findName(std::string_view name) const;
    const std::string& nameText(NameId id) const { return m_names[id]; }

    /// Takes a step into the record. @param what a literal
    void note(const Node& node, const char* what, std::uint32_t argument);
    void noteDatagram(const Node& node, const char* what, DatagramId id);
    /// The last steps before a property did not hold, a line each.
    std::string lastSteps();
    /// Of all steps.
    std::uint64_t digest() const { return m_digest; }
    std::uint64_t stepCount() const { return m_steps; }

    static constexpr Time kHorizon = 8192;

private:
    using Event = Node::Event;
    struct Step {
        Time at;
        std::uint16_t node;
        bool isDatagram;
        std::uint32_t argument;
        const char* what;
    };

    void put(const Step& step);
    void post(Time at, const Event& event) {
        m_slots[static_cast<std::size_t>(at % kHorizon)].push_back(event);
    }
    void happen(const Event& event);
    void deliver(const Node& from, const Node& to, std::size_t interface, DatagramId id);

    Time m_now = 0;
    Random m_random;
    std::vector<std::vector<Event>> m_slots; // one a millisecond
    std::vector<Node*> m_nodes;
    std::size_t m_acting = 0;         // the node whose turn it is
    std::deque<Datagram> m_datagrams; // stays where it is
    std::vector<Time> m_lost;         // of negotiation datagrams, by sender and receiver
    std::vector<std::string> m_names;
    std::map<std::string, NameId, std::less<>> m_nameIds;
    std::array<Step, 512> m_record{};
    std::uint64_t m_steps = 0;
    std::uint64_t m_digest = 14695981039346656037U;
};

} // namespace simulation
