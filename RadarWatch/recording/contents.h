/// @file
/// What a recording holds. Pure: no socket, no file.
#pragma once

#include <RadarWatch/recording/packet.h>

#include <UdpSocket/protocol/wire.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace radar::recording {

/// An endpoint on which a radar sends or is spoken to.
struct RadarEndpointPlace {
    NetAddress endpoint{};
    plan::EndpointField field = nullptr; ///< null: that of an information device
    int number = 0;                      ///< of the stream, or of the device
};

/// All endpoints behind an announcement, those included that displays compute by the plan.
std::vector<RadarEndpointPlace> endpointsOf(std::string_view announcement);

/// Fed with the datagrams of a recording, in its order.
class Contents {
public:
    struct Radar {
        /// What it announces from then on.
        struct Change {
            Time time;
            std::string announcement;
        };
        /// It announced itself between these, without a silence after which displays give it up.
        struct Presence {
            Time first;
            Time last;
        };
        std::string name;         ///< as announced
        std::uint32_t source = 0; ///< network order; another radar of that name is another one
        std::vector<Change> changes;
        std::vector<Presence> presences;
        std::uint64_t announcements = 0;

        /// Its announcement at a time; before the first one, that.
        const std::string& announcementAt(Time time) const;
    };
    /// What went to one endpoint.
    struct Stream {
        std::uint64_t datagrams = 0;
        std::uint64_t bytes = 0;
        Time first{};
        Time last{};
        Time longestGap{};               ///< between two datagrams
        std::set<std::uint32_t> sources; ///< kMaxSources of them
        static constexpr std::size_t kMaxSources = 64;
    };
    using Key = std::pair<std::uint32_t, std::uint16_t>; ///< address and port, network order
    static Key keyOf(NetAddress endpoint) {
        const std::uint32_t ip = endpoint.ip; // the record is packed: nothing may refer to its fields
        const std::uint16_t port = endpoint.port;
        return {ip, port};
    }

    void add(const Datagram& datagram);

    const std::vector<Radar>& radars() const { return m_radars; } ///< in the order of their appearance
    const std::map<Key, Stream>& streams() const { return m_streams; }
    const Stream& total() const { return m_total; }

private:
    void addAnnouncement(const Datagram& datagram);

    std::vector<Radar> m_radars;
    std::map<std::pair<std::string, std::uint32_t>, std::size_t> m_indices; // into m_radars
    std::map<Key, Stream> m_streams;
    Stream m_total;
};

/// Whether a datagram went to this group.
bool isFor(const Datagram& datagram, const wire::Group& group);

} // namespace radar::recording
