#include "attacker.h"

namespace simulation {

namespace {

constexpr std::uint32_t kFloodNames = 4096 + 400;
constexpr std::uint32_t kFloodNewcomers = 100; // the last of them, each from a source of its own
constexpr std::uint32_t kFloodPerMillisecond = 2;

} // namespace

Attacker::Attacker(Lan& lan, std::vector<Interface> on, const std::vector<std::string>& radars)
    : Node("attacker", std::move(on)), m_lan(lan), m_radars(radars) {
    lan.add(*this);
}

void Attacker::start(std::uint32_t rate) {
    m_rate = rate;
    m_lan.switchOn(*this);
    m_lan.schedule(*this, 1000, kAct);
}

void Attacker::flood(std::uint32_t sources) {
    if (m_floodLeft > 0)
        return;
    m_floodLeft = kFloodNames;
    m_floodSources = sources;
    m_floodInterface = below(interfaces.size());
    m_lan.schedule(*this, 0, kFlood);
}

void Attacker::timer(int which) {
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
        m_lan.send(
            *this, m_floodInterface,
            m_lan.keep(announcement(*this, source, "F" + std::to_string(m_forged++), 63, Form::Short)));
    }
    if (m_floodLeft > 0)
        m_lan.schedule(*this, 1, kFlood);
}

void Attacker::send(Datagram datagram) {
    m_lan.send(*this, below(interfaces.size()), m_lan.keep(std::move(datagram)));
}

void Attacker::sendAnnouncement(const std::string& name) {
    const auto form = static_cast<Form>(below(kForms));
    const auto id = static_cast<std::uint8_t>(16 + below(48));
    send(announcement(*this, address(9, 1 + below(3)), name, id, form));
}

void Attacker::act() {
    const auto anyId = [&] { return static_cast<std::uint8_t>(below(3) == 0 ? 1 : 16 + below(48)); };
    switch (below(9)) {
    case 0: // new names
        for (std::uint32_t i = below(20); i > 0; --i)
            sendAnnouncement("F" + std::to_string(m_forged++));
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
    case 7: // a reset, and what is none
        sendNegotiation("\x20\xA1");
        sendNegotiation("\x20\xA1x");
        break;
    default:
        send(query(*this, interfaces[0].address));
    }
}

} // namespace simulation
