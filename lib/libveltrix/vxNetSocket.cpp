// The plain TCP socket: fixed-size blocks in the clear.
#include "vxNetSocket.h"

#include "vxGuard.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace veltrix {

namespace {

constexpr uint32_t kDefaultBacklog = 10;
constexpr uint8_t kKeyExchangeMode = 2;
constexpr int kMillisPerSecond = 1000;

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

} // namespace

LVX_DEFINE_LIFECYCLE(vxNetSocket)

bool vxNetSocket::Open(bool isOrigin)
{
    LVX_GUARD_LATCH();
    if (opened) {
        LVX_FAIL(LVX_MSG_EXPECTED_CLOSED, initLine, static_cast<int>(openLine));
    }
    aitop = nullptr;
    sockFd = -1;
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
    if (aitop != nullptr) {
        freeaddrinfo(aitop);
        aitop = nullptr;
    }
    packetBuffer.reset();
    if (sockFd != -1) {
        (void)shutdown(sockFd, SHUT_RDWR);
        (void)close(sockFd);
        sockFd = -1;
    }
    return true;
}

bool vxNetSocket::setPort(const std::string& port)
{
    soPort = port;
    return true;
}

bool vxNetSocket::setSecret(const std::string& secret)
{
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
    do {
        sent = send(sockFd, packetBuffer.get(), v.bytes.size(), MSG_NOSIGNAL);
    } while (sent == -1 && (errno == EINTR || errno == EAGAIN || errno == EPIPE));
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
        pollfd fds[2] = {{sockFd, POLLIN, 0}, {wakeupFd, POLLIN, 0}};
        (void)waitReadable(fds, wakeupFd != 0 ? 2 : 1, -1);
        if (wakeupFd != 0 && fds[1].revents != 0) {
            return takeWakeup();
        }
        errno = 0;
        const ssize_t got = recv(sockFd, packetBuffer.get(), size, MSG_WAITALL | MSG_NOSIGNAL);
        if (got == -1 && (errno == EAGAIN || errno == EINTR)) {
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

} // namespace veltrix
