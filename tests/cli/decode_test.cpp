// veltrix decode on captures of real sessions: tcpdump on the loopback interface around cat and
// tunnel sessions in every cipher and both handshake hashes, and captures this test writes itself
// from the recorded bytes of a real session, with segments reordered, repeated, overlapping and
// lost, bytes flipped, the start missing, connections interleaved and the file cut short.
#include "captureWriter.h"
#include "cliRun.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace vxclitest;

namespace {

const std::vector<std::string> kCiphers = {"none", "aes128", "aes192", "aes256"};
const std::vector<std::string> kHashes = {"md5", "sha256-128"};
constexpr const char* kSecret = "the secret of the decode tests";
constexpr const char* kOtherSecret = "not the secret of the decode tests";

/** tcpdump on the loopback interface for the connections of `ports`, writing `file`. */
class loopbackCapture
{
public:
    loopbackCapture(const std::string& file, const std::vector<int>& ports)
    {
        std::string filter;
        for (const int port : ports) {
            filter += (filter.empty() ? "tcp port " : " or tcp port ") + std::to_string(port);
        }
        if (runProgram({"tcpdump", "--version"}).status != 0) {
            why = "tcpdump is not installed";
            return;
        }
        run = std::make_unique<backgroundRun>(
            std::vector<std::string>{"tcpdump", "-i", "lo", "-s", "0", "-B", "65536", "-U",
                                     "--immediate-mode", "-w", file, filter});
        if (!run->waitForError("listening on", 20)) {
            why = "tcpdump cannot capture here: " + run->errorText();
            run.reset();
        }
    }

    /** Why nothing is captured; empty when tcpdump runs. */
    std::string why;

    /** Stops tcpdump once it wrote everything it saw. */
    void stop()
    {
        // The last segments of a session may still be on their way to the capture.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        run->signal(SIGINT);
        EXPECT_EQ(run->wait(20), 0) << run->errorText();
        // A packet the kernel dropped would be a hole in the capture, which decode reports.
        EXPECT_TRUE(contains(run->errorText(), "\n0 packets dropped by kernel"));
    }

private:
    std::unique_ptr<backgroundRun> run;
};

/** One cat session on loopback: each end sends its input, both end in order. */
struct catSession
{
    std::string cipher;
    std::string hash;
    int port;
    std::string fromClient;
    std::string fromServer;
};

void runCat(const catSession& session, const std::string& psk, const std::vector<std::string>& mode)
{
    std::vector<std::string> common{"--psk-file",   psk,      "--cipher",
                                    session.cipher, "--hash", session.hash};
    common.insert(common.end(), mode.begin(), mode.end());
    std::vector<std::string> server{"--once"};
    server.insert(server.end(), common.begin(), common.end());
    const catPair ends =
        runCatPair(session.port, server, session.fromServer, common, session.fromClient);
    ASSERT_EQ(ends.client.status, 0) << ends.client.err;
    ASSERT_EQ(ends.listenerStatus, 0) << ends.listenerErr;
}

/** Every cipher with every handshake hash, each session with its own data. */
std::vector<catSession> everyMode(size_t clientBytes, size_t serverBytes)
{
    std::vector<catSession> sessions;
    unsigned seed = 1;
    for (const std::string& cipher : kCiphers) {
        for (const std::string& hash : kHashes) {
            sessions.push_back({cipher, hash, freePort(), pattern(clientBytes, seed),
                                pattern(serverBytes, seed + 100)});
            ++seed;
        }
    }
    return sessions;
}

/** Decodes `file` and expects every session's payloads, in order, and a clean exit. */
void expectDecoded(const std::string& file, const std::string& psk,
                   const std::vector<catSession>& sessions, bool stream, const scratchDir& dir)
{
    const std::string out = dir.file("payloads");
    std::filesystem::create_directories(out);
    std::vector<std::string> args{"decode", file, "--psk-file", psk, "--payloads", out};
    if (stream) {
        args.emplace_back("--stream");
    }
    const runResult run = runVeltrix(args, "", 120);
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_EQ(occurrences(run.out, "both answers verify"), sessions.size()) << run.out;
    for (size_t index = 0; index < sessions.size(); ++index) {
        const catSession& one = sessions[index];
        const std::string id = std::to_string(index + 1);
        EXPECT_TRUE(contains(run.out, "conn " + id + " handshake: version 1, cipher " + one.cipher +
                                          ", hash " + one.hash + ", secret " + psk));
        EXPECT_TRUE(readFile(out + "/" + id + ".client") == one.fromClient) << "connection " << id;
        EXPECT_TRUE(readFile(out + "/" + id + ".server") == one.fromServer) << "connection " << id;
    }
    EXPECT_FALSE(contains(run.out, "does not match"));
    EXPECT_FALSE(contains(run.out, "lost"));
}

class decodeCaptureTest : public testing::Test
{
protected:
    void SetUp() override { writeFile(psk, kSecret); }

