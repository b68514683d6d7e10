/// @file
/// Announcements as tests write them, byte by byte.
#pragma once

#include "records.h"

/// A radar of host id 16 at 10.1.2.3, with one stream; of the long form, the first stream alone is filled.
class AnnouncementBytes : public std::string {
public:
    /// @param length 150 or 222
    AnnouncementBytes(std::size_t length, const std::string& name) : std::string(length, '\0') {
        replace(0, 2, "\x01\xB2").replace(2, name.size(), name);
        const std::size_t arpa = length == 150 ? 124 : 160;
        at(18, {net::transAddr("10.1.2.3"), 0});
        at(88, endpoint("236.6.7.35", 6003)).at(98, endpoint("236.6.7.36", 6004));
        at(108, endpoint("236.6.7.37", 6005)).at(arpa, endpoint("236.6.7.41", 6009));
        at(arpa + 10, endpoint("236.6.7.42", 6010)).at(arpa + 20, endpoint("236.6.7.43", 6011));
    }
    AnnouncementBytes& at(std::size_t position, const NetAddress& value) {
        replace(position, sizeof value, reinterpret_cast<const char*>(&value), sizeof value);
        return *this;
    }
    AnnouncementBytes& at(std::size_t position, char value) {
        (*this)[position] = value;
        return *this;
    }
};
