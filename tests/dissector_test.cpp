// The Wireshark dissector: its fields must be what the library reads.

#include "capture.h"
#include "profile_directory.h"

#include <UdpSocket/protocol/address_plan.h>
#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/wire.h>

#include <gmock/gmock.h>

namespace {

using testing::HasSubstr;

const std::string kPrefix = "udpsocket.announcement.";
const std::pair<plan::EndpointField, const char*> kEndpointNames[] = {
    {&RadarAddress::imageStream, "image"},      {&RadarAddress::imageCtrl, "image_control"},
    {&RadarAddress::imageState, "image_state"}, {&RadarAddress::arpaStream, "arpa"},
    {&RadarAddress::arpaCtrl, "arpa_control"},  {&RadarAddress::arpaState, "arpa_state"},
    {&RadarAddress::imageOriginal, "original"},
};

std::string endpointName(plan::EndpointField field) {
    return std::find_if(std::begin(kEndpointNames), std::end(kEndpointNames),
                        [=](const auto& entry) { return entry.first == field; })
        ->second;
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
    std::uint32_t radarIp;
    std::memcpy(&radarIp, datagram.data() + wire::kRadarIp.offset, sizeof radarIp);
    frame[kPrefix + "radar_ip"] = net::transAddr(radarIp);
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
    if (datagram == wire::kBeaconMarker) {
        frame["udpsocket.beacon.marker"] = datagram;
        return frame;
    }
    char code[8];
    std::snprintf(code, sizeof code, "0x%02x%02x", static_cast<std::uint8_t>(datagram[1]),
                  static_cast<std::uint8_t>(datagram[0]));
    frame["udpsocket.code"] = code;
    if (wire::hasCode(datagram, wire::kAnnouncement)) {
        putAnnouncement(frame, datagram);
    } else if (datagram.size() == sizeof(wire::Negotiation)) {
        wire::Negotiation message;
        std::memcpy(&message, datagram.data(), sizeof message);
        frame["udpsocket.negotiation.host_id"] = std::to_string(message.hostId);
        frame["udpsocket.negotiation.one"] = std::to_string(message.one);
    }
    return frame;
}

std::string unhex(const std::string& hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
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

const std::vector<std::string> kWarningFields = [] {
    std::vector<std::string> fields{"code",  "length",    "host_id", "unplanned", "own",      "mixed_ids",
                                    "name",  "full_name", "gap",     "kind",      "one",      "objection",
                                    "reset", "marker",    "unasked", "twice",     "same_name"};
    for (std::string& field : fields)
        field.insert(0, "udpsocket.expert.");
    return fields;
}();

/// The warnings of this dissector, in order, joined by '|'. Those of the protocols below, such as "Possible
/// traceroute" for some source ports, precede them in the list of all warnings.
std::string ownWarnings(const Frame& frame) {
    std::ptrdiff_t count = 0;
    for (const std::string& field : kWarningFields)
        count += std::ranges::count(frame.at(field), '1'); // one for each occurrence
    const std::string& all = frame.at("_ws.expert.message");
    std::size_t start = all.size();
    for (; count > 0 && start != std::string::npos; --count)
        start = start == 0 ? std::string::npos : all.rfind('|', start - 1);
    return start == std::string::npos ? all : all.substr(std::min(start + 1, all.size()));
}

constexpr const char* kDisplay = "10.20.2.1";
constexpr const char* kHost1 = "10.20.1.1";
constexpr const char* kHost2 = "10.20.1.2";

class Dissector : public testing::Test {
protected:
    std::vector<Frame> read() {
        std::vector<std::string> fields = messageFields();
        fields.insert(fields.end(), {"frame.number", "udp.payload", "_ws.col.Info", "_ws.expert.message",
                                     "udpsocket.query_in", "udpsocket.answer_in", "udpsocket.response_time",
                                     "udpsocket.claim_in", "udpsocket.objection_in"});
        fields.insert(fields.end(), kWarningFields.begin(), kWarningFields.end());
        return m_capture.read(fields);
    }
    void query() { m_capture.datagram(kDisplay, wire::kDiscovery, std::string(wire::text(wire::kQuery))); }
    void negotiate(const char* from, const wire::Code& code, std::uint8_t id) {
        m_capture.datagram(from, wire::kNegotiation, std::string(wire::text(wire::Negotiation{code, id})));
    }
    void announce(const char* from, const std::string& name, std::uint8_t id, unsigned streams) {
        m_capture.datagram(from, wire::kDiscovery, protocol::composeAnnouncement(name, id, streams));
    }

    const ProfileDirectory m_directory;
    Capture m_capture{m_directory.path()};
};

void expectSameFields(const std::vector<Frame>& frames) {
    const std::vector<std::string> names = messageFields();
    for (const Frame& frame : frames) {
        Frame wanted = expected(unhex(frame.at("udp.payload")));
        for (const std::string& name : names)
            EXPECT_EQ(frame.at(name), wanted[name]) << name << " of frame " << frame.at("frame.number");
    }
}

TEST_F(Dissector, DecodesEveryMessageAsTheLibraryDoes) {
    negotiate(kHost2, wire::kProbe, 1);
    negotiate(kHost1, wire::kObjection, 1);
    negotiate(kHost2, wire::kProbe, 40);
    negotiate(kHost2, wire::kConfirm, 40);
    query();
    announce(kHost1, "North", 1, 1);
    announce(kHost2, "South mast", 40, 2);
    m_capture.pause(std::chrono::milliseconds(1100)); // an objection within a second would answer the claim
    negotiate(kDisplay, wire::kObjection, 40);
    m_capture.datagram(kDisplay, wire::kNegotiation, std::string(wire::text(wire::kReset)));
    m_capture.datagram(kHost1, wire::kBeacon, std::string(wire::kBeaconMarker));
    m_capture.datagram(kHost2, wire::kDiscovery, fullAnnouncement());
    m_capture.datagram(kHost1, {"236.6.7.9", 6878}, std::string(wire::text(wire::kQuery)));

    std::vector<Frame> frames = read();
    ASSERT_EQ(frames.size(), 12U);
    EXPECT_EQ(frames.back()["udpsocket.code"], "") << "other groups have these ports, too";
    frames.pop_back();
    expectSameFields(frames);
    const char* const texts[] = {
        "Probe of host id 1",
        "Objection to host id 1",
        "Probe of host id 40",
        "Confirm of host id 40",
        "Query",
        "Announcement: North, host id 1, 1 stream",
        "Announcement: South mast, host id 40, 2 streams",
        "Objection to host id 40",
        "Reset",
        "Presence beacon",
    };
    for (std::size_t i = 0; i < std::size(texts); ++i)
        EXPECT_EQ(frames[i]["_ws.col.Info"], texts[i]);
    EXPECT_EQ(frames[0]["udpsocket.objection_in"], "2");
    EXPECT_EQ(frames[1]["udpsocket.claim_in"], "1");
    EXPECT_EQ(frames[4]["udpsocket.answer_in"], "6|7|11");
    for (const std::size_t answer : {5U, 6U}) {
        EXPECT_EQ(frames[answer]["udpsocket.query_in"], "5");
        EXPECT_NEAR(std::stod(frames[answer]["udpsocket.response_time"]),
                    (static_cast<double>(answer) - 4) / 1000, 1e-6);
        EXPECT_EQ(ownWarnings(frames[answer]), "");
    }
    EXPECT_EQ(ownWarnings(frames[7]), "The host that holds id 40 is to take another");
}

/// An announcement as a host composes it, with changed bytes.
std::string announcement(const std::string& name, std::uint8_t id, const wire::Layout& layout,
                         const std::map<std::size_t, std::string>& changes = {}) {
    std::string datagram =
        protocol::composeAnnouncement(name, id, layout.length == wire::kShortAnnouncement.length ? 1 : 2);
    for (const auto& [position, bytes] : changes)
        datagram.replace(position, bytes.size(), bytes);
    return datagram;
}

TEST_F(Dissector, WarnsOfWhatTheProtocolForbids) {
    const wire::Layout& oneStream = wire::kShortAnnouncement;
    const wire::Layout& twoStreams = wire::kLongAnnouncement;
    const std::string yes = "\x01";
    const std::string no(1, '\0');
    struct Case {
        wire::Group group;
        std::string datagram;
        std::string warnings; // in order, joined by '|'
    };
    const std::string unasked = "Announcement without a query";
    const Case cases[] = {
        {wire::kDiscovery, "\x01", "Too short for a code"},
        {wire::kDiscovery, "\x07\xB1", "Unknown code"},
        {wire::kDiscovery, "\x01\xA1", "Unknown code"}, // of the other group
        {wire::kDiscovery, "\x01\xB1" + no, "3 bytes, not 2: nobody acts on it"},
        {wire::kDiscovery, "\x01\xB2" + std::string(147, 'x'),
         "149 bytes, not 150 or 222: nobody acts on it"},
        {wire::kDiscovery, "\x02\xC1", ""},
        {wire::kDiscovery, announcement("R", 16, oneStream), unasked},
        {wire::kDiscovery, announcement("R", 1, twoStreams), unasked},
        {wire::kDiscovery, announcement("", 17, oneStream), "The name is empty|" + unasked},
        {wire::kDiscovery, announcement("sixteen letters.", 18, oneStream),
         "Name fills its field: perhaps cut|" + unasked},
        {wire::kDiscovery, announcement("R", 16, oneStream, {{89, "\x01"}}),
         "Image endpoint of the host's own|" + unasked},
        {wire::kDiscovery, announcement("R", 16, twoStreams, {{89, "\x01"}}),
         "Endpoint that is in the plan of no host id|" + unasked},
        {wire::kDiscovery, announcement("R", 16, twoStreams, {{160, std::string(6, '\0')}}),
         "Endpoint that is in the plan of no host id|No host id: 1, or 16 to 63|" + unasked},
        {wire::kDiscovery,
         announcement("R", 16, oneStream, {{134, announcement("R", 17, oneStream).substr(134, 6)}}),
         "Endpoints of different host ids: displays take it for 16, but Stream 0 ARPA control is that of "
         "17|" +
             unasked},
        {wire::kDiscovery, announcement("R", 16, oneStream, {{149, "\x01\x02"}}).substr(0, 150),
         "Endpoint that is in the plan of no host id|" + unasked},
        {wire::kDiscovery, announcement("R", 16, oneStream, {{94, yes}, {23, yes}}),
         "Byte 23 is always zero, and is not|Byte 94 is always zero, and is not|" + unasked},
        {wire::kDiscovery, announcement("R", 16, twoStreams, {{30, yes}}),
         "Byte 30 is always zero, and is not|" + unasked}, // not extended
        {wire::kDiscovery, announcement("R", 16, twoStreams, {{22, yes}, {30, yes}, {70, "\x03"}}),
         "Unknown kind of socket|" + unasked},
        {wire::kNegotiation, "\x01\xA1\x14\x01", ""},
        {wire::kNegotiation, "\x02\xA1\x0F\x01", "No host id: 1, or 16 to 63"},
        {wire::kNegotiation, "\x01\xA1\x14\x02", "The fourth byte is always 1"},
        {wire::kNegotiation, "\x03\xA1\x3F\x01", "The host that holds id 63 is to take another"},
        {wire::kNegotiation, "\x03\xA1\x14", "3 bytes, not 4: nobody acts on it"},
        {wire::kNegotiation, "\x01\xB1", "Unknown code"},
        {wire::kNegotiation, "\x20\xA1", "Radars are told to reset"},
        {wire::kBeacon, std::string(wire::kBeaconMarker), ""},
        {wire::kBeacon, "aabbccde", "Not the beacon marker"},
        {wire::kBeacon, std::string(150, 'x'),
         "Not the beacon marker, but displays take this length for one"},
    };
    constexpr unsigned short kTraceroutePort = 33435; // of which UDP's own dissector warns
    for (const Case& each : cases)
        m_capture.datagram(kHost1, each.group, each.datagram, kTraceroutePort);
    std::map<std::string, std::string> warnings; // by datagram
    for (const Frame& frame : read())
        warnings[unhex(frame.at("udp.payload"))] = ownWarnings(frame);
    for (const Case& each : cases)
        EXPECT_EQ(warnings[each.datagram], each.warnings) << testing::PrintToString(each.datagram);
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
        all += frame.at("_ws.col.Info") + ": " + ownWarnings(frame) + "\n";
    EXPECT_THAT(all, testing::ContainsRegex("Host id 40 is also that of .+ at 10.20.1.1 \\(frame 2\\)"));
    EXPECT_THAT(all, HasSubstr("Host id 40 at 10.20.1.1 has this name, too"));
    EXPECT_THAT(all, HasSubstr("Announcement: A\\x1B[2J, host id 40"));
    EXPECT_EQ(all.find('\x1b'), std::string::npos) << "names cannot draw on the terminal";
    EXPECT_THAT(all, HasSubstr("Objection to host id 30: \n"))
        << "an answer to the probe, not an order to renumber";
}

TEST_F(Dissector, FindsMessagesInATcpStream) {
    const auto fromRadar = [this](const std::string& bytes) {
        m_capture.segment(kHost1, wire::kDiscovery.port, kDisplay, 50000, bytes);
    };
    const auto fromDisplay = [this](const wire::Code& code) {
        m_capture.segment(kDisplay, 50000, kHost1, wire::kDiscovery.port, std::string(wire::text(code)));
    };
    const std::string datagram =
        announcement("ZQ-7", 20, wire::kLongAnnouncement,
                     {{wire::kExtended.offset, "\x01"}, {wire::kTcpOffered.offset, "\x01"}});
    fromDisplay(wire::kQuery);
    fromRadar(datagram.substr(0, 100));
    fromRadar(datagram.substr(100));
    fromDisplay(wire::kTcpWanted);
    fromRadar(std::string(wire::text(wire::kTcpReply)) + std::string(wire::kTcpReplyLength - 2, 'x') +
              announcement("R", 21, wire::kLongAnnouncement));

    std::map<std::string, Frame> frames; // by text
    for (const Frame& frame : read())
        frames[frame.at("_ws.col.Info")] = frame;
    Frame frame = frames["Announcement: ZQ-7, host id 20, 2 streams"];
    for (const auto& [name, value] : expected(datagram))
        EXPECT_EQ(frame[name], value) << name;
    EXPECT_TRUE(frames.contains("TCP service wanted"));
    EXPECT_EQ(ownWarnings(frames["TCP reply; Announcement: R, host id 21, 2 streams"]),
              "Over TCP, displays drop a name that does not begin with ZQ");
}

} // namespace
