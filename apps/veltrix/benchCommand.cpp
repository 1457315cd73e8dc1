// veltrix bench: the library's packet cost, packet rate, handshake rate and tunnel throughput,
// each beside the same crypto work done directly with OpenSSL (vxdirect), as one table or CSV.
// How it measures: bench/README.md.
#include "benchStats.h"
#include "commands.h"
#include "directHandshake.h"
#include "directTransport.h"
#include "handshake.h"
#include "loopbackSocket.h"
#include "modeNames.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
using vxbench::loopbackAddress;
using vxbench::median;
using vxbench::ratiosOf;
using vxbench::setNoDelay;

namespace {

constexpr int kRounds = 5;
constexpr size_t kStepsPerClockRead = 8;
constexpr int kAcceptPollMs = 50;
const char* const kLoopback = "127.0.0.1";
const char* const kSecret = "the secret both ends of every benchmark handshake share";

struct benchOptions
{
    std::string csvFile;
    double seconds = 0.6; ///< per figure and side; the whole run takes about 30 times this
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
round receives(vxbench::transportEnd& producer, const vxBytes& payload, Receive receive)
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

/** What a figure counts: a packet in memory, a handshake, a 16 KiB write through the tunnel or a
 *  round trip through it. */
enum class figureKind
{
    packet,
    handshake,
    write,
    roundTrip
};

/** One figure: the rounds of the library and of the direct work. */
struct figure
{
    figure(std::string figureName, size_t payloadSize, figureKind what = figureKind::packet)
        : name(std::move(figureName)), payload(payloadSize), kind(what)
    {}

    /** Compared by wall-clock time instead of CPU time: the work runs in other threads or
     *  processes as well as the measuring one. */
    [[nodiscard]] bool wallClock() const { return kind != figureKind::packet; }

    /** Its payload moves data, so its rate in MB/s means something. */
    [[nodiscard]] bool rated() const
    {
        return kind == figureKind::packet || kind == figureKind::write;
    }

    /** The unit of work, as the CSV names it. */
    [[nodiscard]] std::string unit() const
    {
        const char* const units[] = {"packet", "handshake", "write", "round-trip"};
        return units[static_cast<int>(kind)];
    }

