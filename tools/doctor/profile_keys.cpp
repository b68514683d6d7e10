#include "observation.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <sstream>

namespace doctor {
namespace {

struct KnownKey {
    const char* section;
    const char* key;
};
constexpr KnownKey kKeys[] = {{"Radar", "IP"},
                              {"Radar", "TCPService"},
                              {"Local", "IP"},
                              {"Local", "NetName"},
                              {"Local", "MulticastLoop"}};

bool isSame(const std::string& text, const char* known) {
    return ::strcasecmp(text.c_str(), known) == 0;
}

/// Whether a text may be a slip of the pen: a third of the known one's letters may be missing, wrong or too
/// many.
bool resembles(const std::string& text, const std::string& known) {
    std::vector<std::size_t> row(known.size() +
                                 1); // edit distances of the text so far to each start of known
    for (std::size_t j = 0; j < row.size(); ++j)
        row[j] = j;
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 1; j < row.size(); ++j) {
            const bool same = std::tolower(static_cast<unsigned char>(text[i])) ==
                              std::tolower(static_cast<unsigned char>(known[j - 1]));
            const std::size_t replaced = diagonal + (same ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back() <= std::max<std::size_t>(1, known.size() / 3);
}

std::string trimmed(const std::string& text) {
    constexpr const char* kBlanks = " \t\r\f\v";
    const std::size_t first = text.find_first_not_of(kBlanks);
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool isRead(const ProfileEntry& entry) {
    return std::ranges::any_of(kKeys, [&entry](const KnownKey& known) {
        return isSame(entry.section, known.section) && isSame(entry.key, known.key);
    });
}

bool isInOurSection(const ProfileEntry& entry) {
    return std::ranges::any_of(
        kKeys, [&entry](const KnownKey& known) { return isSame(entry.section, known.section); });
}

/// What was probably meant: a key, or a section in brackets; empty where nothing resembles it.
std::string meant(const ProfileEntry& entry) {
    for (const KnownKey& known : kKeys)
        if (isSame(entry.section, known.section) && resembles(entry.key, known.key))
            return known.key;
    for (const KnownKey& known : kKeys)
        if (resembles(entry.section, known.section) && resembles(entry.key, known.key))
            return "[" + std::string(known.section) + "]";
    for (const KnownKey& known : kKeys)
        if (isInOurSection(entry) && isSame(entry.key, known.key))
            return "[" + std::string(known.section) + "]";
    return "";
}

} // namespace

std::vector<ProfileEntry> profileEntries(const std::string& text) {
    std::vector<ProfileEntry> entries;
    std::istringstream lines(text.starts_with("\xEF\xBB\xBF") ? text.substr(3) : text);
    std::string section;
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        line = trimmed(line);
        if (line.starts_with(";") || line.starts_with("#"))
            continue;
        const std::size_t sign = line.find_first_of("=:");
        if (line.starts_with("["))
            section = trimmed(line.substr(1, line.find(']') - 1));
        else if (sign != std::string::npos)
            entries.push_back({section, trimmed(line.substr(0, sign)), number});
    }
    return entries;
}

Report judgeProfileKeys(const Observation& seen) {
    Report report;
    for (const ProfileEntry& entry : seen.profile.entries) {
        const std::string instead = meant(entry);
        if (isRead(entry) || (!isInOurSection(entry) && instead.empty())) // or another program's
            continue;
        report.find(Id::ProfileKey, instead.empty() ? Severity::Note : Severity::Warning,
                    seen.profile.path + " has [" + entry.section + "] " + entry.key +
                        ", which the library does not read",
                    instead.empty() ? "" : instead + "?", "line " + std::to_string(entry.line));
    }
    return report;
}

} // namespace doctor
