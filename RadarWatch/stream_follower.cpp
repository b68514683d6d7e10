#include <RadarWatch/stream_follower.h>

#include <netinet/in.h>

#include <algorithm>
#include <utility>

namespace radar::detail {

namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using Kind = StreamEvent::Kind;
using Why = StreamEvent::Why;

constexpr nanoseconds kShortestSilence = 2s;  // a revolution of a slow antenna's marker, or a second's ARPA
constexpr int kUsualGaps = 3;                 // that a silence lasts at least
constexpr nanoseconds kLongestUsualGap = 20s; // a longer one is a standby, of which nothing is learnt
constexpr nanoseconds kGapMemory = 5min;
constexpr nanoseconds kStandstill = 3s; // between two steps, of which there is one a second

// From when a silence is told.
constexpr nanoseconds kRejoins[] = {1s, 8s, 58s};
constexpr nanoseconds kLaterRejoins = 10min;
constexpr nanoseconds kRejoinEffect = 1500ms; // a report goes out at once; a slow switch

constexpr std::size_t kMostEvents = 3; // of a step and what follows it

constexpr RadarEndpoint RadarAddress::*kEndpoints[] = {
    &RadarAddress::imageStream,   &RadarAddress::imageCtrl, &RadarAddress::imageState,
    &RadarAddress::arpaStream,    &RadarAddress::arpaCtrl,  &RadarAddress::arpaState,
    &RadarAddress::imageOriginal,
};
static_assert(std::size(kEndpoints) == InformationDevice);

RadarEndpoint endpointOf(const RadarAddress& record, int channel) {
    if (channel >= Image && channel < InformationDevice)
        return record.*kEndpoints[channel];
    const auto device = static_cast<std::size_t>(channel - InformationDevice);
    if (channel < 0 || device >= InfoDeviceEndpoints::size())
        return {};
    return {record.infoDev[device].ip, record.infoDev[device].port, kUdp};
}

/// Null: the radar has no such stream, or not this variant.
const RadarAddress* recordOf(const Radar& radar, std::string_view name, int number) {
    const auto isVariant = [name](std::string_view suffix) {
        return name.size() > suffix.size() && name.substr(name.size() - suffix.size()) == suffix;
    };
    const auto index = static_cast<std::size_t>(number);
    if (isVariant(":TCP"))
        return radar.tcp && number == 0 ? &*radar.tcp : nullptr;
    if (number < 0 || index >= radar.streams.size() || (isVariant(":User") && !radar.user))
        return nullptr;
    return &radar.streams[index];
}

bool isSame(const RadarEndpoint& one, const RadarEndpoint& other) {
    return one.ip == other.ip && one.port == other.port && one.type == other.type;
}

/// Why a socket for @p from does not do for @p to; None: it does.
Why difference(const Target& from, const Target& to) {
    if (!isSame(from.endpoint, to.endpoint))
        return Why::Endpoint;
    if (from.interfaceIndex != to.interfaceIndex)
        return Why::Interface;
    if (from.localAddress != to.localAddress)
        return Why::LocalAddress;
    return from.interfaceChange != to.interfaceChange ? Why::Interface : Why::None;
}

} // namespace

bool Target::isGroup() const {
    return endpoint.type == kUdp && IN_MULTICAST(ntohl(endpoint.ip));
}

bool isSame(const Target& one, const Target& other) {
    return difference(one, other) == Why::None;
}

std::optional<Target> targetOf(const Situation& situation, std::string_view name, int channel, int number,
                               Why& lacking) {
    lacking = Why::RadarLeft;
    if (!situation.radar)
        return std::nullopt;
    lacking = Why::NoEndpoint;
    const RadarAddress* const record = recordOf(*situation.radar, name, number);
    const RadarEndpoint endpoint = record != nullptr ? endpointOf(*record, channel) : RadarEndpoint{};
    if (endpoint.ip == 0 || endpoint.port == 0)
        return std::nullopt;
    lacking = Why::LocalAddress;
    if (situation.interfaceIndex == 0)
        return std::nullopt;
    lacking = Why::None;
    return Target{endpoint, situation.localAddress, situation.device, situation.interfaceIndex,
                  situation.interfaceChange};
}

void StreamFollower::aim(std::optional<Target> target, Why lacking) {
    m_target = std::move(target);
    m_lacking = lacking;
    m_refused = 0;
}

