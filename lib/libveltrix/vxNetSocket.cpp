// The plain TCP socket (fixed-size blocks in the clear), kept socket options, and the encrypted
// socket's packets and commands.
#include "vxNetSocket.h"

#include "vxGuard.h"
#include "vxNetSocketInternal.h"
#include "vxSecret.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <iostream>
#include <new>
#include <sstream>
#include <vector>

namespace veltrix {

namespace {

constexpr uint32_t kDefaultBacklog = 10;
constexpr uint8_t kKeyExchangeMode = 2;
constexpr int kMillisPerSecond = 1000;
constexpr uint32_t kPipeTries = 4; // sends tried while they fail with EPIPE

/** Waits for readability of the given descriptors; poll rather than select, so descriptors
 *  above FD_SETSIZE work too. An interrupted wait starts over with its whole time-out. */
int waitReadable(pollfd* fds, nfds_t count, int timeoutMs)
{
    int ready = 0;
    do {
        for (nfds_t i = 0; i < count; ++i) {
            fds[i].revents = 0;
        }
        ready = ::poll(fds, count, timeoutMs);
    } while (ready == -1);
    return ready;
}

int secondsToMillis(uint32_t seconds)
{
    return seconds > static_cast<uint32_t>(INT_MAX / kMillisPerSecond)
               ? INT_MAX
               : static_cast<int>(seconds) * kMillisPerSecond;
}

/** Sets or clears `flag` in the descriptor's status flags. */
bool changeFlags(int fd, int flag, bool on)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags == -1) {
        return false; // quiet: the caller records the failure
    }
    return fcntl(fd, F_SETFL, on ? (flags | flag) : (flags & ~flag)) != -1;
}

/** The bind log: each line appended and written at once. When the file cannot be opened (its
 *  directory is missing) the lines are lost and binding goes on. The log sits in a directory
 *  anyone may write to, so whatever another user planted there is left alone: a symbolic link
 *  (O_NOFOLLOW), a FIFO or device (opened without waiting for a reader, then refused for its
 *  type) and a file of another user's. A line never disturbs errno, which the failure that
 *  follows it reports. */
class socketLog
{
public:
    socketLog()
        : fd(open(VX_SOCKET_LOG_PATH,
                  O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                  kLogMode))
    {
        struct stat status = {};
        if (fd >= 0 && (fstat(fd, &status) != 0 || !isOwnFile(status))) {
            (void)close(fd);
            fd = -1;
        }
    }

    socketLog(const socketLog&) = delete;
    socketLog& operator=(const socketLog&) = delete;
    socketLog(socketLog&&) = delete;
    socketLog& operator=(socketLog&&) = delete;

    ~socketLog()
    {
        if (fd >= 0) {
            (void)close(fd);
        }
    }

    void line(const std::string& text)
    {
        const int saved = errno;
        if (fd >= 0) {
            const std::string whole = text + '\n';
            const ssize_t written = write(fd, whole.data(), whole.size());
            (void)written; // a lost line is not an error
        }
        errno = saved;
    }

    /** Whether a file with `status` may take the lines: a regular file of this user or root. */
    static bool isOwnFile(const struct stat& status)
    {
        return S_ISREG(status.st_mode) && (status.st_uid == geteuid() || status.st_uid == 0);
    }

private:
    static constexpr mode_t kLogMode = 0644;
    int fd;
};

} // namespace

/** Every encrypted message is written as two sends, header and body. With the coalescing of
 *  small segments on, the body waits for the peer's delayed acknowledgement of the header (some
 *  40 ms on Linux) on every message that answers another. The bytes on the wire are the same
 *  either way. Used on connected, accepted and adopted descriptors alike. */
void sendSegmentsAtOnce(int fd)
{
    const int saved = errno; // a refusal is no failure, so it leaves no errno behind either
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    errno = saved;
}

LVX_DEFINE_LIFECYCLE_RELEASING(vxNetSocket, release())

