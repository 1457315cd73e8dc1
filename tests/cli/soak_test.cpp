// One veltrix tunnel --server over many sessions and one long stream: a thousand sessions one
// after the other leave its parent with the descriptors and about the memory it had, and a
// gibibyte through one connection arrives byte for byte while cat's traffic counters pass their
// restart point on the way.
#include "cliRun.h"
#include "vxLoopback.h"

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

constexpr size_t kCell = 4096;     // the payload of every packet of the stream protocol
constexpr size_t kCellData = 4093; // the data one cell carries

/** A cell of the stream protocol: kind (0 data, 1 end), the data's length, the data, zeros. */
veltrix::vxBytes cell(unsigned char kind, const std::string& data)
{
    veltrix::vxBytes bytes;
    bytes.bytes.assign(kCell, 0);
    bytes.bytes[0] = kind;
    bytes.bytes[1] = static_cast<unsigned char>(data.size() >> 8U);
    bytes.bytes[2] = static_cast<unsigned char>(data.size() & 0xFFU);
    std::copy(data.begin(), data.end(), bytes.bytes.begin() + 3);
    return bytes;
}

/** A whole session with the tunnel, driven by the library: the handshake, a data cell that the
 *  echo service sends back, both ends of the stream, the disconnect command. */
bool session(vxtest::testFrame& frame, int port, const veltrix::vxBytes& secret, int round)
{
    veltrix::vxNetClient client;
    veltrix::vxNetEncryptedSocket& channel = client.encryptedSocket;
    const veltrix::vxBytes data = cell(0, "round " + std::to_string(round));
    const veltrix::vxBytes end = cell(1, "");
    veltrix::vxBytes back;
    uint32_t limit = 30; // seconds a receive waits: a hung tunnel fails the session
    const bool done =
        vxtest::connectOnLoopback(frame, client, std::to_string(port), "aes256", "md5") &&
        client.socket.setTimeOut(limit) && client.PerformKeyExchange(secret) &&
        channel.SendEncrypted(data) && channel.RecvEncrypted(back) && back.bytes == data.bytes &&
        channel.SendEncrypted(end) && channel.RecvEncrypted(back) && back.bytes == end.bytes &&
        client.SendClientDisconnect();
    vxtest::closeIfOpen(channel);
    vxtest::closeIfOpen(client);
    return done;
}

/** Waits until the tunnel logged `count` connections closed normally; the count it saw. */
size_t awaitClosed(const backgroundRun& tunnel, size_t count)
{
    size_t closed = 0;
    for (int wait = 0; wait < 12000 && closed < count; ++wait) {
        const std::string log = tunnel.errorText();
        closed = 0;
        for (size_t at = 0; (at = log.find(": closed\n", at)) != std::string::npos; ++at) {
            ++closed;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(closed < count ? 10 : 0));
    }
    return closed;
}

TEST(soakTest, AThousandSessionsLeaveTheTunnelParentAsItWas)
{
    vxtest::ensurePlugin();
    vxtest::testFrame frame;
    const scratchDir dir;
    writeFile(dir.file("psk"), "a secret for a thousand sessions");
    const veltrix::vxBytes secret = vxtest::bytesOf("a secret for a thousand sessions");
    loopbackService service{echoBytes};
    const int port = freePort();
    const auto tunnel = startTunnel("--server", port, service.port, dir.file("psk"));
    const auto sessions = [&](int from, int to) {
        for (int round = from; round < to; ++round) {
            if (!session(frame, port, secret, round)) {
                ADD_FAILURE() << "session " << round << "\n"
                              << vxtest::dumpTrail() << tunnel->errorText();
                return false;
            }
        }
        return true;
    };
    ASSERT_TRUE(sessions(0, 20)); // warm-up
    ASSERT_EQ(awaitClosed(*tunnel, 20), 20U);
    const processFigures before = figuresOf(tunnel->pid);
    const auto start = steadyClock::now();
    EXPECT_TRUE(sessions(20, 1020));
    EXPECT_EQ(awaitClosed(*tunnel, 1020), 1020U);
    const double seconds = std::chrono::duration<double>(steadyClock::now() - start).count();
    const processFigures after = figuresOf(tunnel->pid);
    std::cout << "1000 sessions in " << seconds << " s; tunnel parent: " << before.descriptors
              << " descriptors and " << before.rssKiB << " KiB resident before, "
              << after.descriptors << " and " << after.rssKiB << " KiB after\n";
    EXPECT_TRUE(running(tunnel->pid));
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_LT(after.rssKiB - before.rssKiB, 4096);
}

TEST(soakTest, AGibibyteThroughOneConnectionArrivesExactWhileTheCountersRestart)
{
    constexpr uint64_t kSize = uint64_t{1} << 30U;
    constexpr uint32_t kStart = 0xFFFFC000U - 100000;
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
    backgroundRun cat({veltrixPath(), "cat", address(port), "--psk-file", dir.file("psk"),
                       "--stats", "--stats-start", std::to_string(kStart)},
                      dir.file("input"), dir.file("output"));
    EXPECT_EQ(cat.wait(1500), 0) << cat.errorText();
    const double seconds = std::chrono::duration<double>(steadyClock::now() - start).count();
    EXPECT_EQ(received, kSize);
    EXPECT_TRUE(exact);
    EXPECT_EQ(readFile(dir.file("output")), "");

    std::cout << "1 GiB in " << seconds << " s, " << 1024 / seconds << " MiB/s\n"
              << cat.errorText();
    // cat sent the data cells and the end cell, and received the end cell.
    const uint64_t cells = (kSize + kCellData - 1) / kCellData + 1;
    EXPECT_GT(expectCounters(cat.errorText(), kStart, cells, 1, true), 0U);
    EXPECT_LT(statsValue(cat.errorText(), "SentMsgs"), kStart) << "the message count restarted";
    EXPECT_LT(statsValue(cat.errorText(), "SentBytes"), kStart);
}

} // namespace