    std::string name;
    size_t payload = 0;
    figureKind kind = figureKind::packet;
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
    std::vector<double> libraryWall;
    std::vector<double> directWall;
    for (size_t i = 0; i < f.library.size(); ++i) {
        library.push_back(f.wallClock() ? f.library[i].wall : f.library[i].cpu);
        direct.push_back(f.wallClock() ? f.direct[i].wall : f.direct[i].cpu);
        libraryWall.push_back(f.library[i].wall);
        directWall.push_back(f.direct[i].wall);
    }
    return {median(library), median(direct), median(ratiosOf(library, direct)),
            median(ratiosOf(libraryWall, directWall))};
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
              << "           direct = the crypto of both ends of one handshake, in one thread\n"
              << "tunnel: library = 16 KiB writes through a tunnel pair on 127.0.0.1 to a sink;\n"
              << "        direct = the slower of the direct send and receive of 16384 bytes\n"
              << "tunnel-rtt: library = a 1-byte round trip through the pair;\n"
              << "            direct = a 1-byte packet there and back in memory, in one thread\n";
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
    if (f.kind != figureKind::handshake) {
        (void)std::snprintf(payload, sizeof payload, "%zu", f.payload);
    }
    if (f.rated()) {
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
    std::cout << "us: median CPU time per packet, wall time per handshake, per tunnel write and "
                 "round trip (their direct side: CPU time); ratio, wall: library/direct; per s: "
                 "library\n";
}

/** One CSV row: name, payload bytes, library value, reference value, unit, ratio. */
void csvRow(std::ostream& out, const figure& f, std::pair<double, double> values,
            const std::string& unit, double ratio)
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
        csvRow(out, f, {s.library * 1e6, s.direct * 1e6}, "us/" + f.unit(), s.ratio);
        csvRow(out, f, {1 / s.library, 1 / s.direct}, f.unit() + "s/s", 1 / s.ratio);
        if (f.rated() && f.payload > 0) {
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

/** What every measurement of a run needs. */
struct benchRun
{
    cliFrame& opener; ///< opens library objects; a failure's reason stays in the error trail
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
    require(direct.openPaired(run.cipher, true), "cannot key the direct OpenSSL end");
    vxdirect::bytes wire;
    return measure({"send", payload.bytes.size()}, run.seconds,
                   steps([&] { return library.pair.server.build(payload); }),
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
        where = {kLoopback,
                 std::to_string(vxbench::localPort<failure>(
                     server.socket.sockFd, "cannot read back the handshake server's port"))};
        worker = std::thread([this] { serve(); });
    }

    LVX_NOT_COPYABLE(handshakeServer);

    ~handshakeServer()
    {
        stopping = true;
        worker.join();
        (void)cliFrame::closeChild(server); // closes whatever connection it still manages
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
    channelOptions channel = defaultChannel();
    channel.cipher = options.cipher;
    channel.hash = options.hash;
    handshakeServer server(frame, options);
    const auto overLoopback = [&] {
        vxNetClient client;
        const closeOnExit closeClient(client);
        const closeOnExit closeChannel(client.encryptedSocket); // closed first
        connectEncrypted(frame, client, server.where, channel, secret);
        require(client.SendClientDisconnect() && cliFrame::closeChild(client.encryptedSocket) &&
                    cliFrame::closeChild(client),
                "the client cannot disconnect");
        return true;
    };
    const auto direct = [&] {
        vxdirect::referenceEnd serverSession;
        vxdirect::referenceEnd clientSession;
        return vxdirect::directHandshake(cipher, digest, secret.bytes, serverSession,
                                         clientSession);
    };
    return measure({"handshake", 0, figureKind::handshake}, options.seconds, steps(overLoopback),
                   steps(direct));
}

// ---- The tunnel --------------------------------------------------------------------------------
//
// A tunnel pair on 127.0.0.1 (this program run again as `tunnel --server` and `tunnel --client`,
// with the bench's cipher and hash) in front of a sink in a thread of this process. Two figures:
// 16 KiB writes one way, the clock running from the first write to the sink's last arrival,
// beside the slower of the direct send and receive of a 16384-byte packet (a pipeline of one
// sender and one receiver goes no faster than its slower side); and the 1-byte round trip, beside
// a 1-byte packet there and back done directly in memory.

constexpr size_t kTunnelWrite = 16384;      ///< bytes per write through the tunnel
constexpr size_t kSinkRead = 65536;         ///< bytes per read of the sink
constexpr int kTunnelWaitMs = 10000;        ///< any wait on the pair without progress
constexpr int kTunnelStartMs = 10000;       ///< for a tunnel to say it listens
constexpr int kTunnelStopMs = 3000;         ///< for a tunnel to stop after SIGTERM
constexpr int kPollStepMs = 10;             ///< how often a wait on another process looks
constexpr unsigned char kDiscardMark = 'D'; ///< first byte of a sink connection that discards
constexpr unsigned char kPing = 'r';        ///< the byte of a round trip
constexpr size_t kSecretBytes = 32;

int64_t steadyNanoseconds()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void sleepMs(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

/** A descriptor closed at the end of its scope. */
class ownedFd
{
public:
    explicit ownedFd(int descriptor = -1) : fd(descriptor) {}

    LVX_NOT_COPYABLE(ownedFd);

    ~ownedFd()
    {
        if (fd >= 0) {
            (void)close(fd);
        }
    }

    int fd;
};

/** A TCP socket bound to 127.0.0.1:`port` (0: the system picks). */
int boundSocket(uint16_t port, int flags)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    const sockaddr_in address = loopbackAddress(port);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const std::string reason = errnoText();
        if (fd >= 0) {
            (void)close(fd);
        }
        throw failure("cannot bind a socket on " + std::string(kLoopback) + ": " + reason);
    }
    return fd;
}

uint16_t localPort(int fd)
{
    return vxbench::localPort<failure>(fd, "cannot read back a local port");
}

/** Two ports on 127.0.0.1 that nothing uses now; the tunnels bind them a moment later. Both are
 *  held while the second is picked, so that they differ. */
std::pair<uint16_t, uint16_t> freePorts()
{
    const ownedFd first(boundSocket(0, 0));
    const ownedFd second(boundSocket(0, 0));
    return {localPort(first.fd), localPort(second.fd)};
}

/** Waits until `fd` is ready for `events`; throws failure naming `what` after kTunnelWaitMs. */
void awaitReady(int fd, short events, const char* what)
{
    pollfd watched{fd, events, 0};
    int ready = 0;
    while ((ready = poll(&watched, 1, kTunnelWaitMs)) < 0 && errno == EINTR) {
    }
    if (ready <= 0) {
        throw failure(std::string(what) + ": nothing happened for " +
                      std::to_string(kTunnelWaitMs / 1000) + " s");
    }
}

/** All of data out of a non-blocking socket, waiting while it is full. */
void sendAll(int fd, const unsigned char* data, size_t size, const char* what)
{
    while (size > 0) {
        const ssize_t sent = send(fd, data, size, MSG_NOSIGNAL);
        if (sent > 0) {
            data += sent;
            size -= static_cast<size_t>(sent);
        } else if (sent < 0 && errno != EAGAIN && errno != EINTR) {
            throw failure(std::string(what) + ": cannot send: " + errnoText());
        } else {
            awaitReady(fd, POLLOUT, what);
        }
    }
}

/** Exactly `size` bytes from a non-blocking socket. */
void receiveAll(int fd, unsigned char* data, size_t size, const char* what)
{
    while (size > 0) {
        const ssize_t got = recv(fd, data, size, 0);
        if (got > 0) {
            data += got;
            size -= static_cast<size_t>(got);
        } else if (got == 0) {
            throw failure(std::string(what) + ": the tunnel closed the connection");
        } else if (errno != EAGAIN && errno != EINTR) {
            throw failure(std::string(what) + ": cannot receive: " + errnoText());
        } else {
            awaitReady(fd, POLLIN, what);
        }
    }
}

/** The service behind the pair, in a thread of this process. It serves one connection at a time
 *  (the bench is serial): one whose first byte is kDiscardMark is read to its end and counted,
 *  with the time of each arrival; any other is echoed. */
class benchSink
{
public:
    benchSink() : listener(boundSocket(0, SOCK_NONBLOCK))
    {
        if (listen(listener.fd, SOMAXCONN) != 0) {
            throw failure("cannot listen on " + std::string(kLoopback) + ": " + errnoText());
        }
        port = localPort(listener.fd);
        worker = std::thread([this] { serve(); });
    }

    LVX_NOT_COPYABLE(benchSink);

    ~benchSink()
    {
        stopping = true;
        worker.join();
    }

    uint16_t port = 0;
    std::atomic<uint64_t> received{0};   ///< bytes discarded, over every connection
    std::atomic<int64_t> lastArrival{0}; ///< steadyNanoseconds() when the latest of them came

private:
    void serve()
    {
        pollfd waiting{listener.fd, POLLIN, 0};
        while (!stopping) {
            if (poll(&waiting, 1, kAcceptPollMs) > 0) {
                const ownedFd connection(
                    accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
                if (connection.fd >= 0) {
                    serveOne(connection.fd);
                }
            }
        }
    }

    /** Until the connection ends or fails, or the sink stops. */
    void serveOne(int fd)
    {
        setNoDelay(fd);
        std::vector<unsigned char> buffer(kSinkRead);
        pollfd readable{fd, POLLIN, 0};
        bool first = true;
        bool discarding = false;
        while (!stopping) {
            if (poll(&readable, 1, kAcceptPollMs) <= 0) {
                continue; // a quiet connection is the bench's business
            }
            const ssize_t got = recv(fd, buffer.data(), buffer.size(), 0);
            if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
                return;
            }
            if (got < 0) {
                continue;
            }
            const auto size = static_cast<size_t>(got);
            const size_t skip = first && buffer[0] == kDiscardMark ? 1 : 0;
            discarding = discarding || skip == 1;
            first = false;
            if (discarding) {
                // The time first: once the bench sees the count, the time is that of its bytes.
                lastArrival = steadyNanoseconds();
                received += size - skip;
            } else if (!echo(fd, buffer.data(), size)) {
                return;
            }
        }
    }

    static bool echo(int fd, const unsigned char* data, size_t size)
    {
        try {
            sendAll(fd, data, size, "the sink");
            return true;
        } catch (const failure&) {
            return false; // the bench's side of the connection reports what went wrong
        }
    }

    ownedFd listener;
    std::thread worker;
    std::atomic<bool> stopping{false};
};

/** A directory of this run's own for the secret and the tunnels' logs; removed with its files
 *  once the tunnels have started, or at the end of its scope. */
class scratchDir
{
public:
    scratchDir()
    {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/veltrix-bench.XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw failure("cannot create a directory like " + pattern + ": " + errnoText());
        }
        path = pattern;
    }

    LVX_NOT_COPYABLE(scratchDir);

    ~scratchDir() { remove(); }

    /** The path of a file in the directory, removed with it. */
    std::string file(const std::string& name)
    {
        files.push_back(name);
        return path + "/" + name;
    }

    void remove()
    {
        if (path.empty()) {
            return;
        }
        for (const std::string& name : files) {
            (void)unlink((path + "/" + name).c_str());
        }
        (void)rmdir(path.c_str());
        path.clear();
    }

private:
    std::string path;
    std::vector<std::string> files;
};

std::string hexText(const vxdirect::bytes& data)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : data) {
        text += digits[byte >> 4U];
        text += digits[byte & 0x0FU];
    }
    return text;
}

/** A fresh random secret in `path`, open to this user alone, as the tunnel demands. */
void writeSecretFile(const std::string& path)
{
    const std::string secret = hexText(vxdirect::randomBytes(kSecretBytes));
    const ownedFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (file.fd < 0 ||
        write(file.fd, secret.data(), secret.size()) != static_cast<ssize_t>(secret.size())) {
        throw failure("cannot write " + path + ": " + errnoText());
    }
}

/** The last line of `text`, or a note that there is none. */
std::string lastLine(std::string text)
{
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    const size_t start = text.rfind('\n');
    text = start == std::string::npos ? text : text.substr(start + 1);
    return text.empty() ? "it said nothing" : text;
}

/** What a tunnel process writes when the program could not start itself again. */
constexpr char kCannotRestart[] = "cannot start this program again\n";

/** The child side of a fork: only async-signal-safe calls until the program runs again. */
[[noreturn]] void execTunnel(char* const* argv, pid_t parent, int logFd)
{
    (void)setpgid(0, 0);
    // Ends with the bench, whatever ends the bench; checked once armed, in case it already did.
    (void)prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) {
        _exit(exitFailure);
    }
    const int devNull = open("/dev/null", O_RDWR);
    if (devNull < 0 || dup2(devNull, STDIN_FILENO) < 0 || dup2(devNull, STDOUT_FILENO) < 0 ||
        dup2(logFd, STDERR_FILENO) < 0) {
        _exit(exitFailure);
    }
    execv("/proc/self/exe", argv);
    // Under a user-mode emulator without binfmt_misc the program cannot start itself again.
    // Nothing is left to do when even this write fails.
    [[maybe_unused]] const ssize_t said =
        write(STDERR_FILENO, kCannotRestart, sizeof kCannotRestart - 1);
    _exit(exitFailure);
}

