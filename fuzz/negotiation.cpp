// What happens to hosts that have not logged in, that hold id 1, and that hold another: each byte of the
// input is an event, but where a message of the group begins, that is received.
#include "support.h"

#include <UdpSocket/protocol/negotiation.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

using namespace std::chrono_literals;
using protocol::Negotiation;
using State = Negotiation::State;

/// Looks after every event at what must hold.
class Host {
public:
    /// @param id held; 0: none
    explicit Host(std::uint8_t id) {
        if (id == 0)
            return;
        login(id);
        while (m_host.state() != State::Holding)
            wait(1s);
    }

    void wait(std::chrono::milliseconds time) {
        m_now += time;
        const State before = m_host.state();
        const auto due = m_host.due();
        const auto output = m_host.advance(m_now);
        const bool over = due && *due <= m_now;
        fuzz::require(!output.reset && (output.message || output.loggedIn) == over);
        fuzz::require(over || m_host.state() == before);
        if (output.loggedIn)
            fuzz::require(before == State::Confirming && m_host.state() == State::Holding &&
                          !output.message && *output.loggedIn == m_host.hostId());
        if (output.message)
            fuzz::require((output.message->code == wire::kProbe && m_host.state() == State::Probing) ||
                          (output.message->code == wire::kConfirm && before == State::Probing &&
                           m_host.state() == State::Confirming));
        fuzz::require(!over || !m_host.due() || *m_host.due() == m_now + 1s);
        look(output);
    }
    void receive(std::string_view datagram) {
        const State before = m_host.state();
        const std::uint8_t id = m_host.hostId();
        const auto output = m_host.receive(datagram);
        fuzz::require(output.reset == (datagram == wire::text(wire::kReset)) && !output.loggedIn);
        if (output.message)
            fuzz::require(output.message->code == wire::kObjection && before == State::Holding);
        const bool given = before == State::Holding && m_host.state() == State::Claiming;
        fuzz::require(given || (m_host.state() == before && m_host.hostId() == id));
        look(output);
    }
    void login(std::uint8_t id) {
        const bool out = m_host.state() == State::Out;
        fuzz::require(m_host.login(id) == out);
        if (out)
            m_chosen = id;
        look({});
    }
    void withdraw() {
        const State before = m_host.state();
        m_host.withdraw();
        fuzz::require(m_host.state() == before ||
                      (before == State::Claiming && m_host.state() == State::Out));
        look({});
    }
    void keep() {
        const State before = m_host.state();
        m_host.keep();
        fuzz::require(m_host.state() == before ||
                      (before == State::Claiming && m_host.state() == State::Holding));
        look({});
    }

private:
    void look(const Negotiation::Output& output) {
        const bool busy = m_host.state() != State::Out && m_host.state() != State::Holding;
        fuzz::require(m_host.due().has_value() == busy);
        const std::uint8_t id = m_host.hostId();
        fuzz::require(id == m_chosen || (id >= 16 && id <= 63));
        if (output.message)
            fuzz::require(output.message->hostId == id && output.message->one == 1);
    }

    Negotiation m_host{protocol::IdDraw(7), 1000ms};
    Negotiation::TimePoint m_now{1h};
    std::uint8_t m_chosen = 0;
};

/// How long a message at the beginning of @p rest is; 0: there is none.
std::size_t messageLength(std::string_view rest) {
    if (rest.size() < 2 || rest[1] != wire::kProbe[1])
        return 0;
    return std::min(rest.size(),
                    wire::hasCode(rest, wire::kReset) ? wire::kReset.size() : sizeof(wire::Negotiation));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    for (const std::uint8_t id : std::initializer_list<std::uint8_t>{0, 1, 20}) {
        Host host(id);
        for (std::string_view rest = fuzz::text(data, size); !rest.empty();) {
            if (const std::size_t length = messageLength(rest); length != 0) {
                host.receive(rest.substr(0, length));
                rest.remove_prefix(length);
                continue;
            }
            const auto event = static_cast<std::uint8_t>(rest[0]);
            const auto value = static_cast<std::uint8_t>(event >> 3);
            rest.remove_prefix(1);
            switch (event % 8) {
            case 0:
                host.login(value);
                break;
            case 1:
                host.withdraw();
                break;
            case 2:
                host.keep();
                break;
            case 3: // a datagram of any length
                host.receive(rest.substr(0, value));
                rest.remove_prefix(std::min<std::size_t>(rest.size(), value));
                break;
            default:
                host.wait(value * 100ms);
            }
        }
    }
    return 0;
}
