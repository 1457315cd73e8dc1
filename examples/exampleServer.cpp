// vxexample-server: accepts one client on an encrypted session and answers each of its messages
// with the message upper-cased, until the client sends the disconnect command.
//
//   vxexample-server [options] [PORT]
//
// Without PORT (or with 0) the system picks a free port. Once listening, the server prints
// "listening on ADDRESS:PORT (CIPHER, HASH)", so that whoever starts the client learns the port.
#include "exampleCommon.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <veltrix/vxNetServer.h>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <string>

namespace {

const char* const usage = "usage: vxexample-server [options] [PORT]\n"
                          "Accepts one client, upper-cases each of its messages back to it, and\n"
                          "exits once it disconnects. Without PORT the system picks one.\n";

/** How long the server waits for its client to connect. */
constexpr int acceptWaitSeconds = 60;

class server : public example::exampleEnd
{
public:
    server(example::settings chosen, std::string listenPort)
        : exampleEnd(std::move(chosen)), port(std::move(listenPort))
    {}

    bool main(int /*argc*/, char** /*argv*/) override
    {
        LVX_CALL_OPEN(listener);
        return loadPlugin() && listen() && serveOneClient() && closeChild(listener);
    }

private:
    bool listen()
    {
        // The modes are stored here and used for every connection accepted. The port must be set
        // before the address: the address is resolved together with the port.
        if (!listener.SetCipherMode(config.cipherMode) || !listener.SetHashMode(config.hashMode) ||
            !listener.socket.setPort(port) || !listener.socket.setAddress(config.address) ||
            !listener.socket.BindAndListen()) {
            return false;
        }
        // With port 0 the system picked one: ask the socket which.
        sockaddr_storage bound{};
        auto* address = reinterpret_cast<sockaddr*>(&bound);
        socklen_t length = sizeof bound;
        char boundPort[NI_MAXSERV] = "";
        const bool portKnown = getsockname(listener.socket.sockFd, address, &length) == 0 &&
                               getnameinfo(address, length, nullptr, 0, boundPort, sizeof boundPort,
                                           NI_NUMERICSERV) == 0;
        if (!portKnown) {
            recordEvent(__func__, __FILE__, __LINE__, "cannot tell the listener's port");
            return false;
        }
        std::cout << "listening on " << example::endpoint(config.address, boundPort) << " ("
                  << config.cipherMode << ", " << config.hashMode << ")" << std::endl;
        return true;
    }

    /** The listening socket is non-blocking, and an accept with no connection pending fails
     *  (and latches): wait until it is readable first. */
    bool waitForClient()
    {
        pollfd pending{listener.socket.sockFd, POLLIN, 0};
        const int ready = poll(&pending, 1, acceptWaitSeconds * 1000);
        if (ready == 0) {
            recordEvent(__func__, __FILE__, __LINE__, "no client connected within %d s",
                        acceptWaitSeconds);
        } else if (ready < 0) {
            recordEvent(__func__, __FILE__, __LINE__, "poll() on the listener failed");
        }
        return ready == 1;
    }

    bool serveOneClient()
    {
        // Accepting runs the handshake: the connection is keyed when this returns true.
        if (!waitForClient() || !listener.acceptNewManagedClient(example::bytesOf(config.secret))) {
            return false;
        }
        veltrix::vxNetConnectedClient& peer = *listener.connectedClients.back();
        std::cout << "a client connected; handshake done" << std::endl;
        veltrix::vxBytes message;
        for (;;) {
            message.bytes.clear(); // a receive that brings no message leaves the buffer as it was
            if (!peer.encryptedSocket.RecvEncrypted(message)) {
                return false;
            }
            if (peer.socket.doDisconnect) {
                break; // the client sent the disconnect command
            }
            // No bytes and no disconnect: a command that carries no message (a key re-exchange
            // request). A message is never empty: an empty payload cannot be received.
            if (message.bytes.empty()) {
                continue;
            }
            std::string text = example::textOf(message);
            std::cout << "received \"" << text << "\"" << std::endl;
            std::transform(text.begin(), text.end(), text.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
            if (!peer.encryptedSocket.SendEncrypted(example::bytesOf(text))) {
                return false;
            }
        }
        // Pruning closes and destroys every connection that ended. It always returns false.
        (void)listener.pruneCClist();
        std::cout << "client disconnected; connections left: " << listener.connectedClients.size()
                  << std::endl;
        if (!listener.connectedClients.empty()) {
            recordEvent(__func__, __FILE__, __LINE__, "the prune left the connection listed");
            return false;
        }
        return true;
    }

    veltrix::vxNetServer listener;
    std::string port;
};

} // namespace

int main(int argc, char** argv)
{
    example::settings chosen = example::parseOptions(argc, argv, usage);
    if (chosen.operands.size() > 1) {
        std::cerr << usage;
        return example::usageStatus;
    }
    const std::string port = chosen.operands.empty() ? "0" : chosen.operands.front();
    server app(std::move(chosen), port);
    return example::finish(app.InitAndRun("vxexample-server", "1.0", argc, argv),
                           "vxexample-server");
}
