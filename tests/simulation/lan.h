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

/// A property does not hold.
struct Violation : std::runtime_error {
    using std::runtime_error::runtime_error;
};

inline void require(bool holds, const char* property) {
    if (!holds)
        throw Violation(property);
}

/// What happened how often: a property that nothing puts to the test is no property. The keys are literals.
using Counts = std::map<std::string_view, std::uint64_t>;

enum class Traffic : std::uint8_t { Query, Announcement, Negotiation, Beacon };

struct Datagram {
    Traffic traffic;
    std::string bytes;
    std::size_t sender;   ///< the node that really sends it
    std::uint32_t source; ///< the address that it claims to come from, network order
    std::string what;     ///< in words

    // What the sender means by it: oracles go by this, never by the library's reading of the bytes.
    std::string name{};         ///< under which displays have to list it; empty: no announcement
    std::string tcpName{};      ///< and those that use the TCP service; empty: none
    std::uint16_t arpaPort = 0; ///< network order
    bool sign = false;          ///< counts where a display searches
};

struct Interface {
    int segment;
    std::uint32_t address; ///< network order, 0: none
};

/// A computer. Only one that is on gets timers and datagrams.
class Node {
public:
    Node(std::string name, std::vector<Interface> on) : interfaces(std::move(on)), m_name(std::move(name)) {}
    virtual ~Node() = default;

    virtual bool takes(Traffic traffic) const = 0;
    virtual void receive(const Datagram& datagram, std::size_t interface) = 0;
    virtual void timer(int which) = 0;

    const std::string& name() const { return m_name; }
    std::size_t number() const { return m_number; }
    bool isOn() const { return m_on; }

    std::vector<Interface> interfaces;

private:
    friend class Lan;

    const std::string m_name;
    std::size_t m_number = 0;
    bool m_on = false;
    int m_life = 0; // counts how often it was switched on: older timers and datagrams are void
};

class Lan {
public:
    /// What happens to a datagram on its way to each receiver. Chances are in 1000.
    struct Weather {
        std::uint32_t loss = 0;
        std::uint32_t duplicates = 0;
        std::uint32_t delay = 1; ///< at most, in milliseconds
    };

    explicit Lan(std::uint64_t seed) : m_random(seed), m_slots(kHorizon) {}

    Time now() const { return m_now; }
    Random& random() { return m_random; }
    Weather weather;
    Counts counts;

    void add(Node& node);
    void switchOn(Node& node);
    void switchOff(Node& node);

    /// @param delay less than kHorizon
    void schedule(Node& node, Time delay, int timer);
    void run(Time until);

    /// Datagrams are kept as long as the LAN, and sent as often as needed.
    const Datagram& keep(Datagram datagram) { return m_datagrams.emplace_back(std::move(datagram)); }
    /// To all on the interface's segment; the sender's own copy arrives at once.
    void send(const Node& from, std::size_t interface, const Datagram& datagram);
    /// Whether a datagram of the negotiation was lost since then.
    bool lostSince(Time since) const { return m_lost >= since; }

    /// Takes a step into the record. @param what a literal
    void note(const Node& node, const char* what, std::uint32_t argument = 0,
              const Datagram* datagram = nullptr);
    /// The last steps before a property did not hold, a line each.
    std::string lastSteps() const;

    static constexpr Time kHorizon = 8192;

private:
    struct Event {
        Node* node;
        int life;
        int timer;
        const Datagram* datagram; // null: the timer
        std::size_t interface;
    };
    struct Step {
        Time at;
        const Node* node;
        const char* what;
        std::uint32_t argument;
        const Datagram* datagram;
    };

    void post(Time delay, const Event& event) {
        m_slots[static_cast<std::size_t>((m_now + delay) % kHorizon)].push_back(event);
    }
    void happen(const Event& event);
    void deliver(const Node& from, const Event& event);

    Time m_now = 0;
    Random m_random;
    std::vector<std::vector<Event>> m_slots; // one a millisecond
    std::vector<Node*> m_nodes;
    std::deque<Datagram> m_datagrams; // stays where it is
    Time m_lost = -1;
    std::array<Step, 512> m_record{};
    std::size_t m_steps = 0;
};

} // namespace simulation
