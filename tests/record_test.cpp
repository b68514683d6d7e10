// radarctl record, replay and info, on the virtual LAN.

#include "profile_directory.h"
#include "records.h"
#include "wait.h"

#include <RadarWatch/recording/contents.h>
#include <RadarWatch/recording/reader.h>

#include <UdpSocket/hostserver.h>
#include <UdpSocket/protocol/announcement.h>

#include <lab/lan.h>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <cstring>
#include <sstream>

namespace {

using namespace std::chrono_literals;
using namespace radar::recording;
using testing::AllOf;
using testing::HasSubstr;

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

class Recording : public testing::Test {
protected:
    std::string path(const std::string& name) const { return m_profile.path() / name; }

    lab::Process start(lab::Lan& lan, const char* node, std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), RADARCTL);
        return lan.node(node).start({.command = arguments});
    }
    lab::Process startHost(lab::Lan& lan, const char* node, const char* name, const char* id,
                           const char* rate = "24") {
        lab::Process host =
            start(lan, node, {"host", "--name", name, "--id", id, "--simulate", "--rate", rate});
        EXPECT_TRUE(host.lineWith("serving", 60s));
        return host;
    }
    lab::Process record(lab::Lan& lan, const std::string& file) {
        lab::Process recorder = start(lan, "display", {"record", "--interface", "eth0", "-o", path(file)});
        EXPECT_TRUE(comesTrue([&] { return hears(lan, recorder); }, 30s));
        return recorder;
    }
    /// @return what it says at the end
    static std::string end(lab::Process& process, int status = 0) {
        process.signal(SIGINT);
        EXPECT_EQ(process.wait(60s), status);
        return process.output();
    }
    /// Whether its sockets stand: the kernel knows of their groups.
    static bool hears(lab::Lan&, const lab::Process& process) {
        std::ifstream table("/proc/" + std::to_string(process.pid()) + "/net/udp");
        const std::string text{std::istreambuf_iterator<char>(table), {}};
        return text.find("040706EC:1A70") != std::string::npos; // of the negotiation
    }
    bool grows(const std::string& file, std::uintmax_t bytes) const {
        const auto before = std::filesystem::file_size(path(file));
        return comesTrue([&] { return std::filesystem::file_size(path(file)) > before + bytes; }, 60s);
    }
    nlohmann::json info(const std::string& file) {
        lab::Process tool({.command = {RADARCTL, "info", "--json", path(file)}});
        EXPECT_EQ(tool.wait(60s), 0) << tool.output();
        return nlohmann::json::parse(tool.output());
    }
    static std::string shell(const std::string& command) {
        lab::Process process({.command = {"sh", "-c", command}});
        EXPECT_EQ(process.wait(60s), 0) << process.output();
        return process.output();
    }
    /// Follows the radars on the display, and writes what happens to a file.
    lab::Process watch(lab::Lan& lan, const std::string& file) {
        return lan.node("display").start(
            {.command = {RADARCTL, "watch", "--json"}, .outputFile = path(file)});
    }
    /// What happened to whom, and under which id.
    std::vector<std::string> events(const std::string& file) const {
        std::ifstream lines(path(file));
        std::vector<std::string> events;
        for (std::string line; std::getline(lines, line);)
            if (const auto event = nlohmann::json::parse(line, nullptr, false); event.is_object())
                events.push_back(event["event"].get<std::string>() + " " +
                                 event["radar"]["name"].get<std::string>() + " " +
                                 event["radar"]["hostId"].dump());
        return events;
    }

    const ProfileDirectory m_profile{"[Local]\nIP = 10.20.2.1\n"};
};

