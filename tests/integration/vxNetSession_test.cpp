// Client and server over 127.0.0.1 in one process: the handshake in every cipher and digest
// mode, messages of every size both ways, digests the server cannot validate, several clients with
// disconnect and prune, the wake-up pipe, the connect time-out, the statistics and the dumps. The server's side
// of each handshake runs on a second thread; after it, both ends are driven from this one.

#include "vxLoopback.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using veltrix::vxBytes;
using veltrix::vxNetClient;
using veltrix::vxNetConnectedClient;
using veltrix::vxNetServer;
using vxtest::payload;

const uint32_t kSizes[] = {1, 15, 16, 17, 1000, 16368, 16384};

uint32_t counted(veltrix::vxNetProtocolStatsCounter& counter)
{
    uint32_t value = 0;
    EXPECT_TRUE(counter.GetIntValue(value));
    return value;
}

class vxNetSessionTest : public vxtest::loopbackTest
{
protected:
    void TearDown() override
    {
        veltrix::vxBase::lvxClearLastError();
        for (auto& extra : extraClients) {
            vxtest::closeClient(*extra);
        }
        vxtest::loopbackTest::TearDown();
    }

    /** Listens, connects `client` and runs both handshakes. */
    bool start(const std::string& cipher, const std::string& hash)
    {
        return listen(cipher, hash) && session(client, cipher, hash);
    }

    vxNetClient& another()
    {
        extraClients.push_back(std::make_unique<vxNetClient>());
        return *extraClients.back();
    }

    vxNetConnectedClient& connection(size_t index = 0)
    {
        auto entry = server.connectedClients.begin();
        std::advance(entry, index);
        return **entry;
    }

    /** Ends `end`'s session as an application should: the command, then the close. */
    void disconnect(vxNetClient& end)
    {
        ASSERT_TRUE(end.SendClientDisconnect()) << vxtest::dumpTrail();
        vxtest::closeClient(end);
    }

    std::vector<std::unique_ptr<vxNetClient>> extraClients;
};

class vxNetSessionModeTest
    : public vxNetSessionTest,
      public ::testing::WithParamInterface<std::tuple<const char*, const char*>>
{
};

