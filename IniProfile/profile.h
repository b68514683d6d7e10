/// @file
/// The text of a profile, taken apart.
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace iniprofile {

/// Letters are those of ASCII, whatever language the application has set.
bool equalIgnoringCase(std::string_view left, std::string_view right);

struct LessIgnoringCase {
    using is_transparent = void;
    bool operator()(std::string_view left, std::string_view right) const;
};

struct Value {
    std::string text;
    std::string file;
    int line;
    std::string name; // "[section] key" as the file has them
};

using Section = std::map<std::string, Value, LessIgnoringCase>;
using Profile = std::map<std::string, Section, LessIgnoringCase>;

/// What @p contents say. A line that cannot be understood is reported as one of the file @p path.
Profile parseProfile(const std::string& path, std::string_view contents);

} // namespace iniprofile