bool vxNetSocket::Open(bool isOrigin)
{
    LVX_GUARD_LATCH();
    if (opened) {
        LVX_FAIL(LVX_MSG_EXPECTED_CLOSED, initLine, static_cast<int>(openLine));
    }
    release(); // no resolver list and no descriptor
    soTimeout = 0;
    origin = isOrigin;
    soBacklog = kDefaultBacklog;
    doDisconnect = false;
    connectTimeout = 0;
    wakeupFd = 0;
    packetBuffer = std::make_unique<unsigned char[]>(VX_MAX_PACKET_SIZE);
    LVX_GUARD_LATCH();
    return true;
}

bool vxNetSocket::Close()
{
    release();
    // The buffer has carried handshake messages and ciphertext; the secret is kept until here.
    if (packetBuffer) {
        wipeSecret(packetBuffer.get(), VX_MAX_PACKET_SIZE);
    }
    packetBuffer.reset();
    wipeSecret(soSecret);
    return true;
}

void vxNetSocket::release()
{
    if (aitop != nullptr) {
        freeaddrinfo(aitop);
        aitop = nullptr;
    }
    releaseDescriptor();
}

void vxNetSocket::releaseDescriptor()
{
    if (sockFd != -1) {
        (void)shutdown(sockFd, SHUT_RDWR);
        (void)close(sockFd);
        sockFd = -1;
    }
}

bool vxNetSocket::setPort(const std::string& port)
{
    soPort = port;
    return true;
}

bool vxNetSocket::setSecret(const std::string& secret)
{
    wipeSecret(soSecret); // an assignment that reallocates would free the old text as it is
    soSecret = secret;
    return true;
}

bool vxNetSocket::setTimeOut(uint32_t& seconds)
{
    soTimeout = seconds;
    return true;
}

bool vxNetSocket::setConnectTimeout(uint32_t seconds)
{
    connectTimeout = seconds;
    return true;
}

bool vxNetSocket::setSoBacklog(uint32_t& backlog)
{
    soBacklog = backlog;
    return true;
}

bool vxNetSocket::setKeyExchangeMode(uint8_t mode)
{
    if (mode != kKeyExchangeMode) {
        return false; // quiet: only one mode exists
    }
    soMode = mode;
    return true;
}

bool vxNetSocket::setAddress(const std::string& address)
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(!soPort.empty(), LVX_MSG_PORT_FIRST);
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_family = address.find(':') != std::string::npos ? AF_INET6 : AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    if (aitop != nullptr) {
        freeaddrinfo(aitop);
        aitop = nullptr;
    }
    const int resolved = getaddrinfo(address.c_str(), soPort.c_str(), &hints, &aitop);
    if (resolved != 0) {
        aitop = nullptr;
        LVX_FAIL("%s%s", LVX_MSG_RESOLVER, gai_strerror(resolved));
    }
    soAddress = address;
    return true;
}

bool vxNetSocket::setNonBlocking()
{
    return changeFlags(sockFd, O_NONBLOCK, true);
}

bool vxNetSocket::setBlocking()
{
    return changeFlags(sockFd, O_NONBLOCK, false);
}

bool vxNetSocket::setSockOpt(uint32_t optionName, bool on)
{
    const int value = on ? 1 : 0;
    if (setsockopt(sockFd, SOL_SOCKET, static_cast<int>(optionName), &value, sizeof value) != 0) {
        LVX_FAIL_ERRNO(LVX_MSG_SETSOCKOPT);
    }
    return true;
}

void vxNetSocket::newDescriptor()
{
    releaseDescriptor(); // a retried connect must not leak the attempt before
    sockFd = ::socket(aitop->ai_family, aitop->ai_socktype, aitop->ai_protocol);
}

bool vxNetSocket::Connect()
{
    LVX_GUARD();
    LVX_ENSURE(aitop != nullptr, LVX_MSG_NO_ADDRESS);
    newDescriptor();
    if (sockFd < 1) {
        LVX_FAIL_ERRNO(LVX_MSG_NO_SOCKET);
    }
    LVX_CHECK(setSockOpt(SO_KEEPALIVE, true));
    sendSegmentsAtOnce(sockFd);
    if (connectTimeout != 0) {
        LVX_CHECK(setNonBlocking());
    }
    if (connect(sockFd, aitop->ai_addr, aitop->ai_addrlen) != 0 && errno != EINPROGRESS) {
        LVX_FAIL_ERRNO(LVX_MSG_CONNECT);
    }
    if (connectTimeout == 0) {
        return true;
    }
    return awaitConnect();
}

