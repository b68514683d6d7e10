#include <UdpSocket/protocol/tcp_framing.h>

#include <UdpSocket/protocol/wire.h>

namespace protocol {

namespace {

constexpr std::string_view kFirstNameCharacters = "ZQ"; // of every radar that is reached over TCP
constexpr std::size_t kShortestReplyStart = 3;          // bytes of a kTcpReply that may begin a message

bool startsMessage(std::string_view chunk) {
    if (wire::hasCode(chunk, wire::kAnnouncement))
        return chunk.substr(wire::kName.offset, kFirstNameCharacters.size()) == kFirstNameCharacters;
    return wire::hasCode(chunk, wire::kTcpReply) && chunk.size() >= kShortestReplyStart;
}

std::size_t lengthOf(std::string_view message) {
    return wire::hasCode(message, wire::kAnnouncement) ? wire::kLongAnnouncement.length
                                                       : wire::kTcpReplyLength;
}

} // namespace

std::string_view TcpFraming::add(std::string_view chunk) {
    if (startsMessage(chunk) || m_complete)
        m_message.clear();
    m_complete = false;
    if (m_message.empty() && !startsMessage(chunk))
        return {};
    const std::size_t length = lengthOf(m_message.empty() ? chunk : m_message);
    m_message.append(chunk.substr(0, length - m_message.size()));
    m_complete = m_message.size() == length;
    return m_complete ? std::string_view(m_message) : std::string_view();
}

} // namespace protocol
