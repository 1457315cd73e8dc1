// Operating a tunnel: the configuration file and its mistakes, several services in one process,
// host names, reload, the signals, the drain limit, the PID file, the log, what a failed
// handshake says, and the limits on unauthenticated connections.
#include "cliRun.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace vxclitest;

namespace {

/** A service that says `greeting` first, then echoes: it tells which service a connection
 *  reached. */
std::function<void(int)> greets(const std::string& greeting)
{
    return [greeting](int fd) {
        if (sendAll(fd, greeting)) {
            echoBytes(fd); // closes it
        } else {
            (void)close(fd);
        }
    };
}

/** Receives exactly `size` bytes from `fd`; fewer when the stream ends first. */
std::string receiveSome(int fd, size_t size)
{
    std::string got;
    char chunk[256];
    while (got.size() < size) {
        const ssize_t n = recv(fd, chunk, std::min(sizeof chunk, size - got.size()), 0);
        if (n <= 0) {
            break;
        }
        got.append(chunk, static_cast<size_t>(n));
    }
    return got;
}

/** Sends `text` on an open connection and reads back as many bytes. */
std::string roundTrip(int fd, const std::string& text)
{
    EXPECT_TRUE(sendAll(fd, text));
    return receiveSome(fd, text.size());
}

/** A connection to `port` that has read the service's greeting of `size` bytes. */
int greeted(int port, std::string& greeting, size_t size = 4)
{
    const int fd = connectLoopback(port);
    EXPECT_GE(fd, 0);
    greeting = receiveSome(fd, size);
    return fd;
}

/** CPU seconds `pid` used so far, from /proc. */
double cpuSeconds(pid_t pid)
{
    const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    unsigned long long ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14 || i == 15) {
            ticks += std::stoull(field); // utime, stime
        }
    }
    return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

class operateTest : public testing::Test
{
protected:
    void SetUp() override
    {
        writeFile(psk, "the secret of the operated tunnel\n");
        writeFile(wrong, "not the secret");
    }

