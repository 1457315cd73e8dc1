// vxsession: a live encrypted session between two processes on loopback.
//
// The server process binds 127.0.0.1 on a port the system picks and starts the client process.
// The client connects; both ends prove that they know the shared secret and key the session
// from fresh challenges; the client sends a few messages and the server answers each; each end
// prints its traffic statistics; the client sends the disconnect command and closes, and the
// server prunes the finished connection.
//
//   vxsession [plug-in directory] [cipher mode] [hash mode]
//
// Cipher modes: none, aes128, aes192, aes256. The handshake needs a 16-byte digest: md5 or
// sha256-128.
#include "selectSet.h"
#include "vxMain.h"
#include "vxNetClient.h"
#include "vxNetServer.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>
#include <string>

using namespace veltrix;

namespace {

const char* const sharedSecret = "a secret both ends were given beforehand";
const char* const clientMessages[] = {"hello from the client", "a second message",
                                      "and a last one before we part"};
/** Seconds the server waits for the client to connect. */
constexpr uint32_t acceptWaitSeconds = 10;

struct sessionSettings
{
    std::string pluginDir;
    std::string cipherMode;
    std::string hashMode;
};

vxBytes bytesOf(const std::string& text)
{
    vxBytes bytes;
    (void)bytes.Replace(text);
    return bytes;
}

/** What both ends share: the plug-in, the settings, closing under the protocol. */
class sessionEnd : public vxMain
{
public:
    explicit sessionEnd(sessionSettings chosen) : settings(std::move(chosen)) {}

protected:
    bool loadPlugin()
    {
        api.setSearchPath(settings.pluginDir);
        return LoadPlugin("openssl");
    }

    sessionSettings settings;
};

class serverEnd : public sessionEnd
{
public:
    serverEnd(sessionSettings chosen, int portOut)
        : sessionEnd(std::move(chosen)), portPipe(portOut)
    {}

    bool main(int /*argc*/, char** /*argv*/) override
    {
        LVX_CALL_OPEN(server);
        return loadPlugin() && listen() && serveOneClient() && closeChild(server);
    }

private:
    bool listen()
    {
        // Port "0": the system picks a free port, which goes to the client through the pipe.
        if (!server.SetCipherMode(settings.cipherMode) || !server.SetHashMode(settings.hashMode) ||
            !server.socket.setPort("0") || !server.socket.setAddress("127.0.0.1") ||
            !server.socket.BindAndListen()) {
            return false;
        }
        sockaddr_in bound{};
        socklen_t length = sizeof bound;
        if (getsockname(server.socket.sockFd, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
            return false;
        }
        const std::string port = std::to_string(ntohs(bound.sin_port));
        std::cout << "[server] listening on 127.0.0.1:" << port << " (" << settings.cipherMode
                  << ", " << settings.hashMode << ")" << std::endl;
        const bool told =
            write(portPipe, port.c_str(), port.size()) == static_cast<ssize_t>(port.size());
        (void)::close(portPipe); // the end of the text for the client
        return told;
    }

    bool serveOneClient()
    {
        // The listening socket is non-blocking: wait until a connection is pending.
        oxel::selectSet pending;
        pending.addFd(static_cast<uint32_t>(server.socket.sockFd));
        pending.timeoutSeconds = acceptWaitSeconds;
        if (pending.doSelect() != 1 || !server.acceptNewManagedClient(bytesOf(sharedSecret))) {
            return false;
        }
        vxNetConnectedClient& peer = *server.connectedClients.back();
        std::cout << "[server] handshake done with " << peer.socket.nodeName << std::endl;
        vxBytes message;
        for (;;) {
            if (!peer.encryptedSocket.RecvEncrypted(message)) {
                return false;
            }
            if (peer.socket.doDisconnect) {
                break; // the client sent the disconnect command
            }
            std::string text; // the peer's bytes, printable characters only
            (void)message.ExportToString(text);
            std::cout << "[server] received \"" << text << "\"" << std::endl;
            if (!peer.encryptedSocket.SendEncrypted(
                    bytesOf("got " + std::to_string(message.bytes.size()) + " bytes"))) {
                return false;
            }
        }
        std::cout << "[server] the client disconnected; statistics of its connection:" << std::endl;
        (void)peer.encryptedSocket.stats.Display();
        (void)server.pruneCClist();
        std::cout << "[server] after the prune:" << std::endl;
        return server.DumpvxNetServerInfo();
    }

    vxNetServer server;
    int portPipe;
};

class clientEnd : public sessionEnd
{
public:
    clientEnd(sessionSettings chosen, std::string serverPort)
        : sessionEnd(std::move(chosen)), port(std::move(serverPort))
    {}

