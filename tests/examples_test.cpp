#include "test.h"

#include <lab/process.h>

namespace {

using lab::Process;

TEST(TcpClientExample, SendsWhatIsPipedIntoItOrSaysThatItDoesNot) {
    const std::string client = "printf 'one\ntwo\n' | " TCP_CLIENT " 127.0.0.1 4000";
    Process refused({.command = {"sh", "-c", client}});
    EXPECT_EQ(refused.wait(20s), 0);
    EXPECT_THAT(refused.output(), HasSubstr("not sent: not connected\nnot sent: not connected\n"));

    Process server({.command = {"socat", "-d", "-d", "-u", "TCP-LISTEN:4000,reuseaddr", "-"}});
    ASSERT_TRUE(server.lineWith("listening on", 20s));
    EXPECT_EQ(Process({.command = {"sh", "-c", client}}).wait(20s), 0);
    EXPECT_EQ(server.wait(20s), 0);
    EXPECT_THAT(server.output(), HasSubstr("one\ntwo\n"));
}

TEST(NetworkWatchExample, TakesNoOtherWordForAMode) {
    Process watch(
        {.command = {"env", "PATH=/none", NETWORK_WATCH, "DHCP", "eth0", "10.5.0.9", "255.255.0.0"}});
    EXPECT_EQ(watch.wait(20s), 2) << watch.output();
}

} // namespace
