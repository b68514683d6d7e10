// radarctl host as a service manager runs it: from a cold boot on, watched, and started again when that can
// help.
#include "test.h"

#include <lab/lan.h>

namespace {

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

TEST_F(HostService, WaitsForAnAddressAndARouteAndSaysSoOnce) {
    lab::Node& computer = m_lan.node("display"); // without a default route
    lab::Process manager = startManager(computer, "@notify");
    lab::Process host = start(computer, {"env", "NOTIFY_SOCKET=@notify", "WATCHDOG_USEC=400000"});
    EXPECT_TRUE(manager.lineWith("STATUS=waiting for an address and a route", 30s));
    m_lan.changeAddress(computer, 0, "");
    EXPECT_EQ(computer.start({.command = {"ip", "route", "add", "236.6.0.0/16", "dev", "eth0"}}).wait(10s),
              0);
    const lab::Process second = start(computer, {"env", "NOTIFY_SOCKET=@notify"});
    EXPECT_TRUE(manager.lineWith("STATUS=waiting", 30s)) << "there is a route, and no address";
    EXPECT_TRUE(manager.lineWith("WATCHDOG=1", 30s)) << "the first one has looked again";
    m_lan.changeAddress(computer, 0, "10.20.2.1/16");
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(manager.lineWith("STATUS=negotiating", 30s));
    EXPECT_EQ(host.stop(), 0);
    const std::string output = host.output();
    EXPECT_EQ(output.find("waiting"), output.rfind("waiting")) << output;
    EXPECT_THAT(output, HasSubstr("waiting"));
}

TEST_F(HostService, TellsItsManagerWhenItAnswersAndThatItIsAlive) {
    const std::string path = "/run/notify";
    lab::Process manager = startManager(m_computer, path);
    lab::Process other = start(m_computer, {"env", "RADAR_NAME=North"}, {"--simulate"});
    const auto began = std::chrono::steady_clock::now();
    lab::Process host =
        start(m_computer,
              {"env", "NOTIFY_SOCKET=" + path, "WATCHDOG_USEC=400000", "unshare", "--uts", "sh", "-c",
               "printf 'fifteen-letters\xc3\xb6st.example' >/proc/sys/kernel/hostname && exec \"$@\"", "sh"},
              {"--id", "20"});
    EXPECT_EQ(manager.nextLine(30s), "STATUS=negotiating a host id");
    std::optional<std::string> told;
    int signs = 0;
    while ((told = manager.nextLine(30s)) == "WATCHDOG=1")
        ++signs;
    const auto time = std::chrono::steady_clock::now() - began;
    EXPECT_EQ(told, "READY=1; STATUS=serving fifteen-letters as host id 20, 1 stream")
        << "its computer's name, in whole characters";
    EXPECT_GE(time, 2s) << "before the id was held";
    EXPECT_GT(signs, 1);
    EXPECT_LE(signs, time / 200ms + 1) << "told more often than needed";
    EXPECT_EQ(manager.nextLine(30s), "WATCHDOG=1");
    EXPECT_EQ(host.stop(), 0);
    EXPECT_TRUE(other.lineWith("serving North as", 30s));
    m_lan.changeAddress(m_computer, 0, "");
    EXPECT_TRUE(other.lineWith("SocketError", 30s));
    EXPECT_FALSE(other.wait(500ms));
    EXPECT_LT(std::ranges::count(other.output(), '\n'), 20) << "a picture that cannot be sent floods the log";
}

TEST_F(HostService, EndsWithACodeThatSaysWhetherAnotherStartCanHelp) {
    const auto refusing = [](const char* injection) {
        return Words{"env", "ASAN_OPTIONS=detect_leaks=0", "strace", "--output=/dev/null", injection};
    };
    const struct {
        Words prefix;
        int status;
        const char* line;
    } cases[] = {
        {{"sh", "-c", "ulimit -n 9; exec \"$@\"", "sh"}, 4, "s: Too many open files"},
        {refusing("--inject=clone3,clone:error=EAGAIN"), 4, "threads: Resource temporarily unavailable"},
        {refusing("--inject=eventfd2:error=EPERM"), 3, "Operation not permitted"},
        {{"env", "RADAR_NAME=seventeen letters"}, 2, "RADAR_NAME: 'seventeen letters' is no radar name"},
    };
    for (const auto& [prefix, status, line] : cases) {
        lab::Process host = start(m_computer, prefix);
        EXPECT_EQ(host.wait(30s), status) << line;
        EXPECT_THAT(host.output(), HasSubstr(line));
    }
}

} // namespace
