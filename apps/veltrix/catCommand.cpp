// veltrix cat: standard input to the peer, the peer's bytes to standard output, over one
// encrypted connection, until the input on both sides has ended.
//
//   veltrix cat --listen ADDR:PORT ...   waits for one connection (the server end)
//   veltrix cat ADDR:PORT ...            connects (the client end)
//
// It speaks the tunnel's stream protocol, so cat and tunnel talk to each other with half-close;
// --raw sends bare payloads instead, for any application built on the library.
#include "commands.h"
#include "handshake.h"
#include "relay.h"
#include "subcommand.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <streambuf>
#include <string>

namespace vxcli {

using namespace veltrix;

namespace {

/** Seconds the raw client waits, after the end of its input, for the peer to go quiet. */
constexpr unsigned kDefaultLinger = 2;

struct catOptions
{
    std::string listen;
    std::string peer;
    channelOptions channel;
    givenOptions given; ///< the channel options on the command line, over their defaults
    bool raw = false;
    bool progress = false;
    bool forceProgress = false;
    bool stats = false;
    bool once = false;
    unsigned linger = kDefaultLinger;
};

/** "12.3 MiB" */
std::string sizeText(double bytes)
{
    const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    size_t unit = 0;
    while (bytes >= 1024 && unit + 1 < sizeof units / sizeof units[0]) {
        bytes /= 1024;
        ++unit;
    }
    char text[32];
    (void)std::snprintf(text, sizeof text, "%.1f %s", bytes, units[unit]);
    return text;
}

/** "01:05" */
std::string clockText(double seconds)
{
    const auto whole = static_cast<unsigned long>(seconds);
    char text[24];
    (void)std::snprintf(text, sizeof text, "%02lu:%02lu", whole / 60, whole % 60);
    return text;
}

/** The bytes left to read from standard input when it is a regular file; 0 when unknown. */
uint64_t inputSize()
{
    struct stat status = {};
    const off_t at = lseek(STDIN_FILENO, 0, SEEK_CUR);
    if (fstat(STDIN_FILENO, &status) != 0 || !S_ISREG(status.st_mode) || at < 0 ||
        status.st_size <= at) {
        return 0;
    }
    return static_cast<uint64_t>(status.st_size - at);
}

/** The progress line on standard error: bytes each way, the rate, the time so far; with an input
 *  of known size, the total and the time left. */
relayTick progressLine(steadyClock::time_point start, uint64_t total)
{
    return [start, total](const relayCounters& counters, bool last) {
        const double seconds = std::chrono::duration<double>(steadyClock::now() - start).count();
        const auto both = static_cast<double>(counters.toPeer + counters.fromPeer);
        const auto sent = static_cast<double>(counters.toPeer);
        std::string line = "\r" + sizeText(sent);
        if (total > 0) {
            line += " of " + sizeText(static_cast<double>(total));
        }
        line += " sent, " + sizeText(static_cast<double>(counters.fromPeer)) + " received, " +
                sizeText(seconds > 0 ? both / seconds : 0) + "/s, " + clockText(seconds);
        if (total > 0 && counters.toPeer < total && sent > 0) {
            line +=
                ", " + clockText(seconds * (static_cast<double>(total) - sent) / sent) + " left";
        }
        std::cerr << line << (last ? " \n" : " ") << std::flush;
    };
}

/** "1234 bytes", then what the wire carried on top of the payload. */
std::string overheadText(uint64_t payload, uint64_t wire)
{
    char text[64];
    if (payload == 0) {
        (void)std::snprintf(text, sizeof text, "%llu bytes", static_cast<unsigned long long>(wire));
    } else {
        (void)std::snprintf(text, sizeof text, "%llu bytes (%+.1f%%)",
                            static_cast<unsigned long long>(wire),
                            100.0 * (static_cast<double>(wire) - static_cast<double>(payload)) /
                                static_cast<double>(payload));
    }
    return text;
}

/** At the end, on standard error (standard output is the peer's data): the encrypted socket's
 *  statistics, then what the user moved each way, what the connection carried for it once it
 *  was keyed, and how long it all took from the connection's start. */
void printStats(vxNetEncryptedSocket& channel, const relayCounters& moved, double seconds)
{
    (void)channel.stats.Display();
    char duration[32];
    (void)std::snprintf(duration, sizeof duration, "%.3f s", seconds);
    std::cerr << "payload sent:     " << moved.toPeer << " bytes\n"
              << "payload received: " << moved.fromPeer << " bytes\n"
              << "wire sent:        " << overheadText(moved.toPeer, moved.wireOut) << "\n"
              << "wire received:    " << overheadText(moved.fromPeer, moved.wireIn) << "\n"
              << "duration:         " << duration << std::endl;
}

/** Relays the keyed connection between standard input and output and the peer. `start`: when
 *  the connection began, for the progress line and the statistics. */
void relay(vxNetEncryptedSocket& channel, const catOptions& options, bool initiator,
           steadyClock::time_point start)
{
    const plainSide standard{STDIN_FILENO, STDOUT_FILENO, false, "standard input",
                             "standard output"};
    const bool showProgress =
        options.forceProgress || (options.progress && isatty(STDERR_FILENO) == 1);
    const relayTick tick = showProgress ? progressLine(start, inputSize()) : relayTick();
    relayCounters moved;
    if (options.raw) {
        relayRaw(channel, standard, initiator, options.channel.limits, options.linger, tick,
                 &moved);
    } else {
        relayStream(channel, standard, initiator, options.channel.limits, tick, &moved);
    }
    if (options.stats) {
        printStats(channel, moved,
                   std::chrono::duration<double>(steadyClock::now() - start).count());
    }
}

/** The next connection to the listener, as a descriptor. */
int acceptOne(const vxNetSocket& listener)
{
    pollfd pending{listener.sockFd, POLLIN, 0};
    for (;;) {
        if (poll(&pending, 1, -1) < 0 && errno != EINTR) {
            throw failure("waiting for a connection failed: " + errnoText());
        }
        const int fd = accept4(listener.sockFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            return fd;
        }
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            throw failure("cannot accept a connection: " + errnoText());
        }
    }
}

/** Waits for a peer that completes the handshake and relays its connection. A peer that does
 *  not (a port probe, a wrong secret) is reported on standard error and the wait goes on,
 *  unless `options.once`: the first connection is then the only one, whatever it brings. */
void listenAndRelay(cliFrame& frame, const catOptions& options, const vxBytes& secret,
                    const warningSink& warn)
{
    vxNetSocket listener;
    const closeOnExit listenerGuard(listener);
    listenOn(frame, listener, parseEndpoint(options.listen), warn);
    for (;;) {
        const int fd = acceptOne(listener);
        const auto start = steadyClock::now();
        vxNetServer server;
        const closeOnExit serverGuard(server);
        vxNetConnectedClient record;
        const closeOnExit recordGuard(record);
        try {
            acceptEncrypted(frame, server, record, fd, options.channel, secret);
        } catch (const failure& refused) {
            if (options.once) {
                throw;
            }
            std::cerr << "veltrix cat: refused a connection: " << refused.what() << std::endl;
            vxBase::lvxClearLastError();
            continue;
        }
        relay(record.encryptedSocket, options, false, start);
        return;
    }
}

void connectAndRelay(cliFrame& frame, const catOptions& options, const vxBytes& secret)
{
    const auto start = steadyClock::now();
    vxNetClient client;
    const closeOnExit clientGuard(client);
    const closeOnExit channelGuard(client.encryptedSocket);
    connectEncrypted(frame, client, parseEndpoint(options.peer), options.channel, secret);
    relay(client.encryptedSocket, options, true, start);
}

/** Standard output carries the peer's data: whatever the library writes there goes to standard
 *  error instead, for as long as the command runs. */
class libraryOutputAside
{
public:
    libraryOutputAside() : data(std::cout.rdbuf(std::cerr.rdbuf())) {}