TEST_F(Recording, LivesAgainOnAnotherLan) {
    std::vector<std::string> happened;
    {
        lab::Lan lan({lab::radarHost(1), lab::radarHost(2), lab::display(1)});
        lab::Process display = watch(lan, "first events");
        lab::Process recorder = record(lan, "first");
        const lab::Process north = startHost(lan, "host1", "North", "1");
        ASSERT_TRUE(comesTrue([&] { return events("first events").size() == 1; }, 30s));
        {
            const lab::Process south = startHost(lan, "host2", "South", "30");
            ASSERT_TRUE(comesTrue([&] { return events("first events").size() == 2; }, 30s));
            ASSERT_TRUE(grows("first", 2000000)); // so that a display hears its targets, too
        }
        lab::Process renumber = start(lan, "display", {"renumber", "North"});
        EXPECT_EQ(renumber.wait(60s), 0) << renumber.output();
        ASSERT_TRUE(comesTrue([&] { return events("first events").size() == 4; }, 30s)) << "moved, and left";
        happened = events("first events");
        EXPECT_TRUE(comesTrue(
            [&] { return shell("grep -ac 'South left' " + path("first") + " || true") != "0\n"; }, 30s));
        EXPECT_THAT(end(recorder), HasSubstr("dropped: none"));
        display.stop();
    }
    EXPECT_EQ(happened[0], "appeared North 1");
    EXPECT_EQ(happened[1], "appeared South 30");

    const auto first = info("first");
    ASSERT_EQ(first["radars"].size(), 2U);
    EXPECT_EQ(first["radars"][0]["hostIds"].size(), 2U);
    std::string comments;
    for (const auto& comment : first["comments"])
        comments += comment["text"].get<std::string>() + "\n";
    EXPECT_THAT(comments,
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
                                 HasSubstr("Probe of host id 30\t1\t1")));
    EXPECT_THAT(dissected, testing::Not(HasSubstr("\t0")));

    {
        lab::Lan lan({lab::radarHost(1), lab::display(1)});
        lab::Process display = watch(lan, "second events");
        lab::Process recorder = record(lan, "second");
        lab::Process replay = start(lan, "host1", {"replay", path("first"), "--interface", "eth0"});
        EXPECT_EQ(replay.wait(120s), 0) << replay.output();
        EXPECT_TRUE(comesTrue([&] { return events("second events").size() >= happened.size(); }, 30s));
        EXPECT_THAT(end(recorder), HasSubstr("dropped: none"));
        display.stop();
    }
    std::vector<std::string> again = events("second events");
    again.resize(happened.size()); // North leaves when the replay ends
    EXPECT_EQ(again, happened);
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
    lab::Lan lan({lab::radarHost(1), lab::display(1)});
    const lab::Process host = startHost(lan, "host1", "North", "20", "60");
    lab::Process recorder = record(lan, "file");
    const auto recorded = [&] { return std::filesystem::file_size(path("file")); };
    ASSERT_TRUE(comesTrue([&] { return recorded() > 50000; }, 60s));
    recorder.signal(SIGSTOP);
    std::this_thread::sleep_for(10s); // as long as Ctrl-Z takes it
    recorder.signal(SIGCONT);
    const auto before = recorded();
    ASSERT_TRUE(comesTrue([&] { return recorded() > before + 2500000; }, 60s))
        << "more than the system had kept";
    EXPECT_THAT(end(recorder), testing::Not(HasSubstr("dropped: none")));

    std::uint64_t missing = 0;
    std::uint32_t last = 0;
    Reader reader(path("file"));
    while (const auto datagram = reader.next()) {
        std::uint32_t sequence = 0;
        if (!datagram->payload.starts_with("SIMI"))
            continue;
        std::memcpy(&sequence, datagram->payload.data() + 4, sizeof sequence);
        sequence = net::NtoHl(sequence);
        missing += last == 0 ? 0 : sequence - last - 1;
        last = sequence;
    }
    EXPECT_GT(missing, 0U);
    const auto found = info("file")["interfaces"];
    ASSERT_EQ(found.size(), 1U);
    EXPECT_GE(found[0]["dropped"].get<std::uint64_t>(), missing); // announcements are not numbered
    EXPECT_LE(found[0]["dropped"].get<std::uint64_t>(), missing + 30);
}

