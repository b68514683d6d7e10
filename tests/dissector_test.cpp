// The Wireshark dissector: its fields must be what the library reads.

#include "profile_directory.h"
#include "records.h"

#include <RadarWatch/recording/pcapng.h>
#include <tools/endpoints.h>

#include <UdpSocket/protocol/address_plan.h>
#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/wire.h>

#include <lab/process.h>

#include <iomanip>

namespace {

/// One frame: the value of each requested field, several of one field joined by '|'.
using Frame = std::map<std::string, std::string>;

const std::string kPrefix = "udpsocket.announcement.";
constexpr const char* kWarnings = "_ws.expert.message"; // in order, joined by '|'

std::string endpointName(plan::EndpointField field) {
    std::string name = std::ranges::find(kEndpointNames, field, &EndpointName::endpoint)->name;
    std::ranges::replace(name, '-', '_');
    return name;
}

void put(Frame& frame, const std::string& name, const NetAddress& endpoint) {
    frame[kPrefix + name + ".ip"] = net::transAddr(endpoint.ip);
    frame[kPrefix + name + ".port"] = std::to_string(net::NtoHs(endpoint.port));
}

void putExtension(Frame& frame, std::string_view datagram) {
    const auto number = [&](const char* name, const wire::Field& field, std::size_t index = 0) {
        frame[kPrefix + name] = std::to_string(wire::byteAt(datagram, field, index));
    };
    number("radar_number", wire::kRadarNumber);
    number("tcp_offered", wire::kTcpOffered);
    number("user_valid", wire::kUserValid);
    for (std::size_t i = 0; i < std::size(wire::kTcpEndpoints); ++i) {
        const std::string name = "tcp." + endpointName(wire::kTcpEndpoints[i].field);
        put(frame, name, wire::endpointAt(datagram, wire::kTcpEndpoints[i]));
        number((name + ".kind").c_str(), wire::kTcpKinds, i);
    }
    for (const wire::EndpointPlace& place : wire::kUserEndpoints)
        put(frame, "user." + endpointName(place.field), wire::endpointAt(datagram, place));
}

/// The fields of an announcement, read with the library's own tables.
void putAnnouncement(Frame& frame, std::string_view datagram) {
    const bool isLong = datagram.size() == wire::kLongAnnouncement.length;
    const std::string_view name = datagram.substr(wire::kName.offset, wire::kName.width);
    frame[kPrefix + "name"] = name.substr(0, name.find('\0'));
    frame[kPrefix + "radar_ip"] = net::transAddr(wire::addressAt(datagram, wire::kRadarIp));
    frame[kPrefix + "streams"] = isLong ? "2" : "1";
    std::uint8_t id = 0;
    for (const wire::EndpointPlace& place :
         (isLong ? wire::kLongAnnouncement : wire::kShortAnnouncement).endpoints) {
        const NetAddress endpoint = wire::endpointAt(datagram, place);
        put(frame, "stream" + std::to_string(place.stream) + "." + endpointName(place.field), endpoint);
        if (place.field == &RadarAddress::arpaStream && place.stream == 0)
            id = plan::hostNumber(net::NtoHs(endpoint.port)).id;
    }
    frame[kPrefix + "host_id"] = std::to_string(id);
    put(frame, "info_devices", plan::getInfoDevBaseEp(id));
    put(frame, "stream0.original", plan::getOriginalImageEp(id, 0));
    if (!isLong)
        return;
    put(frame, "stream1.original", plan::getOriginalImageEp(id, 1));
    frame[kPrefix + "extended"] = std::to_string(wire::byteAt(datagram, wire::kExtended));
    if (wire::byteAt(datagram, wire::kExtended) == 1)
        putExtension(frame, datagram);
}

/// The fields of a well-formed datagram, as the library reads it.
Frame expected(std::string_view datagram) {
    Frame frame;
    if (datagram == wire::kBeaconMarker)
        return {{"udpsocket.beacon.marker", std::string(datagram)}};
    char code[8];
    std::snprintf(code, sizeof code, "0x%02x%02x", static_cast<std::uint8_t>(datagram[1]),
                  static_cast<std::uint8_t>(datagram[0]));
    frame["udpsocket.code"] = code;
    if (wire::hasCode(datagram, wire::kAnnouncement)) {
        putAnnouncement(frame, datagram);
    } else if (datagram.size() == sizeof(wire::Negotiation)) {
        frame["udpsocket.negotiation.host_id"] = std::to_string(static_cast<std::uint8_t>(datagram[2]));
        frame["udpsocket.negotiation.one"] = std::to_string(static_cast<std::uint8_t>(datagram[3]));
    }
    return frame;
}

/// An announcement with an extension, whose bytes differ from each other.
std::string fullAnnouncement() {
    std::string datagram(wire::kLongAnnouncement.length, '\0');
    for (std::size_t i = 0; i < datagram.size(); ++i)
        datagram[i] = static_cast<char>(i);
    datagram.replace(0, 9, std::string(wire::text(wire::kAnnouncement)) + "Mast 7" + '\0');
    datagram[wire::kExtended.offset] = 1;
    return datagram;
}

/// Every field that stands for bytes of a message, or is computed from them.
std::vector<std::string> messageFields() {
    Frame all;
    for (const std::string& datagram :
         {fullAnnouncement(), std::string("\x01\xA1\x14\x01"), std::string(wire::kBeaconMarker)})
        all.merge(expected(datagram));
    std::vector<std::string> names;
    for (const auto& [name, value] : all)
        names.push_back(name);
    return names;
}

/// An announcement as a host composes it, with changed bytes.
std::string announcement(const std::string& name, std::uint8_t id, unsigned streams,
                         const std::map<std::size_t, std::string>& changes = {}) {
    std::string datagram = protocol::composeAnnouncement(name, id, streams);
    for (const auto& [position, bytes] : changes)
        datagram.replace(position, bytes.size(), bytes);
    return datagram;
}

constexpr const char* kDisplay = "10.20.2.1";
constexpr const char* kHost1 = "10.20.1.1";
constexpr const char* kHost2 = "10.20.1.2";

class Dissector : public testing::Test {
protected:
    std::string path(const char* file) const { return m_directory.path() / file; }
    /// Dissects a file twice, as Wireshark does.
    std::vector<Frame> read(const char* file) const {
        std::vector<std::string> fields = messageFields();
        fields.insert(fields.end(),
                      {"_ws.col.Info", kWarnings, "udpsocket.query_in", "udpsocket.answer_in",
                       "udpsocket.response_time", "udpsocket.claim_in", "udpsocket.objection_in"});
        std::vector<std::string> command = {
            "tshark", "-2",     "-n", "-r",           path(file), "-X",          "lua_script:" DISSECTOR,
            "-T",     "fields", "-E", "occurrence=a", "-E",       "aggregator=|"};
        for (const std::string& field : fields)
            command.insert(command.end(), {"-e", field});
        lab::Process tshark({.command = command, .errorFile = path("errors")});
        EXPECT_EQ(tshark.wait(60s), 0);
        const std::string errors = m_directory.read("errors");
        EXPECT_EQ(errors.find("Lua"), std::string::npos) << errors;

        std::vector<Frame> frames;
        std::istringstream lines(tshark.output());
        for (std::string line; std::getline(lines, line);) {
            std::istringstream values(line);
            Frame& frame = frames.emplace_back();
            for (const std::string& field : fields)
                std::getline(values, frame[field], '\t');
        }
        return frames;
    }
    /// Dissects the datagrams so far.
    std::vector<Frame> read() const {
        m_directory.write(m_recording, "recording");
        return read("recording");
    }
    void datagram(const char* from, const wire::Group& group, std::string_view bytes) {
        m_time += 1ms;
        radar::recording::appendDatagramBlock(
            m_recording, 0, {m_time, endpoint(from, 40000), endpoint(group.address, group.port), bytes}, "");
        m_datagrams.emplace_back(bytes);
    }
    void query() { datagram(kDisplay, wire::kDiscovery, wire::text(wire::kQuery)); }
    void negotiate(const char* from, const wire::Code& code, std::uint8_t id) {
        datagram(from, wire::kNegotiation, wire::text(wire::Negotiation{code, id}));
    }
    void announce(const char* from, const std::string& name, std::uint8_t id, unsigned streams) {
        datagram(from, wire::kDiscovery, announcement(name, id, streams));
    }