    LVX_NOT_COPYABLE(libraryOutputAside);

    ~libraryOutputAside() { std::cout.rdbuf(data); }

private:
    std::streambuf* data;
};

int runCat(cliFrame& frame, const catOptions& options)
{
    const libraryOutputAside aside;
    const warningSink warn = [](const std::string& text) {
        std::cerr << "veltrix cat: warning: " << text << std::endl;
    };
    frame.loadPlugin();
    const vxBytes secret = readSecret(options.channel.pskFile, warn);
    if (!options.listen.empty()) {
        listenAndRelay(frame, options, secret, warn);
    } else {
        connectAndRelay(frame, options, secret);
    }
    return exitOk;
}

void declareCat(CLI::App& command, catOptions& options)
{
    CLI::Option* listen =
        command.add_option("--listen", options.listen, "wait for one connection on ADDR:PORT")
            ->check(endpointValidator());
    CLI::Option* peer = command.add_option("peer", options.peer, "ADDR:PORT to connect to")
                            ->check(endpointValidator());
    listen->excludes(peer);
    addOptions(command, channelRows(), options.given);
    command.get_option("--psk-file")->required();
    command.add_flag("--raw", options.raw,
                     "bare payloads, for any application built on the library");
    command
        .add_option("--linger", options.linger,
                    "with --raw: seconds the client waits, after the end of its input, for "
                    "the peer to go quiet before it disconnects")
        ->default_val(kDefaultLinger)
        ->check(CLI::Range(0U, 3600U));
    command
        .add_flag("--once", options.once,
                  "with --listen: end with the first connection, even one that fails the "
                  "handshake")
        ->needs(listen);
    command.add_flag("--progress", options.progress,
                     "a progress line on standard error when it is a terminal");
    command.add_flag("--force-progress", options.forceProgress,
                     "the progress line even when standard error is not a terminal");
    command.add_flag("--stats", options.stats,
                     "the encrypted socket's statistics, the bytes moved and the time taken, on "
                     "standard error at the end");
}

/** The channel options given over their defaults; one way to the peer. */
void settleCat(catOptions& options)
{
    options.channel = defaultChannel();
    applyGiven(channelRows(), options.given, options.channel);
    if (options.listen.empty() == options.peer.empty()) {
        throw CLI::RequiredError("--listen ADDR:PORT or a peer ADDR:PORT");
    }
}

} // namespace

void addCatCommand(CLI::App& program, selection& chosen)
{
    addSubcommand<catOptions>(program, chosen, "cat",
                              "standard input to the peer and the peer's bytes to standard output",
                              declareCat, settleCat, runCat);
}

} // namespace vxcli
