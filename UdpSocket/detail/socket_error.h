/// @file
/// The one line in which a failed socket call is reported.
#pragma once

namespace net::detail {

/// Where a report is made. Default arguments of this type name the place of the call.
struct SourceSite {
    const char* file;
    const char* function;
    int line;

    static constexpr SourceSite here(const char* file = __builtin_FILE(),
                                     const char* function = __builtin_FUNCTION(),
                                     int line = __builtin_LINE()) {
        return {file, function, line};
    }
};

/// Writes the socket error line with the current errno to standard error; errno is kept.
/// @param address text of the address that the reporting object was configured with
/// @param port    its port, host order
/// @param call    the failing call, as the reports name it
void reportSocketError(const SourceSite& site, const char* address, int port, const char* call);

} // namespace net::detail
