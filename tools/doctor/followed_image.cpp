#include "followed_image.h"

#include "../listing.h"
#include "../table.h"

namespace doctor {

FollowedImage::FollowedImage(const std::string& radar, unsigned int localIp)
    : m_seen{.radar = radar, .interface = {}}, m_watch(radar::Watch::Options{.localAddress = localIp}) {}

void FollowedImage::look() {
    while (const auto event = m_watch.next(std::chrono::milliseconds(0)))
        for (const radar::Radar& entry : entriesOf(event->radar))
            if (!m_stream && (entry.name == m_seen.radar || printable(entry.name) == m_seen.radar)) {
                const std::lock_guard lock(m_mutex);
                m_seen.radar = entry.name;
                m_found = std::chrono::steady_clock::now();
                m_stream.emplace(
                    m_watch, entry.name, radar::Image, [](const radar::Datagram&) {},
                    [this](const radar::StreamEvent& change) { take(change); });
            }
}

void FollowedImage::take(const radar::StreamEvent& event) {
    using radar::StreamEvent;
    const std::lock_guard lock(m_mutex);
    m_seen.interface = event.interface;
    m_seen.isSilent = event.kind == StreamEvent::Kind::Silent || event.kind == StreamEvent::Kind::Stopped ||
                      event.kind == StreamEvent::Kind::Refused;
    m_seen.hasLeft = event.kind == StreamEvent::Kind::Stopped && event.why == StreamEvent::Why::RadarLeft;
    if (event.kind == StreamEvent::Kind::Resumed && event.why == StreamEvent::Why::SwitchForgot)
        ++m_seen.forgotten;
}

ImageSeen FollowedImage::seen() const {
    const std::uint64_t datagrams = m_stream ? m_stream->statistics().datagrams : 0;
    const std::lock_guard lock(m_mutex);
    ImageSeen seen = m_seen;
    seen.datagrams = datagrams;
    if (m_stream)
        seen.followed = std::chrono::steady_clock::now() - m_found;
    return seen;
}

} // namespace doctor
