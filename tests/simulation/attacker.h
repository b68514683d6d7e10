/// @file
/// Whoever can send on the LAN can forge: announcements, objections, claims, beacons, resets.
#pragma once

#include "messages.h"

namespace simulation {

class Attacker : public Node {
public:
    /// @param radars names in use
    Attacker(Lan& lan, std::vector<Interface> on, const std::vector<std::string>& radars)
        : Node("attacker", std::move(on)), m_lan(lan), m_radars(radars) {
        lan.add(*this);
    }

    /// @param rate about one act in so many seconds
    void start(std::uint32_t rate) {
        m_rate = rate;
        m_lan.switchOn(*this);
        m_lan.schedule(*this, 1000, kAct);
    }
    /// Fills the displays' tables: 4096 names and some, from @p sources addresses, within some seconds.
    void flood(std::uint32_t sources) {
        if (m_floodLeft > 0)
            return;
        m_floodLeft = kFloodNames;
        m_floodSources = sources;
        m_floodInterface = below(interfaces.size());
        m_lan.schedule(*this, 0, kFlood);
    }

    bool takes(Traffic) const override { return false; }
    void receive(const Datagram&, std::size_t) override {}
    void timer(int which) override {
        if (which == kAct) {
            if (m_lan.random().onceIn(m_rate))
                act();
            m_lan.schedule(*this, 1000, kAct);
            return;
        }
        for (std::uint32_t i = 0; i < kFloodPerMillisecond && m_floodLeft > 0; ++i, --m_floodLeft) {
            const std::uint32_t source = m_floodLeft > kFloodNewcomers
                                             ? address(9, 1 + m_floodLeft % m_floodSources)
                                             : address(8, m_floodLeft);
            m_lan.send(*this, m_floodInterface,
                       m_lan.keep(announcement(*this, source, newName(), 63, Form::Short)));
        }
        if (m_floodLeft > 0)
            m_lan.schedule(*this, 1, kFlood);
    }

private:
    enum Timer { kAct, kFlood };

    static constexpr std::uint32_t kFloodNames = 4096 + 400;
    static constexpr std::uint32_t kFloodNewcomers = 100; // the last of them, each from a source of its own
    static constexpr std::uint32_t kFloodPerMillisecond = 2;

    void act() {
        const auto anyId = [&] { return static_cast<std::uint8_t>(below(3) == 0 ? 1 : 16 + below(48)); };
        switch (below(9)) {
        case 0:
            for (std::uint32_t i = below(20); i > 0; --i)
                sendAnnouncement(newName());
            break;
        case 1: // a radar's name
            sendAnnouncement(m_radars[below(m_radars.size())]);
            break;
        case 2:
            sendNegotiation(bytes::message(bytes::kObjection, anyId()));
            break;
        case 3: // to every id
            for (std::uint8_t id = 0; id < 64; ++id)
                sendNegotiation(bytes::message(bytes::kObjection, id));
            break;
        case 4: // whatever byte a holder looks at, several at once
            for (std::uint32_t i = below(4); i > 0; --i)
                sendNegotiation(bytes::message(static_cast<char>(1 + below(3)), anyId(),
                                               m_lan.random().onceIn(2) ? std::uint8_t{1} : anyId()));
            break;
        case 5:
            send(beacon(*this));
            break;
        case 6:
            send(noise(*this));
            break;
        case 7: // a reset, and what is hardly a message
            sendNegotiation("\x20\xA1");
            for (int code = 0; code <= 0xFF; ++code) {
                const char other = m_lan.random().onceIn(8) ? '\xA2' : '\xA1';
                const std::string whole{static_cast<char>(code), other, static_cast<char>(anyId()), 1, 0};
                sendNegotiation(whole.substr(0, below(whole.size() + 1)));
            }
            break;
        default:
            send(query(*this, interfaces[0].address));
        }
    }
    void send(Datagram datagram) {
        m_lan.send(*this, below(interfaces.size()), m_lan.keep(std::move(datagram)));
    }
    void sendAnnouncement(const std::string& name) {
        const auto form = static_cast<Form>(below(kForms));
        const auto id = static_cast<std::uint8_t>(16 + below(48));
        send(announcement(*this, address(9, 1 + below(3)), name, id, form));
    }
    void sendNegotiation(std::string_view bytes) { send(negotiation(*this, bytes)); }
    std::string newName() { return "F" + std::to_string(m_forged++); }
    std::uint32_t below(std::size_t end) { return m_lan.random().below(static_cast<std::uint32_t>(end)); }

    Lan& m_lan;
    const std::vector<std::string>& m_radars;
    std::uint32_t m_rate = 1;
    std::uint32_t m_forged = 0; // counts names
    std::uint32_t m_floodLeft = 0;
    std::uint32_t m_floodSources = 1;
    std::size_t m_floodInterface = 0;
};

} // namespace simulation
