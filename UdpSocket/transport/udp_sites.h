/// @file
/// Where the UDP classes report failed socket calls.
#pragma once

#include <UdpSocket/base/error_line.h>

namespace net::detail::udp_site {

inline constexpr const char* kFile = "UdpSocket/udpsocket.cpp";

// UdpSocket
inline constexpr ReportSite kSocketSendSocket{kFile, "SetSendSockAddr", 132, "socket"};
inline constexpr ReportSite kSocketSendReuse{kFile, "SetSendSockAddr", 136, "setsockopt::SO_REUSERADDR"};
inline constexpr ReportSite kSocketSendJoin{kFile, "SetSendSockAddr", 138, "Setsockopt IP_ADD_MEMBERSHIP"};
inline constexpr ReportSite kSocketSocket{kFile, "SetGroupRecvSockAddr", 148, "socket"};
inline constexpr ReportSite kSocketReuse{kFile, "SetGroupRecvSockAddr", 152, "setsockopt::SO_REUSERADDR"};
inline constexpr ReportSite kSocketBind{kFile, "SetGroupRecvSockAddr", 157, "bind"};
inline constexpr ReportSite kSocketJoin{kFile, "SetGroupRecvSockAddr", 161, "setsockopt::IP_ADD_MEMBERSHIP"};
inline constexpr ReportSite kSocketTimeOut{kFile, "SetGroupRecvSockAddr", 165, "setsockopt::SO_RCVTIMEO"};
inline constexpr ReportSite kSocketReceive{kFile, "operator()", 182, "recvfrom"};
inline constexpr ReportSite kSocketThread{kFile, "launchThread", 186, "thread"};
inline constexpr ReportSite kSocketSend{kFile, "SendData", 192, "sendto"};

// UdpSender
inline constexpr ReportSite kSenderSocket{kFile, "UdpSenderPrivate", 258, "socket"};
inline constexpr ReportSite kSenderReuse{kFile, "UdpSenderPrivate", 263, "setsockopt::SO_REUSEADDR"};
inline constexpr ReportSite kSenderBroadcast{kFile, "UdpSenderPrivate", 266, "setsockopt::SO_BROADCAST"};
inline constexpr ReportSite kSenderInterface{kFile, "UdpSenderPrivate", 269, "setsockopt::IP_MULTICAST_IF"};
inline constexpr ReportSite kSenderLoop{kFile, "UdpSenderPrivate", 272, "setsockopt::IP_MULTICAST_LOOP"};
inline constexpr ReportSite kSenderBind{kFile, "UdpSenderPrivate", 274, "bind"};
inline constexpr ReportSite kSenderSend{kFile, "sendData", 320, "sendto"};
inline constexpr ReportSite kSenderSendMultiple{kFile, "sendMultipleDatas", 346, "sendmmsg"};
inline constexpr ReportSite kSenderSetLoop{kFile, "setMulticastLoop", 356, "setsockopt::IP_MULTICAST_LOOP"};

// UdpReceiver
inline constexpr ReportSite kReceiverThread{kFile, "UdpReceiverPrivate", 414, "thread"};
inline constexpr ReportSite kReceiverSocket{kFile, "UdpReceiverPrivate", 441, "socket"};
inline constexpr ReportSite kReceiverReuse{kFile, "UdpReceiverPrivate", 445, "setsockopt::SO_REUSEADDR"};
inline constexpr ReportSite kReceiverBuffer{kFile, "UdpReceiverPrivate", 447, "setsockopt::SO_RCVBUF"};
inline constexpr ReportSite kReceiverAllGroups{kFile, "UdpReceiverPrivate", 448,
                                               "setsockopt::IP_MULTICAST_ALL"};
inline constexpr ReportSite kReceiverBind{kFile, "UdpReceiverPrivate", 449, "bind"};
inline constexpr ReportSite kReceiverBroadcast{kFile, "UdpReceiverPrivate", 454, "setsockopt::SO_BROADCAST"};
inline constexpr ReportSite kReceiverJoin{kFile, "UdpReceiverPrivate", 459, "setsockopt::IP_ADD_MEMBERSHIP"};
inline constexpr ReportSite kReceiverTimeOut{kFile, "UdpReceiverPrivate", 462, "setsockopt::SO_RCVTIMEO"};
inline constexpr ReportSite kReceiverDevice{kFile, "UdpReceiverPrivate", 477, "setsockopt::SO_BINDTODEVICE"};
inline constexpr ReportSite kReceiverReceive{kFile, "recvThread", 499, "recvfrom"};
inline constexpr ReportSite kReceiverGrowBuffer{kFile, "growReceiveBuffer", 530, "setsockopt::SO_RCVBUF"};

// UdpChecker
inline constexpr ReportSite kCheckerThread{kFile, "operator()", 30, "thread"};
inline constexpr ReportSite kCheckerProbeThread{kFile, "operator()", 90, "thread"};
inline constexpr ReportSite kCheckerSocket{kFile, "operator()", 107, "socket"};
inline constexpr ReportSite kCheckerReuse{kFile, "operator()", 111, "setsockopt::SO_REUSERADDR"};
inline constexpr ReportSite kCheckerAllGroups{kFile, "operator()", 114, "setsockopt::IP_MULTICAST_ALL"};
inline constexpr ReportSite kCheckerBind{kFile, "operator()", 119, "bind"};
inline constexpr ReportSite kCheckerJoin{kFile, "operator()", 124, "setsockopt::IP_ADD_MEMBERSHIP"};
inline constexpr ReportSite kCheckerTimeOut{kFile, "operator()", 128, "setsockopt::SO_RCVTIMEO"};

} // namespace net::detail::udp_site
