// A local socket pair between the library's socket and the connection's driver.
#include "packetPipe.h"

#include "network.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace veltrix::engine {

packetPipe::packetPipe(int& librarySide)
{
    int pair[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) != 0) {
        throw failure("cannot set up a packet pipe: " + errnoText());
    }
    librarySide = pair[0];
    outer = pair[1];
}

packetPipe::packetPipe(int& librarySide, int& moved)
{
    int pair[2] = {-1, -1};
    moved = fcntl(librarySide, F_DUPFD_CLOEXEC, 0);
    if (moved < 0 ||
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) != 0 ||
        dup2(pair[0], librarySide) < 0) {
        throw failure("cannot set up a packet pipe: " + errnoText());
    }
    (void)close(pair[0]);
    outer = pair[1];
}

packetPipe::~packetPipe()
{
    (void)close(outer);
}

void packetPipe::drain(byteQueue& out) const
{
    if (drainInto(outer, out) == ioResult::failed) {
        throw failure("a packet pipe failed: " + errnoText());
    }
}

void packetPipe::drain(byteQueue& out, size_t count) const
{
    // The library's send has completed, so all of it is there: one read takes it.
    unsigned char packet[VX_HEADER_WIRE_SIZE + VX_MAX_PACKET_SIZE];
    size_t got = 0;
    if (count > sizeof packet || readInto(outer, packet, count, got) != ioResult::progress ||
        got != count) {
        throw failure("a packet pipe failed: " + errnoText());
    }
    out.append(packet, got);
}

void packetPipe::feed(const unsigned char* bytes, size_t count) const
{
    // The pair is empty and holds far more than a packet, so the write is whole or failed.
    if (write(outer, bytes, count) != static_cast<ssize_t>(count)) {
        throw failure("a packet pipe failed: " + errnoText());
    }
}

void packetPipe::endFeed() const
{
    (void)shutdown(outer, SHUT_WR);
}

} // namespace veltrix::engine
