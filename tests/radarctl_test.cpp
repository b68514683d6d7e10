#include "radarctl_fixture.h"

#include <termios.h>

#include <bitset>
#include <limits>

namespace {

TEST_F(Radarctl, MisuseIsExplainedInOneLine) {
    const std::pair<Words, const char*> cases[] = {
        {{}, "name a command: list, watch, show"},
        {{"lsit"}, "no command 'lsit'; did you mean list?"},
        {{"--color", "never", "frobnicate"}, "no command 'frobnicate'; there are: list, watch"},
        {{"--verbos"}, "no option '--verbos'"},
        {{"--color", "mauve", "list"}, "'mauve' is no colour setting"},
        {{"--profile", "/nowhere", "list"}, "no profile.ini in '/nowhere'"},
        {{"host", "--name", "seventeen letters"}, "is no radar name: 1 to 16 bytes"},
        {{"host", "--name", "R", "--id", "15"}, "'15' is no host id: 1, or 16 to 63"},
        {{"host", "--name", "R", "--id", "012"}, "'12' is no host id: 1, or 16 to 63"},
        {{"host", "--name", "R", "--streams", "3"}, "'3' streams cannot be served: 1 or 2"},
        {{"host", "--rate", "30"}, "--rate requires --simulate"},
        {{"list", "--timeout", "soon"}, "'soon' is no time-out: seconds, up to 3600"},
        {{"list", "--local", "10.20.2"}, "'10.20.2' is no IPv4 address"},
        {{"list", "--local", "10.9.9.9"},
         "10.9.9.9 is no address of this computer; it has: 127.0.0.1, 10.20.2.1"},
        {{"list", "--interface", "eth9"}, "no interface \"eth9\" with an IPv4 address; there are: lo, eth0"},
        {{"reset", "--interface", ""}, "--interface: '' is no interface"},
        {{"record", "-o", "/dev/stdout"}, "'/dev/stdout' is where the report goes; a FIFO takes"},
        {{"watch", "--count", "0"}, "'0' is no number of events"},
        {{"doctor", "--list", "--json"}, "--json excludes --list"},
        {{"listen", "North", "2"}, "'2' is no stream: 0 or 1"},
        {{"listen", "North", "0", "--endpoint", "sound"}, "'sound' is no endpoint: image, image-control"},
    };
    for (const auto& [arguments, expected] : cases) {
        const Result result = run(arguments);
        EXPECT_EQ(result.status, 2) << expected;
        EXPECT_EQ(result.output, "");
        EXPECT_THAT(lines(result.errors),
                    ElementsAre(testing::AllOf(StartsWith("radarctl: "), HasSubstr(expected))));
    }
}

TEST_F(Radarctl, ListsWhatHostsServeAndEscapesTheirNames) {
    const auto drawing = serve("host1", "\x1b[2J\r\nx\x9b \xc3\xa4", 1);
    const auto forging = serve("host2", "\",\"hostId\":1}\n", 20, 2);
    Result text;
    nlohmann::json json;
    EXPECT_TRUE(comesTrue( // "list" ends a second after the first answer, so one host may be missing
        [&] {
            text = run({"list", "--endpoints"});
            json = nlohmann::json::parse(run({"list", "--json"}).output);
            return lines(text.output).size() == 9 && json["radars"].size() == 2;
        },
        60s));
    EXPECT_EQ(text.status, 0) << text.errors;
    const std::string id1 = " +0 image 236.6.7.8:6878 +control 236.6.7.10:6680 +state 236.6.7.9:6679";
    const std::string id20 = " +1 ARPA +236.6.7.108:6140 +control 236.6.7.109:6141 +state 236.6.7.110:6142";
    EXPECT_THAT(lines(text.output),
                ElementsAre(MatchesRegex("RADAR +ID +STREAMS +INTERFACE +LAST HEARD"),
                            StartsWith("\\x1B[2J\\x0D\\x0Ax\\x9B \xc3\xa4 "), MatchesRegex(id1),
                            MatchesRegex(" +0 ARPA .+"),
                            MatchesRegex("\",\"hostId\":1}\\\\x0A +20 +2 +eth0 +.\\.. s ago"),
                            MatchesRegex(" +0 image .+"), MatchesRegex(" +0 ARPA .+"),
                            MatchesRegex(" +1 image .+"), MatchesRegex(id20)));
    EXPECT_EQ(json["schema"], 1);
    EXPECT_EQ(json["radars"][0]["nameHex"], "1b5b324a0d0a789b20c3a4");
    EXPECT_EQ(json["radars"][1]["name"], "\",\"hostId\":1}\n");
    EXPECT_EQ(json["radars"][1]["streams"][0]["image"]["address"], "236.6.7.99");
    EXPECT_THAT(run({"show", "\\x1B[2J\\x0D\\x0Ax\\x9B \xc3\xa4"}).output,
                HasSubstr("host id             1"));
}

TEST_F(Radarctl, ReportsThatNothingWasFound) {
    m_lan.cut(m_lan.node("display"));
    lab::Process narrow = start("display", {"list", "--interface", "eth0", "--timeout", "0.5"});
    const Result result = run({"list", "--timeout", "0.5"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(lines(result.errors), ElementsAre("radarctl: no radar found within 0.5 s",
                                                  StartsWith("radarctl: most likely: eth0 has no carrier"),
                                                  "radarctl: radarctl doctor looks closer"));
    EXPECT_EQ(narrow.wait(30s), 1);
    EXPECT_THAT(narrow.output(),
                StartsWith("radarctl: no radar found within 0.5 s; only eth0 was looked at"));
    m_lan.restore(m_lan.node("display"));
    const auto host = serve("host1", "North", 16);
    const Result other = run({"show", "South", "--timeout", "1"});
    EXPECT_EQ(other.status, 1);
    EXPECT_THAT(other.errors, HasSubstr("radarctl: no radar \"South\"; there are: North\n"));
}

TEST_F(Radarctl, ReportsWhatTheSystemDoesNotAllow) {
    const Result nowhere = runOn("display", {"unshare", "--mount", "sh", "-c", // no directory is writable
                                             "mount -o remount,ro,bind / && cd / && ! touch /x 2>&1 && "
                                             "exec " RADARCTL " interfaces --seconds 1"});
    EXPECT_EQ(nowhere.status, 1) << "no radar there";
    EXPECT_THAT(nowhere.output, HasSubstr("\neth0 "));
    for (const std::string words : {"doctor --list", "--help"}) {
        const Result full = runOn("display", {"sh", "-c", RADARCTL " " + words + " >/dev/full"});
        EXPECT_EQ(full.status, 1);
        EXPECT_THAT(lines(full.errors), ElementsAre(StartsWith("radarctl: cannot write the output")));
    }
    const Result none =
        runOn("display", {"env", "ASAN_OPTIONS=detect_leaks=0", "strace", "--output=/dev/null",
                          "--inject=socket:error=EMFILE", RADARCTL, "list"});
    EXPECT_EQ(none.status, 4) << "which may pass";
    EXPECT_EQ(none.errors, "radarctl: this computer allows no UDP socket: Too many open files\n");
    for (const char* limit : {"10", "11", "12"}) { // wherever they run out, the address is not at fault
        const Result few = runOn("display", {"prlimit", std::string("--nofile=") + limit, RADARCTL, "list",
                                             "--local", "10.20.2.1", "--timeout", "0.1"});
        EXPECT_THAT(few.errors, testing::Not(HasSubstr("no address of this computer"))) << limit;
        EXPECT_NE(few.status, 2) << limit;
    }
}

TEST_F(Radarctl, ListenAndTheExampleOfADisplayFollowTheExampleOfAHostWhenItIsRenumbered) {
    lab::Process host = m_lan.node("host2").start({.command = {HOST_STREAM, "South", "1"}});
    lab::Process display = m_lan.node("display").start({.command = {IMAGE_STREAM, "South"}});
    lab::Process listen = start("display", {"listen", "South", "0", "--json", "--sequence", "0:1"});
    const auto expectImage = [&](const std::string& endpoint) {
        EXPECT_TRUE(display.lineWith("image from " + endpoint, 30s)) << endpoint;
        EXPECT_THAT(display.nextLine(30s),
                    testing::Optional(MatchesRegex("[1-9][0-9]* datagrams, [0-9]+ bytes")));
    };
    const auto next = [&](const auto& wanted) {
        nlohmann::json second;
        do
            second = nlohmann::json::parse(listen.lineWith("{", 30s).value_or("{\"total\":true}"));
        while (second["total"] == false && !wanted(second));
        return second;
    };
    const auto hasData = [](const nlohmann::json& second) { return second["datagrams"] > 0; };
    expectImage("236.6.7.8 port 6878");
    EXPECT_EQ(next(hasData)["total"], false);
    const Result renumbered = run({"renumber", "South"});
    EXPECT_EQ(renumbered.status, 0) << renumbered.errors;
    EXPECT_THAT(lines(renumbered.output),
                ElementsAre(HasSubstr("sent an objection to host id 1 to 236.6.7.4:6768 on 10.20.2.1"),
                            MatchesRegex("South now has host id [1-6][0-9]( after [0-9]+ objections)?")));
    EXPECT_TRUE(host.lineWith("image to", 30s)) << "where it was";
    const std::string sent = host.lineWith("image to", 30s).value_or("image to nobody");
    expectImage(sent.substr(sent.find("image to") + 9));
    const auto moved = next([](const auto& second) {
        return second["events"].size() > 0 && second["events"][0]["kind"] == "moved";
    });
    EXPECT_EQ(moved["events"][0]["why"], "endpoint") << moved;
    EXPECT_NE(moved["events"][0]["endpoint"]["address"], "236.6.7.8");
    EXPECT_EQ(next(hasData)["total"], false);
    m_lan.dropRate(m_lan.node("display"), 30);
    EXPECT_EQ(next([](const auto& second) { return second["missing"] > 0; })["total"], false);
    listen.signal(SIGINT);
    EXPECT_EQ(listen.wait(30s), 0);
    const auto total = nlohmann::json::parse(lines(listen.output()).back());
    EXPECT_EQ(total["total"], true);
    EXPECT_EQ(total["dropped"], 0);
    EXPECT_GE(total["gap99Seconds"], total["medianGapSeconds"]);
    EXPECT_GT(total["medianGapSeconds"], 0);
}

TEST_F(Radarctl, EndsWhenItsReaderEnds) {
    const auto host = serve("host1", "North", 16);
    lab::Process pipe = m_lan.node("display").start({.command = {"sh", "-c", RADARCTL " watch | head -n 1"}});
    EXPECT_TRUE(pipe.lineWith("+ North", 30s));
    const auto other = serve("host2", "South", 17); // the next line finds no reader
    EXPECT_EQ(pipe.wait(30s), 0);
}

TEST_F(Radarctl, RemovesItsProfileWhereItsOutputEndsItToo) {
    for (const std::string end : {"| true", "> /dev/full", ">&-"}) {
        const Result result =
            runOn("display", {"sh", "-c",
                              "export TMPDIR=$(mktemp -d)\n(sleep 0.1; " RADARCTL " --loop doctor --list) " +
                                  end + "\nls $TMPDIR >&2; rmdir $TMPDIR"});
        EXPECT_THAT(result.errors, testing::Not(HasSubstr("radarctl-"))) << end;
        EXPECT_EQ(result.errors.find("Bad file descriptor") != std::string::npos, end == ">&-");
    }
}

TEST_F(Radarctl, EveryCommandEndsAtOnceOnASignal) {
    m_profile.write(""); // the search must end, too
    const struct {
        Words arguments;
        int number;
        int status;
    } cases[] = {{{"list"}, SIGTERM, 1},
                 {{"watch"}, SIGHUP, 0},
                 {{"host", "--name", "North"}, SIGTERM, 0},
                 {{"doctor", "--seconds", "60"}, SIGHUP, 1}};
    for (const auto& [arguments, number, status] : cases) {
        lab::Process tool = start("host1", arguments);
        const std::string sockets = "/proc/" + std::to_string(tool.pid()) + "/net/udp";
        const auto hasSocket = [&] { // which is opened behind the installation of the signal handlers
            std::ifstream table(sockets);
            return std::count(std::istreambuf_iterator<char>(table), {}, '\n') > 1;
        };
        ASSERT_TRUE(comesTrue(hasSocket));
        tool.signal(number);
        EXPECT_EQ(tool.wait(15s), status) << arguments[0] << ", signal " << number;
    }
}

/// Whether it takes SIGTERM as an event by now. While a thread is started, all signals are blocked.
bool takesSignals(const lab::Process& tool) {
    std::ifstream file("/proc/" + std::to_string(tool.pid()) + "/status");
    const std::string text(std::istreambuf_iterator<char>(file), {});
    const std::bitset<64> blocked(std::stoull(text.substr(text.find("SigBlk:") + 7), nullptr, 16));
    return blocked[SIGTERM - 1] && !blocked[SIGALRM - 1];
}

TEST_F(Radarctl, EndsOnASignalAlsoWhereNobodyTakesItsOutput) {
    const std::string full = m_profile.path() / "full";
    EXPECT_EQ(runOn("host1", {"mkfifo", full}).status, 0);
    const net::detail::Descriptor fifo(::open(full.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    const std::string page(4096, ' ');
    while (::write(fifo.get(), page.data(), page.size()) > 0)
        continue;
    lab::Process host = m_lan.node("host2").start(
        {.command = radarctl({"host", "--name", "South", "--simulate"}), .errorFile = full});
    const std::string errors = m_profile.path() / "errors";
    const std::string unread = m_profile.path() / "unread";
    EXPECT_EQ(runOn("host1", {"mkfifo", unread}).status, 0);
    EXPECT_EQ(runOn("host1", {"ip", "address", "flush", "scope", "global"}).status, 0); // says that it waits
    const struct {
        const char* node;
        lab::Process::Plan plan;
        int status;
    } cases[] = {{"host1", {radarctl({"host", "--name", "North"}), errors, full}, 0},
                 {"display", {radarctl({"record", "-o", m_profile.path() / "voyage"}), full, errors}, 0},
                 {"display", {radarctl({"record", "-o", unread}), errors, errors}, 1}};
    for (const auto& [node, plan, status] : cases) {
        lab::Process tool = m_lan.node(node).start(plan);
        ASSERT_TRUE(comesTrue([&] { return takesSignals(tool); }));
        tool.signal(SIGTERM);
        EXPECT_EQ(tool.wait(15s), status) << testing::PrintToString(plan.command);
    }
    EXPECT_TRUE(host.lineWith("serving", 30s));
    EXPECT_EQ(runOn("host2", {"ip", "address", "flush", "scope", "global"}).status,
              0); // the library complains
    EXPECT_FALSE(host.wait(100ms));
    host.signal(SIGTERM);
    EXPECT_EQ(host.wait(15s), 0);
}

TEST_F(Radarctl, WatchEndsOnASignalAndGivesTheTerminalBackWhereNobodyReadsIt) {
    const auto host = serve("host1", "North", 16);
    std::size_t capacity = std::numeric_limits<std::size_t>::max();
    for (const std::size_t room : {0U, 60U}) { // for nothing, for less than a picture
        const net::detail::Descriptor reader(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
        ASSERT_EQ(::unlockpt(reader.get()), 0);
        const std::string path = ::ptsname(reader.get());
        const net::detail::Descriptor terminal(
            ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        std::size_t filled = 0;
        while (filled + room < capacity && ::write(terminal.get(), " ", 1) == 1)
            ++filled;
        capacity = filled;
        if (room == 0) {
            const std::string list = "TERM=vt100 exec " RADARCTL " list 2>" + path;
            EXPECT_EQ(m_lan.node("display").start({.command = {"sh", "-c", list}}).wait(15s), 0);
        }
        lab::Process watch = m_lan.node("display").start(
            {.command = {"sh", "-c", "TERM=vt100 exec " RADARCTL " watch <" + path + " >" + path}});
        ASSERT_TRUE(comesTrue([&] { return takesSignals(watch); }));
        watch.signal(SIGTERM);
        EXPECT_EQ(watch.wait(15s), 0) << room;
        termios keys{};
        EXPECT_EQ(::tcgetattr(terminal.get(), &keys), 0);
        EXPECT_NE(keys.c_lflag & ECHO, 0U) << room;
    }
}

TEST_F(Radarctl, HostHearsAResetAndGoesOnWhereItIgnoresASignal) {
    lab::Process host = m_lan.node("host1").start(
        {.command = {"sh", "-c", "trap '' HUP INT; exec " RADARCTL " host --name North"}});
    EXPECT_TRUE(host.lineWith("serving", 30s));
    EXPECT_TRUE(comesTrue( // a datagram, which a busy machine may lose
        [&] { return run({"reset"}).status == 0 && host.lineWith("reset asked for", 1s); }, 30s));
    host.signal(SIGHUP); // as of a terminal that is closed
    host.signal(SIGINT);
    EXPECT_FALSE(host.wait(500ms));
    host.signal(SIGTERM);
    EXPECT_EQ(host.wait(15s), 0);
}

} // namespace
