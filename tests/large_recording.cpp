// A recording of more than 4 GiB, which no 32-bit position in a file reaches the end of: written as fast as
// it goes, and read to its end. It takes minutes and a disk, so it is left to .ci/weekly.

#include "profile_directory.h"
#include "records.h"

#include <RadarWatch/recording/writer.h>

#include <lab/process.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>

namespace {

using namespace std::chrono_literals;
using namespace radar::recording;

constexpr std::uint64_t kBytes = 4'500'000'000;

TEST(LargeRecording, IsWrittenAndReadToItsEnd) {
    ::setenv("TMPDIR", BUILD_DIRECTORY, 1); // which is on a disk
    const ProfileDirectory directory;
    ASSERT_GT(std::filesystem::space(directory.path()).available, kBytes + kBytes / 10);
    const std::string file = directory.path() / "file";
    const std::string image(60000, 'p');
    const Datagram datagram{1700000000s, endpoint("10.20.1.1", 40000), endpoint("236.6.7.99", 6131), image};
    std::uint64_t datagrams = 0;
    {
        Writer writer(
            {file, "a test"}, [] { return Chunk(); }, [] {});
        std::uint64_t written = 0;
        while (written < kBytes) {
            Chunk chunk{interfaceBlock("eth0"), {}};
            for (int i = 0; i < 50; ++i, ++datagrams)
                appendDatagramBlock(chunk.blocks, 0, datagram, "");
            written += chunk.blocks.size();
            while (!writer.give(chunk)) {
                ASSERT_FALSE(writer.failure()) << writer.failure().message();
                std::this_thread::sleep_for(1ms); // there is no more room in the queue
            }
        }
        writer.finish();
        ASSERT_FALSE(writer.failure()) << writer.failure().message();
    }
    ASSERT_GT(std::filesystem::file_size(file), kBytes);

    lab::Process info({.command = {RADARCTL, "info", "--json", file}});
    ASSERT_EQ(info.wait(600s), 0) << info.output();
    const auto found = nlohmann::json::parse(info.output());
    EXPECT_EQ(found["broken"], nullptr);
    EXPECT_EQ(found["total"]["datagrams"], datagrams);
}

} // namespace
