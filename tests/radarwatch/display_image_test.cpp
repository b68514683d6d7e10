// The example that draws a picture, on a display beside a simulated radar.
#include "../profile_directory.h"

#include <lab/lan.h>

#include <gtest/gtest.h>
#include <png.h>

#include <cstdint>
#include <vector>

namespace {

using namespace std::chrono_literals;

TEST(DisplayImage, DrawsTheSimulatorsTargetsOnItsSea) {
    const ProfileDirectory profile("[Local]\nIP = 10.20.2.1\n");
    lab::Lan lan({lab::display(2), lab::radarHost(1)});
    lab::Process host =
        lan.node("host1").start({.command = {RADARCTL, "host", "--name", "North", "--simulate"}});
    const std::string file = "/run/picture.png"; // of the private network
    lab::Process display = lan.node("display").start({.command = {DISPLAY_IMAGE, "North", file}});
    lab::Process refused =
        lan.node("display").start({.command = {DISPLAY_IMAGE, "North", "/none/picture.png"}});
    ASSERT_EQ(display.wait(60s), 0) << display.output();
    EXPECT_EQ(refused.wait(60s), 1);
    EXPECT_NE(refused.output().find("/none/picture.png: No such file"), std::string::npos)
        << refused.output();

    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    ASSERT_TRUE(png_image_begin_read_from_file(&image, file.c_str()));
    image.format = PNG_FORMAT_GRAY;
    ASSERT_TRUE(image.width == 1024 && image.height == 1024);
    std::vector<std::uint8_t> pixels(PNG_IMAGE_SIZE(image));
    ASSERT_TRUE(png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr));

    // Nautical miles from the centre, of 6 to each side. Targets begin here, and are slow.
    const auto brightest = [&](double east, double north) {
        const int x = 512 + static_cast<int>(east * 512 / 6);
        const int y = 512 - static_cast<int>(north * 512 / 6);
        std::uint8_t best = 0;
        for (int row = y - 12; row <= y + 12; ++row)
            for (int column = x - 12; column <= x + 12; ++column)
                best = std::max(best, pixels[static_cast<std::size_t>(row * 1024 + column)]);
        return best;
    };
    for (const auto& [east, north] : {std::pair(-3.0, 2.0), {1.5, -4.0}, {4.0, 3.0}})
        EXPECT_EQ(brightest(east, north), 0xF0);
    EXPECT_EQ(brightest(-3, -2), 0x08) << "the sea";
    EXPECT_EQ(pixels[0], 0) << "beyond the range";
}

} // namespace
