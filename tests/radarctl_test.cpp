#include "radarctl_fixture.h"
#include "recorder.h"

#include <csignal>
#include <deque>
#include <fstream>
#include <map>
#include <set>

namespace {

TEST_F(Radarctl, MisuseIsExplainedInOneLine) {
    const std::pair<Words, const char*> cases[] = {
        {{}, "name a command: list, watch, show"},
        {{"lsit"}, "no command 'lsit'; did you mean list?"},
        {{"--color", "never", "frobnicate"}, "no command 'frobnicate'; there are: list, watch"},
        {{"--verbos"}, "no option '--verbos'"},
        {{"--color", "mauve", "list"}, "'mauve' is no colour setting"},
        {{"--profile", "/nowhere", "list"}, "no profile.ini in '/nowhere'"},
        {{"host", "--name", "seventeen letters"}, "is no radar name: 1 to 16 bytes"},
        {{"host", "--name", "R", "--id", "15"}, "'15' is no host id: 1, or 16 to 63"},
        {{"host", "--name", "R", "--id", "first"}, "'first' is no host id: 1, or 16 to 63"},
        {{"host", "--name", "R", "--streams", "3"}, "'3' streams cannot be served: 1 or 2"},
        {{"host", "--rate", "30"}, "--rate requires --simulate"},
        {{"list", "--timeout", "soon"}, "'soon' is no time-out: seconds, up to 3600"},
        {{"list", "--local", "10.20.2"}, "'10.20.2' is no IPv4 address"},
        {{"list", "--local", "10.9.9.9"},
         "10.9.9.9 is no address of this computer; it has: 127.0.0.1, 10.20.2.1"},
        {{"list", "--interface", "eth9"}, "no interface \"eth9\" with an IPv4 address; there are: lo, eth0"},
        {{"list", "--interface", "eth0", "--local", "10.20.2.1"}, "excludes"},
        {{"watch", "closely"}, "closely"},
        {{"watch", "--count", "0"}, "'0' is no number of events"},
        {{"show"}, "name is required"},
        {{"listen", "North", "2"}, "'2' is no stream: 0 or 1"},
        {{"listen", "North", "0", "--endpoint", "sound"}, "'sound' is no endpoint: image, image-control"},
    };
    for (const auto& [arguments, expected] : cases) {
        const Result result = run(arguments);
        EXPECT_EQ(result.status, 2) << expected;
        EXPECT_EQ(result.output, "");
        EXPECT_THAT(lines(result.errors),
                    ElementsAre(testing::AllOf(StartsWith("radarctl: "), HasSubstr(expected))));
    }
}

TEST_F(Radarctl, ListsWhatHostsServe) {
    const auto north = serve("host1", "North", 1);
    const auto south = serve("host2", "South mast", 20, 2);
    Result result;
    EXPECT_TRUE(comesTrue( // "list" ends a second after the first answer, so one host may be missing
        [&] {
            result = run({"list", "--endpoints"});
            return lines(result.output).size() == 9;
        },
        60s));
    EXPECT_EQ(result.status, 0) << result.errors;
    const std::string id1 = " +0 image 236.6.7.8:6878 +control 236.6.7.10:6680 +state 236.6.7.9:6679";
    const std::string id20 = " +1 ARPA +236.6.7.108:6140 +control 236.6.7.109:6141 +state 236.6.7.110:6142";
    EXPECT_THAT(lines(result.output),
                ElementsAre(MatchesRegex("RADAR +ID +STREAMS +INTERFACE +LAST HEARD"),
                            MatchesRegex("North +1 +1 +eth0 +.\\.. s ago"), MatchesRegex(id1),
                            MatchesRegex(" +0 ARPA .+"), MatchesRegex("South mast +20 +2 +eth0 +.\\.. s ago"),
                            MatchesRegex(" +0 image .+"), MatchesRegex(" +0 ARPA .+"),
                            MatchesRegex(" +1 image .+"), MatchesRegex(id20)));
}

TEST_F(Radarctl, ReportsThatNothingWasFound) {
    m_lan.cut(m_lan.node("display"));
    const Result result = run({"list", "--timeout", "1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(lines(result.errors), ElementsAre("radarctl: no radar found within 1 s",
                                                  StartsWith("radarctl: most likely: eth0 has no carrier"),
                                                  "radarctl: radarctl doctor looks closer"));
    EXPECT_THAT(run({"list", "--interface", "eth0", "--timeout", "0.5"}).errors,
                StartsWith("radarctl: no radar found within 0.5 s; only eth0 was looked at"));
    m_lan.restore(m_lan.node("display"));
    const auto host = serve("host1", "North", 16);
    const Result other = run({"show", "South", "--timeout", "2"});
    EXPECT_EQ(other.status, 1);
    EXPECT_THAT(other.errors, HasSubstr("radarctl: no radar \"South\"; there are: North\n"));
}

TEST_F(Radarctl, ReportsWhatTheSystemDoesNotAllow) {
    lab::Process nowhere = m_lan.node("display").start( // no directory is writable
        {.command = {"unshare", "--mount", "sh", "-c",
                     "mount -o remount,ro,bind / && cd / && ! touch /x 2>&1 && exec " RADARCTL
                     " interfaces --seconds 1"}});
    EXPECT_EQ(nowhere.wait(30s), 1) << "no radar there";
    EXPECT_THAT(nowhere.output(), HasSubstr("\neth0 "));
    lab::Process full =
        m_lan.node("display").start({.command = {"sh", "-c", RADARCTL " doctor --list >/dev/full"}});
    EXPECT_EQ(full.wait(30s), 1);
    EXPECT_THAT(full.output(), HasSubstr("radarctl: cannot write the output: No space left on device"));
    lab::Process help = m_lan.node("display").start({.command = {"sh", "-c", RADARCTL " --help >/dev/full"}});
    EXPECT_EQ(help.wait(30s), 1);
    EXPECT_EQ(help.output(), "radarctl: cannot write the output\n");
}

TEST_F(Radarctl, InterfacesShowsTheRadarsOnEachInterface) {
    const Result silent = run({"interfaces", "--seconds", "1"});
    EXPECT_EQ(silent.status, 1) << silent.errors;
    EXPECT_THAT(lines(silent.output).back(), MatchesRegex("eth0 +10.20.2.1/16 +([0-9A-F:]{17}) +yes +no +-"));
    const auto host = serve("host1", "North", 20);
    const Result result = run({"interfaces", "--json", "--seconds", "1"});
    EXPECT_EQ(result.status, 0) << result.errors;
    const auto interface = nlohmann::json::parse(result.output)["interfaces"][0];
    EXPECT_EQ(interface["radars"][0]["name"], "North");
    EXPECT_EQ(interface["radars"][0]["source"], "10.20.1.1");
}

TEST_F(Radarctl, SimulatedDataArriveAtTheAnnouncedEndpoints) {
    m_profile.write(""); // the option must replace the search
    const auto other = serve("host2", "South", 17);
    const lab::Process host =
        startHost("host1", {"--name", "North", "--id", "63", "--streams", "2", "--simulate", "--rate", "60"});
    std::deque<lab::Process> listeners;
    for (const char* stream : {"0", "1"})
        for (const char* endpoint : {"image", "arpa"})
            listeners.push_back(start("display", {"listen", "North", stream, "--endpoint", endpoint,
                                                  "--seconds", "3.2", "--local", "10.20.2.1", "--json"}));
    const Result silent = run({"listen", "South", "0", "--seconds", "0.2", "--interface", "eth0"});
    EXPECT_EQ(silent.status, 1) << "nothing came";
    EXPECT_THAT(silent.errors, HasSubstr("listening to image of South, stream 0: 236.6."));
    EXPECT_THAT(run({"listen", "South", "0", "--endpoint", "original", "--interface", "eth0"}).errors,
                HasSubstr("South does not announce its endpoint original"));
    for (lab::Process& listener : listeners) {
        EXPECT_EQ(listener.wait(30s), 0);
        const auto total = nlohmann::json::parse(lines(listener.output()).back());
        EXPECT_TRUE(total["total"]) << listener.output();
        EXPECT_TRUE(total["dropped"].is_number());
    }
}

TEST_F(Radarctl, SimulatedImageHasTheFieldsOfItsPage) {
    std::ifstream file(SIMULATOR_PAGE);
    const std::string page{std::istreambuf_iterator<char>(file), {}};
    std::map<std::string, std::pair<std::size_t, std::size_t>> fields; // offset and bytes
    std::size_t length = 0;
    for (const std::string& line : lines(page)) {
        std::istringstream row(line);
        std::string bar, name;
        std::size_t offset = 0, bytes = 0;
        if (row >> bar >> offset >> bar >> bytes >> bar >> name) {
            EXPECT_EQ(offset, length) << line;
            fields[name] = {offset, bytes};
            length = offset + bytes;
        }
    }
    const auto number = [&fields](const std::string& datagram, const char* field) { // network byte order
        std::uint32_t value = 0;
        for (const char byte : datagram.substr(fields.at(field).first, fields.at(field).second))
            value = value << 8 | static_cast<unsigned char>(byte);
        return value;
    };

    Recorder received;
    const auto receiver =
        makeIn<net::UdpReceiver>(m_lan.node("display"), &received, net::transAddr("10.20.2.1"), "236.6.7.8",
                                 static_cast<unsigned short>(6878), 65536);
    const lab::Process host =
        startHost("host1", {"--name", "North", "--id", "1", "--simulate", "--rate", "120"});
    std::set<char> samples;
    for (int i = 0; i < 1100; ++i) { // more than a revolution
        const std::string datagram = received.nextBytes();
        ASSERT_EQ(datagram.size(), length);
        EXPECT_EQ(datagram.substr(fields["mark"].first, fields["mark"].second), "SIMI");
        EXPECT_TRUE(i != 0 || number(datagram, "sequence") == 0);
        EXPECT_EQ(number(datagram, "spoke"), number(datagram, "sequence") % 1024);
        EXPECT_EQ(number(datagram, "spokes"), 1024U);
        for (const char sample : datagram.substr(fields["samples"].first, fields["samples"].second))
            samples.insert(sample);
    }
    EXPECT_THAT(samples, testing::UnorderedElementsAre(static_cast<char>(8), static_cast<char>(240)));
}

TEST_F(Radarctl, TheExamplesOfAHostAndADisplayFollowARenumbering) {
    lab::Process host = m_lan.node("host2").start({.command = {HOST_STREAM, "South", "1"}});
    lab::Process display = m_lan.node("display").start({.command = {IMAGE_STREAM, "South"}});
    for (const char* words : {"236.6.7.8 port 6878", ""}) { // the second time, what the host says
        const std::string sent = host.lineWith("image to", 30s).value_or("image to nobody");
        const std::string endpoint = sent.substr(sent.find("image to") + 9);
        EXPECT_THAT(endpoint, StartsWith(words));
        EXPECT_TRUE(display.lineWith("image from " + endpoint, 30s)) << sent;
        EXPECT_THAT(display.nextLine(30s),
                    testing::Optional(MatchesRegex("[1-9][0-9]* datagrams, [0-9]+ bytes")));
        if (*words == '\0')
            continue;
        const Result renumbered = run({"renumber", "South"});
        EXPECT_EQ(renumbered.status, 0) << renumbered.errors;
        EXPECT_THAT(lines(renumbered.output),
                    ElementsAre(HasSubstr("sent an objection to host id 1 to 236.6.7.4:6768 on 10.20.2.1"),
                                MatchesRegex("South now has host id [1-6][0-9]( after [0-9]+ objections)?")));
    }
}

TEST_F(Radarctl, ListenFollowsTheRadarAndSaysWhereDatagramsWereLost) {
    lab::Process host = startHost("host1", {"--name", "North", "--id", "1", "--simulate"});
    lab::Process listen = start("display", {"listen", "North", "0", "--json", "--sequence", "4:4be"});
    const auto next = [&](const auto& wanted) {
        for (;;) {
            const auto second = nlohmann::json::parse(listen.lineWith("{", 30s).value_or("{\"total\":true}"));
            if (second["total"] == true || wanted(second))
                return second;
        }
    };
    const auto hasEvent = [](const char* kind) {
        return [kind](const nlohmann::json& second) {
            return std::ranges::any_of(second["events"],
                                       [&](const auto& event) { return event["kind"] == kind; });
        };
    };
    const auto hasData = [](const nlohmann::json& second) { return second["datagrams"] > 0; };
    EXPECT_EQ(next(hasData)["total"], false);
    EXPECT_EQ(run({"renumber", "North"}).status, 0);
    const auto moved = next(hasEvent("moved"));
    EXPECT_EQ(moved["events"][0]["why"], "endpoint") << moved;
    EXPECT_NE(moved["events"][0]["endpoint"]["address"], "236.6.7.8");
    EXPECT_EQ(next(hasData)["total"], false);
    m_lan.dropRate(m_lan.node("display"), 30);
    EXPECT_GT(next([](const nlohmann::json& second) { return second["missing"] > 0; })["missing"], 0);
    listen.signal(SIGINT);
    EXPECT_EQ(listen.wait(30s), 0);
    const auto total = nlohmann::json::parse(lines(listen.output()).back());
    EXPECT_EQ(total["total"], true);
    EXPECT_EQ(total["dropped"], 0);
    m_lan.dropRate(m_lan.node("display"), 0);
    EXPECT_TRUE(comesTrue( // a datagram, which a busy machine may lose
        [&] { return run({"reset"}).status == 0 && host.lineWith("reset asked for", 1s); }, 30s));
    EXPECT_GE(total["gap99Seconds"], total["medianGapSeconds"]);
    EXPECT_GT(total["medianGapSeconds"], 0);
}

TEST_F(Radarctl, WatchTellsWhoAppearsChangesAndLeavesAndWhyAlsoAfterASuspension) {
    lab::Process text = start("display", {"watch"});
    lab::Process suspended = start("display", {"watch"});
    lab::Process json = start("display", {"watch", "--json"});
    const auto next = [&](const std::string& kind, const std::string& change = "") {
        for (;;) {
            const auto event = nlohmann::json::parse(json.nextLine(30s).value_or("{\"event\":\"none\"}"));
            if (event["event"] == "none" ||
                (event["event"] == kind &&
                 (change.empty() || event["changes"].dump().find(change) != std::string::npos)))
                return event;
        }
    };
    const auto west = serve("host2", "West", 22); // stays, and succeeds nobody
    auto north = serve("host1", "North", 20);
    EXPECT_EQ(text.lineWith("North", 30s),
              "+ North id 20 streams 1 image 236.6.7.99:6131 236.6.7.100:6132 236.6.7.101:6133 ARPA "
              "236.6.7.105:6137 236.6.7.106:6138 236.6.7.107:6139");
    const auto appeared = next("appeared");
    EXPECT_EQ(appeared["schema"], 1);
    EXPECT_EQ(appeared["localAddress"], "10.20.2.1");
    EXPECT_EQ(appeared["interface"], "eth0");
    EXPECT_EQ(appeared["localAddressOrigin"], "profileAddress");
    EXPECT_EQ(appeared["sharesHostIdWith"], nlohmann::json::array());
    auto south = serve("host2", "South", 20);
    const auto shared = next("changed", "sharesHostIdWith");
    EXPECT_NE(shared["sharesHostIdWith"][0]["name"], shared["radar"]["name"]);
    south = serve("host2", "South", 21);
    EXPECT_EQ(next("changed", "hostId")["radar"]["hostId"], 21);
    EXPECT_TRUE(text.lineWith("= South id 21 ", 30s));
    EXPECT_TRUE(suspended.lineWith("= South id 21 ", 30s));

    north = serve("host1", "Renamed", 20);
    south.reset();
    suspended.signal(SIGSTOP);
    for (int i = 0; i < 2; ++i) { // longer than a radar may be silent
        const auto left = next("left");
        EXPECT_EQ(left["reasonCode"], left["radar"]["name"] == "South" ? "silent" : "renamed") << left;
    }
    suspended.signal(SIGCONT);
    for (lab::Process* watch : {&text, &suspended}) {
        std::set<std::string> left;
        for (int i = 0; i < 2; ++i)
            left.insert(watch->lineWith("- ", 30s).value_or("nothing"));
        EXPECT_THAT(left, ElementsAre("- North: 10.20.1.1 now announces Renamed",
                                      "- South: 10.20.1.2 has not answered for 8 s, others do"));
    }
    EXPECT_THAT(suspended.output(), testing::Not(HasSubstr("- West")));
    text.signal(SIGINT);
    EXPECT_EQ(text.wait(20s), 0);
}

TEST_F(Radarctl, NamesAreEscapedOnTheTerminalAndInJson) {
    const lab::Inside inside = m_lan.node("host1").enter();
    const HostServer drawing("\x1b[2J\r\nx\x9b \xc3\xa4", 16, 1U);
    const HostServer forging("\",\"hostId\":1}\n", 17, 1U);
    Result text;
    nlohmann::json json;
    EXPECT_TRUE(comesTrue(
        [&] {
            text = run({"list"});
            json = nlohmann::json::parse(run({"list", "--json"}).output);
            return lines(text.output).size() == 3 && json["radars"].size() == 2;
        },
        60s));
    EXPECT_THAT(text.output, HasSubstr("\n\\x1B[2J\\x0D\\x0Ax\\x9B \xc3\xa4 "));
    EXPECT_EQ(json["schema"], 1);
    EXPECT_EQ(json["radars"][0]["nameHex"], "1b5b324a0d0a789b20c3a4");
    EXPECT_EQ(json["radars"][1]["name"], "\",\"hostId\":1}\n");
    EXPECT_EQ(json["radars"][1]["hostId"], 17);
    EXPECT_EQ(json["radars"][1]["streams"][0]["image"]["address"], "236.6.7.51");
    lab::Process watch = start("display", {"watch", "--json", "--count", "2"});
    EXPECT_EQ(watch.wait(30s), 0);
    for (const std::string& line : lines(watch.output()))
        EXPECT_EQ(nlohmann::json::parse(line)["event"], "appeared");
    EXPECT_THAT(run({"show", "\\x1B[2J\\x0D\\x0Ax\\x9B \xc3\xa4"}).output,
                HasSubstr("host id             16"));
}

TEST_F(Radarctl, EndsWhenItsReaderEnds) {
    const auto host = serve("host1", "North", 16);
    lab::Process pipe = m_lan.node("display").start({.command = {"sh", "-c", RADARCTL " watch | head -n 1"}});
    EXPECT_TRUE(pipe.lineWith("+ North", 30s));
    const auto other = serve("host2", "South", 17); // the next line finds no reader
    EXPECT_EQ(pipe.wait(30s), 0);
}

TEST_F(Radarctl, EveryCommandEndsAtOnceOnASignal) {
    // Sockets are opened after the signal handlers are installed.
    const auto hasSocket = [](const lab::Process& tool) {
        std::ifstream table("/proc/" + std::to_string(tool.pid()) + "/net/udp");
        std::string heading;
        std::string socket;
        return std::getline(table, heading) && std::getline(table, socket);
    };
    m_profile.write(""); // the search must end, too
    const struct {
        Words arguments;
        int number;
        int status;
    } cases[] = {{{"list"}, SIGTERM, 1},
                 {{"watch"}, SIGHUP, 0},
                 {{"watch"}, SIGINT, 0},
                 {{"host", "--name", "North"}, SIGTERM, 0},
                 {{"doctor", "--seconds", "60"}, SIGHUP, 1}};
    for (const auto& [arguments, number, status] : cases) {
        lab::Process tool = start("host1", arguments);
        ASSERT_TRUE(comesTrue([&] { return hasSocket(tool); }));
        std::optional<int> ended;
        // A command that the library is just starting may swallow SIGINT: system() ignores it meanwhile.
        EXPECT_TRUE(comesTrue([&, number = number] {
            tool.signal(number);
            ended = tool.wait(number == SIGINT ? 1s : 10s);
            return ended.has_value();
        }));
        EXPECT_EQ(ended, status) << arguments[0] << ", signal " << number;
    }
}

} // namespace
