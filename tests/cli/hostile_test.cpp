// veltrix tunnel --server facing hostile peers: silence, cut and garbage handshakes, a keyed peer
// whose stream is altered (a header or a body byte flipped, packets cut, cells that break the
// stream protocol), a header that declares more body than was announced, and a flood beyond
// --max-connections. Each way the relay can end a connection is seen once: a replayed, swapped
// or foreign packet fails the same header check as a flipped header byte, and every broken cell
// the same protocol check as a cell of an unknown kind. After each, the bad connection has ended
// with a log line, the tunnel still runs and serves a genuine connection, and at the end its
// processes' descriptors and memory are where they were.
#include "cliRun.h"
#include "streamPeer.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <random>
#include <string>
#include <thread>

using namespace vxclitest;

namespace {

constexpr size_t kHandshakeOut = 32; // a client's part of the handshake: two 16-byte messages
constexpr int kBound = 30;           // seconds a hostile connection may take to end
/** Seconds a connection that broke the stream protocol may take to end: the relay fails it as
 *  soon as the announced packet is there, well inside the 2-second receive time-out. */
constexpr int kPromptly = 10;
constexpr const char* kForgedHeader = "receiving from the peer failed: tempBytes3 == hMacHead";
constexpr const char* kPartial = "the peer sent part of a packet and nothing more for 2 s";
/** The line of a connection that ended normally. */
constexpr const char* kClosed = "closed";

/** The stream a keyed peer sends in the alteration cases: its genuine packets are 64 bytes
 *  (13 bytes of data, announcing 1024 blocks), 16432 (16381 bytes, announcing 255), 4128 (the
 *  last 4071 bytes, announcing one block) and 64 (the end cell). */
const std::string kInput = pattern(5 * 4093, 5);

std::vector<std::string> genuine(streamPeer& peer)
{
    std::vector<std::string> packets = peer.sealData(kInput);
    packets.push_back(peer.sealEnd());
    return packets;
}

std::string joined(const std::vector<std::string>& packets)
{
    std::string bytes;
    for (const std::string& packet : packets) {
        bytes += packet;
    }
    return bytes;
}

std::string flipped(std::string bytes, size_t at)
{
    bytes[at] = static_cast<char>(bytes[at] ^ 0x20);
    return bytes;
}

/** What a keyed peer sends after the handshake, then whether it closes its side or holds the
 *  connection open in silence; the tunnel logs `logs` for the connection. Packets are sealed in
 *  the order they go out (each advances the keys): in a list, never as operands of one `+`. */
struct alteration
{
    const char* name;
    std::string (*build)(streamPeer&);
    bool thenClose;
    const char* logs;
};

const alteration kAlterations[] = {
    {"nothing altered", [](streamPeer& peer) { return joined(genuine(peer)); }, false, kClosed},
    {"a header byte flipped", [](streamPeer& peer) { return flipped(joined(genuine(peer)), 5); },
     false, kForgedHeader},
    {"a body byte flipped",
     [](streamPeer& peer) {
         return flipped(joined(genuine(peer)), cells::kFirstPacket + cells::kPacketHeader + 1000);
     },
     false, "receiving from the peer failed: tempBytes3 == hMacBody"},
    {"cut in a header, then silence",
     [](streamPeer& peer) {
         const std::vector<std::string> p = genuine(peer);
         return p[0] + p[1].substr(0, 20);
     },
     false, kPartial},
    {"cut in a body, then silence",
     [](streamPeer& peer) {
         const std::vector<std::string> p = genuine(peer);
         return p[0] + p[1].substr(0, 2000);
     },
     false, kPartial},
    {"cut in a body, then closed",
     [](streamPeer& peer) {
         const std::vector<std::string> p = genuine(peer);
         return p[0] + p[1].substr(0, 2000);
     },
     true, "the peer closed the connection before the end of the stream"},
    {"a packet smaller than announced",
     [](streamPeer& peer) {
         return joined(
             {peer.seal(cells::data("x", 2)), peer.seal(cells::data("y", 1)), peer.sealEnd()});
     },
     false,
     "the peer broke the stream protocol: a packet declares a body of 16 bytes where 32 were "
     "announced"},
    {"a cell of an unknown kind",
     [](streamPeer& peer) {
         return peer.seal({2, 0, 1, 'x'});
     },
     false, "the peer broke the stream protocol: a cell of an unknown kind"},
    {"the disconnect command before the end",
     [](streamPeer& peer) {
         return joined({peer.seal(cells::data("x", 1)), peer.sealDisconnect(), peer.sealEnd()});
     },
     false, "the peer disconnected before the end of the stream"},
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
        {"a whole wrong answer, then silence", std::string(16, '\x80'), false,
         "failed: the peer does not share this end's secret, cipher and hash (compare "
         "--psk-file, --cipher and --hash on both ends)"},
        {"a plain-text client", "GET / HTTP/1.1\r\nHost: tunnel\r\n\r\n", true,
         "failed: the peer is not a veltrix tunnel: it sent plain text \"GET / HTTP/1.1\\r\\n\""},
        {"a TLS client",
         std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11) + std::string(21, '\x42'),
         true, "failed: the peer is not a veltrix tunnel: it speaks TLS"},
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
    void SetUp() override
    {
        vxtest::ensurePlugin();
        writeFile(psk, secret);
    }

