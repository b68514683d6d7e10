/// @file
/// One object of every class at once, as an application may have them.
#pragma once

#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/netiphelper.h>
#include <UdpSocket/tcpsocket.h>
#include <UdpSocket/udpsocket.h>

inline constexpr const char* kGroup = "236.1.2.3";

struct Everything {
    /// @param listener hears kGroup, port 5000
    /// @param port     of the TCP server, to which the client connects
    Everything(net::iUdpDataListener* listener, unsigned int local, unsigned short port)
        : receiver(listener, local, kGroup, 5000, 64), sender(kGroup, 5000, local, 0), socket(listener, 64),
          tcp(nullptr, "127.0.0.1", port, 0) {
        socket.SetGroupRecvSockAddr(local, kGroup, 5002);
        server.connect("127.0.0.1", port, 5);
        tcp.connectOnce();
        negotiator.asyncLogin(16);
    }
    net::UdpReceiver receiver;
    net::UdpSender sender;
    net::UdpSocket socket;
    net::UdpChecker checker{kGroup, 5001, "radar"};
    net::TcpServer server{nullptr};
    net::TcpClient tcp;
    HostNegotiator negotiator{nullptr, nullptr};
    HostServer host{"North", 16, 2};
    net::tNetIPHelper watch{false, "eth9", "10.5.0.9", "255.255.255.0"};
    MultiRadarClient display;
};