/** The program could not start itself again: the tunnel rows cannot be measured here. */
class cannotRestart : public failure
{
public:
    using failure::failure;
};

/** One tunnel process, in a process group of its own with whatever processes it starts. Its
 *  standard error goes to a file that this process keeps open, so it stays readable once the
 *  file is removed. Stopped, and every process of its group ended, at the end of its scope. */
class tunnelProcess
{
public:
    tunnelProcess(std::string processName, const std::vector<std::string>& arguments,
                  const std::string& logPath)
        : name(std::move(processName)),
          log(open(logPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600))
    {
        if (log.fd < 0) {
            throw failure("cannot create " + logPath + ": " + errnoText());
        }
        std::vector<std::string> copies = arguments; // argv wants writable strings
        std::vector<char*> argv;
        argv.reserve(copies.size() + 1);
        for (std::string& argument : copies) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        const pid_t parent = getpid();
        pid = fork();
        if (pid < 0) {
            throw failure("cannot start the " + name + ": " + errnoText());
        }
        if (pid == 0) {
            execTunnel(argv.data(), parent, log.fd);
        }
        (void)setpgid(pid, pid); // also here, so that the group exists before either goes on
    }

    LVX_NOT_COPYABLE(tunnelProcess);

    ~tunnelProcess()
    {
        // SIGTERM stops the accepting and lets the connections finish; they are closed by now.
        (void)kill(pid, SIGTERM);
        for (int waited = 0; waited < kTunnelStopMs && !ended(); waited += kPollStepMs) {
            sleepMs(kPollStepMs);
        }
        // Whatever of the group is left. The tunnel is not reaped yet, so the group's number
        // still belongs to it.
        (void)kill(-pid, SIGKILL);
        (void)waitpid(pid, nullptr, 0);
    }

