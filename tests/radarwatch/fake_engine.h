/// @file
/// An engine that says what a test wants.
#pragma once

#include "../test.h"
#include <RadarWatch/stream_private.h>

#include <arpa/inet.h>
#include <net/if.h>

#include <list>

/// Tells the situation, and a tick, on the thread that makes or changes something, and ticks fifty times a
/// second on one of its own.
class FakeEngine : public radar::detail::Engine {
public:
    FakeEngine() {
        m_situation.localAddress = inet_addr("10.20.2.1");
        m_situation.device = "eth0";
        m_situation.interfaceIndex = ::if_nametoindex("eth0");
        m_thread = std::thread([this] { run(); });
    }
    ~FakeEngine() override {
        m_ending = true;
        m_thread.join();
    }

    void follow(const std::string&, std::shared_ptr<radar::detail::Follower> follower) override {
        const std::lock_guard lock(m_mutex);
        follower->onSituation(m_situation);
        m_followers.push_back(std::move(follower));
    }
    void unfollow(const radar::detail::Follower* follower) override {
        const std::lock_guard lock(m_mutex);
        m_followers.remove_if([&](const auto& one) { return one.get() == follower; });
    }

    /// Changes the situation.
    template <class Change>
    void tell(Change change) {
        const std::lock_guard lock(m_mutex);
        change(m_situation);
        for (const auto& follower : m_followers)
            follower->onSituation(m_situation);
    }
    /// A tick, as if so much more time had passed.
    void pass(std::chrono::milliseconds time) {
        const std::lock_guard lock(m_mutex);
        m_passed += time;
        for (const auto& follower : m_followers)
            follower->onTick(std::chrono::steady_clock::now() + m_passed);
    }
    /// North's image is there from now on, and its control.
    void tellImage(const char* address, std::uint16_t port, std::uint8_t type = 0) {
        tell([&](radar::detail::Situation& situation) {
            radar::Radar radar;
            radar.name = "North";
            radar.streams.resize(1);
            radar.streams[0].imageStream =
                radar.streams[0].imageCtrl = {inet_addr(address), htons(port), type};
            situation.radar = radar;
        });
    }

private:
    void run() {
        for (; !m_ending; std::this_thread::sleep_for(std::chrono::milliseconds(20)))
            pass({});
    }

    std::mutex m_mutex; // guards the next three
    std::chrono::milliseconds m_passed{};
    radar::detail::Situation m_situation;
    std::list<std::shared_ptr<radar::detail::Follower>> m_followers;
    std::atomic<bool> m_ending = false;
    std::thread m_thread;
};