    const ProfileDirectory m_directory;
    std::vector<std::string> m_datagrams;
    std::string m_recording =
        radar::recording::sectionBlock("a test") + radar::recording::interfaceBlock("eth0");
    radar::recording::Time m_time = 1700000000s;
};

TEST_F(Dissector, DecodesEveryMessageAsTheLibraryDoes) {
    negotiate(kHost2, wire::kProbe, 1);
    negotiate(kHost1, wire::kObjection, 1);
    negotiate(kHost2, wire::kProbe, 40);
    negotiate(kHost2, wire::kConfirm, 40);
    query();
    announce(kHost1, "North", 1, 1);
    announce(kHost2, "South mast", 40, 2);
    m_time += 1100ms; // an objection within a second would answer the claim
    negotiate(kDisplay, wire::kObjection, 40);
    datagram(kDisplay, wire::kNegotiation, wire::text(wire::kReset));
    datagram(kHost1, wire::kBeacon, wire::kBeaconMarker);
    datagram(kHost2, wire::kDiscovery, fullAnnouncement());
    datagram(kHost1, {"236.6.7.9", 6878}, wire::text(wire::kQuery));

    std::vector<Frame> frames = read();
    ASSERT_EQ(frames.size(), 12U);
    EXPECT_EQ(frames.back()["udpsocket.code"], "") << "other groups have these ports, too";
    frames.pop_back();
    std::string texts;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        Frame wanted = expected(m_datagrams[i]);
        for (const std::string& name : messageFields())
            EXPECT_EQ(frames[i].at(name), wanted[name]) << name << " of frame " << i + 1;
        texts += frames[i].at("_ws.col.Info") + "\n";
    }
    EXPECT_THAT(texts, testing::StartsWith("Probe of host id 1\nObjection to host id 1\nProbe of host id 40\n"
                                           "Confirm of host id 40\nQuery\n"
                                           "Announcement: North, host id 1, 1 stream\n"
                                           "Announcement: South mast, host id 40, 2 streams\n"
                                           "Objection to host id 40\nReset\nPresence beacon\n"));
    EXPECT_EQ(frames[0]["udpsocket.objection_in"], "2");
    EXPECT_EQ(frames[1]["udpsocket.claim_in"], "1");
    EXPECT_EQ(frames[4]["udpsocket.answer_in"], "6|7|11");
    for (const std::size_t answer : {5U, 6U}) {
        EXPECT_EQ(frames[answer]["udpsocket.query_in"], "5");
        EXPECT_NEAR(std::stod(frames[answer]["udpsocket.response_time"]),
                    (static_cast<double>(answer) - 4) / 1000, 1e-6);
        EXPECT_EQ(frames[answer][kWarnings], "");
    }
    EXPECT_EQ(frames[7][kWarnings], "The host that holds id 40 is to take another");
}