    /** The server tunnel under attack, in front of the echo service. */
    void startServer(const std::vector<std::string>& options)
    {
        tunnel = startTunnel("--server", port, service.port, psk, options);
    }

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
    void expectLogged(size_t mark, const std::string& wanted, int seconds = kBound)
    {
        (void)within(seconds,
                     [&] { return tunnel->errorText().find(wanted, mark) != std::string::npos; });
        const std::string log = tunnel->errorText();
        const size_t at = log.find(wanted, mark);
        ASSERT_NE(at, std::string::npos) << wanted << "\n" << log.substr(mark);
        const size_t start = log.rfind('\n', at) + 1;
        std::cout << "  " << log.substr(start, log.find('\n', at) - start) << "\n";
    }

    [[nodiscard]] size_t logMark() const { return tunnel->errorText().size(); }

    /** Waits until the tunnel logged `count` connections closed normally. */
    [[nodiscard]] bool waitClosed(size_t count) const
    {
        return within(kBound,
                      [&] { return occurrences(tunnel->errorText(), ": closed after ") >= count; });
    }

    /** Waits until the tunnel's processes hold `descriptors` descriptors again, as they did with
     *  no connection: every place is free. */
    void expectNoConnections(size_t descriptors) const
    {
        (void)within(kBound, [&] { return figuresOfTree(tunnel->pid).descriptors == descriptors; });
        EXPECT_EQ(figuresOfTree(tunnel->pid).descriptors, descriptors);
    }

