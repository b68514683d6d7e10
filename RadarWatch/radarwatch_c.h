/// @file
/// RadarWatch for C, and for every language that calls C: C99 and later, C++.
///
/// Results: 0 or more is success, less is an error number of <errno.h>, negated. -EINVAL: a pointer is null
/// that must not be, a number is out of its range, or a `size` is unknown. -ENOMEM, -EMFILE, -EAGAIN and the
/// like: the system refused memory, descriptors or threads. No exception leaves a function.
///
/// Structures: those that begin with `size` may grow in later versions. Set it to the structure's sizeof
/// before a call: a later library fills what the program was compiled with. A size that the library does not
/// know is refused. Of an array, the first element's counts for all. Enumerations may grow, too: pass over
/// what you do not know.
///
/// Addresses and ports are in network byte order, as struct sockaddr_in has them. Names are bytes of any kind
/// but zero, and end with a zero byte: show them escaped.
///
/// Threads: no function of the caller's is ever called. Any thread may call any function; only those that say
/// so wait. A handle that is freed must not be in use by another thread, except by one that waits, which
/// returns 0 (radar_control_send: see there). Handles may be freed in any order.
///
/// Processes: handles belong to the process that made them. In a child made by fork their functions do
/// nothing, and return as if nothing were there (a descriptor: -1); a stream or control on the parent's watch
/// is refused (-EINVAL). A program may end while any handle stands.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Stands before each function: the library exports it.
#define RADAR_API __attribute__((visibility("default")))

enum {
    RADAR_NAME_SIZE = 24, ///< room for a name of 16 bytes, a suffix (":User", ":TCP") and the zero byte
    RADAR_MAX_STREAMS = 2,
    RADAR_MAX_HOLDERS = 16,
    RADAR_INTERFACE_SIZE = 16
};

/// What a stream consists of, each with an endpoint of its own.
enum radar_channel {
    RADAR_IMAGE,
    RADAR_IMAGE_CONTROL,
    RADAR_IMAGE_STATE,
    RADAR_ARPA,
    RADAR_ARPA_CONTROL,
    RADAR_ARPA_STATE,
    RADAR_ORIGINAL,           ///< the unprocessed image
    RADAR_INFORMATION_DEVICE, ///< the first of ten; + 1 is the second, and so on
    RADAR_CHANNELS = RADAR_INFORMATION_DEVICE + 10
};

/// What the display has to be, to receive or send there.
enum radar_kind { RADAR_UDP, RADAR_TCP_SERVER, RADAR_TCP_CLIENT };

/// Where a channel is sent. This structure does not grow.
typedef struct radar_endpoint {
    uint32_t address; ///< 0: there is none
    uint16_t port;    ///< network byte order
    uint8_t kind;     ///< enum radar_kind: what the display has to be
    uint8_t unused;   ///< 0
} radar_endpoint;

/// Of the library that is loaded: "1.0.0". Never freed.
RADAR_API const char* radar_version(void);

/// The endpoints of one stream of a host, by the plan of host ids.
/// @param host_id 1, or 16 to 63 @param stream 0 or 1 @return -EINVAL for any other
RADAR_API int radar_groups(int host_id, int stream, radar_endpoint endpoints[RADAR_CHANNELS]);

/// One radar, as it announces itself.
typedef struct radar_entry {
    size_t size;                ///< sizeof this structure
    char name[RADAR_NAME_SIZE]; ///< without suffix
    int32_t host_id;            ///< 0: its endpoints are not in the plan
    uint32_t source;            ///< the address that its last announcement came from
    int64_t age;                ///< milliseconds since its last announcement, when this was told
    int32_t stream_count;       ///< of `streams`; 0 where only its TCP service is to be used
    uint8_t user;               ///< 1: its user chose endpoints of streams[0]: the variant ":User"
    uint8_t has_tcp;            ///< 1: `tcp` holds its TCP service: the variant ":TCP"
    radar_endpoint streams[RADAR_MAX_STREAMS][RADAR_CHANNELS]; ///< by number and channel
    radar_endpoint tcp[RADAR_CHANNELS];                        ///< by channel
} radar_entry;

/// Why a local address is in force.
enum radar_origin {
    RADAR_ORIGIN_NONE,              ///< there is no local address yet, or no longer
    RADAR_ORIGIN_OPTIONS,           ///< it was given to the watch
    RADAR_ORIGIN_PROFILE_ADDRESS,   ///< [Local] IP of profile.ini
    RADAR_ORIGIN_PROFILE_INTERFACE, ///< [Local] NetName of profile.ini
    RADAR_ORIGIN_SEARCH             ///< a radar was heard on it
};

