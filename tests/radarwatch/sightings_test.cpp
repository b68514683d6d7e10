#include "../announcement_bytes.h"
#include "event_text.h"

#include <RadarWatch/sightings.h>

namespace {

using radar::Event;
using radar::detail::Sightings;
using radar::detail::State;
using radar::detail::TimePoint;
using testing::IsEmpty;

constexpr const char* kNorthHost = "10.1.0.1";
constexpr const char* kOtherHost = "10.1.0.2";

/// Hosts that answer once a second what a display asks, in virtual time.
class Watched {
public:
    void hear(const std::string& datagram, const char* from = kNorthHost,
              const protocol::DisplayOptions& options = {false, true}) {
        take(m_sightings.heard(protocol::readAnnouncement(datagram, options).value(), net::transAddr(from),
                               m_now));
    }
    void put(const std::string& name, int id, const char* from = kNorthHost, unsigned streams = 2) {
        m_hosts[name] = [=, this] {
            hear(protocol::composeAnnouncement(name, static_cast<std::uint8_t>(id), streams), from);
        };
    }
    void remove(const std::string& name) { m_hosts.erase(name); }
    void local(const char* address, const char* interface = "eth0") {
        radar::LocalAddress local;
        if (*address != '\0')
            local = {net::transAddr(address), radar::LocalAddress::Origin::Search, interface};
        take(m_sightings.setLocal(local, m_now));
    }
    void renumbered(const std::string& name) { m_sightings.renumbered(name, m_now); }
    /// @return the events' texts
    std::vector<std::string> run(std::chrono::seconds time) {
        for (const TimePoint end = m_now + time; m_now < end; m_now += 1s) {
            take(m_sightings.look(m_now));
            for (const auto& [name, answer] : std::map(m_hosts))
                answer();
        }
        return std::exchange(m_texts, {});
    }
    const State& state() const { return m_sightings.state(); }

private:
    void take(const std::vector<Event>& events) {
        for (const Event& event : events) {
            EXPECT_TRUE(event.reason != Event::Reason::Silent || event.radar.age > 7s);
            m_texts.push_back(text(event));
        }
    }