bool vxNetSocket::awaitConnect()
{
    pollfd fds[1] = {{sockFd, POLLOUT, 0}};
    const int ready = ::poll(fds, 1, secondsToMillis(connectTimeout));
    if (ready == 0) {
        return false; // quiet: the peer did not answer in time; the caller may retry
    }
    if (ready < 0) {
        LVX_FAIL_ERRNO(LVX_MSG_SELECT);
    }
    // A refused connection is writable too; it shows on the first receive.
    LVX_CHECK(setBlocking());
    return true;
}

bool vxNetSocket::BindAndListen()
{
    LVX_GUARD();
    socketLog log;
    log.line(" BindAndListen begin");
    LVX_ENSURE(!soPort.empty(), LVX_MSG_NO_PORT);
    LVX_ENSURE(!soAddress.empty() && aitop != nullptr, LVX_MSG_NO_ADDRESS);
    log.line("Port: " + soPort + " soAddress: " + soAddress);
    newDescriptor();
    log.line(" BindAndListen sockFd: " + std::to_string(sockFd));
    if (sockFd <= 0) {
        LVX_FAIL_ERRNO(LVX_MSG_NO_SOCKET);
    }
    log.line(" BindAndListen 2 ");
    const linger lingerOn{1, 1};
    const int lingerSet = setsockopt(sockFd, SOL_SOCKET, SO_LINGER, &lingerOn, sizeof lingerOn);
    log.line(" BindAndListen setsockopt err: " + std::to_string(lingerSet));
    if (lingerSet != 0) {
        LVX_FAIL_ERRNO(LVX_MSG_LINGER);
    }
    LVX_CHECK(setSockOpt(SO_REUSEADDR, true));
    LVX_CHECK(setSockOpt(SO_KEEPALIVE, true));
    log.line(" BindAndListen to bind ");
    const int bound = bind(sockFd, aitop->ai_addr, aitop->ai_addrlen);
    log.line(" BindAndListen bind error : " + std::to_string(bound));
    if (bound != 0) {
        LVX_FAIL_ERRNO(LVX_MSG_BIND);
    }
    const int listening = listen(sockFd, static_cast<int>(soBacklog));
    log.line(" BindAndListen listen: err : " + std::to_string(listening));
    if (listening != 0) {
        LVX_FAIL_ERRNO(LVX_MSG_LISTEN);
    }
    LVX_CHECK(setNonBlocking());
    log.line(" BindAndListen after setNonBlocking ");
    return true;
}

bool vxNetSocket::Accept(vxNetSocket& conn)
{
    sockaddr_in peer{};
    int fd = -1;
    do {
        socklen_t length = sizeof peer;
        fd = accept(sockFd, reinterpret_cast<sockaddr*>(&peer), &length);
    } while (fd == -1 && errno == EINTR);
    if (fd == -1) {
        return false; // quiet: nothing pending on the non-blocking listener, or a lost peer
    }
    conn.sockFd = fd;
    sendSegmentsAtOnce(fd);
    LVX_CHECK(conn.setNodeName(peer));
    return true;
}

bool vxNetSocket::setNodeName(const sockaddr_in& address)
{
    char text[INET_ADDRSTRLEN] = "";
    (void)inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    nodeName = text;
    return true;
}

bool vxNetSocket::setNodeName(const sockaddr_in6& /*address*/)
{
    nodeName = LVX_MSG_IPV6_NAME;
    return false; // quiet: IPv6 peers have no name yet
}