TEST_F(Dissector, WarnsOfWhatTheProtocolForbids) {
    const std::string yes = "\x01";
    const std::string no(1, '\0');
    struct Case {
        wire::Group group;
        std::string datagram;
        std::string warnings;
    };
    std::vector<Case> cases = {
        {wire::kDiscovery, yes, "Too short for a code"},
        {wire::kDiscovery, "\x07\xB1", "Unknown code"},
        {wire::kDiscovery, "\x01\xA1", "Unknown code"}, // of the other group
        {wire::kDiscovery, "\x01\xB1" + no, "3 bytes, not 2: nobody acts on it"},
        {wire::kDiscovery, "\x01\xB2" + std::string(147, 'x'),
         "149 bytes, not 150 or 222: nobody acts on it"},
        {wire::kNegotiation, "\x02\xA1\x0F\x01", "No host id: 1, or 16 to 63"},
        {wire::kNegotiation, "\x01\xA1\x14\x02", "The fourth byte is always 1"},
        {wire::kNegotiation, "\x03\xA1\x14", "3 bytes, not 4: nobody acts on it"},
        {wire::kNegotiation, "\x20\xA1", "Radars are told to reset"},
        {wire::kBeacon, "aabbccde", "Not the beacon marker"},
        {wire::kBeacon, std::string(150, 'x'),
         "Not the beacon marker, but displays take this length for one"},
    };
    const std::string unplanned = "Endpoint that is in the plan of no host id|";
    const std::pair<std::string, std::string> announcements[] = {
        {announcement("R", 1, 2), ""},
        {announcement("", 17, 1), "The name is empty|"},
        {announcement("sixteen letters.", 18, 1), "Name fills its field: perhaps cut|"},
        {announcement("R", 16, 1, {{89, yes}}), "Image endpoint of the host's own|"},
        {announcement("R", 16, 2, {{89, yes}}), unplanned},
        {announcement("R", 16, 2, {{160, std::string(6, '\0')}}), unplanned + "No host id: 1, or 16 to 63|"},
        {announcement("R", 16, 1, {{134, announcement("R", 17, 1).substr(134, 6)}}),
         "Endpoints of different host ids: displays take it for 16, but Stream 0 ARPA control is that of "
         "17|"},
        {announcement("R", 16, 1, {{149, yes}}), unplanned},
        {announcement("R", 16, 1, {{94, yes}, {23, yes}}),
         "Byte 23 is always zero, and is not|Byte 94 is always zero, and is not|"},
        {announcement("R", 16, 2, {{30, yes}}), "Byte 30 is always zero, and is not|"}, // not extended
        {announcement("R", 16, 2, {{22, yes}, {30, yes}, {70, "\x03"}}), "Unknown kind of socket|"},
    };
    for (const auto& [datagram, before] : announcements)
        cases.push_back({wire::kDiscovery, datagram, before + "Announcement without a query"});
    for (const Case& each : cases)
        datagram(kHost1, each.group, each.datagram);
    const std::vector<Frame> frames = read();
    ASSERT_EQ(frames.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i)
        EXPECT_EQ(frames[i].at(kWarnings), cases[i].warnings) << testing::PrintToString(cases[i].datagram);
}

