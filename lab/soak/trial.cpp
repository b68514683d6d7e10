#include "trial.h"

#include "testbed.h"

#include <lab/private_network.h>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace soak {

namespace {

std::string toJson(const Result& result) {
    nlohmann::json figures = nlohmann::json::array();
    for (const auto& [what, value, limit] : result.figures)
        figures.push_back({{"what", what}, {"value", value}, {"limit", limit}}); // no limit becomes null
    return nlohmann::json{{"figures", figures}, {"failure", result.failure}}.dump();
}

/// @throws nlohmann::json::exception when it is no result, as of a process that ended early
Result fromJson(const std::string& text) {
    const auto document = nlohmann::json::parse(text);
    Result result{{}, document["failure"]};
    for (const auto& figure : document["figures"]) {
        result.figures.push_back({figure["what"], figure["value"]});
        if (!figure["limit"].is_null())
            result.figures.back().limit = figure["limit"];
    }
    return result;
}

[[noreturn]] void runAndExit(const Fault& fault, bool full, FILE* output) {
    lab::enterPrivateNetwork();
    Result result;
    try {
        Testbed testbed(full, fault.load == Load::ManyHosts);
        result = runOnce(fault, testbed);
    } catch (const std::exception& error) {
        result.failure = error.what();
    }
    const bool written = std::fputs(toJson(result).c_str(), output) >= 0 && std::fflush(output) == 0;
    std::_Exit(written ? EXIT_SUCCESS : EXIT_FAILURE);
}

} // namespace

Result runOnce(const Fault& fault, Testbed& testbed) {
    try {
        return {fault.run(testbed), ""};
    } catch (const std::exception& error) {
        return {{}, error.what()};
    }
}

Trial::Trial(const Fault& fault, bool full) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) == -1)
        throw std::system_error(errno, std::generic_category(), "pipe");
    m_output = net::detail::Descriptor(ends[0]);
    const net::detail::Descriptor input(ends[1]);
    m_process = ::fork();
    if (m_process == -1)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (m_process == 0)
        runAndExit(fault, full, ::fdopen(input.get(), "w"));
}

Result Trial::result() {
    std::string text;
    char part[4096];
    ssize_t length;
    while ((length = ::read(m_output.get(), part, sizeof part)) > 0)
        text.append(part, static_cast<size_t>(length));
    int status = 0;
    if (length == -1 || ::waitpid(m_process, &status, 0) == -1)
        throw std::system_error(errno, std::generic_category(), "a trial's result");
    if (!WIFEXITED(status) || WEXITSTATUS(status) != EXIT_SUCCESS)
        return {{}, "its process ended early (wait status " + std::to_string(status) + ")"};
    return fromJson(text);
}

} // namespace soak
