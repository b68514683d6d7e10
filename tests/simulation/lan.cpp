#include "lan.h"

#include <algorithm>
#include <cstdio>

namespace simulation {

void Lan::add(Node& node) {
    node.m_number = m_nodes.size();
    m_nodes.push_back(&node);
}

void Lan::switchOn(Node& node) {
    node.m_on = true;
    ++node.m_life;
    note(node, "is switched on");
}

void Lan::switchOff(Node& node) {
    node.m_on = false;
    note(node, "is switched off");
}

void Lan::schedule(Node& node, Time delay, int timer) {
    require(delay >= 0 && delay < kHorizon, "the simulation's timers are short");
    post(delay, {&node, node.m_life, timer, nullptr, 0});
}

void Lan::run(Time until) {
    constexpr std::size_t kMaxEventsAtOnce = 100000;
    for (; m_now < until; ++m_now) {
        std::vector<Event>& slot = m_slots[static_cast<std::size_t>(m_now % kHorizon)];
        for (std::size_t i = 0; i < slot.size(); ++i) {
            require(i < kMaxEventsAtOnce, "time goes on");
            happen(Event(slot[i])); // which may add to the slot
        }
        slot.clear();
    }
}

void Lan::happen(const Event& event) {
    Node& node = *event.node;
    if (!node.m_on || event.life != node.m_life)
        return;
    if (event.datagram == nullptr) {
        node.timer(event.timer);
        return;
    }
    note(node, "gets", 0, event.datagram);
    node.receive(*event.datagram, event.interface);
}

void Lan::send(const Node& from, std::size_t interface, const Datagram& datagram) {
    note(from, "sends", 0, &datagram);
    for (Node* to : m_nodes)
        if (to->m_on && to->takes(datagram.traffic))
            for (std::size_t i = 0; i < to->interfaces.size(); ++i)
                if (to->interfaces[i].segment == from.interfaces[interface].segment)
                    deliver(from, {to, to->m_life, 0, &datagram, i});
}

void Lan::deliver(const Node& from, const Event& event) {
    if (&from == event.node) {
        post(0, event);
        return;
    }
    if (m_random.below(1000) < weather.loss) {
        note(*event.node, "does not get", 0, event.datagram);
        if (event.datagram->traffic == Traffic::Negotiation)
            m_lost = m_now;
        return;
    }
    post(m_random.below(weather.delay + 1), event);
    if (m_random.below(1000) < weather.duplicates)
        post(m_random.below(weather.delay + 1), event);
}

void Lan::note(const Node& node, const char* what, std::uint32_t argument, const Datagram* datagram) {
    m_record[m_steps++ % m_record.size()] = {m_now, &node, what, argument, datagram};
}

std::string Lan::lastSteps() const {
    std::string text;
    for (std::size_t i = m_steps - std::min(m_steps, m_record.size()); i < m_steps; ++i) {
        const auto& [at, node, what, argument, datagram] = m_record[i % m_record.size()];
        char begin[64];
        std::snprintf(begin, sizeof begin, "%11.3f s  %-10s ", static_cast<double>(at) / 1000,
                      node->name().c_str());
        text += begin + std::string(what);
        if (datagram != nullptr)
            text += " " + datagram->what + " of " + m_nodes[datagram->sender]->name();
        else if (argument != 0)
            text += " " + std::to_string(argument);
        text += "\n";
    }
    return text;
}

} // namespace simulation