    /** A keyed peer, past the handshake with the tunnel, whose receives wait at most kBound. */
    std::unique_ptr<streamPeer> keyedPeer()
    {
        auto peer = std::make_unique<streamPeer>(frame);
        EXPECT_TRUE(peer->connect(port, secret, kBound)) << peer->problem();
        return peer;
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

    /** The untouched stream comes back whole and ends as it should. */
    static void expectWholeEcho(streamPeer& peer)
    {
        std::string echoed;
        EXPECT_TRUE(peer.receiveStream(echoed)) << peer.problem();
        EXPECT_TRUE(echoed == kInput) << echoed.size() << " bytes echoed";
        EXPECT_TRUE(peer.sendDisconnect()) << peer.problem();
    }

    /** An altered stream never ends as a whole one: what comes back is a genuine part of the
     *  echo, and then the tunnel ends the connection. */
    static void expectCutEcho(streamPeer& peer)
    {
        std::string echoed;
        EXPECT_FALSE(peer.receiveStream(echoed)) << "the tunnel ended an altered stream normally";
        EXPECT_EQ(kInput.compare(0, echoed.size(), echoed), 0);
        EXPECT_TRUE(closedWithin(peer.fd(), kBound));
    }

    void alterations()
    {
        for (const alteration& plan : kAlterations) {
            SCOPED_TRACE(plan.name);
            std::cout << plan.name << ":\n";
            const size_t mark = logMark();
            const auto peer = keyedPeer();
            const int from = localPort(peer->fd());
            (void)peer->sendRaw(plan.build(*peer)); // the tunnel may reset before it took all
            if (plan.thenClose) {
                (void)shutdown(peer->fd(), SHUT_WR);
            }
            if (plan.logs == kClosed) {
                expectWholeEcho(*peer);
            } else {
                expectCutEcho(*peer);
            }
            peer->close();
            expectLogged(mark, lineFor(from, plan.logs));
            expectServing();
        }
    }

    /** Ten silent peers at once against --max-connections 3: three are served (they receive the
     *  server's first message), the others wait for a free place, and each ends at the handshake
     *  deadline in turn. */
    void flood(size_t idleDescriptors)
    {
        std::cout << "ten silent peers:\n";
        expectNoConnections(idleDescriptors);
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

    /** Past the handshake, a valid first cell that announces a 2-block packet (80 bytes on the
     *  wire), then the first `sent` bytes of a real packet whose header declares 5000 bytes of
     *  payload (a body of 5008). */
    static void declareMoreThanAnnounced(streamPeer& peer, size_t sent)
    {
        // Sealed in the order they are sent: each packet advances the keys.
        const std::string first = peer.seal(cells::data("x", 2));
        const std::string oversized = peer.seal(cells::data(pattern(4997, 6), 1));
        ASSERT_EQ(oversized.size(), cells::kPacketHeader + 5008);
        EXPECT_TRUE(peer.sendRaw(first + oversized.substr(0, sent))) << peer.problem();
    }

    /** A keyed peer that did declareMoreThanAnnounced(`sent`), and its local port. */
    std::unique_ptr<streamPeer> oversizeAttacker(size_t sent, int& from)
    {
        auto peer = keyedPeer();
        from = localPort(peer->fd());
        declareMoreThanAnnounced(*peer, sent);
        return peer;
    }

    vxtest::testFrame frame;
    scratchDir dir;
    std::string secret = "the tunnel's secret";
    std::string psk = dir.file("psk");
    loopbackService service{echoBytes};
    int port = freePort();
    std::unique_ptr<backgroundRun> tunnel;
};

constexpr const char* kOversize =
    "the peer broke the stream protocol: a packet declares a body of 5008 bytes where 32 were "
    "announced";

TEST_F(hostileTest, EachBadPeerEndsAloneAndTheTunnelKeepsServing)
{
    startServer({"--auth-timeout", "2", "--receive-timeout", "2", "--max-connections", "3"});
    for (int i = 0; i < 5; ++i) {
        expectServing(); // warm-up
    }
    ASSERT_TRUE(waitClosed(5)) << tunnel->errorText();
    const std::vector<pid_t> workers = childrenOf(tunnel->pid);
    const processFigures before = figuresOfTree(tunnel->pid);
    rawPeerCases();
    alterations();
    flood(before.descriptors);
    expectNoConnections(before.descriptors);
    const processFigures after = figuresOfTree(tunnel->pid);
    std::cout << "tunnel and workers: " << before.descriptors << " descriptors and "
              << before.anonKiB << " KiB anonymous before, " << after.descriptors << " and "
              << after.anonKiB << " KiB after\n";
    EXPECT_EQ(childrenOf(tunnel->pid), workers) << "a worker ended and was replaced";
    EXPECT_FALSE(contains(tunnel->errorText(), "a worker"));
    if (!kSanitized) {
        EXPECT_LT(after.anonKiB - before.anonKiB, 1024);
    }
}

TEST_F(hostileTest, OversizeDeclarationsFillingEveryPlaceFreeThemForGenuineConnections)
{
    startServer({"--max-connections", "2", "--receive-timeout", "2"});
    const size_t mark = logMark();
    const auto first = keyedPeer();
    const auto second = keyedPeer();
    // Both places are taken: a third connection waits in the backlog, unanswered.
    const int waiting = connectLoopback(port);
    ASSERT_GE(waiting, 0);
    pollfd answer{waiting, POLLIN, 0};
    EXPECT_EQ(poll(&answer, 1, 500), 0) << "served beyond --max-connections";
    // Each sends the whole announced packet: the relay fails it at once.
    for (streamPeer* attacker : {first.get(), second.get()}) {
        declareMoreThanAnnounced(*attacker, cells::wireSize(2));
    }
    for (streamPeer* attacker : {first.get(), second.get()}) {
        EXPECT_TRUE(closedWithin(attacker->fd(), kPromptly));
        expectLogged(mark, lineFor(localPort(attacker->fd()), kOversize), kPromptly);
    }
    // The places are free again: the waiting connection gets the server's first message.
    EXPECT_EQ(poll(&answer, 1, kPromptly * 1000), 1);
    (void)close(waiting);
    expectServing();
    tunnel->signal(SIGTERM);
    EXPECT_EQ(tunnel->wait(kPromptly), 0) << tunnel->errorText();
    EXPECT_TRUE(contains(tunnel->errorText(), "stopped"));
}

TEST_F(hostileTest, AnOversizeHeaderThenSilenceEndsAtTheReceiveTimeOut)
{
    // One worker: the connection that holds a partial packet shares its event loop with the
    // genuine one, which must be served all the same.
    startServer({"--max-connections", "2", "--receive-timeout", "2", "--workers", "1"});
    const size_t mark = logMark();
    // The header and one block of the 80 announced bytes; the connection stays open.
    int from = 0;
    const auto attacker = oversizeAttacker(cells::kFirstPacket, from);
    expectServing();
    EXPECT_TRUE(closedWithin(attacker->fd(), kPromptly));
    expectLogged(mark, lineFor(from, kPartial), kPromptly);
    expectServing();
}

TEST_F(hostileTest, SigtermStopsTheTunnelWhileAPeerHoldsAPartialPacket)
{
    startServer({"--max-connections", "2", "--receive-timeout", "2"});
    const size_t mark = logMark();
    int from = 0;
    const auto attacker = oversizeAttacker(cells::kPacketHeader, from);
    ASSERT_TRUE(tunnel->waitForError("connected to", kPromptly)) << tunnel->errorText();
    tunnel->signal(SIGTERM);
    // The connection it waits for ends at the receive time-out, and then the tunnel.
    EXPECT_EQ(tunnel->wait(kPromptly), 0) << tunnel->errorText();
    EXPECT_NE(tunnel->errorText().find(lineFor(from, kPartial), mark), std::string::npos)
        << tunnel->errorText();
    EXPECT_TRUE(contains(tunnel->errorText(), "stopped"));
    EXPECT_TRUE(closedWithin(attacker->fd(), kPromptly));
}

TEST_F(hostileTest, RawPayloadsCutMidPacketEndAtTheReceiveTimeOut)
{
    // The raw relay's receive happens inside the library; the limit applies there too.
    backgroundRun listener({veltrixPath(), "cat", "--listen", address(port), "--psk-file", psk,
                            "--raw", "--receive-timeout", "1"});
    proxyConnection proxy(port, kHandshakeOut + 20); // the handshake, 20 bytes of a header
    const runResult client =
        runVeltrix({"cat", address(proxy.port), "--psk-file", psk, "--raw"}, "bare payload", 60);
    EXPECT_EQ(client.status, 0) << client.err; // it sent everything and the disconnect command
    EXPECT_TRUE(proxy.serverEnded());
    EXPECT_EQ(listener.wait(kBound), 1);
    EXPECT_EQ(listener.errorText(),
              "veltrix cat: the peer sent part of a packet and nothing more for 1 s\n");
}

} // namespace