    /** Waits for the "listening on" line of the tunnel's log. */
    void awaitListening() const
    {
        for (int waited = 0;; waited += kPollStepMs) {
            const std::string text = logText();
            if (text.find("listening on") != std::string::npos) {
                return;
            }
            if (ended() && text.find(kCannotRestart) != std::string::npos) {
                throw cannotRestart("this program cannot start itself again here (an emulator "
                                    "without binfmt_misc, say)");
            }
            if (ended()) {
                throw failure("the " + name + " ended at start: " + lastLine(text));
            }
            if (waited >= kTunnelStartMs) {
                throw failure("the " + name + " did not start within " +
                              std::to_string(kTunnelStartMs / 1000) + " s: " + lastLine(text));
            }
            sleepMs(kPollStepMs);
        }
    }

private:
    /** Whether the process has ended; it stays unreaped. */
    [[nodiscard]] bool ended() const
    {
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
               info.si_pid != 0;
    }

    [[nodiscard]] std::string logText() const
    {
        std::string text(kSinkRead, '\0');
        const ssize_t got = pread(log.fd, text.data(), text.size(), 0);
        text.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return text;
    }

    std::string name;
    ownedFd log;
    pid_t pid = -1;
};

/** A tunnel pair on 127.0.0.1 in front of a sink: client end -> server end -> sink. */
class tunnelPair
{
public:
    tunnelPair(const cliFrame& frame, const benchOptions& options) : ports(freePorts())
    {
        const std::string secret = dir.file("secret");
        writeSecretFile(secret);
        const auto [serverPort, clientPort] = ports;
        server = std::make_unique<tunnelProcess>(
            "server tunnel", arguments(frame, options, "--server", serverPort, sink.port, secret),
            dir.file("server.log"));
        server->awaitListening();
        client = std::make_unique<tunnelProcess>(
            "client tunnel", arguments(frame, options, "--client", clientPort, serverPort, secret),
            dir.file("client.log"));
        client->awaitListening();
        // Each has read the secret before it listens; their logs stay open to this process.
        dir.remove();
    }

