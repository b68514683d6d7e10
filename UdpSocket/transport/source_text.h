/// @file
/// The source addresses of datagrams as text.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>

namespace net::detail {

/// Turns addresses into dotted text, and the same address as before at no cost: most datagrams come from the
/// sender of the one before. Belongs to one thread.
class SourceText {
public:
    /// @return valid until the next call
    const char* of(in_addr address) {
        if (address.s_addr != m_address.s_addr) {
            ::inet_ntop(AF_INET, &address, m_text, sizeof m_text); // always fits
            m_address = address;
        }
        return m_text;
    }

private:
    in_addr m_address{};
    char m_text[INET_ADDRSTRLEN] = "0.0.0.0";
};

} // namespace net::detail