    bool main(int /*argc*/, char** /*argv*/) override
    {
        LVX_CALL_OPEN(client);
        // The port is set before the address: the address is resolved with it.
        if (!loadPlugin() || !client.socket.setPort(port) ||
            !client.socket.setAddress("127.0.0.1") || !client.Connect()) {
            return false;
        }
        LVX_CALL_OPEN(client.encryptedSocket, settings.cipherMode, settings.hashMode,
                      &client.socket);
        const bool talked = client.PerformKeyExchange(bytesOf(sharedSecret)) && talk();
        // After the disconnect command, close at once: the server waits for this socket to close.
        return talked && client.SendClientDisconnect() && closeChild(client.encryptedSocket) &&
               closeChild(client);
    }

private:
    bool talk()
    {
        std::cout << "[client] handshake done" << std::endl;
        vxBytes reply;
        for (const char* text : clientMessages) {
            std::cout << "[client] sending \"" << text << "\"" << std::endl;
            if (!client.encryptedSocket.SendEncrypted(bytesOf(text)) ||
                !client.encryptedSocket.RecvEncrypted(reply)) {
                return false;
            }
            std::string answer;
            (void)reply.ExportToString(answer);
            std::cout << "[client] reply \"" << answer << "\"" << std::endl;
        }
        std::cout << "[client] statistics:" << std::endl;
        return client.encryptedSocket.stats.Display();
    }

    vxNetClient client;
    std::string port;
};

/** The port text the server writes into the pipe; empty when the server failed first. */
std::string readPort(int fd)
{
    std::string port;
    char digits[16] = {};
    ssize_t got = 0;
    while ((got = read(fd, digits, sizeof digits)) > 0) {
        port.append(digits, static_cast<size_t>(got));
    }
    return port;
}

int finish(bool ok, const char* who)
{
    if (!ok) {
        std::cout << "[" << who << "] failed; the error trail:" << std::endl;
        vxBase::DumpStackTrace(std::cout);
    }
    return ok ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    const sessionSettings settings{argc > 1 ? argv[1] : VX_PLUGIN_DIR,
                                   argc > 2 ? argv[2] : "aes256", argc > 3 ? argv[3] : "md5"};
    int portPipe[2] = {-1, -1};
    if (pipe(portPipe) != 0) {
        std::cerr << "vxsession: cannot create a pipe\n";
        return 1;
    }
    const pid_t clientPid = fork();
    if (clientPid == 0) {
        (void)close(portPipe[1]);
        clientEnd client(settings, readPort(portPipe[0]));
        return finish(client.InitAndRun("vxsession-client", "2.0", argc, argv), "client");
    }
    (void)close(portPipe[0]);
    int serverStatus = 1;
    {
        // The server closes the pipe once it has written the port; a server that fails
        // before that leaves it to the process exit, and the client reads no port.
        serverEnd server(settings, portPipe[1]);
        serverStatus = finish(server.InitAndRun("vxsession-server", "2.0", argc, argv), "server");
    }
    int clientStatus = 1;
    if (clientPid < 0 || waitpid(clientPid, &clientStatus, 0) != clientPid) {
        return 1;
    }
    const bool bothDone =
        serverStatus == 0 && WIFEXITED(clientStatus) && WEXITSTATUS(clientStatus) == 0;
    std::cout << (bothDone ? "vxsession finished." : "vxsession failed.") << std::endl;
    return bothDone ? 0 : 1;
}
