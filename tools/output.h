/// @file
/// The tool's own output, apart from what the library prints.
#pragma once

#include <UdpSocket/base/descriptor.h>

#include <string>

/// Whoever read the output wants no more, which ends a subcommand quietly and well.
struct ReaderGone {};

/// Whether that is a terminal on which more can be done than to print lines.
bool canMoveCursor(int descriptor);

/// Writes @p text to standard error, but what nobody takes when a signal asks to end.
void tell(const std::string& text);
/// Writes as much of @p text as a terminal takes at once. @return whether that was any
bool tellAtOnce(const std::string& text);

/// Refuses to put a new file in the place of a device, a link, or whatever else is no regular file.
/// @throws Failure
void requireReplaceable(const std::string& path);

/// Owns the real standard output. The library's diagnostics, which go to descriptor 1, are led to standard
/// error or nowhere.
class Output {
public:
    /// @param verbose diagnostics to standard error
    /// @param color   "always", "never", or "auto": on a terminal, unless NO_COLOR is set
    /// @throws Failure
    Output(bool verbose, const std::string& color);
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    bool isTerminal() const;
    bool canMoveCursor() const { return ::canMoveCursor(m_descriptor.get()); }
    /// Rows and columns of the terminal, now.
    struct Size {
        int rows;
        int columns;
    };
    Size terminalSize() const;

    enum class Style { Heading, Good, Bad, Dim };
    /// @p text in that style, where colour is wanted.
    std::string styled(Style style, const std::string& text) const;

    /// Writes all of @p text. A reader that stands for a second while a signal asks to end has gone.
    /// @throws ReaderGone, Failure
    void write(const std::string& text) const;

private:
    net::detail::Descriptor m_descriptor; // of the real standard output
    bool m_colored;
};