    /** A connection to the client end: non-blocking, small segments sent at once. */
    [[nodiscard]] int connect() const
    {
        ownedFd connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        const sockaddr_in address = loopbackAddress(ports.second);
        if (connection.fd < 0 ||
            (::connect(connection.fd, reinterpret_cast<const sockaddr*>(&address),
                       sizeof address) != 0 &&
             errno != EINPROGRESS)) {
            throw failure("cannot connect to the client tunnel: " + errnoText());
        }
        awaitReady(connection.fd, POLLOUT, "connecting to the client tunnel");
        int error = 0;
        socklen_t length = sizeof error;
        (void)getsockopt(connection.fd, SOL_SOCKET, SO_ERROR, &error, &length);
        if (error != 0) {
            throw failure("cannot connect to the client tunnel: " +
                          std::string(std::strerror(error)));
        }
        setNoDelay(connection.fd);
        const int fd = connection.fd;
        connection.fd = -1;
        return fd;
    }

    benchSink sink;

private:
    /** The command line of one end: this program's global options, then the tunnel's. */
    static std::vector<std::string> arguments(const cliFrame& frame, const benchOptions& options,
                                              const char* side, uint16_t acceptPort,
                                              uint16_t connectPort, const std::string& secret)
    {
        std::vector<std::string> args = {"veltrix"};
        if (!frame.options().pluginPath.empty()) {
            args.insert(args.end(), {"--plugin-path", frame.options().pluginPath});
        }
        if (frame.options().verbose) {
            args.emplace_back("-v");
        }
        const std::string loopback = std::string(kLoopback) + ":";
        args.insert(args.end(),
                    {"tunnel", side, "--accept", loopback + std::to_string(acceptPort), "--connect",
                     loopback + std::to_string(connectPort), "--psk-file", secret, "--cipher",
                     options.cipher, "--hash", options.hash, "--foreground"});
        return args;
    }

