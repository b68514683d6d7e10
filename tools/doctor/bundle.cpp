#include "bundle.h"

#include "../json.h"
#include "../output.h"
#include "../recorded.h"
#include "../table.h"
#include "redaction.h"

#include <RadarWatch/recording/reader.h>

#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/udpsocket.h>

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <net/route.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <fstream>
#include <functional>
#include <sstream>
#include <system_error>

namespace doctor {

namespace {

using namespace radar::recording;

std::string contentsOf(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string versions(const Observation&) {
    utsname system{};
    ::uname(&system);
    return std::string("radarctl ") + UDPSOCKET_VERSION + "\nnet::UdpSocket's library, as radarctl\n" +
           system.sysname + " " + system.release + " " + system.version + " " + system.machine + "\n\n" +
           contentsOf("/etc/os-release");
}

std::string interfaces(const Observation& seen) {
    std::string text;
    for (const Interface& one : seen.interfaces) {
        text += printable(one.name) + ": " + (one.up ? "up" : "down") +
                (one.carrier ? ", carrier" : ", no carrier") + (one.multicast ? "" : ", no multicast") +
                ", MTU " + std::to_string(one.mtu) + ", rp_filter " + std::to_string(one.rpFilter) + ", " +
                (one.hardware.empty() ? "-" : one.hardware) + "\n";
        for (const doctor::LocalAddress& address : one.addresses)
            text += "    " + doctor::text(address) + "\n";
    }
    return text;
}

std::string routes(const Observation&) {
    std::istringstream table(contentsOf("/proc/net/route"));
    std::string text = "destination netmask gateway interface metric\n";
    std::string line;
    std::getline(table, line); // the heading
    while (std::getline(table, line)) {
        std::istringstream row(line);
        std::string device, references, uses;
        unsigned int destination = 0, gateway = 0, flags = 0, metric = 0, mask = 0;
        row >> device >> std::hex >> destination >> gateway >> flags >> references >> uses;
        row >> std::dec >> metric >> std::hex >> mask;
        if (row && (flags & RTF_UP) != 0)
            text += doctor::text(destination) + " " + doctor::text(mask) + " " + doctor::text(gateway) + " " +
                    device + " " + std::to_string(metric) + "\n";
    }
    return text;
}

std::string memberships(const Observation&) {
    return contentsOf("/proc/net/igmp");
}

std::string sockets(const Observation& seen) {
    std::string text = "address port user drops\n";
    for (const UdpSocketEntry& socket : seen.socketsBefore)
        text += doctor::text(socket.ip) + " " + std::to_string(socket.port) + " " +
                std::to_string(socket.uid) + " " + std::to_string(socket.drops) + "\n";
    return text;
}

std::string limits(const Observation&) {
    std::string text;
    for (const char* path : {"/proc/sys/net/core/rmem_default", "/proc/sys/net/core/rmem_max",
                             "/proc/sys/net/core/netdev_max_backlog",
                             "/proc/sys/net/ipv4/igmp_max_memberships", "/proc/sys/net/ipv4/udp_mem"})
        text += std::string(path) + ": " + contentsOf(path);
    for (const auto& [resource, name] :
         {std::pair(RLIMIT_NOFILE, "descriptors"), std::pair(RLIMIT_NPROC, "threads")}) {
        rlimit limit{};
        if (::getrlimit(resource, &limit) == 0)
            text += std::string(name) + ": " + std::to_string(limit.rlim_cur) + " of " +
                    std::to_string(limit.rlim_max) + "\n";
    }
    return text;
}

std::string rules(const Observation& seen) {
    const Ruleset& read = seen.rules;
    return (read.error.empty() ? "" : "not readable: " + read.error + "\n") + read.nftText + read.iptables +
           read.iptablesLegacy;
}

std::string profile(const Observation& seen) {
    return "# " + printable(seen.profile.path) + "\n" + contentsOf(seen.profile.path.c_str());
}

struct Part {
    const char* name;
    const char* about;
    std::string (*make)(const Observation&); ///< null: made elsewhere
};
constexpr Part kParts[] = {
    {"findings.txt", "what doctor found and looked at", nullptr},
    {"findings.json", "the same, for programs", nullptr},
    {"discovery.pcapng", "what was said about radars and host ids meanwhile", nullptr},
    {"interfaces.txt", "interfaces and their addresses", interfaces},
    {"routes.txt", "routes", routes},
    {"memberships.txt", "multicast memberships", memberships},
    {"sockets.txt", "sockets of all programs on the library's ports", sockets},
    {"limits.txt", "limits of the system and of this process", limits},
    {"rules.txt", "rules of the packet filter, as far as they can be read", rules},
    {"profile.ini", "the settings", profile},
    {"versions.txt", "versions of radarctl and of the system", versions},
};

/// The strings in it, before JSON escapes them; keys are nobody's names.
void redact(nlohmann::ordered_json& document, Redaction& redaction) {
    if (document.is_string())
        document = redaction.text(document.get<std::string>());
    else if (document.is_structured())
        for (nlohmann::ordered_json& part : document)
            redact(part, redaction);
}

} // namespace

/// A file that takes its name when it is whole.
class Bundle::Archive {
public:
    explicit Archive(const std::string& path)
        : m_path(path), m_temporary(path + ".part"), m_archive(::archive_write_new()) {
        if (!m_archive)
            throw std::bad_alloc();
        requireReplaceable(path);
        check(::archive_write_add_filter_gzip(m_archive.get()));
        check(::archive_write_set_format_pax_restricted(m_archive.get()));
        m_file = net::detail::Descriptor(
            ::open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (!m_file.isOpen())
            throw std::system_error(errno, std::generic_category(), m_temporary);
        m_isThere = true;
        check(::archive_write_open_fd(m_archive.get(), m_file.get()));
    }
    ~Archive() {
        m_archive.reset();
        if (m_isThere)
            ::unlink(m_temporary.c_str()); // what is left is of no use, and nobody asks whether it went
    }
    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;

    void add(const std::string& name, const std::string& content) {
        const std::unique_ptr<archive_entry, decltype(&::archive_entry_free)> entry(::archive_entry_new(),
                                                                                    ::archive_entry_free);
        if (!entry)
            throw std::bad_alloc();
        ::archive_entry_set_pathname(entry.get(), name.c_str());
        ::archive_entry_set_size(entry.get(), static_cast<la_int64_t>(content.size()));
        ::archive_entry_set_filetype(entry.get(), AE_IFREG);
        ::archive_entry_set_perm(entry.get(), 0644);
        ::archive_entry_set_mtime(entry.get(), std::time(nullptr), 0);
        check(::archive_write_header(m_archive.get(), entry.get()));
        if (::archive_write_data(m_archive.get(), content.data(), content.size()) !=
            static_cast<la_ssize_t>(content.size()))
            check(ARCHIVE_FATAL);
    }

    void finish() {
        check(::archive_write_close(m_archive.get()));
        if (::fsync(m_file.get()) != 0 || ::rename(m_temporary.c_str(), m_path.c_str()) != 0)
            throw std::system_error(errno, std::generic_category(), m_path);
        m_isThere = false;
    }

private:
    void check(int result) const {
        if (result != ARCHIVE_OK)
            throw std::system_error(::archive_errno(m_archive.get()), std::generic_category(),
                                    m_path + ": " + ::archive_error_string(m_archive.get()));
    }
    struct Free {
        void operator()(archive* one) const { ::archive_write_free(one); }
    };

    const std::string m_path;
    const std::string m_temporary;
    bool m_isThere = false;
    net::detail::Descriptor m_file;
    std::unique_ptr<archive, Free> m_archive;
};

Bundle::Bundle(const std::string& path, bool redact)
    : m_archive(std::make_unique<Archive>(path)), m_redact(redact),
      m_memory(::memfd_create("recording", MFD_CLOEXEC)) {
    if (!m_memory.isOpen())
        throw std::system_error(errno, std::generic_category(), "no memory for a recording");
    m_recorder = std::make_unique<Recorder>(
        Writer::Options{"/proc/self/fd/" + std::to_string(m_memory.get()), "radarctl"}, [] {});
    std::set<Place> places;
    for (const Interface& interface : readInterfaces())
        for (const wire::Group& group : kGroups)
            if (interface.usable())
                places.insert({interface.name, net::transAddr(group.address), net::HtoNs(group.port)});
    m_recorder->listenTo(places); // refused: doctor tells why
}

Bundle::~Bundle() = default;

std::string Bundle::list() const {
    std::string text;
    for (const Part& part : kParts)
        text += padded(part.name, 18) + part.about + "\n";
    return text + (m_redact ? "Addresses and names are replaced, each by one of its own.\n"
                            : "Addresses and names are in it as they are; --redact replaces them.\n");
}

std::string Bundle::recorded(Redaction& redaction) {
    const std::string path = "/proc/self/fd/" + std::to_string(m_memory.get());
    m_recorder->finish();
    if (!m_redact)
        return contentsOf(path.c_str());
    std::string bytes = sectionBlock("radarctl") + interfaceBlock("any");
    try {
        Reader reader(path);
        while (auto datagram = reader.next()) {
            const std::string payload = redaction.message(datagram->payload);
            datagram->payload = payload;
            datagram->source.ip = redaction.address(datagram->source.ip);
            appendDatagramBlock(bytes, 0, *datagram, "");
        }
    } catch (const BrokenFile&) {
        // one without an interface, since nothing could be heard
    }
    return bytes;
}

void Bundle::write(const Observation& seen, const std::string& findings, const std::string& json) {
    Redaction redaction;
    utsname system{};
    ::uname(&system);
    redaction.hide(system.nodename, "computer");
    for (const auto& [host, heard] : seen.listening.hosts)
        redaction.radarName(host.name);
    if (seen.image)
        redaction.radarName(std::string(protocol::announcedName(seen.image->radar)));
    const std::string packets = recorded(redaction); // names of all radars are known afterwards
    m_archive->add("CONTENTS.txt", list());
    nlohmann::ordered_json document = nlohmann::ordered_json::parse(json);
    if (m_redact)
        redact(document, redaction);
    for (const Part& part : kParts) {
        const std::string_view name = part.name;
        const std::string content = part.make != nullptr      ? part.make(seen)
                                    : name == "findings.txt"  ? findings
                                    : name == "findings.json" ? jsonText(document, false)
                                                              : packets;
        const bool isText = name != "discovery.pcapng" && name != "findings.json";
        m_archive->add(part.name, m_redact && isText ? redaction.text(content) : content);
    }
    m_archive->finish();
}

} // namespace doctor
