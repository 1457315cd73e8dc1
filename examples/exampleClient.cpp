// vxexample-client: connects to vxexample-server, proves that it holds the same secret, sends
// each message given on its command line and prints the server's reply, then disconnects.
//
//   vxexample-client [options] PORT MESSAGE...
#include "exampleCommon.h"

#include <veltrix/network.h>
#include <veltrix/vxNetClient.h>

#include <iostream>
#include <string>
#include <vector>

namespace {

const char* const usage = "usage: vxexample-client [options] PORT MESSAGE...\n"
                          "Connects to vxexample-server on PORT, sends each MESSAGE and prints\n"
                          "the reply, then disconnects.\n";

class client : public example::exampleEnd
{
public:
    client(example::settings chosen, std::string serverPort, std::vector<std::string> toSend)
        : exampleEnd(std::move(chosen)), port(std::move(serverPort)), messages(std::move(toSend))
    {}

    bool main(int /*argc*/, char** /*argv*/) override
    {
        LVX_CALL_OPEN(connection);
        // The port must be set before the address: the address is resolved together with it.
        if (!loadPlugin() || !connection.socket.setPort(port) ||
            !connection.socket.setAddress(config.address) || !connection.Connect()) {
            return false;
        }
        // The encrypted socket is the application's to open, on the connected socket, and to
        // close before the client.
        LVX_CALL_OPEN(connection.encryptedSocket, config.cipherMode, config.hashMode,
                      &connection.socket);
        if (!connection.PerformKeyExchange(example::bytesOf(config.secret))) {
            return false;
        }
        std::cout << "connected to " << example::endpoint(config.address, port)
                  << "; handshake done" << std::endl;
        // After the disconnect command the server waits until this socket closes, so the client
        // is closed right after it.
        return talk() && connection.SendClientDisconnect() &&
               closeChild(connection.encryptedSocket) && closeChild(connection);
    }

private:
    bool talk()
    {
        veltrix::vxBytes reply;
        for (const std::string& text : messages) {
            if (!connection.encryptedSocket.SendEncrypted(example::bytesOf(text))) {
                return false;
            }
            // Each message gets exactly one reply; the server sends nothing else.
            reply.bytes.clear();
            if (!connection.encryptedSocket.RecvEncrypted(reply)) {
                return false;
            }
            if (connection.socket.doDisconnect) {
                recordEvent(__func__, __FILE__, __LINE__, "the server ended the session");
                return false;
            }
            std::cout << "sent \"" << text << "\", reply \"" << example::textOf(reply) << "\""
                      << std::endl;
        }
        return true;
    }

    veltrix::vxNetClient connection;
    std::string port;
    std::vector<std::string> messages;
};

} // namespace

int main(int argc, char** argv)
{
    example::settings chosen = example::parseOptions(argc, argv, usage);
    if (chosen.operands.size() < 2) {
        std::cerr << usage;
        return example::usageStatus;
    }
    const std::string port = chosen.operands.front();
    const std::vector<std::string> messages(chosen.operands.begin() + 1, chosen.operands.end());
    // The receiver of an empty message fails, and a message holds at most one packet.
    for (const std::string& text : messages) {
        if (text.empty() || text.size() > veltrix::VX_MAX_PACKET_SIZE) {
            std::cerr << "vxexample-client: a message must have 1 to "
                      << veltrix::VX_MAX_PACKET_SIZE << " bytes\n";
            return example::usageStatus;
        }
    }
    client app(std::move(chosen), port, messages);
    return example::finish(app.InitAndRun("vxexample-client", "1.0", argc, argv),
                           "vxexample-client");
}
