// The plain socket's data path over a socket pair: whole blocks or nothing, the bounds, a peer
// that closes, a short block, the first-readiness time-out and the wake-up pipe. Its resolver,
// connect and bind failures, the node name, the dump and kept options. The encrypted socket on a
// socket pair: mode names, command packets and the counters.

#include "vxNetSocket.h"

#include "vxLoopback.h"
#include "vxTest.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using veltrix::vxBytes;
using veltrix::vxNetSocket;
using vxtest::filled;
using vxtest::testFrame;

/** A socket opened on one end of a socket pair; `peer` is the other end's descriptor. */
class vxNetSocketTest : public vxtest::vxTest
{
protected:
    void SetUp() override
    {
        vxtest::vxTest::SetUp();
        int fds[2] = {-1, -1};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        ASSERT_TRUE(frame.openChild(socket, true));
        socket.sockFd = fds[0];
        peer = fds[1];
        closeAtEnd = {&socket};
    }

    void TearDown() override
    {
        vxtest::vxTest::TearDown();
        if (peer != -1) {
            (void)close(peer);
        }
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

/** Raw bytes written straight into `from`'s descriptor, outside the protocol. */
void peerSends(const vxNetSocket& from, const vxBytes& data)
{
    ASSERT_EQ(write(from.sockFd, data.bytes.data(), data.bytes.size()),
              static_cast<ssize_t>(data.bytes.size()));
}

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
    EXPECT_FAILS_WITH(socket.RecvPlaintext(1, got), vxtest::kExpectedOpen);
    veltrix::vxBase::lvxClearLastError();
    EXPECT_FAILS_WITH(socket.SendPlaintext(got), vxtest::kExpectedOpen);
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

/** A closed socket of its own, opened by each case as it needs. */
class vxNetSocketSetupTest : public vxtest::vxTest
{
protected:
    void SetUp() override
    {
        vxtest::vxTest::SetUp();
        closeAtEnd = {&fresh, &other};
    }

    vxNetSocket fresh;
    vxNetSocket other;
};

TEST_F(vxNetSocketSetupTest, OnlyANumericAddressResolvesAndOnlyAfterThePort)
{
    EXPECT_FAILS_WITH(fresh.setAddress("127.0.0.1"), "The port must be set before the address.");
    veltrix::vxBase::lvxClearLastError();
    ASSERT_TRUE(fresh.setPort("4000"));
    EXPECT_FAILS_WITH(fresh.setAddress("localhost"),
                      std::string("Socket error: ") + gai_strerror(EAI_NONAME));
    EXPECT_TRUE(fresh.soAddress.empty()) << "kept only once resolved";
    veltrix::vxBase::lvxClearLastError();
    for (const auto& [address, family] :
         std::vector<std::pair<std::string, int>>{{"10.0.0.7", AF_INET}, {"::1", AF_INET6}}) {
        ASSERT_TRUE(fresh.setAddress(address));
        EXPECT_EQ(fresh.soAddress, address);
        EXPECT_EQ(fresh.aitop->ai_family, family);
        EXPECT_EQ(fresh.aitop->ai_socktype, SOCK_STREAM);
    }
}

TEST_F(vxNetSocketSetupTest, SystemCallFailuresCarryTheirErrnoText)
{
    ASSERT_TRUE(frame.openChild(fresh, false));
    EXPECT_FAILS_WITH(fresh.Connect(), "Address is not set.");
    veltrix::vxBase::lvxClearLastError();
    EXPECT_FAILS_WITH(fresh.setSockOpt(SO_KEEPALIVE, true),
                      std::string("setsockopt failed: ") + strerror(EBADF));
    veltrix::vxBase::lvxClearLastError();

    // A bound but not listening socket holds a port nobody answers on.
    ASSERT_TRUE(frame.openChild(other, true) && other.setPort("0") &&
                other.setAddress("127.0.0.1"));
    other.sockFd = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(bind(other.sockFd, other.aitop->ai_addr, other.aitop->ai_addrlen), 0);
    const std::string closedPort = vxtest::boundPort(other.sockFd);
    ASSERT_TRUE(fresh.setPort(closedPort) && fresh.setAddress("127.0.0.1"));
    EXPECT_FAILS_WITH(fresh.Connect(), std::string("connect() failed: ") + strerror(ECONNREFUSED));
    veltrix::vxBase::lvxClearLastError();
    testFrame::closeExpected(fresh);

    // Two listeners on one port: the second bind fails.
    ASSERT_TRUE(frame.openChild(fresh, true) && fresh.setPort(closedPort) &&
                fresh.setAddress("127.0.0.1"));
    ASSERT_EQ(listen(other.sockFd, 1), 0);
    EXPECT_FAILS_WITH(fresh.BindAndListen(), std::string("bind() failed: ") + strerror(EADDRINUSE));
}

TEST_F(vxNetSocketSetupTest, BindingNeedsAPortAndAnAddress)
{
    ASSERT_TRUE(frame.openChild(fresh, true));
    EXPECT_FAILS_WITH(fresh.BindAndListen(), "Port is not set.");
    veltrix::vxBase::lvxClearLastError();
    ASSERT_TRUE(fresh.setPort("0"));
    EXPECT_FAILS_WITH(fresh.BindAndListen(), "Address is not set.");
}

TEST_F(vxNetSocketSetupTest, AcceptWithNothingPendingIsQuietAndTheNodeNameIsDottedDecimal)
{
    ASSERT_TRUE(frame.openChild(fresh, true) && fresh.setPort("0") &&
                fresh.setAddress("127.0.0.1") && fresh.BindAndListen() &&
                frame.openChild(other, true));
    EXPECT_FALSE(fresh.Accept(other));
    EXPECT_QUIET();
    EXPECT_EQ(other.sockFd, -1);

    sockaddr_in four{};
    four.sin_family = AF_INET;
    four.sin_addr.s_addr = htonl(0x0A000007);
    four.sin_port = htons(99);
    EXPECT_TRUE(other.setNodeName(four));
    EXPECT_EQ(other.nodeName, "10.0.0.7");
    sockaddr_in6 six{};
    EXPECT_FALSE(other.setNodeName(six));
    EXPECT_EQ(other.nodeName, "Unimplmeneted ipv6 name");
    EXPECT_QUIET();
}

TEST_F(vxNetSocketSetupTest, TheDumpWritesEveryFieldOnItsOwnLine)
{
    ASSERT_TRUE(frame.openChild(fresh, true) && fresh.setPort("4000") &&
                fresh.setAddress("10.0.0.7") && fresh.setSecret("s3") &&
                fresh.setKeyExchangeMode(2));
    std::cout << std::boolalpha << std::hex; // the caller's stream flags change nothing
    testing::internal::CaptureStdout();
    EXPECT_TRUE(fresh.dumpSocketInfo());
    const std::string dump = testing::internal::GetCapturedStdout();
    std::cout << std::noboolalpha << std::dec;
    // sockaddr_in: family 2 (little-endian here), port 4000, 10.0.0.7, eight zero bytes.
    EXPECT_EQ(dump, "origin: 1\ndoDisconnect: 0\nsoMode: \x02\nsockFd: -1\nconnectTimeout: 0\n"
                    "wakeupFd: 0\nsoPort: 4000\nsoSecret: s3\nsoAddress: 10.0.0.7\nnodeName: \n"
                    "soTimeout: 0\naitop info: family: 2 socktype: 1 protocol: 6\n"
                    "aitop info: ai_addr: 02000FA00A0000070000000000000000 ai_addrlen: 16\n");
}

TEST_F(vxNetSocketSetupTest, AKeptOptionIsACopyAppliedLater)
{
    veltrix::vxNetSockoptProperties option;
    ASSERT_TRUE(frame.openChild(option));
    int on = 1;
    ASSERT_TRUE(option.Set(IPPROTO_TCP, TCP_NODELAY, &on, sizeof on));
    on = 0; // the option holds its own copy
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_TRUE(option.Apply(fd));
    int value = 0;
    socklen_t length = sizeof value;
    ASSERT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &value, &length), 0);
    EXPECT_EQ(value, 1);
    EXPECT_FALSE(option.Apply(-1));
    ASSERT_TRUE(option.Set(SOL_SOCKET, SO_KEEPALIVE, nullptr, 0));
    EXPECT_EQ(option.value, nullptr);
    EXPECT_FALSE(option.Apply(fd)) << "no value: the kernel refuses";
    (void)close(fd);
    testFrame::closeExpected(option);
}