bool vxNetSocket::dumpSocketInfo()
{
    int family = 0;
    int socketType = 0;
    int protocol = 0;
    std::vector<unsigned char> address;
    if (aitop != nullptr) {
        family = aitop->ai_family;
        socketType = aitop->ai_socktype;
        protocol = aitop->ai_protocol;
        const auto* first = reinterpret_cast<const unsigned char*>(aitop->ai_addr);
        address.assign(first, first + aitop->ai_addrlen);
    }
    // Rendered apart, so no flag of the caller's stream changes a line.
    std::ostringstream out;
    out << "origin: " << (origin ? 1 : 0) << "\ndoDisconnect: " << (doDisconnect ? 1 : 0)
        << "\nsoMode: " << static_cast<char>(soMode) << "\nsockFd: " << sockFd
        << "\nconnectTimeout: " << connectTimeout << "\nwakeupFd: " << wakeupFd
        << "\nsoPort: " << soPort << "\nsoSecret: " << soSecret << "\nsoAddress: " << soAddress
        << "\nnodeName: " << nodeName << "\nsoTimeout: " << soTimeout
        << "\naitop info: family: " << family << " socktype: " << socketType
        << " protocol: " << protocol << "\naitop info: ai_addr: " << hexString(address).text
        << " ai_addrlen: " << address.size() << '\n';
    std::cout << out.str() << std::flush;
    return true;
}

bool vxNetSocket::createWakeupFd(uint32_t& writeEnd)
{
    int ends[2] = {-1, -1};
    if (pipe(ends) != 0) {
        return false; // quiet: the caller judges a missing pipe
    }
    wakeupFd = ends[0];
    writeEnd = static_cast<uint32_t>(ends[1]);
    return true;
}

bool vxNetSocket::SendPlaintext(const vxBytes& v)
{
    LVX_GUARD();
    if (doDisconnect) {
        return false; // quiet: the peer is gone; the receive already said so
    }
    LVX_CHECK(v.ExportToC(VX_MAX_PACKET_SIZE, packetBuffer.get()));
    ssize_t sent = 0;
    uint32_t pipeRetries = 0;
    do {
        sent = send(sockFd, packetBuffer.get(), v.bytes.size(), MSG_NOSIGNAL);
        // EPIPE is retried, but a connection the peer reset stays broken and would answer every
        // retry with it: a few tries, then the short send below reports it.
    } while (sent == -1 &&
             (errno == EINTR || errno == EAGAIN || (errno == EPIPE && ++pipeRetries < kPipeTries)));
    LVX_ENSURE(sent == static_cast<ssize_t>(v.bytes.size()), LVX_MSG_SHORT_SEND);
    return true;
}

bool vxNetSocket::waitFirstReadiness()
{
    pollfd fds[1] = {{sockFd, POLLIN, 0}};
    const int ready = waitReadable(fds, 1, secondsToMillis(soTimeout));
    LVX_GUARD_LATCH();
    LVX_ENSURE(ready == 1, LVX_MSG_SELECT_TIMEOUT);
    return true;
}

bool vxNetSocket::takeWakeup()
{
    unsigned char byte = 0;
    while (read(wakeupFd, &byte, 1) == -1 && (errno == EAGAIN || errno == EINTR)) {
    }
    wakeupSeen = true;
    return true;
}

bool vxNetSocket::RecvPlaintext(uint32_t size, vxBytes& bytes)
{
    LVX_GUARD();
    LVX_ENSURE(size >= 1, LVX_MSG_RECV_EMPTY);
    LVX_ENSURE(size <= VX_MAX_PACKET_SIZE, LVX_MSG_RECV_TOO_BIG);
    wakeupSeen = false;
    if (soTimeout != 0) {
        LVX_CHECK(waitFirstReadiness());
    }
    for (;;) {
        // A wake-up wins over data, so with a wake-up pipe both are waited for first. Without
        // one the wait would only precede the receive: the receive goes first, and the socket
        // is waited for only when it had nothing (a non-blocking one), which saves a system
        // call per block whenever the bytes are already there.
        if (wakeupFd != 0) {
            pollfd fds[2] = {{sockFd, POLLIN, 0}, {wakeupFd, POLLIN, 0}};
            (void)waitReadable(fds, 2, -1);
            if (fds[1].revents != 0) {
                return takeWakeup();
            }
        }
        errno = 0;
        const ssize_t got = recv(sockFd, packetBuffer.get(), size, MSG_WAITALL | MSG_NOSIGNAL);
        if (got == -1 && (errno == EAGAIN || errno == EINTR)) {
            if (wakeupFd == 0 && errno == EAGAIN) {
                pollfd fds[1] = {{sockFd, POLLIN, 0}};
                (void)waitReadable(fds, 1, -1);
            }
            continue;
        }
        if (got == -1 || got == 0) {
            doDisconnect = true; // closed by the peer, or failed for good
            return true;
        }
        LVX_ENSURE(got == static_cast<ssize_t>(size), LVX_MSG_SHORT_BLOCK);
        LVX_CHECK(bytes.ImportFromC(size, packetBuffer.get()));
        return true;
    }
}

