// radarctl record, replay and info, on the virtual LAN.

#include "radarctl_fixture.h"
#include "records.h"

#include <RadarWatch/recording/contents.h>
#include <RadarWatch/recording/reader.h>
#include <RadarWatch/recording/recorder.h>

#include <UdpSocket/protocol/announcement.h>

#include <lab/failing_memory.h>

#include <sys/syscall.h>

namespace {

std::atomic<int> s_behind = 0;  // seconds that the wall clock was set back, beside the steady one
std::atomic<int> s_toSleep = 0; // seconds by which the others are behind until the machine has slept

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
    if (clock == CLOCK_BOOTTIME || clock == CLOCK_REALTIME_COARSE)
        time->tv_sec -= s_toSleep;
    return static_cast<int>(result);
}

namespace {

using namespace radar::recording;

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

NetAddress imageOf(std::uint8_t id) {
    return plan::announcedEndpoint(id, &RadarAddress::imageStream, 0);
}

class Recording : public Radarctl {
protected:
    /// A radar in a second of a recording.
    struct Second {
        std::int64_t number;
        std::uint8_t id;
        const char* source = "10.20.1.1";
    };

    std::string path(const std::string& name) const { return m_profile.path() / name; }

    /// Writes a recording of a radar that announces itself and sends ten images in each of the seconds.
    std::string write(const char* name, const std::vector<Second>& seconds) const {
        std::string bytes = sectionBlock("a test") + interfaceBlock("eth0");
        const NetAddress discovery = endpoint(wire::kDiscovery.address, wire::kDiscovery.port);
        for (const auto& [number, id, source] : seconds) {
            const NetAddress from = endpoint(source, 40000);
            Time time = std::chrono::seconds(number);
            appendDatagramBlock(bytes, 0, {time, from, discovery, protocol::composeAnnouncement(name, id, 1)},
                                "");
            for (int i = 0; i < 10; ++i, time += 100ms)
                appendDatagramBlock(bytes, 0, {time, from, imageOf(id), std::to_string(time / 1ms)}, "");
        }
        m_profile.write(bytes, name);
        return path(name);
    }

