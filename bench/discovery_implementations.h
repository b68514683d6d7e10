/// @file
/// Discovery by each of the implementations, behind one interface.
#pragma once

#include "bench.h"

#include <memory>
#include <string>
#include <vector>

namespace bench {

constexpr int kHosts = 49;

/// The display's side. Everything that may stand before a search is made by the constructor.
class Finder {
public:
    virtual ~Finder() = default;
    /// Searches until @p hosts are known. @return milliseconds
    /// @throws std::runtime_error when they are not all found in time
    virtual double find(int hosts) = 0;
    /// The process to measure instead of the calling one; 0: none.
    virtual pid_t helper() const { return 0; }
};

struct DiscoveryImplementation {
    std::string name;
    int searches;     ///< in a row by one finder
    bool oneComputer; ///< all hosts run on one
    /// Makes host @p number on the calling process, which then waits; what it returns lives until the end.
    std::shared_ptr<void> (*host)(int number);
    std::unique_ptr<Finder> (*finder)();
};

/// Raw system calls first, the library second, then its competitors.
const std::vector<DiscoveryImplementation>& discoveryImplementations();

DiscoveryImplementation cycloneDds();
DiscoveryImplementation gssdp();
DiscoveryImplementation czmqBeacon();
DiscoveryImplementation avahi();

inline constexpr const char* kInterface = "eth0";
inline const std::string kFinderIp = "10.20.2.1";

/// The record that every host announces, as long as a radar's announcement.
std::string hostRecord(int number);

} // namespace bench