    /** Captures `sessions` of cat with `mode` on loopback, then decodes them. */
    void captureAndDecode(const std::vector<catSession>& sessions,
                          const std::vector<std::string>& mode)
    {
        std::vector<int> ports;
        for (const catSession& one : sessions) {
            ports.push_back(one.port);
        }
        loopbackCapture capture(file, ports);
        if (!capture.why.empty()) {
            GTEST_SKIP() << capture.why;
        }
        for (const catSession& one : sessions) {
            runCat(one, psk, mode);
        }
        capture.stop();
        expectDecoded(file, psk, sessions, mode.empty(), dir);
    }

    scratchDir dir;
    std::string psk = dir.file("psk");
    std::string file = dir.file("capture.pcap");
};

TEST_F(decodeCaptureTest, StreamSessionsInEveryCipherAndHashAreReadBackByteForByte)
{
    captureAndDecode(everyMode(300000, 70000), {});
}

TEST_F(decodeCaptureTest, RawSessionsInEveryCipherAndHashAreReadBackByteForByte)
{
    captureAndDecode(everyMode(100000, 20000), {"--raw", "--linger", "1"});
}

TEST_F(decodeCaptureTest, ATunnelPairsEncryptedLegIsReadBack)
{
    const loopbackService echo(echoBytes);
    const int serverPort = freePort();
    const int clientPort = freePort();
    loopbackCapture capture(file, {serverPort});
    if (!capture.why.empty()) {
        GTEST_SKIP() << capture.why;
    }
    const std::string request = pattern(200000, 7);
    {
        const auto server = startTunnel("--server", serverPort, echo.port, psk);
        const auto client = startTunnel("--client", clientPort, serverPort, psk);
        EXPECT_TRUE(exchange(request, clientPort) == request);
        // The client tunnel disconnects once both directions ended.
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    capture.stop();
    const std::string out = dir.file("payloads");
    std::filesystem::create_directories(out);
    const runResult run = runVeltrix({"decode", file, "--psk-file", psk, "--stream", "--payloads",
                                      out, "--port", std::to_string(serverPort)});
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_TRUE(readFile(out + "/1.client") == request);
    EXPECT_TRUE(readFile(out + "/1.server") == request);
    EXPECT_TRUE(contains(run.out, "client>server #1 frame"));
    EXPECT_TRUE(contains(run.out, "end cell"));
    EXPECT_TRUE(contains(run.out, "command 1 (disconnect)"));
}

/** A real session recorded through a relay: what each end's application sent, and the bytes of
 *  the connection in the order they crossed. */
struct recordedSession
{
    std::string fromClient;
    std::string fromServer;
    std::vector<recordedChunk> chunks;
};

/** `sameSecret` false: the client holds kOtherSecret, and the server refuses it. */
recordedSession recordSession(const std::vector<std::string>& mode, unsigned seed,
                              bool sameSecret = true)
{
    const scratchDir dir;
    const std::string psk = dir.file("psk");
    const std::string clientPsk = dir.file("client.psk");
    writeFile(psk, kSecret);
    writeFile(clientPsk, sameSecret ? kSecret : kOtherSecret);
    recordedSession session{pattern(60000, seed), pattern(30000, seed + 1), {}};
    writeFile(dir.file("spoken"), session.fromServer);
    const int port = freePort();
    std::vector<std::string> server{veltrixPath(), "cat",        "--once", "--listen",
                                    address(port), "--psk-file", psk};
    server.insert(server.end(), mode.begin(), mode.end());
    backgroundRun listener(server, dir.file("spoken"), dir.file("heard"));
    EXPECT_TRUE(listeningWithin(port, 30)) << listener.errorText();
    proxyConnection relay(port);
    std::vector<std::string> client{"cat", address(relay.port), "--psk-file", clientPsk};
    client.insert(client.end(), mode.begin(), mode.end());
    const runResult run = runVeltrix(client, session.fromClient, 120);
    EXPECT_EQ(run.status, sameSecret ? 0 : 1) << run.err;
    EXPECT_EQ(listener.wait(60), sameSecret ? 0 : 1) << listener.errorText();
    session.chunks = relay.finished();
    return session;
}

/** One TCP segment of a recorded session: a direction and a range of its stream. */
struct segment
{
    direction way;
    uint64_t offset;
    size_t length;
};

constexpr size_t kSegment = 1448;

/** The session's segments in the order they crossed, each chunk cut to kSegment bytes. */
std::vector<segment> segmentsOf(const recordedSession& session)
{
    std::vector<segment> all;
    uint64_t offsets[2] = {0, 0};
    for (const recordedChunk& chunk : session.chunks) {
        const direction way = chunk.toServer ? direction::toServer : direction::toClient;
        uint64_t& at = offsets[static_cast<int>(way)];
        for (size_t done = 0; done < chunk.bytes.size(); done += kSegment) {
            const size_t length = std::min(kSegment, chunk.bytes.size() - done);
            all.push_back({way, at, length});
            at += length;
        }
    }
    return all;
}

/** Each direction's whole stream. */
struct streams
{
    std::string bytes[2];

    std::string& of(direction way) { return bytes[static_cast<int>(way)]; }
};

streams streamsOf(const recordedSession& session)
{
    streams both;
    for (const recordedChunk& chunk : session.chunks) {
        both.of(chunk.toServer ? direction::toServer : direction::toClient) += chunk.bytes;
    }
    return both;
}

/** Writes `segments` of `wire` on `flow` in their order, then both FINs; the frame of each. */
std::vector<uint64_t> writeSegments(tcpFlow& flow, streams& wire,
                                    const std::vector<segment>& segments)
{
    std::vector<uint64_t> frames;
    for (const segment& one : segments) {
        frames.push_back(
            flow.send(one.way, one.offset,
                      std::string_view(wire.of(one.way)).substr(one.offset, one.length)));
    }
    (void)flow.fin(direction::toServer);
    (void)flow.fin(direction::toClient);
    return frames;
}

/** The frame that holds byte `offset` of `way`'s stream, the first one written. */
uint64_t frameOf(const std::vector<segment>& segments, const std::vector<uint64_t>& frames,
                 direction way, uint64_t offset)
{
    for (size_t index = 0; index < segments.size(); ++index) {
        const segment& one = segments[index];
        if (one.way == way && offset >= one.offset && offset < one.offset + one.length) {
            return frames[index];
        }
    }
    return 0;
}

class decodeWrittenTest : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        streamed = std::make_unique<recordedSession>(recordSession({"--cipher", "aes128"}, 11));
        raw = std::make_unique<recordedSession>(
            recordSession({"--raw", "--linger", "1", "--hash", "sha256-128"}, 21));
    }

