#include "recorded.h"

#include "command.h"
#include "table.h"

#include <cstdio>
#include <ctime>
#include <system_error>

using namespace radar::recording;

Recorded lookThrough(const std::string& path) {
    Recorded recorded;
    try {
        Reader reader(path);
        try {
            while (const auto datagram = reader.next())
                recorded.contents.add(*datagram);
        } catch (const BrokenFile& broken) {
            recorded.broken = broken.what();
        }
        recorded.counts = reader.counts();
        recorded.notes = readNotes(path);
    } catch (const BrokenFile& broken) {
        recorded.broken = broken.what();
    } catch (const std::system_error& refusal) {
        if (refusal.code() == std::errc::no_such_file_or_directory)
            throw Failure(kNothingFound, printable(refusal.what()));
        throw std::system_error(refusal.code(), printable(path));
    }
    if (recorded.contents.total().datagrams == 0)
        throw Failure(kNothingFound, printable(recorded.broken.empty() ? path + ": there is no datagram in it"
                                                                       : recorded.broken));
    return recorded;
}

std::string leftOut(const Reader::Counts& counts) {
    const std::pair<std::uint64_t, const char*> kinds[] = {{counts.fragments, "fragments"},
                                                           {counts.cut, "not recorded whole"},
                                                           {counts.other, "other than UDP over IPv4"}};
    std::string text;
    for (const auto& [count, what] : kinds)
        if (count > 0)
            text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + what;
    return text;
}

std::string timeText(Time time) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const std::time_t count = seconds.count();
    std::tm utc{};
    ::gmtime_r(&count, &utc);
    char text[40];
    std::strftime(text, sizeof text, "%FT%T", &utc);
    char fraction[8];
    std::snprintf(fraction, sizeof fraction, ".%03dZ", static_cast<int>((time - seconds).count() / 1000000));
    return std::string(text) + fraction;
}