/// The local address that leads to the radars.
typedef struct radar_local {
    size_t size;                               ///< sizeof this structure
    uint32_t address;                          ///< 0: there is none
    int32_t origin;                            ///< enum radar_origin
    char interface_name[RADAR_INTERFACE_SIZE]; ///< that has the address
} radar_local;

/// What happened, and which members of radar_event tell of it.
enum radar_event_kind {
    RADAR_APPEARED,       ///< radar: as it announces itself
    RADAR_CHANGED,        ///< radar: as it announces itself now; changes
    RADAR_LEFT,           ///< radar: as it was last; reason, successor
    RADAR_CONFLICT,       ///< host_id, holders: several radars have one host id, or others than before
    RADAR_CONFLICT_ENDED, ///< host_id, holders: who is left
    RADAR_LOCAL_FOUND,    ///< local
    RADAR_LOCAL_CHANGED,  ///< local, previous
    RADAR_LOCAL_LOST      ///< previous: this computer has that address no more
};

/// Why a radar left.
enum radar_reason {
    RADAR_REASON_NONE,
    RADAR_REASON_SILENT,        ///< for eight seconds
    RADAR_REASON_RENUMBERED,    ///< its host was told to give up its id, or announces successor under another
    RADAR_REASON_RENAMED,       ///< its host announces successor under the same id
    RADAR_REASON_LOCAL_ADDRESS, ///< not heard since the local address changed or was lost
    RADAR_REASON_DISPLACED      ///< the table of radars is full of others
};

/// Bits of radar_event::changes.
enum radar_change {
    RADAR_CHANGED_HOST_ID = 1,
    RADAR_CHANGED_SOURCE = 2,
    RADAR_CHANGED_ENDPOINTS = 4, ///< of a stream
    RADAR_CHANGED_STREAMS = 8,   ///< how many there are
    RADAR_CHANGED_VARIANTS = 16, ///< user, or has_tcp
    RADAR_CHANGED_TCP = 32       ///< endpoints of tcp
};

/// Something that happened. `size` says the layout of the structures inside, too.
typedef struct radar_event {
    size_t size;     ///< sizeof this structure
    int64_t when;    ///< nanoseconds of CLOCK_MONOTONIC
    int32_t kind;    ///< enum radar_event_kind
    uint32_t merged; ///< earlier events of this radar, host id or local address that this one stands for, too
    uint32_t changes;                                 ///< of RADAR_CHANGED: bits of enum radar_change
    int32_t reason;                                   ///< enum radar_reason
    char successor[RADAR_NAME_SIZE];                  ///< empty: none
    int32_t host_id;                                  ///< of a conflict
    int32_t holder_count;                             ///< of `holders`
    char holders[RADAR_MAX_HOLDERS][RADAR_NAME_SIZE]; ///< ascending, the first of them
    uint32_t previous;                                ///< the local address before
    radar_entry radar;                                ///< as the kind says
    radar_local local;                                ///< in force from now on
} radar_event;

/// Which radars there are on the LAN: radar::Watch of radarwatch.h, where its queue of events is described.
typedef struct radar_watch radar_watch;

/// How a watch is to look.
typedef struct radar_watch_options {
    size_t size;            ///< sizeof this structure
    uint32_t local_address; ///< to use; 0: as profile.ini says, or a search
} radar_watch_options;

/// @param watch   receives the handle, which the caller frees @param options may be null
RADAR_API int radar_watch_new(radar_watch** watch, const radar_watch_options* options);
/// Ends quickly. Null is allowed.
RADAR_API void radar_watch_free(radar_watch* watch);

/// Takes the next event. Waits. @param timeout milliseconds; negative: without end
/// @return 1: an event; 0: none, since time is up, a signal handler ran, or the watch is being freed
RADAR_API int radar_watch_next(radar_watch* watch, radar_event* event, int timeout);
/// A descriptor that is readable while events wait: for poll, epoll and event loops, which then call
/// radar_watch_next with 0. It belongs to the watch; neither read nor close it.
RADAR_API int radar_watch_descriptor(const radar_watch* watch);

/// The radars by name, ascending, as the events taken so far tell.
/// @param radars   the first one's size counts for all; may be null where capacity is 0
/// @param capacity of radars @return how many there are, which may exceed the capacity
RADAR_API int radar_watch_radars(const radar_watch* watch, radar_entry* radars, size_t capacity);
/// @param name of a radar, or of a variant of it @return 1: found; 0: there is none
RADAR_API int radar_watch_find(const radar_watch* watch, const char* name, radar_entry* radar);
/// The local address, as the events taken so far tell.
RADAR_API int radar_watch_local(const radar_watch* watch, radar_local* local);

