/// @file
/// Captures what a node of the lab receives, and has the dissector read it.
#pragma once

#include "wait.h"

#include <lab/lan.h>

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

/// One frame: the value of each requested field; the values of a field that occurs several times are
/// joined by '|'.
using Frame = std::map<std::string, std::string>;

/// Captures on a node's eth0 from the constructor to read(), 60 seconds and 500 frames at most.
class Capture {
public:
    /// @param directory an existing one, for its files
    Capture(const lab::Node& node, std::filesystem::path directory)
        : m_directory(std::move(directory)),
          m_dumpcap(node.start({.command = {"dumpcap", "-q", "-i", "eth0", "-f", "udp or tcp", "-c", "500",
                                            "-a", "duration:60", "-w", path("capture")}})) {
        EXPECT_TRUE(m_dumpcap.lineWith("File:", std::chrono::seconds(30))) << "dumpcap listens";
    }

    /// Ends the capture when @p last has been captured, and dissects it twice, as Wireshark does.
    std::vector<Frame> read(const std::string& last, const std::vector<std::string>& fields) {
        EXPECT_TRUE(comesTrue([&] { return contents("capture").find(last) != std::string::npos; }));
        m_dumpcap.signal(SIGINT);
        EXPECT_EQ(m_dumpcap.wait(std::chrono::seconds(30)), 0);

        std::vector<std::string> command = {
            "tshark", "-2", "-n",           "-r", path("capture"), "-X", "lua_script:" DISSECTOR, "-T",
            "fields", "-E", "occurrence=a", "-E", "aggregator=|"};
        for (const std::string& field : fields)
            command.insert(command.end(), {"-e", field});
        lab::Process tshark({.command = command, .outputFile = path("fields"), .errorFile = path("errors")});
        EXPECT_EQ(tshark.wait(std::chrono::seconds(30)), 0) << contents("errors");
        EXPECT_EQ(contents("errors").find("Lua"), std::string::npos) << contents("errors");

        std::vector<Frame> frames;
        std::istringstream lines(contents("fields"));
        for (std::string line; std::getline(lines, line);) {
            std::istringstream values(line);
            Frame& frame = frames.emplace_back();
            for (const std::string& field : fields)
                std::getline(values, frame[field], '\t');
        }
        return frames;
    }

private:
    std::string path(const char* name) const { return m_directory / name; }
    std::string contents(const char* name) const {
        std::ifstream file(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    const std::filesystem::path m_directory;
    lab::Process m_dumpcap;
};
