#include "vxLoopback.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <thread>

namespace vxtest {

std::string boundPort(int fd)
{
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
        return "";
    }
    return std::to_string(ntohs(bound.sin_port));
}

bool readableWithin(int fd, int seconds)
{
    pollfd watched{fd, POLLIN, 0};
    return poll(&watched, 1, seconds * 1000) == 1;
}

bool openOnSocketPair(testFrame& frame, veltrix::vxNetSocket& serverEnd,
                      veltrix::vxNetSocket& clientEnd)
{
    int fds[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        return false;
    }
    // Each descriptor is the socket's from here on, closed with it.
    const bool opened = frame.openChild(serverEnd, true) && frame.openChild(clientEnd, false);
    serverEnd.sockFd = fds[0];
    clientEnd.sockFd = fds[1];
    return opened;
}

bool listenOnLoopback(testFrame& frame, veltrix::vxNetServer& server, const std::string& cipher,
                      const std::string& hash, std::string& port)
{
    const bool listening = frame.openChild(server) && server.SetCipherMode(cipher) &&
                           server.SetHashMode(hash) && server.socket.setPort("0") &&
                           server.socket.setAddress("127.0.0.1") && server.socket.BindAndListen();
    port = listening ? boundPort(server.socket.sockFd) : "";
    return !port.empty();
}

bool connectOnLoopback(testFrame& frame, veltrix::vxNetClient& client, const std::string& port,
                       const std::string& cipher, const std::string& hash)
{
    return frame.openChild(client) && client.socket.setPort(port) &&
           client.socket.setAddress("127.0.0.1") && client.Connect() &&
           frame.openChild(client.encryptedSocket, cipher, hash, &client.socket);
}

bool handshakeBoth(veltrix::vxNetServer& server, veltrix::vxNetClient& client,
                   const std::string& serverSecret, const std::string& clientSecret)
{
    bool accepted = false;
    std::thread acceptor([&] {
        accepted = readableWithin(server.socket.sockFd, 10) &&
                   server.acceptNewManagedClient(bytesOf(serverSecret));
    });
    const bool keyed = client.PerformKeyExchange(bytesOf(clientSecret));
    acceptor.join();
    return accepted && keyed;
}

void closeIfOpen(veltrix::vxBase& object)
{
    if (object.opened) {
        (void)testFrame::closeChild(object);
    }
}

void closeClient(veltrix::vxNetClient& end)
{
    closeIfOpen(end.encryptedSocket);
    closeIfOpen(end);
}

void loopbackTest::TearDown()
{
    veltrix::vxBase::lvxClearLastError();
    closeClient(client);
    closeIfOpen(server);
    vxCryptoTest::TearDown();
}

} // namespace vxtest
