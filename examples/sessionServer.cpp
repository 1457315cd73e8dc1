// vxexample-session-server: serves many clients at once with the session layer, answering each
// message with the message upper-cased. A client that fails (a wrong secret, a crash, silence)
// ends its own session only; the server prints why and goes on.
//
//   vxexample-session-server SECRET_FILE [PORT [SESSIONS]]
//
// Without PORT (or with 0) the system picks one; the server prints "listening on
// 127.0.0.1:PORT (aes256, md5)". It runs until SIGINT or SIGTERM, or until SESSIONS sessions
// have ended. The plug-in is found beside the installed library, or in $VELTRIX_PLUGIN_DIR.
#include <veltrix/session.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

namespace {

namespace vs = veltrix::session;

vs::server* running = nullptr;

extern "C" void stopServer(int /*signal*/)
{
    if (running != nullptr) {
        running->stop(); // safe in a signal handler: a flag and a one-byte write
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 4) {
        std::cerr << "usage: vxexample-session-server SECRET_FILE [PORT [SESSIONS]]\n";
        return 2;
    }
    const std::string port = argc > 2 ? argv[2] : "0";
    const unsigned long sessions = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 0;
    try {
        const vs::context plugin;
        vs::server server(plugin, vs::secret::fromFile(argv[1]));
        unsigned long ended = 0;
        server.onOpen = [](vs::connection& session) {
            std::cout << "session " << session.id() << " from " << session.peer() << ": open"
                      << std::endl;
        };
        server.onMessage = [](vs::connection& session, const vs::bytes& message) {
            vs::bytes reply(message);
            std::transform(reply.begin(), reply.end(), reply.begin(),
                           [](unsigned char c) { return std::toupper(c); });
            session.send(reply);
        };
        server.onEnd = [&](vs::connection& session, const vs::error* why) {
            std::cout << "session " << session.id() << " from " << session.peer() << ": "
                      << (why == nullptr
                              ? std::string("the client disconnected")
                              : std::string(vs::causeName(why->why())) + ": " + why->what())
                      << std::endl;
            if (++ended == sessions) {
                server.stop();
            }
        };
        server.listen("127.0.0.1", port);
        running = &server;
        (void)std::signal(SIGINT, stopServer);
        (void)std::signal(SIGTERM, stopServer);
        std::cout << "listening on 127.0.0.1:" << server.port() << " (aes256, md5)" << std::endl;
        server.run();
        running = nullptr;
    } catch (const vs::error& failed) {
        std::cerr << "vxexample-session-server: " << failed.what() << '\n';
        return 1;
    }
    return 0;
}
