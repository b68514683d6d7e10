/// @file
/// The keys of profile.ini, as the library reads them.
#pragma once

#include <IniProfile/iniprofile.h>

namespace net::detail {

inline constexpr const char* kProfileFile = "profile.ini";

/// A boolean key of profile.ini.
inline bool profileFlag(const char* section, const char* key, const char* defaultText) {
    return GetProfileInfo_bool(section, key, defaultText, kProfileFile);
}

/// A text key of profile.ini, at most @p maxLength characters.
inline std::string profileText(const char* section, const char* key, const char* defaultText, int maxLength) {
    return GetProfileInfo(section, key, defaultText, maxLength, kProfileFile);
}

/// @p text (the value of section/key) as a network-order address. Empty text is 0; text that is no address is
/// 0 too, with one line on standard error.
unsigned int profileAddress(const char* section, const char* key, const std::string& text);

} // namespace net::detail
