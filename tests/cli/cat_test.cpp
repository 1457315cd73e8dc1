// veltrix cat both ways with files compared byte for byte, in the stream protocol and with bare
// payloads, and the statistics and progress output.
#include "cliRun.h"
#include "streamPeer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

using namespace vxclitest;

namespace {

class catTest : public testing::Test
{
protected:
    void SetUp() override { writeFile(psk, "a secret for cat"); }

    /** Starts `cat --listen` with `input` on its standard input; its output goes to "heard". */
    std::unique_ptr<backgroundRun> listen(const std::string& input,
                                          const std::vector<std::string>& extra = {})
    {
        writeFile(dir.file("spoken"), input);
        std::vector<std::string> argv{veltrixPath(), "cat", "--listen", peer, "--psk-file", psk};
        argv.insert(argv.end(), extra.begin(), extra.end());
        auto run = std::make_unique<backgroundRun>(argv, dir.file("spoken"), dir.file("heard"));
        // The listener is ready once its port accepts; the client retries until then.
        return run;
    }

    /** Runs the connecting cat with `input`, retrying while the listener is not yet up. */
    runResult connect(const std::string& input, const std::vector<std::string>& extra = {})
    {
        std::vector<std::string> args{"cat", peer, "--psk-file", psk};
        args.insert(args.end(), extra.begin(), extra.end());
        runResult run;
        for (int attempt = 0; attempt < 100; ++attempt) {
            run = runVeltrix(args, input, 120);
            if (run.err.find("Connection refused") == std::string::npos) {
                break;
            }
            usleep(50000);
        }
        return run;
    }