    // Declared in this order so that the tunnels stop before the sink and the directory go.
    scratchDir dir;
    std::pair<uint16_t, uint16_t> ports; ///< the server end's, the client end's
    std::unique_ptr<tunnelProcess> server;
    std::unique_ptr<tunnelProcess> client;
};

/** Waits until the sink has `target` bytes; throws failure when nothing arrives for
 *  kTunnelWaitMs. */
void awaitSink(const benchSink& sink, uint64_t target)
{
    uint64_t seen = sink.received;
    int64_t lastProgress = steadyNanoseconds();
    while (seen < target) {
        sleepMs(1);
        const uint64_t now = sink.received;
        if (now != seen) {
            seen = now;
            lastProgress = steadyNanoseconds();
        } else if (steadyNanoseconds() - lastProgress > int64_t{kTunnelWaitMs} * 1000000) {
            throw failure("the tunnel pair delivered " + std::to_string(seen) + " of " +
                          std::to_string(target) + " bytes and then nothing for " +
                          std::to_string(kTunnelWaitMs / 1000) + " s");
        }
    }
}

/** Rounds of 16 KiB writes through the pair, on a connection the sink discards: each round
 *  writes for its budget, then waits for the sink to have all of it. Time per write: from the
 *  first write to the sink's last arrival. */
round tunnelWrites(int fd, const benchSink& sink, const vxdirect::bytes& chunk)
{
    return [fd, &sink, &chunk](double budget, sample& perUnit) {
        const uint64_t before = sink.received; // the previous round has fully arrived
        const int64_t start = steadyNanoseconds();
        const auto until = start + static_cast<int64_t>(budget * 1e9);
        size_t writes = 0;
        do {
            for (size_t i = 0; i < kStepsPerClockRead; ++i, ++writes) {
                sendAll(fd, chunk.data(), chunk.size(), "writing through the tunnel");
            }
        } while (steadyNanoseconds() < until);
        awaitSink(sink, before + writes * chunk.size());
        const double seconds = static_cast<double>(sink.lastArrival - start) * 1e-9;
        const double perWrite = seconds / static_cast<double>(writes);
        perUnit = {perWrite, perWrite};
        return true;
    };
}

/** A round of two sides of one pipeline, half the budget each: the slower side's time. */
round slowerOf(const round& first, const round& second)
{
    return [first, second](double budget, sample& perUnit) {
        sample one;
        sample other;
        if (!first(budget / 2, one) || !second(budget / 2, other)) {
            return false;
        }
        perUnit = {std::max(one.cpu, other.cpu), std::max(one.wall, other.wall)};
        return true;
    };
}

/** The direct side of a tunnel figure, timed as the packet rows are: by the CPU time of this
 *  thread, which a busy machine disturbs least. The tunnel side spans three processes and can only
 *  be timed by the wall clock, so its figure compares the two on that clock. */
round byCpuTime(const round& direct)
{
    return [direct](double budget, sample& perUnit) {
        if (!direct(budget, perUnit)) {
            return false;
        }
        perUnit.wall = perUnit.cpu;
        return true;
    };
}

/** Writes a whole packet into a blocking socket. */
bool writeAll(int fd, const vxdirect::bytes& data)
{
    size_t done = 0;
    while (done < data.size()) {
        const ssize_t sent = write(fd, data.data() + done, data.size() - done);
        if (sent <= 0) {
            return false;
        }
        done += static_cast<size_t>(sent);
    }
    return true;
}

/** A 1-byte payload there and back done directly in memory: both ends keyed alike in this
 *  thread, over a socket pair. The least a round trip through the transport costs. */
class directRoundTrip
{
public:
    explicit directRoundTrip(const vxdirect::cipherChoice& cipher)
    {
        int fds[2] = {-1, -1};
        if (!vxbench::socketPair(fds)) {
            throw failure("cannot create a socket pair: " + errnoText());
        }
        nearFd.fd = fds[0];
        farFd.fd = fds[1];
        require(near.openPaired(cipher, true) && far.openPaired(cipher, false) && near.mirrors(far),
                "cannot key the direct OpenSSL ends");
    }

