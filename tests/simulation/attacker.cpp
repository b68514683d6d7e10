#include "attacker.h"

namespace simulation {

namespace {

constexpr std::uint32_t kFloodNames = 4096 + 400;
constexpr std::uint32_t kFloodNewcomers = 100; // the last of them, each from a source of its own
constexpr std::uint32_t kFloodPerMillisecond = 2;
constexpr Time kKeepPeriod = 4000;

} // namespace

Attacker::Attacker(Lan& lan, std::vector<Interface> on, const std::vector<std::string>& radars,
                   std::uint32_t keptNames)
    : Node("attacker", std::move(on)), m_lan(lan), m_radars(radars), m_keptNames(keptNames) {
    lan.add(*this);
}

void Attacker::start(std::uint32_t rate) {
    m_rate = rate;
    m_lan.switchOn(*this);
    m_lan.schedule(*this, 1000, kAct);
    for (std::uint32_t i = 0; i < m_keptNames; ++i)
        m_kept.push_back(m_lan.keep(announcement(m_lan, *this, address(0, 100 + i % 100),
                                                 "kept" + std::to_string(i), 20, Form::Long)));
    if (!m_kept.empty())
        m_lan.schedule(*this, 0, kKeepNames);
}

void Attacker::flood(std::uint32_t sources) {
    if (m_floodLeft > 0)
        return;
    m_floodLeft = kFloodNames;
    m_floodSources = sources;
    m_floodInterface = anyInterface();
    m_lan.schedule(*this, 0, kFlood);
}

void Attacker::timer(int which) {
    if (which == kAct) {
        if (m_lan.random().onceIn(m_rate))
            act();
        m_lan.schedule(*this, 1000, kAct);
    } else if (which == kKeepNames) {
        for (const DatagramId id : m_kept)
            m_lan.send(*this, 0, id);
        m_lan.schedule(*this, kKeepPeriod, kKeepNames);
    } else {
        const auto source = [this] {
            return m_floodLeft > kFloodNewcomers ? address(9, 1 + m_floodLeft % m_floodSources)
                                                 : address(8, m_floodLeft);
        };
        for (std::uint32_t i = 0; i < kFloodPerMillisecond && m_floodLeft > 0; ++i, --m_floodLeft)
            m_lan.send(*this, m_floodInterface,
                       m_lan.keep(announcement(m_lan, *this, source(), "F" + std::to_string(m_forged++), 63,
                                               Form::Short)));
        if (m_floodLeft > 0)
            m_lan.schedule(*this, 1, kFlood);
    }
}

void Attacker::sendAnnouncement(const std::string& name, std::uint32_t source) {
    const auto id = static_cast<std::uint8_t>(16 + m_lan.random().below(48));
    const auto form = static_cast<Form>(m_lan.random().below(kForms));
    m_lan.send(*this, anyInterface(), m_lan.keep(announcement(m_lan, *this, source, name, id, form)));
}

void Attacker::sendNegotiation(std::string_view bytes) {
    m_lan.send(*this, anyInterface(), m_lan.keep(negotiation(*this, bytes)));
}

void Attacker::act() {
    Random& random = m_lan.random();
    const auto anyId = [&] {
        return random.onceIn(3) ? std::uint8_t{1} : static_cast<std::uint8_t>(16 + random.below(48));
    };
    const auto anyCode = [&] { return static_cast<char>(1 + random.below(3)); };
    switch (random.below(9)) {
    case 0: // new names
        for (std::uint32_t i = random.below(20); i > 0; --i)
            sendAnnouncement("F" + std::to_string(m_forged++), address(9, 1 + random.below(3)));
        break;
    case 1: // a radar's name
        sendAnnouncement(m_radars[random.below(static_cast<std::uint32_t>(m_radars.size()))],
                         address(9, 1 + random.below(3)));
        break;
    case 2:
        sendNegotiation(bytes::message(bytes::kObjection, anyId()));
        break;
    case 3: // to every id
        for (std::uint8_t id = 0; id < 64; ++id)
            sendNegotiation(bytes::message(bytes::kObjection, id));
        break;
    case 4: // whatever byte a holder looks at, several at once
        for (std::uint32_t i = random.below(4); i > 0; --i)
            sendNegotiation(bytes::message(anyCode(), anyId(), random.onceIn(2) ? std::uint8_t{1} : anyId()));
        break;
    case 5:
        m_lan.send(*this, anyInterface(), m_lan.keep(beacon(*this)));
        break;
    case 6:
        m_lan.send(*this, anyInterface(), m_lan.keep(noise(*this, Traffic::Announcement)));
        m_lan.send(*this, anyInterface(), m_lan.keep(noise(*this, Traffic::Beacon)));
        break;
    case 7: // a reset, and what is none
        sendNegotiation("\x20\xA1");
        sendNegotiation("\x20\xA1x");
        break;
    default:
        m_lan.send(*this, anyInterface(), m_lan.keep(query(*this, interfaces[0].address)));
    }
}

} // namespace simulation
