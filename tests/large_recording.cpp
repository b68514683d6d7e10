// A recording of more than 4 GiB, which no 32-bit position in a file reaches the end of: written as fast as
// it goes, shown, and replayed from its end. It takes minutes and a disk, so it is left to .ci/weekly.

#include "profile_directory.h"
#include "records.h"

#include <RadarWatch/recording/writer.h>

#include <UdpSocket/protocol/announcement.h>

#include <lab/lan.h>
#include <lab/process.h>

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>

#include <filesystem>

namespace {

using namespace std::chrono_literals;
using namespace radar::recording;

constexpr std::uint64_t kBytes = 4'500'000'000;
constexpr auto kStep = 1ms; // between two datagrams

TEST(LargeRecording, IsWrittenShownAndReplayedToItsEnd) {
    ::setenv("TMPDIR", BUILD_DIRECTORY, 1); // which is on a disk
    const ProfileDirectory directory;
    ASSERT_GT(std::filesystem::space(directory.path()).available, kBytes + kBytes / 10);
    const std::string file = directory.path() / "file";
    const std::string image(60000, 'p');
    const NetAddress source = endpoint("10.20.1.1", 40000);
    const NetAddress discovery = endpoint(wire::kDiscovery.address, wire::kDiscovery.port);
    const NetAddress group = plan::announcedEndpoint(20, &RadarAddress::imageStream, 0);
    const std::string announcement = protocol::composeAnnouncement("North", 20, 1);
    std::uint64_t datagrams = 0;
    Time time = 1700000000s;
    {
        Writer writer(
            {file, "a test"}, [] { return Chunk(); }, [] {});
        std::uint64_t written = 0;
        while (written < kBytes) {
            Chunk chunk{interfaceBlock("eth0"), {}};
            appendDatagramBlock(chunk.blocks, 0, {time, source, discovery, announcement}, "");
            for (int i = 0; i < 50; ++i, time += kStep, ++datagrams)
                appendDatagramBlock(chunk.blocks, 0, {time, source, group, image}, "");
            ++datagrams; // the announcement
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
    EXPECT_EQ(found["radars"].size(), 1U);

    lab::Lan lan({lab::radarHost(1)});
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time - 1700000000s).count();
    lab::Process replay =
        lan.node("host1").start({.command = {RADARCTL, "replay", file, "--interface", "eth0", "--from",
                                             std::to_string(seconds - 2)}});
    ASSERT_EQ(replay.wait(600s), 0) << replay.output();
    EXPECT_THAT(replay.output(), testing::HasSubstr("North holds host id 20"));
    EXPECT_THAT(replay.output(), testing::ContainsRegex("\n[1-9][0-9]* datagrams sent"));
}

} // namespace