    /** `veltrix tunnel --config FILE --foreground`, once it logged `services` listening lines. */
    std::unique_ptr<backgroundRun> startConfigured(const std::vector<std::string>& extra = {},
                                                   size_t services = 1)
    {
        std::vector<std::string> argv{veltrixPath(), "tunnel", "--config", config, "--foreground"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        auto run = std::make_unique<backgroundRun>(argv);
        (void)within(30, [&] { return occurrences(run->errorText(), "listening on") >= services; });
        EXPECT_EQ(occurrences(run->errorText(), "listening on"), services) << run->errorText();
        return run;
    }

    /** The service most cases put behind a tunnel. */
    const loopbackService one{greets("one:")};
    scratchDir dir;
    std::string psk = dir.file("psk");
    std::string wrong = dir.file("wrong"); ///< a secret file the tunnels do not share
    std::string config = dir.file("web.conf");
};

struct configMistake
{
    std::string content;
    int line;
    std::string says;
};

TEST_F(operateTest, EachMistakeInTheFileIsOneLineNamingItsLine)
{
    const std::string a = address(freePort());
    const std::string b = address(freePort());
    const std::string service =
        "[web]\nserver = true\naccept = " + a + "\nconnect = " + b + "\npsk-file = " + psk + "\n";
    const configMistake mistakes[] = {
        {service + "idle-timout = 5\n", 6,
         "unknown option \"idle-timout\" (did you mean \"idle-timeout\"?)"},
        {service + "max-conections = 1\n", 6,
         "unknown option \"max-conections\" (did you mean \"max-connections\"?)"},
        {"chiper = \"none\"\n" + service, 1,
         "unknown option \"chiper\" (did you mean \"cipher\"?)"},
        {service + "frobnicate = 1\n", 6, "unknown option \"frobnicate\""},
        {service + "max-connections = lots\n", 6,
         "max-connections: \"lots\" is not a number from 1 to 10000"},
        {service + "cipher = aes256\ncipher = none\n", 7,
         "\"cipher\" is given twice in [web] (first on line 6)"},
        {"hash = md5\n\nhash = md5\n" + service, 3,
         "\"hash\" is given twice before the first section (first on line 1)"},
        {service + "cipher = des\n", 6, "cipher: unknown cipher \"des\""},
        {service + "hash = sha1\n", 6, "cannot key the handshake, which needs a 16-byte digest"},
        {"[web]\nserver = true\naccept = " + a + "\npsk-file = " + psk + "\n", 1,
         "[web] has no connect"},
        {"[web]\naccept = " + a + "\nconnect = " + b + "\npsk-file = " + psk + "\n", 1,
         "[web] needs server = true or client = true"},
        {service + "client = yes\n", 6, "[web] sets both server and client"},
        {"[web]\nserver = maybe\n", 2, "server: \"maybe\" is not true or false"},
        {service + "[api]\nclient = true\naccept = " + a + "\nconnect = " + b +
             "\npsk-file = " + psk + "\n",
         8, "[api] and [web] both accept on " + a},
        {"[loop]\nserver = true\naccept = " + a + "\nconnect = " + a + "\npsk-file = " + psk + "\n",
         4, "are the same address: each connection would come back to the tunnel"},
        {service + "workers = 2\n", 6,
         "\"workers\" sets the whole tunnel: put it before the first section"},
        {service + "[we b]\n", 6, "a service's name is 1 to 32 letters, digits"},
        {service + "[web]\n", 6, "[web] is given twice (first on line 1)"},
        {service + "[api\n", 6, "\"[api\" is not a section"},
        {service + "conect " + b + "\n", 6, "is neither \"name = value\" nor \"[NAME]\""},
        {service + "connect = \"" + b + "\n", 6, "unmatched double quote"},
        {"workers = 1\n", 1, "no service: each service is a [NAME] section"},
        {"[web]\naccept = nowhere\n", 2, "accept: \"nowhere\" is not ADDR:PORT"},
    };
    for (const configMistake& mistake : mistakes) {
        writeFile(config, mistake.content);
        const runResult run = runVeltrix({"tunnel", "--config", config, "--foreground"});
        const std::string expected =
            "veltrix tunnel: " + config + ":" + std::to_string(mistake.line) + ": ";
        EXPECT_EQ(run.status, 2) << mistake.content;
        EXPECT_EQ(lineCount(run.err), 1U) << run.err;
        EXPECT_EQ(run.err.rfind(expected, 0), 0U) << run.err;
        EXPECT_TRUE(contains(run.err, mistake.says));
    }
}

TEST_F(operateTest, TwoServicesFromOneFileRunInOneProcess)
{
    const loopbackService two{greets("two:")};
    const int front = freePort();
    const int back = freePort();
    const int other = freePort();
    // Comments, blanks, quotes and CRLF line ends are all as good as plain lines.
    writeFile(config, "# defaults\r\npsk-file = \"" + psk + "\"\r\nworkers = 1\r\n\r\n" +
                          "[front]\r\n  client = true\r\n  accept = " + address(front) +
                          "\r\n  connect = " + address(back) +
                          "\r\n; the server end\r\n[back]\r\n" + "server = yes\r\naccept = " +
                          address(back) + "\r\nconnect = " + address(one.port) +
                          "\r\n[other]\r\nserver = true\r\naccept = " + address(other) +
                          "\r\nconnect = " + address(two.port) + "\r\n");
    const auto tunnel = startConfigured({}, 3);
    std::string greeting;
    const int through = greeted(front, greeting);
    EXPECT_EQ(greeting, "one:");
    EXPECT_EQ(roundTrip(through, "both services"), "both services");
    (void)close(through);
    const runResult cat = runVeltrix({"cat", address(other), "--psk-file", psk}, "x");
    EXPECT_EQ(cat.out, "two:x") << cat.err;
    EXPECT_EQ(childrenOf(tunnel->pid).size(), 1U) << "one process with its one worker";
    EXPECT_TRUE(tunnel->waitForError("front: connection 1 from", 10)) << tunnel->errorText();
    EXPECT_TRUE(tunnel->waitForError("back: connection 2 from", 10)) << tunnel->errorText();
    EXPECT_TRUE(tunnel->waitForError("other: connection 3 from", 10)) << tunnel->errorText();
}

TEST_F(operateTest, HostNamesAndAChosenPortWork)
{
    writeFile(config, "[named]\nserver = true\naccept = localhost:0\nconnect = localhost:" +
                          std::to_string(one.port) + "\npsk-file = " + psk +
                          "\n[nowhere]\nserver = true\naccept = 127.0.0.1:0\n"
                          "connect = no-such-host.invalid:80\nconnect-timeout = 3\npsk-file = " +
                          psk + "\n");
    const auto tunnel = startConfigured({"--workers", "1"}, 2);
    // The port the system chose is in the log.
    const std::string log = tunnel->errorText();
    const size_t at = log.find("named: server tunnel listening on 127.0.0.1:");
    ASSERT_NE(at, std::string::npos) << log;
    const int port =
        std::atoi(log.c_str() + at + std::strlen("named: server tunnel listening on 127.0.0.1:"));
    EXPECT_GT(port, 0);
    const runResult cat =
        runVeltrix({"cat", "localhost:" + std::to_string(port), "--psk-file", psk}, "by name");
    EXPECT_EQ(cat.out, "one:by name") << cat.err;
    // A name that does not resolve ends its connection with one line; the tunnel serves on.
    const size_t nowhere = log.find("nowhere: server tunnel listening on 127.0.0.1:");
    ASSERT_NE(nowhere, std::string::npos);
    const int unresolved = std::atoi(log.c_str() + nowhere +
                                     std::strlen("nowhere: server tunnel listening on 127.0.0.1:"));
    const runResult lost = runVeltrix(
        {"cat", address(unresolved), "--psk-file", psk, "--receive-timeout", "5"}, "x", 60);
    EXPECT_NE(lost.status, 0);
    EXPECT_TRUE(tunnel->waitForError("cannot resolve no-such-host.invalid", 10))
        << tunnel->errorText();
    EXPECT_EQ(runVeltrix({"cat", address(port), "--psk-file", psk}, "again").out, "one:again");
}

TEST_F(operateTest, ReloadChangesTheConfigurationAndLeavesOpenConnectionsAlone)
{
    const loopbackService two{greets("two:")};
    const int front = freePort();
    const int back = freePort();
    const int added = freePort();
    const auto write = [&](int target, bool withAdded) {
        writeFile(config, "psk-file = " + psk + "\nworkers = 1\n[front]\nclient = true\naccept = " +
                              address(front) + "\nconnect = " + address(back) +
                              "\n[back]\nserver = true\naccept = " + address(back) +
                              "\nconnect = " + address(target) + "\n" +
                              (withAdded ? "[added]\nclient = true\naccept = " + address(added) +
                                               "\nconnect = " + address(back) + "\n"
                                         : std::string()));
    };
    write(one.port, false);
    const auto tunnel = startConfigured({}, 2);
    std::string greeting;
    const int open = greeted(front, greeting);
    EXPECT_EQ(greeting, "one:");
    const std::vector<pid_t> before = childrenOf(tunnel->pid);

    write(two.port, true);
    tunnel->signal(SIGHUP);
    ASSERT_TRUE(tunnel->waitForError("reloaded " + config +
                                         ": front, back, added (added added; "
                                         "changed back)",
                                     10))
        << tunnel->errorText();
    EXPECT_EQ(roundTrip(open, "still open"), "still open") << "the open connection is untouched";
    const int fresh = greeted(front, greeting);
    EXPECT_EQ(greeting, "two:") << "new connections go to the new target";
    (void)close(fresh);
    const int third = greeted(added, greeting);
    EXPECT_EQ(greeting, "two:") << "the added service serves";
    (void)close(third);

    // A configuration that does not load is logged, and the one in force stays.
    writeFile(config, "[broken\n");
    tunnel->signal(SIGHUP);
    EXPECT_TRUE(tunnel->waitForError(
        "reload failed, the configuration in force stays: " + config + ":1: ", 10))
        << tunnel->errorText();
    const int after = greeted(added, greeting);
    EXPECT_EQ(greeting, "two:");
    (void)close(after);

    // So does one that fails once sockets are bound: those of the one in force stay open.
    const int taken = freePort();
    const int holder = listenLoopback(taken);
    write(two.port, true);
    writeFile(config, readFile(config) + "[taken]\nclient = true\naccept = " + address(taken) +
                          "\nconnect = " + address(back) + "\n");
    tunnel->signal(SIGHUP);
    EXPECT_TRUE(tunnel->waitForError("taken: cannot listen on " + address(taken), 10))
        << tunnel->errorText();
    (void)close(holder);
    const int kept = greeted(front, greeting);
    EXPECT_EQ(greeting, "two:");
    (void)close(kept);
    EXPECT_EQ(roundTrip(open, "and now"), "and now");
    (void)close(open);
    // The retired worker ends once its connection did.
    EXPECT_TRUE(within(10, [&] { return !running(before.front()); }));
    tunnel->signal(SIGTERM);
    EXPECT_EQ(tunnel->wait(20), 0);
}

TEST_F(operateTest, SigusrTwoListsTheOpenConnections)
{
    const int server = freePort();
    const int client = freePort();
    const auto back = startTunnel("--server", server, one.port, psk, {"--workers", "1"});
    const auto front = startTunnel("--client", client, server, psk);
    std::string greeting;
    const int fd = greeted(client, greeting);
    EXPECT_EQ(roundTrip(fd, "abc"), "abc");
    back->signal(SIGUSR2);
    EXPECT_TRUE(back->waitForError("1 connection(s) open", 10)) << back->errorText();
    EXPECT_TRUE(back->waitForError(": relaying for ", 10)) << back->errorText();
    EXPECT_TRUE(back->waitForError(" s: 3 bytes to the service, 7 bytes from it", 10))
        << back->errorText();
    (void)close(fd);
}

TEST_F(operateTest, StoppingGivesOpenConnectionsTheDrainTimeThenEndsThem)
{
    const int server = freePort();
    const int client = freePort();
    const auto back = startTunnel("--server", server, one.port, psk);
    const auto front =
        startTunnel("--client", client, server, psk, {"--drain-timeout", "1", "--workers", "1"});
    std::string greeting;
    const int idle = greeted(client, greeting);
    EXPECT_EQ(greeting, "one:");
    front->signal(SIGTERM);
    EXPECT_TRUE(
        front->waitForError("stopping: waiting for 1 connection(s) to finish, at most 1 s", 10))
        << front->errorText();
    EXPECT_EQ(front->wait(15), 0) << "an idle connection cannot hold the stop";
    EXPECT_TRUE(contains(front->errorText(), "ended: the tunnel was stopped"));
    EXPECT_TRUE(closedWithin(idle, 5));
    (void)close(idle);
}

TEST_F(operateTest, ASecondSignalEndsOpenConnectionsAtOnce)
{
    const int server = freePort();
    const int again = freePort();
    const auto back = startTunnel("--server", server, one.port, psk);
    const auto patient = startTunnel("--client", again, server, psk, {"--drain-timeout", "600"});
    std::string greeting;
    const int held = greeted(again, greeting);
    patient->signal(SIGINT);
    EXPECT_TRUE(patient->waitForError("at most 600 s", 10));
    patient->signal(SIGINT);
    EXPECT_EQ(patient->wait(15), 0);
    (void)close(held);
}

TEST_F(operateTest, ThePidFileNamesTheTunnelWhileItRuns)
{
    const int port = freePort();
    const std::string pidFile = dir.file("tunnel.pid");
    const std::string logFile = dir.file("tunnel.log");
    // Detached: the starting process returns once the tunnel runs and its PID file is there.
    const runResult start =
        runVeltrix({"tunnel", "--server", "--accept", address(port), "--connect", address(one.port),
                    "--psk-file", psk, "--pid-file", pidFile, "--log-file", logFile});
    EXPECT_EQ(start.status, 0) << start.err;
    EXPECT_EQ(start.err, "");
    const pid_t pid = std::atoi(readFile(pidFile).c_str());
    ASSERT_GT(pid, 0) << readFile(pidFile);
    EXPECT_TRUE(running(pid));
    EXPECT_EQ(readFile(pidFile), std::to_string(pid) + "\n");
    EXPECT_EQ(runVeltrix({"cat", address(port), "--psk-file", psk}, "x").out, "one:x");
    (void)kill(pid, SIGTERM);
    EXPECT_TRUE(within(10, [&] { return !running(pid); }));
    EXPECT_EQ(access(pidFile.c_str(), F_OK), -1) << "removed at the stop";
    EXPECT_TRUE(contains(readFile(logFile), "notice: stopped"));
}

TEST_F(operateTest, APidFileThatCannotBeWrittenIsOneLine)
{
    const runResult nowhere =
        runVeltrix({"tunnel", "--server", "--accept", address(freePort()), "--connect",
                    address(one.port), "--psk-file", psk, "--pid-file", dir.file("no/pid")});
    EXPECT_EQ(nowhere.status, 1);
    EXPECT_TRUE(contains(nowhere.err, "veltrix tunnel: cannot write the PID file " +
                                          dir.file("no/pid") + ": No such file or directory"));
}

TEST_F(operateTest, LogLinesHaveSeveritiesAnIdentAndAReopenedFile)
{
    const int port = freePort();
    const std::string logFile = dir.file("tunnel.log");
    writeFile(config, "log-file = " + logFile +
                          "\n[web]\nserver = true\naccept = " + address(port) +
                          "\nconnect = " + address(one.port) + "\npsk-file = " + psk + "\n");
    const auto tunnel = startConfigured({"--workers", "1"});
    EXPECT_EQ(runVeltrix({"cat", address(port), "--psk-file", psk}, "x").out, "one:x");
    EXPECT_NE(runVeltrix({"cat", address(port), "--psk-file", wrong}, "x").status, 0);
    const std::string ident = " veltrix-tunnel@web[";
    (void)within(10, [&] { return readFile(logFile).find("warning: ") != std::string::npos; });
    const std::string log = readFile(logFile);
    for (const char* expected :
         {"] notice: web: server tunnel listening on", "] info: web: connection 1 from",
          "] warning: web: connection 2 from"}) {
        EXPECT_TRUE(contains(log, expected));
    }
    EXPECT_TRUE(contains(log, ident));

    // After a rotation, SIGUSR1 makes the tunnel write to a new file of the same name.
    ASSERT_EQ(std::rename(logFile.c_str(), (logFile + ".1").c_str()), 0);
    tunnel->signal(SIGUSR1);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    tunnel->signal(SIGUSR2);
    (void)within(10, [&] { return !readFile(logFile).empty(); });
    EXPECT_TRUE(contains(readFile(logFile), "notice: 0 connection(s) open"));
}

TEST_F(operateTest, LogLevelWarningLeavesOutTheLinesOfEachConnection)
{
    const int quiet = freePort();
    const std::string quietLog = dir.file("quiet.log");
    backgroundRun second({veltrixPath(), "tunnel", "--server", "--foreground", "--accept",
                          address(quiet), "--connect", address(one.port), "--psk-file", psk,
                          "--log-file", quietLog, "--log-level", "warning"});
    ASSERT_TRUE(listeningWithin(quiet, 30));
    EXPECT_EQ(runVeltrix({"cat", address(quiet), "--psk-file", psk}, "x").out, "one:x");
    EXPECT_NE(runVeltrix({"cat", address(quiet), "--psk-file", wrong}, "x").status, 0);
    (void)within(10, [&] { return !readFile(quietLog).empty(); });
    const std::string quieter = readFile(quietLog);
    EXPECT_TRUE(contains(quieter, "] warning: connection 2 from"));
    EXPECT_FALSE(contains(quieter, "] info: "));
    EXPECT_FALSE(contains(quieter, "] notice: "));
}

TEST_F(operateTest, AHandshakeRefusedSaysOnBothEndsWhatToCompare)
{
    const int server = freePort();
    const auto back = startTunnel("--server", server, one.port, psk, {"--workers", "1"});
    // The client tunnel's secret file and options: each differs from the server's in one.
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {wrong, {}}, {psk, {"--cipher", "aes128"}}, {psk, {"--hash", "sha256-128"}}};
    size_t refusals = 0;
    for (const auto& [secret, options] : cases) {
        const int client = freePort();
        const auto front = startTunnel("--client", client, server, secret, options);
        const int fd = connectLoopback(client);
        bool ended = true;
        EXPECT_EQ(receiveAll(fd, &ended), "");
        EXPECT_FALSE(ended) << "the application sees the refused connection reset";
        (void)close(fd);
        EXPECT_TRUE(front->waitForError(
            "failed: the server tunnel refused this end's answer: the two ends do not share the "
            "same secret, cipher and hash (compare --psk-file, --cipher and --hash on both ends)",
            10))
            << front->errorText();
        ++refusals;
        (void)within(5, [&] {
            return occurrences(back->errorText(),
                               "failed: the peer does not share this end's secret, cipher and "
                               "hash (compare --psk-file, --cipher and --hash on both ends)") >=
                   refusals;
        });
        EXPECT_EQ(occurrences(back->errorText(), "does not share this end's secret"), refusals)
            << back->errorText();
    }
    EXPECT_FALSE(contains(back->errorText(), "( decrypted == correctResponse )"))
        << "the trail's texts only with -v";
}