StreamFollower::Act StreamFollower::step(Time now, const Arrivals& arrivals) {
    m_events.reserve(m_events.size() + kMostEvents);
    noteArrivals(now, arrivals);
    const bool stoodStill = now - std::exchange(m_lastStep, now) > kStandstill;
    if (stoodStill)
        m_standstill = now;
    if (arrivals.waiting || stoodStill)
        m_late = now;
    if (m_target && (!m_open || !isSame(*m_open, *m_target)))
        return Act::Open;
    if (!m_target) { // datagrams that are still taken say more than announcements that do not come
        if (now - std::max(m_since, m_standstill) < kShortestSilence)
            return Act::None;
        if (m_open)
            return Act::Close;
        closed(); // since it was refused, or lost
        return Act::None;
    }
    const nanoseconds silence = now - std::max(m_since, m_late);
    if (m_flow == Flow::Flowing && silence >= silenceThreshold()) {
        m_flow = Flow::Silent;
        tell(Kind::Silent, Why::None, *m_open);
    }
    if (m_flow != Flow::Silent || !m_open->isGroup())
        return Act::None;
    const std::size_t usual = std::min(m_rejoins, std::size(kRejoins) - 1);
    const nanoseconds due = kRejoins[usual] + static_cast<int>(m_rejoins - usual) * kLaterRejoins;
    if (silence < silenceThreshold() + due)
        return Act::None;
    ++m_rejoins;
    return Act::Rejoin;
}

void StreamFollower::noteArrivals(Time now, const Arrivals& arrivals) {
    if (arrivals.count == m_count)
        return;
    m_count = arrivals.count;
    const Time resumed = m_since + arrivals.longestGap; // after a silence
    const bool reminded =
        m_rejoinedAt && resumed >= *m_rejoinedAt && resumed - *m_rejoinedAt <= kRejoinEffect;
    if (m_flow == Flow::Silent && m_open)
        tell(Kind::Resumed, reminded ? Why::SwitchForgot : Why::None, *m_open);
    learnGap(now, arrivals.longestGap, reminded);
    m_since = std::max(m_since, arrivals.last);
    m_flow = Flow::Flowing;
    m_rejoins = 0;
    m_rejoinedAt.reset();
    m_othersTold = false;
}

/// @param reminded a switch seems to have made it; a second time it is more likely the stream's rhythm
void StreamFollower::learnGap(Time now, nanoseconds gap, bool reminded) {
    if (now - m_gapsSince > kGapMemory) {
        m_earlierGap = std::exchange(m_gap, nanoseconds(0));
        m_reminded = false;
        m_gapsSince = now;
    }
    if (gap <= kLongestUsualGap && (!reminded || std::exchange(m_reminded, true)))
        m_gap = std::max(m_gap, gap);
}

nanoseconds StreamFollower::silenceThreshold() const {
    return std::max(kShortestSilence, kUsualGaps * std::max(m_gap, m_earlierGap));
}

void StreamFollower::opened(Time now) {
    const Why why = m_told ? difference(*m_told, *m_target) : Why::None;
    if (!m_told || m_refusedAt || why != Why::None)
        tell(why != Why::None ? Kind::Moved : Kind::Started, why, *m_target);
    m_told = m_open = m_target;
    m_refused = 0;
    m_refusedAt.reset();
    m_since = now;
    m_rejoinedAt.reset();
}

void StreamFollower::refused(int error) {
    m_open.reset();
    if (m_refused == error)
        return;
    m_refused = error;
    m_refusedAt = m_target;
    tell(Kind::Refused, Why::None, *m_target);
    m_events.back().error = error;
}

void StreamFollower::closed() {
    if (const auto& last = m_told ? m_told : m_refusedAt)
        tell(Kind::Stopped, m_lacking, *last);
    m_open.reset();
    m_told.reset();
    m_refusedAt.reset();
    m_flow = Flow::Waiting;
}

void StreamFollower::rejoined(Time now) {
    m_rejoinedAt = now;
}

void StreamFollower::othersJoined(unsigned others) {
    if (std::exchange(m_othersTold, true))
        return;
    tell(Kind::Silent, Why::OthersJoined, *m_open);
    m_events.back().others = others;
}

void StreamFollower::tell(Kind kind, Why why, const Target& at) {
    StreamEvent event;
    event.kind = kind;
    event.why = why;
    event.endpoint = at.endpoint;
    event.interface = at.device;
    m_events.push_back(std::move(event));
}

std::vector<StreamEvent> StreamFollower::takeEvents() {
    return std::exchange(m_events, {});
}

} // namespace radar::detail
