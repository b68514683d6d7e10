/// @file
/// The INI-profile library: two look-ups in a file of sections and keys.
///
/// Thread safety: both functions may be called from any thread at any time; each call looks at
/// the file, reads it again when it has changed, and keeps nothing open. No argument may be null.
///
/// The file: lines of `[section]` and `key = value` in UTF-8 (a byte order mark is skipped, line ends may be
/// those of any system, lines may be indented and of any length). `;` or `#` at the start of a line, or
/// behind a blank, begins a comment. Section and key are compared without regard to case. A section may stand
/// in several pieces; of a key that stands twice the last one counts. Quotes belong to the value; a value in
/// quotes is reported as such, once for each key.
///
/// A relative file name is looked up in the directory that the environment variable INIPROFILE_DIR names, or
/// in the current directory when that is not set or empty.
///
/// Errors: a file that does not exist counts as empty. A file that cannot be read (a directory, or a FIFO,
/// which nobody waits for), a line that cannot be understood and a value that cannot be used are each
/// reported in one line on standard error, with file and line number; a process does not repeat such a line,
/// and writes at most 100 of them. No lock is held while a file is read or a line written.
#pragma once

#include <string>

/// The text of @p key in @p section of @p file without the blanks around it, or @p defaultText when there is
/// no such key or its text is longer than @p maxLength bytes. A key without text gives the empty text.
__attribute__((visibility("default"))) std::string GetProfileInfo(const char* section, const char* key,
                                                                  const char* defaultText, int maxLength,
                                                                  const char* file);

/// The same look-up as a boolean: true/false, yes/no, on/off, 1/0 in any case. Any other text takes the
/// default, and a default that is none of these (the empty one, say) is false.
__attribute__((visibility("default"))) bool GetProfileInfo_bool(const char* section, const char* key,
                                                                const char* defaultText, const char* file);
