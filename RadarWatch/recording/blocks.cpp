#include <RadarWatch/recording/blocks.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace radar::recording {

namespace {

constexpr std::size_t kLongestBlock = 1 << 24; // no packet is longer, and more need not be in memory
constexpr std::size_t kBegin = 8;              // type and length
constexpr std::size_t kReadAhead = 1 << 16;

} // namespace

File openFile(const std::string& path) {
    File file(std::fopen(path.c_str(), "rbe"));
    if (!file)
        throw std::system_error(errno, std::generic_category(), path);
    return file;
}

Blocks::Blocks(const std::string& path)
    : m_path(path), m_file(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), m_buffer(new char[kReadAhead]) {
    if (!m_file.isOpen())
        throw std::system_error(errno, std::generic_category(), path);
    bool isRecording = false;
    try {
        isRecording = isSection(next());
    } catch (const BrokenFile&) { // something else altogether
        if (m_error != 0)
            throw std::system_error(m_error, std::generic_category(), path);
    }
    if (!isRecording)
        throw BrokenFile(path + ": no pcapng file of this machine's byte order");
    m_ahead = {};
    m_readTo = 0;
    m_position = 0;
}

/// As fread does, but without a place in the file that is shared with forked children: one that exits puts it
/// back to what it has not taken.
std::size_t Blocks::read(char* bytes, std::size_t count) {
    std::size_t length = 0;
    while (length < count) {
        if (m_ahead.empty()) {
            const ssize_t more = ::pread(m_file.get(), m_buffer.get(), kReadAhead, m_readTo);
            m_error = more < 0 ? errno : 0;
            if (m_error == EINTR)
                continue;
            if (more <= 0)
                break;
            m_ahead = {m_buffer.get(), static_cast<std::size_t>(more)};
            m_readTo += more;
        }
        const std::size_t taken = m_ahead.copy(bytes + length, count - length);
        m_ahead.remove_prefix(taken);
        length += taken;
    }
    return length;
}

std::string_view Blocks::next() {
    m_block.resize(kBegin);
    const std::size_t begun = read(m_block.data(), kBegin);
    if (begun == 0 && m_error == 0)
        return {};
    std::uint32_t length = 0;
    if (begun == kBegin)
        std::memcpy(&length, &m_block[4], sizeof length);
    const bool isLength = length > kBegin && length <= kLongestBlock;
    if (isLength)
        m_block.resize(length);
    if (!isLength || read(&m_block[kBegin], length - kBegin) != length - kBegin ||
        wholeBlocks({m_block.data(), length}) != length)
        throw BrokenFile(m_path + ": " +
                         (m_error != 0 ? std::generic_category().message(m_error) : "broken") + " at byte " +
                         std::to_string(m_position));
    m_position += length;
    return {m_block.data(), length};
}

std::optional<Datagram> Blocks::nextDatagram() {
    for (std::string_view block = next(); !block.empty(); block = next())
        if (auto datagram = takeDatagram(m_interfaces, block)) {
            datagram->time = m_clock.at(datagram->time);
            return datagram;
        }
    return std::nullopt;
}

} // namespace radar::recording
