#include <RadarWatch/recording/pcapng.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>

namespace radar::recording {

namespace {

enum Type : std::uint32_t {
    kInterface = 1,
    kStatistics = 5,
    kPacket = 6,
    kSection = 0x0A0D0D0A,
    kTcp = 0x80000001, // the upper half is for local use
};

enum Option : std::uint16_t {
    kEnd = 0,
    kComment = 1,
    kName = 2, // of an interface
    kApplication = 4,
    kArrived = 4, // of statistics
    kDropped = 5,
    kDroppedBySystem = 7,
    kResolution = 9,
};

constexpr std::uint32_t kByteOrder = 0x1A2B3C4D;
constexpr std::uint16_t kRawIp = 101;
constexpr std::pair<std::uint16_t, Link> kLinks[] = {
    {1, Link::Ethernet}, {113, Link::Cooked}, {276, Link::Cooked2}, {kRawIp, Link::Ip}, {228, Link::Ip}};
constexpr std::uint32_t kLongestPacket = 65535;
constexpr char kNanoseconds = 9;                     // decimal places of a second
constexpr std::size_t kFrame = 12;                   // type, and the length at both ends
constexpr std::uint64_t kLastSecond = 9'000'000'000; // that a time in nanoseconds has room for

constexpr std::size_t padded(std::size_t length) {
    return (length + 3) / 4 * 4;
}

/// A block under construction at the end of a text, which does not keep a part where memory runs out.
class Block {
public:
    Block(std::string& blocks, Type type) : m_blocks(blocks), m_start(blocks.size()) {
        put(std::array<std::uint32_t, 2>{type, 0}); // and the length, later; at once: nothing is left of it
    }
    ~Block() {
        if (!m_isWhole)
            m_blocks.resize(m_start);
    }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;