bool vxNetSocket::GetSocketFd(int32_t& fd)
{
    LVX_GUARD();
    fd = sockFd;
    return true;
}

bool vxNetSocket::GetNodeName(std::string& peerName)
{
    LVX_GUARD();
    peerName = nodeName;
    return true;
}

LVX_DEFINE_LIFECYCLE(vxNetSockoptProperties)

bool vxNetSockoptProperties::Open()
{
    return true;
}

bool vxNetSockoptProperties::Close()
{
    value.reset();
    return true;
}

bool vxNetSockoptProperties::Set(int32_t optionLevel, int32_t optionName, const void* optionValue,
                                 uint32_t length)
{
    level = optionLevel;
    name = optionName;
    len = length;
    value.reset();
    if (length == 0) {
        return true;
    }
    // NOLINTNEXTLINE(modernize-make-unique): an allocation failure is a result, not an exception
    value.reset(new (std::nothrow) unsigned char[length]());
    if (!value) {
        return false; // quiet: the caller judges a failed allocation
    }
    if (optionValue != nullptr) {
        std::memcpy(value.get(), optionValue, length);
    }
    return true;
}

bool vxNetSockoptProperties::Apply(int32_t fd)
{
    return setsockopt(fd, level, name, value.get(), len) == 0;
}

namespace {

constexpr uint32_t kCmdDisconnect = 1;
constexpr uint32_t kCmdReKeyRequest = 2;
/** The bytes a receiver reads and drops after a command header. */
constexpr uint32_t kCommandTrailer = 16;
/** What a sent disconnect command counts in the statistics. */
constexpr uint32_t kCommandCountedBytes = 64;

struct modeName
{
    const char* text;
    uint32_t number;
};

#define VX_MODE_NAME(identifier, id, name, bytes) {name, id},
constexpr modeName kCipherModes[] = {VX_CIPHER_ALGORITHMS(VX_MODE_NAME)};
constexpr modeName kHashModes[] = {VX_DIGEST_ALGORITHMS(VX_MODE_NAME)};
#undef VX_MODE_NAME

template <size_t N>
bool modeNumber(const modeName (&table)[N], const std::string& text, uint32_t& number)
{
    for (const modeName& mode : table) {
        if (text == mode.text) {
            number = mode.number;
            return true;
        }
    }
    return false; // quiet: unknown names are the caller's to judge
}

} // namespace

LVX_DEFINE_LIFECYCLE(vxNetEncryptedSocket)

bool vxNetEncryptedSocket::Open(const std::string& cipherMode, const std::string& hashMode,
                                vxNetSocket* plain)
{
    uint32_t cipherNumber = 0;
    uint32_t hashNumber = 0;
    if (!modeNumber(kCipherModes, cipherMode, cipherNumber) ||
        !modeNumber(kHashModes, hashMode, hashNumber)) {
        return false; // quiet: an unknown mode name
    }
    LVX_CALL_OPEN(cipherId, cipherNumber);
    LVX_CALL_OPEN(hashId, hashNumber);
    LVX_CALL_OPEN(keys, cipherId, plain->origin);
    LVX_CALL_OPEN(workBuffer);
    LVX_CALL_OPEN(bodyBuffer);
    LVX_CALL_OPEN(stats);
    LVX_CALL_OPEN(header, plain->origin);
    socket = plain;
    return true;
}

bool vxNetEncryptedSocket::Open(const std::string& cipherMode, vxNetSocket* plain)
{
    return Open(cipherMode, "md5", plain);
}

bool vxNetEncryptedSocket::Close()
{
    LVX_CALL_CLOSE(header);
    LVX_CALL_CLOSE(cipherId);
    LVX_CALL_CLOSE(hashId);
    LVX_CALL_CLOSE(keys);
    LVX_CALL_CLOSE(stats);
    LVX_CALL_CLOSE(workBuffer);
    LVX_CALL_CLOSE(bodyBuffer);
    return true;
}

