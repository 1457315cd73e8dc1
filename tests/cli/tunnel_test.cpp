// veltrix tunnel in front of a small echo service, with clients connecting through a client
// tunnel: data exact both ways, half-close, large streams both ways at once, a connection that
// dies mid-stream, SIGTERM; and cat at either end of a tunnel.
#include "cliRun.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace vxclitest;

namespace {

class tunnelTest : public testing::Test
{
protected:
    void SetUp() override
    {
        writeFile(psk, "the secret both tunnels share\n");
        serverTunnel = start("--server", serverPort, service.port, psk);
        clientTunnel = start("--client", clientPort, serverPort, psk);
    }

    std::unique_ptr<backgroundRun>
    start(const char* mode, int acceptPort, int connectPort, const std::string& secretFile,
          const std::vector<std::string>& extra = {"--handshake-timeout", "5"})
    {
        return startTunnel(mode, acceptPort, connectPort, secretFile, extra);
    }

    scratchDir dir;
    std::string psk = dir.file("psk");
    loopbackService service{echoBytes};
    int serverPort = freePort();
    int clientPort = freePort();
    std::unique_ptr<backgroundRun> serverTunnel;
    std::unique_ptr<backgroundRun> clientTunnel;
};

TEST_F(tunnelTest, CarriesEveryByteAndHalfClose)
{
    // Around the cells' bounds: the first packet's 13 bytes, a full cell's 16381, a read's 65537.
    for (const size_t size : {size_t{1}, size_t{13}, size_t{14}, size_t{4093}, size_t{16381},
                              size_t{16382}, size_t{65537}, size_t{100000}}) {
        const std::string request = pattern(size, static_cast<unsigned>(size));
        EXPECT_EQ(exchange(request, clientPort), request) << size << " bytes";
    }
    EXPECT_TRUE(serverTunnel->waitForError("closed", 10)) << serverTunnel->errorText();
}

/** What one end of a duplex exchange saw. */
struct duplexResult
{
    bool sentWhole = false;
    bool exact = false; ///< every byte received matched and the stream ended normally
    uint64_t received = 0;
};

/** On `fd`: sends `size` bytes of patternStream(sendSeed) and half-closes, while it receives and
 *  checks patternStream(receiveSeed) until the end of the stream; neither direction waits for the
 *  other. */
duplexResult duplexPattern(int fd, uint64_t size, unsigned sendSeed, unsigned receiveSeed)
{
    std::atomic<bool> sent{false};
    std::thread writer([&] {
        sent = sendPattern(fd, size, sendSeed);
        (void)shutdown(fd, SHUT_WR);
    });
    duplexResult result;
    result.exact = receivePattern(fd, receiveSeed, result.received);
    writer.join();
    result.sentWhole = sent;
    return result;
}

/** A service that runs duplexPattern() on the connection that arrives. */
class duplexService
{
public:
    duplexService(uint64_t sent, unsigned sendSeed, unsigned receiveSeed)
        : service([this, sent, sendSeed, receiveSeed](int fd) {
              const timeval limit{60, 0}; // a stuck tunnel fails the test, not the run
              (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
              (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
              seen = duplexPattern(fd, sent, sendSeed, receiveSeed);
              (void)close(fd);
              done = true;
          })
    {}

    /** Waits at most `seconds` for the connection to be served to its end. */
    bool finishedWithin(int seconds) const
    {
        return within(seconds, [this] { return done.load(); });
    }

    duplexResult seen; ///< valid once finishedWithin() is true
    std::atomic<bool> done{false};
    loopbackService service;
};

TEST_F(tunnelTest, BothDirectionsSaturatedAtOnceComplete)
{
    // The service and the application both write 64 MiB before they read a byte (each reads on
    // another thread), so every queue and buffer on the way fills in both directions at once.
    constexpr uint64_t kSize = uint64_t{64} << 20U;
    duplexService duplex(kSize, 21, 22);
    const int backPort = freePort();
    const int frontPort = freePort();
    const auto back = start("--server", backPort, duplex.service.port, psk);
    const auto front = start("--client", frontPort, backPort, psk);
    const int fd = connectLoopback(frontPort);
    ASSERT_GE(fd, 0);
    const duplexResult application = duplexPattern(fd, kSize, 22, 21);
    (void)close(fd);
    EXPECT_TRUE(application.exact) << application.received << " bytes received";
    EXPECT_EQ(application.received, kSize);
    EXPECT_TRUE(application.sentWhole);
    ASSERT_TRUE(duplex.finishedWithin(60));
    EXPECT_TRUE(duplex.seen.sentWhole);
    EXPECT_TRUE(duplex.seen.exact);
    EXPECT_EQ(duplex.seen.received, kSize);
    EXPECT_TRUE(back->waitForError("closed", 10)) << back->errorText();
    EXPECT_TRUE(front->waitForError("closed", 10)) << front->errorText();
}

TEST_F(tunnelTest, CatAgainstAServerTunnelCarriesBothWays)
{
    // cat speaks the stream protocol to the server tunnel directly: its input reaches the
    // service while the service's bytes reach its output.
    const std::string input = pattern((5 << 20) + 3, 23);
    duplexService duplex((3 << 20) + 7, 24, 23);
    const int backPort = freePort();
    const auto back = start("--server", backPort, duplex.service.port, psk);
    const runResult cat = runVeltrix({"cat", address(backPort), "--psk-file", psk}, input, 120);
    EXPECT_EQ(cat.status, 0) << cat.err;
    EXPECT_EQ(cat.err, "");
    EXPECT_TRUE(cat.out == pattern((3 << 20) + 7, 24)) << cat.out.size() << " bytes received";
    ASSERT_TRUE(duplex.finishedWithin(60));
    EXPECT_TRUE(duplex.seen.exact);
    EXPECT_EQ(duplex.seen.received, input.size());
    EXPECT_TRUE(back->waitForError("closed", 10)) << back->errorText();
}

TEST_F(tunnelTest, AClientTunnelAgainstAListeningCatCarriesBothWays)
{
    // The client tunnel connects to cat --listen: the application's bytes reach cat's output
    // while cat's input reaches the application, and cat ends once the tunnel disconnects.
    const std::string spoken = pattern((3 << 20) + 11, 25);
    const std::string fromApplication = pattern((5 << 20) + 13, 26);
    writeFile(dir.file("spoken"), spoken);
    const int catPort = freePort();
    backgroundRun listener({veltrixPath(), "cat", "--listen", address(catPort), "--psk-file", psk},
                           dir.file("spoken"), dir.file("heard"));
    ASSERT_TRUE(listeningWithin(catPort, 30)) << listener.errorText();
    const int frontPort = freePort();
    const auto front = start("--client", frontPort, catPort, psk);
    const std::string answer = exchange(fromApplication, frontPort);
    EXPECT_TRUE(answer == spoken) << answer.size() << " bytes received";
    EXPECT_EQ(listener.wait(30), 0) << listener.errorText();
    EXPECT_TRUE(readFile(dir.file("heard")) == fromApplication);
    EXPECT_TRUE(front->waitForError("closed", 10)) << front->errorText();
}

TEST_F(tunnelTest, ConnectionDyingMidStreamLeavesTheTunnelServing)
{
    const int dying = connectLoopback(clientPort);
    ASSERT_GE(dying, 0);
    ASSERT_TRUE(sendAll(dying, pattern(1 << 20, 3)));
    const linger abort{1, 0};
    (void)setsockopt(dying, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    (void)close(dying);
    EXPECT_TRUE(clientTunnel->waitForError("connection 1 from 127.0.0.1:", 10))
        << clientTunnel->errorText();
    EXPECT_TRUE(serverTunnel->waitForError("before the end of the stream", 20))
        << serverTunnel->errorText();

    EXPECT_EQ(exchange("still serving", clientPort), "still serving");
}

TEST_F(tunnelTest, UnreachableServiceEndsTheConnectionWithALogLine)
{
    const int nowhere = freePort();
    const int backPort = freePort();
    const int frontPort = freePort();
    const auto back = start("--server", backPort, nowhere, psk);
    const auto front = start("--client", frontPort, backPort, psk);
    const int fd = connectLoopback(frontPort);
    ASSERT_GE(fd, 0);
    bool ended = true;
    EXPECT_EQ(receiveAll(fd, &ended), "");
    EXPECT_FALSE(ended) << "the application sees the connection reset";
    (void)close(fd);
    EXPECT_TRUE(back->waitForError(
        "cannot connect to 127.0.0.1:" + std::to_string(nowhere) + ": Connection refused", 10))
        << back->errorText();
    // The client end finished its handshake: it blames no secret for the server's problem.
    EXPECT_TRUE(front->waitForError("handshake done with", 10)) << front->errorText();
    EXPECT_FALSE(contains(front->errorText(), "do not share"));
    EXPECT_EQ(exchange("the others still work", clientPort), "the others still work");
}

TEST_F(tunnelTest, AStalledHandshakeEndsAtItsDeadline)
{
    const int port = freePort();
    const auto tunnel = start("--server", port, service.port, psk, {"--auth-timeout", "1"});
    const int silent = connectLoopback(port); // connects and never says a word
    ASSERT_GE(silent, 0);
    EXPECT_TRUE(tunnel->waitForError("did not finish within 1 s", 10)) << tunnel->errorText();
    bool ended = true;
    (void)receiveAll(silent, &ended); // the server's first message, then the close
    EXPECT_TRUE(ended) << std::strerror(errno);
    (void)close(silent);
}

TEST_F(tunnelTest, QuietConnectionsEndOnlyWithAnIdleTimeOut)
{
    struct quietCase
    {
        std::vector<std::string> server; ///< options of the server tunnel
        std::vector<std::string> client; ///< options of the client tunnel
        int dripSeconds;                 ///< a byte every half second for this long, else silence
        const char* logs;                ///< which tunnel ends the connection, and its line
        bool serverLogs;
    };

    const quietCase cases[] = {
        {{"--receive-timeout", "1"}, {}, 0, nullptr, false}, // quiet is fine by default
        {{"--idle-timeout", "2"}, {}, 4, nullptr, false},    // traffic keeps it alive
        {{"--idle-timeout", "1"}, {}, 0, "the connection was idle for 1 s", true},
        {{}, {"--idle-timeout", "1"}, 0, "the connection was idle for 1 s", false},
    };
    for (const quietCase& quiet : cases) {
        const int backPort = freePort();
        const int frontPort = freePort();
        const auto back = start("--server", backPort, service.port, psk, quiet.server);
        const auto front = start("--client", frontPort, backPort, psk, quiet.client);
        const int fd = connectLoopback(frontPort);
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(back->waitForError("connected to", 10)) << back->errorText();
        if (quiet.logs != nullptr) {
            bool ended = true;
            EXPECT_EQ(receiveAll(fd, &ended), "");
            EXPECT_FALSE(ended) << "the application sees the connection reset";
            const auto& ends = quiet.serverLogs ? back : front;
            EXPECT_TRUE(ends->waitForError(quiet.logs, 10)) << ends->errorText();
        } else {
            std::string sent;
            for (int tick = 0; tick < 2 * quiet.dripSeconds; ++tick) {
                sent += "x";
                EXPECT_TRUE(sendAll(fd, "x"));
                usleep(500000);
            }
            sleep(quiet.dripSeconds == 0 ? 3 : 0);
            EXPECT_TRUE(sendAll(fd, " and then some"));
            (void)shutdown(fd, SHUT_WR);
            EXPECT_EQ(receiveAll(fd), sent + " and then some");
            EXPECT_TRUE(back->waitForError("closed", 10)) << back->errorText();
        }
        (void)close(fd);
    }
}

TEST_F(tunnelTest, MaxConnectionsHoldsFurtherConnectionsUntilOneEnds)
{
    const int port = freePort();
    const auto tunnel = start("--client", port, serverPort, psk, {"--max-connections", "1"});
    const int first = connectLoopback(port);
    ASSERT_GE(first, 0);
    ASSERT_TRUE(sendAll(first, "first"));
    ASSERT_TRUE(tunnel->waitForError("connection 1 from", 10));
    const int second = connectLoopback(port); // queued by the kernel, not yet accepted
    ASSERT_GE(second, 0);
    ASSERT_TRUE(sendAll(second, "second"));
    (void)shutdown(second, SHUT_WR);
    pollfd answer{second, POLLIN, 0};
    EXPECT_EQ(poll(&answer, 1, 1000), 0) << "served beyond --max-connections";
    EXPECT_FALSE(contains(tunnel->errorText(), "connection 2 from"));
    (void)shutdown(first, SHUT_WR);
    EXPECT_EQ(receiveAll(first), "first");
    (void)close(first);
    EXPECT_EQ(receiveAll(second), "second");
    (void)close(second);
}

TEST_F(tunnelTest, SigtermStopsItAfterItsConnectionsFinish)
{
    const int open = connectLoopback(clientPort);
    ASSERT_GE(open, 0);
    ASSERT_TRUE(sendAll(open, "before "));
    EXPECT_TRUE(serverTunnel->waitForError("handshake done", 10));
    serverTunnel->signal(SIGTERM);
    EXPECT_TRUE(serverTunnel->waitForError("stopping: waiting for 1 connection(s)", 10))
        << serverTunnel->errorText();
    EXPECT_LT(connectLoopback(serverPort), 0) << "no longer accepting";
    ASSERT_TRUE(sendAll(open, "and after"));
    (void)shutdown(open, SHUT_WR);
    EXPECT_EQ(receiveAll(open), "before and after");
    (void)close(open);
    EXPECT_EQ(serverTunnel->wait(20), 0);
    EXPECT_TRUE(contains(serverTunnel->errorText(), "stopped"));
}

TEST_F(tunnelTest, AFileOfOneServiceTakesTheSecretFromTheCommandLine)
{
    // The service unit's form: the service from the file, the secret's path on the command line
    // as the default of every service.
    const int port = freePort();
    const std::string config = dir.file("web.conf");
    writeFile(config, "# a server tunnel\n[tunnel]\nserver = true\naccept = \"" + address(port) +
                          "\"\nconnect = \"" + address(service.port) + "\"\n");
    backgroundRun fromFile({veltrixPath(), "tunnel", "--config", config, "--foreground", "--accept",
                            address(freePort()), "--psk-file", psk});
    ASSERT_TRUE(fromFile.waitForError("tunnel: server tunnel listening on " + address(port), 30))
        << fromFile.errorText();
    const runResult run = runVeltrix({"cat", address(port), "--psk-file", psk}, "configured", 60);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "configured");
}

TEST(tunnelStart, AConfigThatCannotBeReadSaysWhy)
{
    const runResult missing = runVeltrix({"tunnel", "--config", "/nonexistent/web.conf"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, "veltrix tunnel: cannot read the configuration /nonexistent/web.conf: "
                           "No such file or directory\n");
    const scratchDir dir;
    const runResult directory = runVeltrix({"tunnel", "--config", dir.path});
    EXPECT_EQ(directory.status, 1);
    EXPECT_EQ(directory.err,
              "veltrix tunnel: cannot read the configuration " + dir.path + ": Is a directory\n");
    if (geteuid() != 0) { // root reads a file of mode 0000
        writeFile(dir.file("web.conf"), "[web]\n", 0000);
        const runResult closed = runVeltrix({"tunnel", "--config", dir.file("web.conf")});
        EXPECT_EQ(closed.status, 1);
        EXPECT_TRUE(contains(closed.err, "Permission denied"));
    }
}

TEST(tunnelStart, RefusesASecretFileOpenToOthers)
{
    const scratchDir dir;
    const std::string psk = dir.file("psk");
    writeFile(psk, "secret", 0644);
    const runResult run =
        runVeltrix({"tunnel", "--server", "--accept", address(freePort()), "--connect",
                    address(freePort()), "--psk-file", psk, "--foreground"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "veltrix tunnel: the secret file " + psk +
                           " is open to group or others (mode 0644); run chmod 600 " + psk + "\n");
}

TEST(tunnelStart, RefusesAnAddressInUse)
{
    const scratchDir dir;
    const std::string psk = dir.file("psk");
    writeFile(psk, "secret");
    const int port = freePort();
    const int taken = listenLoopback(port);
    const runResult run = runVeltrix({"tunnel", "--client", "--accept", address(port), "--connect",
                                      address(freePort()), "--psk-file", psk});
    (void)close(taken);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(lineCount(run.err), 1U) << run.err;
    EXPECT_TRUE(contains(run.err, "cannot listen on " + address(port) + ": bind() failed: "));
}

} // namespace