    static void TearDownTestSuite()
    {
        streamed.reset();
        raw.reset();
    }

    void SetUp() override
    {
        writeFile(psk, kSecret);
        writeFile(otherPsk, kOtherSecret);
        std::filesystem::create_directories(out);
    }

    /** Writes the streamed session as one connection, its segments as `arrange` leaves them. */
    std::vector<uint64_t>
    writeStreamed(const std::function<void(std::vector<segment>&, streams&)>& arrange = {},
                  const captureFormat& format = {}, flowSetup setup = {})
    {
        captureWriter capture(file, format);
        tcpFlow flow(capture, std::move(setup));
        (void)flow.handshake();
        wire = streamsOf(*streamed);
        segments = segmentsOf(*streamed);
        if (arrange) {
            arrange(segments, wire);
        }
        return writeSegments(flow, wire, segments);
    }

    runResult decode(const std::vector<std::string>& extra = {"--stream"},
                     const std::string& secret = "")
    {
        std::vector<std::string> args{
            "decode", file, "--psk-file", secret.empty() ? psk : secret, "--payloads", out};
        args.insert(args.end(), extra.begin(), extra.end());
        return runVeltrix(args);
    }

    /** Both payload files of connection `id` hold what `session`'s ends sent. */
    void expectPayloads(const recordedSession& session, int id = 1) const
    {
        const std::string base = out + "/" + std::to_string(id);
        EXPECT_TRUE(readFile(base + ".client") == session.fromClient)
            << readFile(base + ".client").size() << " of " << session.fromClient.size();
        EXPECT_TRUE(readFile(base + ".server") == session.fromServer)
            << readFile(base + ".server").size() << " of " << session.fromServer.size();
    }