    template <class Value>
    void put(Value value) {
        m_blocks.append(reinterpret_cast<const char*>(&value), sizeof value);
    }
    void putTime(Time time) {
        const auto count = static_cast<std::uint64_t>(time.count());
        put(static_cast<std::uint32_t>(count >> 32));
        put(static_cast<std::uint32_t>(count));
    }
    void pad() { m_blocks.resize(m_start + padded(m_blocks.size() - m_start), '\0'); }
    void option(Option code, std::string_view value) {
        value = value.substr(0, UINT16_MAX);
        put(std::uint16_t{code});
        put(static_cast<std::uint16_t>(value.size()));
        m_blocks.append(value);
        pad();
        m_hasOptions = true;
    }
    void option(Option code, std::uint64_t value) {
        option(code, {reinterpret_cast<const char*>(&value), sizeof value});
    }
    void comment(std::string_view text) {
        if (!text.empty())
            option(kComment, text);
    }
    void end() {
        if (m_hasOptions)
            put(std::uint32_t{kEnd});
        const auto length = static_cast<std::uint32_t>(m_blocks.size() - m_start + sizeof(std::uint32_t));
        put(length);
        std::memcpy(&m_blocks[m_start + 4], &length, sizeof length);
        m_isWhole = true;
    }

private:
    std::string& m_blocks;
    const std::size_t m_start;
    bool m_hasOptions = false;
    bool m_isWhole = false;
};

template <class Value = std::uint32_t>
Value valueAt(std::string_view bytes, std::size_t at) {
    Value value{};
    if (at + sizeof value <= bytes.size())
        std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

/// Of a packet or statistics.
Time timeOf(std::string_view body, const Frames& frames) {
    const std::uint64_t ticks = std::uint64_t{valueAt(body, 4)} << 32 | valueAt(body, 8);
    const auto seconds = std::chrono::seconds(std::min(ticks / frames.ticks, kLastSecond));
    return seconds + Time(static_cast<std::int64_t>(ticks % frames.ticks * 1'000'000'000 / frames.ticks));
}

/// Shows each option of a block whose options begin there.
void forEachOption(std::string_view options,
                   const std::function<void(unsigned int, std::string_view)>& show) {
    while (options.size() >= 4) {
        const auto code = valueAt<std::uint16_t>(options, 0);
        const std::size_t length = valueAt<std::uint16_t>(options, 2);
        if (code == kEnd || options.size() < 4 + padded(length))
            return;
        show(code, options.substr(4, length));
        options.remove_prefix(4 + padded(length));
    }
}

std::string_view from(std::string_view body, std::size_t at) {
    return body.substr(std::min(at, body.size()));
}

/// The length of the first block; 0: it is not whole.
std::size_t blockLength(std::string_view bytes) {
    const std::size_t length = valueAt(bytes, 4);
    const bool isWhole = bytes.size() >= kFrame && length >= kFrame && length % 4 == 0 &&
                         length <= bytes.size() && valueAt(bytes, length - 4) == length;
    return isWhole ? length : 0;
}

/// Of an interface's block. Times of more than nanoseconds, which nobody has, are not read.
Frames framesOf(std::string_view body) {
    Frames frames;
    for (const auto& [number, link] : kLinks)
        if (number == valueAt<std::uint16_t>(body, 0))
            frames.link = link;
    forEachOption(from(body, 8), [&](unsigned int code, std::string_view value) {
        if (code != kResolution || value.empty())
            return;
        const auto resolution = static_cast<unsigned char>(value[0]);
        const bool isBinary = (resolution & 0x80) != 0; // else decimal places
        unsigned int places = resolution & 0x7F;
        if (places > (isBinary ? 30U : 9U))
            frames.link.reset();
        else
            for (frames.ticks = 1; places > 0; --places)
                frames.ticks *= isBinary ? 2 : 10;
    });
    return frames;
}

} // namespace

std::string sectionBlock(std::string_view application) {
    std::string blocks;
    Block block(blocks, kSection);
    block.put(kByteOrder);
    block.put(std::uint16_t{1}); // version 1.0
    block.put(std::uint16_t{0});
    block.put(std::int64_t{-1}); // the section's length is not given
    block.option(kApplication, application);
    block.end();
    return blocks;
}

std::string interfaceBlock(std::string_view name) {
    std::string blocks;
    Block block(blocks, kInterface);
    block.put(kRawIp);
    block.put(std::uint16_t{0});
    block.put(kLongestPacket);
    block.option(kName, name);
    block.option(kResolution, {&kNanoseconds, 1});
    block.end();
    return blocks;
}

void appendDatagramBlock(std::string& blocks, std::uint32_t interface, const Datagram& datagram,
                         std::string_view comment) {
    Block block(blocks, kPacket);
    block.put(interface);
    block.putTime(datagram.time);
    const std::size_t lengths = blocks.size();
    block.put(std::uint64_t{0}); // captured and original length, later
    appendPacket(blocks, datagram);
    const auto length = static_cast<std::uint32_t>(blocks.size() - lengths - 8);
    for (const std::size_t at : {lengths, lengths + 4})
        std::memcpy(&blocks[at], &length, sizeof length);
    block.pad();
    block.comment(comment);
    block.end();
}

void appendStatisticsBlock(std::string& blocks, std::uint32_t interface, Time time,
                           const Statistics& statistics, std::string_view comment) {
    Block block(blocks, kStatistics);
    block.put(interface);
    block.putTime(time);
    block.comment(comment);
    block.option(kArrived, statistics.arrived);
    block.option(kDropped, statistics.dropped);
    block.option(kDroppedBySystem, statistics.droppedBySystem);
    block.end();
}

void appendTcpBlock(std::string& blocks, const Datagram& bytes) {
    Block block(blocks, kTcp);
    block.putTime(bytes.time);
    block.put(bytes.source);
    block.pad();
    block.put(static_cast<std::uint32_t>(bytes.payload.size()));
    blocks.append(bytes.payload);
    block.pad();
    block.end();
}

std::size_t wholeBlocks(std::string_view bytes) {
    std::size_t length = 0;
    while (const std::size_t next = blockLength(bytes.substr(length)))
        length += next;
    return length;
}

bool isSection(std::string_view block) {
    return blockLength(block) != 0 && valueAt(block, 0) == kSection && valueAt(block, 8) == kByteOrder;
}

std::optional<Datagram> takeDatagram(std::vector<Frames>& interfaces, std::string_view block) {
    if (blockLength(block) == 0)
        return std::nullopt;
    const std::string_view body = block.substr(8, block.size() - kFrame);
    const std::uint32_t type = valueAt(block, 0);
    if (type == kSection)
        interfaces.clear();
    else if (type == kInterface)
        interfaces.push_back(framesOf(body));
    if (type != kPacket || valueAt(body, 0) >= interfaces.size())
        return std::nullopt;
    const Frames& frames = interfaces[valueAt(body, 0)];
    if (!frames.link)
        return std::nullopt;
    const Decoded decoded = decode(*frames.link, from(body, 20).substr(0, valueAt(body, 12)));
    if (decoded.kind != Decoded::Kind::Datagram)
        return std::nullopt;
    return Datagram{timeOf(body, frames), decoded.source, decoded.destination, decoded.payload};
}

std::size_t takeBlock(Notes& notes, std::string_view bytes) {
    const std::size_t length = blockLength(bytes);
    if (length == 0)
        return 0;
    const std::string_view body = bytes.substr(8, length - kFrame);
    Time time{};
    const auto takeTime = [&] {
        const std::uint32_t interface = valueAt(body, 0);
        time = notes.clock.at(
            timeOf(body, interface < notes.frames.size() ? notes.frames[interface] : Frames()));
    };
    const auto takeComment = [&](unsigned int code, std::string_view text) {
        if (code == kComment && notes.comments.size() < Notes::kMaxComments)
            notes.comments.push_back({time, std::string(text)});
    };
    switch (valueAt(bytes, 0)) {
    case kSection:
        notes.frames.clear();
        return valueAt(body, 0) == kByteOrder ? length : 0;
    case kInterface:
        notes.frames.push_back(framesOf(body));
        notes.interfaces.emplace_back();
        forEachOption(from(body, 8), [&](unsigned int code, std::string_view value) {
            if (code == kName)
                notes.interfaces.back() = value;
        });
        break;
    case kPacket:
        takeTime();
        forEachOption(from(body, 20 + padded(valueAt(body, 12))), takeComment);
        break;
    case kStatistics: {
        takeTime();
        Statistics& statistics = notes.statistics[valueAt(body, 0)];
        forEachOption(from(body, 12), [&](unsigned int code, std::string_view value) {
            takeComment(code, value);
            const auto number = valueAt<std::uint64_t>(value, 0);
            if (code == kArrived)
                statistics.arrived = number;
            else if (code == kDropped)
                statistics.dropped = number;
            else if (code == kDroppedBySystem)
                statistics.droppedBySystem = number;
        });
        break;
    }
    case kTcp: {
        const auto peer = valueAt<NetAddress>(body, 8);
        const std::uint32_t ip = peer.ip;
        const std::uint16_t port = peer.port;
        Notes::TcpBytes& connection = notes.tcp[{ip, port}];
        ++connection.pieces;
        connection.bytes += std::min<std::size_t>(valueAt(body, 16), from(body, 20).size());
        break;
    }
    default:
        break;
    }
    return length;
}

} // namespace radar::recording
