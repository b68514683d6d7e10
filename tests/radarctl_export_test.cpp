// radarctl export: what the node exporter's textfile collector reads.
#include "radarctl_fixture.h"

#include <sys/stat.h>

#include <map>
#include <regex>
#include <set>

namespace {

using testing::IsEmpty;

class Export : public Radarctl {
protected:
    static std::string textOf(const std::filesystem::path& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::vector<std::string> command(const std::vector<std::string>& more = {}) const {
        std::vector<std::string> words = radarctl({"export", "--textfile", m_file.string()});
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }
    Result run(const Words& words) { return runOn("display", words); }
    std::vector<std::string> filesBesides() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_file.parent_path()))
            if (entry.path() != m_file)
                names.push_back(entry.path().filename());
        return names;
    }

    const std::filesystem::path m_file = m_profile.path() / "collector" / "radar.prom";
    const bool m_made = std::filesystem::create_directory(m_file.parent_path());
};

/// Values by series, of a text in which each family is announced once and no series comes twice.
std::map<std::string, double> seriesOf(const std::string& text) {
    const std::regex announcement("# (HELP|TYPE) ([a-z_]+) (.+)");
    const std::regex sample(
        R"re(([a-z_]+)(\{[a-z_]+="([^"\\]|\\["\\n])*"(,[a-z_]+="([^"\\]|\\["\\n])*")*\})? ([0-9.]+))re");
    std::map<std::string, double> series;
    std::set<std::string> families;
    std::string family;
    for (const std::string& line : lines(text)) {
        std::smatch parts;
        if (std::regex_match(line, parts, announcement)) {
            if (parts[1] == "HELP")
                EXPECT_TRUE(families.insert(family = parts[2]).second) << line;
            else
                EXPECT_TRUE(parts[2] == family && parts[3] == "gauge") << line;
        } else if (std::regex_match(line, parts, sample)) {
            EXPECT_EQ(parts[1], family) << line;
            EXPECT_TRUE(series.emplace(line.substr(0, line.rfind(' ')), std::stod(parts[6])).second) << line;
        } else {
            ADD_FAILURE() << "neither: " << line;
        }
    }
    EXPECT_TRUE(text.ends_with("\n"));
    return series;
}

TEST_F(Export, SaysWhatIsKnownInTheFormatOfTheCollector) {
    const auto hostile = serve("host1", "\"\\x0A\\\n\xff", 20, 2U); // as the next one is shown
    const auto twin = serve("host2", "\"\\\\x0A\n\xff", 20, 2U);
    const auto plain = serve("host2", "North", 21, 2U);
    std::string text;
    EXPECT_TRUE(comesTrue( // it ends a second after the first answer
        [&] {
            EXPECT_EQ(run(command()).status, 0);
            text = textOf(m_file);
            return text.find("\nradars 3\n") != std::string::npos;
        },
        60s));
    const auto series = seriesOf(text);
    EXPECT_EQ(series.at("radar_up{radar=\"North\"}"), 1);
    EXPECT_EQ(series.at("radar_info{radar=\"North\",host_id=\"21\",source=\"10.20.1.2\",streams=\"2\"}"), 1);
    EXPECT_LT(series.at("radar_announcement_age_seconds{radar=\"North\"}"), 8);
    EXPECT_EQ(series.at("radar_host_id_holders{host_id=\"20\"}"), 2);
    EXPECT_EQ(series.at("radar_local_address{address=\"10.20.2.1\",interface=\"eth0\"}"), 1);
    EXPECT_EQ(series.at(R"(radar_up{radar="\"\\x5Cx0A\\x5C\\x0A\\xFF"})"), 1);
    EXPECT_EQ(series.at(R"(radar_up{radar="\"\\x5C\\x5Cx0A\\x0A\\xFF"})"), 1);

    const std::string path = "PATH=$PATH:" TOOLS "; ";
    if (run({"sh", "-c", path + "command -v promtool"}).status != 0)
        GTEST_SKIP() << "there is no promtool, which scripts/bootstrap downloads";
    const Result judged = run({"sh", "-c", path + "promtool check metrics <" + m_file.string()});
    EXPECT_EQ(judged.status, 0) << judged.output << judged.errors;
}

TEST_F(Export, ReplacesTheFileAsAWholeAndRemembersWhoLeft) {
    auto north = serve("host1", "North", 20, 2U);
    lab::Process exporter =
        m_lan.node("display").start({.command = {"sh", "-c", "umask 077; exec \"$@\"", "sh", RADARCTL,
                                                 "export", "--every", "0.1", "--textfile", m_file.string()}});
    std::set<ino_t> files;
    bool hasLeft = false;
    EXPECT_TRUE(comesTrue(
        [&] {
            const std::string text = textOf(m_file);
            if (text.empty())
                return false; // not there yet
            EXPECT_TRUE(
                seriesOf(text).contains("radar_local_address{address=\"10.20.2.1\",interface=\"eth0\"}"))
                << "the last line";
            struct stat status {};
            EXPECT_EQ(::stat(m_file.c_str(), &status), 0);
            EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0644));
            files.insert(status.st_ino);
            north.reset();
            hasLeft = text.find("radar_up{radar=\"North\"} 0\n") != std::string::npos;
            return hasLeft && text.find("\nradars 0\n") != std::string::npos;
        },
        30s));
    EXPECT_GT(files.size(), 1U);
    EXPECT_EQ(exporter.stop(), 0);
    EXPECT_THAT(filesBesides(), IsEmpty());
}

TEST_F(Export, SaysThatThereIsNoRadarAndLeavesAloneWhatItCannotReplace) {
    const std::vector<std::string> quick{"--timeout", "0.2"};
    EXPECT_EQ(run(command(quick)).status, 0);
    EXPECT_EQ(seriesOf(textOf(m_file)).at("radars"), 0);
    std::filesystem::remove(m_file);
    std::filesystem::create_symlink("/dev/null", m_file);
    const Result link = run(command(quick));
    EXPECT_EQ(link.status, 3);
    EXPECT_THAT(link.errors, MatchesRegex("radarctl: .*radar.prom is there, and no regular file\n"));
    EXPECT_TRUE(std::filesystem::is_symlink(m_file));
    std::filesystem::remove(m_file);
    std::ofstream(m_file) << "old\n";
    auto words = command(quick);
    words.insert(words.begin(), {"sh", "-c", "ulimit -f 0; trap '' XFSZ; exec \"$@\"", "sh"});
    lab::Process full = m_lan.node("display").start({.command = words});
    EXPECT_EQ(full.wait(30s), 3);
    EXPECT_THAT(full.output(), HasSubstr("cannot write " + m_file.string() + ": File too large"));
    EXPECT_EQ(textOf(m_file), "old\n");
    EXPECT_THAT(filesBesides(), IsEmpty());
}

} // namespace
