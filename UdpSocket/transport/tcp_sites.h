/// @file
/// Where the TCP classes report failed socket calls.
#pragma once

#include <UdpSocket/base/error_line.h>

namespace net::detail::tcp_site {

inline constexpr const char* kFile = "UdpSocket/tcpsocket.cpp";

// TcpClient
inline constexpr ReportSite kClientSocket{kFile, "reset", 783, "socket"};
inline constexpr ReportSite kClientBindToDevice{kFile, "reset", 810, "setsockopt::SO_BINDTODEVICE"};
inline constexpr ReportSite kClientReceiveTimeOut{kFile, "reset", 822, "setsockopt::SO_RCVTIMEO"};
inline constexpr ReportSite kClientPeerClosed{kFile, "receiveThread", 839, "peer closed connection"};
inline constexpr ReportSite kClientReceive{kFile, "receiveThread", 856, "recv error"};
inline constexpr ReportSite kClientThread{kFile, "receiveThread", 856, "thread"};
inline constexpr ReportSite kClientSend{kFile, "sendData", 702, "send"};
inline constexpr ReportSite kClientSendParts{kFile, "sendMultipleDatas", 724, "send"};

// TcpServer
inline constexpr ReportSite kServerSocket{kFile, "init", 226, "socket"};
inline constexpr ReportSite kServerReuseAddress{kFile, "init", 233, "setsockopt::SO_REUSERADDR"};
inline constexpr ReportSite kServerBind{kFile, "init", 241, "bind"};
inline constexpr ReportSite kServerListen{kFile, "init", 246, "listen"};
inline constexpr ReportSite kServerThread{kFile, "init", 246, "thread"};
inline constexpr ReportSite kServerSend{kFile, "operator()", 296, "send"};
inline constexpr ReportSite kServerSendParts{kFile, "operator()", 331, "send"};
inline constexpr ReportSite kServerSelect{kFile, "operator()", 452, "select::rfds"};
inline constexpr ReportSite kServerAccept{kFile, "operator()", 466, "accept"};
inline constexpr ReportSite kServerReceiverThread{kFile, "operator()", 466, "thread"};
inline constexpr ReportSite kServerReceiveTimeOut{kFile, "operator()", 503, "setsockopt::SO_RCVTIMEO"};
inline constexpr ReportSite kServerSendTimeOut{kFile, "operator()", 506, "setsockopt::SO_SNDTIMEO"};

} // namespace net::detail::tcp_site
