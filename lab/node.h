/// @file
/// One computer on the virtual LAN: a network namespace of its own.
#pragma once

#include <lab/process.h>

#include <UdpSocket/base/descriptor.h>

#include <functional>
#include <string>
#include <vector>

namespace lab {

enum class Leads { ToLan, Nowhere };

/// One interface of a node. Its carrier is up either way: an interface that leads nowhere is plugged into a
/// port that is not on the bridge.
struct InterfacePlan {
    std::string address; ///< with its prefix length: "10.20.1.1/16"
    Leads leads = Leads::ToLan;
};

struct NodePlan {
    std::string name; ///< at most 10 characters; also the name for "ip -n" and "ip netns exec"
    std::vector<InterfacePlan> interfaces; ///< eth0, eth1 and so on
    bool defaultRoute = false; ///< through eth0: without it, nothing can be sent from the "any" address
};

/// Keeps the calling thread inside a network for as long as it lives. Sockets made meanwhile belong to that
/// network permanently; threads and processes started meanwhile run in it. /sys stays that of the outside.
class Inside {
public:
    /// @throws std::system_error when the network cannot be entered
    explicit Inside(const net::detail::Descriptor& network);
    ~Inside();
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

private:
    net::detail::Descriptor m_outside;
};

/// A node belongs to its Lan. Any thread may call its operations.
class Node {
public:
    Node(NodePlan plan, net::detail::Descriptor network);

    const NodePlan& plan() const { return m_plan; }
    const std::string& name() const { return m_plan.name; }

    /// Puts the calling thread into the node's network: "const lab::Inside inside = node.enter();"
    Inside enter() const { return Inside(m_network); }

    /// Runs @p work on a new thread in the node's network, with the node's /sys (carrier files), and waits
    /// for it. What it throws comes back to the caller.
    void run(const std::function<void()>& work) const;

    /// Starts a program in the node.
    Process start(const Process::Plan& plan) const;

private:
    NodePlan m_plan;
    net::detail::Descriptor m_network;
};

} // namespace lab
