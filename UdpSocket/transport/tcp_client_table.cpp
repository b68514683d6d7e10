#include <UdpSocket/transport/tcp_client_table.h>

#include <UdpSocket/base/line_limit.h>
#include <UdpSocket/base/thread.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <list>
#include <optional>
#include <thread>
#include <vector>

namespace net::detail {

namespace {

// Clients need not read.
LineLimit s_sendLines;
LineLimit s_sendToOneLines;

/// A send under way to a client that is kept as long.
struct ClientSending {
    ClientSending(const ServerClientPtr& to, const Message& message)
        : client(to), sending(to->outgoing(), message) {}
    const ServerClientPtr client;
    Sending sending;
    bool waits = false;
};

/// @param kind how the client was named: "fd" or "port"
bool sendToOne(Sending& sending, const char* kind, int number) {
    sending.finish();
    if (sending.result() < 0)
        s_sendToOneLines.print(stdout, "Server send %s %d error!\n", kind, number);
    else if (sending.result() == 0)
        std::printf("Server send %s %d 0Byte!\n", kind, number);
    errno = sending.code();
    return sending.result() > 0;
}

} // namespace

std::size_t ClientTable::size() const {
    Lock lock(m_mutex);
    return m_clients.size();
}

bool ClientTable::add(const ServerClientPtr& client) {
    Lock lock(m_mutex);
    return m_clients.emplace(client->number(), client).second;
}

ServerClientPtr ClientTable::find(int fd) const {
    const auto found = m_clients.find(fd);
    return found == m_clients.end() ? nullptr : found->second;
}

void ClientTable::beginLeaving(const ServerClientPtr& client) {
    Lock lock(m_mutex);
    if (find(client->number()) == client)
        m_leaving.insert(m_clients.extract(client->number()));
}

void ClientTable::endLeaving(const ServerClientPtr& client) {
    Lock lock(m_mutex);
    if (const auto found = m_leaving.find(client->number());
        found != m_leaving.end() && found->second == client)
        m_leaving.erase(found);
}

bool ClientTable::close(int fd) {
    ServerClientPtr client;
    {
        Lock lock(m_mutex);
        client = find(fd);
        m_clients.erase(fd);
    }
    if (client != nullptr)
        client->close();
    return client != nullptr;
}

void ClientTable::endStreams() {
    Lock lock(m_mutex);
    for (const Clients* clients : {&m_clients, &m_leaving})
        for (const auto& entry : *clients)
            entry.second->endStream();
}

void ClientTable::clear() {
    Lock lock(m_mutex);
    m_clients.clear();
    m_leaving.clear();
}

void ClientTable::sendToAll(const Message& message, const ReportSite& site) {
    // All memory is taken before the first byte goes out: no message is cut short for want of it.
    std::list<ClientSending> sendings;
    {
        Lock lock(m_mutex);
        for (const auto& entry : m_clients)
            sendings.emplace_back(entry.second, message);
    }
    std::vector<std::thread> threads;
    threads.reserve(sendings.size());
    // First to each what the system takes at once; a thread only for who would have to be waited for.
    for (ClientSending& each : sendings)
        each.waits = !each.sending.sendAtOnce();
    for (ClientSending& each : sendings) {
        if (!each.waits)
            continue;
        const auto finish = [&each] { each.sending.finish(); };
        if (std::thread& thread = threads.emplace_back(); !launchThread(thread, "radar-srv-send", finish))
            finish(); // no thread to be had
    }
    for (std::thread& thread : threads)
        if (thread.joinable())
            thread.join();
    for (const ClientSending& each : sendings) {
        errno = each.sending.code();
        if (each.sending.result() < 0)
            each.client->server().report(site, s_sendLines);
        else if (each.sending.result() == 0)
            std::printf("Server send 0Byte\n");
    }
}

bool ClientTable::sendTo(int fd, const Message& message) {
    std::optional<ClientSending> to;
    {
        Lock lock(m_mutex);
        if (const ServerClientPtr client = find(fd); client != nullptr)
            to.emplace(client, message);
    }
    if (!to) {
        std::printf("socket is not exist\n");
        return false;
    }
    return sendToOne(to->sending, "fd", fd);
}

bool ClientTable::sendTo(const char* address, int port, const Message& message) {
    std::optional<ClientSending> to;
    {
        Lock lock(m_mutex);
        const auto found = std::ranges::find_if(m_clients, [&](const auto& entry) {
            return entry.second->address().starts_with(address) && entry.second->port() == port;
        });
        if (found != m_clients.end())
            to.emplace(found->second, message);
    }
    if (!to) {
        std::printf("address port %d is not exist!\n", port);
        return false;
    }
    return sendToOne(to->sending, "port", port);
}

} // namespace net::detail
