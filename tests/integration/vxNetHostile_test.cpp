// Hostile peers over 127.0.0.1. A raw TCP socket driven by hand faces a genuine library end: it
// cuts a packet short, alters, replays or reorders packets a genuine end wrote, stops halfway
// through a handshake, stays silent or sends garbage. Every attack must end the connection with
// a clear text in the trail and without a hang: each victim's receives wait at most a few
// seconds for their first byte, and the ctest time-out bounds the rest. A soak then runs many
// whole sessions against one server and compares descriptors and resident memory.

#include "vxLoopback.h"

#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using veltrix::vxBytes;
using veltrix::vxNetClient;
using veltrix::vxNetConnectedClient;
using veltrix::vxNetEncryptedSocket;
using vxtest::payload;
using octets = std::vector<unsigned char>;

const char* const kCipher = "aes128";
const char* const kHash = "md5";
constexpr uint32_t kPatience = 5; // seconds a victim waits for a first byte
constexpr size_t kHeaderSize = 48;

const char* const kShortBlock = "";
const char* const kNoHeader = "tempBytes1.bytes.size() == VX_HEADER_WIRE_SIZE";
const char* const kHeadHmac = "tempBytes3 == hMacHead";
const char* const kBodyHmac = "tempBytes3 == hMacBody";
const char* const kBadResponse = "( decrypted == correctResponse )";
const char* const kTimeOut = "Select timeout expired.";

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VX_HOSTILE_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(VX_HOSTILE_ASAN)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

/** The bytes a payload of `size` occupies on the wire: the header and the padded body. */
size_t wireSize(size_t size)
{
    return kHeaderSize + (size + 15) / 16 * 16;
}

octets garbage(std::mt19937& random, size_t size)
{
    std::uniform_int_distribution<int> byte(0, 255);
    octets out(size);
    for (unsigned char& b : out) {
        b = static_cast<unsigned char>(byte(random));
    }
    return out;
}

/** A peer that closes after `bytes` bytes: the receiver fails with `text`, and `closeSeen` says
 *  whether its socket saw the close (a block that read nothing at all). */
struct cut
{
    size_t bytes;
    const char* text;
    bool closeSeen;
};

/** A plain descriptor, closed when its scope ends or before. */
class rawFd
{
public:
    explicit rawFd(int value) : fd(value) {}

    rawFd(const rawFd&) = delete;
    rawFd& operator=(const rawFd&) = delete;

    ~rawFd() { close(); }

    void close()
    {
        if (fd >= 0) {
            (void)::close(fd);
        }
        fd = -1;
    }

    int fd;
};

/** A plain TCP socket on 127.0.0.1: connected to `port`, or listening on a port the system picks,
 *  which is written back to `port`. */
int rawSocket(std::string& port, bool listening)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(listening ? 0 : static_cast<uint16_t>(std::stoi(port)));
    auto* where = reinterpret_cast<sockaddr*>(&address);
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const bool ready = listening ? bind(fd, where, sizeof address) == 0 && listen(fd, 4) == 0
                                 : connect(fd, where, sizeof address) == 0;
    if (!ready) {
        (void)::close(fd);
        return -1;
    }
    port = listening ? vxtest::boundPort(fd) : port;
    return fd;
}

bool sendAll(int fd, const octets& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t sent = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        done += static_cast<size_t>(sent);
    }
    return true;
}

/** `size` bytes, or fewer when a wait for more runs out or the peer closes. */
octets recvExactly(int fd, size_t size)
{
    octets out(size);
    size_t done = 0;
    while (done < size && vxtest::readableWithin(fd, static_cast<int>(kPatience))) {
        const ssize_t got = recv(fd, out.data() + done, size - done, 0);
        if (got <= 0) {
            break;
        }
        done += static_cast<size_t>(got);
    }
    out.resize(done);
    return out;
}

/** One end of the transport on an adopted descriptor, keyed from fixed seeds instead of a
 *  handshake: ends on separate connections then share every key, so a packet captured from one
 *  sender can be played, altered, to any number of fresh receivers. */
struct seededEnd
{
    veltrix::vxNetSocket socket;
    vxNetEncryptedSocket encrypted;

    bool open(vxtest::testFrame& frame, bool origin, int fd)
    {
        const vxBytes seed0 = vxtest::fromHex("000102030405060708090A0B0C0D0E0F");
        const vxBytes seed1 = vxtest::fromHex("101112131415161718191A1B1C1D1E1F");
        uint32_t patience = kPatience;
        const bool adopted = frame.openChild(socket, origin);
        socket.sockFd = fd; // the socket's close closes it from here on
        return adopted && socket.setTimeOut(patience) &&
               frame.openChild(encrypted, kCipher, kHash, &socket) &&
               encrypted.keys.ReSeed(seed0, seed1);
    }