    static std::unique_ptr<recordedSession> streamed;
    static std::unique_ptr<recordedSession> raw;
    scratchDir dir;
    std::string psk = dir.file("psk");
    std::string otherPsk = dir.file("other.psk");
    std::string file = dir.file("written.pcap");
    std::string out = dir.file("payloads");
    streams wire;
    std::vector<segment> segments;
};

std::unique_ptr<recordedSession> decodeWrittenTest::streamed;
std::unique_ptr<recordedSession> decodeWrittenTest::raw;

TEST_F(decodeWrittenTest, EveryFramingGivesBackWhatBothEndsSent)
{
    struct framing
    {
        const char* name;
        captureFormat format;
        flowSetup setup;
    };

    flowSetup ipv6;
    ipv6.client = {"fd00::1", 40000};
    ipv6.server = {"fd00::2", 5000};
    ipv6.ipExtras = true;
    const framing framings[] = {
        {"Ethernet, IPv4", {}, {}},
        {"Linux cooked v2, IPv6", {DLT_LINUX_SLL2, 262144, false, false, 0}, ipv6},
        {"pcapng, raw IP, sequence numbers wrapping",
         {DLT_RAW, 262144, true, false, 0},
         {{"10.0.0.1", 40000}, {"10.0.0.2", 5000}, 0xFFFFF000U, 0xFFFFFFF0U, false}},
    };
    for (const framing& one : framings) {
        SCOPED_TRACE(one.name);
        (void)writeStreamed({}, one.format, one.setup);
        const runResult run = decode();
        EXPECT_EQ(run.status, 0) << run.out << run.err;
        EXPECT_TRUE(contains(run.out, "handshake: version 1, cipher aes128, hash md5"));
        expectPayloads(*streamed);
    }
}

TEST_F(decodeWrittenTest, ReorderedRepeatedAndOverlappingSegmentsAreTakenOnce)
{
    (void)writeStreamed([](std::vector<segment>& all, streams&) {
        std::vector<segment> shuffled;
        for (size_t index = 0; index < all.size(); ++index) {
            const segment& one = all[index];
            if (index % 7 == 3 && index + 1 < all.size()) {
                shuffled.push_back(all[index + 1]); // the next one first
                shuffled.push_back(one);
                ++index;
                continue;
            }
            shuffled.push_back(one);
            if (index % 5 == 0) {
                shuffled.push_back(one); // a retransmission
            }
            if (index % 9 == 4 && one.length > 200) {
                // A later segment that covers the second half of this one and more.
                shuffled.push_back({one.way, one.offset + one.length / 2, one.length / 2});
            }
        }
        all = shuffled;
    });
    const runResult run = decode();
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    expectPayloads(*streamed);
}

TEST_F(decodeWrittenTest, ALostSegmentIsReportedAsLostAndNotAsAnAlteredPacket)
{
    uint64_t lostAt = 0;
    size_t lostLength = 0;
    (void)writeStreamed([&](std::vector<segment>& all, streams&) {
        // The middle one of the server's segments: the ends interleave differently from run to
        // run, so the server's data may come early or late in the whole.
        std::vector<size_t> server;
        for (size_t index = 0; index < all.size(); ++index) {
            if (all[index].way == direction::toClient) {
                server.push_back(index);
            }
        }
        ASSERT_GE(server.size(), 5U);
        const size_t index = server[server.size() / 2];
        lostAt = all[index].offset;
        lostLength = all[index].length;
        all.erase(all.begin() + static_cast<std::ptrdiff_t>(index));
    });
    ASSERT_NE(lostLength, 0U);
    const runResult run = decode();
    EXPECT_EQ(run.status, 1) << run.out;
    EXPECT_TRUE(contains(run.out, "the capture lost " + std::to_string(lostLength) +
                                      " bytes at offset " + std::to_string(lostAt) +
                                      " of the server's stream"));
    EXPECT_FALSE(contains(run.out, "does not match"));
    // The other direction is whole.
    EXPECT_TRUE(readFile(out + "/1.client") == streamed->fromClient);
}

