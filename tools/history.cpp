#include "history.h"

#include "table.h"

#include <UdpSocket/base/socket.h>
#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/udpsocket.h>

#include <net/if.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::system_clock;
using radar::Event;

constexpr auto kKept = 60s;
constexpr int kAtOnce = 1024; // events: the keyboard waits meanwhile

/// Of what is not known, true.
bool hasCarrier(const std::string& interface) {
    ifreq request{};
    interface.substr(0, interface.find(':')).copy(request.ifr_name, sizeof request.ifr_name - 1);
    const net::detail::Descriptor socket = net::detail::openSocket(SOCK_DGRAM);
    return ::ioctl(socket.get(), SIOCGIFFLAGS, &request) == 0 ? (request.ifr_flags & IFF_RUNNING) != 0
                                                              : errno != ENODEV;
}

/// Of what an event tells, what concerns one entry.
std::vector<std::string> changesOf(const Event& event, const radar::Radar& entry) {
    constexpr std::pair<unsigned, const char*> kOfStreams[] = {{Event::HostId, "hostId"},
                                                               {Event::Source, "source"},
                                                               {Event::Endpoints, "endpoints"},
                                                               {Event::Streams, "streams"}};
    constexpr std::pair<unsigned, const char*> kOfTcp[] = {{Event::Source, "source"},
                                                           {Event::Tcp, "endpoints"}};
    std::vector<std::string> what;
    const auto look = [&](const auto& names) {
        for (const auto& [bit, name] : names)
            if ((event.changes & bit) != 0)
                what.emplace_back(name);
    };
    if (entry.streams.front().isMulti != 0)
        look(kOfTcp);
    else
        look(kOfStreams);
    return what;
}

} // namespace

std::vector<Change> History::next() {
    m_changes.clear();
    for (int i = 0; i < kAtOnce; ++i) {
        const std::optional<Event> event = m_watch.next(0ms);
        if (!event)
            break;
        take(*event);
    }
    for (Change& change : m_changes) // now that it is known who else left
        if (change.kind == Change::Kind::Left)
            forget(change);
    return std::move(m_changes);
}

void History::take(const Event& event) {
    switch (event.kind) {
    case Event::Kind::Appeared:
    case Event::Kind::Changed:
    case Event::Kind::Left:
        takeRadar(event);
        break;
    case Event::Kind::Conflict:
    case Event::Kind::ConflictEnded:
        if (event.kind == Event::Kind::Conflict)
            m_sharedIds[event.hostId] = {event.holders.begin(), event.holders.end()};
        else
            m_sharedIds.erase(event.hostId);
        for (const std::string& name : event.holders)
            if (const auto radar = m_watch.find(name))
                touch(*radar, event.hostId, "sharesHostIdWith");
        break;
    case Event::Kind::LocalFound:
    case Event::Kind::LocalChanged:
    case Event::Kind::LocalLost:
        m_lostAddress = event.previous;
        for (const radar::Radar& radar : m_watch.radars())
            touch(radar, 0, "localAddress");
        break;
    }
}

void History::takeRadar(const Event& event) {
    std::vector<radar::Radar> entries;
    if (event.kind != Event::Kind::Left)
        entries = entriesOf(event.radar);
    for (const std::string_view suffix : {std::string_view(), protocol::Name::kUser, protocol::Name::kTcp}) {
        const auto known = m_present.find(event.radar.name + std::string(suffix));
        if (known == m_present.end() ||
            std::ranges::find(entries, known->first, &radar::Radar::name) != entries.end())
            continue;
        known->second.last = Clock::now() - event.radar.age;
        add(Change::Kind::Left, known->second);
        m_changes.back().reason = event.reason;
        m_changes.back().successor = event.successor;
        m_present.erase(known);
    }
    for (const radar::Radar& entry : entries) {
        const auto heard = Clock::now() - entry.age;
        const auto [known, isNew] = m_present.try_emplace(
            entry.name, Sighting{entry, std::chrono::steady_clock::now() - entry.age, heard, heard});
        std::vector<std::string> what = changesOf(event, entry);
        known->second.entry = entry;
        known->second.last = heard;
        if (isNew) {
            std::erase_if(m_gone, [&](const Gone& gone) { return gone.sighting.entry.name == entry.name; });
            add(Change::Kind::Appeared, known->second);
        } else if (!what.empty()) {
            add(Change::Kind::Changed, known->second, std::move(what));
        }
    }
}

void History::touch(const radar::Radar& radar, int hostId, const char* what) {
    for (const radar::Radar& entry : entriesOf(radar)) {
        const auto known = m_present.find(entry.name);
        if (known == m_present.end() || (hostId != 0 && entry.hostId != hostId))
            continue;
        known->second.entry = entry;
        known->second.last = Clock::now() - entry.age;
        add(Change::Kind::Changed, known->second, {what});
    }
}

void History::add(Change::Kind kind, const Sighting& sighting, std::vector<std::string> what) {
    Change& change = m_changes.emplace_back(Change{kind, sighting, std::move(what)});
    const std::string name(protocol::announcedName(sighting.entry.name));
    const auto holders = m_sharedIds.find(sighting.entry.hostId);
    if (holders != m_sharedIds.end() && holders->second.contains(name)) {
        change.sharesHostIdWith = holders->second;
        change.sharesHostIdWith.erase(name);
    }
}

void History::forget(Change& change) {
    change.whyLeft = whyLeft(change);
    if (m_present.contains(change.sighting.entry.name))
        return; // it is back
    m_gone.push_back({change.sighting, change.whyLeft, std::chrono::steady_clock::now()});
    if (m_gone.size() > kMaxGone)
        m_gone.pop_front();
}

const std::deque<History::Gone>& History::gone() {
    while (!m_gone.empty() && std::chrono::steady_clock::now() - m_gone.front().since > kKept)
        m_gone.pop_front();
    return m_gone;
}

std::string History::whyLeft(const Change& change) const {
    const std::string source = net::transAddr(change.sighting.entry.source);
    const radar::LocalAddress local = m_watch.localAddress();
    switch (change.reason) {
    case Event::Reason::None:
        return source + " announces it no more";
    case Event::Reason::Renumbered:
        return change.successor.empty()
                   ? source + " was told to give up host id " + hostIdText(change.sighting.entry.hostId)
                   : source + " now announces " + printable(change.successor) + ", with another host id";
    case Event::Reason::Renamed:
        return source + " now announces " + printable(change.successor);
    case Event::Reason::LocalAddress:
        return local.address == 0 ? "this computer has no address " +
                                        std::string(net::transAddr(m_lostAddress)) + " any more"
                                  : source + " was not heard on " + net::transAddr(local.address);
    case Event::Reason::Displaced:
        return "there are too many radars";
    case Event::Reason::Silent:
        break;
    }
    if (!hasCarrier(local.interface))
        return printable(local.interface) + " lost its carrier";
    return source + " has not answered for 8 s" +
           (m_present.empty() ? ", and nobody else does" : ", others do");
}
