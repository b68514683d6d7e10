#include "simulator.h"

#include <UdpSocket/protocol/address_plan.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numbers>

namespace {

constexpr std::uint16_t kSpokes = 1024; // a revolution
constexpr std::size_t kSamples = 512;
constexpr double kRange = 6; // nautical miles
constexpr std::size_t kHeader = 12;
constexpr std::uint64_t kMaxAtOnce = 256; // spokes, after the process was held up
constexpr double kPause = 1;              // seconds, after what the system refused: the library tells of each

constexpr double kTurn = 2 * std::numbers::pi;

/// Degrees, clockwise from north.
double bearing(double x, double y) {
    const double degrees = std::atan2(x, y) * 360 / kTurn;
    return degrees < 0 ? degrees + 360 : degrees;
}

} // namespace

const Simulator::Target Simulator::kTargets[3] = {{-3, 2, 100, 12}, {1.5, -4, 350, 18}, {4, 3, 240, 7}};

// A target that leaves the picture comes in again at the other side.
double Simulator::Target::xAfter(double hours) const {
    return std::remainder(x + speed * hours * std::sin(course * kTurn / 360), 2 * kRange);
}

double Simulator::Target::yAfter(double hours) const {
    return std::remainder(y + speed * hours * std::cos(course * kTurn / 360), 2 * kRange);
}

Simulator::Simulator(int hostId, unsigned int streams, double revolutionsPerMinute)
    : m_spokesPerSecond(revolutionsPerMinute / 60 * kSpokes) {
    const auto sender = [hostId](plan::EndpointField field, unsigned int stream) {
        const NetAddress group =
            plan::announcedEndpoint(static_cast<std::uint8_t>(hostId), field, static_cast<int>(stream));
        return std::make_unique<net::UdpSender>(group, 0, static_cast<std::uint16_t>(0));
    };
    for (unsigned int i = 0; i < streams; ++i) {
        Stream& stream = m_streams.emplace_back();
        stream.image = sender(&RadarAddress::imageStream, i);
        stream.arpa = sender(&RadarAddress::arpaStream, i);
    }
}

void Simulator::send() {
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - m_start;
    const double hours = elapsed.count() / 3600;
    const auto due = static_cast<std::uint64_t>(elapsed.count() * m_spokesPerSecond);
    std::vector<std::string> spokes;
    for (m_spokes = std::max(m_spokes, due > kMaxAtOnce ? due - kMaxAtOnce : 0); m_spokes < due; ++m_spokes)
        spokes.push_back(spoke(m_spokes, hours));
    std::vector<std::pair<const void*, int>> datagrams;
    for (const std::string& one : spokes)
        datagrams.emplace_back(one.data(), static_cast<int>(one.size()));
    const bool sentencesDue = elapsed.count() >= m_sentences;
    for (Stream& stream : m_streams) {
        if (elapsed.count() < stream.pausedUntil)
            continue;
        if (!datagrams.empty() && stream.image->sendMultipleDatas(datagrams) == -1) {
            stream.pausedUntil = elapsed.count() + kPause;
            continue;
        }
        for (std::size_t i = 0; sentencesDue && i < std::size(kTargets); ++i) {
            const std::string text = sentence(i, hours);
            stream.arpa->sendData(text.data(), static_cast<int>(text.size()));
        }
    }
    if (sentencesDue)
        m_sentences = static_cast<std::uint32_t>(elapsed.count()) + 1;
}

std::string Simulator::spoke(std::uint64_t sequence, double hours) const {
    const auto number = static_cast<std::uint16_t>(sequence % kSpokes);
    std::string datagram = "SIMI";
    const std::uint32_t sequenceField = net::HtoNl(static_cast<std::uint32_t>(sequence));
    const std::uint16_t fields[] = {net::HtoNs(number), net::HtoNs(kSpokes)};
    datagram.append(reinterpret_cast<const char*>(&sequenceField), sizeof sequenceField);
    datagram.append(reinterpret_cast<const char*>(fields), sizeof fields);
    datagram.resize(kHeader + kSamples, '\x08'); // sea clutter
    for (const Target& target : kTargets) {
        const double x = target.xAfter(hours);
        const double y = target.yAfter(hours);
        const double away = std::remainder(bearing(x, y) - number * 360.0 / kSpokes, 360);
        const auto sample = static_cast<std::size_t>(std::hypot(x, y) / kRange * kSamples);
        if (std::abs(away) < 1 && sample < kSamples)
            std::memset(&datagram[kHeader + sample], '\xF0', std::min<std::size_t>(4, kSamples - sample));
    }
    return datagram;
}

std::string Simulator::sentence(std::size_t number, double hours) {
    const Target& target = kTargets[number];
    const double x = target.xAfter(hours);
    const double y = target.yAfter(hours);
    char text[100];
    std::snprintf(text, sizeof text, "RATTM,%02zu,%.2f,%.1f,T,%.1f,%.1f,T,,,N,SIM%zu,T,,,A", number + 1,
                  std::hypot(x, y), bearing(x, y), target.speed, target.course, number + 1);
    unsigned int checksum = 0;
    for (const char* at = text; *at != '\0'; ++at)
        checksum ^= static_cast<unsigned char>(*at);
    char end[8];
    std::snprintf(end, sizeof end, "*%02X\r\n", checksum);
    return "$" + std::string(text) + end;
}
