/// @file
/// The display's side of discovery: which radars are there, and on which endpoints.
#pragma once

#include <string>
#include <vector>

#include <UdpSocket/radaraddress.h>

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor" // interfaces keep exactly their slots
#endif

class MultiRadarClientPrivate;

/// Hears which local address leads to the radars.
class __attribute__((visibility("default"))) iMultiRadarCheckerListener {
public:
    /// The local address has been settled or has changed. Called on the client's checker thread while its
    /// listener lock is held: return quickly, and neither add nor remove listeners from inside. addListener
    /// calls it, too.
    /// @param localIp network order
    virtual void OnLocalIpChanged(unsigned int localIp) = 0;
};

/// Finds the radars on the local network and keeps a table of them by name.
///
/// The client searches for the local address on which radars are heard (or takes the configured one,
/// profile.ini section "Local"), opens its sockets on it, and learns of radars from the answers to query().
/// It has no timer for that: call query() about once a second. An entry that has not been heard for 8 seconds
/// is removed by the next query(). The table holds 4096 names at most, many times what a LAN of radars has:
/// while it is full of forged ones, it keeps those it has.
///
/// Life cycle: getInstance() makes the one instance of the process; it is destroyed at exit. An application
/// that wants another (a test, say) constructs its own and announces it with setInstance. The destructor
/// waits for callbacks and for a receiver's "route" command in progress, and for nothing else. Threads: a
/// checker thread, short-lived probe threads during a search, and the threads of the sockets. All operations
/// may be called from any thread; see getAddress for its result. Errors: socket failures are reported on
/// standard error; diagnostics go to standard output.
class __attribute__((visibility("default"))) MultiRadarClient {
public:
    /// @throws std::system_error where the system has no thread left, getInstance() as well; the next call
    /// may succeed
    MultiRadarClient();
    ~MultiRadarClient();
    MultiRadarClient(const MultiRadarClient&) = delete;
    MultiRadarClient& operator=(const MultiRadarClient&) = delete;

    /// The instance given to setInstance, else the process's own, which the first call makes in any case.
    static MultiRadarClient* getInstance();
    /// @param instance stays the caller's; null brings the process's own back
    static void setInstance(MultiRadarClient* instance);

    /// Adds a listener unless it is there already. When a local address is known, the listener is told it at
    /// once, on the caller's thread, without a lock. The listener is not owned.
    void addListener(iMultiRadarCheckerListener* listener);
    /// Removes a listener; it is not called any more when this returns, but by an addListener of it
    /// that is under way. An unknown one is ignored.
    void removeListener(iMultiRadarCheckerListener* listener);

    /// Sets the local address to use, network order; it is taken up within 5 seconds. 0 searches for it
    /// again, and so does what net::transAddr makes of text that is no address (all ones).
    void setLocalIP(unsigned int ip);

    /// Removes the radars that were not heard for 8 seconds and asks all radars to announce themselves.
    void query();

    /// Sends the reset command to the radars; nothing happens before a local address is known.
    void resetRadar();

    /// Copies the names of the first @p max radars, in ascending order, each with its terminating zero.
    /// @return how many were copied
    int getRadar(char (*names)[24], int max) const;
    /// The names of all radars, in ascending order.
    std::vector<std::string> getRadar() const;

    /// The endpoints of one stream of a radar. A name that begins with "Default", or stream 101 of any name,
    /// gives the default record.
    /// @param stream 0 to getRadarStreamCount(name) - 1
    /// @return null when there is no such radar or stream. The record is overwritten by the next call of
    /// getAddress
    ///         or queryForAdjust on any thread: copy it at once. For @p stream equal to the stream count the
    ///         result points behind the last record and must not be read.
    const RadarAddress* getAddress(const char* name, int stream) const;

    /// How many records the table holds for a radar; 0 when there is no such radar.
    int getRadarStreamCount(const char* name) const;

    /// Makes the host behind a radar give up its host id and negotiate another; the table follows with the
    /// next announcements.
    void queryForAdjust(const char* name);

private:
    __attribute__((visibility("hidden"))) static MultiRadarClient* m_instance;
    MultiRadarClientPrivate* d;
};

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