TEST_P(vxNetSessionModeTest, EverySizeCrossesBothWaysAndInterleaved)
{
    const auto [cipher, hash] = GetParam();
    ASSERT_TRUE(start(cipher, hash)) << vxtest::dumpTrail();
    veltrix::vxNetEncryptedSocket& near = client.encryptedSocket;
    veltrix::vxNetEncryptedSocket& far = connection().encryptedSocket;
    vxBytes got;
    for (const uint32_t size : kSizes) {
        ASSERT_TRUE(near.SendEncrypted(payload(size, 1)) && far.RecvEncrypted(got))
            << size << vxtest::dumpTrail();
        EXPECT_EQ(got.bytes, payload(size, 1).bytes) << "client to server, " << size;
        ASSERT_TRUE(far.SendEncrypted(payload(size, 2)) && near.RecvEncrypted(got))
            << size << vxtest::dumpTrail();
        EXPECT_EQ(got.bytes, payload(size, 2).bytes) << "server to client, " << size;
    }
    // Both directions in flight at once: each end sends everything before reading anything.
    for (const uint32_t size : kSizes) {
        ASSERT_TRUE(near.SendEncrypted(payload(size, 3)) && far.SendEncrypted(payload(size, 4)));
    }
    for (const uint32_t size : kSizes) {
        ASSERT_TRUE(far.RecvEncrypted(got)) << vxtest::dumpTrail();
        EXPECT_EQ(got.bytes, payload(size, 3).bytes);
        ASSERT_TRUE(near.RecvEncrypted(got)) << vxtest::dumpTrail();
        EXPECT_EQ(got.bytes, payload(size, 4).bytes);
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, vxNetSessionModeTest,
                         ::testing::Combine(::testing::Values("none", "aes128", "aes192", "aes256"),
                                            ::testing::Values("md5", "sha256-128")),
                         [](const auto& mode) {
                             std::string name = std::string(std::get<0>(mode.param)) + "_" +
                                                std::get<1>(mode.param);
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

class vxNetSessionLongDigestTest : public vxNetSessionTest,
                                   public ::testing::WithParamInterface<const char*>
{
};

TEST_P(vxNetSessionLongDigestTest, DigestsLongerThanSixteenBytesFailTheServersValidation)
{
    EXPECT_FALSE(start("aes128", GetParam()));
    EXPECT_EQ(vxtest::firstMessage(), "( decrypted == correctResponse )");
    EXPECT_TRUE(server.connectedClients.empty());
}

INSTANTIATE_TEST_SUITE_P(Digests, vxNetSessionLongDigestTest,
                         ::testing::Values("sha1", "sha256", "sha384", "sha512"),
                         [](const auto& digest) { return std::string(digest.param); });

TEST_F(vxNetSessionTest, StatisticsCountHeadersAndBodiesSentButBodiesReceived)
{
    ASSERT_TRUE(start("aes128", "md5")) << vxtest::dumpTrail();
    vxNetConnectedClient& peer = connection();
    vxBytes got;
    for (const uint32_t size : {1U, 16U, 17U}) { // bodies of 16, 16 and 32 bytes
        ASSERT_TRUE(client.encryptedSocket.SendEncrypted(payload(size, 0)) &&
                    peer.encryptedSocket.RecvEncrypted(got));
    }
    veltrix::vxNetProtocolStats& sent = client.encryptedSocket.stats;
    veltrix::vxNetProtocolStats& received = peer.encryptedSocket.stats;
    EXPECT_EQ(counted(sent.SentMsgs), 6U);
    EXPECT_EQ(counted(sent.SentBytes), 3 * 48U + 64U);
    EXPECT_EQ(counted(received.RecvMsgs), 3U);
    EXPECT_EQ(counted(received.RecvBytes), 64U);

    ASSERT_TRUE(client.SendClientDisconnect());
    EXPECT_EQ(counted(sent.SentMsgs), 7U);
    EXPECT_EQ(counted(sent.SentBytes), 3 * 48U + 64U + 64U) << "a command counts 64 bytes";
    vxtest::closeClient(client);
    ASSERT_TRUE(peer.encryptedSocket.RecvEncrypted(got));
    EXPECT_TRUE(peer.socket.doDisconnect);
    EXPECT_EQ(counted(received.RecvMsgs), 3U) << "commands are not counted on receipt";
}

TEST_F(vxNetSessionTest, DisconnectedClientsArePrunedAndTheOthersKeepTheirOrder)
{
    // Each connection gets the next free id, found before it is accepted: 1, 2, 3.
    ASSERT_TRUE(listen("aes256", "sha256-128"));
    vxNetClient& second = another();
    vxNetClient& third = another();
    for (vxNetClient* end : {&client, &second, &third}) {
        ASSERT_TRUE(server.updateNextClientId());
        ASSERT_TRUE(session(*end, "aes256", "sha256-128")) << vxtest::dumpTrail();
        ASSERT_TRUE(server.connectedClients.back()->SetClientId(server.nextClientId));
    }
    EXPECT_EQ(server.nextClientId, 3U);
    disconnect(client);
    disconnect(third);
    vxBytes got;
    for (const size_t i : {size_t{0}, size_t{2}}) {
        ASSERT_TRUE(connection(i).encryptedSocket.RecvEncrypted(got)) << vxtest::dumpTrail();
        EXPECT_TRUE(got.bytes.empty());
        EXPECT_TRUE(connection(i).socket.doDisconnect);
    }
    EXPECT_FALSE(server.pruneCClist());
    ASSERT_EQ(server.connectedClients.size(), 1U);
    uint32_t id = 0;
    ASSERT_TRUE(connection().GetClientId(id));
    EXPECT_EQ(id, 2U) << "the second client stays";

    // The one left still talks.
    ASSERT_TRUE(second.encryptedSocket.SendEncrypted(payload(5, 9)) &&
                connection().encryptedSocket.RecvEncrypted(got));
    EXPECT_EQ(got.bytes, payload(5, 9).bytes);
    ASSERT_TRUE(server.updateNextClientId());
    EXPECT_EQ(server.nextClientId, 4U);
    EXPECT_FALSE(server.DisconnectClient(2));
    EXPECT_EQ(server.connectedClients.size(), 1U);
    EXPECT_QUIET();

    testing::internal::CaptureStdout();
    EXPECT_TRUE(server.DumpvxNetServerInfo());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              std::string(" keyExchangeMode: ") + '\0' +
                  "\n cipherMode: aes256\n hashMode: sha256-128\n nextClientId: 4\n"
                  " connectedClients size: 1\n");
}

TEST_F(vxNetSessionTest, AConnectionWithoutAnIdStopsTheSearchForTheNextId)
{
    ASSERT_TRUE(start("none", "md5")) << vxtest::dumpTrail();
    EXPECT_FAILS_WITH(server.updateNextClientId(), "__clientIdSet == true");
}

TEST_F(vxNetSessionTest, AClientIdIsSetOnce)
{
    ASSERT_TRUE(start("none", "md5")) << vxtest::dumpTrail();
    ASSERT_TRUE(connection().SetClientId(7));
    EXPECT_FAILS_WITH(connection().SetClientId(8), "__clientIdSet == false");
}

TEST_F(vxNetSessionTest, APeerThatClosesWithoutTheCommandFailsTheNextReceive)
{
    ASSERT_TRUE(start("aes192", "md5")) << vxtest::dumpTrail();
    vxtest::closeClient(client);
    vxBytes got;
    EXPECT_FAILS_WITH(connection().encryptedSocket.RecvEncrypted(got),
                      "tempBytes1.bytes.size() == VX_HEADER_WIRE_SIZE");
}

TEST_F(vxNetSessionTest, AnEmptyPayloadIsSentButCannotBeReceived)
{
    ASSERT_TRUE(start("aes128", "md5")) << vxtest::dumpTrail();
    ASSERT_TRUE(client.encryptedSocket.SendEncrypted(vxBytes()));
    vxBytes got;
    EXPECT_FAILS_WITH(connection().encryptedSocket.RecvEncrypted(got), "size >= 1");
}

TEST_F(vxNetSessionTest, TheWakeUpPipeReleasesABlockedEncryptedReceive)
{
    ASSERT_TRUE(start("aes128", "md5")) << vxtest::dumpTrail();
    uint32_t writeEnd = 0;
    ASSERT_TRUE(client.socket.createWakeupFd(writeEnd));
    bool released = false;
    vxBytes got = payload(3, 3);
    std::thread receiver([&] { released = client.encryptedSocket.RecvEncrypted(got); });
    const unsigned char byte = 1;
    ASSERT_EQ(write(static_cast<int>(writeEnd), &byte, 1), 1);
    receiver.join();
    EXPECT_TRUE(released);
    EXPECT_TRUE(client.socket.wakeupSeen);
    EXPECT_EQ(got.bytes, payload(3, 3).bytes) << "untouched";
    // Released before any header arrived, the session goes on.
    ASSERT_TRUE(connection().encryptedSocket.SendEncrypted(payload(40, 1)) &&
                client.encryptedSocket.RecvEncrypted(got));
    EXPECT_EQ(got.bytes, payload(40, 1).bytes);
    (void)close(static_cast<int>(writeEnd));
    (void)close(client.socket.wakeupFd);
}

TEST_F(vxNetSessionTest, ConnectSetsTheAddressBeforeThePort)
{
    std::string listening;
    ASSERT_TRUE(vxtest::listenOnLoopback(frame, server, "aes128", "md5", listening));
    ASSERT_TRUE(frame.openChild(client));
    EXPECT_FAILS_WITH(client.Connect("127.0.0.1", listening),
                      "The port must be set before the address.");
    veltrix::vxBase::lvxClearLastError();
    vxtest::closeIfOpen(client);

    // With a port set before, the address is resolved with it: "1" is stored, but unused.
    ASSERT_TRUE(frame.openChild(client) && client.socket.setPort(listening));
    ASSERT_TRUE(client.Connect("127.0.0.1", "1")) << vxtest::dumpTrail();
    EXPECT_EQ(client.socket.soPort, "1");
    EXPECT_TRUE(vxtest::readableWithin(server.socket.sockFd, 5)) << "the listener has it";
}

TEST_F(vxNetSessionTest, AcceptWithNothingPendingFailsAndLatches)
{
    ASSERT_TRUE(listen("aes128", "md5"));
    EXPECT_FAILS_WITH(server.acceptNewManagedClient(vxtest::bytesOf(kSecret)),
                      "Boolean return value failed.");
    EXPECT_TRUE(server.connectedClients.empty());
}

TEST_F(vxNetSessionTest, ADescriptorAcceptedElsewhereIsAdoptedWithItsTimeOutAndOptions)
{
    ASSERT_TRUE(listen("aes128", "md5"));
    const int on = 1;
    ASSERT_TRUE(server.CreateSockoptProperty(SOL_SOCKET, SO_OOBINLINE, &on, sizeof on));
    ASSERT_TRUE(vxtest::connectOnLoopback(frame, client, port, "aes128", "md5"));
    ASSERT_TRUE(vxtest::readableWithin(server.socket.sockFd, 5));
    int32_t fd = accept(server.socket.sockFd, nullptr, nullptr);
    ASSERT_GE(fd, 0);
    // Cleared first, so that only the adoption can set it, whatever the descriptor got from its
    // listener: without it every message body waits for the acknowledgement of its header.
    const int off = 0;
    ASSERT_EQ(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &off, sizeof off), 0);
    vxNetConnectedClient record;
    ASSERT_TRUE(server.func_LVX_CALL_OPENP(&record, "aes128", "md5"));
    bool accepted = false;
    std::thread acceptor(
        [&] { accepted = server.acceptNewClient(vxtest::bytesOf(kSecret), &record, fd); });
    ASSERT_TRUE(client.PerformKeyExchange(vxtest::bytesOf(kSecret)));
    acceptor.join();
    ASSERT_TRUE(accepted) << vxtest::dumpTrail();
    EXPECT_EQ(record.socket.sockFd, fd);
    EXPECT_TRUE(record.socket.nodeName.empty()) << "accept() never ran";
    int inlined = 0;
    socklen_t length = sizeof inlined;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_OOBINLINE, &inlined, &length), 0);
    EXPECT_EQ(inlined, 1) << "the kept option was applied";
    int noDelay = 0;
    length = sizeof noDelay;
    ASSERT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &length), 0);
    EXPECT_EQ(noDelay, 1) << "small segments leave at once, as on a descriptor accept() took";
    EXPECT_TRUE(server.connectedClients.empty()) << "the record stays the caller's";
    vxtest::closeIfOpen(record);
}

