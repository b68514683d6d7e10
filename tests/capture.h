/// @file
/// Datagrams and segments as a capture has them, read by the dissector.
#pragma once

#include <UdpSocket/protocol/wire.h>
#include <UdpSocket/udpsocket.h>

#include <lab/process.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

/// One frame: the value of each requested field; the values of a field that occurs several times are
/// joined by '|'.
using Frame = std::map<std::string, std::string>;

/// A capture file. Frames are a millisecond apart.
class Capture {
public:
    /// @param directory an existing one, for its files
    explicit Capture(std::filesystem::path directory) : m_directory(std::move(directory)) {
        const std::uint32_t header[] = {0xA1B2C3D4, 4U << 16 | 2, 0,
                                        0,          65535,        228}; // packets begin with IPv4
        m_file.open(path("capture"), std::ios::binary);
        m_file.write(reinterpret_cast<const char*>(header), sizeof header);
    }

    void pause(std::chrono::milliseconds time) { m_time += time; }
    void datagram(const std::string& from, const wire::Group& group, const std::string& bytes) {
        packet(17, from, group.address,
               word(40000) + word(group.port) + word(8 + bytes.size()) + word(0) + bytes);
    }
    /// The next bytes of one direction of a connection.
    void segment(const std::string& from, std::uint16_t fromPort, const std::string& to, std::uint16_t toPort,
                 const std::string& bytes) {
        std::size_t& sent = m_sent[from];
        const std::size_t acknowledged = m_sent[to];
        packet(6, from, to,
               word(fromPort) + word(toPort) + word(0) + word(sent) + word(0) + word(acknowledged) +
                   word(0x5018) + word(65535) + word(0) + word(0) + bytes);
        sent += bytes.size();
    }

    /// Dissects it twice, as Wireshark does.
    std::vector<Frame> read(const std::vector<std::string>& fields) {
        m_file.close();
        std::vector<std::string> command = {
            "tshark", "-2", "-n",           "-r", path("capture"), "-X", "lua_script:" DISSECTOR, "-T",
            "fields", "-E", "occurrence=a", "-E", "aggregator=|"};
        for (const std::string& field : fields)
            command.insert(command.end(), {"-e", field});
        lab::Process tshark({.command = command, .errorFile = path("errors")});
        EXPECT_EQ(tshark.wait(std::chrono::seconds(60)), 0);
        std::ifstream file(path("errors"));
        const std::string errors{std::istreambuf_iterator<char>(file), {}};
        EXPECT_EQ(errors.find("Lua"), std::string::npos) << errors;

        std::vector<Frame> frames;
        std::istringstream lines(tshark.output());
        for (std::string line; std::getline(lines, line);) {
            std::istringstream values(line);
            Frame& frame = frames.emplace_back();
            for (const std::string& field : fields)
                std::getline(values, frame[field], '\t');
        }
        return frames;
    }

private:
    /// Two bytes in network order.
    static std::string word(std::size_t value) {
        return {static_cast<char>(value >> 8), static_cast<char>(value)};
    }
    static std::string address(const std::string& text) {
        const unsigned int ip = net::transAddr(text.c_str());
        return {reinterpret_cast<const char*>(&ip), sizeof ip};
    }
    void packet(std::uint8_t protocol, const std::string& from, const std::string& to,
                const std::string& payload) {
        const std::string bytes = word(0x4500) + word(20 + payload.size()) + word(0) + word(0) +
                                  word(64U << 8 | protocol) + word(0) + address(from) + address(to) + payload;
        m_time += std::chrono::milliseconds(1);
        const auto length = static_cast<std::uint32_t>(bytes.size());
        const std::uint32_t header[] = {static_cast<std::uint32_t>(m_time.count() / 1000),
                                        static_cast<std::uint32_t>(m_time.count() % 1000 * 1000), length,
                                        length};
        m_file.write(reinterpret_cast<const char*>(header), sizeof header);
        m_file << bytes;
    }
    std::string path(const char* name) const { return m_directory / name; }
    const std::filesystem::path m_directory;
    std::ofstream m_file;
    std::chrono::milliseconds m_time{1'000'000'000'000};
    std::map<std::string, std::size_t> m_sent; // bytes, by sender
};
