// The plain socket's data path over a socket pair: whole blocks or nothing, the bounds, a peer
// that closes, a short block, the first-readiness time-out and the wake-up pipe.

#include "vxNetSocket.h"

#include "vxTest.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using veltrix::vxBytes;
using veltrix::vxNetSocket;
using vxtest::testFrame;

vxBytes filled(size_t size, unsigned char value)
{
    vxBytes out;
    out.bytes.assign(size, value);
    return out;
}

/** A socket opened on one end of a socket pair; `peer` is the other end's descriptor. */
class vxNetSocketTest : public vxtest::vxTest
{
protected:
    void SetUp() override
    {
        vxtest::vxTest::SetUp();
        int fds[2] = {-1, -1};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        ASSERT_TRUE(frame.open(socket, true));
        socket.sockFd = fds[0];
        peer = fds[1];
    }

    void TearDown() override
    {
        veltrix::vxBase::lvxClearLastError();
        if (socket.opened) {
            testFrame::closeExpected(socket);
        }
        if (peer != -1) {
            (void)close(peer);
        }
        vxtest::vxTest::TearDown();
    }

    void peerWrites(const vxBytes& data)
    {
        ASSERT_EQ(write(peer, data.bytes.data(), data.bytes.size()),
                  static_cast<ssize_t>(data.bytes.size()));
    }

    vxNetSocket socket;
    int peer = -1;
};

using vxNetSocketThreadTest = vxNetSocketTest;

TEST_F(vxNetSocketTest, OpenSetsTheDefaultsAndOnlyKeyExchangeModeTwoIsAccepted)
{
    EXPECT_TRUE(socket.origin);
    EXPECT_EQ(socket.soBacklog, 10U);
    EXPECT_EQ(socket.wakeupFd, 0);
    EXPECT_NE(socket.packetBuffer, nullptr);
    EXPECT_FALSE(socket.setKeyExchangeMode(1));
    EXPECT_EQ(socket.soMode, 0);
    EXPECT_TRUE(socket.setKeyExchangeMode(2));
    EXPECT_EQ(socket.soMode, 2);
    EXPECT_QUIET();
}

TEST_F(vxNetSocketTest, BlocksUpToTheLargestPacketCrossWhole)
{
    const vxBytes largest = filled(veltrix::VX_MAX_PACKET_SIZE, 0x5C);
    std::thread writer([&] { peerWrites(largest); });
    vxBytes got;
    ASSERT_TRUE(socket.RecvPlaintext(veltrix::VX_MAX_PACKET_SIZE, got));
    writer.join();
    EXPECT_EQ(got.bytes, largest.bytes);
    EXPECT_FALSE(socket.doDisconnect);
    EXPECT_FALSE(socket.wakeupSeen);

    ASSERT_TRUE(socket.SendPlaintext(filled(3, 7)));
    unsigned char echoed[3] = {};
    ASSERT_EQ(read(peer, echoed, 3), 3);
    EXPECT_EQ(echoed[2], 7);
}

TEST_F(vxNetSocketTest, SizesOutsideOneToTheLargestPacketAreRefused)
{
    const std::vector<std::pair<uint32_t, const char*>> cases = {
        {0, "size >= 1"}, {veltrix::VX_MAX_PACKET_SIZE + 1, "size <= veltrix::VX_MAX_PACKET_SIZE"}};
    vxBytes got;
    for (const auto& [size, text] : cases) {
        EXPECT_FAILS_WITH(socket.RecvPlaintext(size, got), text);
        veltrix::vxBase::lvxClearLastError();
    }
    EXPECT_FAILS_WITH(socket.SendPlaintext(filled(veltrix::VX_MAX_PACKET_SIZE + 1, 0)),
                      "bytes.size() <= maxSize");
}

TEST_F(vxNetSocketTest, APeerThatClosesEndsTheSocketQuietly)
{
    (void)close(peer);
    peer = -1;
    vxBytes got = filled(2, 9);
    ASSERT_TRUE(socket.RecvPlaintext(16, got));
    EXPECT_TRUE(socket.doDisconnect);
    EXPECT_EQ(got.bytes, filled(2, 9).bytes) << "untouched";
    EXPECT_FALSE(socket.SendPlaintext(filled(4, 0)));
    EXPECT_QUIET();
}

TEST_F(vxNetSocketTest, AShortBlockFailsWithAnEmptyMessage)
{
    peerWrites(filled(3, 1));
    (void)shutdown(peer, SHUT_WR);
    vxBytes got;
    EXPECT_FAILS_WITH(socket.RecvPlaintext(4, got), "");
}

TEST_F(vxNetSocketTest, ASilentPeerEndsTheWaitForTheFirstByte)
{
    uint32_t seconds = 1;
    ASSERT_TRUE(socket.setTimeOut(seconds));
    vxBytes got;
    EXPECT_FAILS_WITH(socket.RecvPlaintext(16, got), "Select timeout expired.");
}

TEST_F(vxNetSocketTest, OperationsNeedAnOpenSocketAndCloseReleasesTheDescriptor)
{
    const int fd = socket.sockFd;
    testFrame::closeExpected(socket);
    EXPECT_EQ(socket.sockFd, -1);
    EXPECT_EQ(socket.packetBuffer, nullptr);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "closed";
    vxBytes got;
    EXPECT_FAILS_WITH(socket.RecvPlaintext(1, got), "Object in incorrect state:  Expected open. ");
    veltrix::vxBase::lvxClearLastError();
    EXPECT_FAILS_WITH(socket.SendPlaintext(got), "Object in incorrect state:  Expected open. ");
}

TEST_F(vxNetSocketThreadTest, AByteInTheWakeUpPipeReleasesABlockedReceive)
{
    uint32_t writeEnd = 0;
    ASSERT_TRUE(socket.createWakeupFd(writeEnd));
    bool result = false;
    vxBytes got = filled(1, 3);
    std::thread receiver([&] { result = socket.RecvPlaintext(16, got); });
    const unsigned char byte = 1;
    ASSERT_EQ(write(static_cast<int>(writeEnd), &byte, 1), 1);
    receiver.join();
    EXPECT_TRUE(result);
    EXPECT_TRUE(socket.wakeupSeen);
    EXPECT_EQ(got.bytes, filled(1, 3).bytes) << "untouched";

    // The byte was consumed: the next receive waits for data again and gets it.
    peerWrites(filled(16, 4));
    ASSERT_TRUE(socket.RecvPlaintext(16, got));
    EXPECT_FALSE(socket.wakeupSeen);
    EXPECT_EQ(got.bytes, filled(16, 4).bytes);
    (void)close(static_cast<int>(writeEnd));
    (void)close(socket.wakeupFd);
}

} // namespace
