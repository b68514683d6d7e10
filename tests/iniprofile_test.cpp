#include "profile_directory.h"
#include "recorder.h"

#include <IniProfile/iniprofile.h>
#include <UdpSocket/base/descriptor.h>
#include <UdpSocket/base/escape.h>
#include <UdpSocket/settings/settings.h>

#include <lab/failing_memory.h>

#include <dlfcn.h>
#include <sys/inotify.h>

#include <new>

using ReadLine = char* (*)(char*, int, void*);
using TakeEntry = int (*)(void*, const char*, const char*, const char*);
extern "C" __attribute__((visibility("default"))) int ini_parse_stream(ReadLine, void*, TakeEntry,
                                                                       void*) noexcept;

/// inih's, through which nothing can be thrown, as on machines where it has no unwind tables.
int ini_parse_stream(ReadLine line, void* stream, TakeEntry entry, void* user) noexcept {
    using Parse = int(ReadLine, void*, TakeEntry, void*);
    return reinterpret_cast<Parse*>(::dlsym(RTLD_NEXT, "ini_parse_stream"))(line, stream, entry, user);
}

namespace {

class Profile : public testing::Test, protected ProfileDirectory {
protected:
    static std::string textOf(const char* section, const char* key, int maxLength = 400) {
        return GetProfileInfo(section, key, "default", maxLength, "profile.ini");
    }
    /// What a look-up of a key that is not there writes to standard error.
    static std::string reports() {
        return errOf([] { EXPECT_EQ(textOf("No", "Such"), "default"); });
    }
    static auto linesIn(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }
};

TEST_F(Profile, ValueIsFoundInEveryAcceptedNotation) {
    const std::string longName(300, 'n');
    const std::pair<std::string, std::string> cases[] = {
        {" [ Local ] \n\t IP\t=  10.0.0.1  \n", "10.0.0.1"},
        {"[LOCAL]\niP = 10.0.0.1", "10.0.0.1"},
        {"[Local]\nNetName = eth0\n    IP = 10.0.0.1\n", "10.0.0.1"},
        {"\xEF\xBB\xBF[Local]\r\nIP = 10.0.0.1\r\n", "10.0.0.1"},
        {"; a\r[Local]\r\rNetName = eth0\rIP = 10.0.0.1\r", "10.0.0.1"},
        {"; a\n# b\n[Local] # c\nIP = 10.0.0.1 ; d\n#IP = 2\n;IP = 3\n", "10.0.0.1"},
        {"[Local]\nIP = radar net: a=b;c#d\t# e\n", "radar net: a=b;c#d"},
        {"[Local]\nA = " + longName + " IP = 1\nIP = " + longName + " ;" + longName, longName},
        {"[Local]\nIP = 1\n[Radar]\nIP = 2\n[local]\nIP = 3\n", "3"},
        {"[Local]\nIP = ; none\n", ""},
        {"IP = 0\n[Radar]\nIP = 1\n[Local2]\nIP = 2\n", "default"},
    };
    for (const auto& [text, expected] : cases) {
        write(text);
        EXPECT_EQ(errOf([&, &value = expected] { EXPECT_EQ(textOf("Local", "IP"), value); }), "") << text;
    }
    for (const std::size_t length : {49U, 50U, 300U}) {
        const std::string name(length, 's');
        write("[ " + name + " ] ; comment\nIP = 1\n[" + name + "x]\nIP = 2\n");
        EXPECT_EQ(textOf(name.c_str(), "IP"), "1") << length;
        EXPECT_EQ(textOf((name + "x").c_str(), "IP"), "2") << length;
        EXPECT_EQ(textOf(name.substr(1).c_str(), "IP"), "default") << length;
    }
}

TEST_F(Profile, ConfiguredAddressIsWhatTransAddrMakesOfTheText) {
    for (const auto& [text, address] : {std::pair{"0x0a090001", "10.9.0.1"},
                                        {"10.9.0.1 + 16 al", "10.9.0.1"},
                                        {"0.0.0.0", "0.0.0.0"},
                                        {"", "0.0.0.0"},
                                        {"255.255.255.255", nullptr},
                                        {"radar\x1B[2J", nullptr}}) {
        write(std::string("[Radar]\nIP = ") + text + "\n[Local]\nIP = " + text + "\n");
        const std::string lines = errOf([&, expected = address != nullptr ? address : "0.0.0.0"] {
            EXPECT_STREQ(net::transAddr(net::settings::radarAddress()), expected);
            EXPECT_STREQ(net::transAddr(net::settings::localAddress().ip), expected);
        });
        const std::string end =
            " = " + net::detail::escaped(text) + " is no IPv4 address, taken as 0.0.0.0\n";
        EXPECT_EQ(lines, address == nullptr
                             ? "profile.ini: [Radar] IP" + end + "profile.ini: [Local] IP" + end
                             : "");
    }
    write("[Radar]\nIP = 10.9.0.1 + 17 all\n");
    EXPECT_THAT(errOf([] { EXPECT_EQ(net::settings::radarAddress(), 0U); }), HasSubstr("than 16 bytes"));
}

TEST_F(Profile, BooleanTakesTheUsualWordsAndElseTheDefault) {
    const Output output;
    const auto isTrue = [&](const std::string& text, const char* otherwise) {
        write("[Local]\nLoop = " + text + " ; comment\n");
        return GetProfileInfo_bool("Local", "Loop", otherwise, "profile.ini");
    };
    for (const char* otherwise : {"yes", ""}) {
        for (const char* text : {"true", "YES", "On", "1"})
            EXPECT_TRUE(isTrue(text, otherwise)) << text;
        for (const char* text : {"FALSE", "no", "oFF", "0"})
            EXPECT_FALSE(isTrue(text, otherwise)) << text;
        for (const char* text : {"", "2", "enabled"})
            EXPECT_EQ(isTrue(text, otherwise), *otherwise != '\0') << text;
    }
    EXPECT_THAT(output.err(), HasSubstr("profile.ini:2: [Local] Loop is no boolean"));
}

TEST_F(Profile, EveryBrokenLineIsReportedOnceWithItsNumber) {
    write("[Local]\nIP 10.0.0.1\n= nothing\nNetName = \"eth1\"\n[Local\nNetName = eth2\n");
    const std::string first = reports();
    EXPECT_THAT(first, HasSubstr("profile.ini:2: neither a [section] nor key = value, ignored\n"));
    EXPECT_THAT(first, HasSubstr("profile.ini:3: neither a [section] nor key = value, ignored\n"));
    EXPECT_THAT(first, HasSubstr("profile.ini:5: a section without ], the keys below it are ignored\n"));
    EXPECT_EQ(linesIn(first), 3);

    const auto quotes = [] { return errOf([] { EXPECT_EQ(textOf("Local", "NetName"), "\"eth1\""); }); };
    EXPECT_EQ(quotes(), path().string() + "/profile.ini:4: [Local] NetName is taken with its quotes\n");
    write("[Local]\nNetName = \"eth1\"\n");
    EXPECT_EQ(quotes(), "") << "also when it has moved";
    write("[Local]\nIP = \"\"\n");
    EXPECT_THAT(errOf([] { textOf("Local", "IP"); }), HasSubstr("IP is taken with its quotes"));
    write("[Local]\nIP 10.0.0.1\n\nNetName = 123.123.123.1234\n");
    EXPECT_EQ(textOf("Local", "NetName", 16), "123.123.123.1234");
    EXPECT_EQ(errOf([] { EXPECT_EQ(textOf("Local", "NetName", 15), "default"); }),
              path().string() +
                  "/profile.ini:4: [Local] NetName is longer than 15 bytes, the default is used\n")
        << "the file is read again, each fault reported once";
}

TEST_F(Profile, FileThatCannotBeReadIsReportedAndAMissingOneIsNot) {
    EXPECT_EQ(reports(), "");
    write(std::string("[\0L\0]\0", 6));
    EXPECT_THAT(reports(), HasSubstr("no UTF-8 text"));
    const std::filesystem::path file = path() / "profile.ini";
    std::filesystem::remove(file);
    std::filesystem::create_directory(file);
    EXPECT_THAT(reports(), HasSubstr("profile.ini: cannot be read (Is a directory)"));
    std::filesystem::remove(file);
    ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
    ::alarm(20); // ends the test if the file is waited for
    EXPECT_THAT(reports(), HasSubstr("profile.ini: cannot be read (it is a FIFO)"));
    ::alarm(0);
}

TEST_F(Profile, RelativePathIsInTheNamedOrElseTheCurrentDirectory) {
    write("[Local]\nIP = current\n", "current.ini");
    std::filesystem::current_path(path());
    ::unsetenv("INIPROFILE_DIR");
    EXPECT_EQ(GetProfileInfo("Local", "IP", "default", 16, "current.ini"), "current");
    ::setenv("INIPROFILE_DIR", "", 1);
    EXPECT_EQ(GetProfileInfo("Local", "IP", "default", 16, "current.ini"), "current");
    std::filesystem::current_path("/");
    EXPECT_EQ(GetProfileInfo("Local", "IP", "default", 16, (path() / "current.ini").c_str()), "current");
}

TEST_F(Profile, IsReadAgainExactlyWhenItsFileHasChanged) {
    const std::filesystem::path file = path() / "profile.ini";
    std::filesystem::create_symlink(DOCS_DIRECTORY "/profile.ini.example", file);
    const net::detail::Descriptor reads(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    const auto isOpenedFor = [&](const std::string& value) {
        EXPECT_NE(::inotify_add_watch(reads.get(), file.c_str(), IN_OPEN), -1);
        EXPECT_EQ(textOf("Local", "IP"), value);
        char events[4096];
        return ::read(reads.get(), events, sizeof events) > 0;
    };
    isOpenedFor("0.0.0.0");
    EXPECT_TRUE(comesTrue([&] { return !isOpenedFor("0.0.0.0"); })) << "another test may open it, too";
    write("[Local]\nIP = new\n", "other.ini");
    std::filesystem::rename(path() / "other.ini", file);
    // A change within the time stamp's resolution would not show, so a file is read each time when it is new.
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(isOpenedFor("new"));
    std::filesystem::remove(file);
    EXPECT_EQ(textOf("Local", "IP"), "default");
}

TEST_F(Profile, ShippedExampleHoldsEveryDefaultAndIsQuotedInTheManual) {
    const std::string example = read(DOCS_DIRECTORY "/profile.ini.example");
    EXPECT_THAT(read(DOCS_DIRECTORY "/configuration.md"), HasSubstr("```ini\n" + example + "```\n"));
    write(example);
    EXPECT_EQ(reports(), "");
    EXPECT_EQ(textOf("Radar", "IP") + textOf("Local", "NetName"), "");
    EXPECT_EQ(textOf("Local", "IP"), "0.0.0.0");
    EXPECT_EQ(textOf("Radar", "TCPService"), "false");
    EXPECT_EQ(textOf("Local", "MulticastLoop"), "false");
}

TEST_F(Profile, MemoryThatRunsOutReachesTheCaller) {
    write("[Local]\nNetName = a name that takes memory\nbroken\nIP = 10.0.0.1\n");
    const std::string errors = errOf([] {
        for (long first = 1, hit = 1; hit != 0; ++first) {
            const FailingMemory failing(first, FailingMemory::Threads::kOwn);
            try {
                textOf("Local", "IP");
            } catch (const std::bad_alloc&) {
            }
            hit = failing.hit();
        }
    });
    EXPECT_EQ(textOf("Local", "IP"), "10.0.0.1");
}

} // namespace
