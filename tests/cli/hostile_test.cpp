// veltrix tunnel --server facing hostile peers: silence, cut and garbage handshakes, a wrong
// secret, a live connection altered on its way (bytes flipped, packets replayed, swapped or cut)
// by a proxy between a genuine cat and the tunnel, and a flood beyond --max-connections. After
// each, the bad connection has ended with a log line, the tunnel still runs and serves a genuine
// connection, and at the end its descriptors and memory are where they were.
#include "cliRun.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <random>
#include <string>
#include <thread>

using namespace vxclitest;

namespace {

constexpr size_t kPacket = 4144;     // every packet of the stream protocol on the wire
constexpr size_t kHandshakeOut = 32; // a client's part of the handshake: two 16-byte messages
constexpr int kBound = 30;           // seconds a hostile connection may take to end
constexpr const char* kForgedHeader = "receiving from the peer failed: tempBytes3 == hMacHead";

/** After the altered bytes, the rest of the client's stream is relayed, or dropped while the
 *  connection stays open, or the connection to the server ends. */
enum class afterwards
{
    relay,
    stall,
    close
};

/** The proxy takes the first `held` bytes the client sends after the handshake, sends on what
 *  `change` makes of them, then does `then`; the server logs `logs` for the connection. */
struct alteration
{
    const char* name;
    size_t held;
    std::string (*change)(const std::string&);
    afterwards then;
    const char* logs;
};

std::string packet(const std::string& bytes, size_t index)
{
    return bytes.substr(index * kPacket, kPacket);
}

std::string flipped(std::string bytes, size_t at)
{
    bytes[at] = static_cast<char>(bytes[at] ^ 0x20);
    return bytes;
}

std::string same(const std::string& bytes)
{
    return bytes;
}

const alteration kAlterations[] = {
    {"nothing altered", 3 * kPacket, same, afterwards::relay, "closed"},
    {"a header byte flipped", 3 * kPacket, [](const std::string& p) { return flipped(p, 5); },
     afterwards::relay, kForgedHeader},
    {"a body byte flipped", 3 * kPacket,
     [](const std::string& p) { return flipped(p, kPacket + 1048); }, afterwards::relay,
     "receiving from the peer failed: tempBytes3 == hMacBody"},
    {"a packet replayed", 3 * kPacket,
     [](const std::string& p) { return packet(p, 0) + packet(p, 0) + packet(p, 1); },
     afterwards::relay, kForgedHeader},
    {"two packets swapped", 3 * kPacket,
     [](const std::string& p) { return packet(p, 1) + packet(p, 0) + packet(p, 2); },
     afterwards::relay, kForgedHeader},
    {"garbage after the handshake", 3 * kPacket,
     [](const std::string& p) { return pattern(p.size(), 99); }, afterwards::relay, kForgedHeader},
    {"cut in a header, then silence", kPacket + 20, same, afterwards::stall,
     "the peer sent part of a packet and nothing more for 2 s"},
    {"cut in a body, then silence", kPacket + 2000, same, afterwards::stall,
     "the peer sent part of a packet and nothing more for 2 s"},
    {"cut in a body, then closed", kPacket + 2000, same, afterwards::close,
     "the peer closed the connection before the end of the stream"},
};

/** Exactly `count` bytes from `fd`; fewer when its stream ends or its receive limit passes. */
std::string take(int fd, size_t count)
{
    std::string bytes(count, '\0');
    const ssize_t got = count == 0 ? 0 : recv(fd, bytes.data(), count, MSG_WAITALL);
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return bytes;
}

/** One connection from a client to the server at `serverPort`: the server's bytes pass
 *  unchanged, the client's are altered as `plan` says. */
class alteringProxy
{
public:
    alteringProxy(int serverPort, const alteration& plan)
        : port(freePort()), listener(listenLoopback(port)),
          worker([this, serverPort, plan] { run(serverPort, plan); })
    {}

    alteringProxy(const alteringProxy&) = delete;
    alteringProxy& operator=(const alteringProxy&) = delete;

    ~alteringProxy()
    {
        (void)serverEnded();
        (void)close(listener);
    }

    /** Waits for the proxy; true when the server ended the connection within 60 s. */
    bool serverEnded()
    {
        if (worker.joinable()) {
            worker.join();
        }
        return ended;
    }

