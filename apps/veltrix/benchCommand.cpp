// veltrix bench: the library's cost per packet, its packet rate and its handshake rate, each beside
// the same crypto work done directly with OpenSSL in the same run (vxdirect), as one table; with
// --csv, one row per figure for plotting.
//
// Send: one packet built in memory (header and encrypted body), no I/O. Receive: one packet read
// from a socket pair, checked and its payload copied out; the packets are written into the socket
// in batches outside the timed region, and both sides read through the same socket calls. The
// library and the direct end exchange packets both ways before anything is timed.
//
// Handshake: connect, handshake, disconnect and close over 127.0.0.1, against a server in a second
// thread of this process (one process holds one plug-in, so a second program would add nothing
// but a fork); beside it the crypto work of both ends of one handshake done directly, in one
// thread, without a socket.
//
// Each figure is measured in rounds, library and direct alternately, and the medians are shown:
// the machine's speed drifts over seconds, and alternating keeps the drift out of the ratios.
// Packet times are CPU time of the measuring thread, which a busy machine disturbs least; the
// wall-time ratio beside them shows how much the run was disturbed.
#include "channel.h"
#include "commands.h"
#include "directHandshake.h"
#include "directTransport.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

namespace vxcli {

using namespace veltrix;

namespace {

constexpr int kRounds = 5;
constexpr size_t kStepsPerClockRead = 8;
constexpr int kAcceptPollMs = 50;
const char* const kLoopback = "127.0.0.1";
const char* const kSecret = "the secret both ends of every benchmark handshake share";

struct benchOptions
{
    std::string csvFile;
    double seconds = 0.6; ///< per figure and side; the whole run takes about 25 times this
    std::string cipher = "aes256";
    std::string hash = "md5";
};

/** Seconds per unit of work: CPU time of this thread and wall-clock time. */
struct sample
{
    double cpu = 0;
    double wall = 0;
};

double threadCpuSeconds()
{
    timespec now{};
    (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/** Accumulates the time between start() and stop(), over as many stretches as wanted. */
class stopwatch
{
public:
    void start()
    {
        wallStart = std::chrono::steady_clock::now();
        cpuStart = threadCpuSeconds();
    }

    void stop()
    {
        total.wall +=
            std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
        total.cpu += threadCpuSeconds() - cpuStart;
    }

    [[nodiscard]] double wall() const { return total.wall; }

    [[nodiscard]] sample per(size_t units) const
    {
        const auto count = static_cast<double>(units);
        return {total.cpu / count, total.wall / count};
    }

private:
    std::chrono::steady_clock::time_point wallStart;
    double cpuStart = 0;
    sample total;
};

/** One round of one side: runs its work for about `budget` seconds (at least once) and gives
 *  the time per unit; false when the work failed. */
using round = std::function<bool(double budget, sample& perUnit)>;

/** A round of `step` (one unit of work, false when it fails). */
template <class Step> round steps(Step step)
{
    return [step](double budget, sample& perUnit) mutable {
        stopwatch clock;
        size_t units = 0;
        clock.start();
        do {
            for (size_t i = 0; i < kStepsPerClockRead; ++i, ++units) {
                if (!step()) {
                    return false;
                }
            }
            clock.stop();
            clock.start();
        } while (clock.wall() < budget);
        perUnit = clock.per(units);
        return true;
    };
}

/** A round of receives: `producer` writes a batch of packets untimed, then `receive` reads them
 *  one by one, timed, until the budget is spent. */
template <class Receive>
round receives(vxtest::transportEnd& producer, const vxBytes& payload, Receive receive)
{
    return [&producer, &payload, receive](double budget, sample& perUnit) mutable {
        const size_t batch = vxdirect::receiveBatch(payload.bytes.size());
        stopwatch clock;
        size_t units = 0;
        do {
            for (size_t i = 0; i < batch; ++i) {
                if (!producer.send(payload)) {
                    return false;
                }
            }
            clock.start();
            for (size_t i = 0; i < batch; ++i, ++units) {
                if (!receive()) {
                    return false;
                }
            }
            clock.stop();
        } while (clock.wall() < budget);
        perUnit = clock.per(units);
        return true;
    };
}

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/** One figure: the rounds of the library and of the direct work. */
struct figure
{
    figure(std::string figureName, size_t payloadSize, bool byWallClock = false)
        : name(std::move(figureName)), payload(payloadSize), wallClock(byWallClock)
    {}

    std::string name;
    size_t payload = 0;
    bool wallClock = false; ///< compared by wall-clock time (the handshake) instead of CPU time
    std::vector<sample> library;
    std::vector<sample> direct;
};

/** What the table and the CSV show of a figure: median seconds per unit on the figure's clock,
 *  the median of the per-round ratios library/direct on it and in wall-clock time. */
struct summary
{
    double library = 0;
    double direct = 0;
    double ratio = 0;
    double wallRatio = 0;
};

summary summarize(const figure& f)
{
    std::vector<double> library;
    std::vector<double> direct;
    std::vector<double> ratios;
    std::vector<double> wallRatios;
    for (size_t i = 0; i < f.library.size(); ++i) {
        library.push_back(f.wallClock ? f.library[i].wall : f.library[i].cpu);
        direct.push_back(f.wallClock ? f.direct[i].wall : f.direct[i].cpu);
        ratios.push_back(library.back() / direct.back());
        wallRatios.push_back(f.library[i].wall / f.direct[i].wall);
    }
    return {median(library), median(direct), median(ratios), median(wallRatios)};
}

/** Measures a figure: a short untimed round of each side, then kRounds rounds of each,
 *  alternately. */
figure measure(figure f, double seconds, const round& library, const round& direct)
{
    const std::string what = f.name + " of " + std::to_string(f.payload) + " bytes";
    sample warmUp;
    require(library(0, warmUp), "the library's " + what + " failed");
    require(direct(0, warmUp), "the direct " + what + " failed");
    for (int i = 0; i < kRounds; ++i) {
        sample libraryRound;
        sample directRound;
        require(library(seconds / kRounds, libraryRound), "the library's " + what + " failed");
        require(direct(seconds / kRounds, directRound), "the direct " + what + " failed");
        f.library.push_back(libraryRound);
        f.direct.push_back(directRound);
    }
    return f;
}

// ---- The table and the CSV ---------------------------------------------------------------------

void printHeading(const benchOptions& options, const vxdirect::cipherChoice& cipher)
{
    std::cout << "veltrix bench: " << cipher.mode << " transport, " << options.hash
              << " handshake; " << kRounds << " alternating rounds of " << options.seconds / kRounds
              << " s per side\n"
              << "handshake: library = connect, handshake, close over 127.0.0.1 (server thread);\n"
              << "           direct = the crypto of both ends of one handshake, in one thread\n";
    char line[160];
    (void)std::snprintf(line, sizeof line, "%-10s %7s %11s %11s %6s %6s %10s %9s %9s\n", "figure",
                        "payload", "library us", "direct us", "ratio", "wall", "per s", "lib MB/s",
                        "dir MB/s");
    std::cout << line;
}

void printRow(const figure& f)
{
    const summary s = summarize(f);
    char line[160];
    char payload[16] = "-";
    char libraryRate[16] = "-";
    char directRate[16] = "-";
    if (!f.wallClock) {
        (void)std::snprintf(payload, sizeof payload, "%zu", f.payload);
        (void)std::snprintf(libraryRate, sizeof libraryRate, "%.1f",
                            static_cast<double>(f.payload) / s.library / 1e6);
        (void)std::snprintf(directRate, sizeof directRate, "%.1f",
                            static_cast<double>(f.payload) / s.direct / 1e6);
    }
    (void)std::snprintf(line, sizeof line, "%-10s %7s %11.2f %11.2f %6.2f %6.2f %10.0f %9s %9s\n",
                        f.name.c_str(), payload, s.library * 1e6, s.direct * 1e6, s.ratio,
                        s.wallRatio, 1 / s.library, libraryRate, directRate);
    std::cout << line << std::flush;
}

void printLegend()
{
    std::cout << "us: median CPU time per packet, wall time per handshake; ratio, wall: "
                 "library/direct; per s: library\n";
}

/** One CSV row: name, payload bytes, library value, reference value, unit, ratio. */
void csvRow(std::ostream& out, const figure& f, std::pair<double, double> values, const char* unit,
            double ratio)
{
    std::ostringstream row;
    row.precision(6);
    row << f.name << ',' << f.payload << ',' << values.first << ',' << values.second << ',' << unit
        << ',' << ratio << '\n';
    out << row.str();
}

/** The CSV file, opened before anything is measured so that a bad path fails at once. */
std::ofstream openCsv(const std::string& path)
{
    std::ofstream out(path);
    if (!out) {
        throw failure("cannot write " + path + ": " + errnoText());
    }
    return out;
}

void writeCsv(std::ofstream& out, const std::string& path, const std::vector<figure>& figures)
{
    out << "name,payload_bytes,library,reference,unit,ratio\n";
    for (const figure& f : figures) {
        const summary s = summarize(f);
        // Each ratio is library/reference of its row, from the median of the per-round ratios.
        csvRow(out, f, {s.library * 1e6, s.direct * 1e6},
               f.wallClock ? "us/handshake" : "us/packet", s.ratio);
        csvRow(out, f, {1 / s.library, 1 / s.direct}, f.wallClock ? "handshakes/s" : "packets/s",
               1 / s.ratio);
        if (f.payload > 0) {
            const auto size = static_cast<double>(f.payload);
            csvRow(out, f, {size / s.library / 1e6, size / s.direct / 1e6}, "MB/s", 1 / s.ratio);
        }
    }
    out.close();
    if (!out) {
        throw failure("cannot write " + path + ": " + errnoText());
    }
}

// ---- The transport ---------------------------------------------------------------------------

/** Opens library objects under the frame for code that asks open() whether it could; the reason
 *  of a failure stays in the error trail for the caller's require. */
struct quietOpener
{
    cliFrame& frame;

    template <class Child, class... Args> bool open(Child& child, Args&&... args)
    {
        try {
            frame.open(child, "", std::forward<Args>(args)...);
            return true;
        } catch (const failure&) {
            return false;
        }
    }
};

/** What every measurement of a run needs. */
struct benchRun
{
    quietOpener opener;
    const vxdirect::cipherChoice& cipher;
    double seconds;
};

void requireAgreement(benchRun& run)
{
    vxdirect::mixedPair ends(run.opener, run.cipher);
    require(ends.ready, "cannot open the transport ends");
    size_t failedSize = 0;
    if (!vxdirect::checkAgreement(ends, failedSize)) {
        throw failure("the library and the direct OpenSSL end disagree on a packet of " +
                      std::to_string(failedSize) + " bytes");
    }
}

figure measureSend(benchRun& run, const vxBytes& payload)
{
    vxdirect::mixedPair library(run.opener, run.cipher); // its library server end builds packets
    vxdirect::referenceEnd direct;
    require(library.ready, "cannot open the transport ends");
    require(direct.open(run.cipher, true, vxdirect::pairSeed0(), vxdirect::pairSeed1()),
            "cannot key the direct OpenSSL end");
    vxdirect::bytes wire;
    return measure({"send", payload.bytes.size()}, run.seconds,
                   steps([&] { return vxdirect::buildPacket(library.pair.server, payload); }),
                   steps([&] { return direct.seal(payload.bytes, wire); }));
}

figure measureReceive(benchRun& run, const vxBytes& payload)
{
    // Each reader has its own pair: the library server end writes, one reader follows it.
    vxdirect::mixedPair library(run.opener, run.cipher);
    vxdirect::mixedPair direct(run.opener, run.cipher);
    require(library.ready && direct.ready, "cannot open the transport ends");
    vxBytes got;
    vxdirect::bytes directGot;
    return measure(
        {"receive", payload.bytes.size()}, run.seconds,
        receives(library.pair.server, payload, [&] { return library.pair.client.receive(got); }),
        receives(direct.pair.server, payload,
                 [&] { return direct.reference.receive(direct.referenceFd(), directGot); }));
}

/** Send and receive for every payload size, each row printed once measured. */
std::vector<figure> measureTransport(benchRun& run)
{
    std::vector<figure> figures;
    for (const size_t size : vxdirect::kPayloadSizes) {
        vxBytes payload;
        payload.bytes = vxdirect::randomBytes(size);
        for (auto* measureSide : {measureSend, measureReceive}) {
            figures.push_back(measureSide(run, payload));
            printRow(figures.back());
        }
    }
    return figures;
}

// ---- The handshake -----------------------------------------------------------------------------

vxBytes secretBytes()
{
    vxBytes secret;
    secret.bytes.assign(kSecret, kSecret + std::char_traits<char>::length(kSecret));
    return secret;
}

/** A server on 127.0.0.1, on a port the system picks, with a thread that takes connections one at
 *  a time: accepts and handshakes each, then receives until its client disconnects. */
class handshakeServer
{
public:
    handshakeServer(cliFrame& frame, const benchOptions& options) : secret(secretBytes())
    {
        frame.open(server, "cannot open the handshake server");
        require(server.SetCipherMode(options.cipher) && server.SetHashMode(options.hash) &&
                    server.socket.setPort("0") && server.socket.setAddress(kLoopback) &&
                    server.socket.BindAndListen(),
                "cannot listen on " + std::string(kLoopback));
        sockaddr_in bound{};
        socklen_t length = sizeof bound;
        if (getsockname(server.socket.sockFd, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
            throw failure("cannot read back the handshake server's port: " + errnoText());
        }
        where = {kLoopback, std::to_string(ntohs(bound.sin_port))};
        worker = std::thread([this] { serve(); });
    }

    LVX_NOT_COPYABLE(handshakeServer);

    ~handshakeServer()
    {
        stopping = true;
        worker.join();
        (void)cliFrame::close(server); // closes whatever connection it still manages
    }

    endpoint where;

private:
    void serve()
    {
        pollfd listening{server.socket.sockFd, POLLIN, 0};
        vxBytes message;
        while (!stopping) {
            // The listening socket is non-blocking: accept only once a connection waits.
            const int ready = poll(&listening, 1, kAcceptPollMs);
            if (ready < 0 || (ready > 0 && !serveOne(message))) {
                return; // the latch makes the client's next step fail and say why
            }
        }
    }

    bool serveOne(vxBytes& message)
    {
        if (!server.acceptNewManagedClient(secret)) {
            return false;
        }
        vxNetConnectedClient& peer = *server.connectedClients.back();
        while (!peer.socket.doDisconnect) {
            if (!peer.encryptedSocket.RecvEncrypted(message)) {
                return false;
            }
        }
        (void)server.pruneCClist();
        return true;
    }

    vxBytes secret;
    vxNetServer server;
    std::thread worker;
    std::atomic<bool> stopping{false};
};

figure measureHandshake(cliFrame& frame, const benchOptions& options,
                        const vxdirect::cipherChoice& cipher)
{
    vxdirect::handshakeDigest digest = vxdirect::handshakeDigest::md5;
    (void)vxdirect::findHandshakeDigest(options.hash, digest); // checked with the options
    const vxBytes secret = secretBytes();
    channelOptions channel;
    channel.cipher = options.cipher;
    channel.hash = options.hash;
    handshakeServer server(frame, options);
    const auto overLoopback = [&] {
        vxNetClient client;
        const closeOnExit closeClient(client);
        const closeOnExit closeChannel(client.encryptedSocket); // closed first
        connectEncrypted(frame, client, server.where, channel, secret);
        require(client.SendClientDisconnect() && cliFrame::close(client.encryptedSocket) &&
                    cliFrame::close(client),
                "the client cannot disconnect");
        return true;
    };
    const auto direct = [&] {
        vxdirect::referenceEnd serverSession;
        vxdirect::referenceEnd clientSession;
        return vxdirect::directHandshake(cipher, digest, secret.bytes, serverSession,
                                         clientSession);
    };
    return measure({"handshake", 0, true}, options.seconds, steps(overLoopback), steps(direct));
}

// ---- The command -------------------------------------------------------------------------------

int runBench(cliFrame& frame, const benchOptions& options)
{
    frame.loadPlugin();
    const vxdirect::cipherChoice& cipher = *vxdirect::findCipher(options.cipher);
    benchRun run{{frame}, cipher, options.seconds};
    std::ofstream csv = options.csvFile.empty() ? std::ofstream() : openCsv(options.csvFile);
    requireAgreement(run);
    printHeading(options, cipher);
    std::vector<figure> figures = measureTransport(run);
    figures.push_back(measureHandshake(frame, options, cipher));
    printRow(figures.back());
    printLegend();
    if (!options.csvFile.empty()) {
        writeCsv(csv, options.csvFile, figures);
    }
    return exitOk;
}

} // namespace

void addBenchCommand(CLI::App& program, selection& chosen)
{
    auto options = std::make_shared<benchOptions>();
    CLI::App* command = program.add_subcommand(
        "bench", "the library's packet cost, packet rate and handshake rate beside direct OpenSSL");
    command->add_option("--csv", options->csvFile, "also write the figures to FILE as CSV")
        ->type_name("FILE");
    command
        ->add_option("--seconds", options->seconds,
                     "time per figure and side; the whole run takes about 25 times this")
        ->check(CLI::Range(0.001, 3600.0))
        ->capture_default_str();
    command->add_option("--cipher", options->cipher, "transport cipher")
        ->check(CLI::IsMember({"aes128", "aes192", "aes256"}))
        ->capture_default_str();
    // The handshake needs a 16-byte digest.
    command->add_option("--hash", options->hash, "handshake digest")
        ->check(CLI::IsMember({"md5", "sha256-128"}))
        ->capture_default_str();
    command->callback([&chosen, options] {
        chosen = {"bench", [options](cliFrame& frame) { return runBench(frame, *options); }};
    });
}

} // namespace vxcli
