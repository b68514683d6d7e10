// radarctl host as a service manager runs it: from a cold boot on, watched, and started again when that can
// help.
#include <lab/lan.h>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

class HostService : public testing::Test {
protected:
    using Words = std::vector<std::string>;
    /// @param prefix a program that runs radarctl
    lab::Process start(lab::Node& node, Words prefix, const Words& options = {}) {
        prefix.insert(prefix.end(), {RADARCTL, "host"});
        prefix.insert(prefix.end(), options.begin(), options.end());
        return node.start({.command = prefix});
    }

    lab::Lan m_lan{{lab::radarHost(1), lab::display(1)}};
    lab::Node& m_computer = m_lan.node("host1");
};

TEST_F(HostService, WaitsForAnAddressAndARouteAndSaysSoOnce) {
    lab::Node& computer = m_lan.node("display"); // without a default route
    lab::Process host = start(computer, {}, {"--name", "North"});
    EXPECT_TRUE(host.lineWith("waiting for an address and a route", 10s));
    m_lan.changeAddress(computer, 0, "");
    EXPECT_EQ(computer.start({.command = {"ip", "route", "add", "236.6.0.0/16", "dev", "eth0"}}).wait(10s),
              0);
    lab::Process second = start(computer, {}, {"--name", "South"});
    EXPECT_TRUE(second.lineWith("waiting", 10s)) << "there is a route, and no address";
    m_lan.changeAddress(computer, 0, "10.20.2.1/16");
    EXPECT_TRUE(second.lineWith("serving South", 30s));
    EXPECT_TRUE(host.lineWith("serving North", 30s));
    EXPECT_EQ(host.stop(), 0);
    const std::string output = host.output();
    EXPECT_EQ(output.find("waiting"), output.rfind("waiting")) << output;
}

/// The other end of NOTIFY_SOCKET: prints a line for each message.
lab::Process startManager(const lab::Node& node, const std::string& name) {
    lab::Process manager = node.start({.command = {"python3", "-uc", R"(
import socket, sys
manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
manager.bind(sys.argv[1].replace('@', '\0'))
print('ready')
while True:
    print(manager.recv(512).decode().replace('\n', '; ')))",
                                                   name}});
    EXPECT_TRUE(manager.lineWith("ready", 30s));
    return manager;
}

TEST_F(HostService, TellsItsManagerWhenItAnswersAndThatItIsAlive) {
    const std::string path = "/run/notify";
    lab::Process abstract = startManager(m_computer, "@notify");
    const lab::Process other = start(m_computer, {"env", "NOTIFY_SOCKET=@notify"}, {"--name", "South"});
    lab::Process manager = startManager(m_computer, path);
    const auto began = std::chrono::steady_clock::now();
    lab::Process host = start(m_computer, {"env", "NOTIFY_SOCKET=" + path, "WATCHDOG_USEC=400000"},
                              {"--name", "North", "--id", "20"});
    for (lab::Process* told : {&abstract, &manager})
        EXPECT_EQ(told->nextLine(30s), "STATUS=negotiating a host id");
    std::optional<std::string> told;
    do
        told = manager.nextLine(30s);
    while (told == "WATCHDOG=1");
    EXPECT_EQ(told, "READY=1; STATUS=serving North as host id 20, 1 stream");
    EXPECT_GE(std::chrono::steady_clock::now() - began, 2s) << "before the id was held";
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(manager.nextLine(30s), "WATCHDOG=1");
    EXPECT_GE(std::chrono::steady_clock::now() - began, 2800ms) << "told more often than needed";
    EXPECT_EQ(host.stop(), 0);
}

TEST_F(HostService, EndsWithACodeThatSaysWhetherAnotherStartCanHelp) {
    const auto refusing = [](const char* injection) {
        return Words{"env", "ASAN_OPTIONS=detect_leaks=0", "strace", "--output=/dev/null", injection};
    };
    const struct {
        Words prefix;
        Words options;
        int status;
        const char* line;
    } cases[] = {
        {{"sh", "-c", "ulimit -n 9; exec \"$@\"", "sh"}, {}, 4, "sockets: Too many open files"},
        {refusing("--inject=clone3,clone:error=EAGAIN"), {}, 4, "threads: Resource temporarily unavailable"},
        {refusing("--inject=eventfd2:error=EPERM"), {}, 3, "Operation not permitted"},
        {{"env", "RADAR_NAME=seventeen letters"}, {}, 2, "RADAR_NAME: 'seventeen letters' is no radar name"},
    };
    for (const auto& [prefix, options, status, line] : cases) {
        lab::Process host = start(m_computer, prefix, options);
        EXPECT_EQ(host.wait(30s), status) << line;
        EXPECT_THAT(host.output(), HasSubstr(line));
    }
}

TEST_F(HostService, IsNamedAfterItsComputerInWholeCharacters) {
    lab::Process host =
        start(m_computer,
              {"unshare", "--uts", "sh", "-c",
               "printf 'fifteen-letters\xc3\xb6st.example' >/proc/sys/kernel/hostname && exec \"$@\"", "sh"});
    lab::Process other = start(m_computer, {"env", "RADAR_NAME=North"});
    EXPECT_EQ(host.lineWith("serving", 30s).value_or("").substr(0, 27), "serving fifteen-letters as ");
    EXPECT_TRUE(other.lineWith("serving North as", 30s));
}

} // namespace
