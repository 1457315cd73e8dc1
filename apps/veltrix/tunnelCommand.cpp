// veltrix tunnel: wraps an unmodified TCP service in the encrypted channel.
//
//   --server: accepts encrypted connections on --accept and forwards each in the clear to the
//             service at --connect.
//   --client: accepts plain connections on --accept and forwards each over an encrypted
//             connection to the server tunnel at --connect.
//
// The parent prepares everything once (the plug-in, the crypto library's state, the secret, the
// listening socket), then starts a few worker processes that inherit it: each runs one event loop
// over many connections (tunnelConnection.h says why they cannot disturb each other), and the
// system spreads new connections over them. The parent only watches the workers. On SIGTERM or
// SIGINT the workers stop accepting and let their connections finish; a second signal ends them.
#include "commands.h"
#include "tunnelConnection.h"
#include "vxGlobal.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <iostream>
#include <list>
#include <memory>
#include <new>
#include <set>
#include <unordered_map>
#include <vector>

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
    unsigned workers = 0; ///< 0: one per processor
    bool foreground = false;
};

/** Counts every worker shares, in memory mapped into all of them. */
struct sharedCounts
{
    std::atomic<uint32_t> open{0};     ///< connections being served
    std::atomic<uint32_t> accepted{0}; ///< connections accepted so far, for their numbers
};

/** While the tunnel is at --max-connections, a worker looks again this often whether another
 *  worker freed a place. */
constexpr auto kFullRecheck = std::chrono::milliseconds(100);

sigset_t stopSignals()
{
    sigset_t set;
    (void)sigemptyset(&set);
    (void)sigaddset(&set, SIGTERM);
    (void)sigaddset(&set, SIGINT);
    return set;
}

/** One worker: an event loop over the listening socket, a stop-signal descriptor and every
 *  connection it accepted. */
class worker : public pollTarget, public connectionHost
{
public:
    worker(const tunnelSetup& shared, int listening, sharedCounts& counts, unsigned limit)
        : setup(shared), listener(listening), counters(counts), maxConnections(limit)
    {
        // Only the parent's SIGTERM: a terminal's interrupt reaches the parent too, which passes
        // it on once.
        sigset_t set;
        (void)sigemptyset(&set);
        (void)sigaddset(&set, SIGTERM);
        signals = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
        if (signals < 0) {
            throw failure("cannot receive signals: " + errnoText());
        }
        loop.want(signals, stopTarget, EPOLLIN);
    }

    LVX_NOT_COPYABLE(worker);

    ~worker() override
    {
        places.clear();
        connections.clear();
        loop.forget(signals);
        (void)close(signals);
    }

    void run()
    {
        watchListener();
        while (stopRequests == 0 || !connections.empty()) {
            loop.runOnce(millisUntil(nextSweep));
            if (steadyClock::now() >= nextSweep) {
                sweep();
            }
            reap();
            watchListener();
        }
    }

