#include "test.h"

#include <lab/private_network.h>
#include <lab/process.h>

namespace {

using lab::Process;

TEST(Process, IsStoppedWithAllThatItStarted) {
    Process stubborn({.command = {"sh", "-c", "trap '' TERM; sleep 1000 & echo $!; wait; sleep 1000"}});
    const pid_t child = std::stoi(stubborn.nextLine(30s).value());
    EXPECT_EQ(stubborn.wait(0s), std::nullopt);
    EXPECT_EQ(stubborn.stop(50ms), 128 + SIGKILL);
    const std::string entry = "/proc/" + std::to_string(child); // a zombie until init has waited for it
    EXPECT_TRUE(comesTrue([&] { return !std::filesystem::exists(entry); }));
    EXPECT_EQ(Process({.command = {"no-such-program"}}).wait(30s), 127);
}

/// The program "lan". The private network of the test plays the machine.
std::vector<std::string> lan(const std::vector<std::string>& arguments) {
    std::vector<std::string> command{LAN_PROGRAM, "--hosts", "2", "--radarctl", "/bin/sh"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

/// Interfaces, named networks and processes.
std::set<std::string> machine() {
    std::set<std::string> found;
    std::error_code none;
    for (const char* directory : {"/sys/class/net", "/run/netns", "/proc"})
        for (const auto& entry : std::filesystem::directory_iterator(directory, none))
            found.insert(entry.path());
    return found;
}

TEST(LanProgram, LeavesNothingBehindHoweverItEnds) {
    const auto before = machine();
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGKILL}) {
        {
            Process program({.command = lan({"--", "sh", "-c", "echo up; sleep 1000"})});
            ASSERT_TRUE(program.lineWith("up", 20s));
            EXPECT_GT(machine().size(), before.size() + 2);
            program.signal(number);
            EXPECT_EQ(program.wait(20s), 128 + number);
        }
        EXPECT_TRUE(comesTrue([&] { return machine() == before; })) << "signal " << number;
    }
}

TEST(LanProgram, RunsTheCommandOnTheDisplayAndNeedsNoPrivilegeWhereUserNamespacesAreAllowed) {
    std::filesystem::copy(LAN_PROGRAM, "/run/lan"); // other users may not be able to read the build directory
    auto command =
        lan({"--drop", "10", "--", "sh", "-c", "cat /sys/class/net/eth1/carrier; ip netns; exit 5"});
    command[0] = "/run/lan";
    Process program({.command = command});
    EXPECT_EQ(program.wait(20s), 5);
    EXPECT_THAT(program.output(), AllOf(HasSubstr("10.20.2.1/16"), HasSubstr("\n1\n"), HasSubstr("\nhost2")));
    if (::getuid() != 0 || std::system("setpriv --reuid=65534 --clear-groups true 2>/dev/null") != 0)
        GTEST_SKIP() << "not privileged to begin with";
    command.insert(command.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    Process unprivileged({.command = command});
    EXPECT_EQ(unprivileged.wait(20s), 5);
    EXPECT_THAT(unprivileged.output(), HasSubstr("\nhost2"));
}

TEST(LanProgram, ExplainsInOneLineThatNamespacesAreNotPermitted) {
    auto command = lan({"true"});
    // In a user namespace of its own, in which network namespaces are forbidden.
    command.insert(command.begin(), {"unshare", "--user", "--map-root-user", "sh", "-c",
                                     "echo 0 > /proc/sys/user/max_net_namespaces && exec \"$0\" \"$@\""});
    Process program({.command = command});
    EXPECT_EQ(program.wait(20s), lab::kNotPermitted);
    const std::string printed = program.output();
    EXPECT_THAT(printed, AllOf(HasSubstr("cannot make a private network"), HasSubstr("run as root")));
    EXPECT_EQ(std::ranges::count(printed, '\n'), 1);
}

} // namespace