TEST_F(vxNetSessionTest, AcceptWithATimeOutLimitsTheWaitForEachReceive)
{
    ASSERT_TRUE(listen("aes128", "md5"));
    ASSERT_TRUE(vxtest::connectOnLoopback(frame, client, port, "aes128", "md5"));
    ASSERT_TRUE(vxtest::readableWithin(server.socket.sockFd, 5));
    vxNetConnectedClient record;
    ASSERT_TRUE(server.func_LVX_CALL_OPENP(&record, "aes128", "md5"));
    // The client never answers: the server's first receive gives up after a second.
    EXPECT_FAILS_WITH(server.acceptNewClient(vxtest::bytesOf(kSecret), &record, 1U),
                      "Select timeout expired.");
    EXPECT_EQ(record.socket.soTimeout, 1U);
    EXPECT_EQ(record.socket.nodeName, "127.0.0.1");
    veltrix::vxBase::lvxClearLastError();
    vxtest::closeIfOpen(record);
}

TEST_F(vxNetSessionTest, ConnectTimesOutQuietlyAgainstAFullBacklog)
{
    // A listener with backlog 0 that never accepts: one connection fills its queue, and the
    // next connection's handshake is dropped.
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 0), 0);
    socklen_t length = sizeof address;
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const std::string fullPort = vxtest::boundPort(listener);
    // Connections go in until one stays unanswered: then the queue is full.
    std::vector<int> fillers;
    bool full = false;
    for (int i = 0; i < 8 && !full; ++i) {
        fillers.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        (void)::connect(fillers.back(), reinterpret_cast<sockaddr*>(&address), sizeof address);
        pollfd answered{fillers.back(), POLLOUT, 0};
        full = poll(&answered, 1, 200) == 0;
    }
    ASSERT_TRUE(full);
    ASSERT_TRUE(frame.openChild(client) && client.socket.setPort(fullPort) &&
                client.socket.setAddress("127.0.0.1") && client.socket.setConnectTimeout(1));
    EXPECT_FALSE(client.Connect());
    EXPECT_QUIET();
    EXPECT_NE(fcntl(client.socket.sockFd, F_GETFL) & O_NONBLOCK, 0) << "left non-blocking";
    for (const int fd : fillers) {
        (void)close(fd);
    }
    (void)close(listener);
}

