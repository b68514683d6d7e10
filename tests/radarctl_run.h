/// @file
/// Running radarctl, and other programs, on a computer of the lab.
#pragma once

#include <lab/lan.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

struct Result {
    int status; ///< -1: it did not end
    std::string output;
    std::string errors;
};

/// @param directory where standard error may be kept meanwhile
inline Result runOn(const lab::Node& node, const std::vector<std::string>& command,
                    const std::filesystem::path& directory) {
    const std::string errors = directory / "errors";
    lab::Process process = node.start({.command = command, .errorFile = errors});
    const int status = process.wait(std::chrono::seconds(40)).value_or(-1);
    std::ifstream file(errors);
    const std::string written{std::istreambuf_iterator<char>(file), {}};
    std::filesystem::remove(errors); // it is appended to
    return {status, process.output(), written};
}

inline std::vector<std::string> radarctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), RADARCTL);
    return arguments;
}

inline std::vector<std::string> lines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> result;
    for (std::string line; std::getline(stream, line);)
        result.push_back(line);
    return result;
}
