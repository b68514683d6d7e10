#include <IniProfile/iniprofile.h>
#include <IniProfile/profile.h>
#include <IniProfile/report.h>
#include <UdpSocket/base/descriptor.h>
#include <UdpSocket/base/process.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>

namespace {

using iniprofile::equalIgnoringCase;
using iniprofile::parseProfile;
using iniprofile::Profile;
using iniprofile::reportOnce;
using iniprofile::Value;
using net::detail::Descriptor;
using net::detail::Lock;

std::optional<bool> booleanOf(std::string_view text) {
    if (text.empty())
        return std::nullopt;
    for (const char* word : {"true", "yes", "on", "1"})
        if (equalIgnoringCase(text, word))
            return true;
    for (const char* word : {"false", "no", "off", "0"})
        if (equalIgnoringCase(text, word))
            return false;
    return std::nullopt;
}

/// Writes the path of @p file to @p path. @return false when it does not fit
bool writePath(char (&path)[PATH_MAX], std::string_view file) {
    const char* set = std::getenv("INIPROFILE_DIR");
    const std::string_view directory = set != nullptr && !file.starts_with('/') ? set : "";
    const std::string_view separator = directory.empty() ? "" : "/";
    if (directory.size() + separator.size() + file.size() >= sizeof path)
        return false;
    char* end = path;
    for (const std::string_view piece : {directory, separator, file})
        end += piece.copy(end, piece.size());
    *end = '\0';
    return true;
}

/// The text of the file; nothing when it cannot be had. Never waits for somebody to write it.
std::optional<std::string> contentsOf(const std::string& path, bool isFifo) {
    std::string contents;
    const char* fault = isFifo ? "it is a FIFO" : nullptr;
    if (fault == nullptr) {
        const Descriptor file(static_cast<int>(
            TEMP_FAILURE_RETRY(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY))));
        if (!file.isOpen() && errno == ENOENT)
            return std::nullopt;
        std::array<char, 4096> piece;
        ssize_t count = -1;
        while (file.isOpen() &&
               (count = TEMP_FAILURE_RETRY(::read(file.get(), piece.data(), piece.size()))) > 0)
            contents.append(piece.data(), static_cast<std::size_t>(count));
        if (count != 0)
            fault = std::strerror(errno);
    }
    if (fault != nullptr) {
        reportOnce(path + ": cannot be read (" + fault + "), defaults are used");
        return std::nullopt;
    }
    if (contents.find('\0') != std::string::npos) {
        reportOnce(path + ": holds a zero byte, so it is no UTF-8 text, defaults are used");
        return std::nullopt;
    }
    return contents;
}

/// What tells one state of a file from another.
struct FileState {
    dev_t device = 0;
    ino_t number = 0;
    off_t size = 0;
    std::timespec changed{};

    explicit FileState(const struct stat& status)
        : device(status.st_dev), number(status.st_ino), size(status.st_size), changed(status.st_ctim) {}
    bool operator==(const FileState& other) const {
        return device == other.device && number == other.number && size == other.size &&
               changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
    }
    /// Whether the time of the change is so long ago that another change would show: file systems count it in
    /// steps of up to 2 seconds.
    bool isSettled() const {
        constexpr time_t kCoarsest = 2;
        return std::time(nullptr) - changed.tv_sec > kCoarsest;
    }
};

/// The profiles read so far, for as long as their files stay as they were.
class Cache {
public:
    /// The profile as it stands now. Reads, parses and reports without a lock.
    static std::shared_ptr<const Profile> at(const char* path) {
        struct stat status {};
        const bool exists = ::stat(path, &status) == 0;
        const FileState state(status);
        if (exists)
            if (auto known = find(path, state))
                return known;
        const auto contents = contentsOf(path, exists && S_ISFIFO(status.st_mode));
        auto fresh = std::make_shared<const Profile>(parseProfile(path, contents.value_or("")));
        if (exists && contents && state.isSettled())
            keep(path, {state, fresh});
        return fresh;
    }

private:
    struct Entry {
        FileState state;
        std::shared_ptr<const Profile> profile;
    };
    using Entries = std::map<std::string, Entry, std::less<>>;

    /// Never destroyed: threads may read until the very end.
    static Entries& entries() REQUIRES(s_mutex) {
        static Entries& all = *new Entries;
        return all;
    }
    static std::shared_ptr<const Profile> find(std::string_view path, const FileState& state) {
        Lock lock(s_mutex);
        const auto entry = entries().find(path);
        return entry != entries().end() && entry->second.state == state ? entry->second.profile : nullptr;
    }
    static void keep(const char* path, Entry entry) {
        constexpr std::size_t kMaxFiles = 16;
        Lock lock(s_mutex);
        if (entries().size() == kMaxFiles)
            entries().clear();
        entries().insert_or_assign(path, std::move(entry));
    }

    static inline net::detail::StaticMutex s_mutex;
};

/// The value of a key, which keeps its profile; null where file, section or key is missing.
std::shared_ptr<const Value> valueOf(const char* file, const char* section, const char* key) {
    char path[PATH_MAX];
    if (!writePath(path, file)) {
        reportOnce(std::string(file) + ": cannot be read (its path is too long), defaults are used");
        return nullptr;
    }
    const auto profile = Cache::at(path);
    if (const auto found = profile->find(std::string_view(section)); found != profile->end())
        if (const auto value = found->second.find(std::string_view(key)); value != found->second.end())
            return {profile, &value->second};
    return nullptr;
}

std::string placeOf(const Value& value) {
    return value.file + ":" + std::to_string(value.line) + ": " + value.name + " ";
}

bool isQuoted(std::string_view text) {
    return text.size() > 1 && text.front() == text.back() && (text.front() == '"' || text.front() == '\'');
}

} // namespace

std::string GetProfileInfo(const char* section, const char* key, const char* defaultText, int maxLength,
                           const char* file) {
    const auto value = valueOf(file, section, key);
    if (value == nullptr)
        return defaultText;
    if (isQuoted(value->text))
        reportOnce(placeOf(*value) + "is taken with its quotes", value->file + value->name + " quotes");
    if (value->text.size() > static_cast<std::size_t>(std::max(maxLength, 0))) {
        reportOnce(placeOf(*value) + "is longer than " + std::to_string(maxLength) +
                   " bytes, the default is used");
        return defaultText;
    }
    return value->text;
}

bool GetProfileInfo_bool(const char* section, const char* key, const char* defaultText, const char* file) {
    if (const auto value = valueOf(file, section, key)) {
        if (const auto flag = booleanOf(value->text))
            return *flag;
        if (!value->text.empty())
            reportOnce(placeOf(*value) + "is no boolean (true or false), the default is used");
    }
    return booleanOf(defaultText).value_or(false);
}