    ~seededEnd()
    {
        veltrix::vxBase::lvxClearLastError(); // a close refuses while latched
        vxtest::closeIfOpen(encrypted);
        vxtest::closeIfOpen(socket);
    }
};

/** The latch is set and the innermost failure reads `text`; then the latch is cleared. */
void expectLatchedWith(const std::string& text)
{
    EXPECT_TRUE(vxtest::latched());
    EXPECT_EQ(vxtest::firstMessage(), text) << vxtest::dumpTrail();
    veltrix::vxBase::lvxClearLastError();
}

class vxNetHostileTest : public vxtest::loopbackTest
{
protected:
    void TearDown() override
    {
        dropConnections();
        vxtest::loopbackTest::TearDown();
    }

    static void closeRecord(vxNetConnectedClient& record) { vxtest::closeIfOpen(record); }

    void dropConnections()
    {
        veltrix::vxBase::lvxClearLastError();
        for (auto& record : server.connectedClients) {
            closeRecord(*record);
        }
        server.connectedClients.clear();
    }

    bool listen() { return loopbackTest::listen(kCipher, kHash); }

    bool session(vxNetClient& end, const std::string& secret = kSecret)
    {
        return loopbackTest::session(end, kCipher, kHash, secret);
    }

    bool start() { return listen() && session(client); }

    /** The server's end of the newest connection, its wait for a first byte bounded. */
    vxNetEncryptedSocket& victim(uint32_t patience = kPatience)
    {
        vxNetConnectedClient& record = *server.connectedClients.back();
        EXPECT_TRUE(record.socket.setTimeOut(patience));
        return record.encryptedSocket;
    }

    /** Takes what a genuine client wrote off the server's descriptor before the library reads. */
    octets intercept(size_t size)
    {
        return recvExactly(server.connectedClients.back()->socket.sockFd, size);
    }

    /** Bytes written on the client's descriptor: the server receives them as the client's. */
    static void inject(vxNetClient& end, const octets& bytes)
    {
        ASSERT_TRUE(sendAll(end.socket.sockFd, bytes));
    }

    /** Accepts the pending connection into `record` and runs the server's handshake. */
    bool acceptInto(vxNetConnectedClient& record, uint32_t patience = kPatience)
    {
        return vxtest::readableWithin(server.socket.sockFd, static_cast<int>(kPatience)) &&
               server.func_LVX_CALL_OPENP(&record, kCipher, kHash) &&
               server.acceptNewClient(vxtest::bytesOf(kSecret), &record, patience);
    }
};

TEST_F(vxNetHostileTest, APeerThatClosesInsideAPacketFailsTheReceive)
{
    // A 40-byte payload is 96 bytes on the wire: a 48-byte header, then a 48-byte body. A close
    // between two blocks is seen as one, yet the receive goes on with an empty block.
    const cut cuts[] = {{0, kNoHeader, true},  {20, kShortBlock, false}, {47, kShortBlock, false},
                        {48, kBodyHmac, true}, {68, kShortBlock, false}, {95, kShortBlock, false}};
    ASSERT_TRUE(listen());
    for (const cut& row : cuts) {
        SCOPED_TRACE("closed after " + std::to_string(row.bytes) + " bytes");
        vxNetClient peer;
        ASSERT_TRUE(session(peer)) << vxtest::dumpTrail();
        ASSERT_TRUE(peer.encryptedSocket.SendEncrypted(payload(40, 1)));
        octets packet = intercept(wireSize(40));
        ASSERT_EQ(packet.size(), wireSize(40));
        packet.resize(row.bytes);
        inject(peer, packet);
        vxtest::closeClient(peer);
        vxBytes got;
        EXPECT_FALSE(victim().RecvEncrypted(got));
        EXPECT_TRUE(got.bytes.empty());
        EXPECT_EQ(server.connectedClients.back()->socket.doDisconnect, row.closeSeen);
        expectLatchedWith(row.text);
        dropConnections();
    }
}