    /// Sends images with host id 20.
    std::unique_ptr<net::UdpSender> imageSender() {
        return makeIn<net::UdpSender>(m_lan.node("host1"), imageOf(20), net::transAddr("10.20.1.1"),
                                      std::uint16_t{0});
    }
    void negotiate(const wire::Code& code, std::uint8_t id) {
        const wire::Negotiation message{code, id};
        makeIn<net::UdpSender>(m_lan.node("host2"), wire::kNegotiation.address, wire::kNegotiation.port, 0, 0)
            ->sendData(wire::text(message).data(), sizeof message);
    }
    lab::Process record() { return start("display", {"record", "--interface", "eth0", "-o", path("file")}); }
    /// @return what it says at the end
    static std::string end(lab::Process& process) {
        process.signal(SIGINT);
        EXPECT_EQ(process.wait(60s), 0);
        return process.output();
    }
    /// Waits until something has been recorded, and does something again and again meanwhile.
    bool comes(
        const std::string& text, const std::function<void()>& again = [] {}) const {
        const auto came = [&] {
            again();
            return m_profile.read("file").find(text) != std::string::npos;
        };
        return comesTrue(came, 60s);
    }
    std::string shell(const std::string& command) {
        const Result result = runOn("display", {"sh", "-c", command});
        EXPECT_EQ(result.status, 0) << result.errors;
        return result.output;
    }
    nlohmann::json info(const std::string& file = "file") {
        return nlohmann::json::parse(run({"info", "--json", path(file)}).output);
    }
};

TEST_F(Recording, HoldsWhatWasSaidAndWhatHappenedInAFormThatOtherProgramsRead) {
    lab::Process recorder = record();
    auto north = serve("host1", "North", 1);
    EXPECT_TRUE(comes("North came, host id 1, from 10.20.1.1"));
    negotiate(wire::kProbe, 30);
    north = serve("host1", "North", 30);
    EXPECT_TRUE(comes("North moved, host id 30"));
    end(recorder);
    const auto radars = info()["radars"];
    ASSERT_EQ(radars.size(), 1U);
    EXPECT_EQ(radars[0]["hostIds"].size(), 2U);
    EXPECT_THAT(shell("capinfos " + path("file")),
                AllOf(HasSubstr("Number of interfaces in file: 1"), HasSubstr("Name = eth0"),
                      HasSubstr("Strict time order:   True")));
    const std::string dissected =
        shell("tshark -r " + path("file") +
              " -o ip.check_checksum:TRUE -o udp.check_checksum:TRUE -X lua_script:" DISSECTOR
              " -T fields -e _ws.col.Info -e ip.checksum.status -e udp.checksum.status");
    EXPECT_THAT(dissected, AllOf(HasSubstr("Announcement: North, host id 1, 1 stream\t1\t1"),
                                 HasSubstr("Probe of host id 30\t1\t1"), Not(HasSubstr("\t0"))));
}

TEST_F(Recording, LivesAgainAndIsTheSameRecordedAgain) {
    const std::string first = write("North", {{0, 20}, {1, 20}, {2, 30}, {3, 30}});
    lab::Process display = start("display", {"watch", "--json"});
    lab::Process recorder = record();
    lab::Process replay = start("host1", {"replay", first, "--interface", "eth0"});
    EXPECT_EQ(replay.wait(120s), 0) << replay.output();
    for (const auto& [kind, id] : {std::pair("appeared", 20), {"changed", 30}}) {
        const auto event = nlohmann::json::parse(display.nextLine(30s).value_or("{}"));
        EXPECT_EQ(event["event"], kind) << event;
        EXPECT_EQ(event["radar"]["hostId"], id) << event;
    }
    EXPECT_THAT(end(recorder), HasSubstr("dropped: none"));
    const Payloads sent = payloadsOf(first);
    const Payloads heard = payloadsOf(path("file"));
    ASSERT_EQ(heard.size(), sent.size());
    for (const auto& [key, payloads] : heard) {
        const std::vector<std::string>& all = sent.at(key);
        ASSERT_LE(payloads.size(), all.size()); // a display joins what it has heard of
        EXPECT_TRUE(std::equal(payloads.rbegin(), payloads.rend(), all.rbegin()))
            << text(NetAddress{key.first, key.second}) << ": " << payloads.size() << " of " << all.size();
    }
}

TEST_F(Recording, TellsOfEveryDatagramThatIsMissing) {
    const auto north = serve("host1", "North", 20);
    const auto sender = imageSender();
    std::uint64_t sent = 0;
    const auto send = [&](const char* more) {
        const std::string image = std::to_string(++sent) + more + std::string(1400, ' ');
        sender->sendData(image.data(), static_cast<int>(image.size()));
    };
    lab::Process recorder = record();
    EXPECT_TRUE(comes("before", [&] { send("before"); }));
    recorder.signal(SIGSTOP);
    const std::string drops = "awk 'NR > 1 { drops += $NF } END { print drops }' /proc/" +
                              std::to_string(recorder.pid()) + "/net/udp";
    EXPECT_TRUE(comesTrue(
        [&] {
            for (int i = 0; i < 100; ++i)
                send("");
            return shell(drops) != "0\n";
        },
        60s));
    const std::uint64_t droppedBySystem = std::stoull(shell(drops));
    recorder.signal(SIGINT); // so that it ends with more waiting than it takes at once
    recorder.signal(SIGCONT);
    const std::string number = std::to_string(droppedBySystem);
    EXPECT_THAT(end(recorder), HasSubstr("dropped: " + number + ", " + number + " of them by the system"));

    const std::vector<std::string> images = payloadsOf(path("file")).at(Contents::keyOf(imageOf(20)));
    const auto missing = sent - std::stoull(images.front()) + 1 - images.size();
    const auto found = info()["interfaces"];
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0]["dropped"], droppedBySystem);
    EXPECT_EQ(missing, droppedBySystem);
}

TEST_F(Recording, IsInOrderWhereItWasHeldUp) {
    const auto north = serve("host1", "North", 20);
    const auto sender = [&](RadarEndpoint RadarAddress::*channel) {
        return makeIn<net::UdpSender>(m_lan.node("host1"), plan::announcedEndpoint(20, channel, 0),
                                      net::transAddr("10.20.1.1"), std::uint16_t{0});
    };
    const auto busy = sender(&RadarAddress::imageStream);
    const auto quiet = sender(&RadarAddress::arpaStream);
    lab::Process recorder = record();
    const auto sizeBehind = [&](int datagrams) {
        for (int i = 0; i < datagrams; ++i)
            (i % 100 == 0 ? quiet : busy)->sendData("x", 1);
        return std::filesystem::file_size(path("file"));
    };
    ASSERT_TRUE(comes("eth0"));
    ASSERT_TRUE(comesTrue([&] { return sizeBehind(200) > 50000; }));
    recorder.signal(SIGSTOP);
    sizeBehind(20000); // more than is taken at once, where the system grants the room
    recorder.signal(SIGCONT);
    ASSERT_TRUE(comesTrue([&] { return sizeBehind(200) > 1000000; }));
    end(recorder);
    EXPECT_THAT(shell("capinfos -o " + path("file")), HasSubstr("Strict time order:   True"));
}

