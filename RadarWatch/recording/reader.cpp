#include <RadarWatch/recording/reader.h>

#include <pcap/pcap.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace radar::recording {

namespace {

constexpr std::pair<int, Link> kLinks[] = {{DLT_EN10MB, Link::Ethernet},
                                           {DLT_LINUX_SLL, Link::Cooked},
                                           {DLT_LINUX_SLL2, Link::Cooked2},
                                           {DLT_RAW, Link::Ip},
                                           {DLT_IPV4, Link::Ip}};
constexpr std::int64_t kLastSecond = 9'000'000'000; // that a time in nanoseconds has room for

} // namespace

void Reader::Close::operator()(pcap* file) const {
    ::pcap_close(file);
}

Reader::Reader(const std::string& path) : m_path(path) {
    File file = openFile(path);
    char error[PCAP_ERRBUF_SIZE] = "";
    m_file.reset(::pcap_fopen_offline_with_tstamp_precision(file.get(), PCAP_TSTAMP_PRECISION_NANO, error));
    if (!m_file)
        throw BrokenFile(path + ": " + error);
    [[maybe_unused]] const FILE* taken = file.release(); // by m_file
    const int kind = ::pcap_datalink(m_file.get());
    for (const auto& [number, link] : kLinks)
        if (number == kind) {
            m_link = link;
            return;
        }
    const char* name = ::pcap_datalink_val_to_name(kind);
    throw BrokenFile(path + ": its frames are of a kind that is not read: " +
                     (name != nullptr ? name : std::to_string(kind)));
}

std::optional<Datagram> Reader::next() {
    for (;;) {
        pcap_pkthdr* header = nullptr;
        const unsigned char* bytes = nullptr;
        static_assert(sizeof(off_t) == 8, "files are larger than 4 GiB");
        const off_t position = ::ftello(::pcap_file(m_file.get()));
        const int result = ::pcap_next_ex(m_file.get(), &header, &bytes);
        if (result == PCAP_ERROR_BREAK)
            return std::nullopt;
        if (result != 1)
            throw BrokenFile(m_path + ": broken behind packet " + std::to_string(m_counts.packets) +
                             ", at byte " + std::to_string(position) + ": " + ::pcap_geterr(m_file.get()));
        ++m_counts.packets;
        const Decoded decoded = decode(m_link, {reinterpret_cast<const char*>(bytes), header->caplen});
        switch (decoded.kind) {
        case Decoded::Kind::Datagram: // tv_usec holds nanoseconds
            return Datagram{
                m_clock.at(std::chrono::seconds(std::clamp<std::int64_t>(header->ts.tv_sec, 0, kLastSecond)) +
                           Time(header->ts.tv_usec)),
                decoded.source, decoded.destination, decoded.payload};
        case Decoded::Kind::Fragment:
            ++m_counts.fragments;
            break;
        case Decoded::Kind::Cut:
            ++m_counts.cut;
            break;
        case Decoded::Kind::Other:
            ++m_counts.other;
            break;
        }
    }
}

Notes readNotes(const std::string& path) {
    Notes notes;
    try {
        Blocks blocks(path);
        for (std::string_view block = blocks.next(); !block.empty(); block = blocks.next())
            takeBlock(notes, block);
    } catch (const BrokenFile&) { // or of another kind: as far as it went
    }
    return notes;
}

} // namespace radar::recording