TEST_F(decodeWrittenTest, AFlippedByteNamesThePacketItsFrameAndWhatFailed)
{
    // The client's first packet follows its 32 handshake bytes: a 48-byte header, then a body
    // of one block (the stream protocol's first packet).
    struct flip
    {
        uint64_t offset;
        uint64_t lastByte; ///< the packet part that fails ends here
        const char* failure;
    };

    const flip flips[] = {{32 + 5, 32 + 47, "header digest does not match"},
                          {32 + 48 + 3, 32 + 63, "body digest does not match"}};
    for (const flip& one : flips) {
        SCOPED_TRACE(one.failure);
        const std::vector<uint64_t> frames =
            writeStreamed([&](std::vector<segment>&, streams& bytes) {
                bytes.of(direction::toServer)[one.offset] ^= 0x20;
            });
        const uint64_t frame = frameOf(segments, frames, direction::toServer, one.lastByte);
        const runResult run = decode();
        EXPECT_EQ(run.status, 1) << run.out;
        EXPECT_TRUE(contains(
            run.out, "client>server #1 frame " + std::to_string(frame) + ": " + one.failure +
                         ": the data was altered, lost or reordered at or before frame " +
                         std::to_string(frame)));
        EXPECT_TRUE(contains(run.out, "decoding stopped: " + std::string(one.failure)));
        EXPECT_TRUE(readFile(out + "/1.server") == streamed->fromServer);
    }
}

TEST_F(decodeWrittenTest, AConnectionWhoseStartIsMissingIsReportedAndSkipped)
{
    {
        captureWriter capture(file);
        tcpFlow flow(capture, {});
        wire = streamsOf(*streamed);
        segments = segmentsOf(*streamed);
        // The capture begins after the handshake and the first packets.
        segments.erase(segments.begin(), segments.begin() + 6);
        (void)writeSegments(flow, wire, segments);
    }
    const runResult run = decode();
    EXPECT_EQ(run.status, 1) << run.out;
    EXPECT_TRUE(contains(run.out, ": the start of this connection is not in the capture; skipped"));
    EXPECT_FALSE(contains(run.out, "handshake:"));
}

TEST_F(decodeWrittenTest, InterleavedConnectionsAreNumberedInTheOrderTheyStart)
{
    {
        captureWriter capture(file);
        flowSetup second;
        second.client = {"10.0.0.3", 40001};
        second.server = {"10.0.0.2", 6000};
        tcpFlow first(capture, {});
        tcpFlow other(capture, second);
        (void)first.handshake();
        (void)other.handshake();
        streams wires[2] = {streamsOf(*streamed), streamsOf(*raw)};
        const std::vector<segment> lists[2] = {segmentsOf(*streamed), segmentsOf(*raw)};
        tcpFlow* flows[2] = {&first, &other};
        for (size_t index = 0; index < std::max(lists[0].size(), lists[1].size()); ++index) {
            for (int which = 0; which < 2; ++which) {
                if (index < lists[which].size()) {
                    const segment& one = lists[which][index];
                    (void)flows[which]->send(
                        one.way, one.offset,
                        std::string_view(wires[which].of(one.way)).substr(one.offset, one.length));
                }
            }
        }
        for (tcpFlow* flow : flows) {
            (void)flow->fin(direction::toServer);
            (void)flow->fin(direction::toClient);
        }
    }
    // Connection 1 carries the stream protocol, 2 bare payloads: each decodes with its mode,
    // and --port picks one.
    runResult run = decode({"--stream", "--port", "5000"});
    EXPECT_EQ(run.status, 0) << run.out;
    expectPayloads(*streamed, 1);
    EXPECT_FALSE(contains(run.out, "conn 2"));
    run = decode({"--port", "6000"});
    EXPECT_EQ(run.status, 0) << run.out;
    EXPECT_TRUE(contains(run.out, "conn 1 handshake: version 1, cipher aes256, hash sha256-128"));
    expectPayloads(*raw, 1);
    run = decode({});
    EXPECT_EQ(run.status, 0) << run.out;
    EXPECT_TRUE(contains(run.out, "conn 2 start"));
    expectPayloads(*raw, 2);
}