TEST_F(Recording, CountsEachPieceOfTcpThatIsDroppedWhereTheFileIsTooSlow) {
    radar::recording::Recorder recorder({path("file"), "a test", 0, 0, 0}, [] {}); // nothing may wait
    const std::string much(300 << 10, 'x');                                        // is handed over at once
    for (const std::uint64_t pieces : {1U, 2U}) {
        recorder.takeTcp(endpoint("10.20.1.1", 5000), much);
        EXPECT_EQ(recorder.counts().dropped, pieces);
    }
}

TEST_F(Recording, OfARingEndsWithAWholeFileWhereMemoryRunsOut) {
    Chunk each{interfaceBlock("eth0"), ""};
    appendDatagramBlock(each.blocks, 0, {1s, endpoint("10.20.1.1", 1), endpoint("236.6.7.8", 6878), "x"}, "");
    bool isHit = true;
    for (long failing = 1; isHit; ++failing) {
        const std::string ring = path("a-ring-" + std::to_string(failing));
        Writer writer(
            {ring, "a test", 1}, [] { return Chunk(); }, [] {});
        const Output output;
        const FailingMemory memory(failing);
        for (Chunk chunk : {each, each})
            EXPECT_TRUE(writer.give(chunk));
        writer.finish();
        isHit = memory.hit();
        EXPECT_EQ(writer.failure().value(), isHit ? ENOMEM : 0) << failing;
        Reader first(ring + "-00001");
        EXPECT_TRUE(first.next());
        EXPECT_FALSE(first.next());
    }
}

TEST_F(Recording, KeepsTheSpacingWhereTheWallClockIsSetAndTheMachineSleeps) {
    const struct Clocks {
        ~Clocks() { s_behind = s_toSleep = 0; }
    } asTheyWere;
    const auto source = imageSender();
    const lab::Inside inside = m_lan.node("display").enter();
    s_toSleep = 600;
    radar::recording::Recorder recorder({path("file"), "a test"}, [] {});
    using Places = std::set<radar::recording::Place>;
    const Places image{{"eth0", imageOf(20).ip, imageOf(20).port}};
    for (const Places& places : {image, Places(), image})
        ASSERT_TRUE(recorder.listenTo(places).empty());
    for (const std::uint64_t number : {1U, 2U, 3U}) {
        source->sendData("x", 1);
        EXPECT_TRUE(comesTrue([&] { return recorder.counts().datagrams == number; }));
        (number == 1 ? s_behind : s_toSleep) = number == 1 ? 60 : 0;
    }
    const Time now = recorder.now(); // which s_behind does not touch
    EXPECT_EQ(recorder.counts().bytes, 3U);
    recorder.comment("no datagram follows");
    recorder.finish();
    EXPECT_EQ(readNotes(path("file")).comments.back().text, "no datagram follows");
    std::vector<Time> times;
    for (Reader reader(path("file")); const auto datagram = reader.next();)
        times.push_back(datagram->time);
    ASSERT_EQ(times.size(), 3U);
    const auto isAbout = [](Time time) { return AllOf(testing::Gt(time - 1s), testing::Lt(time + 20s)); };
    EXPECT_THAT(times[1] - times[0], isAbout(60s));
    EXPECT_THAT(times[2] - times[1], isAbout(600s));
    EXPECT_THAT(now - times[0], isAbout(600s));
}

TEST_F(Recording, GoesOnWhenTheInterfaceIsReplaced) {
    const auto north = serve("host1", "North", 20);
    const auto sender = imageSender();
    lab::Process recorder = record();
    EXPECT_TRUE(comes("before", [&] { sender->sendData("before", 6); }));
    m_lan.unplug(m_lan.node("display"));
    m_lan.plugIn(m_lan.node("display"));
    EXPECT_TRUE(comes("behind", [&] { sender->sendData("behind", 6); }));
    end(recorder);
    EXPECT_EQ(info()["broken"], nullptr);
}