/** Binds with the bind log's directory moved aside, absent until a case creates it. */
class vxNetBindLogTest : public vxNetSessionTest
{
protected:
    static constexpr const char* kDir = vxtest::bindLogAside::kDir;
    static constexpr const char* kFile = vxtest::bindLogAside::kFile;

    bool bindOnce(vxNetServer& listener)
    {
        return frame.openChild(listener) && listener.socket.setPort("0") &&
               listener.socket.setAddress("127.0.0.1") && listener.socket.BindAndListen();
    }

    vxtest::bindLogAside logAside;
};

TEST_F(vxNetBindLogTest, EveryBindAppendsItsStepsAndAMissingDirectoryLosesThem)
{
    ASSERT_TRUE(bindOnce(server)) << "binding goes on without the log";
    EXPECT_NE(fcntl(server.socket.sockFd, F_GETFL) & O_NONBLOCK, 0) << "left non-blocking";
    struct stat info = {};
    EXPECT_NE(stat(kFile, &info), 0);
    vxtest::closeIfOpen(server);

    vxtest::bindLogAside::create();
    vxNetServer second;
    ASSERT_TRUE(bindOnce(server) && bindOnce(second));
    const auto block = [](int fd) {
        return std::string(" BindAndListen begin\nPort: 0 soAddress: 127.0.0.1\n") +
               " BindAndListen sockFd: " + std::to_string(fd) +
               "\n BindAndListen 2 \n BindAndListen setsockopt err: 0\n BindAndListen to bind \n"
               " BindAndListen bind error : 0\n BindAndListen listen: err : 0\n"
               " BindAndListen after setNonBlocking \n";
    };
    EXPECT_EQ(vxtest::readFile(kFile), block(server.socket.sockFd) + block(second.socket.sockFd));
    vxtest::closeIfOpen(second);
}