    const int port;
    int upstreamPort = -1; ///< the proxy's port as the server sees it

private:
    void run(int serverPort, const alteration& plan)
    {
        const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        int server = -1;
        for (int attempt = 0; server < 0 && attempt < 500; ++attempt) {
            server = connectLoopback(serverPort); // a server just started may not listen yet
            std::this_thread::sleep_for(std::chrono::milliseconds(server < 0 ? 20 : 0));
        }
        const timeval limit{60, 0};
        (void)setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        upstreamPort = localPort(server);
        std::thread back([&] {
            std::vector<char> chunk(1 << 16);
            ssize_t got = 0;
            while ((got = recv(server, chunk.data(), chunk.size(), 0)) > 0) {
                (void)sendAll(client, std::string(chunk.data(), static_cast<size_t>(got)));
            }
            ended = got == 0 || errno != EAGAIN;
            (void)shutdown(client, SHUT_RDWR);
        });
        (void)sendAll(server, take(client, kHandshakeOut));
        (void)sendAll(server, plan.change(take(client, plan.held)));
        if (plan.then == afterwards::close) {
            (void)shutdown(server, SHUT_WR);
        }
        std::vector<char> chunk(1 << 16);
        for (ssize_t got = 0; (got = recv(client, chunk.data(), chunk.size(), 0)) > 0;) {
            if (plan.then == afterwards::relay) {
                (void)sendAll(server, std::string(chunk.data(), static_cast<size_t>(got)));
            }
        }
        if (plan.then == afterwards::relay) {
            (void)shutdown(server, SHUT_WR);
        }
        back.join();
        (void)close(client);
        (void)close(server);
    }

    int listener;
    bool ended = false;
    std::thread worker;
};

/** A raw TCP peer: it sends `sends`, then ends its side or falls silent; the server's line for
 *  it is "the handshake with <peer> " and `logs`. */
struct rawPeer
{
    std::string name;
    std::string sends;
    bool thenEnds;
    std::string logs;
};

/** The fixed cases, then twenty of 1 to 10000 random bytes (seeded) and the end of the stream. */
std::vector<rawPeer> rawPeers()
{
    std::vector<rawPeer> peers = {
        {"a peer that sends nothing", "", false, "did not finish within 2 s"},
        {"a peer that closes at once", "", true, "failed: the peer closed the connection"},
        {"a handshake cut after 5 bytes", "\x01\x02\x03\x04\x05", true,
         "failed: the peer closed the connection"},
        {"part of a handshake, then silence", std::string(10, 'x'), false,
         "did not finish within 2 s"},
        {"a whole wrong answer, then silence", std::string(16, 'x'), false,
         "failed: ( decrypted == correctResponse )"},
    };
    std::mt19937 random(20240607U);
    for (int round = 0; round < 20; ++round) {
        std::string junk(std::uniform_int_distribution<size_t>(1, 10000)(random), '\0');
        for (char& c : junk) {
            c = static_cast<char>(random());
        }
        peers.push_back({std::to_string(junk.size()) + " random bytes", junk, true, "failed: "});
    }
    return peers;
}

/** "from <peer>: <text>": the tunnel's line for the connection from local port `from`. */
std::string lineFor(int from, const std::string& text)
{
    return "from " + address(from) + ": " + text;
}

class hostileTest : public testing::Test
{
protected:
    void SetUp() override { writeFile(psk, "the tunnel's secret"); }

    /** A genuine cat through the tunnel still gets its bytes back from the service. */
    void expectServing()
    {
        const runResult run = runVeltrix({"cat", address(port), "--psk-file", psk}, "ping", 60);
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.out, "ping");
        EXPECT_TRUE(running(tunnel->pid));
    }