TEST_F(Recording, OnAFullDiskEndsWithItsLastWholeBlock) {
    const auto north = serve("host1", "North", 20);
    const auto sender = imageSender();
    lab::Process process = m_lan.node("display").start(
        {.command = {"unshare", "--mount", "sh", "-c",
                     "cd " + path("") +
                         " && mkdir small && mount -t tmpfs -o size=300k none small && " RADARCTL
                         " record --interface eth0 -o small/file; echo ended with $?; cp small/file whole"}});
    const std::string image(1400, ' ');
    while (!process.wait(1ms))
        sender->sendData(image.data(), static_cast<int>(image.size()));
    EXPECT_THAT(process.output(),
                AllOf(HasSubstr("file: No space left on device; the recording ends with the last"),
                      HasSubstr("\nended with 3\n")));
    EXPECT_GT(info("whole")["total"]["bytes"], 100000);
    EXPECT_THAT(shell("capinfos " + path("whole")), HasSubstr("Number of packets"));
}

TEST_F(Recording, IsReplayedUnderAnotherIdAlsoAtTwoAddressesAndNotBesideTheRadarItself) {
    const auto replay = [&](const std::string& file, const char* id) {
        return start("host1", {"replay", file, "--interface", "eth0", "--repeat", "--as-id", id});
    };
    const std::string file =
        write("North", {{0, 20}, {0, 20, "10.20.1.2"}, {1, 20}, {2, 20}, {3, 20}, {4, 20}, {5, 20}});
    {
        const auto north = serve("host2", "North", 21);
        const auto south = serve("host2", "South", 40);
        lab::Process name = replay(file, "41");
        lab::Process id = replay(write("East", {{0, 20}}), "40");
        for (lab::Process* refused : {&name, &id})
            EXPECT_EQ(refused->wait(30s), 1);
        EXPECT_EQ(name.output(), "radarctl: the name North is held by a radar at 10.20.1.2\n");
        EXPECT_EQ(id.output(), "radarctl: host id 40 is held by a radar at 10.20.1.2, South\n");
    }
    lab::Process north = replay(file, "1");
    for (int address = 0; address < 2; ++address) // which do not contest it
        EXPECT_TRUE(north.lineWith("North holds host id 1", 30s));
    lab::Process listener = start("display", {"listen", "North", "0"});
    EXPECT_TRUE(listener.lineWith("236.6.7.8:6878", 30s));
    EXPECT_TRUE(listener.lineWith(" 10.20.1.1:", 30s)); // the sender
    negotiate(wire::kObjection, 1);
    EXPECT_TRUE(north.lineWith("North holds host id ", 30s));
    EXPECT_THAT(end(north), HasSubstr("datagrams sent"));
}

TEST_F(Recording, IsShownWithItsCommentsUnlessItIsNotThereOrCannotBeRead) {
    std::string blocks = sectionBlock("test") + interfaceBlock("eth0");
    appendDatagramBlock(blocks, 0, {1s, endpoint("10.20.1.1", 1), imageOf(20), "x"}, "a\nb");
    m_profile.write(blocks, "file");
    EXPECT_THAT(run({"info", path("file")}).output,
                testing::AllOf(HasSubstr(": 1 datagram, 1 byte\n"), HasSubstr("0.0 s  a\n             b\n")));
    EXPECT_EQ(run({"info", path("nowhere")}).status, 1);
    EXPECT_EQ(run({"info", path("profile.ini")}).status, 1);
    EXPECT_EQ(run({"info", path("file") + "/file"}).status, 3);
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
        {.command = {"socat", "TCP-LISTEN:5000,reuseaddr,fork", "SYSTEM:printf an-image; sleep 60"}});
    lab::Process recorder = record();
    EXPECT_TRUE(comes("an-image",
                      [&] { sender->sendData(announcement.data(), static_cast<int>(announcement.size())); }));
    end(recorder);
    const auto tcp = info()["tcp"];
    ASSERT_EQ(tcp.size(), 1U);
    EXPECT_EQ(tcp[0]["peer"]["address"], "10.20.1.1");
    EXPECT_EQ(tcp[0]["bytes"], 8);
}

TEST_F(Recording, NamesTheRadarsThatItDidNotHearAndLeavesNoFileWhenItIsRefused) {
    const auto north = serve("host1", "North", 20);
    const struct {
        const char* file;
        Words arguments;
        int status;
        const char* errors;
    } cases[] = {
        {"refused", {"--interface", "eth9"}, 2, "no interface \"eth9\""},
        {"none", {"--interface", "eth0", "Nroth"}, 1, "not heard: Nroth; there are: North\n"},
        {"some", {"--interface", "eth0", "North", "South"}, 0, "not heard: South; there are: "},
        {"all", {"--interface", "eth0"}, 0, "recorded "},
    };
    std::deque<lab::Process> recorders;
    for (const auto& each : cases) {
        Words words{"record", "--duration", "3", "-o", path(each.file)};
        words.insert(words.end(), each.arguments.begin(), each.arguments.end());
        recorders.push_back(start("display", words));
    }
    for (const auto& each : cases) {
        EXPECT_EQ(recorders.front().wait(30s), each.status) << each.errors;
        EXPECT_THAT(recorders.front().output(), HasSubstr(each.errors));
        EXPECT_EQ(std::filesystem::exists(path(each.file)), each.status != 2);
        recorders.pop_front();
    }
}