/// Tells the host behind a radar to give up its host id and negotiate another.
/// @return -ENOENT: no such radar, it has no host id, or there is no local address
RADAR_API int radar_watch_renumber(radar_watch* watch, const char* name);
/// Sends the reset command to all radars. @return -EADDRNOTAVAIL: there is no local address
RADAR_API int radar_watch_reset(radar_watch* watch);

/// A recording in place of a LAN, for tests: radar::Recording of radarrecording.h, where it is said what
/// comes when.
typedef struct radar_recording radar_recording;

/// Opens a pcapng file of this machine's byte order.
/// @param recording receives the handle, which the caller frees
/// @param speed     so many times as fast; 0: as fast as the streams take it
/// @param streams   that are to listen before it begins; 0: it begins as soon as a watch hears it
/// @return -ENOENT and the like: it cannot be opened; -EIO: it is no such file
RADAR_API int radar_recording_open(radar_recording** recording, const char* path, double speed, int streams);
/// Ends quickly; what watches and streams have heard stays heard. Null is allowed.
RADAR_API void radar_recording_free(radar_recording* recording);
/// For radar_watch_options::local_address. @return 0: null was given
RADAR_API uint32_t radar_recording_address(const radar_recording* recording);
/// @return 1: everything has been handed over to the streams, which may still have to take it; 0: not yet
RADAR_API int radar_recording_is_over(const radar_recording* recording);
/// @return datagrams that streams lost since they took nothing for a second
RADAR_API int64_t radar_recording_dropped(const radar_recording* recording);

/// Receives one channel of one radar, wherever it goes: radar::Stream of radarstream.h, read without a
/// callback.
typedef struct radar_stream radar_stream;

/// What is 0 stands for what is said there.
typedef struct radar_stream_options {
    size_t size;                    ///< sizeof this structure
    int32_t number;                 ///< the stream's: 0 or 1
    int32_t sequence_width;         ///< bytes of the number that datagrams carry: 1 to 8; 0: they carry none
    size_t sequence_offset;         ///< bytes
    uint64_t sequence_modulus;      ///< the number that 0 follows, plus one; 0: as the width says
    int32_t sequence_little_endian; ///< 1: that number's byte order is little-endian
    int32_t unused;                 ///< 0
    size_t receive_buffer;          ///< bytes to ask the system for; 0: 1 MiB
    size_t largest_datagram;        ///< bytes, what is longer is cut; 0, and more than that: 65536
} radar_stream_options;

/// One datagram, or a piece of what came over TCP.
typedef struct radar_datagram {
    size_t size;          ///< sizeof this structure
    const void* data;     ///< the library's; valid until the stream's next radar_stream_read, or its end
    size_t length;        ///< bytes
    int64_t arrival;      ///< nanoseconds since the epoch: when the system took it from the interface
    uint32_t source;      ///< 0: it came over TCP
    uint16_t source_port; ///< network byte order
    uint16_t unused;      ///< 0
} radar_datagram;

/// What happened to a stream.
enum radar_stream_event_kind {
    RADAR_STREAM_STARTED, ///< it listens at endpoint, on the interface
    RADAR_STREAM_MOVED,   ///< it listens there now
    RADAR_STREAM_SILENT,  ///< nothing comes, nor waits, any more, while the radar still announces itself
    RADAR_STREAM_RESUMED, ///< something comes again
    RADAR_STREAM_STOPPED, ///< it does not listen any more, until the radar is back
    RADAR_STREAM_REFUSED  ///< it cannot listen there: error; tried again every second, and told once
};

/// Why it happened to a stream.
enum radar_why {
    RADAR_WHY_NONE,
    RADAR_WHY_ENDPOINT,      ///< moved: the radar has other endpoints
    RADAR_WHY_INTERFACE,     ///< moved: the interface is another one, also one of the same name
    RADAR_WHY_LOCAL_ADDRESS, ///< moved: it changed; stopped: there is none any more
    RADAR_WHY_RADAR_LEFT,    ///< stopped: it is not listed, and nothing was taken for two seconds
    RADAR_WHY_NO_ENDPOINT,   ///< stopped: it announces none for this channel
    RADAR_WHY_SWITCH_FORGOT, ///< resumed: just after the group was left and joined again
    RADAR_WHY_OTHERS_JOINED  ///< silent: others on this computer are in the group, so it was not left
};

