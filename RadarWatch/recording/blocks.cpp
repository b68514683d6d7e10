#include <RadarWatch/recording/blocks.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace radar::recording {

namespace {

constexpr std::size_t kLongestBlock = 1 << 24; // no packet is longer, and more need not be in memory
constexpr std::size_t kBegin = 8;              // type and length

} // namespace

File openFile(const std::string& path) {
    File file(std::fopen(path.c_str(), "rbe"));
    if (!file)
        throw std::system_error(errno, std::generic_category(), path);
    return file;
}

Blocks::Blocks(const std::string& path) : m_path(path), m_file(openFile(path)) {
    // A forked child that exits would put the place, which both share, back to what it had not taken.
    std::setvbuf(m_file.get(), nullptr, _IONBF, 0);
    bool isRecording = false;
    try {
        isRecording = isSection(next());
    } catch (const BrokenFile&) { // something else altogether
    }
    if (!isRecording)
        throw BrokenFile(path + ": no pcapng file of this machine's byte order");
    std::rewind(m_file.get());
    m_position = 0;
}

std::string_view Blocks::next() {
    m_block.resize(kBegin);
    const std::size_t begun = std::fread(m_block.data(), 1, kBegin, m_file.get());
    if (begun == 0 && std::ferror(m_file.get()) == 0)
        return {};
    std::uint32_t length = 0;
    if (begun == kBegin)
        std::memcpy(&length, &m_block[4], sizeof length);
    const bool isLength = length > kBegin && length <= kLongestBlock;
    if (isLength)
        m_block.resize(length);
    if (!isLength || std::fread(&m_block[kBegin], 1, length - kBegin, m_file.get()) != length - kBegin ||
        wholeBlocks({m_block.data(), length}) != length)
        throw BrokenFile(m_path + ": broken at byte " + std::to_string(m_position));
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