    /** Waits until the tunnel logged `wanted` after the first `mark` bytes of its log, and
     *  prints the line. */
    void expectLogged(size_t mark, const std::string& wanted)
    {
        std::string log = tunnel->errorText();
        for (int wait = 0; wait < kBound * 100 && log.find(wanted, mark) == std::string::npos;
             ++wait) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            log = tunnel->errorText();
        }
        const size_t at = log.find(wanted, mark);
        ASSERT_NE(at, std::string::npos) << wanted << "\n" << log.substr(mark);
        const size_t start = log.rfind('\n', at) + 1;
        std::cout << "  " << log.substr(start, log.find('\n', at) - start) << "\n";
    }

    [[nodiscard]] size_t logMark() const { return tunnel->errorText().size(); }

    /** Waits until the tunnel has no connection left, so that every place is free. */
    void expectNoConnections() const
    {
        const std::string pid = std::to_string(tunnel->pid);
        const std::string children = "/proc/" + pid + "/task/" + pid + "/children";
        for (int wait = 0; wait < kBound * 100 && !readFile(children).empty(); ++wait) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_EQ(readFile(children), "");
    }

    void rawPeerCases()
    {
        for (const rawPeer& peer : rawPeers()) {
            SCOPED_TRACE(peer.name);
            std::cout << peer.name << ":\n";
            const size_t mark = logMark();
            const int fd = connectLoopback(port);
            ASSERT_GE(fd, 0);
            const int from = localPort(fd);
            (void)sendAll(fd, peer.sends); // the tunnel may reset before it took them all
            if (peer.thenEnds) {
                (void)shutdown(fd, SHUT_WR);
            }
            EXPECT_TRUE(closedWithin(fd, kBound));
            (void)close(fd);
            expectLogged(mark,
                         lineFor(from, "the handshake with " + address(from) + " " + peer.logs));
            expectServing();
        }
    }

    void wrongSecret()
    {
        writeFile(dir.file("other"), "not the tunnel's secret");
        const size_t mark = logMark();
        const runResult run =
            runVeltrix({"cat", address(port), "--psk-file", dir.file("other")}, "x", 60);
        EXPECT_EQ(run.status, 1) << run.err;
        std::cout << "a wrong secret:\n  cat: " << run.err;
        expectLogged(mark, "failed: ( decrypted == correctResponse )");
        expectServing();
    }

    void alterations()
    {
        const std::string input = pattern(5 * 4093, 5); // five full cells, then the end cell
        for (const alteration& plan : kAlterations) {
            SCOPED_TRACE(plan.name);
            std::cout << plan.name << ":\n";
            const size_t mark = logMark();
            alteringProxy proxy(port, plan);
            const runResult run =
                runVeltrix({"cat", address(proxy.port), "--psk-file", psk}, input, 2 * kBound);
            EXPECT_NE(run.status, -1) << "the cat through the proxy hung";
            const bool untouched = plan.change == same && plan.then == afterwards::relay;
            EXPECT_EQ(run.status == 0 && run.out == input, untouched) << run.err;
            EXPECT_TRUE(proxy.serverEnded());
            expectLogged(mark, lineFor(proxy.upstreamPort, plan.logs));
            expectServing();
        }
    }

    /** Ten silent peers at once against --max-connections 3: three are served (they receive the
     *  server's first message), the others wait for a free place, and each ends at the handshake
     *  deadline in turn. */
    void flood()
    {
        std::cout << "ten silent peers:\n";
        expectNoConnections();
        const size_t mark = logMark();
        std::vector<int> fds;
        for (int i = 0; i < 10; ++i) {
            fds.push_back(connectLoopback(port));
            ASSERT_GE(fds.back(), 0);
        }
        for (int i = 0; i < 3; ++i) {
            pollfd first{fds[i], POLLIN, 0};
            EXPECT_EQ(poll(&first, 1, kBound * 1000), 1);
        }
        int served = 0;
        for (const int fd : fds) {
            pollfd now{fd, POLLIN, 0};
            served += poll(&now, 1, 0);
        }
        EXPECT_EQ(served, 3) << "served beyond --max-connections";
        for (const int fd : fds) {
            const int from = localPort(fd);
            EXPECT_TRUE(closedWithin(fd, 4 * kBound));
            (void)close(fd);
            expectLogged(mark, lineFor(from, "the handshake with " + address(from) +
                                                 " did not finish within 2 s"));
        }
        expectServing();
    }

    scratchDir dir;
    std::string psk = dir.file("psk");
    loopbackService service{echoBytes};
    int port = freePort();
    std::unique_ptr<backgroundRun> tunnel;
};

TEST_F(hostileTest, EachBadPeerEndsAloneAndTheTunnelKeepsServing)
{
    tunnel = startTunnel(
        "--server", port, service.port, psk,
        {"--handshake-timeout", "2", "--receive-timeout", "2", "--max-connections", "3"});
    for (int i = 0; i < 5; ++i) {
        expectServing(); // warm-up
    }
    const processFigures before = figuresOf(tunnel->pid);
    rawPeerCases();
    wrongSecret();
    alterations();
    flood();
    const processFigures after = figuresOf(tunnel->pid);
    std::cout << "tunnel parent: " << before.descriptors << " descriptors and " << before.rssKiB
              << " KiB resident before, " << after.descriptors << " and " << after.rssKiB
              << " KiB after\n";
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_LT(after.rssKiB - before.rssKiB, 4096);
}

TEST_F(hostileTest, RawPayloadsCutMidPacketEndAtTheReceiveTimeOut)
{
    // The raw relay's receive happens inside the library; the limit applies there too.
    backgroundRun listener({veltrixPath(), "cat", "--listen", address(port), "--psk-file", psk,
                            "--raw", "--receive-timeout", "1"});
    alteringProxy proxy(port, {"cut in a header", 20, same, afterwards::stall, ""});
    const runResult client =
        runVeltrix({"cat", address(proxy.port), "--psk-file", psk, "--raw"}, "bare payload", 60);
    EXPECT_EQ(client.status, 0) << client.err; // it sent everything and the disconnect command
    EXPECT_TRUE(proxy.serverEnded());
    EXPECT_EQ(listener.wait(kBound), 1);
    EXPECT_EQ(listener.errorText(),
              "veltrix cat: the peer sent part of a packet and nothing more for 1 s\n");
}

} // namespace
