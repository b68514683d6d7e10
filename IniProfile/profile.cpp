#include <IniProfile/profile.h>
#include <IniProfile/report.h>

#include <ini.h>

#include <algorithm>
#include <exception>

namespace iniprofile {

namespace {

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

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// One reading of a profile. inih parses; it is fed line by line from here, because by itself it splits lines
/// of 200 bytes, cuts the names of sections, knows one kind of line end, takes an indented key for more of
/// the value before it, does not know '#' behind a value, and tells of the first broken line only.
class Parser {
public:
    explicit Parser(std::string path) : m_path(std::move(path)) {}

    Profile run(std::string_view contents) {
        m_rest = contents;
        if (m_rest.substr(0, 3) == "\xEF\xBB\xBF")
            m_rest.remove_prefix(3);
        ini_parse_stream(&Parser::onLine, this, &Parser::onEntry, this); // its faults are told in feed()
        if (m_failure)
            std::rethrow_exception(m_failure);
        return std::move(m_profile);
    }

private:
    static char* onLine(char* buffer, int size, void* parser) {
        auto* const self = static_cast<Parser*>(parser);
        if (self->m_failure)
            return nullptr;
        return self->keepFailure([&] { return self->feed(buffer, static_cast<size_t>(size)); });
    }
    static int onEntry(void* parser, const char*, const char* key, const char*) {
        auto* const self = static_cast<Parser*>(parser);
        return self->keepFailure([&] { return self->take(key); });
    }
    /// Nothing is thrown through inih: it is C, and where it has no unwind tables (on armhf), that would end
    /// the process. @return a null pointer or 0 where @p step has thrown
    template <class Step>
    auto keepFailure(Step step) -> decltype(step()) {
        try {
            return step();
        } catch (...) {
            m_failure = std::current_exception();
            return {};
        }
    }

    char* feed(char* buffer, size_t size);
    int take(const char* key);
    void nextLine();

    const std::string m_path;
    std::string_view m_rest;       // of the file, behind m_line
    std::string_view m_line;       // in inih's hands, without comment and blanks around it
    int m_number = 0;              // of m_line
    std::string m_section;         // that m_line stands in
    const char* m_fault = nullptr; // what is wrong with m_line if inih does not make an entry of it
    std::exception_ptr m_failure;  // ends the reading
    Profile m_profile;
};

void Parser::nextLine() {
    const size_t end = std::min(m_rest.find_first_of("\r\n"), m_rest.size());
    m_line = withoutComment(trimmed(m_rest.substr(0, end)));
    const size_t lineEnd = m_rest.substr(end, 2) == "\r\n" ? 2 : 1;
    m_rest.remove_prefix(std::min(end + lineEnd, m_rest.size()));
    ++m_number;
}

char* Parser::feed(char* buffer, size_t size) {
    if (m_fault != nullptr)
        reportOnce(m_path + ":" + std::to_string(m_number) + ": " + m_fault);
    m_fault = nullptr;
    if (m_rest.empty())
        return nullptr;

    nextLine();
    std::string_view fed = m_line;
    if (m_line.starts_with('[')) {
        const size_t end = m_line.find(']');
        if (end == std::string_view::npos)
            m_fault = "a section without ], the keys below it are ignored";
        m_section = end == std::string_view::npos ? "" : trimmed(m_line.substr(1, end - 1));
        fed = "[]";
    } else if (!m_line.empty()) {
        m_fault = "neither a [section] nor key = value, ignored";
    }
    const size_t count = fed.copy(buffer, size - 2);
    buffer[count] = '\n';
    buffer[count + 1] = '\0';
    return buffer;
}

int Parser::take(const char* key) {
    if (*key == '\0')
        return 0;
    m_fault = nullptr;
    // from our line, since inih's own copy of the value ends where its buffer does
    const std::string_view text = trimmed(m_line.substr(m_line.find_first_of("=:") + 1));
    m_profile[m_section].insert_or_assign(
        key, Value{std::string(text), m_path, m_number, "[" + m_section + "] " + key});
    return 1;
}

} // namespace

bool equalIgnoringCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return lower(a) == lower(b); });
}

bool LessIgnoringCase::operator()(std::string_view left, std::string_view right) const {
    return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end(),
                                        [](char a, char b) { return lower(a) < lower(b); });
}

Profile parseProfile(const std::string& path, std::string_view contents) {
    return Parser(path).run(contents);
}

} // namespace iniprofile
