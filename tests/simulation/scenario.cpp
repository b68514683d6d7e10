#include "scenario.h"

#include "attacker.h"
#include "display.h"
#include "host.h"

#include <algorithm>
#include <memory>

namespace simulation {

namespace {

constexpr int kSegments = 2;

/// The LAN with all that is on it. Once a second, something may happen to some of it.
class Hour : public Node {
public:
    Hour(const Scenario& scenario, std::uint64_t seed);

    void run(Time length);
    Outcome outcome(const std::string& failure) const {
        return {failure, failure.empty() ? "" : m_lan.lastSteps(), m_lan.counts};
    }

    bool takes(Traffic) const override { return false; }
    void receive(const Datagram&, std::size_t) override {}
    void timer(int which) override;

private:
    void startHost(std::size_t number);
    void startDisplay(Display& display);
    void befall(Display& display);
    void changeLan();
    bool onceIn(std::uint32_t times) { return m_lan.random().onceIn(times); }
    /// Something that happens in an ordinary second once in so many on average.
    bool chance(std::uint32_t times) { return !m_calm && onceIn(times); }
    std::uint32_t below(std::size_t end) { return m_lan.random().below(static_cast<std::uint32_t>(end)); }
    static std::uint32_t displayAddress(const Display& display, std::size_t interface, std::uint32_t lease) {
        const auto number = static_cast<std::uint32_t>(display.number()) + 60 + 80 * lease;
        return address(display.interfaces[interface].segment, number);
    }

    Lan m_lan;
    std::vector<Host*> m_allHosts;
    std::vector<std::unique_ptr<Host>> m_hosts;
    std::vector<std::unique_ptr<Display>> m_displays;
    std::vector<std::string> m_radars; // a name for each host, and one that comes and goes
    std::unique_ptr<Attacker> m_attacker;
    std::uint32_t m_maxDelay;
    std::uint32_t m_maxLoss;
    bool m_beacons;
    bool m_floods;
    bool m_calm = true;
};

Hour::Hour(const Scenario& scenario, std::uint64_t seed) : Node("LAN", {}), m_lan(seed) {
    static constexpr std::uint32_t kDelays[] = {1, 20, 300};
    static constexpr std::uint32_t kLosses[] = {0, 10, 50, 300};
    m_lan.add(*this);
    m_maxDelay = kDelays[below(std::size(kDelays))];
    m_maxLoss = kLosses[below(std::size(kLosses))];
    m_beacons = onceIn(2);
    m_floods = onceIn(8);
    for (std::uint32_t i = 1; i <= scenario.hosts; ++i) {
        m_radars.push_back(i % 3 == 0 ? "a long name " + std::to_string(1000 + i) : "R" + std::to_string(i));
        m_hosts.push_back(std::make_unique<Host>(m_lan, m_allHosts, "host" + std::to_string(i),
                                                 Interface{static_cast<int>(i) % kSegments, 0}));
    }
    m_radars.push_back("another name"); // for whoever comes back under one
    for (std::uint32_t i = 1; i <= scenario.displays; ++i) {
        std::vector<Interface> on{{static_cast<int>(i) % kSegments, 0}};
        if (onceIn(2))
            on.push_back({static_cast<int>(i + 1) % kSegments, 0});
        m_displays.push_back(std::make_unique<Display>(m_lan, "display" + std::to_string(i), on));
    }
    std::vector<Interface> everywhere;
    for (int segment = 0; segment < kSegments; ++segment)
        everywhere.push_back({segment, address(segment, 250)});
    m_attacker = std::make_unique<Attacker>(m_lan, everywhere, m_radars);
}

void Hour::run(Time length) {
    m_lan.switchOn(*this);
    m_attacker->start(1U << below(8));
    for (std::size_t number = 0; number < m_hosts.size(); ++number)
        startHost(number);
    for (const auto& display : m_displays) {
        for (std::size_t i = 0; i < display->interfaces.size(); ++i)
            display->interfaces[i].address = displayAddress(*display, i, 0);
        startDisplay(*display);
    }
    m_lan.schedule(*this, 1000, 0);
    m_lan.run(length);
}

void Hour::startHost(std::size_t number) {
    Host& host = *m_hosts[number];
    const std::uint32_t id = onceIn(4) ? 1 : 16 + below(m_hosts.size() < 10 ? 4 : 48);
    host.interfaces[0].address =
        address(host.interfaces[0].segment, 1000 + static_cast<std::uint32_t>(number) + 100 * below(2));
    host.start({onceIn(8) ? m_radars.back() : m_radars[number], static_cast<std::uint8_t>(id),
                static_cast<Form>(below(kForms)), m_beacons && onceIn(2)});
}

void Hour::startDisplay(Display& display) {
    display.start({1000 + static_cast<Time>(below(3)) * 1000, onceIn(2)});
}

void Hour::befall(Display& display) {
    if (chance(120)) {
        const std::size_t interface = below(display.interfaces.size());
        const bool gone = display.interfaces[interface].address != 0 && onceIn(2);
        display.setAddress(interface, gone ? 0 : displayAddress(display, interface, below(2)));
    }
    for (std::size_t i = 0; i < display.interfaces.size(); ++i)
        if (display.interfaces[i].address == 0 && onceIn(20))
            display.setAddress(i, displayAddress(display, i, 0));
    if (onceIn(300)) // now and then, and soon no more
        display.configure(displayAddress(display, 0, below(2)));
    else if (onceIn(20))
        display.configure(0);
}

void Hour::changeLan() {
    if (onceIn(90)) // a calm time lets everything settle
        m_calm = !m_calm;
    if (onceIn(60)) {
        const bool clear = m_calm || onceIn(2);
        m_lan.weather = {clear ? 0 : below(m_maxLoss + 1), clear ? 0 : below(50), below(m_maxDelay + 1)};
    }
    static constexpr std::uint32_t kFloodSources[] = {1, 3, 600};
    if (m_floods && onceIn(600))
        m_attacker->flood(kFloodSources[below(std::size(kFloodSources))]);
}

void Hour::timer(int) {
    changeLan();
    for (std::size_t number = 0; number < m_hosts.size(); ++number) {
        Host& host = *m_hosts[number];
        if (!host.isOn() && onceIn(10))
            startHost(number);
        else if (host.isOn() && chance(300))
            host.stop();
        host.oracle().look();
    }
    for (const auto& display : m_displays) {
        if (!display->isOn() && onceIn(10))
            startDisplay(*display);
        else if (display->isOn() && chance(600))
            display->stop();
        if (display->isOn())
            befall(*display);
    }
    m_lan.schedule(*this, 1000, 0);
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
