#include "node.h"

#include <UdpSocket/base/thread.h>

#include <fcntl.h>
#include <sched.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <system_error>
#include <utility>

namespace lab {

namespace {

using net::detail::Descriptor;

void require(bool done, const char* what) {
    if (!done)
        throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

Inside::Inside(const Descriptor& network)
    : m_outside(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
    require(m_outside.isOpen(), "/proc/thread-self/ns/net");
    require(::setns(network.get(), CLONE_NEWNET) == 0, "setns");
}

Inside::~Inside() {
    if (::setns(m_outside.get(), CLONE_NEWNET) != 0) { // whatever it did in the wrong network would be wrong
        std::perror("lab: cannot leave a network");
        std::abort();
    }
}

Node::Node(NodePlan plan, Descriptor network) : m_plan(std::move(plan)), m_network(std::move(network)) {}

void Node::run(const std::function<void()>& work) const {
    std::exception_ptr thrown;
    std::thread thread = net::detail::startThread("lab-node", [&] {
        try {
            require(::setns(m_network.get(), CLONE_NEWNET) == 0, "setns");
            require(mountOwnSys(), "mount /sys");
            work();
        } catch (...) {
            thrown = std::current_exception();
        }
    });
    thread.join();
    if (thrown)
        std::rethrow_exception(thrown);
}

Process Node::start(const Process::Plan& plan) const {
    const Inside inside = enter();
    return Process(plan);
}

} // namespace lab