    Sightings m_sightings;
    TimePoint m_now = TimePoint(1h);
    std::map<std::string, std::function<void()>> m_hosts;
    std::vector<std::string> m_texts;
};

TEST(Sightings, ComingsAndGoingsAreToldInOrder) {
    Watched lan;
    lan.local("10.1.0.9");
    lan.put("North", 16);
    lan.put("South", 17, kOtherHost, 1);
    EXPECT_THAT(lan.run(3s), ElementsAre("local 10.1.0.9 (eth0)", "North appeared, 16 at 10.1.0.1",
                                         "South appeared, 17 at 10.1.0.2"));
    lan.put("North", 20);
    EXPECT_THAT(lan.run(3s), ElementsAre("North changed, 20 at 10.1.0.1, bits 5")) << "id, endpoints";
    lan.put("South", 17, kOtherHost, 2);
    EXPECT_THAT(lan.run(1s), ElementsAre("South changed, 17 at 10.1.0.2, bits 12"))
        << "the short announcement leaves parts of the first stream out";
    lan.put("South", 17, "10.1.0.3", 2);
    EXPECT_THAT(lan.run(1s), ElementsAre("South changed, 17 at 10.1.0.3, bits 2"));
    lan.remove("North");
    EXPECT_THAT(lan.run(7s), IsEmpty());
    EXPECT_THAT(lan.run(2s), ElementsAre("North left, Silent"));
    lan.local("10.1.0.9", "eth1");
    lan.local("10.1.0.8", "eth1");
    lan.local("10.1.0.8", "eth1");
    EXPECT_THAT(lan.run(1s), ElementsAre("local changed 10.1.0.9 (eth1)", "local changed 10.1.0.8 (eth1)"));
}

TEST(Sightings, VariantsBelongToTheirRadar) {
    const auto offer = AnnouncementBytes(222, "North").at(22, 1).at(23, 7).at(30, 1);
    Watched lan;
    lan.hear(AnnouncementBytes(222, "North"));
    lan.hear(offer);
    lan.hear(AnnouncementBytes(offer).at(31, endpoint("10.1.2.3", 80)));
    EXPECT_TRUE(lan.state().find("North:TCP") != nullptr && lan.state().find("North:User") == nullptr);
    EXPECT_EQ(lan.state().find("South:TCP"), nullptr);
    lan.hear(AnnouncementBytes(222, "North").at(22, 1).at(73, 1).at(150, endpoint("239.1.1.1", 9009)));
    EXPECT_THAT(lan.run(1s),
                ElementsAre("North appeared, 16 at 10.1.0.1", "North changed, 16 at 10.1.0.1, bits 16",
                            "North changed, 16 at 10.1.0.1, bits 32",
                            "North changed, 16 at 10.1.0.1, bits 20"))
        << "the host id is that of the standard endpoints";
    const radar::Radar& radar = lan.state().find("North:User")->radar;
    EXPECT_TRUE(radar.user && !radar.tcp && radar.streams.size() == 2);
    EXPECT_NE(radar.streams[1].imageOriginal.port, 0) << "by the plan, for the id is announced";
    EXPECT_EQ(radar::groups(16).size(), 2U);
    EXPECT_TRUE(radar::groups(15).empty() && radar::groups(256 + 16).empty()) << "of no host";

    lan.hear(offer, kNorthHost, {true, true}); // of a fixed radar, the TCP service alone
    EXPECT_TRUE(radar.streams.empty());
}

TEST(Sightings, WhoLeavesLeavesForAReason) {
    struct Case {
        const char* why;
        std::function<void(Watched&)> happens; // then North is silent
        std::vector<std::string> expected;     // of the ten seconds that follow
    };
    const Case cases[] = {
        {"nothing else is known", [](Watched&) {}, {"North left, Silent"}},
        {"its host has another name",
         [](Watched& lan) { lan.put("Ahoy", 16); },
         {"Ahoy appeared, 16 at 10.1.0.1", "North left, Renamed: Ahoy"}},
        {"its host has another name and id",
         [](Watched& lan) { lan.put("Ahoy", 18); },
         {"Ahoy appeared, 18 at 10.1.0.1", "North left, Renumbered: Ahoy"}},
        {"its host has had two other names since",
         [](Watched& lan) {
             lan.put("Ahoy", 16);
             lan.run(1s);
             lan.remove("Ahoy");
             lan.put("Zulu", 16);
         },
         {"Zulu appeared, 16 at 10.1.0.1", "North left, Renamed: Zulu", "Ahoy left, Renamed: Zulu"}},
        {"its host has two other names, of which one has its id",
         [](Watched& lan) {
             lan.put("Ahoy", 16);
             lan.put("Zulu", 18);
         },
         {"Ahoy appeared, 16 at 10.1.0.1", "Zulu appeared, 18 at 10.1.0.1", "North left, Renamed: Ahoy"}},
        {"its host has another name and no id",
         [](Watched& lan) { lan.hear(AnnouncementBytes(222, "C").at(160, endpoint("236.6.7.41", 6010))); },
         {"C appeared, 0 at 10.1.0.1", "North left, Renumbered: C", "C left, Silent"}},
        {"another host took its id",
         [](Watched& lan) { lan.put("Ahoy", 16, kOtherHost); },
         {"Ahoy appeared, 16 at 10.1.0.2", "16 shared: Ahoy North", "North left, Silent", "16 ended: Ahoy"}},
        {"it was told to renumber",
         [](Watched& lan) { lan.renumbered("North"); },
         {"North left, Renumbered"}},
        {"it was told to renumber, and announced itself still",
         [](Watched& lan) {
             lan.renumbered("North");
             lan.put("North", 16);
             lan.run(2s);
             lan.remove("North");
         },
         {"North left, Renumbered"}},
        {"it has renumbered as it was told",
         [](Watched& lan) {
             lan.renumbered("North");
             lan.put("North", 20);
             lan.run(1s);
             lan.remove("North");
         },
         {"North left, Silent"}},
        {"it had not given up its id when it was told",
         [](Watched& lan) {
             lan.renumbered("North");
             lan.put("North", 16);
             lan.run(3s);
             lan.remove("North");
         },
         {"North left, Silent"}},
        {"another local address",
         [](Watched& lan) { lan.local("10.2.0.9", "eth1"); },
         {"local changed 10.2.0.9 (eth1)", "North left, LocalAddress", "Twin left, LocalAddress"}},
        {"no local address",
         [](Watched& lan) { lan.local(""); },
         {"lost 10.1.0.9", "North left, LocalAddress", "Twin left, LocalAddress"}},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.why);
        Watched lan;
        lan.local("10.1.0.9");
        lan.put("North", 16);
        lan.put("Twin", 17); // another radar of the same computer, which is no successor
        lan.run(3s);
        lan.remove("North");
        one.happens(lan);
        if (lan.state().local.address != net::transAddr("10.1.0.9"))
            lan.remove("Twin");
        EXPECT_EQ(lan.run(10s), one.expected);
    }
}

TEST(Sightings, SharedHostIdsAreConflicts) {
    Watched lan;
    lan.put("A", 16);
    lan.put("B", 16, kOtherHost);
    lan.run(1s);
    for (const char* name : {"C", "D"}) // of no host id
        lan.hear(AnnouncementBytes(222, name).at(160, endpoint("236.6.7.41", 6010)));
    EXPECT_THAT(lan.run(1s),
                ElementsAre("C appeared, 0 at 10.1.0.1", "D appeared, 0 at 10.1.0.1", "16 shared: A B"));
    lan.put("E", 16);
    EXPECT_THAT(lan.run(2s), ElementsAre("E appeared, 16 at 10.1.0.1", "16 shared: A B E"));
    lan.put("A", 17);
    lan.put("B", 18, kOtherHost);
    EXPECT_THAT(lan.run(2s), ElementsAre("A changed, 17 at 10.1.0.1, bits 5",
                                         "B changed, 18 at 10.1.0.2, bits 5", "16 ended: E"));
}

} // namespace