    /** The listening socket is readable. */
    void ready(uint32_t /*events*/) override
    {
        // One connection a round: the listener stays ready while more wait, and the
        // connections already open get their turn in between.
        if (takePlace()) {
            sockaddr_storage peer{};
            socklen_t length = sizeof peer;
            const int fd = accept4(listener, reinterpret_cast<sockaddr*>(&peer), &length,
                                   SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (fd < 0) {
                counters.open.fetch_sub(1);
                return; // gone before it was accepted, or out of descriptors for now
            }
            const uint32_t number = counters.accepted.fetch_add(1) + 1;
            const std::string from = addressText(peer);
            connections.push_back(std::make_unique<tunnelConnection>(
                loop, *this, setup, fd, "connection " + std::to_string(number) + " from " + from,
                from));
            places[connections.back().get()] = std::prev(connections.end());
            connections.back()->start();
        }
    }

    void checkBy(steadyClock::time_point when) override { nextSweep = std::min(nextSweep, when); }

    void finished(tunnelConnection& connection) override { ended.push_back(&connection); }

private:
    /** The stop-signal descriptor is readable. */
    class stopHandler : public pollTarget
    {
    public:
        explicit stopHandler(worker& owner) : parent(owner) {}

        void ready(uint32_t /*events*/) override { parent.stopSignal(); }

    private:
        worker& parent;
    };

    void stopSignal()
    {
        signalfd_siginfo info{};
        while (read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            ++stopRequests;
        }
        if (listener >= 0) {
            loop.forget(listener);
            (void)close(listener);
            listener = -1;
        }
        if (stopRequests > 1) {
            for (const auto& connection : connections) {
                connection->end("ended: the tunnel was stopped");
            }
        }
    }

    /** Reserves a place under --max-connections across the workers. */
    bool takePlace()
    {
        if (counters.open.fetch_add(1) < maxConnections) {
            return true;
        }
        counters.open.fetch_sub(1);
        full = true;
        return false;
    }

    void watchListener()
    {
        if (listener < 0) {
            return;
        }
        if (full && counters.open.load() < maxConnections) {
            full = false;
        }
        // One worker is woken for a new connection, not all of them.
        loop.want(listener, *this, full ? 0U : EPOLLIN | EPOLLEXCLUSIVE);
        if (full) {
            nextSweep = std::min(nextSweep, steadyClock::now() + kFullRecheck);
        }
    }

    /** Ends the connections whose limit passed; finds when the next one passes. */
    void sweep()
    {
        const auto now = steadyClock::now();
        nextSweep = steadyClock::time_point::max();
        for (const auto& connection : connections) {
            connection->checkLimits(now);
            nextSweep = std::min(nextSweep, connection->deadline());
        }
    }

    /** Frees the connections that ended and their places. */
    void reap()
    {
        if (ended.empty()) {
            return;
        }
        for (tunnelConnection* connection : ended) {
            const auto place = places.find(connection);
            connections.erase(place->second);
            places.erase(place);
            counters.open.fetch_sub(1);
        }
        ended.clear();
    }

    const tunnelSetup& setup;
    int listener;
    sharedCounts& counters;
    unsigned maxConnections;
    eventLoop loop;
    int signals = -1;
    stopHandler stopTarget{*this};
    std::list<std::unique_ptr<tunnelConnection>> connections;
    std::unordered_map<tunnelConnection*, std::list<std::unique_ptr<tunnelConnection>>::iterator>
        places;
    std::vector<tunnelConnection*> ended; ///< to be freed once the current round is over
    steadyClock::time_point nextSweep = steadyClock::time_point::max();
    unsigned stopRequests = 0;
    bool full = false;
};

/** Runs one worker in a new process; its pid. */
pid_t startWorker(const tunnelSetup& setup, int listener, sharedCounts& counts, unsigned limit)
{
    std::cout.flush();
    std::cerr.flush();
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child != 0) {
        return child;
    }
    // The tunnel is one unit: a worker whose parent is gone (killed, say) ends at once rather
    // than serve on without it.
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(exitFailure);
    }
    (void)signal(SIGINT, SIG_IGN);
    int status = exitOk;
    try {
        worker(setup, listener, counts, limit).run();
    } catch (const std::exception& error) {
        connectionLog("", setup.logToStderr).line(std::string("worker failed: ") + error.what());
        status = exitFailure;
    }
    std::cout.flush();
    std::cerr.flush();
    _exit(status); // the parent's objects are the parent's to close
}

/** Does once, before any worker starts, what every connection would otherwise do for itself:
 *  the crypto library reads its configuration and fetches its algorithms on first use. */
void warmUp(cliFrame& frame, const tunnelSetup& setup)
{
    vxNetSocket socket;
    const closeOnExit socketGuard(socket);
    frame.open(socket, "cannot open a socket", setup.server);
    vxNetEncryptedSocket channel;
    const closeOnExit channelGuard(channel);
    frame.open(channel, "cannot open the encrypted socket", setup.channel.cipher,
               setup.channel.hash, &socket);
    vxNetPSKChallengeResponse handshake;
    const closeOnExit handshakeGuard(handshake);
    frame.open(handshake, "cannot open the handshake", channel.cipherId, channel.hashId,
               setup.server);
    require(handshake.SetSecret(setup.secret) && handshake.GenerateChallengeRequest() &&
                handshake.GenerateChallengeResponse(),
            "cannot prepare the handshake");
}

