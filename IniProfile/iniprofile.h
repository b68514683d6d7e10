/// @file
/// The INI-profile library: two look-ups in a file of sections and keys.
///
/// Thread safety: both functions may be called from any thread; each call reads the file afresh.
#pragma once

#include <string>

/// The text of @p key in @p section of @p file, or @p defaultText when the file, the section or the key is
/// absent or the value is longer than @p maxLength bytes.
///
/// A relative @p file is looked up in the directory that the environment variable INIPROFILE_DIR names, or in
/// the current directory when that is not set. Section and key are compared without regard to case. Blanks
/// around the value and a comment behind it (a blank, then `;` or `#`) do not belong to it. A missing file is
/// not an error; a line that cannot be understood, or a value that is too long, is reported on standard error
/// in one line.
__attribute__((visibility("default"))) std::string GetProfileInfo(const char* section, const char* key,
                                                                  const char* defaultText, int maxLength,
                                                                  const char* file);

/// The same look-up as a boolean: true/false, yes/no, on/off, 1/0 in any case. Any other text takes the
/// default, and a default that is none of these (the empty one, say) is false.
__attribute__((visibility("default"))) bool GetProfileInfo_bool(const char* section, const char* key,
                                                                const char* defaultText, const char* file);
