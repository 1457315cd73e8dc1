// veltrix cat: standard input to the peer, the peer's bytes to standard output, over one
// encrypted connection, until the input on both sides has ended.
//
//   veltrix cat --listen ADDR:PORT ...   waits for one connection (the server end)
//   veltrix cat ADDR:PORT ...            connects (the client end)
//
// It speaks the tunnel's stream protocol, so cat and tunnel talk to each other with half-close;
// --raw sends bare payloads instead, for any application built on the library.
#include "commands.h"
#include "relay.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>

namespace vxcli {

using namespace veltrix;

namespace {

struct catOptions
{
    std::string listen;
    std::string peer;
    channelOptions channel;
    bool raw = false;
    bool progress = false;
    bool forceProgress = false;
    bool stats = false;
    std::string statsStartText; ///< as given; empty without the option
    uint32_t statsStart = 0;    ///< where the traffic counters start, for tests of their restart
};

/** The value of --stats-start: a decimal count below the point where the counters restart, as
 *  they never hold one at or above it. The option is hidden, and CLI11 names no hidden option in
 *  its own messages, so this one names it. */
uint32_t parseStatsStart(const std::string& text)
{
    constexpr unsigned long long kRestart = 0xFFFFC000U;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (text.find_first_not_of("0123456789") != std::string::npos || errno != 0 ||
        value >= kRestart) {
        throw CLI::ValidationError("--stats-start", "\"" + text + "\" is not a number below " +
                                                        std::to_string(kRestart));
    }
    return static_cast<uint32_t>(value);
}

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

/** The progress line on standard error: bytes each way, the rate, the time so far. */
relayTick progressLine()
{
    const auto start = std::chrono::steady_clock::now();
    return [start](const relayCounters& counters, bool last) {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const auto total = static_cast<double>(counters.toPeer + counters.fromPeer);
        const auto whole = static_cast<unsigned long>(seconds);
        char line[160];
        (void)std::snprintf(line, sizeof line, "\r%s sent, %s received, %s/s, %02lu:%02lu ",
                            sizeText(static_cast<double>(counters.toPeer)).c_str(),
                            sizeText(static_cast<double>(counters.fromPeer)).c_str(),
                            sizeText(seconds > 0 ? total / seconds : 0).c_str(), whole / 60,
                            whole % 60);
        std::cerr << line << (last ? "\n" : "") << std::flush;
    };
}

/** The statistics table of the encrypted socket, on standard error: standard output is the
 *  peer's data. */
void printStats(vxNetEncryptedSocket& channel)
{
    std::streambuf* data = std::cout.rdbuf(std::cerr.rdbuf());
    (void)channel.stats.Display();
    std::cout.rdbuf(data);
}

/** Starts the traffic counters at `value` instead of where the handshake left them, so that a
 *  test reaches their restart without sending 4 GiB. */
void startCounters(vxNetProtocolStats& stats, uint32_t value)
{
    for (vxNetProtocolStatsCounter* counter :
         {&stats.RecvMsgs, &stats.SentMsgs, &stats.RecvBytes, &stats.SentBytes}) {
        counter->value = value;
    }
}

void relay(vxNetEncryptedSocket& channel, const catOptions& options, bool initiator)
{
    if (!options.statsStartText.empty()) {
        startCounters(channel.stats, options.statsStart);
    }
    const plainSide standard{STDIN_FILENO, STDOUT_FILENO, false, "standard input",
                             "standard output"};
    const bool showProgress =
        options.forceProgress || (options.progress && isatty(STDERR_FILENO) == 1);
    const relayTick tick = showProgress ? progressLine() : relayTick();
    if (options.raw) {
        relayRaw(channel, standard, initiator, options.channel.limits, tick);
    } else {
        relayStream(channel, standard, initiator, options.channel.limits, tick);
    }
    if (options.stats) {
        printStats(channel);
    }
}

void listenAndRelay(cliFrame& frame, const catOptions& options, const vxBytes& secret)
{
    vxNetSocket listener;
    const closeOnExit listenerGuard(listener);
    listenOn(frame, listener, parseEndpoint(options.listen));
    pollfd pending{listener.sockFd, POLLIN, 0};
    int fd = -1;
    while (fd < 0) {
        if (poll(&pending, 1, -1) < 0 && errno != EINTR) {
            throw failure("waiting for a connection failed: " + errnoText());
        }
        fd = accept4(listener.sockFd, nullptr, nullptr, SOCK_CLOEXEC);
    }
    vxNetServer server;
    const closeOnExit serverGuard(server);
    vxNetConnectedClient record;
    const closeOnExit recordGuard(record);
    acceptEncrypted(frame, server, record, fd, options.channel, secret);
    relay(record.encryptedSocket, options, false);
}

void connectAndRelay(cliFrame& frame, const catOptions& options, const vxBytes& secret)
{
    vxNetClient client;
    const closeOnExit clientGuard(client);
    const closeOnExit channelGuard(client.encryptedSocket);
    connectEncrypted(frame, client, parseEndpoint(options.peer), options.channel, secret);
    relay(client.encryptedSocket, options, true);
}

int runCat(cliFrame& frame, const catOptions& options)
{
    frame.loadPlugin();
    const vxBytes secret = readSecret(options.channel.pskFile);
    if (!options.listen.empty()) {
        listenAndRelay(frame, options, secret);
    } else {
        connectAndRelay(frame, options, secret);
    }
    return exitOk;
}

} // namespace

void addCatCommand(CLI::App& program, selection& chosen)
{
    auto options = std::make_shared<catOptions>();
    CLI::App* command = program.add_subcommand(
        "cat", "standard input to the peer and the peer's bytes to standard output");
    CLI::Option* listen =
        command->add_option("--listen", options->listen, "wait for one connection on ADDR:PORT")
            ->check(endpointValidator());
    CLI::Option* peer = command->add_option("peer", options->peer, "ADDR:PORT to connect to")
                            ->check(endpointValidator());
    listen->excludes(peer);
    auto given = std::make_shared<givenOptions>();
    addOptions(*command, channelRows(), *given);
    command->get_option("--psk-file")->required();
    command->add_flag("--raw", options->raw,
                      "bare payloads, for any application built on the library");
    command->add_flag("--progress", options->progress,
                      "a progress line on standard error when it is a terminal");
    command->add_flag("--force-progress", options->forceProgress,
                      "the progress line even when standard error is not a terminal");
    command->add_flag("--stats", options->stats,
                      "the encrypted socket's statistics on standard error at the end");
    // An empty group keeps it out of --help: it exists for tests of the counters' restart.
    command->add_option("--stats-start", options->statsStartText, "the counters' start value")
        ->group("");
    command->callback([options, given, &chosen] {
        options->channel = defaultChannel();
        applyGiven(channelRows(), *given, options->channel);
        if (!options->statsStartText.empty()) {
            options->statsStart = parseStatsStart(options->statsStartText);
        }
        if (options->listen.empty() == options->peer.empty()) {
            throw CLI::RequiredError("--listen ADDR:PORT or a peer ADDR:PORT");
        }
        chosen = {"cat", [options](cliFrame& frame) { return runCat(frame, *options); }};
    });
}

} // namespace vxcli