TEST_F(vxNetHostileTest, EveryAlteredByteOfAPacketFailsItsReceive)
{
    rawFd listener(rawSocket(port, true));
    ASSERT_GE(listener.fd, 0);
    // The genuine packet: a seeded client end writes it and the raw far end keeps it.
    octets packet;
    {
        rawFd far(rawSocket(port, false));
        seededEnd sender;
        ASSERT_TRUE(sender.open(frame, false, accept(listener.fd, nullptr, nullptr)));
        ASSERT_TRUE(sender.encrypted.SendEncrypted(payload(33, 5))) << vxtest::dumpTrail();
        packet = recvExactly(far.fd, wireSize(33));
    }
    ASSERT_EQ(packet.size(), wireSize(33));
    // Position -1 plays the packet unaltered: a fresh receiver must accept it, or the failures
    // below would prove nothing. The first two header fields are the head HMAC and the haystack
    // it covers; an alteration past them shows in the body's HMAC.
    for (int position = -1; position < static_cast<int>(packet.size()); ++position) {
        for (const unsigned char flip : {0x01, 0xFF}) {
            SCOPED_TRACE("byte " + std::to_string(position) + " xor " + std::to_string(flip));
            octets altered = packet;
            if (position >= 0) {
                altered[static_cast<size_t>(position)] ^= flip;
            }
            rawFd attacker(rawSocket(port, false));
            seededEnd receiver;
            ASSERT_TRUE(receiver.open(frame, true, accept(listener.fd, nullptr, nullptr)));
            ASSERT_TRUE(sendAll(attacker.fd, altered));
            (void)shutdown(attacker.fd, SHUT_WR); // a misread size meets an end, not a wait
            vxBytes got;
            const bool received = receiver.encrypted.RecvEncrypted(got);
            if (position < 0) {
                ASSERT_TRUE(received) << vxtest::dumpTrail();
                ASSERT_EQ(got.bytes, payload(33, 5).bytes);
                break;
            }
            EXPECT_FALSE(received);
            expectLatchedWith(position < 32 ? kHeadHmac : kBodyHmac);
        }
    }
}

TEST_F(vxNetHostileTest, AReplayedPacketFailsTheSecondReceive)
{
    ASSERT_TRUE(start()) << vxtest::dumpTrail();
    ASSERT_TRUE(client.encryptedSocket.SendEncrypted(payload(40, 2)));
    const octets packet = intercept(wireSize(40));
    inject(client, packet);
    inject(client, packet);
    vxBytes got;
    ASSERT_TRUE(victim().RecvEncrypted(got)) << vxtest::dumpTrail();
    EXPECT_EQ(got.bytes, payload(40, 2).bytes);
    EXPECT_FALSE(victim().RecvEncrypted(got));
    expectLatchedWith(kHeadHmac);
}

TEST_F(vxNetHostileTest, TwoSwappedPacketsFailTheFirstReceive)
{
    ASSERT_TRUE(start()) << vxtest::dumpTrail();
    ASSERT_TRUE(client.encryptedSocket.SendEncrypted(payload(40, 3)) &&
                client.encryptedSocket.SendEncrypted(payload(100, 4)));
    const octets first = intercept(wireSize(40));
    const octets second = intercept(wireSize(100));
    inject(client, second);
    inject(client, first);
    vxBytes got;
    EXPECT_FALSE(victim().RecvEncrypted(got));
    EXPECT_TRUE(got.bytes.empty());
    expectLatchedWith(kHeadHmac);
}

TEST_F(vxNetHostileTest, AHandshakeCutShortFailsAtTheServer)
{
    // The server sends its version and its challenge (32 bytes), then reads the 16-byte answer.
    // A close just before the answer leaves the server's own last block in the buffer, and that
    // is decrypted as the answer.
    const cut cuts[] = {{0, kBadResponse, true},
                        {7, kShortBlock, false},
                        {15, kShortBlock, false},
                        {16, kBadResponse, false}};
    ASSERT_TRUE(listen());
    std::mt19937 random(7);
    for (const cut& row : cuts) {
        SCOPED_TRACE("closed after " + std::to_string(row.bytes) + " bytes");
        rawFd peer(rawSocket(port, false));
        ASSERT_GE(peer.fd, 0);
        vxNetConnectedClient record;
        bool accepted = true;
        std::thread serverSide([&] { accepted = acceptInto(record); });
        EXPECT_EQ(recvExactly(peer.fd, 32).size(), 32U);
        EXPECT_TRUE(sendAll(peer.fd, garbage(random, row.bytes)));
        peer.close();
        serverSide.join();
        EXPECT_FALSE(accepted);
        EXPECT_EQ(record.socket.doDisconnect, row.closeSeen);
        expectLatchedWith(row.text);
        closeRecord(record);
    }
}

