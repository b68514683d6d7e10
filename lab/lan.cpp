#include "lan.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace lab {

namespace {

using net::detail::Descriptor;

const std::string kNames = "/run/netns/";  // where "ip" looks for networks
const std::string kBridgeNetwork = "lan";  // name of the network that the bridge stands in
constexpr const char* kDeviceGroup = "20"; // all devices of the bridge's network, for removing them at once

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::string ethernet(size_t index) {
    return "eth" + std::to_string(index);
}

/// The port of the bridge that an interface is plugged into.
std::string farEnd(const Node& node, size_t interface) {
    return node.name() + "-" + ethernet(interface);
}

bool leadsToLan(const Node& node, size_t interface) {
    return node.plan().interfaces[interface].leads == Leads::ToLan;
}

/// Writes text to the standard input of a command in the calling thread's network.
void pipeTo(const std::string& command, const std::string& text) {
    FILE* pipe = ::popen(command.c_str(), "we");
    if (pipe == nullptr)
        fail(command);
    std::fputs(text.c_str(), pipe);
    if (::pclose(pipe) != 0)
        throw std::runtime_error("lab: \"" + command + "\" failed");
}

void ip(const std::string& lines) {
    pipeTo("ip -batch -", lines);
}

/// Sets a value of the calling thread's network; one that the kernel does not know is left out.
void setNetworkValue(const std::string& name, const char* value) {
    const Descriptor file(::open(("/proc/sys/net/" + name).c_str(), O_WRONLY | O_CLOEXEC));
    if (file.isOpen() ? ::write(file.get(), value, 1) != 1 : errno != ENOENT)
        fail(name);
}

/// Whatever the machine's own settings are: no IPv6 packets, and no check of source addresses against routes.
void disableIpv6AndReversePathFilter() {
    for (const std::string scope : {"all", "default"}) {
        setNetworkValue("ipv6/conf/" + scope + "/disable_ipv6", "1");
        setNetworkValue("ipv4/conf/" + scope + "/rp_filter", "0");
    }
}

/// Gives the calling thread's network a name. @return the network
Descriptor nameNetwork(const std::string& name) {
    const std::string path = kNames + name;
    Descriptor file(::open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0444));
    if (!file.isOpen() || ::mount("/proc/thread-self/ns/net", path.c_str(), nullptr, MS_BIND, nullptr) != 0)
        fail(path);
    return Descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

Descriptor makeNetwork(const std::string& name) {
    Descriptor network;
    std::exception_ptr thrown;
    std::thread([&] {
        try {
            if (::unshare(CLONE_NEWNET) != 0)
                fail("unshare");
            disableIpv6AndReversePathFilter();
            network = nameNetwork(name);
        } catch (...) {
            thrown = std::current_exception();
        }
    }).join();
    if (thrown)
        std::rethrow_exception(thrown);
    return network;
}

/// The network that the process is in, as the bridge's.
Descriptor nameOwnNetwork() {
    if (::mkdir(kNames.c_str(), 0755) != 0 && errno != EEXIST)
        fail(kNames);
    disableIpv6AndReversePathFilter();
    return nameNetwork(kBridgeNetwork);
}

/// Waits until the bridge forwards through a port: the kernel opens it a moment after the link is up.
void awaitForwarding(const std::string& port) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    const std::string stateFile = "/sys/class/net/" + port + "/brport/state";
    constexpr int forwarding = 3;
    for (;;) {
        int state = 0;
        std::ifstream(stateFile) >> state;
        if (state == forwarding)
            return;
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("lab: no link at " + port);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void removeNetworkName(const std::string& name) {
    const std::string path = kNames + name;
    if (::umount2(path.c_str(), MNT_DETACH) != 0 || ::unlink(path.c_str()) != 0)
        std::perror(path.c_str());
}

std::string addressLines(const Node& node, size_t interface, const std::string& address) {
    const std::string device = ethernet(interface);
    std::string lines = "address add " + address + " broadcast + dev " + device + "\n";
    if (node.plan().defaultRoute && interface == 0)
        lines += "route add default dev " + device + "\n";
    return lines;
}

std::string upLines(const Node& node, size_t interface) {
    return "link set lo up\nlink set " + ethernet(interface) + " up\n" +
           addressLines(node, interface, node.plan().interfaces[interface].address);
}

} // namespace

NodePlan radarHost(int number) {
    const std::string text = std::to_string(number);
    return {"host" + text, {{"10.20.1." + text + "/16", Leads::ToLan}}, true};
}

NodePlan display(size_t interfaces, size_t leading, const std::string& name) {
    NodePlan plan{name, {}, false};
    for (size_t i = 0; i < interfaces; ++i) {
        if (i == leading)
            plan.interfaces.push_back({"10.20.2.1/16", Leads::ToLan});
        else
            plan.interfaces.push_back({"192.168." + std::to_string(i) + ".1/24", Leads::Nowhere});
    }
    return plan;
}

Lan::Lan(const std::vector<NodePlan>& plans) : m_bridge({kBridgeNetwork, {}, false}, nameOwnNetwork()) {
    std::string lines =
        std::string("link add name lan0 group ") + kDeviceGroup + " up type bridge mcast_snooping 0\n";
    for (const NodePlan& plan : plans) {
        const Node& node = m_nodes.emplace_back(plan, makeNetwork(plan.name));
        for (size_t i = 0; i < plan.interfaces.size(); ++i)
            lines += linkLine(node, i);
    }
    ip(lines);
    for (const Node& node : m_nodes) {
        const Inside inside = node.enter();
        std::string ups;
        for (size_t i = 0; i < node.plan().interfaces.size(); ++i)
            ups += upLines(node, i);
        ip(ups);
    }
    m_bridge.run([this] {
        for (const Node& node : m_nodes)
            for (size_t i = 0; i < node.plan().interfaces.size(); ++i)
                if (leadsToLan(node, i))
                    awaitForwarding(farEnd(node, i));
    });
}

std::string Lan::linkLine(const Node& node, size_t interface) const {
    return "link add name " + farEnd(node, interface) + portOptions(node, interface) +
           " type veth peer name " + ethernet(interface) + " netns " + node.name() + "\n";
}

std::string Lan::portOptions(const Node& node, size_t interface) const {
    return std::string(" group ") + kDeviceGroup + (leadsToLan(node, interface) ? " master lan0" : "") +
           " up";
}

Lan::~Lan() {
    try {
        m_dropRates.clear();
        applyDropRates();
        const Inside bridge = m_bridge.enter();
        ip(std::string("link delete group ") + kDeviceGroup + "\n");
    } catch (const std::exception& error) {
        std::fprintf(stderr, "lab: %s\n", error.what());
    }
    for (const Node& node : m_nodes)
        removeNetworkName(node.name());
    removeNetworkName(kBridgeNetwork);
}

Node& Lan::node(const std::string& name) {
    for (Node& node : m_nodes)
        if (node.name() == name)
            return node;
    throw std::out_of_range("lab: no node \"" + name + "\"");
}

void Lan::cut(const Node& node, size_t interface) {
    const Inside bridge = m_bridge.enter();
    ip("link set " + farEnd(node, interface) + " down\n");
}

void Lan::restore(const Node& node, size_t interface) {
    const Inside bridge = m_bridge.enter();
    ip("link set " + farEnd(node, interface) + " up\n");
    if (leadsToLan(node, interface))
        m_bridge.run([&] { awaitForwarding(farEnd(node, interface)); });
}

void Lan::unplug(const Node& node, size_t interface) {
    const Inside bridge = m_bridge.enter();
    ip("link delete " + farEnd(node, interface) + "\n");
}

void Lan::plugIn(const Node& node, size_t interface, unsigned int index) {
    if (index != 0) // which ip passes over for a peer
        node.run([&] {
            ip("link add name " + ethernet(interface) + " index " + std::to_string(index) +
               " type veth peer name " + farEnd(node, interface) + " netns " + m_bridge.name() + "\n");
        });
    m_bridge.run([&] {
        ip(index != 0 ? "link set " + farEnd(node, interface) + portOptions(node, interface) + "\n"
                      : linkLine(node, interface));
    });
    node.run([&] { ip(upLines(node, interface)); });
    if (leadsToLan(node, interface))
        m_bridge.run([&] { awaitForwarding(farEnd(node, interface)); });
}

void Lan::dropRate(int percent) {
    m_dropRates[{"", Direction::Both}] = percent;
    applyDropRates();
}

void Lan::dropRate(const Node& node, int percent, Direction direction) {
    m_dropRates[{node.name(), direction}] = percent;
    applyDropRates();
}

void Lan::applyDropRates() {
    std::string rules;
    for (const auto& [where, percent] : m_dropRates) {
        const auto& [name, direction] = where;
        if (percent == 0)
            continue;
        const std::string chance = "numgen random mod 100 < " + std::to_string(percent) + " ";
        const std::string drop = (percent < 100 ? chance : "") + "drop\n";
        if (name.empty())
            rules += drop;
        if (!name.empty() && direction != Direction::ToNode)
            rules += "iifname \"" + name + "-*\" " + drop;
        if (!name.empty() && direction != Direction::FromNode)
            rules += "oifname \"" + name + "-*\" " + drop;
    }
    const Inside bridge = m_bridge.enter();
    // In one transaction, so that there is no moment without rules.
    pipeTo("nft -f -", "table bridge lab\ndelete table bridge lab\n"
                       "table bridge lab {\nchain forward {\ntype filter hook forward priority 0\n" +
                           rules + "}\n}\n");
}

void Lan::changeAddress(const Node& node, size_t interface, const std::string& address) {
    const Inside inside = node.enter();
    ip("address flush dev " + ethernet(interface) + "\n" +
       (address.empty() ? "" : addressLines(node, interface, address)));
}

} // namespace lab
