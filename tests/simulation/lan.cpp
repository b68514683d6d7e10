#include "lan.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace simulation {

namespace {

constexpr std::size_t kMaxNodes = 128;
constexpr std::size_t kMaxWaiting = 300; // datagrams that the system keeps for a frozen process
constexpr std::size_t kMaxEventsAtOnce = 100000;
constexpr std::uint64_t kDigestPrime = 1099511628211U;

} // namespace

Lan::Lan(std::uint64_t seed) : m_random(seed), m_slots(kHorizon), m_lost(kMaxNodes * kMaxNodes, -1) {}

void Lan::add(Node& node) {
    require(m_nodes.size() < kMaxNodes, "the simulation has room for its nodes");
    node.m_number = m_nodes.size();
    m_nodes.push_back(&node);
}

void Lan::switchOn(Node& node) {
    node.m_power = Power::On;
    ++node.m_life;
    note(node, "is switched on", 0);
}

void Lan::switchOff(Node& node) {
    node.m_power = Power::Off;
    ++node.m_life;
    node.m_waiting.clear();
    note(node, "is switched off", 0);
}

void Lan::freeze(Node& node) {
    node.m_power = Power::Frozen;
    note(node, "freezes", 0);
}

/// What waited comes at once; which of the threads runs first is chance.
void Lan::thaw(Node& node) {
    node.m_power = Power::On;
    node.m_thawed = m_now;
    note(node, "goes on", 0);
    if (m_random.onceIn(2))
        std::stable_partition(node.m_waiting.begin(), node.m_waiting.end(),
                              [](const Event& event) { return event.isTimer; });
    for (const Event& event : node.m_waiting)
        post(m_now, event);
    node.m_waiting.clear();
}

void Lan::schedule(const Node& node, Time delay, int timer) {
    require(delay >= 0 && delay < kHorizon, "the simulation's timers are short");
    post(m_now + delay, {static_cast<std::uint16_t>(node.m_number), node.m_life, 0, true,
                         static_cast<std::uint32_t>(timer)});
}

void Lan::run(Time until) {
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
    Node& node = *m_nodes[event.node];
    if (event.life != node.m_life || node.m_power == Power::Off)
        return;
    if (node.m_power == Power::Frozen) {
        if (event.isTimer || node.m_waiting.size() < kMaxWaiting)
            node.m_waiting.push_back(event);
        return;
    }
    m_acting = event.node;
    if (event.isTimer) {
        node.timer(static_cast<int>(event.what));
        return;
    }
    noteDatagram(node, "gets", event.what);
    node.receive(m_datagrams[event.what], event.interface);
}

DatagramId Lan::keep(Datagram datagram) {
    m_datagrams.push_back(std::move(datagram));
    return static_cast<DatagramId>(m_datagrams.size() - 1);
}

void Lan::send(const Node& from, std::size_t interface, DatagramId id) {
    noteDatagram(from, "sends", id);
    const Traffic traffic = m_datagrams[id].traffic;
    const int segment = from.interfaces[interface].segment;
    for (Node* to : m_nodes)
        if (to->m_power != Power::Off && to->takes(traffic))
            for (std::size_t i = 0; i < to->interfaces.size(); ++i)
                if (to->interfaces[i].segment == segment && segment >= 0)
                    deliver(from, *to, i, id);
}

void Lan::deliver(const Node& from, const Node& to, std::size_t interface, DatagramId id) {
    const Event event{static_cast<std::uint16_t>(to.m_number), to.m_life,
                      static_cast<std::uint16_t>(interface), false, id};
    if (&from == &to) {
        post(m_now, event);
        return;
    }
    const std::uint64_t chance = m_random.bits();
    if (from.side != to.side || chance % 1000 < weather.loss) {
        noteDatagram(to, "does not get", id);
        if (m_datagrams[id].traffic == Traffic::Negotiation)
            m_lost[from.m_number * kMaxNodes + to.m_number] = m_now;
        return;
    }
    const auto delay = [this](std::uint64_t bits) {
        return static_cast<Time>((bits % 0x10000) * (weather.delay + 1) / 0x10000);
    };
    post(m_now + delay(chance >> 16), event);
    if ((chance >> 48) % 1000 < weather.duplicates)
        post(m_now + delay(chance >> 32), event);
}

bool Lan::lostBetween(const Node& a, const Node& b, Time since) const {
    return m_lost[a.m_number * kMaxNodes + b.m_number] >= since ||
           m_lost[b.m_number * kMaxNodes + a.m_number] >= since;
}

NameId Lan::nameId(const std::string& name) {
    const auto [entry, added] = m_nameIds.try_emplace(name, static_cast<NameId>(m_names.size()));
    if (added)
        m_names.push_back(name);
    return entry->second;
}

NameId Lan::findName(std::string_view name) const {
    const auto entry = m_nameIds.find(name);
    return entry == m_nameIds.end() ? kNoName : entry->second;
}

void Lan::note(const Node& node, const char* what, std::uint32_t argument) {
    put({m_now, static_cast<std::uint16_t>(node.m_number), false, argument, what});
}

void Lan::noteDatagram(const Node& node, const char* what, DatagramId id) {
    put({m_now, static_cast<std::uint16_t>(node.m_number), true, id, what});
}

void Lan::put(const Step& step) {
    m_record[m_steps++ % m_record.size()] = step;
    for (const std::uint64_t part :
         {static_cast<std::uint64_t>(step.at), std::uint64_t{step.node} << 32 | step.argument,
          static_cast<std::uint64_t>(step.what[0])})
        m_digest = (m_digest ^ part) * kDigestPrime;
}

std::string Lan::lastSteps() {
    note(*m_nodes[m_acting], "breaks a property", 0);
    std::string text;
    const std::uint64_t count = std::min<std::uint64_t>(m_steps, m_record.size());
    for (std::uint64_t i = m_steps - count; i < m_steps; ++i) {
        const Step& step = m_record[i % m_record.size()];
        char begin[64];
        std::snprintf(begin, sizeof begin, "%11.3f s  %-10s ", static_cast<double>(step.at) / 1000,
                      m_nodes[step.node]->name().c_str());
        text += std::string(begin) + step.what;
        if (step.isDatagram) {
            const Datagram& sent = m_datagrams[step.argument];
            text += " " + sent.what + " of " + m_nodes[sent.sender]->name();
        } else if (step.argument != 0) {
            text += " " + std::to_string(step.argument);
        }
        text += "\n";
    }
    return text;
}

} // namespace simulation
