/// @file
/// An engine that says what a test wants.
#pragma once

#include <RadarWatch/stream_private.h>

#include "../wait.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <mutex>
#include <thread>

/// Tells the situation and ticks fifty times a second, on a thread in the network of its maker.
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
        m_followers.push_back({std::move(follower), 0});
    }
    void unfollow(const radar::detail::Follower* follower) override {
        const std::lock_guard lock(m_mutex);
        m_followers.remove_if([&](const auto& one) { return one.first.get() == follower; });
    }

    void unfollowAll() {
        const std::lock_guard lock(m_mutex);
        m_followers.clear();
    }

    /// Changes the situation.
    template <class Change>
    void tell(Change change) {
        const std::lock_guard lock(m_mutex);
        change(m_situation);
        ++m_version;
    }
    /// North's image is there from now on.
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

    /// Waits until every follower knows of the last change.
    void awaitTold() {
        EXPECT_TRUE(comesTrue([this] {
            const std::lock_guard lock(m_mutex);
            return std::ranges::all_of(m_followers,
                                       [this](const auto& one) { return one.second == m_version; });
        }));
    }

private:
    void run() {
        while (!m_ending) {
            {
                const std::lock_guard lock(m_mutex);
                for (auto& [follower, told] : m_followers) {
                    if (std::exchange(told, m_version) != m_version)
                        follower->onSituation(m_situation);
                    follower->onTick(std::chrono::steady_clock::now());
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    std::mutex m_mutex; // guards the next three
    radar::detail::Situation m_situation;
    unsigned m_version = 1;
    std::list<std::pair<std::shared_ptr<radar::detail::Follower>, unsigned>> m_followers;
    std::atomic<bool> m_ending = false;
    std::thread m_thread;
};