bool vxNetEncryptedSocket::SendEncrypted(const vxBytes& payload)
{
    LVX_GUARD();
    LVX_CHECK(header.CreateFromPayload(keys, payload));
    workBuffer.bytes.clear();
    bodyBuffer.bytes.clear();
    LVX_CHECK(workBuffer.CopyBack(payload));
    LVX_CHECK(header.GetBodyPadding(bodyBuffer));
    LVX_CHECK(workBuffer.CopyBack(bodyBuffer));
    LVX_CHECK(keys.Encrypt(workBuffer, bodyBuffer));
    workBuffer.bytes.clear();
    LVX_CHECK(header.GetEncryptedHeader(workBuffer));
    LVX_CHECK(socket->SendPlaintext(workBuffer));
    LVX_CHECK(socket->SendPlaintext(bodyBuffer));
    LVX_CHECK(stats.UpdateSendStats(workBuffer));
    LVX_CHECK(stats.UpdateSendStats(bodyBuffer));
    return ProcessReKey();
}

bool vxNetEncryptedSocket::RecvEncrypted(vxBytes& bytes)
{
    LVX_GUARD();
    header.Clear();
    LVX_CHECK(header.ReadFromWire(keys, socket));
    if (socket->wakeupSeen) {
        return true;
    }
    workBuffer.bytes.clear();
    bodyBuffer.bytes.clear();
    uint32_t padded = 0;
    LVX_CHECK(header.GetSizeWithPadding(padded));
    if ((padded >> 16U) == (kCommandMark >> 16U)) {
        LVX_CHECK(ProcessCommandPacket(padded));
        return true;
    }
    LVX_CHECK(socket->RecvPlaintext(padded, workBuffer));
    if (socket->wakeupSeen) {
        return true;
    }
    LVX_CHECK(keys.Decrypt(workBuffer, bodyBuffer));
    workBuffer.bytes.clear();
    LVX_CHECK(keys.chain.GetMagic(workBuffer));
    LVX_CHECK(header.ValidateHmacBody(workBuffer, bodyBuffer));
    bytes.bytes.clear();
    uint32_t payloadSize = 0;
    LVX_CHECK(header.GetPayloadSize(payloadSize));
    LVX_CHECK(bytes.CopyOffsets(0, payloadSize, bodyBuffer));
    LVX_CHECK(header.GetSizeWithPadding(padded));
    LVX_CHECK(stats.UpdateRecvStats(padded));
    return true;
}

bool vxNetEncryptedSocket::SendClientDisconnect()
{
    LVX_GUARD();
    LVX_CHECK(header.CreateCmdMessage(kCmdDisconnect, keys, socket));
    LVX_CHECK(stats.UpdateSendStats(kCommandCountedBytes));
    return true;
}

bool vxNetEncryptedSocket::ProcessCommandPacket(uint32_t sizeField)
{
    LVX_GUARD_LATCH();
    // The sender writes nothing after a command header; these 16 bytes come from the peer's
    // next packet or never (its close, a time-out or the wake-up pipe end the wait).
    LVX_CHECK(socket->RecvPlaintext(kCommandTrailer, workBuffer));
    if (socket->wakeupSeen) {
        return true;
    }
    workBuffer.bytes.clear();
    // The receiver rounded the hidden kCommandMark | code up to a multiple of 16: codes 1 to 16
    // all read back as 1 here.
    const uint32_t code = (sizeField - 15U) & 0xFFFFU;
    if (code == kCmdDisconnect) {
        socket->doDisconnect = true;
        return true;
    }
    if (code == kCmdReKeyRequest) {
        std::cout << LVX_MSG_REKEY_REQUEST << std::endl;
        return true;
    }
    std::cout << LVX_MSG_UNKNOWN_CMD << std::endl;
    return false; // recorded: by RecvEncrypted, which received the command
}

bool vxNetEncryptedSocket::ProcessReKey()
{
    // The policy is consulted on every send, but no re-exchange is ever started from here.
    (void)stats.NeedReKey();
    return true;
}

} // namespace veltrix