    scratchDir dir;
    std::string psk = dir.file("psk");
    std::string peer = "127.0.0.1:" + std::to_string(freePort());
};

TEST_F(catTest, ASlowStandardOutputIsNotChargedToThePeer)
{
    // The reader of the client's output starts 3 s late: the relay holds its reads from the
    // peer meanwhile, and a receive limit of 1 s must not count that time against the peer.
    const std::string fromListener = pattern(2 << 20, 3);
    const auto listener = listen(fromListener);
    ASSERT_TRUE(listeningWithin(std::stoi(peer.substr(peer.rfind(':') + 1)), 30));
    const std::string slow = dir.file("slow");
    ASSERT_EQ(mkfifo(slow.c_str(), 0600), 0);
    writeFile(dir.file("nothing"), "");
    std::string heard;
    std::thread reader([&] {
        const int fd = open(slow.c_str(), O_RDONLY);
        std::this_thread::sleep_for(std::chrono::seconds(3));
        char chunk[65536];
        ssize_t got = 0;
        while (fd >= 0 && (got = read(fd, chunk, sizeof chunk)) > 0) {
            heard.append(chunk, static_cast<size_t>(got));
        }
        (void)close(fd);
    });
    backgroundRun client({veltrixPath(), "cat", peer, "--psk-file", psk, "--receive-timeout", "1"},
                         dir.file("nothing"), slow);
    EXPECT_EQ(client.wait(120), 0) << client.errorText();
    reader.join();
    EXPECT_EQ(listener->wait(60), 0) << listener->errorText();
    EXPECT_TRUE(heard == fromListener) << heard.size() << " bytes received";
}

TEST_F(catTest, BothWaysByteForByte)
{
    const std::string fromListener = pattern(3 << 20, 1);
    const std::string fromClient = pattern((5 << 20) + 17, 2);
    const auto listener = listen(fromListener);
    const runResult client = connect(fromClient);
    EXPECT_EQ(client.status, 0) << client.err;
    EXPECT_EQ(listener->wait(60), 0) << listener->errorText();
    EXPECT_TRUE(client.out == fromListener) << client.out.size() << " bytes received";
    EXPECT_TRUE(readFile(dir.file("heard")) == fromClient);
    EXPECT_EQ(client.err, "");
}

TEST_F(catTest, EmptyInputOnBothSidesEndsCleanly)
{
    const auto listener = listen("");
    const runResult client = connect("");
    EXPECT_EQ(client.status, 0) << client.err;
    EXPECT_EQ(listener->wait(30), 0) << listener->errorText();
    EXPECT_EQ(client.out, "");
    EXPECT_EQ(readFile(dir.file("heard")), "");
}

TEST_F(catTest, RawPayloadsReachTheListener)
{
    const std::string fromClient = pattern((1 << 20) + 5, 3);
    const auto listener = listen("", {"--raw"});
    const runResult client = connect(fromClient, {"--raw"});
    EXPECT_EQ(client.status, 0) << client.err;
    EXPECT_EQ(listener->wait(60), 0) << listener->errorText();
    EXPECT_TRUE(readFile(dir.file("heard")) == fromClient);
}

TEST_F(catTest, StatsAndProgressGoToStandardError)
{
    const auto listener = listen("answer");
    const runResult client = connect("question", {"--stats", "--force-progress"});
    EXPECT_EQ(client.status, 0) << client.err;
    EXPECT_EQ(listener->wait(30), 0);
    EXPECT_EQ(client.out, "answer");
    EXPECT_NE(client.err.find("8.0 B sent, 6.0 B received"), std::string::npos) << client.err;
    EXPECT_NE(client.err.find("| SentMsgs "), std::string::npos) << client.err;
}

TEST_F(catTest, WrongSecretWithOnceFailsBothEndsWithOneLine)
{
    const auto listener = listen("never sent", {"--once"});
    const std::string otherPsk = dir.file("other");
    writeFile(otherPsk, "not the same secret");
    std::vector<std::string> args{"cat", peer, "--psk-file", otherPsk};
    runResult client;
    for (int attempt = 0; attempt < 100; ++attempt) {
        client = runVeltrix(args, "never heard", 60);
        if (client.err.find("Connection refused") == std::string::npos) {
            break;
        }
        usleep(50000);
    }
    EXPECT_EQ(client.status, 1);
    EXPECT_EQ(lineCount(client.err), 1U) << client.err;
    EXPECT_EQ(client.err.rfind("veltrix cat: the handshake with " + peer + " failed: ", 0), 0U)
        << client.err;
    EXPECT_EQ(listener->wait(30), 1);
    EXPECT_EQ(lineCount(listener->errorText()), 1U) << listener->errorText();
    EXPECT_EQ(readFile(dir.file("heard")), "");
}

TEST_F(catTest, NoListenerIsOneLine)
{
    const runResult client = runVeltrix({"cat", peer, "--psk-file", psk});
    EXPECT_EQ(client.status, 1);
    EXPECT_EQ(client.err, "veltrix cat: cannot connect to " + peer + ": Connection refused\n");
}

TEST_F(catTest, StrangersAreRefusedAndTheListenerWaitsForItsPeer)
{
    const auto listener = listen("for the real peer");
    const int port = std::stoi(peer.substr(peer.rfind(':') + 1));
    ASSERT_TRUE(listeningWithin(port, 30));
    const int probe = connectLoopback(port); // a port scan: connects and goes
    ASSERT_GE(probe, 0);
    (void)close(probe);
    writeFile(dir.file("other"), "not the same secret");
    const runResult stranger = runVeltrix({"cat", peer, "--psk-file", dir.file("other")}, "x");
    EXPECT_EQ(stranger.status, 1) << stranger.err;
    const runResult client = connect("from the real peer");
    EXPECT_EQ(client.status, 0) << client.err;
    EXPECT_EQ(client.out, "for the real peer");
    EXPECT_EQ(listener->wait(30), 0) << listener->errorText();
    EXPECT_EQ(readFile(dir.file("heard")), "from the real peer");
    const std::string refused = listener->errorText();
    EXPECT_EQ(lineCount(refused), 2U) << refused;
    EXPECT_EQ(refused.rfind("veltrix cat: refused a connection: ", 0), 0U) << refused;
}

TEST_F(catTest, TheRawClientTakesThePeersAnswerBeforeItDisconnects)
{
    // The listener writes what it receives back into its own input: an echo. The client's
    // input ends long before the echo has come back.
    const std::string sent = pattern(20033, 6);
    writeFile(dir.file("sent"), sent);
    const std::string loop = dir.file("loop");
    ASSERT_EQ(mkfifo(loop.c_str(), 0600), 0);
    backgroundRun echo({"sh", "-c",
                        "exec " + veltrixCommand() + " cat --raw --listen " + peer +
                            " --psk-file " + psk + " <>" + loop + " >" + loop});
    const runResult client = connect(sent, {"--raw", "--linger", "1"});
    EXPECT_EQ(client.status, 0) << client.err;
    EXPECT_TRUE(client.out == sent) << client.out.size() << " of " << sent.size() << " bytes";
    EXPECT_EQ(echo.wait(30), 0) << echo.errorText();
}

TEST_F(catTest, ARawEndFacingAStreamEndSaysSoWithinTheReceiveLimit)
{
    const std::vector<std::string> quick{"--receive-timeout", "2"};
    {
        SCOPED_TRACE("the listener runs with --raw");
        std::vector<std::string> raw = quick;
        raw.emplace_back("--raw");
        const auto listener = listen("", raw);
        const runResult client = connect("data\n", quick);
        EXPECT_EQ(client.status, 1) << client.err;
        EXPECT_EQ(listener->wait(30), 1);
        EXPECT_NE(listener->errorText().find("the peer's packets are cells of the stream "
                                             "protocol: it runs without --raw"),
                  std::string::npos)
            << listener->errorText();
        EXPECT_EQ(readFile(dir.file("heard")), "") << "a cell written out as data";
    }
    {
        SCOPED_TRACE("the client runs with --raw");
        const auto listener = listen("", quick);
        std::vector<std::string> raw = quick;
        raw.emplace_back("--raw");
        const runResult client = connect("data\n", raw);
        EXPECT_EQ(client.status, 1) << client.err;
        EXPECT_NE(client.err.find("--raw"), std::string::npos) << client.err;
        EXPECT_EQ(listener->wait(30), 1);
        EXPECT_NE(listener->errorText().find("(if it runs with --raw: run both ends with --raw, "
                                             "or neither)"),
                  std::string::npos)
            << listener->errorText();
    }
}

/** The number after `label` in the summary of `cat --stats`; -1 without one. */
int64_t summaryValue(const std::string& text, const std::string& label)
{
    const size_t at = text.find(label);
    return at == std::string::npos ? -1 : std::stoll(text.substr(at + label.size()));
}

TEST_F(catTest, TheStatisticsSummaryAgreesOnBothEnds)
{
    for (const bool raw : {false, true}) {
        SCOPED_TRACE(raw ? "bare payloads" : "the stream protocol");
        std::vector<std::string> extra{"--stats"};
        if (raw) {
            extra.emplace_back("--raw");
        }
        const std::string fromClient = pattern(100000, 4);
        const auto listener = listen(raw ? "" : "answer", extra);
        const runResult client = connect(fromClient, extra);
        ASSERT_EQ(client.status, 0) << client.err;
        ASSERT_EQ(listener->wait(30), 0) << listener->errorText();
        const std::string heard = listener->errorText();
        EXPECT_EQ(summaryValue(client.err, "payload sent:"), 100000);
        EXPECT_EQ(summaryValue(heard, "payload received:"), 100000);
        EXPECT_EQ(summaryValue(client.err, "payload received:"), raw ? 0 : 6);
        const int64_t wire = summaryValue(client.err, "wire sent:");
        EXPECT_EQ(wire, summaryValue(heard, "wire received:"));
        EXPECT_EQ(summaryValue(heard, "wire sent:"), summaryValue(client.err, "wire received:"));
        EXPECT_GT(wire, 100000); // headers and padding
        EXPECT_LT(wire, 100000 * 102 / 100);
        EXPECT_NE(client.err.find("duration:"), std::string::npos) << client.err;
    }
}

TEST_F(catTest, ProgressShowsTheTotalOfAFileInput)
{
    const auto listener = listen("");
    writeFile(dir.file("input"), pattern(1 << 20, 5));
    ASSERT_TRUE(listeningWithin(std::stoi(peer.substr(peer.rfind(':') + 1)), 30));
    backgroundRun client({veltrixPath(), "cat", peer, "--psk-file", psk, "--force-progress"},
                         dir.file("input"));
    EXPECT_EQ(client.wait(60), 0) << client.errorText();
    EXPECT_NE(client.errorText().find("1.0 MiB of 1.0 MiB sent"), std::string::npos)
        << client.errorText();
    EXPECT_EQ(listener->wait(30), 0);
}

TEST_F(catTest, LibraryReportsNeverReachTheDataStream)
{
    // A server that accepts and closes: the library reports the short protocol version.
    loopbackService closer([](int fd) { (void)close(fd); });
    const runResult client = runVeltrix({"cat", address(closer.port), "--psk-file", psk}, "data");
    EXPECT_EQ(client.status, 1);
    EXPECT_EQ(client.out, "");
    EXPECT_NE(client.err.find("RecvProtocolVersion"), std::string::npos) << client.err;

    // An authenticated peer sends a command the library does not know.
    const auto listener = listen("");
    vxtest::ensurePlugin();
    vxtest::testFrame frame;
    streamPeer intruder(frame);
    const int port = std::stoi(peer.substr(peer.rfind(':') + 1));
    ASSERT_TRUE(listeningWithin(port, 30));
    ASSERT_TRUE(intruder.connect(port, "a secret for cat")) << intruder.problem();
    // The receiver reads 16 bytes after a command header: they fill the first packet's size.
    ASSERT_TRUE(intruder.sendRaw(intruder.sealCommand(17) + std::string(16, '\0')))
        << intruder.problem();
    EXPECT_EQ(listener->wait(30), 1);
    EXPECT_EQ(readFile(dir.file("heard")), "");
    EXPECT_NE(listener->errorText().find("fail\n"), std::string::npos) << listener->errorText();
}

} // namespace