TEST_F(operateTest, UnauthenticatedConnectionsFromOneAddressAreCapped)
{
    const int port = freePort();
    const auto tunnel = startTunnel("--server", port, one.port, psk,
                                    {"--max-handshakes-per-source", "2", "--auth-timeout", "30"});
    const int first = connectLoopback(port);
    const int second = connectLoopback(port);
    ASSERT_GE(first, 0);
    ASSERT_GE(second, 0);
    EXPECT_EQ(receiveSome(first, 32).size(), 32U);
    EXPECT_EQ(receiveSome(second, 32).size(), 32U);
    const int third = connectLoopback(port);
    EXPECT_TRUE(closedWithin(third, 5)) << "over the cap";
    (void)close(third);
    EXPECT_TRUE(tunnel->waitForError("refused a connection from 127.0.0.1:", 10))
        << tunnel->errorText();
    EXPECT_TRUE(
        contains(tunnel->errorText(),
                 "2 handshakes from that address are under way (max-handshakes-per-source)"));
    // Another address is not held back by this one.
    const int other = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = htonl(0x7F000002); // 127.0.0.2
    ASSERT_EQ(bind(other, reinterpret_cast<sockaddr*>(&from), sizeof from), 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(other, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    EXPECT_EQ(receiveSome(other, 32).size(), 32U);
    // A place is free again once a handshake ended; a genuine client then gets through.
    (void)close(first);
    (void)close(other);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(runVeltrix({"cat", address(port), "--psk-file", psk}, "x").out, "one:x");
    (void)close(second);
}

TEST_F(operateTest, AFailingAcceptBacksOffInsteadOfSpinning)
{
    if (kSanitized || VX_EMULATED != 0) {
        // The sanitizers' runtime opens descriptors of its own to check memory, and takes a
        // process out of them for a memory error; an emulator uses descriptors of its own too.
        GTEST_SKIP() << "a runtime that needs descriptors of its own cannot run out of them";
    }
    // Each connection waiting for its handshake holds three descriptors (its socket and the
    // library's pair), so a limit runs out at the accept itself for one of three limits in a row;
    // for the others a connection runs out while it is set up, and ends.
    for (const int limit : {32, 33, 34}) {
        const int port = freePort();
        backgroundRun tunnel({"/bin/sh", "-c",
                              "ulimit -n " + std::to_string(limit) + " && exec " + veltrixPath() +
                                  " tunnel --server --foreground --workers 1 --accept " +
                                  address(port) + " --connect " + address(one.port) +
                                  " --psk-file " + psk +
                                  " --auth-timeout 60 --max-handshakes-per-source 0"});
        ASSERT_TRUE(tunnel.waitForError("listening on", 30)) << tunnel.errorText();
        std::vector<int> held;
        const auto outOfDescriptors = [&] {
            return tunnel.errorText().find("Too many open files") != std::string::npos;
        };
        for (int i = 0; i < 40 && !outOfDescriptors(); ++i) {
            held.push_back(connectLoopback(port));
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        if (!tunnel.waitForError("cannot accept connections: Too many open files; trying again "
                                 "in 50 ms",
                                 0)) {
            for (const int fd : held) {
                (void)close(fd);
            }
            continue;
        }
        const std::vector<pid_t> workers = childrenOf(tunnel.pid);
        ASSERT_EQ(workers.size(), 1U);
        // A connection waits in the backlog: a worker that tried again at once would spin.
        const double before = cpuSeconds(workers.front());
        std::this_thread::sleep_for(std::chrono::seconds(2));
        const double used = cpuSeconds(workers.front()) - before;
        EXPECT_LT(used, 0.5) << "CPU seconds in 2 s";
        for (const int fd : held) {
            (void)close(fd);
        }
        const runResult served = runVeltrix({"cat", address(port), "--psk-file", psk}, "x");
        EXPECT_EQ(served.out, "one:x") << served.err << tunnel.errorText();
        return;
    }
    ADD_FAILURE() << "no limit ran out at the accept";
}

} // namespace