/// Something that happened to a stream.
typedef struct radar_stream_event {
    size_t size;                               ///< sizeof this structure
    int32_t kind;                              ///< enum radar_stream_event_kind
    int32_t why;                               ///< enum radar_why
    radar_endpoint endpoint;                   ///< where it listens, or listened
    char interface_name[RADAR_INTERFACE_SIZE]; ///< of the interface there
    uint32_t others;                           ///< RADAR_WHY_OTHERS_JOINED: how many sockets
    int32_t error;                             ///< RADAR_STREAM_REFUSED: an error number, not negated
    uint32_t missed;                           ///< events before this one that nobody took in time
    uint32_t unused;                           ///< 0
} radar_stream_event;

/// What a stream counted since it was made. Times in nanoseconds, by a clock that nobody sets.
typedef struct radar_statistics {
    size_t size;                       ///< sizeof this structure
    uint64_t datagrams;                ///< or pieces of TCP
    uint64_t bytes;                    ///< of them
    uint64_t cut;                      ///< datagrams longer than largest_datagram
    double datagrams_last_second;      ///< a second, as the following three
    double bytes_last_second;          ///< until now
    double datagrams_last_ten_seconds; ///< or since the first datagram, when that is less
    double bytes_last_ten_seconds;     ///< the same
    int64_t median_gap;            ///< between one datagram and the next, to within 7 %, as the percentile
    int64_t gap_99;                ///< 99th percentile
    int64_t longest_gap;           ///< of all
    int64_t since_last;            ///< -1: nothing has come yet
    uint64_t dropped_at_socket;    ///< for want of room in the receive buffer, or of memory
    uint64_t dropped_at_interface; ///< by the interface, of everything that it receives
    uint64_t missing;              ///< by the sequence of the options, as the following two
    uint64_t repeated;             ///< came again
    uint64_t reordered;            ///< came late; not missing any more
} radar_statistics;

enum { RADAR_MOST_AT_ONCE = 32 }; ///< datagrams that one call of radar_stream_read takes

/// @param stream  receives the handle, which the caller frees
/// @param name    of a radar, or of a variant of it
/// @param channel enum radar_channel @param options may be null
RADAR_API int radar_stream_new(radar_stream** stream, const radar_watch* watch, const char* name, int channel,
                               const radar_stream_options* options);
/// Ends quickly. Null is allowed.
RADAR_API void radar_stream_free(radar_stream* stream);

/// Takes datagrams that have come. Waits for the first. One call on a stream at a time.
/// @param count   of datagrams, of which RADAR_MOST_AT_ONCE are used at most
/// @param timeout milliseconds; negative: without end
/// @return how many; 0: time is up, an event waits, a signal handler ran, or the stream is being freed
RADAR_API int radar_stream_read(radar_stream* stream, radar_datagram* datagrams, size_t count, int timeout);
/// The next event. @return 1: an event; 0: there is none
RADAR_API int radar_stream_next_event(radar_stream* stream, radar_stream_event* event);
/// A descriptor that is readable while datagrams or events wait: take both, with a timeout of 0, when it is.
/// It belongs to the stream; neither read nor close it.
RADAR_API int radar_stream_descriptor(const radar_stream* stream);
/// Until now.
RADAR_API int radar_stream_statistics(const radar_stream* stream, radar_statistics* statistics);

/// Sends to one channel of one radar, where it is now: radar::Control.
typedef struct radar_control radar_control;

/// @param control receives the handle, which the caller frees @param name, channel as for radar_stream_new
/// @param number  the stream's: 0 or 1
RADAR_API int radar_control_new(radar_control** control, const radar_watch* watch, const char* name,
                                int channel, int number);
/// Null is allowed.
RADAR_API void radar_control_free(radar_control* control);

/// One datagram from the local address, or bytes over TCP. Just after radar_control_new it waits for a
/// moment, until the way is known; then for a TCP peer that does not read, half a second where the radar
/// connects to us, without end where we connect. radar_control_free does not end that: it goes on until the
/// peer reads, or the connection is lost.
/// @return 0; -ENOENT: no such radar, or no such endpoint; -ENETDOWN: there is no local address; -ENOTCONN:
///         TCP is not connected; -EAGAIN: a radar that connects to us does not read; or what the system says
RADAR_API int radar_control_send(radar_control* control, const void* data, size_t length);

#ifdef __cplusplus
}
#endif
