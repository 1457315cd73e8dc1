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

bool listenOnLoopback(testFrame& frame, veltrix::vxNetServer& server, const std::string& cipher,
                      const std::string& hash, std::string& port)
{
    const bool listening = frame.open(server) && server.SetCipherMode(cipher) &&
                           server.SetHashMode(hash) && server.socket.setPort("0") &&
                           server.socket.setAddress("127.0.0.1") && server.socket.BindAndListen();
    port = listening ? boundPort(server.socket.sockFd) : "";
    return !port.empty();
}

bool connectOnLoopback(testFrame& frame, veltrix::vxNetClient& client, const std::string& port,
                       const std::string& cipher, const std::string& hash)
{
    return frame.open(client) && client.socket.setPort(port) &&
           client.socket.setAddress("127.0.0.1") && client.Connect() &&
           frame.open(client.encryptedSocket, cipher, hash, &client.socket);
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
        (void)testFrame::close(object);
    }
}

void closeClient(veltrix::vxNetClient& end)
{
    closeIfOpen(end.encryptedSocket);
    closeIfOpen(end);
}

} // namespace vxtest
