#include <UdpSocket/tcpsocket.h>

#include <UdpSocket/detail/tcp_client.h>
#include <UdpSocket/detail/tcp_server.h>
#include <UdpSocket/udpsocket.h>

#include <arpa/inet.h>

namespace net {

// ---------------------------------------------------------------------------------------------- TcpClient

TcpClient::TcpClient(iTcpDataListener* listener, const char* ip, unsigned short port, unsigned int localIp)
    : d(new TcpClientPrivate(listener, ::inet_addr(ip), port, localIp)) {}
TcpClient::TcpClient(iTcpDataListener* listener, const NetAddress& server, unsigned int localIp)
    : TcpClient(listener, transAddr(server.ip), NtoHs(server.port), localIp) {}
TcpClient::~TcpClient() {
    delete d;
}
bool TcpClient::connectOnce() {
    return d->connectOnce();
}
void TcpClient::setAutoConnectEnable(bool enable) {
    d->setAutoConnectEnable(enable);
}
bool TcpClient::sendData(const char* data, unsigned int len) {
    return d->sendData(data, len);
}
bool TcpClient::sendMultipleDatas(const std::vector<std::pair<const void*, int>>& parts) {
    return d->sendMultipleDatas(parts);
}
bool TcpClient::asyncSendData(const char* data, unsigned int len) {
    return d->asyncSendData(data, len);
}
const char* TcpClient::addr() const {
    return ::inet_ntoa(d->server().sin_addr);
}
unsigned short TcpClient::port() const {
    return ntohs(d->server().sin_port);
}
bool TcpClient::isConnected() const {
    return d->isConnected();
}
void TcpClient::notifyForQuit() {
    d->notifyForQuit();
}

// ---------------------------------------------------------------------------------------------- TcpServer

TcpServer::TcpServer(iTcpDataListener* listener) : d(new TcpServerPrivate(listener)) {}
TcpServer::~TcpServer() {
    delete d;
}
bool TcpServer::connect(unsigned short port, int maxClients) {
    return d->connect(INADDR_ANY, port, maxClients);
}
bool TcpServer::connect(const char* ip, unsigned short port, int maxClients) {
    return d->connect(::inet_addr(ip), port, maxClients);
}
void TcpServer::disconnect() {
    d->disconnect();
}
void TcpServer::notifyForQuit() {
    d->notifyForQuit();
}
bool TcpServer::isConnected() const {
    return d->numOfClients() > 0;
}
int TcpServer::numOfClients() {
    return static_cast<int>(d->numOfClients());
}
int TcpServer::closeClient(int fd) {
    return d->closeClient(fd);
}
void TcpServer::sendData(const char* data, unsigned int len) {
    d->sendData(data, len);
}
void TcpServer::sendMultipleDatas(const std::vector<std::pair<const void*, int>>& parts) {
    d->sendMultipleDatas(parts);
}
bool TcpServer::sendData(int fd, const char* data, unsigned int len) {
    return d->sendData(fd, data, len);
}
bool TcpServer::sendData(const char* addr, int port, const char* data, unsigned int len) {
    return d->sendData(addr, port, data, len);
}

} // namespace net
