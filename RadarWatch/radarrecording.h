/// @file
/// RadarWatch: a recording in place of a LAN, for tests of applications.
///
/// Errors and processes: as in radarwatch.h.
#pragma once

#include <RadarWatch/radarwatch.h>

#include <cstdint>
#include <memory>
#include <string>

namespace radar {

class Recording;

/// Opens a pcapng file of this machine's byte order: of radarctl record, or of other programs.
/// @param speed   so many times as fast; 0: as fast as the streams take it
/// @param streams that are to listen before it begins; 0: it begins as soon as a Watch hears it
/// @throws std::system_error, std::bad_alloc; std::runtime_error where it is no such file;
///         std::invalid_argument for a speed that is none
__attribute__((visibility("default"))) Recording openRecording(const std::string& path, double speed = 1,
                                                               unsigned streams = 1);

/// What a recording holds lives again in this process, without a network: a Watch with its local address, and
/// Streams on that, hear the radars that were recorded, and none else.
///
/// Its radars are there from the first moment, where they announced themselves in its first two seconds.
/// It stands at that moment until as many streams listen as were asked for, so that none misses anything
/// (one of a radar that comes later does not listen yet: ask for 0 where there is no other);
/// then all comes in the recorded order and, but for their arrival, which is the recorded one, as if it came
/// now. Where a clock was set back between two datagrams, the second and all behind it have later arrivals
/// than the file, so that they follow each other. What a stream has no room for waits until the stream takes
/// it, and all else with it; a stream that takes nothing for a second loses what it has no room for, until it
/// takes something again. At the end the radars are silent, and leave; a file that is broken or that the
/// system cannot read any more, or memory that runs out meanwhile, ends it there, with a line on standard
/// error. What is sent to them goes nowhere; TCP services are refused.
///
/// A value: copies mean the same recording, whose local address is lost with the last of them.
///
/// Threads: one that reads the file and hands over, as long as a copy stands. Any thread may call any
/// operation; none waits.
class __attribute__((visibility("default"))) Recording {
public:
    /// For Watch::Options::localAddress, network order: of no interface.
    std::uint32_t localAddress() const;
    /// Everything has been handed over to the streams, which may still have to take it.
    bool isOver() const;
    /// Datagrams that streams lost since they took nothing.
    std::uint64_t dropped() const;

private:
    friend Recording openRecording(const std::string& path, double speed, unsigned streams);
    Recording() = default;
    std::shared_ptr<class RecordedLan> d;
};

} // namespace radar
