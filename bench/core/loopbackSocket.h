// TCP on 127.0.0.1 for the measurements that run through sockets. POSIX only, so that a driver
// that links nothing of the library shares it too.
#pragma once

#include <netinet/in.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

namespace vxbench {

/** 127.0.0.1:`port`. */
sockaddr_in loopbackAddress(uint16_t port);

/** The local port `fd` is bound to, into `port`; false (errno says why) when it cannot be read. */
bool readLocalPort(int fd, uint16_t& port);

/** The local port `fd` is bound to; throws Failure("<what>: <the system's reason>") when it
 *  cannot be read. Each program reports through its own failure type. */
template <class Failure> uint16_t localPort(int fd, const char* what)
{
    uint16_t port = 0;
    if (!readLocalPort(fd, port)) {
        const int reason = errno;
        throw Failure(std::string(what) + ": " + std::strerror(reason));
    }
    return port;
}

/** Small segments sent at once: a 1-byte round trip must not wait for more. */
void setNoDelay(int fd);

} // namespace vxbench
