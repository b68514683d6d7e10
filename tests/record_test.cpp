// radarctl record, replay and info, on the virtual LAN.

#include "failing_memory.h"
#include "radarctl_fixture.h"
#include "records.h"

#include <RadarWatch/recording/contents.h>
#include <RadarWatch/recording/reader.h>
#include <RadarWatch/recording/recorder.h>

#include <UdpSocket/protocol/announcement.h>

#include <sys/syscall.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fstream>

namespace {

std::atomic<int> s_behind = 0; // seconds that the wall clock was set back, beside the steady one

} // namespace

/// In the place of the C library's.
int clock_gettime(clockid_t clock, timespec* time) noexcept {
#ifdef SYS_clock_gettime64
    const long result = ::syscall(SYS_clock_gettime64, clock, time);
#else
    const long result = ::syscall(SYS_clock_gettime, clock, time);
#endif
    if (clock == CLOCK_MONOTONIC_COARSE)
        time->tv_sec += s_behind;
    return static_cast<int>(result);
}

namespace {

using namespace radar::recording;
using testing::AllOf;

/// What was sent to each endpoint, in order.
using Payloads = std::map<Contents::Key, std::vector<std::string>>;

Payloads payloadsOf(const std::string& path) {
    Payloads payloads;
    Reader reader(path);
    while (const auto datagram = reader.next())
        if (!isFor(*datagram, wire::kDiscovery) && !isFor(*datagram, wire::kNegotiation))
            payloads[Contents::keyOf(datagram->destination)].emplace_back(datagram->payload);
    return payloads;
}

class Recording : public Radarctl {
protected:
    std::string path(const std::string& name) const { return m_profile.path() / name; }

