#include "loopbackSocket.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

namespace vxbench {

sockaddr_in loopbackAddress(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool readLocalPort(int fd, uint16_t& port)
{
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
        return false;
    }
    port = ntohs(bound.sin_port);
    return true;
}

void setNoDelay(int fd)
{
    const int one = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

} // namespace vxbench
