#include "profile_directory.h"
#include "wait.h"

#include <UdpSocket/hostserver.h>

#include <lab/lan.h>

#include <gmock/gmock.h>

#include <csignal>
#include <sstream>

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

struct Result {
    int status;
    std::string output;
    std::string errors;
};

std::vector<std::string> lines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> result;
    for (std::string line; std::getline(stream, line);)
        result.push_back(line);
    return result;
}

/// Two computers and a display whose local address is configured.
class Radarctl : public testing::Test {
protected:
    static lab::Process::Plan plan(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), RADARCTL);
        return {.command = arguments};
    }
    lab::Process start(const char* node, std::vector<std::string> arguments) {
        return m_lan.node(node).start(plan(std::move(arguments)));
    }
    /// A host that serves already.
    lab::Process startHost(const char* node, std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "host");
        lab::Process host = start(node, arguments);
        EXPECT_TRUE(host.lineWith("serving", 15s));
        return host;
    }
    Result run(std::vector<std::string> arguments) {
        const std::string errors = m_profile.path() / "errors";
        lab::Process::Plan wanted = plan(std::move(arguments));
        wanted.errorFile = errors;
        lab::Process process = m_lan.node("display").start(wanted);
        const int status = process.wait(30s).value_or(-1);
        std::ifstream file(errors);
        const std::string written{std::istreambuf_iterator<char>(file), {}};
        std::filesystem::remove(errors);
        return {status, process.output(), written};
    }

    const ProfileDirectory m_profile{"[Local]\nIP = 10.20.2.1\n"};
    lab::Lan m_lan{{lab::radarHost(1), lab::radarHost(2), lab::display(1)}};
};

TEST_F(Radarctl, MisuseIsExplainedInOneLine) {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{}, "name one of the commands host, list and watch"},
        {{"lits"}, "name one of the commands host, list and watch"},
        {{"host"}, "--name is required"},
        {{"host", "--name", ""}, "'' is no radar name: 1 to 16 bytes"},
        {{"host", "--name", "seventeen letters"}, "is no radar name: 1 to 16 bytes"},
        {{"host", "--name", "R", "--id", "15"}, "'15' is no host id: 1, or 16 to 63"},
        {{"host", "--name", "R", "--id", "first"}, "'first' is no host id: 1, or 16 to 63"},
        {{"host", "--name", "R", "--streams", "3"}, "'3' streams cannot be served: 1 or 2"},
        {{"list", "--timeout", "soon"}, "'soon' is no time-out: seconds, up to 3600"},
        {{"list", "--timeout", "-1"}, "'-1' is no time-out: seconds, up to 3600"},
        {{"watch", "closely"}, "closely"},
    };
    for (const auto& [arguments, expected] : cases) {
        const Result result = run(arguments);
        EXPECT_EQ(result.status, 2) << expected;
        EXPECT_EQ(result.output, "");
        EXPECT_THAT(lines(result.errors),
                    ElementsAre(testing::AllOf(StartsWith("radarctl: "), HasSubstr(expected))));
    }
}

