#include <IniProfile/iniprofile.h>

#include <ini.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>

namespace {

constexpr size_t kMostComplaints = 100; // a process writes no more lines than these about its profiles

/// Writes @p line to standard error, once in the life of the process: profiles are read again and again.
void complain(const std::string& line) {
    static std::mutex mutex;                           // guards written
    static auto& written = *new std::set<std::string>; // never destroyed: threads may read until the very end
    {
        std::lock_guard lock(mutex);
        if (written.size() == kMostComplaints || !written.insert(line).second)
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
bool equalIgnoringCase(std::string_view left, std::string_view right) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [&](char a, char b) { return lower(a) == lower(b); });
}

std::optional<bool> booleanOf(std::string_view text) {
    for (const char* word : {"true", "yes", "on", "1"})
        if (equalIgnoringCase(text, word))
            return true;
    for (const char* word : {"false", "no", "off", "0"})
        if (equalIgnoringCase(text, word))
            return false;
    return std::nullopt;
}

std::string pathOf(const char* file) {
    const char* directory = std::getenv("INIPROFILE_DIR");
    if (file[0] == '/' || directory == nullptr || directory[0] == '\0')
        return file;
    return std::string(directory) + '/' + file;
}

/// The text of the file, empty when there is none to be had.
std::string contentsOf(const std::string& path) {
    std::string contents;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"), std::fclose);
    if (file != nullptr) {
        std::array<char, 4096> piece;
        while (const size_t count = std::fread(piece.data(), 1, piece.size(), file.get()))
            contents.append(piece.data(), count);
    }
    if (file == nullptr ? errno != ENOENT : std::ferror(file.get()) != 0) {
        complain(path + ": cannot be read (" + std::strerror(errno) + "), defaults are used");
        return {};
    }
    if (contents.find('\0') != std::string::npos) {
        complain(path + ": holds a zero byte, so it is no UTF-8 text, defaults are used");
        return {};
    }
    return contents;
}

struct Value {
    std::string text;
    std::string place; // file, line, section and key, for a complaint
};

/// One reading of a profile for one key. inih parses; it is fed line by line from here, because by itself it
/// splits lines of 200 bytes, takes an indented key for more of the value before it, does not know '#' behind
/// a value, and tells of the first broken line only.
class Search {
public:
    Search(std::string path, const char* section, const char* key)
        : m_path(std::move(path)), m_section(section), m_key(key) {}

    std::optional<Value> run() {
        const std::string contents = contentsOf(m_path);
        m_rest = contents;
        if (m_rest.substr(0, 3) == "\xEF\xBB\xBF")
            m_rest.remove_prefix(3);
        ini_parse_stream(&Search::nextLine, this, &Search::onEntry, this); // its faults are told in feed()
        return m_found;
    }

private:
    static char* nextLine(char* buffer, int size, void* search) {
        return static_cast<Search*>(search)->feed(buffer, static_cast<size_t>(size));
    }
    static int onEntry(void* search, const char* section, const char* key, const char*) {
        return static_cast<Search*>(search)->take(section, key);
    }

    char* feed(char* buffer, size_t size);
    int take(const char* section, const char* key);
    std::string place() const { return m_path + ":" + std::to_string(m_number) + ": "; }

    const std::string m_path;
    const std::string_view m_section;
    const std::string_view m_key;
    std::string_view m_rest;       // of the file, behind m_line
    std::string_view m_line;       // in inih's hands, without comment and blanks around it
    int m_number = 0;              // of m_line
    const char* m_fault = nullptr; // what is wrong with m_line if inih does not make an entry of it
    std::optional<Value> m_found;
};

char* Search::feed(char* buffer, size_t size) {
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

int Search::take(const char* section, const char* key) {
    if (*key == '\0')
        return 0;
    m_fault = nullptr;
    if (equalIgnoringCase(trimmed(section), m_section) && equalIgnoringCase(key, m_key)) {
        // from our line, since inih's own copy of the value ends where its buffer does
        const std::string_view text = trimmed(m_line.substr(m_line.find_first_of("=:") + 1));
        m_found = {std::string(text), place() + "[" + section + "] " + key + " "};
    }
    return 1;
}

} // namespace

std::string GetProfileInfo(const char* section, const char* key, const char* defaultText, int maxLength,
                           const char* file) {
    const auto value = Search(pathOf(file), section, key).run();
    if (!value)
        return defaultText;
    if (value->text.size() > static_cast<size_t>(std::max(maxLength, 0))) {
        complain(value->place + "is longer than " + std::to_string(maxLength) +
                 " bytes, the default is used");
        return defaultText;
    }
    return value->text;
}

bool GetProfileInfo_bool(const char* section, const char* key, const char* defaultText, const char* file) {
    if (const auto value = Search(pathOf(file), section, key).run()) {
        if (const auto flag = booleanOf(value->text))
            return *flag;
        if (!value->text.empty())
            complain(value->place + "is no boolean (true or false), the default is used");
    }
    return booleanOf(defaultText).value_or(false);
}