TEST_F(Recording, ReportsOnLinesOfItsOwnOnATerminal) {
    const auto onTerminal = [&](const char* node, const std::string& kind, const std::string& command) {
        const std::string line = "TERM=" + kind + " exec " RADARCTL " " + command + " --interface eth0";
        return m_lan.node(node).start({.command = {"script", "-qec", line, "/dev/null"}});
    };
    const auto north = serve("host2", "North", 20);
    lab::Process recorder = onTerminal("display", "vt100", "record --duration 3 -o " + path("first"));
    lab::Process dumb = onTerminal("display", "dumb", "record --duration 3 -o " + path("second"));
    lab::Process replay = onTerminal("host1", "vt100", "replay --to 0.1 " + write("South", {{0, 21}}));
    for (lab::Process* process : {&recorder, &dumb, &replay})
        EXPECT_EQ(process->wait(60s), 0) << process->output();
    EXPECT_THAT(recorder.output(), HasSubstr("Ctrl-C ends\x1b[?7h\r\x1b[Krecorded "));
    EXPECT_THAT(dumb.output(), StartsWith("recorded "));
    EXPECT_THAT(replay.output(),
                AllOf(HasSubstr("\r\x1b[KSouth holds host id 21"), HasSubstr("sent\x1b[?7h\r\x1b[K"),
                      HasSubstr("[?7l0.0 of "), Not(HasSubstr("[?7l-"))));
}

TEST_F(Recording, BundleOfDoctorHoldsWhatItListsAndGivesNothingAway) {
    const auto host = serve("host1", "Secret \"mast\"", 20);
    const std::string unread = path("unread.tar.gz"); // the report
    lab::Process piped = m_lan.node("display").start(
        {.command = {"sh", "-c", RADARCTL " doctor --seconds 0.5 --bundle " + unread + " | true"}});
    for (const bool redacted : {false, true}) {
        const std::string file = path(redacted ? "redacted.tar.gz" : "bundle.tar.gz");
        const std::string out = path(redacted ? "redacted" : "bundle");
        const Result doctor =
            run({"doctor", "--seconds", "0.7", "--bundle", file, redacted ? "--redact" : "--verbose",
                 "--color", "always", "--follow", "Secretive"});
        EXPECT_EQ(doctor.status, 1) << "nobody has that name: " << doctor.output;
        EXPECT_THAT(doctor.errors, HasSubstr("discovery.pcapng"));
        EXPECT_THAT(shell("tar -tzf " + file + " | head -1 && mkdir " + out + " && tar -xzf " + file +
                          " -C " + out + " && ls " + out),
                    AllOf(StartsWith("CONTENTS.txt\n"), HasSubstr("\nfindings.json\n")));
        EXPECT_THAT(shell("tshark -r " + out +
                          "/discovery.pcapng -X lua_script:" DISSECTOR " -T fields -e _ws.col.Info"),
                    HasSubstr(redacted ? "Announcement: radar-1, host id 20"
                                       : "Announcement: Secret \"mast\", host id 20"));
        EXPECT_EQ(shell("grep -aqr -e Secret -e '10[.]20[.]' " + out + " && echo yes || true"),
                  redacted ? "" : "yes\n");
        EXPECT_FALSE(std::filesystem::exists(file + ".part"));
        EXPECT_EQ(shell("grep -c '\x1b' " + out + "/findings.txt || true"), "0\n") << "colour of a terminal";
    }
    const std::string null = path("null.tar.gz");
    std::filesystem::create_symlink("/dev/null", null);
    for (const std::string& refused : {std::string("/nowhere/bundle.tar.gz"), null})
        EXPECT_EQ(run({"doctor", "--seconds", "600", "--bundle", refused}).status, 3);
    EXPECT_EQ(piped.wait(30s), 0);
    EXPECT_TRUE(std::filesystem::exists(unread));
    std::filesystem::create_symlink("/dev/full", path("full.tar.gz.part"));
    EXPECT_THAT(run({"doctor", "--seconds", "0.5", "--bundle", path("full.tar.gz")}).output,
                HasSubstr("looked at:"))
        << "though the disk is full";
}

} // namespace
