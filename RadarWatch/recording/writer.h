/// @file
/// Writes recordings: a file, or a ring of files, behind a queue that never makes anybody wait.
#pragma once

#include <RadarWatch/recording/pcapng.h>

#include <UdpSocket/base/descriptor.h>
#include <UdpSocket/base/mutex.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <system_error>
#include <thread>

namespace radar::recording {

/// Blocks on their way to the file, whole ones.
struct Chunk {
    std::string interfaces; ///< the blocks of all interfaces that there are so far; grows from chunk to chunk
    std::string blocks;
};

/// Life cycle: writes from construction to finish(), or to the first call that the system refuses, memory to
/// begin a file of a ring included. A file ends behind a whole block, whatever happens; its statistics stand
/// last, where there is room for them. The files of a ring have numbers in their names, from behind the
/// highest that is there.
///
/// Threads: a thread that writes, from construction to finish() or destruction, which wait until it has
/// written what it was given. give() and the getters: any thread.
class Writer {
public:
    struct Options {
        std::string path;             ///< refused where it is a file with something in it
        std::string application;      ///< that writes, with its version
        std::uint64_t rotateAt = 0;   ///< bytes of a file of a ring; 0: one file
        std::size_t keep = 0;         ///< files of the ring, beside those of earlier ones; 0: all
        std::size_t queue = 64 << 20; ///< bytes that may wait
    };

    /// @param closing composes what ends a file; called on the writing thread, without a lock
    /// @param failed  called once, on the writing thread, when nothing is written any more
    /// @throws std::system_error, with ENXIO for a FIFO that nobody reads
    Writer(Options options, std::function<Chunk()> closing, std::function<void()> failed);
    ~Writer() { finish(); }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    /// Takes the blocks, and leaves them where there is no room in the queue, or nothing is written any more.
    /// Never waits for the file. @return whether it took them
    bool give(Chunk& chunk);

    /// Writes what waits, and ends; gives up where a FIFO's reader takes nothing for a second (ETIMEDOUT). A
    /// second call does nothing.
    void finish();

    /// Why nothing is written any more.
    std::error_code failure() const { return {m_error, std::generic_category()}; }
    /// Of the last file. Behind finish().
    const std::string& path() const { return m_ring.back(); }
    /// All files together, those deleted included.
    std::uint64_t bytes() const { return m_total; }

private:
    void open();
    void run();
    bool write(std::string_view blocks);
    bool waitForReader();
    bool writeChunk(const Chunk& chunk);
    bool append(const Chunk& chunk);
    void close();
    void fail(int error);

    const Options m_options;
    const std::function<Chunk()> m_closing;
    const std::function<void()> m_failed;
    std::atomic<int> m_error = 0;
    std::atomic<std::uint64_t> m_total = 0;

    net::detail::Mutex m_mutex;
    net::detail::Condition m_given;
    std::deque<Chunk> m_queue GUARDED_BY(m_mutex);
    std::size_t m_queued GUARDED_BY(m_mutex) = 0; // bytes
    bool m_ending GUARDED_BY(m_mutex) = false;

    // Of the thread, but in the constructor.
    net::detail::Descriptor m_file;
    std::uint64_t m_size = 0;       // of the file
    std::size_t m_interfaces = 0;   // bytes of their blocks that the file has
    unsigned int m_number = 0;      // of the file in the ring
    std::deque<std::string> m_ring; // paths
    bool m_isRunning = false;       // the constructor has done its part
    std::thread m_thread;
};

} // namespace radar::recording