TEST_F(vxNetHostileTest, AHandshakeCutShortFailsAtTheClient)
{
    // The client reads the version and the server's challenge before it writes anything. After a
    // close between them it goes on, and its next send refuses quietly.
    const cut cuts[] = {{0, "(haystack.bytes.size() > 1 )", true},
                        {10, kShortBlock, false},
                        {16, "Boolean return value failed.", true},
                        {24, kShortBlock, false}};
    rawFd listener(rawSocket(port, true));
    ASSERT_GE(listener.fd, 0);
    std::mt19937 random(11);
    for (const cut& row : cuts) {
        SCOPED_TRACE("closed after " + std::to_string(row.bytes) + " bytes");
        vxNetClient end;
        ASSERT_TRUE(vxtest::connectOnLoopback(frame, end, port, kCipher, kHash));
        uint32_t patience = kPatience;
        ASSERT_TRUE(end.socket.setTimeOut(patience));
        rawFd peer(accept(listener.fd, nullptr, nullptr));
        ASSERT_TRUE(sendAll(peer.fd, garbage(random, row.bytes)));
        peer.close();
        EXPECT_FALSE(end.PerformKeyExchange(vxtest::bytesOf(kSecret)));
        EXPECT_EQ(end.socket.doDisconnect, row.closeSeen);
        expectLatchedWith(row.text);
        vxtest::closeClient(end);
    }
}

TEST_F(vxNetHostileTest, AWrongSecretFailsAtTheServerWhichKeepsAccepting)
{
    ASSERT_TRUE(listen());
    vxNetClient impostor;
    EXPECT_FALSE(session(impostor, "not the secret"));
    expectLatchedWith(kBadResponse);
    EXPECT_TRUE(server.connectedClients.empty());
    vxtest::closeClient(impostor);
    ASSERT_TRUE(session(client)) << vxtest::dumpTrail();
    EXPECT_EQ(server.connectedClients.size(), 1U);
}

TEST_F(vxNetHostileTest, ASilentPeerTimesOutEitherHandshake)
{
    ASSERT_TRUE(listen());
    rawFd mute(rawSocket(port, false));
    vxNetConnectedClient record;
    EXPECT_FALSE(acceptInto(record, 1));
    expectLatchedWith(kTimeOut);
    closeRecord(record);

    std::string silentPort;
    rawFd listener(rawSocket(silentPort, true));
    ASSERT_TRUE(vxtest::connectOnLoopback(frame, client, silentPort, kCipher, kHash));
    rawFd accepted(accept(listener.fd, nullptr, nullptr));
    uint32_t patience = 1;
    ASSERT_TRUE(client.socket.setTimeOut(patience));
    EXPECT_FALSE(client.PerformKeyExchange(vxtest::bytesOf(kSecret)));
    expectLatchedWith(kTimeOut);
}

TEST_F(vxNetHostileTest, ASilentPeerTimesOutAReceiveAndTheSessionStaysInStep)
{
    ASSERT_TRUE(start()) << vxtest::dumpTrail();
    vxBytes got;
    EXPECT_FALSE(victim(1).RecvEncrypted(got));
    expectLatchedWith(kTimeOut);
    uint32_t patience = 1;
    ASSERT_TRUE(client.socket.setTimeOut(patience));
    EXPECT_FALSE(client.encryptedSocket.RecvEncrypted(got));
    expectLatchedWith(kTimeOut);
    // Nothing was read, so both ends still agree on their keys.
    ASSERT_TRUE(client.encryptedSocket.SendEncrypted(payload(20, 6)) && victim().RecvEncrypted(got))
        << vxtest::dumpTrail();
    EXPECT_EQ(got.bytes, payload(20, 6).bytes);
}

