/// @file
/// Which entries of the list came, changed and left.
#pragma once

#include "listing.h"

#include <chrono>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

/// An entry since it was seen first.
struct Sighting {
    radar::Radar entry; ///< as it was last
    std::chrono::steady_clock::time_point appeared;
    std::chrono::system_clock::time_point first; ///< the same as a time of day
    std::chrono::system_clock::time_point last;  ///< of its last announcement
};

struct Change {
    enum class Kind { Appeared, Changed, Left };
    Kind kind;
    Sighting sighting;
    std::vector<std::string> what{};          ///< has changed, as JSON names it
    std::set<std::string> sharesHostIdWith{}; ///< names of radars
    radar::Event::Reason reason{};            ///< why it left, as a program and as a person reads it
    std::string successor{};                  ///< the radar that is announced in its place
    std::string whyLeft{};
};

/// Takes the events of a Watch.
class History {
public:
    struct Gone {
        Sighting sighting;
        std::string why;
        std::chrono::steady_clock::time_point since;
    };

    explicit History(radar::Watch& watch) : m_watch(watch) {}

    /// What has happened since the last call.
    std::vector<Change> next();

    /// By name.
    const std::map<std::string, Sighting>& present() const { return m_present; }
    /// Those that left within the last minute, kMaxGone at most.
    const std::deque<Gone>& gone();
    const SharedIds& sharedIds() const { return m_sharedIds; }

private:
    static constexpr std::size_t kMaxGone = 256; // anybody can announce names

    void take(const radar::Event& event);
    void takeRadar(const radar::Event& event);
    void forget(Change& change);
    /// What happened to a radar without a change of its own. @param hostId of the entries meant; 0: all
    void touch(const radar::Radar& radar, int hostId, const char* what);
    void add(Change::Kind kind, const Sighting& sighting, std::vector<std::string> what = {});
    std::string whyLeft(const Change& change) const;

    radar::Watch& m_watch;
    std::map<std::string, Sighting> m_present;
    std::deque<Gone> m_gone; // the earliest first
    SharedIds m_sharedIds;
    std::uint32_t m_lostAddress = 0; // what was the local address, and is no longer
    std::vector<Change> m_changes;   // that next() returns
};
