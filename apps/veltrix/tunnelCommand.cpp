// veltrix tunnel: wraps an unmodified TCP service in the encrypted channel.
//
//   --server: accepts encrypted connections on --accept and forwards each in the clear to the
//             service at --connect.
//   --client: accepts plain connections on --accept and forwards each over an encrypted
//             connection to the server tunnel at --connect.
//
// The library's error latch is process-wide, so every connection runs in a process of its own:
// the parent only accepts, forks and reaps, and one failing or hostile peer never stops the
// others. On SIGTERM or SIGINT the parent stops accepting and waits for its connections to
// finish; a second signal ends them.
#include "commands.h"
#include "relay.h"
#include "vxGlobal.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>
#include <memory>
#include <set>

namespace vxcli {

using namespace veltrix;

namespace {

struct tunnelOptions
{
    std::string accept;
    std::string connect;
    bool server = false;
    bool client = false;
    channelOptions channel;
    unsigned maxConnections = 64;
    bool foreground = false;
};

/** What a connection's process needs. */
struct tunnelSetup
{
    const tunnelOptions& options;
    endpoint target;
    vxBytes secret;
    bool logToStderr;
};

volatile sig_atomic_t stopRequests = 0;

extern "C" void onStop(int /*signo*/)
{
    stopRequests = stopRequests + 1;
}

extern "C" void onChild(int /*signo*/) {}

void setHandler(int signo, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    (void)sigemptyset(&action.sa_mask);
    (void)sigaction(signo, &action, nullptr);
}

/** The server end of one connection: handshake, then the service in the clear. */
void serveEncrypted(cliFrame& frame, const tunnelSetup& setup, int fd, const connectionLog& log)
{
    vxNetServer server;
    const closeOnExit serverGuard(server);
    vxNetConnectedClient record;
    const closeOnExit recordGuard(record);
    acceptEncrypted(frame, server, record, fd, setup.options.channel, setup.secret);
    log.line("handshake done");
    vxNetSocket service;
    const closeOnExit serviceGuard(service);
    connectPlain(frame, service, setup.target, setup.options.channel.connectTimeout);
    log.line("connected to " + setup.target.text());
    const std::string name = "the service at " + setup.target.text();
    relayStream(record.encryptedSocket, {service.sockFd, service.sockFd, true, name, name}, false,
                setup.options.channel.limits);
}

/** The client end of one connection: the accepted application over an encrypted connection. */
void serveApplication(cliFrame& frame, const tunnelSetup& setup, int fd, const connectionLog& log)
{
    vxNetClient client;
    const closeOnExit clientGuard(client);
    const closeOnExit channelGuard(client.encryptedSocket);
    connectEncrypted(frame, client, setup.target, setup.options.channel, setup.secret);
    log.line("handshake done with " + setup.target.text());
    relayStream(client.encryptedSocket, {fd, fd, true, "the application", "the application"}, true,
                setup.options.channel.limits);
}

/** Runs in the connection's own process; its exit status. */
int serveConnection(cliFrame& frame, const tunnelSetup& setup, int fd, const std::string& name)
{
    const connectionLog log(name + ": ", setup.logToStderr);
    try {
        if (setup.options.server) {
            serveEncrypted(frame, setup, fd, log);
        } else {
            serveApplication(frame, setup, fd, log);
        }
        log.line("closed");
        return exitOk;
    } catch (const failure& error) {
        log.line(error.what());
        const linger abort{1, 0}; // the application must not take a cut stream for a whole one
        (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        if (setup.logToStderr && frame.options().verbose && vxBase::HaveStackTrace()) {
            vxBase::DumpStackTrace(std::cerr);
        }
        return exitFailure;
    }
}

/** The parent: accepts, forks one process per connection, reaps them. */
class acceptLoop
{
public:
    acceptLoop(cliFrame& owner, const tunnelSetup& tunnel, int listening)
        : frame(owner), setup(tunnel), listener(listening), log("", tunnel.logToStderr)
    {}

    int run()
    {
        sigset_t blocked;
        sigset_t waiting;
        (void)sigemptyset(&blocked);
        for (const int signo : {SIGTERM, SIGINT, SIGCHLD}) {
            (void)sigaddset(&blocked, signo);
        }
        // Signals arrive only inside ppoll, so no flag is missed between a check and the wait.
        (void)sigprocmask(SIG_BLOCK, &blocked, &waiting);
        setHandler(SIGTERM, onStop);
        setHandler(SIGINT, onStop);
        setHandler(SIGCHLD, onChild);
        while (stopRequests == 0 || !children.empty()) {
            step(waiting);
        }
        log.line("stopped");
        return exitOk;
    }

private:
    void step(const sigset_t& waiting)
    {
        const bool accepting = stopRequests == 0 && children.size() < setup.options.maxConnections;
        pollfd entry{listener, POLLIN, 0};
        const int ready = ppoll(&entry, accepting ? 1 : 0, nullptr, &waiting);
        reap();
        if (stopRequests > 0 && !stopping) {
            stopping = true;
            (void)close(listener);
            log.line("stopping: waiting for " + std::to_string(children.size()) +
                     " connection(s) to finish");
        }
        if (stopRequests > 1) {
            for (const pid_t child : children) {
                (void)kill(child, SIGTERM);
            }
        }
        if (accepting && ready > 0 && stopRequests == 0) {
            acceptOne(waiting);
        }
    }

    void acceptOne(const sigset_t& waiting)
    {
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        const int fd = accept4(listener, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
        if (fd < 0) {
            return; // gone before it was accepted, or out of descriptors for now
        }
        ++accepted;
        const std::string name =
            "connection " + std::to_string(accepted) + " from " + addressText(peer);
        std::cout.flush();
        std::cerr.flush();
        const pid_t child = fork();
        if (child == 0) {
            (void)close(listener);
            setHandler(SIGTERM, SIG_DFL);
            setHandler(SIGCHLD, SIG_DFL);
            // A terminal's interrupt goes to the whole group: the connection still finishes.
            setHandler(SIGINT, SIG_IGN);
            (void)sigprocmask(SIG_SETMASK, &waiting, nullptr);
            const int status = serveConnection(frame, setup, fd, name);
            std::cout.flush();
            std::cerr.flush();
            _exit(status); // the parent's objects are the parent's to close
        }
        (void)close(fd);
        if (child < 0) {
            log.line("cannot start a process for a connection: " + errnoText());
            return;
        }
        children.insert(child);
    }

    void reap()
    {
        pid_t child = 0;
        while ((child = waitpid(-1, nullptr, WNOHANG)) > 0) {
            children.erase(child);
        }
    }

    cliFrame& frame;
    const tunnelSetup& setup;
    int listener;
    connectionLog log;
    std::set<pid_t> children;
    unsigned accepted = 0;
    bool stopping = false;
};

int runTunnel(cliFrame& frame, const tunnelOptions& options)
{
    frame.loadPlugin();
    const tunnelSetup setup{options, parseEndpoint(options.connect),
                            readSecret(options.channel.pskFile), options.foreground};
    const endpoint acceptAt = parseEndpoint(options.accept);
    vxNetSocket listener;
    listenOn(frame, listener, acceptAt);
    const connectionLog log("", options.foreground);
    log.line(std::string(options.server ? "server" : "client") + " tunnel listening on " +
             acceptAt.text() + ", forwarding to " + setup.target.text() + " (" +
             options.channel.cipher + ", " + options.channel.hash + ")");
    if (!options.foreground && daemon(0, 0) != 0) {
        throw failure("cannot run in the background: " + errnoText());
    }
    const int status = acceptLoop(frame, setup, listener.sockFd).run();
    listener.sockFd = -1; // closed by the loop when it stopped accepting
    (void)cliFrame::close(listener);
    return status;
}

} // namespace

void addTunnelCommand(CLI::App& program, selection& chosen)
{
    auto options = std::make_shared<tunnelOptions>();
    CLI::App* command =
        program.add_subcommand("tunnel", "wrap an unmodified TCP service in the encrypted channel");
    command->add_option("--accept", options->accept, "ADDR:PORT to accept connections on")
        ->required()
        ->check(endpointValidator());
    command->add_option("--connect", options->connect, "ADDR:PORT to forward each connection to")
        ->required()
        ->check(endpointValidator());
    CLI::Option* server = command->add_flag(
        "--server", options->server, "accept encrypted connections, forward each in the clear");
    CLI::Option* client = command->add_flag("--client", options->client,
                                            "accept plain connections, forward each encrypted");
    server->excludes(client);
    addChannelOptions(*command, options->channel);
    command->add_option("--max-connections", options->maxConnections, "connections served at once")
        ->capture_default_str()
        ->check(CLI::Range(1U, 10000U));
    command->add_flag("--foreground", options->foreground,
                      "stay in the foreground and log to standard error as well as syslog");
    command->callback([options, &chosen] {
        if (!options->server && !options->client) {
            throw CLI::RequiredError("--server or --client");
        }
        chosen = {"tunnel", [options](cliFrame& frame) { return runTunnel(frame, *options); }};
    });
}

} // namespace vxcli
