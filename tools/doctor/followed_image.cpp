#include "followed_image.h"

namespace doctor {

FollowedImage::FollowedImage(const std::string& radar, unsigned int localIp)
    : m_seen{.radar = radar, .interface = {}}, m_watch(radar::Watch::Options{.localAddress = localIp}),
      m_stream(
          m_watch, radar, radar::Image, [](const radar::Datagram&) {},
          [this](const radar::StreamEvent& event) { take(event); }) {}

void FollowedImage::take(const radar::StreamEvent& event) {
    using radar::StreamEvent;
    const std::lock_guard lock(m_mutex);
    m_seen.interface = event.interface;
    m_seen.isSilent = event.kind == StreamEvent::Kind::Silent;
    if (event.kind == StreamEvent::Kind::Resumed && event.why == StreamEvent::Why::SwitchForgot)
        ++m_seen.forgotten;
}

ImageSeen FollowedImage::seen() const {
    const std::uint64_t datagrams = m_stream.statistics().datagrams;
    const std::lock_guard lock(m_mutex);
    ImageSeen seen = m_seen;
    seen.datagrams = datagrams;
    return seen;
}

} // namespace doctor