/** The parent: starts the workers, passes stop signals on, replaces a worker that died. */
int superviseWorkers(const tunnelSetup& setup, int listener, sharedCounts& counts,
                     const tunnelOptions& options)
{
    sigset_t set = stopSignals();
    (void)sigaddset(&set, SIGCHLD);
    const unsigned count = options.workers != 0
                               ? options.workers
                               : static_cast<unsigned>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
    std::set<pid_t> workers;
    for (unsigned i = 0; i < count; ++i) {
        workers.insert(startWorker(setup, listener, counts, options.maxConnections));
    }
    const connectionLog log("", setup.logToStderr);
    unsigned stops = 0;
    while (!workers.empty()) {
        int signo = 0;
        (void)sigwait(&set, &signo);
        if (signo == SIGTERM || signo == SIGINT) {
            if (++stops == 1) {
                (void)close(listener);
                log.line("stopping: waiting for " + std::to_string(counts.open.load()) +
                         " connection(s) to finish");
            }
            for (const pid_t pid : workers) {
                (void)kill(pid, SIGTERM);
            }
            continue;
        }
        int status = 0;
        pid_t pid = 0;
        while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
            workers.erase(pid);
            if (stops == 0 && WIFSIGNALED(status)) {
                // Its connections are gone; the others' are not, and new ones need a worker.
                log.line("a worker was ended by signal " + std::to_string(WTERMSIG(status)) +
                         "; starting another");
                workers.insert(startWorker(setup, listener, counts, options.maxConnections));
            } else if (stops == 0) {
                log.line("a worker failed (status " + std::to_string(WEXITSTATUS(status)) + ")");
            }
        }
    }
    log.line("stopped");
    return exitOk;
}

int runTunnel(cliFrame& frame, const tunnelOptions& options)
{
    frame.loadPlugin();
    tunnelSetup setup{frame,
                      options.server,
                      parseEndpoint(options.connect),
                      {},
                      0,
                      readSecret(options.channel.pskFile),
                      options.channel,
                      options.foreground};
    setup.addressLength = socketAddress(setup.target, setup.address);
    warmUp(frame, setup);
    const endpoint acceptAt = parseEndpoint(options.accept);
    vxNetSocket listener;
    listenOn(frame, listener, acceptAt);
    // Accepted sockets inherit this: small messages leave at once.
    const int on = 1;
    (void)setsockopt(listener.sockFd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const connectionLog log("", options.foreground);
    log.line(std::string(options.server ? "server" : "client") + " tunnel listening on " +
             acceptAt.text() + ", forwarding to " + setup.target.text() + " (" +
             options.channel.cipher + ", " + options.channel.hash + ")");
    if (!options.foreground && daemon(0, 0) != 0) {
        throw failure("cannot run in the background: " + errnoText());
    }
    void* shared = mmap(nullptr, sizeof(sharedCounts), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        throw failure("cannot share the connection counts: " + errnoText());
    }
    auto* counts = new (shared) sharedCounts;
    // Stop signals wait for the parent's sigwait and the workers' signal descriptors.
    sigset_t set = stopSignals();
    (void)sigaddset(&set, SIGCHLD);
    (void)sigprocmask(SIG_BLOCK, &set, nullptr);
    const int status = superviseWorkers(setup, listener.sockFd, *counts, options);
    counts->~sharedCounts();
    (void)munmap(shared, sizeof(sharedCounts));
    listener.sockFd = -1; // closed when the stop began
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
    command
        ->add_option("--workers", options->workers,
                     "processes that serve connections (0: one per processor)")
        ->capture_default_str()
        ->check(CLI::Range(0U, 64U));
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