TEST_F(Recording, GoesOnWhenTheInterfaceIsReplaced) {
    lab::Lan lan({lab::radarHost(1), lab::display(1)});
    const lab::Process host = startHost(lan, "host1", "North", "20");
    lab::Process recorder = record(lan, "file");
    EXPECT_TRUE(grows("file", 300000));
    lan.unplug(lan.node("display"));
    lan.plugIn(lan.node("display"));
    EXPECT_TRUE(grows("file", 300000));
    EXPECT_THAT(end(recorder), HasSubstr("recorded"));
    EXPECT_EQ(info("file")["broken"], nullptr);
}

TEST_F(Recording, OnAFullDiskEndsWithItsLastWholeBlock) {
    lab::Lan lan({lab::radarHost(1), lab::display(1)});
    const lab::Process host = startHost(lan, "host1", "North", "20");
    const std::string directory = path("small");
    std::filesystem::create_directory(directory);
    const std::string file = directory + "/file";
    lab::Process process = lan.node("display").start(
        {.command = {"unshare", "--mount", "sh", "-c",
                     "mount -t tmpfs -o size=300k none " + directory +
                         " && " RADARCTL " record --interface eth0 -o " + file +
                         "; echo ended with $?; " RADARCTL " info --json " + file + " >" + path("info") +
                         "; echo read with $?; capinfos " + file}});
    EXPECT_EQ(process.wait(120s), 0);
    EXPECT_THAT(process.output(),
                AllOf(HasSubstr("file: No space left on device; the recording ends with the last"),
                      HasSubstr("\nended with 3\n"), HasSubstr("\nread with 0\n"),
                      HasSubstr("Number of packets")));
    std::ifstream json(path("info"));
    EXPECT_GT(nlohmann::json::parse(json)["total"]["bytes"], 100000);
}

TEST_F(Recording, IsReplayedUnderAnotherIdAndNotBesideTheRadarItself) {
    lab::Lan lan({lab::radarHost(1), lab::radarHost(2), lab::display(1)});
    {
        const lab::Process host = startHost(lan, "host1", "North", "20");
        lab::Process recorder = record(lan, "file");
        ASSERT_TRUE(comesTrue([&] { return std::filesystem::file_size(path("file")) > 1000000; }, 60s));
        end(recorder);
    }
    const auto refused = [&](const char* name, std::uint8_t id, const std::vector<std::string>& more) {
        const auto other = [&] {
            const lab::Inside inside = lan.node("host2").enter();
            return std::make_unique<HostServer>(name, id, 1);
        }();
        std::vector<std::string> arguments = {"replay", path("file"), "--interface", "eth0"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        lab::Process replay = start(lan, "host1", arguments);
        EXPECT_EQ(replay.wait(60s), 1);
        return replay.output();
    };
    EXPECT_EQ(refused("North", 21, {}), "radarctl: the name North is held by a radar at 10.20.1.2\n");
    EXPECT_EQ(refused("South", 20, {}), "radarctl: host id 20 is held by a radar at 10.20.1.2, South\n");
    EXPECT_EQ(refused("South", 40, {"--as-id", "40"}),
              "radarctl: host id 40 is held by a radar at 10.20.1.2, South\n");

    lab::Process replay =
        start(lan, "host1", {"replay", path("file"), "--interface", "eth0", "--as-id", "1", "--repeat"});
    EXPECT_TRUE(replay.lineWith("North holds host id 1", 30s));
    lab::Process listener = start(lan, "display", {"listen", "North", "0", "--seconds", "2"});
    EXPECT_EQ(listener.wait(60s), 0) << listener.output();
    EXPECT_THAT(listener.output(), HasSubstr("236.6.7.8:6878"));
    lab::Process renumber = start(lan, "display", {"renumber", "North"});
    EXPECT_EQ(renumber.wait(60s), 0) << renumber.output();
    EXPECT_THAT(renumber.output(), HasSubstr("North now has host id "));
    EXPECT_THAT(end(replay), HasSubstr("datagrams sent"));
}

/// A radar whose image is to be had on a TCP connection.
class TcpRadar final : public net::iUdpDataListener {
public:
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int length) override {
        if (std::string_view(data, static_cast<std::size_t>(length)) != wire::text(wire::kQuery))
            return;
        std::string announcement = protocol::composeAnnouncement("North", 20, 2);
        const NetAddress server = endpoint("10.20.1.1", 5000);
        announcement[wire::kExtended.offset] = 1;
        announcement[wire::kTcpOffered.offset] = 1;
        announcement[wire::kTcpKinds.offset] = 1; // a server, as the radar sees it
        announcement.replace(wire::kTcpEndpoints[0].offset, sizeof server,
                             reinterpret_cast<const char*>(&server), sizeof server);
        m_sender.sendData(announcement.data(), static_cast<int>(announcement.size()));
    }

private:
    net::UdpSender m_sender{wire::kDiscovery.address, wire::kDiscovery.port, 0, 0};
    net::UdpReceiver m_receiver{this, 0, wire::kDiscovery.address, wire::kDiscovery.port, 1024};
};

