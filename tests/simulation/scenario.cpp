#include "scenario.h"

#include "attacker.h"
#include "display.h"
#include "host.h"

#include <algorithm>
#include <memory>

namespace simulation {

namespace {

constexpr std::uint32_t kSegments = 2;

/// The LAN with all that is on it. Once a second, something may happen to some of it.
class Hour : public Node {
public:
    Hour(const Scenario& scenario, std::uint64_t seed);

    void run(Time length);
    Outcome outcome(std::string failure);

    bool takes(Traffic) const override { return false; }
    void receive(const Datagram&, std::size_t) override {}
    void timer(int which) override;

private:
    void startHost(Host& host);
    void startDisplay(Display& display);
    void befall(Host& host);
    void befall(Display& display);
    template <class Kind>
    bool befallPower(Kind& node, std::uint32_t rareness);
    void changeLan();
    void flap(Display& display);
    /// Something that happens in an ordinary second once in so many on average.
    bool chance(std::uint32_t onceIn) { return !m_calm && m_lan.random().onceIn(onceIn); }
    std::uint32_t below(std::size_t end) { return m_lan.random().below(static_cast<std::uint32_t>(end)); }
    std::uint32_t displayAddress(const Display& display, std::size_t interface, std::uint32_t lease) const;

    Lan m_lan;
    Counts m_counts;
    std::vector<Host*> m_allHosts;
    std::vector<std::unique_ptr<Host>> m_hosts;
    std::vector<std::unique_ptr<Display>> m_displays;
    std::vector<std::string> m_radars; // a name for each host, and some that come and go
    std::unique_ptr<Attacker> m_attacker;
    std::uint32_t m_maxDelay;
    std::uint32_t m_maxLoss;
    bool m_beacons;
    bool m_flaps; // an unrelated address comes and goes every five seconds
    bool m_floods;
    bool m_calm = true;
};

Hour::Hour(const Scenario& scenario, std::uint64_t seed) : Node("LAN", {}), m_lan(seed) {
    static constexpr std::uint32_t kDelays[] = {1, 20, 300};
    static constexpr std::uint32_t kLosses[] = {0, 10, 50, 300};
    m_lan.add(*this);
    m_maxDelay = kDelays[below(std::size(kDelays))];
    m_maxLoss = kLosses[below(std::size(kLosses))];
    m_beacons = m_lan.random().onceIn(2);
    m_flaps = m_lan.random().onceIn(3);
    m_floods = m_lan.random().onceIn(8);
    for (std::uint32_t i = 1; i <= scenario.hosts; ++i) {
        m_radars.push_back(i % 3 == 0 ? "a long name " + std::to_string(1000 + i) : "R" + std::to_string(i));
        const int segment = static_cast<int>(i % kSegments);
        m_hosts.push_back(std::make_unique<Host>(m_lan, m_allHosts, "host" + std::to_string(i),
                                                 std::vector<Interface>{{segment, address(segment, i)}},
                                                 m_counts));
    }
    m_radars.push_back("another name"); // for whoever comes back under one
    for (std::uint32_t i = 1; i <= scenario.displays; ++i) {
        std::vector<Interface> on{{static_cast<int>(i % kSegments), 0}};
        if (m_lan.random().onceIn(2))
            on.push_back({static_cast<int>((i + 1) % kSegments), 0});
        if (m_flaps)
            on.push_back({-1, 0});
        m_displays.push_back(std::make_unique<Display>(m_lan, "display" + std::to_string(i), on, m_counts));
    }
    std::vector<Interface> everywhere;
    for (int segment = 0; segment < static_cast<int>(kSegments); ++segment)
        everywhere.push_back({segment, address(segment, 250)});
    m_attacker = std::make_unique<Attacker>(m_lan, everywhere, m_radars, scenario.keptNames);
}

void Hour::run(Time length) {
    m_lan.switchOn(*this);
    m_attacker->start(1U << below(8));
    for (const auto& host : m_hosts)
        startHost(*host);
    for (const auto& display : m_displays) {
        for (std::size_t i = 0; i < display->interfaces.size(); ++i)
            display->interfaces[i].address = displayAddress(*display, i, 0);
        startDisplay(*display);
    }
    m_lan.schedule(*this, 1000, 0);
    m_lan.run(length);
}

std::uint32_t Hour::displayAddress(const Display& display, std::size_t interface, std::uint32_t lease) const {
    const auto number = static_cast<std::uint32_t>(display.number()) + 60 + 80 * lease;
    return address(display.interfaces[interface].segment, number);
}

void Hour::startHost(Host& host) {
    const std::size_t number =
        static_cast<std::size_t>(std::ranges::find(m_allHosts, &host) - m_allHosts.begin());
    const bool one = m_lan.random().onceIn(4);
    const auto id =
        one ? std::uint8_t{1} : static_cast<std::uint8_t>(16 + below(m_hosts.size() < 10 ? 4 : 48));
    host.interfaces[0].address =
        address(host.interfaces[0].segment, 1000 + static_cast<std::uint32_t>(number) + 100 * below(2));
    host.start({m_lan.random().onceIn(8) ? m_radars.back() : m_radars[number], id,
                static_cast<Form>(below(kForms)), m_beacons && m_lan.random().onceIn(2)});
}

void Hour::startDisplay(Display& display) {
    const Time period = m_displays.size() > 5 ? 1000 : 1000 + static_cast<Time>(below(3)) * 1000;
    display.start({period, m_lan.random().onceIn(2)});
}

/// @return whether it is on, and stays so
template <class Kind>
bool Hour::befallPower(Kind& node, std::uint32_t rareness) {
    if (node.power() == Power::Frozen) {
        if (m_lan.random().onceIn(8))
            m_lan.thaw(node);
    } else if (chance(rareness)) {
        node.stop();
    } else if (chance(rareness)) {
        m_lan.freeze(node);
    } else {
        return true;
    }
    return false;
}

void Hour::befall(Host& host) {
    if (host.power() == Power::Off) {
        if (m_lan.random().onceIn(10))
            startHost(host);
    } else if (befallPower(host, 300)) {
        host.oracle().look();
    }
}

void Hour::befall(Display& display) {
    if (display.power() == Power::Off) {
        if (m_lan.random().onceIn(10))
            startDisplay(display);
        return;
    }
    if (!befallPower(display, 600))
        return;
    if (chance(120)) {
        const std::size_t interface = below(display.interfaces.size());
        const bool gone = display.interfaces[interface].address != 0 && m_lan.random().onceIn(2);
        display.setAddress(interface, gone ? 0 : displayAddress(display, interface, below(2)));
    }
    for (std::size_t i = 0; i < display.interfaces.size(); ++i)
        if (display.interfaces[i].address == 0 && m_lan.random().onceIn(20))
            display.setAddress(i, displayAddress(display, i, 0));
    if (m_flaps && m_lan.now() / 1000 % 5 == 0)
        flap(display);
    if (chance(100))
        display.renumberOne();
    if (m_lan.random().onceIn(300)) // now and then, and soon no more
        display.configure(displayAddress(display, 0, below(2)));
    else if (m_lan.random().onceIn(20))
        display.configure(0);
}

void Hour::flap(Display& display) {
    const std::size_t last = display.interfaces.size() - 1;
    const bool there = display.interfaces[last].address != 0;
    display.setAddress(last, there ? 0 : displayAddress(display, last, 0));
}

void Hour::changeLan() {
    if (m_lan.random().onceIn(90)) // a calm time lets everything settle
        m_calm = !m_calm;
    if (m_lan.random().onceIn(60)) {
        const bool clear = m_calm || m_lan.random().onceIn(2);
        m_lan.weather = {clear ? 0 : below(m_maxLoss + 1), clear ? 0 : below(50), below(m_maxDelay + 1)};
    }
    const bool parted = std::ranges::any_of(m_hosts, [](const auto& host) { return host->side != 0; });
    if (parted ? !m_lan.random().onceIn(20) : !chance(200))
        return;
    for (const auto& host : m_hosts)
        host->side = parted ? 0 : static_cast<int>(below(2));
    for (const auto& display : m_displays)
        display->side = parted ? 0 : static_cast<int>(below(2));
    m_lan.note(*this, parted ? "is whole again" : "is parted", 0);
}

void Hour::timer(int) {
    changeLan();
    for (const auto& host : m_hosts)
        befall(*host);
    for (const auto& display : m_displays)
        befall(*display);
    static constexpr std::uint32_t kFloodSources[] = {1, 3, 600};
    if (m_floods && m_lan.random().onceIn(600))
        m_attacker->flood(kFloodSources[below(std::size(kFloodSources))]);
    m_lan.schedule(*this, 1000, 0);
}

Outcome Hour::outcome(std::string failure) {
    m_counts.steps = m_lan.stepCount();
    m_counts.digest = m_lan.digest();
    std::string steps = failure.empty() ? std::string() : m_lan.lastSteps();
    return {std::move(failure), std::move(steps), m_counts};
}

} // namespace

Outcome simulate(const Scenario& scenario, std::uint64_t seed, std::int64_t seconds) {
    Hour hour(scenario, seed);
    try {
        hour.run(seconds * 1000);
    } catch (const Violation& violation) {
        return hour.outcome(violation.what());
    }
    return hour.outcome({});
}

} // namespace simulation
