#include <RadarWatch/recording/writer.h>

#include <UdpSocket/base/thread.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <utility>

namespace radar::recording {

namespace {

/// "a/b.pcapng" and 7: "a/b-00007.pcapng".
std::string numbered(const std::string& path, unsigned int number) {
    const std::size_t name = path.find_last_of('/') + 1; // 0 where there is no directory
    const std::size_t dot = path.find_last_of('.');
    const std::size_t end = dot == std::string::npos || dot <= name ? path.size() : dot;
    char text[16];
    std::snprintf(text, sizeof text, "-%05u", number);
    return path.substr(0, end) + text + path.substr(end);
}

/// The highest number of a file that is there; 0: there is none.
unsigned int highestNumber(const std::filesystem::path& path) {
    const std::string ours = path.filename();
    const std::size_t digits = path.stem().string().size() + 1; // behind the hyphen
    unsigned int highest = 0;
    std::error_code unreadable; // open() says what it means
    for (const auto& entry : std::filesystem::directory_iterator(path.parent_path() / ".", unreadable)) {
        const std::string name = entry.path().filename();
        unsigned int number = 0;
        std::from_chars(name.data() + std::min(digits, name.size()), name.data() + name.size(), number);
        if (name == numbered(ours, number))
            highest = std::max(highest, number);
    }
    return highest;
}

bool hasContent(const std::string& path) {
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
}

} // namespace

Writer::Writer(Options options, std::function<Chunk()> closing, std::function<void()> failed)
    : m_options(std::move(options)), m_closing(std::move(closing)), m_failed(std::move(failed)) {
    if (m_options.rotateAt != 0)
        m_number = highestNumber(m_options.path); // so that names stay in the order of time
    open();
    if (m_error != 0)
        throw std::system_error(failure(), m_ring.back());
    m_isRunning = true;
    m_thread = net::detail::startThread("radar-write", [this] { run(); });
}

bool Writer::give(Chunk& chunk) {
    if (m_error != 0)
        return false;
    {
        const std::size_t bytes = chunk.blocks.size();
        net::detail::Lock lock(m_mutex);
        if (m_ending || m_queued + bytes > m_options.queue)
            return false;
        m_queue.push_back(std::move(chunk));
        m_queued += bytes;
    }
    m_given.notify_one();
    return true;
}

void Writer::finish() {
    {
        net::detail::Lock lock(m_mutex);
        m_ending = true;
    }
    m_given.notify_one();
    if (m_thread.joinable())
        m_thread.join();
}

void Writer::run() {
    for (;;) {
        Chunk chunk;
        {
            net::detail::Lock lock(m_mutex);
            m_given.wait(lock, [this]() REQUIRES(m_mutex) { return m_ending || !m_queue.empty(); });
            if (m_queue.empty())
                break;
            chunk = std::move(m_queue.front());
            m_queue.pop_front();
        }
        bool written = false;
        if (!net::detail::runStep("recording: what follows", [&] { written = writeChunk(chunk); }))
            fail(ENOMEM); // where a file of the ring begins
        net::detail::Lock lock(m_mutex);
        m_queued -= chunk.blocks.size(); // room again: never more than that in memory
        if (!written)
            break;
    }
    close();
    if (m_error == 0 && ::fsync(m_file.get()) != 0 && errno != EINVAL) // a pipe or a device has no such thing
        fail(errno);
    m_file.reset();
}

/// A new file of the ring, or the only one.
void Writer::open() {
    const std::string section = sectionBlock(m_options.application); // first: no file is left without one
    const bool isRing = m_options.rotateAt != 0;
    m_ring.push_back(isRing ? numbered(m_options.path, ++m_number) : m_options.path);
    if (hasContent(m_ring.back()))
        return fail(EEXIST);
    m_file = net::detail::Descriptor(
        ::open(m_ring.back().c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0666));
    if (!m_file.isOpen())
        return fail(errno);
    m_size = 0;
    m_interfaces = 0;
    if (!write(section))
        return;
    if (m_options.keep != 0 && m_ring.size() > m_options.keep) {
        if (::unlink(m_ring.front().c_str()) != 0)
            std::perror(("recording: cannot delete " + m_ring.front()).c_str());
        m_ring.pop_front();
    }
}

bool Writer::writeChunk(const Chunk& chunk) {
    if (m_options.rotateAt != 0 && m_size + chunk.blocks.size() > m_options.rotateAt && m_interfaces != 0) {
        close();
        m_file.reset();
        if (m_error == 0)
            open();
    }
    return m_error == 0 && append(chunk);
}

bool Writer::append(const Chunk& chunk) {
    if (chunk.interfaces.size() > m_interfaces) {
        if (!write(std::string_view(chunk.interfaces).substr(m_interfaces)))
            return false;
        m_interfaces = chunk.interfaces.size();
    }
    return write(chunk.blocks);
}

/// @return false when nobody takes anything for a second and the recording is to end (errno)
bool Writer::waitForReader() {
    constexpr int kPatience = 1000; // ms
    pollfd reader{m_file.get(), POLLOUT, 0};
    for (bool mayWait = true; ::poll(&reader, 1, kPatience) <= 0;) {
        if (!mayWait) {
            errno = ETIMEDOUT;
            return false;
        }
        const net::detail::Lock lock(m_mutex);
        mayWait = m_isRunning && !m_ending;
    }
    return true;
}

/// What does not fit is cut behind its last whole block.
bool Writer::write(std::string_view blocks) {
    std::size_t done = 0;
    while (done < blocks.size()) {
        const ssize_t count = ::write(m_file.get(), blocks.data() + done, blocks.size() - done);
        if (count >= 0) {
            done += static_cast<std::size_t>(count);
        } else if (errno != EINTR && (errno != EAGAIN || !waitForReader())) {
            const int error = errno;
            done = wholeBlocks(blocks.substr(0, done));
            if (::ftruncate(m_file.get(), static_cast<off_t>(m_size + done)) == 0)
                ::lseek(m_file.get(), static_cast<off_t>(m_size + done), SEEK_SET);
            else
                m_file.reset(); // nothing follows half a block
            fail(error);
            break;
        }
    }
    m_size += done;
    m_total += done;
    return done == blocks.size();
}

void Writer::close() {
    if (m_file.isOpen())
        net::detail::runStep("recording: the statistics of a file", [this] { append(m_closing()); });
}

void Writer::fail(int error) {
    int none = 0;
    if (m_error.compare_exchange_strong(none, error) && m_isRunning)
        m_failed();
}

} // namespace radar::recording
