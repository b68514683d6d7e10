#include <IniProfile/iniprofile.h>
#include <UdpSocket/detail/mutex.h>

#include <ini.h>

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
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string_view>

namespace {

using net::detail::Lock;
using net::detail::Mutex;

constexpr size_t kMostComplaints = 100; // a process writes no more lines than these about its profiles

/// Writes @p line to standard error, once in the life of the process: profiles are read again and again.
void complain(const std::string& line) {
    struct Written {
        Mutex mutex;
        std::set<std::string> lines GUARDED_BY(mutex);
    };
    static auto& written = *new Written; // never destroyed: threads may read until the very end
    {
        Lock lock(written.mutex);
        if (written.lines.size() == kMostComplaints || !written.lines.insert(line).second)
            return;
    }
    std::fprintf(stderr, "%s\n", line.c_str());
}

bool isBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

std::string_view withoutComment(std::string_view line) {
    for (size_t i = 0; i < line.size(); ++i)
        if ((line[i] == ';' || line[i] == '#') && (i == 0 || isBlank(line[i - 1])))
            return trimmed(line.substr(0, i));
    return line;
}

/// Letters are those of ASCII, whatever language the application has set.
char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalIgnoringCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return lower(a) == lower(b); });
}

struct LessIgnoringCase {
    using is_transparent = void;
    bool operator()(std::string_view left, std::string_view right) const {
        return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end(),
                                            [](char a, char b) { return lower(a) < lower(b); });
    }
};

std::optional<bool> booleanOf(std::string_view text) {
    for (const char* word : {"true", "yes", "on", "1"})
        if (equalIgnoringCase(text, word))
            return true;
    for (const char* word : {"false", "no", "off", "0"})
        if (equalIgnoringCase(text, word))
            return false;
    return std::nullopt;
}

/// Writes the path of @p file to @p path. @return false when it does not fit
bool writePath(char (&path)[PATH_MAX], const char* file) {
    const char* directory = std::getenv("INIPROFILE_DIR");
    const bool asGiven = file[0] == '/' || directory == nullptr || directory[0] == '\0';
    const int length =
        std::snprintf(path, sizeof path, "%s%s%s", asGiven ? "" : directory, asGiven ? "" : "/", file);
    return length >= 0 && static_cast<size_t>(length) < sizeof path;
}

/// The text of the file; nothing when it cannot be had.
std::optional<std::string> contentsOf(const std::string& path) {
    std::string contents;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"), std::fclose);
    if (file != nullptr) {
        std::array<char, 4096> piece;
        while (const size_t count = std::fread(piece.data(), 1, piece.size(), file.get()))
            contents.append(piece.data(), count);
    }
    if (file == nullptr ? errno != ENOENT : std::ferror(file.get()) != 0) {
        complain(path + ": cannot be read (" + std::strerror(errno) + "), defaults are used");
        return std::nullopt;
    }
    if (contents.find('\0') != std::string::npos) {
        complain(path + ": holds a zero byte, so it is no UTF-8 text, defaults are used");
        return std::nullopt;
    }
    return contents;
}

struct Value {
    std::string text;
    std::string place; // file, line, section and key, for a complaint
};

using Section = std::map<std::string, Value, LessIgnoringCase>;
using Profile = std::map<std::string, Section, LessIgnoringCase>;

/// One reading of a profile. inih parses; it is fed line by line from here, because by itself it splits lines
/// of 200 bytes, takes an indented key for more of the value before it, does not know '#' behind a value, and
/// tells of the first broken line only.
class Parser {
public:
    explicit Parser(std::string path) : m_path(std::move(path)) {}

    Profile run(std::string_view contents) {
        m_rest = contents;
        if (m_rest.substr(0, 3) == "\xEF\xBB\xBF")
            m_rest.remove_prefix(3);
        ini_parse_stream(&Parser::nextLine, this, &Parser::onEntry, this); // its faults are told in feed()
        return std::move(m_profile);
    }

private:
    static char* nextLine(char* buffer, int size, void* parser) {
        return static_cast<Parser*>(parser)->feed(buffer, static_cast<size_t>(size));
    }
    static int onEntry(void* parser, const char* section, const char* key, const char*) {
        return static_cast<Parser*>(parser)->take(section, key);
    }

    char* feed(char* buffer, size_t size);
    int take(const char* section, const char* key);
    std::string place() const { return m_path + ":" + std::to_string(m_number) + ": "; }

