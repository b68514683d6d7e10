// What people meet at the terminal: tables, keys, hints, and what a search leaves behind.
#include "radarctl_fixture.h"

#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/wire.h>

namespace {

using Listing = Radarctl;

/// A radar that, told to give its id up, takes the next of a list.
class ObedientRadar final : public net::iUdpDataListener {
public:
    ObedientRadar(const char* name, std::deque<std::uint8_t> ids) : m_name(name), m_ids(std::move(ids)) {}
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int length) override {
        const std::string_view message(data, static_cast<std::size_t>(length));
        if (message != wire::text(wire::Negotiation{wire::kObjection, m_ids.front()}) || m_ids.size() == 1)
            return;
        m_ids.pop_front();
        m_server.emplace(m_name, m_ids.front(), 1U);
    }

private:
    const char* const m_name;
    std::deque<std::uint8_t> m_ids; // the receiver's, once it is there, and so is the server
    std::optional<HostServer> m_server{std::in_place, m_name, m_ids.front(), 1U};
    net::UdpReceiver m_receiver{this, 0, wire::kNegotiation.address, wire::kNegotiation.port, 1024};
};

TEST_F(Listing, RenumberObjectsUntilNoOtherRadarHasTheId) {
    const auto a = makeIn<ObedientRadar>(m_lan.node("host1"), "A", std::deque<std::uint8_t>{20, 43, 60});
    const auto b = makeIn<ObedientRadar>(m_lan.node("host2"), "B", std::deque<std::uint8_t>{20, 43, 41});
    EXPECT_TRUE(comesTrue([&] { return run({"list"}).output.find("\nB ") != std::string::npos; }, 30s));
    const Result result = run({"renumber", "A"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("waiting for A and B to negotiate another\n"));
    EXPECT_THAT(result.output, HasSubstr("\nA and B both drew 43; objected again: A 60, B 41\n"));
}

TEST_F(Listing, AHostProposesAnIdThatNobodyAnnouncesAndSaysWhoHasTheOneThatIsWanted) {
    std::vector<std::unique_ptr<HostServer>> servers;
    for (std::uint8_t id = 16; id <= 63; ++id)
        if (id != 37)
            servers.push_back(serve("host2", ("R" + std::to_string(id)).c_str(), id));
    lab::Process twin = start("host1", {"host", "--name", "Twin", "--id", "20"});
    lab::Process host = start("host1", {"host", "--name", "North"});
    EXPECT_THAT(host.lineWith("serving", 30s).value_or(""), HasSubstr("as host id 37,"));
    EXPECT_THAT(twin.nextLine(30s).value_or(""), HasSubstr("host id 20 is announced by R20 (10.20.1.2)"));

    const auto sender =
        makeIn<net::UdpSender>(m_lan.node("host2"), wire::kDiscovery.address, wire::kDiscovery.port, 0, 0);
    std::string announcement = protocol::composeAnnouncement("Other", 20, 1);
    announcement.replace(announcement.find("\x17\xf9"), 2, 2, '\0'); // the port of ARPA, which tells the id
    lab::Process any = start("host1", {"host", "--name", "Any"});
    while (!any.nextLine(20ms) && !any.wait(0ms))
        sender->sendData(announcement.data(), static_cast<int>(announcement.size()));
    EXPECT_THAT(any.output(), AllOf(HasSubstr("serving Any"), Not(HasSubstr("Other"))));
}

/// radarctl watch on a terminal of 6 lines, 40 columns wide.
class Terminal {
public:
    Terminal(const lab::Node& node, const std::string& fifo, const std::string& kind = "vt100",
             const std::string& options = "")
        : m_keys(openFifo(fifo)),
          m_script(node.start({.command = {"sh", "-c",
                                           "exec script -qec 'stty cols 40 rows 6; TERM=" + kind +
                                               " exec " RADARCTL " --color never watch" + options +
                                               "' /dev/null <" + fifo}})) {}
    void type(std::string_view keys) const {
        EXPECT_EQ(::write(m_keys.get(), keys.data(), keys.size()), std::ssize(keys));
    }
    /// Waits until something is in the last picture.
    bool shows(const std::string& text) const {
        return comesTrue(
            [&] {
                const std::string drawn = m_script.output();
                const std::size_t picture = drawn.rfind("\x1b[H\x1b[?7l");
                return picture != std::string::npos && drawn.find(text, picture) != std::string::npos;
            },
            30s);
    }
    lab::Process& process() { return m_script; }

private:
    static net::detail::Descriptor openFifo(const std::string& path) {
        EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
        return net::detail::Descriptor(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    }

    net::detail::Descriptor m_keys;
    lab::Process m_script;
};

TEST_F(Listing, WatchTellsWhoAppearsChangesAndLeavesAsOthersDoAndNamesDoctorWhereNoRadarIsHeard) {
    Terminal lonely(m_lan.node("display"), m_profile.path() / "keys", "vt100", " --local 127.0.0.1");
    lab::Process lonelyText = start("display", {"watch", "--local", "127.0.0.1"});
    lab::Process exporter =
        start("display", {"export", "--every", "0.1", "--textfile", m_profile.path() / "radar.prom"});
    lab::Process recorder = start("display", {"record", "-o", m_profile.path() / "file"});
    lab::Process text = m_lan.node("display").start( // why a radar left is known without /sys
        {.command = {"unshare", "--mount", "sh", "-c",
                     "mount -t tmpfs none /sys && exec " RADARCTL " watch"}});
    lab::Process json = start("display", {"watch", "--json"});
    const auto next = [&](const std::string& kind, const std::string& change = "") {
        nlohmann::json event;
        do
            event = nlohmann::json::parse(json.nextLine(30s).value_or("{\"event\":\"none\"}"));
        while (event["event"] != "none" &&
               (event["event"] != kind || event["changes"].dump().find(change) == std::string::npos));
        return event;
    };
    auto north = serve("host1", "North", 20);
    EXPECT_EQ(text.lineWith("North", 30s),
              "+ North id 20 streams 1 image 236.6.7.99:6131 236.6.7.100:6132 236.6.7.101:6133 ARPA "
              "236.6.7.105:6137 236.6.7.106:6138 236.6.7.107:6139");
    const auto appeared = next("appeared");
    EXPECT_EQ(appeared["schema"], 1);
    EXPECT_EQ(appeared["localAddressOrigin"], "profileAddress");
    auto south = serve("host2", "South", 20);
    const auto shared = next("changed", "sharesHostIdWith");
    EXPECT_NE(shared["sharesHostIdWith"][0]["name"], shared["radar"]["name"]);
    south = serve("host2", "South", 21);
    EXPECT_EQ(next("changed", "hostId")["radar"]["hostId"], 21);
    EXPECT_TRUE(text.lineWith("= South id 21 ", 30s));

    lab::Process renumber = start("display", {"renumber", "South", "--timeout", "10"});
    EXPECT_TRUE(renumber.lineWith("waiting for South", 30s));
    south.reset();
    north.reset(); // before its successor answers: a host has one name
    north = serve("host1", "Renamed", 20);
    text.signal(SIGSTOP);
    for (int i = 0; i < 2; ++i) { // longer than a radar may be silent
        const auto left = next("left");
        EXPECT_EQ(left["reasonCode"], left["radar"]["name"] == "South" ? "silent" : "renamed") << left;
    }
    text.signal(SIGCONT);
    const std::set left{text.lineWith("- ", 30s), text.lineWith("- ", 30s)};
    EXPECT_THAT(left, ElementsAre("- North: 10.20.1.1 now announces Renamed",
                                  "- South: 10.20.1.2 has not answered for 8 s, others do"));
    EXPECT_EQ(renumber.wait(30s), 1);
    EXPECT_THAT(renumber.output(), HasSubstr("radarctl: South has left after "));
    EXPECT_TRUE(comesTrue([&] {
        const std::string now = m_profile.read("radar.prom");
        return now.find("radar_up{radar=\"South\"} 0\n") != std::string::npos &&
               now.find("\nradars 1\n") != std::string::npos;
    })) << m_profile.read("radar.prom");
    EXPECT_EQ(exporter.stop(), 0);
    EXPECT_EQ(recorder.stop(), 0);
    EXPECT_THAT(m_profile.read("file"), testing::AllOf(HasSubstr("North left: it has another name now"),
                                                       HasSubstr("South left: silent for eight seconds")));
    EXPECT_EQ(runOn("display", {"ip", "address", "flush", "dev", "eth0"}).status, 0);
    EXPECT_TRUE(text.lineWith("; no local address leads to it any more", 30s)) << text.output();
    EXPECT_TRUE(lonelyText.lineWith("radarctl: no radar for 10 s; see radarctl doctor", 30s));
    EXPECT_TRUE(lonely.shows("no radar for 10 s; see radarctl doctor"));
    lonely.type("q");
    EXPECT_EQ(lonely.process().wait(30s), 0);
}

TEST_F(Listing, WatchScrollsKeepsTheAgesInSightAndMarksASharedId) {
    Terminal terminal(m_lan.node("display"), m_profile.path() / "keys");
    const auto a = serve("host1", "A radar of 16 by", 20);
    const auto b = serve("host1", "B", 20);
    const auto c = serve("host1", "C", 30);
    EXPECT_TRUE(terminal.shows("lines 1 to 1 of 3"));
    EXPECT_TRUE(terminal.shows("INTERFACE  LAST HEARD\r"));
    EXPECT_TRUE(terminal.shows("A radar of\u2026  20! eth0       0."));
    EXPECT_TRUE(terminal.shows(
        "! A radar of 16 by and B share host id 20\r\r\n\x1b[K  radarctl renumber 'A radar of 16 by'"));
    terminal.type("\x1b[B");
    EXPECT_TRUE(terminal.shows("lines 2 to 2 of 3"));
    terminal.type("\x1b[6~\x1b[6~");
    EXPECT_TRUE(terminal.shows("C            30  eth0"));
    terminal.type("\x1b[H");
    EXPECT_TRUE(terminal.shows("lines 1 to 1 of 3"));
    terminal.type("\x1b[F\x1b[B"); // at once
    EXPECT_TRUE(terminal.shows("lines 3 to 3 of 3"));
    terminal.type("q");
    EXPECT_EQ(terminal.process().wait(30s), 0);
    const std::string drawn = terminal.process().output();
    EXPECT_THAT(drawn, AllOf(StartsWith("\x1b[?1049h\x1b[?25l"), HasSubstr("3 radars, on 10.20.2.1"),
                             testing::EndsWith("\x1b[?25h\x1b[?1049l")));
}

TEST_F(Listing, WatchGivesTheTerminalBackOnCtrlBackslashAndPrintsLinesWhereItCannotDrawOrCounts) {
    const auto north = serve("host1", "North", 20);
    Terminal terminal(m_lan.node("display"), m_profile.path() / "keys");
    EXPECT_TRUE(terminal.shows("North"));
    terminal.type("\x1c");
    EXPECT_EQ(terminal.process().wait(30s), 0);
    EXPECT_THAT(terminal.process().output(), testing::EndsWith("\x1b[?25h\x1b[?1049l"));
    Terminal dumb(m_lan.node("display"), m_profile.path() / "dumb", "dumb");
    EXPECT_TRUE(dumb.process().lineWith("+ North id 20", 30s));
    EXPECT_THAT(dumb.process().output(), Not(HasSubstr("\x1b")));
    Terminal counting(m_lan.node("display"), m_profile.path() / "counting", "vt100", " --count 1");
    EXPECT_TRUE(counting.process().lineWith("+ North id 20", 30s));
    EXPECT_EQ(counting.process().wait(30s), 0);
}

TEST_F(Listing, ASearchOnARadarHostLeavesItsRoutesAsTheyAre) {
    m_profile.write("");
    const auto north = serve("host1", "North", 16);
    const auto south = serve("host2", "South", 17);
    const Words showRoutes{"ip", "route", "show", "table", "all"};
    const std::string before = runOn("host1", showRoutes).output;
    const Result list = runOn("host1", radarctl({"list", "--timeout", "30", "--verbose"}));
    EXPECT_EQ(list.status, 0);
    EXPECT_THAT(list.errors, HasSubstr("Find a Radar new ip")) << "diagnostics on request";
    EXPECT_EQ(runOn("host1", showRoutes).output, before);

    const Result user =
        runOn("display", {"unshare", "--user", RADARCTL, "show", "North", "--local", "10.20.2.1"});
    EXPECT_EQ(user.status, 0) << "the radar is still on the air; " << user.errors;
    EXPECT_EQ(user.errors, "") << "of privileges that it has not";
}

TEST_F(Listing, InterfacesDoctorAndEventsSayWhereAndWhen) {
    EXPECT_EQ(runOn("display", {"ip", "address", "add", "10.20.9.9/16", "dev", "eth0"}).status, 0);
    const auto north = serve("host1", "N\x1b", 20);
    lab::Process table = start("display", {"interfaces", "--seconds", "1"});
    lab::Process json = start("display", {"interfaces", "--json", "--seconds", "1"});
    lab::Process doctor = start("display", {"doctor", "--seconds", "1"});
    for (lab::Process* process : {&table, &json, &doctor})
        EXPECT_TRUE(process->wait(30s));
    EXPECT_THAT(lines(table.output()),
                ElementsAre(StartsWith("INTERFACE"), MatchesRegex(R"(eth0 {12}10\.20\.2\.1/16 .* N\\x1B)"),
                            MatchesRegex(R"( {16}10\.20\.9\.9/16)")));
    const auto interface = nlohmann::json::parse(json.output())["interfaces"][0];
    EXPECT_EQ(interface["radars"][0]["name"], "N\x1b");
    EXPECT_EQ(interface["radars"][0]["source"], "10.20.1.1");
    EXPECT_THAT(doctor.output(), AllOf(HasSubstr("\"N\\x1B\" (10.20.1.1): host id 20, through eth0, "),
                                       Not(HasSubstr("\x1B"))));
    const nlohmann::json event = nlohmann::json::parse(run({"watch", "--json", "--count", "1"}).output);
    for (const char* time : {"time", "firstSeen", "lastSeen"})
        EXPECT_THAT(event[time].get<std::string>(),
                    MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}[+-][0-9]{2}:[0-9]{2}"));
}

TEST_F(Listing, ListenFitsTheTerminalAndNamesDoctorWhereNothingArrives) {
    const auto north = serve("host1", "North", 20);
    lab::Process suspended = start("display", {"listen", "North", "0"});
    const int second =
        std::stoi(suspended.lineWith("/s ", 30s).value_or("0")); // the first, if nothing held it up
    suspended.signal(SIGSTOP);
    const Result silent = run({"listen", "North", "0", "--seconds", "0.2"});
    EXPECT_EQ(silent.status, 1);
    EXPECT_THAT(silent.errors, HasSubstr("listening to image of North, stream 0: 236.6.7.99:6131"));
    EXPECT_THAT(silent.errors, HasSubstr("nothing arrives; radarctl doctor"));
    EXPECT_THAT(run({"listen", "North", "0", "--endpoint", "original"}).errors,
                HasSubstr("North does not announce its endpoint original"));
    suspended.signal(SIGCONT);
    std::vector<std::unique_ptr<net::UdpSender>> senders;
    for (int i = 0; i < 20; ++i)
        senders.push_back(makeIn<net::UdpSender>(m_lan.node("host1"), "236.6.7.99",
                                                 static_cast<unsigned short>(6131), 0, 0));
    const std::string longest(1400, 'x');
    EXPECT_TRUE(comesTrue(
        [&] {
            for (const auto& sender : senders)
                sender->sendData(longest.data(), static_cast<int>(longest.size()));
            return suspended.lineWith(" 1400..1400 ", 10ms).value_or("").ends_with(" 20 senders");
        },
        30s));
    suspended.signal(SIGINT);
    EXPECT_EQ(suspended.wait(30s), 0);
    const std::vector<std::string> printed = lines(suspended.output());
    EXPECT_THAT(printed, Not(Contains(StartsWith(std::to_string(second + 1) + "    "))))
        << "a line for a second that it missed";
    EXPECT_THAT(std::vector(printed.begin() + 1, printed.end()), // below what it listens to
                testing::Each(testing::SizeIs(testing::Le(80))));
}

} // namespace