TEST_F(vxNetHostileTest, GarbageFailsEachConnectionAndTheServerKeepsServing)
{
    ASSERT_TRUE(listen());
    std::mt19937 random(2024);
    std::uniform_int_distribution<size_t> length(1, 5000);
    // Both kinds of round meet the block boundaries first, then random lengths. Each garbage
    // peer half-closes after it, so a short block ends instead of waiting for its rest.
    const size_t edges[] = {1, 1, 15, 15, 16, 16, 17, 17, 47, 47, 48, 48};
    for (size_t round = 0; round < 50; ++round) {
        const octets junk =
            garbage(random, round < std::size(edges) ? edges[round] : length(random));
        const bool handshaken = round % 2 == 1;
        SCOPED_TRACE(std::to_string(junk.size()) + " bytes, " +
                     (handshaken ? "after a handshake" : "instead of a handshake"));
        if (handshaken) {
            vxNetClient peer;
            ASSERT_TRUE(session(peer)) << vxtest::dumpTrail();
            inject(peer, junk);
            (void)shutdown(peer.socket.sockFd, SHUT_WR);
            vxBytes got;
            EXPECT_FALSE(victim().RecvEncrypted(got));
            expectLatchedWith(junk.size() < kHeaderSize ? kShortBlock : kHeadHmac);
            vxtest::closeClient(peer);
            dropConnections();
        } else {
            rawFd peer(rawSocket(port, false));
            ASSERT_TRUE(sendAll(peer.fd, junk));
            (void)shutdown(peer.fd, SHUT_WR);
            vxNetConnectedClient record;
            EXPECT_FALSE(acceptInto(record));
            expectLatchedWith(junk.size() < 16 ? kShortBlock : kBadResponse);
            closeRecord(record);
        }
    }
    EXPECT_TRUE(server.connectedClients.empty());
    ASSERT_TRUE(session(client)) << vxtest::dumpTrail();
    vxBytes got;
    ASSERT_TRUE(client.encryptedSocket.SendEncrypted(payload(300, 7)) &&
                victim().RecvEncrypted(got) && victim().SendEncrypted(payload(17, 8)) &&
                client.encryptedSocket.RecvEncrypted(got))
        << vxtest::dumpTrail();
    EXPECT_EQ(got.bytes, payload(17, 8).bytes);
    EXPECT_FALSE(vxtest::latched());
}

/** What the process holds, in kB: its resident size, or under emulation, where the resident
 *  size is mostly the emulator's own (it keeps memory for every thread that ever ran), the heap in
 *  use. */
long memoryKb()
{
    if (VX_EMULATED) {
        const struct mallinfo2 heap = mallinfo2();
        return static_cast<long>((heap.uordblks + heap.hblkhd) / 1024);
    }
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stol(line.substr(6));
        }
    }
    return -1;
}

TEST_F(vxNetHostileTest, AThousandSessionsLeaveNoDescriptorAndLittleMemoryBehind)
{
    constexpr unsigned kCycles = 1000;
    constexpr unsigned kWarmUp = 20;
    constexpr long kGrowthBoundKb = 2048;
    const auto openDescriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    ASSERT_TRUE(listen());
    std::ptrdiff_t fdsBefore = 0;
    long rssBefore = 0;
    const auto began = std::chrono::steady_clock::now();
    for (unsigned cycle = 0; cycle < kCycles; ++cycle) {
        if (cycle == kWarmUp) {
            fdsBefore = openDescriptors();
            rssBefore = memoryKb();
        }
        vxNetClient peer;
        ASSERT_TRUE(session(peer)) << "cycle " << cycle << vxtest::dumpTrail();
        vxBytes got;
        ASSERT_TRUE(peer.encryptedSocket.SendEncrypted(payload(64, cycle)) &&
                    victim().RecvEncrypted(got) && peer.SendClientDisconnect());
        ASSERT_EQ(got.bytes, payload(64, cycle).bytes);
        vxtest::closeClient(peer);
        ASSERT_TRUE(victim().RecvEncrypted(got));
        ASSERT_TRUE(server.connectedClients.back()->socket.doDisconnect);
        EXPECT_FALSE(server.pruneCClist());
        ASSERT_TRUE(server.connectedClients.empty());
    }
    const std::ptrdiff_t fdsAfter = openDescriptors();
    const long rssAfter = memoryKb();
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - began;
    std::cout << "soak: " << kCycles << " sessions in " << seconds.count() << " s; descriptors "
              << fdsBefore << " -> " << fdsAfter << (VX_EMULATED ? "; heap in use " : "; VmRSS ")
              << rssBefore << " kB -> " << rssAfter << " kB (measured from session " << kWarmUp
              << ")" << std::endl;
    RecordProperty("descriptors", std::to_string(fdsBefore) + " -> " + std::to_string(fdsAfter));
    RecordProperty("vmrss_kb", std::to_string(rssBefore) + " -> " + std::to_string(rssAfter));
    EXPECT_EQ(fdsAfter, fdsBefore);
    EXPECT_FALSE(vxtest::latched());
    if (!kSanitized) { // the sanitizer's quarantine holds freed memory back on purpose
        EXPECT_LT(rssAfter - rssBefore, kGrowthBoundKb);
    }
}

} // namespace
