/// @file
/// Where the TCP classes report failed socket calls.
///
/// Function and line are identifiers that readers of the error lines rely on. They stay as they are wherever
/// the code stands.
#pragma once

#include <UdpSocket/detail/socket_error.h>

namespace net::detail::tcp_site {

inline constexpr const char* kFile = "UdpSocket/tcpsocket.cpp";

// TcpClient
inline constexpr SourceSite kClientSocket{kFile, "reset", 783};
inline constexpr SourceSite kClientBindToDevice{kFile, "reset", 810};
inline constexpr SourceSite kClientReceiveTimeOut{kFile, "reset", 822};
inline constexpr SourceSite kClientPeerClosed{kFile, "receiveThread", 839};
inline constexpr SourceSite kClientReceive{kFile, "receiveThread", 856};
inline constexpr SourceSite kClientSend{kFile, "sendData", 702};
inline constexpr SourceSite kClientSendParts{kFile, "sendMultipleDatas", 724};

// TcpServer
inline constexpr SourceSite kServerSocket{kFile, "init", 226};
inline constexpr SourceSite kServerReuseAddress{kFile, "init", 233};
inline constexpr SourceSite kServerBind{kFile, "init", 241};
inline constexpr SourceSite kServerListen{kFile, "init", 246};
inline constexpr SourceSite kServerSend{kFile, "operator()", 296};
inline constexpr SourceSite kServerSendParts{kFile, "operator()", 331};
inline constexpr SourceSite kServerSelect{kFile, "operator()", 452};
inline constexpr SourceSite kServerAccept{kFile, "operator()", 466};
inline constexpr SourceSite kServerReceiveTimeOut{kFile, "operator()", 503};
inline constexpr SourceSite kServerSendTimeOut{kFile, "operator()", 506};

} // namespace net::detail::tcp_site
