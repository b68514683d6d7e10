#include <IniProfile/iniprofile.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

/// An empty directory of its own for each test, named by INIPROFILE_DIR.
class Profile : public testing::Test {
protected:
    Profile() {
        std::string name = std::filesystem::temp_directory_path() / "profile-XXXXXX";
        if (::mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("no temporary directory");
        m_directory = name;
        ::setenv("INIPROFILE_DIR", name.c_str(), 1);
    }
    ~Profile() override {
        ::unsetenv("INIPROFILE_DIR");
        std::filesystem::remove_all(m_directory);
    }

    void write(const std::string& text, const std::string& file = "profile.ini") const {
        std::ofstream(m_directory / file, std::ios::binary) << text;
    }
    static std::string textOf(const char* section, const char* key, int maxLength = 64) {
        return GetProfileInfo(section, key, "default", maxLength, "profile.ini");
    }
    /// What a look-up of a key that is not there writes to standard error.
    static std::string complaints() {
        CaptureStderr();
        EXPECT_EQ(textOf("No", "Such"), "default");
        return GetCapturedStderr();
    }

    std::filesystem::path m_directory;
};

TEST_F(Profile, ValueIsFoundAsAUserWroteIt) {
    const std::string longName(300, 'n');
    const struct {
        const char* what;
        std::string text;
        std::string expected;
    } cases[] = {
        {"plain", "[Local]\nIP=10.0.0.1\n", "10.0.0.1"},
        {"blanks around everything", " [ Local ] \n\t IP\t=  10.0.0.1  \n", "10.0.0.1"},
        {"other letter case", "[LOCAL]\niP = 10.0.0.1\n", "10.0.0.1"},
        {"indented under another key", "[Local]\nNetName = eth0\n    IP = 10.0.0.1\n", "10.0.0.1"},
        {"CRLF and a byte order mark", "\xEF\xBB\xBF[Local]\r\nIP = 10.0.0.1\r\n", "10.0.0.1"},
        {"no newline at the end", "[Local]\nIP = 10.0.0.1", "10.0.0.1"},
        {"comments", "; a\n# b\n[Local] # c\nIP = 10.0.0.1 ; d\n#IP = 2\n", "10.0.0.1"},
        {"hash comment behind the value", "[Local]\nIP = 10.0.0.1\t# the left display\n", "10.0.0.1"},
        {"comment signs inside a word", "[Local]\nIP = a;b#c\n", "a;b#c"},
        {"blanks and separators inside", "[Local]\nIP = radar net: a=b\n", "radar net: a=b"},
        {"long comment", "[Local]\nIP = 10.0.0.1 ;" + longName + "\n", "10.0.0.1"},
        {"long value before it", "[Local]\nOther = " + longName + " IP = 1\nIP = 10.0.0.1\n", "10.0.0.1"},
        {"long value", "[Local]\nIP = " + longName + "\n", longName},
        {"last of two", "[Local]\nIP = 1\n[Radar]\nIP = 2\n[local]\nIP = 3\n", "3"},
        {"no text", "[Local]\nIP =\n", ""},
        {"only a comment as text", "[Local]\nIP = ; none\n", ""},
        {"another section's key", "IP = 0\n[Radar]\nIP = 1\n[Local2]\nIP = 2\n", "default"},
        {"commented out", "[Local]\n;IP = 1\n", "default"},
        {"empty file", "", "default"},
    };
    for (const auto& [what, text, expected] : cases) {
        write(text);
        CaptureStderr();
        EXPECT_EQ(textOf("Local", "IP", 400), expected) << what;
        EXPECT_THAT(GetCapturedStderr(), IsEmpty()) << what;
    }
}

TEST_F(Profile, BooleanTakesTheUsualWordsAndElseTheDefault) {
    const struct {
        const char* text;
        bool withDefaultTrue;
        bool withDefaultFalse;
    } cases[] = {
        {"true", true, true},    {"YES", true, true},  {"On", true, true},       {"1", true, true},
        {"FALSE", false, false}, {"no", false, false}, {"oFF", false, false},    {"0", false, false},
        {"", true, false},       {"2", true, false},   {"enabled", true, false},
    };
    const auto flag = [](const char* defaultText) {
        return GetProfileInfo_bool("Local", "MulticastLoop", defaultText, "profile.ini");
    };
    for (const auto& [text, withDefaultTrue, withDefaultFalse] : cases) {
        write(std::string("[Local]\nMulticastLoop = ") + text + " ; comment\n");
        EXPECT_EQ(flag("true"), withDefaultTrue) << text;
        EXPECT_EQ(flag("false"), withDefaultFalse) << text;
        EXPECT_EQ(flag(""), withDefaultFalse) << text;
    }
    write("[Local]\n\nMulticastLoop = perhaps\n");
    CaptureStderr();
    EXPECT_TRUE(flag("yes"));
    EXPECT_THAT(GetCapturedStderr(),
                ContainsRegex("profile\\.ini:3: \\[Local\\] MulticastLoop is no boolean"));
}

TEST_F(Profile, ValueBeyondTheMaximumLengthIsReportedAndTheDefaultTaken) {
    write("[Local]\nIP = 123.123.123.1234\n");
    CaptureStderr();
    EXPECT_EQ(textOf("Local", "IP", 16), "123.123.123.1234");
    EXPECT_EQ(textOf("Local", "IP", 15), "default");
    EXPECT_EQ(GetCapturedStderr(), m_directory.string() +
                                       "/profile.ini:2: [Local] IP is longer than 15 bytes, "
                                       "the default is used\n");
}

TEST_F(Profile, EveryBrokenLineIsReportedOnceWithItsNumber) {
    write("[Local]\nIP 10.0.0.1\n= nothing\nNetName = eth1\n");
    const std::string first = complaints();
    EXPECT_THAT(first, HasSubstr("profile.ini:2: neither a [section] nor key = value, ignored\n"));
    EXPECT_THAT(first, HasSubstr("profile.ini:3: neither a [section] nor key = value, ignored\n"));
    EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 2);
    EXPECT_EQ(textOf("Local", "NetName"), "eth1");
    EXPECT_THAT(complaints(), IsEmpty()) << "the file is read at every look-up, its faults told once";