TEST_F(Recording, KeepsTheBytesOfATcpService) {
    m_profile.write("[Local]\nIP = 10.20.2.1\n[Radar]\nTCPService = true\n");
    lab::Lan lan({lab::radarHost(1), lab::display(1)});
    const auto radar = [&] {
        const lab::Inside inside = lan.node("host1").enter();
        return std::make_unique<TcpRadar>();
    }();
    lab::Process server = lan.node("host1").start(
        {.command = {"socat", "TCP-LISTEN:5000,reuseaddr,fork", "SYSTEM:echo an image; sleep 60"}});
    lab::Process recorder = record(lan, "file");
    EXPECT_TRUE(
        comesTrue([&] { return shell("cat " + path("file")).find("an image") != std::string::npos; }, 60s));
    end(recorder);
    const auto tcp = info("file")["tcp"];
    ASSERT_EQ(tcp.size(), 1U);
    EXPECT_EQ(tcp[0]["peer"]["address"], "10.20.1.1");
    EXPECT_EQ(tcp[0]["bytes"], 9);
}

TEST_F(Recording, BundleOfDoctorHoldsWhatItListsAndGivesNothingAway) {
    lab::Lan lan({lab::radarHost(1), lab::display(1)});
    const lab::Process host = startHost(lan, "host1", "Secret", "20");
    const std::string file = path("bundle.tar.gz");
    for (const std::string option : {"", " --redact"}) {
        lab::Process doctor = lan.node("display").start(
            {.command = {
                 "sh", "-c",
                 RADARCTL " doctor --seconds 3 --bundle " + file + option + " 2>" + path("list") + "; cd " +
                     m_profile.path().string() + " && rm -rf out && mkdir out && tar -xzf " + file +
                     " -C out && grep -q discovery.pcapng list && ls out && head -3 out/CONTENTS.txt && "
                     "tar -tzf " +
                     file +
                     " | head -1 && tshark -r out/discovery.pcapng "
                     "-X lua_script:" DISSECTOR " -T fields -e _ws.col.Info -e ip.src && "
                     "if grep -aqr -e Secret -e '10[.]20[.]' out; then echo recognised; fi"}});
        EXPECT_EQ(doctor.wait(60s), 0) << doctor.output();
        const bool redacted = !option.empty();
        EXPECT_THAT(doctor.output(), AllOf(HasSubstr("\nCONTENTS.txt\n"), HasSubstr("\nfindings.json\n"),
                                           HasSubstr(redacted ? "Announcement: radar-1, host id 20"
                                                              : "Announcement: Secret, host id 20")));
        EXPECT_EQ(doctor.output().find("recognised") == std::string::npos, redacted);
        EXPECT_FALSE(std::filesystem::exists(file + ".part"));
    }
}

} // namespace
