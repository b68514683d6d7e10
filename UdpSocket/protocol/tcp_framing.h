/// @file
/// The byte stream of a fixed radar: the messages of the discovery group back to back, without lengths.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace protocol {

/// Cuts the stream into messages. A message is recognised by the chunk that it begins with; whatever follows
/// it in the chunk that completes it is discarded.
class TcpFraming {
public:
    /// Takes the next chunk. @return the message that it completes, until the next call; empty: none
    std::string_view add(std::string_view chunk);

private:
    std::string m_message; // as far as it has arrived
    bool m_complete = false;
};

} // namespace protocol
