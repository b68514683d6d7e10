/// @file
/// The virtual LAN: radar hosts and displays, each in a network of its own, on one bridge.
#pragma once

#include <lab/node.h>

#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace lab {

/// Radar host @p number, 1 to 254: "host<number>" with one interface, 10.20.1.<number>/16, and a default
/// route.
NodePlan radarHost(int number);

/// A display: @p interfaces interfaces of which number @p leading (from 0) leads to the radars as
/// 10.20.2.1/16; the others lead nowhere, as 192.168.<interface>.1/24. No default route.
NodePlan display(size_t interfaces, size_t leading = 0, const std::string& name = "display");

enum class Direction { FromNode, ToNode, Both };

/// A LAN in the private network of the calling process (enterPrivateNetwork() comes first).
///
/// The bridge is "lan0", with the far end of each interface, "host1-eth0", plugged in; it floods multicast to
/// every port. Every node's network is known to "ip" by the node's name, the bridge's by "lan". IPv6 is off
/// everywhere, so nothing is on the wire but what nodes send.
///
/// Life cycle: exists from the constructor to the destructor, or until the private network ends with its last
/// process, however that ends. There can be one at a time. All operations belong to one thread at a time,
/// in whatever network. Errors: std::system_error or std::runtime_error; the failing tool's own words are on
/// standard error.
class Lan {
public:
    explicit Lan(const std::vector<NodePlan>& plans);
    ~Lan();
    Lan(const Lan&) = delete;
    Lan& operator=(const Lan&) = delete;

    std::deque<Node>& nodes() { return m_nodes; }
    /// @throws std::out_of_range for a name that nobody has
    Node& node(const std::string& name);

    /// Takes the carrier from a node's interface; its address and routes stay.
    void cut(const Node& node, size_t interface = 0);
    void restore(const Node& node, size_t interface = 0);

    /// Deletes a node's interface, with its address and routes, as when an adapter is pulled out.
    void unplug(const Node& node, size_t interface = 0);
    /// Makes it again, with the same name, address and routes; to the system it is another one.
    /// @param index the system's number for it; 0: the system chooses
    void plugIn(const Node& node, size_t interface = 0, unsigned int index = 0);

    /// Drops that share of the packets that cross the bridge, for each receiver by itself.
    /// @param percent 0 to 100
    void dropRate(int percent);
    /// The same for what comes from one node, or goes to it, or both, on top of the rate of the whole LAN.
    void dropRate(const Node& node, int percent, Direction direction = Direction::Both);

    /// Gives an interface another address (with prefix length) in place of all that it had; empty: none.
    void changeAddress(const Node& node, size_t interface, const std::string& address);

private:
    std::string linkLine(const Node& node, size_t interface) const;
    std::string portOptions(const Node& node, size_t interface) const;
    void applyDropRates();

    Node m_bridge;
    std::deque<Node> m_nodes; // stays in place: nodes are handed out by reference
    std::map<std::pair<std::string, Direction>, int> m_dropRates; // percent by node name; "": the whole LAN
};

} // namespace lab
