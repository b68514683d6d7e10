// Draws the picture of a simulated radar, one revolution, into a PNG: example_display_image NAME FILE
#include <RadarWatch/radarstream.h>
#include <RadarWatch/radarwatch.h>

#include <png.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

constexpr std::size_t kHeader = 12; // "SIMI", sequence number, spoke, spokes a revolution
constexpr std::size_t kSamples = 512;
constexpr int kSize = 2 * kSamples; // pixels

std::uint16_t bigEndian16(const char* bytes) {
    return static_cast<std::uint16_t>(static_cast<unsigned char>(bytes[0]) << 8 |
                                      static_cast<unsigned char>(bytes[1]));
}

class Picture {
public:
    // Keeps a spoke: one byte a sample, from the centre outwards.
    void add(const radar::Datagram& datagram) {
        if (datagram.size != kHeader + kSamples || std::memcmp(datagram.data, "SIMI", 4) != 0)
            return;
        const std::uint16_t spoke = bigEndian16(datagram.data + 8);
        m_spokes.resize(std::max<std::size_t>(m_spokes.size(), bigEndian16(datagram.data + 10)));
        if (spoke >= m_spokes.size())
            return;
        m_received += m_spokes[spoke].empty() ? 1 : 0;
        m_isRound = m_isRound || !m_spokes[spoke].empty();
        m_spokes[spoke].assign(datagram.data + kHeader, datagram.data + datagram.size);
    }
    // Once round, and nineteen of twenty spokes there: some are lost on the way.
    bool isComplete() const { return m_isRound && m_received * 20 >= m_spokes.size() * 19; }

    bool write(const char* file) const {
        std::vector<std::uint8_t> pixels(std::size_t{kSize} * kSize);
        for (int y = 0; y < kSize; ++y)
            for (int x = 0; x < kSize; ++x)
                pixels[static_cast<std::size_t>(y) * kSize + static_cast<std::size_t>(x)] =
                    sampleAt(x - kSize / 2, kSize / 2 - y);
        png_image image{};
        image.version = PNG_IMAGE_VERSION;
        image.width = image.height = kSize;
        image.format = PNG_FORMAT_GRAY;
        if (png_image_write_to_file(&image, file, 0, pixels.data(), 0, nullptr) != 0)
            return true;
        std::fprintf(stderr, "%s: %s\n", file, image.message);
        return false;
    }

private:
    // East and north of the radar, in samples.
    std::uint8_t sampleAt(int east, int north) const {
        const auto distance = static_cast<std::size_t>(std::hypot(east, north));
        const double turn = std::atan2(east, north) / (2 * std::acos(-1.0)); // clockwise from north
        const auto count = static_cast<double>(m_spokes.size());
        const auto spoke = static_cast<std::size_t>((turn + 1) * count) % m_spokes.size();
        return distance < m_spokes[spoke].size() ? m_spokes[spoke][distance] : std::uint8_t{0};
    }

    std::vector<std::vector<std::uint8_t>> m_spokes;
    std::size_t m_received = 0;
    bool m_isRound = false; // a spoke has come again
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s NAME FILE.png\n", argv[0]);
        return 2;
    }
    radar::Watch watch;                                 // finds the radars
    radar::Stream stream(watch, argv[1], radar::Image); // follows this one

    Picture picture;
    radar::Datagram datagrams[radar::Stream::kMostAtOnce];
    while (!picture.isComplete()) {
        const std::size_t count = stream.read(datagrams, radar::Stream::kMostAtOnce, std::chrono::seconds(1));
        for (std::size_t i = 0; i < count; ++i)
            picture.add(datagrams[i]);
    }
    return picture.write(argv[2]) ? 0 : 1;
}