    write("[Local]\nIP 10.0.0.1\n[Local\n");
    EXPECT_THAT(complaints(), ContainsRegex("^[^\n]*profile\\.ini:3: a section without \\][^\n]*\n$"));
}

TEST_F(Profile, KeysBelowABrokenSectionBelongToNoSection) {
    write("[Radar]\nIP = 10.0.0.9\n[Local\nIP = 10.0.0.1\n[Radar]\nTCPService = on\n");
    EXPECT_EQ(textOf("Radar", "IP"), "10.0.0.9");
    EXPECT_EQ(textOf("Radar", "TCPService"), "on");
}

TEST_F(Profile, FileThatCannotBeReadIsReportedAndAMissingOneIsNot) {
    EXPECT_THAT(complaints(), IsEmpty());
    std::filesystem::create_directory(m_directory / "profile.ini");
    EXPECT_THAT(complaints(),
                ContainsRegex("^[^\n]*profile\\.ini: cannot be read \\(Is a directory\\)[^\n]*\n$"));

    std::filesystem::remove(m_directory / "profile.ini");
    write(std::string("[\0L\0]\0", 6));
    EXPECT_THAT(complaints(), HasSubstr("no UTF-8 text"));
}

TEST_F(Profile, DirectoryIsTheNamedOneOrTheCurrentOne) {
    std::filesystem::create_directory(m_directory / "here");
    write("[Local]\nIP = named\n");
    write("[Local]\nIP = current\n", "here/profile.ini");
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(m_directory / "here");
    EXPECT_EQ(textOf("Local", "IP"), "named");
    const std::string absolute = m_directory / "here/profile.ini";
    EXPECT_EQ(GetProfileInfo("Local", "IP", "default", 16, absolute.c_str()), "current");
    for (const char* unset : {"", static_cast<const char*>(nullptr)}) {
        unset == nullptr ? ::unsetenv("INIPROFILE_DIR") : ::setenv("INIPROFILE_DIR", unset, 1);
        EXPECT_EQ(textOf("Local", "IP"), "current");
    }
    std::filesystem::current_path(before);
}

TEST_F(Profile, LooksUpFromManyThreadsAtOnce) {
    write("[Local]\nNetName = eth0\nbroken\nIP = 1234567890\n");
    CaptureStderr();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([] {
            for (int round = 0; round < 50; ++round) {
                EXPECT_EQ(textOf("Local", "NetName"), "eth0");
                EXPECT_EQ(textOf("Local", "IP", 4), "default");
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    const std::string lines = GetCapturedStderr();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 2) << lines;
}

TEST_F(Profile, ShippedExampleHoldsEveryDefaultAndStandsInTheManual) {
    const auto contents = [](const char* file) {
        std::ostringstream text;
        text << std::ifstream(std::string(HOUSE_DOCS) + "/" + file).rdbuf();
        return text.str();
    };
    const std::string example = contents("profile.ini.example");
    EXPECT_THAT(contents("configuration.md"), HasSubstr("```ini\n" + example + "```\n"));
    write(example);
    EXPECT_THAT(complaints(), IsEmpty());
    EXPECT_EQ(textOf("Radar", "IP", 16), "");
    EXPECT_EQ(textOf("Radar", "TCPService"), "false");
    EXPECT_EQ(textOf("Local", "IP", 16), "0.0.0.0");
    EXPECT_EQ(textOf("Local", "NetName", 64), "");
    EXPECT_EQ(textOf("Local", "MulticastLoop"), "false");
}

TEST_F(Profile, ComplaintsOfAProcessAreBounded) {
    std::string text;
    for (int i = 0; i < 300; ++i)
        text += "broken\n";
    write(text);
    const std::string lines = complaints();
    EXPECT_GT(std::count(lines.begin(), lines.end(), '\n'), 50);
    EXPECT_LE(std::count(lines.begin(), lines.end(), '\n'), 100);
    EXPECT_THAT(complaints(), IsEmpty());
}

} // namespace