TEST_F(Dissector, WarnsOfTwoRadarsWithOneIdOrName) {
    query();
    announce(kHost1, "A\x1b[2J", 40, 1);
    announce(kHost2, "B", 40, 2);
    announce(kHost2, "A\x1b[2J", 41, 2);
    // A probe, and the objection of a foreign host that defends its id.
    negotiate(kHost1, wire::kProbe, 30);
    negotiate(kHost2, wire::kObjection, 30);
    std::string all;
    for (const Frame& frame : read())
        all += frame.at("_ws.col.Info") + ": " + frame.at(kWarnings) + "\n";
    EXPECT_THAT(all, testing::ContainsRegex("Host id 40 is also that of .+ at 10.20.1.1 \\(frame 2\\)"));
    EXPECT_THAT(all, HasSubstr("Host id 40 at 10.20.1.1 has this name, too"));
    // One backslash of ours, which newer versions double.
    EXPECT_THAT(all, testing::ContainsRegex("Announcement: A(\\\\)+x1B.2J, host id 40"));
    EXPECT_EQ(all.find('\x1b'), std::string::npos) << "names cannot draw on the terminal";
    EXPECT_THAT(all, HasSubstr("Objection to host id 30: \n"))
        << "an answer to the probe, not an order to renumber";
}

TEST_F(Dissector, FindsMessagesInATcpStream) {
    const std::string datagram =
        announcement("ZQ-7", 20, 2, {{wire::kExtended.offset, "\x01"}, {wire::kTcpOffered.offset, "\x01"}});
    const std::string reply =
        std::string(wire::text(wire::kTcpReply)) + std::string(wire::kTcpReplyLength - 2, 'x');
    const std::pair<char, std::string> sent[] = {{'O', std::string(wire::text(wire::kQuery))},
                                                 {'I', datagram.substr(0, 100)},
                                                 {'I', datagram.substr(100)},
                                                 {'O', std::string(wire::text(wire::kTcpWanted))},
                                                 {'I', reply + announcement("R", 21, 2)}};
    std::ostringstream segments; // from the radar: I, to it: O
    segments << std::hex << std::setfill('0');
    for (const auto& [direction, bytes] : sent) {
        segments << direction << ' ';
        for (const char byte : bytes)
            segments << std::setw(2) << +static_cast<unsigned char>(byte);
        segments << '\n';
    }
    m_directory.write(segments.str(), "segments");
    const std::string ports = std::to_string(wire::kDiscovery.port) + ",50000";
    lab::Process capture({.command = {"text2pcap", "-q", "-r", "^(?<dir>[IO]) (?<data>[0-9a-f]+)$", "-4",
                                      kHost1 + (std::string(",") + kDisplay), "-T", ports, path("segments"),
                                      path("capture")}});
    ASSERT_EQ(capture.wait(60s), 0) << capture.output();

    std::map<std::string, Frame> frames; // by text
    for (const Frame& frame : read("capture"))
        frames[frame.at("_ws.col.Info")] = frame;
    Frame frame = frames["Announcement: ZQ-7, host id 20, 2 streams"];
    for (const auto& [name, value] : expected(datagram))
        EXPECT_EQ(frame[name], value) << name;
    EXPECT_TRUE(frames.contains("TCP service wanted"));
    EXPECT_THAT(frames["TCP reply; Announcement: R, host id 21, 2 streams"][kWarnings],
                HasSubstr("Over TCP, displays drop a name that does not begin with ZQ"));
}

} // namespace