/** Two encrypted sockets on a socket pair, opened with opposite sides and keyed alike. */
class vxNetEncryptedSocketTest : public vxtest::vxCryptoTest
{
protected:
    void SetUp() override
    {
        vxtest::vxCryptoTest::SetUp();
        closeAtEnd = {&serverEnd, &clientEnd, &serverPlain, &clientPlain};
        ASSERT_TRUE(vxtest::openOnSocketPair(frame, serverPlain, clientPlain));
    }

    bool openBoth(const std::string& cipher)
    {
        const vxBytes seed0 = filled(16, 0x11);
        const vxBytes seed1 = filled(16, 0x22);
        return frame.openChild(serverEnd, cipher, &serverPlain) &&
               frame.openChild(clientEnd, cipher, &clientPlain) &&
               serverEnd.keys.ReSeed(seed0, seed1) && clientEnd.keys.ReSeed(seed0, seed1);
    }

    vxNetSocket serverPlain;
    vxNetSocket clientPlain;
    veltrix::vxNetEncryptedSocket serverEnd;
    veltrix::vxNetEncryptedSocket clientEnd;
};

TEST_F(vxNetEncryptedSocketTest, ModeNamesMapToTheirNumbersAndUnknownNamesAreQuiet)
{
    struct modeCase
    {
        const char* cipher;
        const char* hash;
        uint32_t cipherNumber;
        uint32_t hashNumber;
    };

    const modeCase known[] = {{"none", "md5", 1, 1},      {"aes128", "sha1", 2, 2},
                              {"aes192", "sha256", 3, 3}, {"aes256", "sha512", 4, 4},
                              {"aes256", "sha384", 4, 5}, {"aes128", "sha256-128", 2, 19}};
    // An encrypted socket's ciphers cannot be opened twice: one object per opening.
    for (const modeCase& mode : known) {
        veltrix::vxNetEncryptedSocket channel;
        ASSERT_TRUE(frame.openChild(channel, mode.cipher, mode.hash, &serverPlain))
            << mode.hash << vxtest::dumpTrail();
        uint32_t number = 0;
        EXPECT_TRUE(channel.cipherId.GetValue(number) && number == mode.cipherNumber);
        EXPECT_TRUE(channel.hashId.GetValue(number) && number == mode.hashNumber);
        testFrame::closeExpected(channel);
    }
    ASSERT_TRUE(frame.openChild(serverEnd, "aes192", &serverPlain));
    uint32_t number = 0;
    EXPECT_TRUE(serverEnd.hashId.GetValue(number) && number == 1) << "md5 by default";
    EXPECT_QUIET();

    for (const auto& [cipher, hash] : std::vector<std::pair<const char*, const char*>>{
             {"AES256", "md5"}, {"aes256", "sha-256"}, {"aes", "md5"}, {"none", ""}}) {
        EXPECT_FALSE(clientEnd.Open(cipher, hash, &clientPlain)) << cipher << " " << hash;
    }
    EXPECT_QUIET();
    testFrame::closeExpected(serverEnd);
    EXPECT_NE(serverPlain.sockFd, -1) << "the plain socket is borrowed, never closed";
}

TEST_F(vxNetEncryptedSocketTest, ARequestCodeIsOnlyReported)
{
    ASSERT_TRUE(openBoth("none"));
    peerSends(clientPlain, filled(16, 0));
    testing::internal::CaptureStdout();
    EXPECT_TRUE(serverEnd.ProcessCommandPacket(0xC0DE0011U)); // (0x11 - 15) = 2
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Process a key re-exchange request.\n");
    EXPECT_FALSE(serverPlain.doDisconnect);
    EXPECT_QUIET();
}

TEST_F(vxNetEncryptedSocketTest, CodesAboveSixteenArriveUnknown)
{
    ASSERT_TRUE(openBoth("aes256"));
    // Sent as 0xC0DE0014, read back rounded up to 0xC0DE0020: code 17.
    ASSERT_TRUE(clientEnd.header.CreateCmdMessage(20, clientEnd.keys, &clientPlain));
    peerSends(clientPlain, filled(16, 0));
    testing::internal::CaptureStdout();
    vxBytes got;
    EXPECT_FAILS_WITH(serverEnd.RecvEncrypted(got), "Boolean return value failed.");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "fail\n");
}

} // namespace