TEST_F(vxNetBindLogTest, ASymbolicLinkInPlaceOfTheLogIsNotFollowed)
{
    vxtest::bindLogAside::create();
    const std::string target = std::string(kDir) + "/planted-target";
    vxtest::writeFile(target, "untouched\n");
    ASSERT_EQ(symlink(target.c_str(), kFile), 0);
    EXPECT_TRUE(bindOnce(server)) << "binding goes on without the log";
    EXPECT_EQ(vxtest::readFile(target), "untouched\n");
    vxtest::closeIfOpen(server);
    (void)remove(target.c_str());
}

TEST_F(vxNetBindLogTest, AFifoOrAnotherUsersFileInPlaceOfTheLogIsLeftAlone)
{
    vxtest::bindLogAside::create();
    // A FIFO without a reader would hold a blocking open for ever.
    ASSERT_EQ(mkfifo(kFile, 0666), 0);
    EXPECT_TRUE(bindOnce(server)) << "binding goes on without the log";
    vxtest::closeIfOpen(server);
    ASSERT_EQ(remove(kFile), 0);
    if (geteuid() == 0) {
        vxtest::writeFile(kFile, "another user's\n");
        ASSERT_EQ(chown(kFile, 65534, 65534), 0);
        EXPECT_TRUE(bindOnce(server));
        EXPECT_EQ(vxtest::readFile(kFile), "another user's\n");
        vxtest::closeIfOpen(server);
    }
}

} // namespace