TEST_F(decodeWrittenTest, TheSecretIsFoundAmongSeveralAndAWrongOneIsNamedAsSuch)
{
    (void)writeStreamed();
    runResult run = decode({"--stream"}, otherPsk);
    EXPECT_EQ(run.status, 1) << run.out;
    EXPECT_TRUE(contains(run.out, "the handshake does not verify with any secret, cipher and hash "
                                  "tried: the secret, cipher or hash differs from the ends'"));
    run = runVeltrix({"decode", file, "--psk-file", otherPsk, "--psk-file", psk, "--stream"});
    EXPECT_EQ(run.status, 0) << run.out;
    EXPECT_TRUE(contains(run.out, "cipher aes128, hash md5, secret " + psk + ";"));
    // A cipher other than the ends' is a wrong guess too.
    run = decode({"--stream", "--cipher", "aes256"});
    EXPECT_EQ(run.status, 1) << run.out;
}

TEST_F(decodeWrittenTest, AHandshakeTheServerRefusedSaysWhoseAnswerFailed)
{
    const recordedSession refused = recordSession({}, 31, false);
    {
        captureWriter capture(file);
        tcpFlow flow(capture, {});
        (void)flow.handshake();
        streams bytes = streamsOf(refused);
        (void)writeSegments(flow, bytes, segmentsOf(refused));
    }
    runResult run = decode({}, psk);
    EXPECT_EQ(run.status, 1) << run.out;
    EXPECT_TRUE(contains(run.out,
                         "the handshake failed: the server sent 32 of its 48 bytes, the client "
                         "32 of its 32; the client's answer does not verify with any secret, "
                         "cipher and hash tried"));
    run = decode({}, otherPsk);
    EXPECT_EQ(run.status, 1) << run.out;
    EXPECT_TRUE(
        contains(run.out, "the handshake did not finish: the server sent 32 of its 48 bytes, the "
                          "client 32 of its 32; the client's answer verifies with cipher "
                          "aes256, hash md5, secret " +
                              otherPsk));
}

TEST_F(decodeWrittenTest, AConnectionOfAnotherProtocolIsNamedAsSuch)
{
    {
        captureWriter capture(file);
        tcpFlow flow(capture, {});
        (void)flow.handshake();
        const std::string request = "GET / HTTP/1.1\r\nHost: device\r\n\r\n";
        (void)flow.send(direction::toServer, 0, request);
        (void)flow.send(direction::toClient, 0,
                        "HTTP/1.1 200 OK\r\n\r\nhello, this is a web server");
        (void)flow.fin(direction::toServer);
        (void)flow.fin(direction::toClient);
    }
    const runResult run = decode();
    EXPECT_EQ(run.status, 1) << run.out;
    EXPECT_TRUE(
        contains(run.out, "the client is no veltrix end: it sent plain text \"GET / HTTP/1.1"));
}

TEST_F(decodeWrittenTest, ATruncatedFileIsDecodedAsFarAsItGoes)
{
    (void)writeStreamed();
    const std::string whole = readFile(file);
    writeFile(file, whole.substr(0, whole.size() / 2 + 7));
    const runResult run = decode();
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_TRUE(contains(run.out, "the capture is truncated: "));
    EXPECT_TRUE(contains(run.out, "cut off by the capture's end"));
    const std::string client = readFile(out + "/1.client");
    EXPECT_GT(client.size(), 0U);
    EXPECT_TRUE(streamed->fromClient.compare(0, client.size(), client) == 0);
}

TEST_F(decodeWrittenTest, BadUseIsAUsageErrorAndABadFileAOneLineFailure)
{
    (void)writeStreamed();

    struct refusal
    {
        std::vector<std::string> args;
        int status;
        const char* says;
    };

    writeFile(dir.file("text"), "not a capture at all, just some text\n");
    const refusal refusals[] = {
        {{"decode", file}, 2, "--psk-file is required"},
        {{"decode", file, "--psk-file", psk, "--cipher", "rot13"}, 2, "unknown cipher"},
        {{"decode", file, "--psk-file", psk, "--port", "0"}, 2, "--port"},
        {{"decode", dir.file("text"), "--psk-file", psk},
         1,
         "veltrix decode: cannot read the capture"},
        {{"decode", file, "--psk-file", psk, "--payloads", dir.file("none")},
         1,
         "is not a directory"},
    };
    for (const refusal& one : refusals) {
        const runResult run = runVeltrix(one.args);
        EXPECT_EQ(run.status, one.status) << run.err;
        EXPECT_TRUE(contains(run.err, one.says));
    }
}

} // namespace