    const std::string m_path;
    std::string_view m_rest;       // of the file, behind m_line
    std::string_view m_line;       // in inih's hands, without comment and blanks around it
    int m_number = 0;              // of m_line
    const char* m_fault = nullptr; // what is wrong with m_line if inih does not make an entry of it
    Profile m_profile;
};

char* Parser::feed(char* buffer, size_t size) {
    if (m_fault != nullptr)
        complain(place() + m_fault);
    m_fault = nullptr;
    if (m_rest.empty())
        return nullptr;

    const size_t end = std::min(m_rest.find('\n'), m_rest.size());
    m_line = withoutComment(trimmed(m_rest.substr(0, end)));
    m_rest.remove_prefix(std::min(end + 1, m_rest.size()));
    ++m_number;

    std::string_view fed = m_line.substr(0, size - 2);
    if (!fed.empty() && fed.front() != '[') {
        m_fault = "neither a [section] nor key = value, ignored";
    } else if (!fed.empty() && fed.find(']') == std::string_view::npos) {
        m_fault = "a section without ], the keys below it are ignored";
        fed = "[]";
    }
    const size_t count = fed.copy(buffer, size - 2);
    buffer[count] = '\n';
    buffer[count + 1] = '\0';
    return buffer;
}

int Parser::take(const char* section, const char* key) {
    if (*key == '\0')
        return 0;
    m_fault = nullptr;
    // from our line, since inih's own copy of the value ends where its buffer does
    const std::string_view text = trimmed(m_line.substr(m_line.find_first_of("=:") + 1));
    m_profile[std::string(trimmed(section))].insert_or_assign(
        key, Value{std::string(text), place() + "[" + section + "] " + key + " "});
    return 1;
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
    /// Gives @p use the value of a key, null where file, section or key is missing, and returns its result.
    template <class Use>
    auto with(const char* file, const char* section, const char* key, Use use) {
        char path[PATH_MAX];
        if (!writePath(path, file)) {
            complain(std::string(file) + ": cannot be read (its path is too long), defaults are used");
            return use(nullptr);
        }
        Lock lock(m_mutex);
        const Profile& profile = read(path);
        if (const auto found = profile.find(std::string_view(section)); found != profile.end())
            if (const auto value = found->second.find(std::string_view(key)); value != found->second.end())
                return use(&value->second);
        return use(nullptr);
    }

private:
    struct Entry {
        std::optional<FileState> state; // none: to be read again
        Profile profile;
    };

    const Profile& read(const char* path) REQUIRES(m_mutex) {
        static constexpr size_t kMostFiles = 16;
        struct stat status {};
        const bool exists = ::stat(path, &status) == 0;
        auto entry = m_entries.find(std::string_view(path));
        if (exists && entry != m_entries.end() && entry->second.state == FileState(status))
            return entry->second.profile;
        if (entry == m_entries.end()) {
            if (m_entries.size() == kMostFiles)
                m_entries.clear();
            entry = m_entries.try_emplace(path).first;
        }
        Entry& fresh = entry->second;
        const auto contents = contentsOf(path);
        fresh.profile = Parser(path).run(contents.value_or(""));
        fresh.state.reset();
        if (const FileState state(status); exists && contents && state.isSettled())
            fresh.state = state;
        return fresh.profile;
    }

    Mutex m_mutex;
    std::map<std::string, Entry, std::less<>> m_entries GUARDED_BY(m_mutex);
};

Cache& profiles() {
    static Cache& cache = *new Cache; // never destroyed: threads may read until the very end
    return cache;
}

} // namespace

std::string GetProfileInfo(const char* section, const char* key, const char* defaultText, int maxLength,
                           const char* file) {
    return profiles().with(file, section, key, [&](const Value* value) -> std::string {
        if (value == nullptr)
            return defaultText;
        if (value->text.size() > static_cast<size_t>(std::max(maxLength, 0))) {
            complain(value->place + "is longer than " + std::to_string(maxLength) +
                     " bytes, the default is used");
            return defaultText;
        }
        return value->text;
    });
}

bool GetProfileInfo_bool(const char* section, const char* key, const char* defaultText, const char* file) {
    return profiles().with(file, section, key, [&](const Value* value) {
        if (value != nullptr) {
            if (const auto flag = booleanOf(value->text))
                return *flag;
            if (!value->text.empty())
                complain(value->place + "is no boolean (true or false), the default is used");
        }
        return booleanOf(defaultText).value_or(false);
    });
}