TEST_F(Radarctl, ListsWhatHostsServe) {
    const lab::Process north = startHost("host1", {"--name", "North", "--id", "1"});
    const lab::Process south = startHost("host2", {"--name", "South mast", "--id", "20", "--streams", "2"});
    const Result result = run({"list"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(
        lines(result.output),
        ElementsAre(
            MatchesRegex("RADAR +ID +STREAMS +LAST HEARD"), MatchesRegex("North +1 +1  .\\.. s ago"),
            MatchesRegex(" +image 236.6.7.8:6878 +control 236.6.7.10:6680 +state 236.6.7.9:6679"),
            MatchesRegex(" +ARPA +236.6.7.18:6688 +control 236.6.7.20:6690 +state 236.6.7.19:6889"),
            MatchesRegex("South mast +20 +2  .\\.. s ago"),
            MatchesRegex(" +image 236.6.7.99:6131 +control 236.6.7.100:6132 +state 236.6.7.101:6133"),
            MatchesRegex(" +ARPA +236.6.7.105:6137 +control 236.6.7.106:6138 +state 236.6.7.107:6139")));
    EXPECT_THAT(result.errors, testing::Not(HasSubstr("LocalIP")));
    EXPECT_THAT(run({"list", "--verbose"}).errors, HasSubstr("LocalIP (): 10.20.2.1"))
        << "diagnostics on request";
}

TEST_F(Radarctl, SaysThatNothingWasFound) {
    const Result result = run({"list", "--timeout", "1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, HasSubstr("radarctl: no radar found within 1 s\n"));
}

TEST_F(Radarctl, WatchTellsOfRadarsThatComeAndGo) {
    lab::Process watch = start("display", {"watch"});
    lab::Process host = startHost("host1", {"--name", "North", "--id", "20"});
    EXPECT_THAT(watch.lineWith("North", 10s).value_or("nothing"),
                "+ North id 20 streams 1 image 236.6.7.99:6131 236.6.7.100:6132 236.6.7.101:6133 ARPA "
                "236.6.7.105:6137 236.6.7.106:6138 236.6.7.107:6139");
    EXPECT_EQ(host.stop(), 0);
    lab::Process other = startHost("host1", {"--name", "North", "--id", "21"});
    EXPECT_THAT(watch.lineWith("North", 10s).value_or("nothing"), StartsWith("= North id 21"));
    EXPECT_EQ(other.stop(), 0);
    EXPECT_THAT(watch.lineWith("North", 12s).value_or("nothing"), "- North");
    watch.signal(SIGINT);
    EXPECT_EQ(watch.wait(2s), 0);
}

TEST_F(Radarctl, NamesCannotDrawOnTheTerminal) {
    const lab::Inside inside = m_lan.node("host1").enter();
    const HostServer hostile("\x1b[2J\r\nx\x9b \xc3\xa4", 16, 1U);
    EXPECT_THAT(run({"list"}).output, HasSubstr("\n\\x1B[2J\\x0D\\x0Ax\\x9B \xc3\xa4 "));
}

TEST_F(Radarctl, EndsWithItsReader) {
    const lab::Process host = startHost("host1", {"--name", "North"});
    lab::Process pipe = m_lan.node("display").start({.command = {"sh", "-c", RADARCTL " watch | head -n 1"}});
    EXPECT_TRUE(pipe.lineWith("+ North", 10s));
    const lab::Process other = startHost("host2", {"--name", "South"}); // the next line finds no reader
    EXPECT_EQ(pipe.wait(10s), 0);
}

TEST_F(Radarctl, WatchGivesTheTerminalBackAsItWas) {
    const lab::Process host = startHost("host1", {"--name", "North"});
    lab::Process terminal = m_lan.node("display").start(
        {.command = {"script", "-qec", "timeout --foreground -s INT 3 " RADARCTL " watch", "/dev/null"}});
    ASSERT_TRUE(terminal.wait(20s));
    const std::string drawn = terminal.output();
    EXPECT_THAT(drawn, StartsWith("\x1b[?1049h\x1b[?25l"));
    EXPECT_THAT(drawn, testing::AllOf(HasSubstr("1 radar, on 10.20.2.1"), HasSubstr("North ")));
    EXPECT_TRUE(drawn.ends_with("\x1b[?25h\x1b[?1049l")) << testing::PrintToString(drawn);
}

TEST_F(Radarctl, EveryCommandEndsAtOnceWhenItIsStopped) {
    const auto hasSocket = [](const lab::Process& tool) { // which comes after the signals are taken care of
        std::ifstream table("/proc/" + std::to_string(tool.pid()) + "/net/udp");
        std::string heading;
        std::string socket;
        return std::getline(table, heading) && std::getline(table, socket);
    };
    m_profile.write(""); // the search is stopped, too
    const std::pair<std::vector<std::string>, int> cases[] = {
        {{"list"}, 1}, {{"watch"}, 0}, {{"host", "--name", "North"}, 0}};
    for (const auto& [arguments, status] : cases)
        for (const int number : {SIGTERM, SIGHUP, SIGINT}) {
            lab::Process tool = start("host1", arguments);
            ASSERT_TRUE(comesTrue([&] { return hasSocket(tool); }));
            std::optional<int> ended;
            // A command that the library is just starting may swallow SIGINT: system() ignores it meanwhile.
            EXPECT_TRUE(comesTrue([&] {
                tool.signal(number);
                ended = tool.wait(number == SIGINT ? 1s : 10s);
                return ended.has_value();
            }));
            EXPECT_EQ(ended, status) << arguments[0] << ", signal " << number;
        }
}

} // namespace
