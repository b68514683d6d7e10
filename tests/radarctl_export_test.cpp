// radarctl export: what the node exporter's textfile collector reads.
#include "radarctl_fixture.h"

namespace {

class Export : public Radarctl {
protected:
    std::string text() const { return m_profile.read("collector/radar.prom"); }
    bool isAlone() const {
        return std::distance(std::filesystem::directory_iterator(m_file.parent_path()), {}) == 1;
    }

    const std::filesystem::path m_file = m_profile.path() / "collector" / "radar.prom";
    const bool m_made = std::filesystem::create_directory(m_file.parent_path());
    const Words m_command{RADARCTL, "export", "--timeout", "0.5", "--textfile", m_file.string()};
};

TEST_F(Export, SaysWhatIsKnownInTheFormatOfTheCollector) {
    const auto hostile = serve("host1", "\"\\x0A\\\n\xff", 20, 2U); // as the next one is shown
    const auto twin = serve("host2", "\"\\\\x0A\n\xff", 20, 2U);
    const auto plain = serve("host2", "North", 21, 2U);
    const auto namesAll = [&] { // it ends a second after the first answer
        return runOn("display", m_command).status == 0 && text().find("\nradars 3\n") != std::string::npos;
    };
    EXPECT_TRUE(comesTrue(namesAll, 60s));
    const std::vector<std::string> found = lines(text());
    for (const char* line :
         {"radar_up{radar=\"North\"} 1",
          "radar_info{radar=\"North\",host_id=\"21\",source=\"10.20.1.2\",streams=\"2\"} 1",
          "radar_host_id_holders{host_id=\"20\"} 2",
          "radar_local_address{address=\"10.20.2.1\",interface=\"eth0\"} 1",
          R"(radar_up{radar="\"\\x5Cx0A\\x5C\\x0A\\xFF"} 1)",
          R"(radar_up{radar="\"\\x5C\\x5Cx0A\\x0A\\xFF"} 1)"})
        EXPECT_THAT(found, Contains(line));
    EXPECT_THAT(found,
                Contains(MatchesRegex("radar_announcement_age_seconds.radar=\"North\". [0-7][.0-9]*")));
    const std::string path = "PATH=$PATH:" TOOLS "; ";
    if (runOn("display", {"sh", "-c", path + "command -v promtool"}).status != 0)
        GTEST_SKIP() << "there is no promtool, which scripts/bootstrap downloads";
    const Result judged = runOn("display", {"sh", "-c", path + "promtool check metrics <" + m_file.string()});
    EXPECT_EQ(judged.status, 0) << judged.output << judged.errors;
}

TEST_F(Export, ReplacesTheFileAsAWhole) {
    const auto north = serve("host1", "North", 20, 2U);
    lab::Process exporter =
        m_lan.node("display").start({.command = {"sh", "-c", "umask 077; exec \"$@\"", "sh", RADARCTL,
                                                 "export", "--every", "0.1", "--textfile", m_file.string()}});
    std::set<ino_t> files;
    const auto wasReplaced = [&] {
        const std::string now = text();
        if (now.empty())
            return false; // not there yet
        EXPECT_TRUE(now.ends_with("radar_local_address{address=\"10.20.2.1\",interface=\"eth0\"} 1\n"));
        struct stat status {};
        EXPECT_EQ(::stat(m_file.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0644));
        files.insert(status.st_ino);
        return files.size() > 2;
    };
    EXPECT_TRUE(comesTrue(wasReplaced, 30s));
    EXPECT_EQ(exporter.stop(), 0);
    EXPECT_TRUE(isAlone());
}

TEST_F(Export, SaysThatThereIsNoRadarAndLeavesAloneWhatItCannotReplace) {
    EXPECT_EQ(runOn("display", m_command).status, 0);
    EXPECT_THAT(text(), HasSubstr("\nradars 0\n"));
    std::filesystem::remove(m_file);
    std::filesystem::create_symlink("/dev/null", m_file);
    const Result link = runOn("display", m_command);
    EXPECT_EQ(link.status, 3);
    EXPECT_THAT(link.errors, MatchesRegex("radarctl: .*radar.prom is there, and no regular file\n"));
    EXPECT_TRUE(std::filesystem::is_symlink(m_file));
    std::filesystem::remove(m_file);
    std::ofstream(m_file) << "old\n";
    Words limited = m_command;
    limited.insert(limited.begin(), {"sh", "-c", "ulimit -f 0; trap '' XFSZ; exec \"$@\"", "sh"});
    lab::Process full = m_lan.node("display").start({.command = limited});
    EXPECT_EQ(full.wait(30s), 3);
    EXPECT_THAT(full.output(), HasSubstr("cannot write " + m_file.string() + ": File too large"));
    EXPECT_EQ(text(), "old\n");
    EXPECT_TRUE(isAlone());
}

} // namespace