    bool operator()()
    {
        return near.seal(payload, wire) && writeAll(nearFd.fd, wire) &&
               far.receive(farFd.fd, got) && far.seal(got, wire) && writeAll(farFd.fd, wire) &&
               near.receive(nearFd.fd, got) && got == payload;
    }

private:
    ownedFd nearFd;
    ownedFd farFd;
    vxdirect::referenceEnd near;
    vxdirect::referenceEnd far;
    vxdirect::bytes payload{kPing};
    vxdirect::bytes wire;
    vxdirect::bytes got;
};

figure measureTunnelWrites(benchRun& run, const tunnelPair& pair)
{
    vxBytes payload;
    payload.bytes = vxdirect::randomBytes(kTunnelWrite);
    vxdirect::referenceEnd sealer;
    require(sealer.openPaired(run.cipher, true), "cannot key the direct OpenSSL end");
    vxdirect::mixedPair receiving(run.opener, run.cipher);
    require(receiving.ready, "cannot open the transport ends");
    vxdirect::bytes wire;
    vxdirect::bytes got;
    const ownedFd connection(pair.connect());
    sendAll(connection.fd, &kDiscardMark, 1, "writing through the tunnel");
    return measure({"tunnel", kTunnelWrite, figureKind::write}, run.seconds,
                   tunnelWrites(connection.fd, pair.sink, payload.bytes),
                   byCpuTime(slowerOf(steps([&] { return sealer.seal(payload.bytes, wire); }),
                                      receives(receiving.pair.server, payload, [&] {
                                          return receiving.reference.receive(
                                              receiving.referenceFd(), got);
                                      }))));
}

figure measureTunnelTrips(benchRun& run, const tunnelPair& pair)
{
    directRoundTrip direct(run.cipher);
    const ownedFd connection(pair.connect());
    const auto throughTunnel = [fd = connection.fd] {
        unsigned char byte = kPing;
        sendAll(fd, &byte, 1, "a round trip through the tunnel");
        receiveAll(fd, &byte, 1, "a round trip through the tunnel");
        return byte == kPing;
    };
    return measure({"tunnel-rtt", 1, figureKind::roundTrip}, run.seconds, steps(throughTunnel),
                   byCpuTime(steps([&direct] { return direct(); })));
}

// ---- The command -------------------------------------------------------------------------------

int runBench(cliFrame& frame, const benchOptions& options)
{
    frame.loadPlugin();
    const vxdirect::cipherChoice& cipher = *vxdirect::findCipher(options.cipher);
    benchRun run{frame, cipher, options.seconds};
    std::ofstream csv = options.csvFile.empty() ? std::ofstream() : openCsv(options.csvFile);
    requireAgreement(run);
    printHeading(options, cipher);
    std::vector<figure> figures = measureTransport(run);
    figures.push_back(measureHandshake(frame, options, cipher));
    printRow(figures.back());
    try {
        const tunnelPair pair(frame, options);
        for (auto* measureTunnel : {measureTunnelWrites, measureTunnelTrips}) {
            figures.push_back(measureTunnel(run, pair));
            printRow(figures.back());
        }
    } catch (const cannotRestart& reason) {
        std::cerr << "veltrix bench: the tunnel rows are left out: " << reason.what() << std::endl;
    }
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
        "bench",
        "the library's packet cost, packet rate, handshake rate and tunnel throughput beside "
        "direct OpenSSL");
    command->add_option("--csv", options->csvFile, "also write the figures to FILE as CSV")
        ->type_name("FILE");
    command
        ->add_option("--seconds", options->seconds,
                     "time per figure and side; the whole run takes about 30 times this")
        ->check(CLI::Range(0.001, 3600.0))
        ->capture_default_str();
    command->add_option("--cipher", options->cipher, "transport cipher")
        ->check(CLI::IsMember(veltrix::engine::kEncryptingCipherModes))
        ->capture_default_str();
    // The handshake needs a 16-byte digest.
    command->add_option("--hash", options->hash, "handshake digest")
        ->check(CLI::IsMember(veltrix::engine::kHandshakeHashModes))
        ->capture_default_str();
    command->callback([&chosen, options] {
        chosen = {"bench", [options](cliFrame& frame) { return runBench(frame, *options); }};
    });
}

} // namespace vxcli