    lab::Process startHost(const char* node, const char* name, const char* id, const char* rate = "60") {
        return Radarctl::startHost(node, {"--name", name, "--id", id, "--simulate", "--rate", rate});
    }
    lab::Process record(const std::string& file) {
        lab::Process recorder = start("display", {"record", "--interface", "eth0", "-o", path(file)});
        const auto hears = [&] {
            std::ifstream table("/proc/" + std::to_string(recorder.pid()) + "/net/udp");
            const std::string sockets{std::istreambuf_iterator<char>(table), {}};
            return sockets.find("040706EC:1A70") != std::string::npos; // of the negotiation
        };
        EXPECT_TRUE(comesTrue(hears, 30s));
        return recorder;
    }
    /// @return what it says at the end
    static std::string end(lab::Process& process) {
        process.signal(SIGINT);
        EXPECT_EQ(process.wait(60s), 0);
        return process.output();
    }
    bool grows(const std::string& file, std::uintmax_t bytes) const {
        const auto before = std::filesystem::file_size(path(file));
        return comesTrue([&] { return std::filesystem::file_size(path(file)) > before + bytes; }, 60s);
    }
    std::string shell(const std::string& command) {
        const Result result = runOn("display", {"sh", "-c", command});
        EXPECT_EQ(result.status, 0) << result.errors;
        return result.output;
    }
    nlohmann::json info(const std::string& file) {
        return nlohmann::json::parse(run({"info", "--json", path(file)}).output);
    }
    /// Waits until a display has told so many events. @return what happened to whom, and under which id
    static std::vector<std::string> events(lab::Process& display, std::size_t count) {
        std::vector<std::string> events;
        while (events.size() < count) {
            const auto event = nlohmann::json::parse(display.nextLine(30s).value_or(""), nullptr, false);
            if (!event.is_object())
                break;
            events.push_back(event["event"].get<std::string>() + " " +
                             event["radar"]["name"].get<std::string>() + " " +
                             event["radar"]["hostId"].dump());
        }
        return events;
    }
};

TEST_F(Recording, LivesAgain) {
    std::vector<std::string> happened;
    {
        lab::Process display = start("display", {"watch", "--json"});
        lab::Process recorder = record("first");
        const lab::Process north = startHost("host1", "North", "1", "24");
        happened = events(display, 1);
        {
            const lab::Process south = startHost("host2", "South", "30", "24");
            happened.push_back(events(display, 1).at(0));
            ASSERT_TRUE(grows("first", 1000000)); // so that a display hears its targets, too
            EXPECT_EQ(run({"renumber", "North"}).status, 0);
            happened.push_back(events(display, 1).at(0));
        }
        happened.push_back(events(display, 1).at(0));
        EXPECT_TRUE(comesTrue(
            [&] { return shell("grep -ac 'South left' " + path("first") + " || true") != "0\n"; }, 30s));
        EXPECT_THAT(end(recorder), HasSubstr("dropped: none"));
    }
    ASSERT_EQ(happened.size(), 4U);
    EXPECT_EQ(happened[0], "appeared North 1");
    EXPECT_EQ(happened[1], "appeared South 30");
    EXPECT_THAT(happened[2], StartsWith("changed North "));
    EXPECT_EQ(happened[3], "left South 30");

    const auto first = info("first");
    ASSERT_EQ(first["radars"].size(), 2U);
    EXPECT_EQ(first["radars"][0]["hostIds"].size(), 2U);
    EXPECT_THAT(first["comments"].dump(),
                AllOf(HasSubstr("North came, host id 1, from 10.20.1.1"), HasSubstr("South came, host id 30"),
                      HasSubstr("North moved, host id "), HasSubstr("South left: ")));
    // other programs' eyes
    EXPECT_THAT(shell("capinfos " + path("first")),
                AllOf(HasSubstr("Number of interfaces in file: 1"), HasSubstr("Strict time order:   True")));
    const std::string dissected =
        shell("tshark -r " + path("first") +
              " -o ip.check_checksum:TRUE -o udp.check_checksum:TRUE -X lua_script:" DISSECTOR
              " -T fields -e _ws.col.Info -e ip.checksum.status -e udp.checksum.status");
    EXPECT_THAT(dissected, AllOf(HasSubstr("Announcement: North, host id 1, 1 stream\t1\t1"),
                                 HasSubstr("Announcement: South, host id 30, 1 stream\t1\t1"),
                                 HasSubstr("Probe of host id 30\t1\t1"), testing::Not(HasSubstr("\t0"))));

    lab::Process display = start("display", {"watch", "--json"});
    lab::Process recorder = record("second");
    lab::Process replay = start("host1", {"replay", path("first"), "--interface", "eth0"});
    EXPECT_EQ(replay.wait(120s), 0) << replay.output();
    EXPECT_EQ(events(display, happened.size()), happened);
    EXPECT_THAT(end(recorder), HasSubstr("dropped: none"));
    const Payloads sent = payloadsOf(path("first"));
    const Payloads heard = payloadsOf(path("second"));
    ASSERT_EQ(heard.size(), sent.size());
    for (const auto& [key, payloads] : heard) {
        const std::vector<std::string>& all = sent.at(key);
        ASSERT_LE(payloads.size(), all.size()); // a display joins what it has heard of
        EXPECT_TRUE(std::equal(payloads.rbegin(), payloads.rend(), all.rbegin()))
            << text(NetAddress{key.first, key.second}) << ": " << payloads.size() << " of " << all.size();
    }
}

TEST_F(Recording, TellsOfEveryDatagramThatIsMissing) {
    const lab::Process host = startHost("host1", "North", "20");
    lab::Process recorder = record("file");
    ASSERT_TRUE(grows("file", 50000));
    recorder.signal(SIGSTOP);
    const std::string drops = "awk 'NR > 1 { drops += $NF } END { print drops }' /proc/" +
                              std::to_string(recorder.pid()) + "/net/udp";
    ASSERT_TRUE(comesTrue([&] { return shell(drops) != "0\n"; }, 60s));
    recorder.signal(SIGCONT);
    ASSERT_TRUE(grows("file", 2500000)) << "more than the system had kept";
    const std::uint64_t droppedBySystem = std::stoull(shell(drops));
    EXPECT_THAT(end(recorder), testing::Not(HasSubstr("dropped: none")));

    const NetAddress image = plan::announcedEndpoint(20, &RadarAddress::imageStream, 0);
    const std::vector<std::string> images = payloadsOf(path("file")).at(Contents::keyOf(image));
    const auto sequence = [](const std::string& datagram) {
        std::uint32_t number = 0;
        std::memcpy(&number, datagram.data() + 4, sizeof number);
        return net::NtoHl(number);
    };
    const auto missing = sequence(images.back()) - sequence(images.front()) + 1 - images.size();
    EXPECT_GT(missing, 0U);
    const auto found = info("file")["interfaces"];
    ASSERT_EQ(found.size(), 1U);
    const auto dropped = found[0]["dropped"].get<std::uint64_t>();
    EXPECT_GE(dropped, droppedBySystem); // more may be missing: a simulator that stood still skips numbers
    EXPECT_LE(dropped, missing + 30);    // announcements are not numbered
}

TEST_F(Recording, LosesNoMoreThanADatagramWhereMemoryRunsOutAndCountsIt) {
    const NetAddress image = plan::announcedEndpoint(20, &RadarAddress::imageStream, 0);
    const auto source =
        makeIn<net::UdpSender>(m_lan.node("host1"), image, net::transAddr("10.20.1.1"), std::uint16_t{0});
    const lab::Inside inside = m_lan.node("display").enter();
    const Output output;
    radar::recording::Recorder recorder({path("file"), "a test"}, [] {});
    ASSERT_TRUE(recorder.listenTo({{"eth0", image.ip, image.port}}).empty());
    constexpr std::uint64_t each = 10; // of as many as there are allocations for them
    for (std::uint64_t failing = 1; failing <= 2 * each; ++failing) {
        const FailingMemory memory(static_cast<long>(failing));
        for (std::uint64_t i = 0; i < each; ++i)
            source->sendData(std::string(200, 'x').data(), 200);
        EXPECT_TRUE(comesTrue([&] {
            const auto counts = recorder.counts();
            return counts.datagrams + counts.dropped == failing * each;
        })) << failing;
    }
    recorder.finish();
    const auto counts = recorder.counts();
    EXPECT_THAT(counts.dropped, AllOf(testing::Ge(each), testing::Le(2 * each)));
    EXPECT_EQ(counts.datagrams, payloadsOf(path("file")).at(Contents::keyOf(image)).size());
    EXPECT_EQ(counts.dropped, readNotes(path("file")).statistics.at(0).dropped);
    EXPECT_THAT(output.err(), HasSubstr("recording: a datagram"));
}

TEST_F(Recording, KeepsTheSpacingWhereTheWallClockIsSet) {
    const NetAddress image = plan::announcedEndpoint(20, &RadarAddress::imageStream, 0);
    const auto source =
        makeIn<net::UdpSender>(m_lan.node("host1"), image, net::transAddr("10.20.1.1"), std::uint16_t{0});
    const lab::Inside inside = m_lan.node("display").enter();
    radar::recording::Recorder recorder({path("file"), "a test"}, [] {});
    ASSERT_TRUE(recorder.listenTo({{"eth0", image.ip, image.port}}).empty());
    for (const std::uint64_t number : {1U, 2U}) {
        source->sendData("x", 1);
        EXPECT_TRUE(comesTrue([&] { return recorder.counts().datagrams == number; }));
        s_behind = 60;
    }
    recorder.finish();
    Reader reader(path("file"));
    const auto first = reader.next()->time;
    const auto between = reader.next()->time - first;
    EXPECT_GT(between, 60s);
    EXPECT_LT(between, 80s);
}

TEST_F(Recording, GoesOnWhenTheInterfaceIsReplaced) {
    const lab::Process host = startHost("host1", "North", "20");
    lab::Process recorder = record("file");
    EXPECT_TRUE(grows("file", 300000));
    m_lan.unplug(m_lan.node("display"));
    m_lan.plugIn(m_lan.node("display"));
    EXPECT_TRUE(grows("file", 300000));
    end(recorder);
    EXPECT_EQ(info("file")["broken"], nullptr);
}

TEST_F(Recording, OnAFullDiskEndsWithItsLastWholeBlock) {
    const lab::Process host = startHost("host1", "North", "20");
    lab::Process process = m_lan.node("display").start(
        {.command = {"unshare", "--mount", "sh", "-c",
                     "cd " + path("") +
                         " && mkdir small && mount -t tmpfs -o size=300k none small && " RADARCTL
                         " record --interface eth0 -o small/file; echo ended with $?; cp small/file whole"}});
    EXPECT_EQ(process.wait(120s), 0);
    EXPECT_THAT(process.output(),
                AllOf(HasSubstr("file: No space left on device; the recording ends with the last"),
                      HasSubstr("\nended with 3\n")));
    EXPECT_GT(info("whole")["total"]["bytes"], 100000);
    EXPECT_THAT(shell("capinfos " + path("whole")), HasSubstr("Number of packets"));
}

TEST_F(Recording, IsReplayedUnderAnotherIdAndNotBesideTheRadarItself) {
    {
        const lab::Process host = startHost("host1", "North", "20");
        lab::Process recorder = record("file");
        ASSERT_TRUE(grows("file", 1000000));
        end(recorder);
    }
    const auto refused = [&](const char* name, std::uint8_t id, const Words& more) {
        const auto other = makeIn<HostServer>(m_lan.node("host2"), name, id, 1U);
        Words arguments = radarctl({"replay", path("file"), "--interface", "eth0"});
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Result replay = runOn("host1", arguments);
        EXPECT_EQ(replay.status, 1);
        return replay.errors;
    };
    EXPECT_EQ(refused("North", 21, {}), "radarctl: the name North is held by a radar at 10.20.1.2\n");
    EXPECT_EQ(refused("South", 40, {"--as-id", "40"}),
              "radarctl: host id 40 is held by a radar at 10.20.1.2, South\n");

    lab::Process replay =
        start("host1", {"replay", path("file"), "--interface", "eth0", "--as-id", "1", "--repeat"});
    EXPECT_TRUE(replay.lineWith("North holds host id 1", 30s));
    const Result listener = run({"listen", "North", "0", "--seconds", "2"});
    EXPECT_EQ(listener.status, 0);
    EXPECT_THAT(listener.output + listener.errors, HasSubstr("236.6.7.8:6878"));
    EXPECT_THAT(run({"renumber", "North"}).output, HasSubstr("North now has host id "));
    EXPECT_THAT(end(replay), HasSubstr("datagrams sent"));
}

TEST_F(Recording, OfARadarThatChangedItsAddressIsReplayedUnderOneId) {
    std::string bytes = sectionBlock("a test") + interfaceBlock("eth0");
    for (const auto& [second, source] : {std::pair(0s, "10.20.1.1"), {2s, "10.20.1.2"}})
        appendDatagramBlock(bytes, 0,
                            {second, endpoint(source, 40000),
                             endpoint(wire::kDiscovery.address, wire::kDiscovery.port),
                             protocol::composeAnnouncement("North", 20, 1)},
                            "");
    m_profile.write(bytes, "file");
    const Result replay =
        runOn("host1", radarctl({"replay", path("file"), "--interface", "eth0", "--as-id", "40"}));
    EXPECT_EQ(replay.status, 0) << replay.errors;
    EXPECT_THAT(replay.output, HasSubstr("North holds host id 40\nNorth holds host id 40\n"));
}

TEST_F(Recording, ThatIsNotThereIsToldFromOneThatCannotBeRead) {
    m_profile.write("no directory", "file");
    const std::pair<std::string, int> files[] = {
        {path("nowhere"), 1}, {path("file"), 1}, {path("file") + "/file", 3}};
    for (const auto& [file, status] : files)
        EXPECT_EQ(run({"info", file}).status, status) << file;
}

TEST_F(Recording, KeepsTheBytesOfATcpService) {
    m_profile.write("[Local]\nIP = 10.20.2.1\n[Radar]\nTCPService = true\n");
    std::string announcement = protocol::composeAnnouncement("North", 20, 2);
    const NetAddress service = endpoint("10.20.1.1", 5000);
    for (const wire::Field& field : {wire::kExtended, wire::kTcpOffered, wire::kTcpKinds})
        announcement[field.offset] = 1; // the image's kind: a server, as the radar sees it
    announcement.replace(wire::kTcpEndpoints[0].offset, sizeof service,
                         reinterpret_cast<const char*>(&service), sizeof service);
    const auto sender =
        makeIn<net::UdpSender>(m_lan.node("host1"), wire::kDiscovery.address, wire::kDiscovery.port, 0, 0);
    lab::Process server = m_lan.node("host1").start(
        {.command = {"socat", "TCP-LISTEN:5000,reuseaddr,fork", "SYSTEM:echo an image; sleep 60"}});
    lab::Process recorder = record("file");
    EXPECT_TRUE(comesTrue(
        [&] {
            sender->sendData(announcement.data(), static_cast<int>(announcement.size()));
            return shell("sleep 0.1; grep -ac 'an image' " + path("file") + " || true") != "0\n"; // its pace
        },
        60s));
    end(recorder);
    const auto tcp = info("file")["tcp"];
    ASSERT_EQ(tcp.size(), 1U);
    EXPECT_EQ(tcp[0]["peer"]["address"], "10.20.1.1");
    EXPECT_EQ(tcp[0]["bytes"], 9);
}

TEST_F(Recording, NamesTheRadarsThatItDidNotHearAndLeavesNoFileWhenItIsRefused) {
    const auto north = serve("host1", "North", 20);
    const struct {
        Words arguments;
        int status;
        const char* errors;
    } cases[] = {
        {{"--interface", "eth9"}, 2, "no interface \"eth9\""},
        {{"--interface", "eth0", "--duration", "3", "Nroth"}, 1, "not heard: Nroth; there are: North\n"},
        {{"--interface", "eth0", "--duration", "3", "North", "South"}, 0, "not heard: South; there are: "},
        {{"--interface", "eth0", "--duration", "3"}, 0, ""},
    };
    for (const auto& [arguments, status, errors] : cases) {
        Words words{"record", "-o", path("file")};
        words.insert(words.end(), arguments.begin(), arguments.end());
        const Result result = run(words);
        EXPECT_EQ(result.status, status) << result.errors;
        EXPECT_THAT(result.errors, HasSubstr(errors));
        EXPECT_EQ(std::filesystem::remove(path("file")), status != 2);
    }
}

TEST_F(Recording, ReportsOnLinesOfItsOwnOnATerminal) {
    const auto onTerminal = [&](const std::string& kind, const std::string& command) {
        const std::string line = "TERM=" + kind + " exec " RADARCTL " " + command + " --interface eth0";
        const Result result = runOn("display", {"script", "-qec", line, "/dev/null"});
        EXPECT_EQ(result.status, 0) << result.output;
        return result.output;
    };
    auto north = serve("host1", "North", 20);
    EXPECT_THAT(onTerminal("vt100", "record --duration 3 -o " + path("first")),
                HasSubstr("Ctrl-C ends\x1b[?7h\r\x1b[Krecorded "));
    EXPECT_THAT(onTerminal("dumb", "record --duration 3 -o " + path("second")), StartsWith("recorded "));
    north.reset();
    EXPECT_THAT(onTerminal("vt100", "replay " + path("first")),
                AllOf(HasSubstr("\r\x1b[KNorth holds host id 20"), HasSubstr("sent\x1b[?7h\r\x1b[K"),
                      HasSubstr("[?7l0.0 of "), testing::Not(HasSubstr("[?7l-"))));
}

TEST_F(Recording, ShowsEachCommentOnALineOfItsOwn) {
    std::string blocks = sectionBlock("test") + interfaceBlock("eth0");
    appendDatagramBlock(blocks, 0, {1s, endpoint("10.20.1.1", 1), endpoint("236.6.7.8", 6878), "x"}, "a\nb");
    m_profile.write(blocks, "file");
    EXPECT_THAT(run({"info", path("file")}).output, HasSubstr("0.0 s  a\n             b\n"));
}

TEST_F(Recording, BundleOfDoctorHoldsWhatItListsAndGivesNothingAway) {
    const lab::Process host = startHost("host1", "Secret \"mast\"", "20");
    for (const bool redacted : {false, true}) {
        const std::string file = path(redacted ? "redacted.tar.gz" : "bundle.tar.gz");
        const std::string out = path(redacted ? "redacted" : "bundle");
        const Result doctor =
            run({"doctor", "--seconds", "3", "--bundle", file, redacted ? "--redact" : "--verbose", "--color",
                 "always", "--follow", "Secretive"});
        EXPECT_EQ(doctor.status, 1) << "nobody has that name: " << doctor.output;
        EXPECT_THAT(doctor.errors, HasSubstr("discovery.pcapng"));
        EXPECT_THAT(shell("tar -tzf " + file + " | head -1 && mkdir " + out + " && tar -xzf " + file +
                          " -C " + out + " && ls " + out),
                    AllOf(testing::StartsWith("CONTENTS.txt\n"), HasSubstr("\nfindings.json\n")));
        EXPECT_THAT(shell("tshark -r " + out +
                          "/discovery.pcapng -X lua_script:" DISSECTOR " -T fields -e _ws.col.Info"),
                    HasSubstr(redacted ? "Announcement: radar-1, host id 20"
                                       : "Announcement: Secret \"mast\", host id 20"));
        const bool isRecognised =
            shell("grep -aqr -e Secret -e '10[.]20[.]' " + out + " && echo yes || true") == "yes\n";
        EXPECT_EQ(isRecognised, !redacted);
        EXPECT_FALSE(std::filesystem::exists(file + ".part"));
        EXPECT_EQ(shell("grep -c '\x1b' " + out + "/findings.txt || true"), "0\n") << "colour of a terminal";
    }
    EXPECT_EQ(run({"doctor", "--seconds", "600", "--bundle", "/nowhere/bundle.tar.gz"}).status, 3);
}

} // namespace
