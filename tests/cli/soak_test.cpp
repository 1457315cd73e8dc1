// One veltrix tunnel --server over many sessions and one long stream: a thousand sessions one
// after the other leave the tunnel and its workers with the descriptors and about the memory they
// had, and a gibibyte through one connection arrives byte for byte.
#include "cliRun.h"
#include "streamPeer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>
#include <thread>

using namespace vxclitest;

namespace {

using steadyClock = std::chrono::steady_clock;

/** A whole session with the tunnel in the stream protocol: the handshake, a data cell that the
 *  echo service sends back, both ends of the stream, the disconnect command. */
bool session(vxtest::testFrame& frame, int port, const std::string& secret, int round,
             std::string& why)
{
    streamPeer peer(frame);
    const std::string data = "round " + std::to_string(round); // fits the first, 1-block packet
    std::string back;
    receivedCell end;
    const bool done = peer.connect(port, secret) && peer.sendData(data) &&
                      peer.receiveData(data.size(), back) && peer.sendEnd() && peer.receive(end) &&
                      end.kind == 1 && peer.sendDisconnect();
    why = peer.problem();
    return done && back == data;
}

/** Waits until the tunnel logged `count` connections closed normally; the count it saw. */
size_t awaitClosed(const backgroundRun& tunnel, size_t count)
{
    size_t closed = 0;
    for (int wait = 0; wait < 12000 && closed < count; ++wait) {
        const std::string log = tunnel.errorText();
        closed = 0;
        for (size_t at = 0; (at = log.find(": closed after ", at)) != std::string::npos; ++at) {
            ++closed;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(closed < count ? 10 : 0));
    }
    return closed;
}

TEST(soakTest, AThousandSessionsLeaveTheTunnelAndItsWorkersAsTheyWere)
{
    vxtest::ensurePlugin();
    vxtest::testFrame frame;
    const scratchDir dir;
    const std::string secret = "a secret for a thousand sessions";
    writeFile(dir.file("psk"), secret);
    loopbackService service{echoBytes};
    const int port = freePort();
    const auto tunnel =
        startTunnel("--server", port, service.port, dir.file("psk"), {"--workers", "2"});
    const auto sessions = [&](int from, int to) {
        for (int round = from; round < to; ++round) {
            std::string why;
            if (!session(frame, port, secret, round, why)) {
                ADD_FAILURE() << "session " << round << ": " << why << "\n" << tunnel->errorText();
                return false;
            }
        }
        return true;
    };
    ASSERT_TRUE(sessions(0, 20)); // warm-up
    ASSERT_EQ(awaitClosed(*tunnel, 20), 20U);
    const std::vector<pid_t> workers = childrenOf(tunnel->pid);
    EXPECT_FALSE(workers.empty());
    const processFigures before = figuresOfTree(tunnel->pid);
    const auto start = steadyClock::now();
    EXPECT_TRUE(sessions(20, 1020));
    EXPECT_EQ(awaitClosed(*tunnel, 1020), 1020U);
    const double seconds = std::chrono::duration<double>(steadyClock::now() - start).count();
    const processFigures after = figuresOfTree(tunnel->pid);
    std::cout << "1000 sessions in " << seconds << " s; tunnel and workers: " << before.descriptors
              << " descriptors and " << before.anonKiB << " KiB anonymous before, "
              << after.descriptors << " and " << after.anonKiB << " KiB after\n";
    EXPECT_TRUE(running(tunnel->pid));
    EXPECT_EQ(childrenOf(tunnel->pid), workers) << "a worker ended and was replaced";
    EXPECT_EQ(after.descriptors, before.descriptors);
    if (!kSanitized) {
        EXPECT_LT(after.anonKiB - before.anonKiB, 1024);
    }
}

TEST(soakTest, AGibibyteThroughOneConnectionArrivesExact)
{
    constexpr uint64_t kSize = uint64_t{1} << 30U;
    const scratchDir dir;
    writeFile(dir.file("psk"), "a secret for a long stream");
    {
        // On disk, never whole in memory; a file gives cat whole reads, so whole cells.
        FILE* input = std::fopen(dir.file("input").c_str(), "wb");
        ASSERT_NE(input, nullptr);
        patternStream source(11);
        std::vector<char> chunk(1 << 20);
        for (uint64_t at = 0; at < kSize; at += chunk.size()) {
            source.fill(chunk.data(), chunk.size());
            ASSERT_EQ(std::fwrite(chunk.data(), 1, chunk.size(), input), chunk.size());
        }
        ASSERT_EQ(std::fclose(input), 0);
    }
    std::atomic<uint64_t> received{0};
    std::atomic<bool> exact{false};
    loopbackService sink{[&](int fd) {
        patternStream expected(11);
        std::vector<char> chunk(1 << 16);
        std::vector<char> wanted(chunk.size());
        uint64_t total = 0;
        bool same = true;
        ssize_t got = 0;
        while ((got = recv(fd, chunk.data(), chunk.size(), 0)) > 0) {
            expected.fill(wanted.data(), static_cast<size_t>(got));
            same = same && std::equal(chunk.begin(), chunk.begin() + got, wanted.begin());
            total += static_cast<uint64_t>(got);
        }
        received = total;
        exact = same;
        (void)close(fd);
    }};
    const int port = freePort();
    const auto tunnel = startTunnel("--server", port, sink.port, dir.file("psk"));
    const auto start = steadyClock::now();
    backgroundRun cat(
        {veltrixPath(), "cat", address(port), "--psk-file", dir.file("psk"), "--stats"},
        dir.file("input"), dir.file("output"));
    EXPECT_EQ(cat.wait(1500), 0) << cat.errorText();
    const double seconds = std::chrono::duration<double>(steadyClock::now() - start).count();
    EXPECT_EQ(received, kSize);
    EXPECT_TRUE(exact);
    EXPECT_EQ(readFile(dir.file("output")), "");

    std::cout << "1 GiB in " << seconds << " s, " << 1024 / seconds << " MiB/s\n"
              << cat.errorText();
}

} // namespace
