// tunnel_driver: both ends of a TCP service measured through a tunnel on 127.0.0.1, for
// bench/tunnel_compare.sh; POSIX sockets only, so it measures any tunnel the same way. Its
// commands and the bulk connection's protocol: bench/README.md.
#include "loopbackSocket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kStallMs = 10000;         ///< a wait of the driver without progress
constexpr int kSinkIdleMs = 600000;     ///< a sink connection with nothing happening
constexpr int kHoldSeconds = 600;       ///< idle connections are held at most this long
constexpr int kAcceptPollMs = 200;      ///< how often the sink looks at its stop flag
constexpr size_t kChunk = 16384;        ///< bytes per write of a bulk transfer
constexpr size_t kReadSize = 65536;     ///< bytes per read
constexpr size_t kPeriod = 65521;       ///< pattern period, prime: a lost chunk shifts it
constexpr size_t kEchoBacklog = 262144; ///< echo stops reading while this much is unsent
constexpr unsigned char kBulkMark = 0xB5;
constexpr size_t kBulkHeader = 17; ///< the mark, then two 8-byte counts
constexpr size_t kAck = 16;
constexpr uint64_t kNoMismatch = ~uint64_t{0};
constexpr int kWarmUpTrips = 20;
const char* const kLoopback = "127.0.0.1";

class failure : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

class usageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

std::string errnoText()
{
    return std::strerror(errno);
}

volatile sig_atomic_t stopRequested = 0;

extern "C" void onStop(int /*signo*/)
{
    stopRequested = 1;
}

/** SIGTERM and SIGINT set the stop flag and interrupt the wait in progress (no SA_RESTART). */
void catchStopSignals()
{
    struct sigaction action = {};
    action.sa_handler = onStop;
    (void)sigemptyset(&action.sa_mask);
    (void)sigaction(SIGTERM, &action, nullptr);
    (void)sigaction(SIGINT, &action, nullptr);
    (void)signal(SIGPIPE, SIG_IGN);
}

double now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

/** A descriptor closed at the end of its scope. */
class socketFd
{
public:
    socketFd() = default;

    explicit socketFd(int descriptor) : fd(descriptor) {}

    socketFd(socketFd&& other) noexcept : fd(other.fd) { other.fd = -1; }

    socketFd& operator=(socketFd&& other) noexcept
    {
        std::swap(fd, other.fd);
        return *this;
    }

    socketFd(const socketFd&) = delete;
    socketFd& operator=(const socketFd&) = delete;

    ~socketFd()
    {
        if (fd >= 0) {
            (void)close(fd);
        }
    }

    [[nodiscard]] int get() const { return fd; }

private:
    int fd = -1;
};

// ---- The pattern of bulk payloads --------------------------------------------------------------

/** The bytes at stream offset `offset` are pattern()[offset % kPeriod ...]: one period plus room
 *  for the longest read or write past its end. */
const std::vector<unsigned char>& pattern()
{
    static const std::vector<unsigned char> bytes = [] {
        std::vector<unsigned char> b(kPeriod + kReadSize);
        uint32_t state = 0x9E3779B9U;
        for (size_t i = 0; i < kPeriod; ++i) {
            state ^= state << 13U;
            state ^= state >> 17U;
            state ^= state << 5U;
            b[i] = static_cast<unsigned char>(state >> 24U);
        }
        // The tail repeats the period (it is longer than one period, so no std::copy).
        for (size_t i = kPeriod; i < b.size(); ++i) {
            b[i] = b[i - kPeriod];
        }
        return b;
    }();
    return bytes;
}

const unsigned char* patternAt(uint64_t offset)
{
    return pattern().data() + offset % kPeriod;
}

/** Offset of the first byte of data[0..size) that is not the pattern at `offset`, or
 *  kNoMismatch. */
uint64_t firstMismatch(const unsigned char* data, size_t size, uint64_t offset)
{
    if (std::memcmp(data, patternAt(offset), size) == 0) {
        return kNoMismatch;
    }
    size_t i = 0;
    while (data[i] == patternAt(offset + i)[0]) {
        ++i;
    }
    return offset + i;
}

void putBigEndian(unsigned char* into, uint64_t value)
{
    for (int i = 7; i >= 0; --i) {
        into[i] = static_cast<unsigned char>(value & 0xFFU);
        value >>= 8U;
    }
}

uint64_t getBigEndian(const unsigned char* from)
{
    uint64_t value = 0;
    for (int i = 0; i < 8; ++i) {
        value = (value << 8U) | from[i];
    }
    return value;
}

// ---- Sockets -----------------------------------------------------------------------------------

std::string where(uint16_t port)
{
    return std::string(kLoopback) + ":" + std::to_string(port);
}

/** Non-blocking, small segments sent at once (a 1-byte ping must not wait). */
void tune(int fd)
{
    vxbench::setNoDelay(fd);
    (void)fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

/** Waits until `fd` is ready for `events`; false after `timeoutMs` without it. A signal ends
 *  the wait early (true): the caller's next call sees EAGAIN and waits again, or stops. */
bool waitFor(int fd, short events, int timeoutMs)
{
    pollfd watched{fd, events, 0};
    const int ready = poll(&watched, 1, timeoutMs);
    if (ready < 0 && errno != EINTR) {
        throw failure("poll failed: " + errnoText());
    }
    return ready != 0;
}

void requireReady(int fd, short events, const std::string& what)
{
    if (!waitFor(fd, events, kStallMs)) {
        throw failure(what + ": nothing for " + std::to_string(kStallMs / 1000) + " s");
    }
}

socketFd connectTo(uint16_t port)
{
    socketFd s(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (s.get() < 0) {
        throw failure("cannot create a socket: " + errnoText());
    }
    tune(s.get());
    const sockaddr_in address = vxbench::loopbackAddress(port);
    if (connect(s.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
        errno != EINPROGRESS) {
        throw failure("cannot connect to " + where(port) + ": " + errnoText());
    }
    requireReady(s.get(), POLLOUT, "connecting to " + where(port));
    int error = 0;
    socklen_t length = sizeof error;
    (void)getsockopt(s.get(), SOL_SOCKET, SO_ERROR, &error, &length);
    if (error != 0) {
        throw failure("cannot connect to " + where(port) + ": " + std::strerror(error));
    }
    return s;
}

void sendAll(int fd, const void* data, size_t size, const std::string& what)
{
    const auto* at = static_cast<const unsigned char*>(data);
    while (size > 0) {
        const ssize_t sent = send(fd, at, size, MSG_NOSIGNAL);
        if (sent > 0) {
            at += sent;
            size -= static_cast<size_t>(sent);
        } else if (errno == EAGAIN || errno == EINTR) {
            requireReady(fd, POLLOUT, what);
        } else {
            throw failure(what + ": cannot send: " + errnoText());
        }
    }
}

void receiveAll(int fd, void* data, size_t size, const std::string& what)
{
    auto* at = static_cast<unsigned char*>(data);
    while (size > 0) {
        const ssize_t got = recv(fd, at, size, 0);
        if (got > 0) {
            at += got;
            size -= static_cast<size_t>(got);
        } else if (got == 0) {
            throw failure(what + ": the connection ended early");
        } else if (errno == EAGAIN || errno == EINTR) {
            requireReady(fd, POLLIN, what);
        } else {
            throw failure(what + ": cannot receive: " + errnoText());
        }
    }
}

/** One byte out, the same byte back. */
void roundTrip(int fd, unsigned char byte, const std::string& what)
{
    unsigned char back = 0;
    sendAll(fd, &byte, 1, what);
    receiveAll(fd, &back, 1, what);
    if (back != byte) {
        throw failure(what + ": the echo returned a different byte");
    }
}

/** A listening socket; non-blocking, so that an accept after a wait cut short never blocks. */
socketFd listenOn(uint16_t port)
{
    socketFd s(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int one = 1;
    (void)setsockopt(s.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    const sockaddr_in address = vxbench::loopbackAddress(port);
    if (s.get() < 0 ||
        bind(s.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(s.get(), SOMAXCONN) != 0) {
        throw failure("cannot listen on " + where(port) + ": " + errnoText());
    }
    return s;
}

uint16_t boundPort(int fd)
{
    return vxbench::localPort<failure>(fd, "cannot read back the port");
}

// ---- The sink ----------------------------------------------------------------------------------

/** Echo: reads while less than kEchoBacklog waits to go back, so a peer that does not read
 *  stalls its own sending instead of growing the sink. */
void serveEcho(int fd)
{
    std::vector<unsigned char> pending;
    std::vector<unsigned char> buffer(kReadSize);
    bool ended = false;
    while (!ended || !pending.empty()) {
        short events = pending.empty() ? 0 : POLLOUT;
        events =
            static_cast<short>(events | (!ended && pending.size() < kEchoBacklog ? POLLIN : 0));
        if (!waitFor(fd, events, kSinkIdleMs)) {
            return;
        }
        const ssize_t got = recv(fd, buffer.data(), buffer.size(), 0);
        if (got == 0) {
            ended = true;
        } else if (got > 0) {
            pending.insert(pending.end(), buffer.begin(), buffer.begin() + got);
        } else if (errno != EAGAIN && errno != EINTR) {
            return;
        }
        const ssize_t sent =
            pending.empty() ? 0 : send(fd, pending.data(), pending.size(), MSG_NOSIGNAL);
        if (sent > 0) {
            pending.erase(pending.begin(), pending.begin() + sent);
        } else if (sent < 0 && errno != EAGAIN && errno != EINTR) {
            return;
        }
    }
    (void)shutdown(fd, SHUT_WR);
}

/** Progress of one direction of a bulk transfer. */
struct stream
{
    uint64_t total = 0;
    uint64_t done = 0;
    uint64_t mismatch = kNoMismatch;

    [[nodiscard]] bool complete() const { return done == total; }
};

/** Sends the next piece of `out` from the pattern; false when the connection failed. */
bool sendPattern(int fd, stream& out)
{
    const size_t size = static_cast<size_t>(std::min<uint64_t>(kChunk, out.total - out.done));
    const ssize_t sent = send(fd, patternAt(out.done), size, MSG_NOSIGNAL);
    if (sent > 0) {
        out.done += static_cast<uint64_t>(sent);
    }
    return sent >= 0 || errno == EAGAIN || errno == EINTR;
}

/** Reads what arrived into `in`, checking it against the pattern; 0 at the end of the stream,
 *  -1 when the connection failed, else 1. */
int receivePattern(int fd, stream& in, std::vector<unsigned char>& buffer)
{
    // Never past the end of the stream: the acknowledgement may follow it at once.
    const auto size = static_cast<size_t>(std::min<uint64_t>(buffer.size(), in.total - in.done));
    const ssize_t got = recv(fd, buffer.data(), size, 0);
    if (got > 0) {
        const uint64_t at = firstMismatch(buffer.data(), static_cast<size_t>(got), in.done);
        if (in.mismatch == kNoMismatch) {
            in.mismatch = at;
        }
        in.done += static_cast<uint64_t>(got);
    }
    if (got == 0) {
        return 0;
    }
    return got > 0 || errno == EAGAIN || errno == EINTR ? 1 : -1;
}

/** Bulk: checks and discards the payload while sending the reply, then acknowledges. */
void serveBulk(int fd)
{
    unsigned char header[kBulkHeader - 1];
    try {
        receiveAll(fd, header, sizeof header, "bulk header");
    } catch (const failure&) {
        return;
    }
    stream in;
    in.total = getBigEndian(header);
    stream out;
    out.total = getBigEndian(header + 8);
    std::vector<unsigned char> buffer(kReadSize);
    while (!in.complete() || !out.complete()) {
        const auto events =
            static_cast<short>((in.complete() ? 0 : POLLIN) | (out.complete() ? 0 : POLLOUT));
        if (!waitFor(fd, events, kSinkIdleMs)) {
            return;
        }
        if ((!in.complete() && receivePattern(fd, in, buffer) <= 0) ||
            (!out.complete() && !sendPattern(fd, out))) {
            return;
        }
    }
    unsigned char ack[kAck];
    putBigEndian(ack, in.done);
    putBigEndian(ack + 8, in.mismatch);
    try {
        sendAll(fd, ack, sizeof ack, "bulk acknowledgement");
    } catch (const failure&) {
        return;
    }
    (void)shutdown(fd, SHUT_WR);
}

void serveConnection(int descriptor)
{
    const socketFd s(descriptor);
    tune(s.get());
    unsigned char first = 0;
    if (!waitFor(s.get(), POLLIN, kSinkIdleMs)) {
        return;
    }
    // Peek, so that an echo connection gets its first byte back like every other.
    if (recv(s.get(), &first, 1, MSG_PEEK) != 1) {
        return;
    }
    if (first == kBulkMark) {
        (void)recv(s.get(), &first, 1, 0);
        serveBulk(s.get());
    } else {
        serveEcho(s.get());
    }
}

int runSink(uint16_t port)
{
    const socketFd listener = listenOn(port);
    std::printf("listening on %s\n", where(boundPort(listener.get())).c_str());
    (void)std::fflush(stdout);
    while (stopRequested == 0) {
        if (!waitFor(listener.get(), POLLIN, kAcceptPollMs)) {
            continue;
        }
        const int accepted = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (accepted >= 0) {
            std::thread(serveConnection, accepted).detach();
        } else if (errno != EINTR && errno != ECONNABORTED && errno != EAGAIN) {
            throw failure("cannot accept on " + where(port) + ": " + errnoText());
        }
    }
    return 0;
}

// ---- The measures ------------------------------------------------------------------------------

int runConnrate(uint16_t port, double seconds)
{
    const char request[4] = {'p', 'i', 'n', 'g'};
    char answer[4] = {};
    size_t connections = 0;
    const double start = now();
    double elapsed = 0;
    do {
        const socketFd s = connectTo(port);
        sendAll(s.get(), request, sizeof request, "connection " + std::to_string(connections));
        receiveAll(s.get(), answer, sizeof answer, "connection " + std::to_string(connections));
        if (std::memcmp(request, answer, sizeof answer) != 0) {
            throw failure("the echo returned different bytes");
        }
        ++connections;
        elapsed = now() - start;
    } while (elapsed < seconds && stopRequested == 0);
    std::printf("connrate %.1f per_s %zu connections %.3f s\n",
                static_cast<double>(connections) / elapsed, connections, elapsed);
    return 0;
}

double percentile(const std::vector<double>& sorted, double share)
{
    const auto at =
        static_cast<size_t>(std::lround(share * static_cast<double>(sorted.size() - 1)));
    return sorted[at];
}

int runRtt(uint16_t port, size_t count)
{
    if (count == 0) {
        throw usageError("COUNT must be at least 1");
    }
    const socketFd s = connectTo(port);
    for (int i = 0; i < kWarmUpTrips; ++i) {
        roundTrip(s.get(), 'w', "warm-up round trip");
    }
    std::vector<double> trips;
    trips.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        const double start = now();
        roundTrip(s.get(), static_cast<unsigned char>('a' + i % 26), "round trip");
        trips.push_back((now() - start) * 1e6);
    }
    std::sort(trips.begin(), trips.end());
    std::printf("rtt_us median %.1f p10 %.1f p90 %.1f count %zu\n", percentile(trips, 0.5),
                percentile(trips, 0.1), percentile(trips, 0.9), count);
    return 0;
}

/** Holds until standard input ends, a stop signal arrives or kHoldSeconds pass. */
void holdUntilReleased()
{
    const double until = now() + kHoldSeconds;
    char discard[256];
    while (stopRequested == 0 && now() < until) {
        if (!waitFor(STDIN_FILENO, POLLIN, kAcceptPollMs)) {
            continue;
        }
        const ssize_t got = read(STDIN_FILENO, discard, sizeof discard);
        if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN)) {
            return;
        }
    }
}

int runIdle(uint16_t port, size_t count)
{
    std::vector<socketFd> held;
    held.reserve(count);
    for (size_t i = 0; i < count && stopRequested == 0; ++i) {
        held.push_back(connectTo(port));
        roundTrip(held.back().get(), 'i', "idle connection " + std::to_string(i));
    }
    std::printf("ready %zu\n", held.size());
    (void)std::fflush(stdout);
    holdUntilReleased();
    return 0;
}

std::string progressText(const stream& out, const stream& in)
{
    return "sent " + std::to_string(out.done) + " of " + std::to_string(out.total) + ", received " +
           std::to_string(in.done) + " of " + std::to_string(in.total);
}

/** The acknowledgement: the sink got every byte, each where the pattern puts it. */
void checkAck(const unsigned char* ack, uint64_t sent)
{
    const uint64_t received = getBigEndian(ack);
    const uint64_t mismatch = getBigEndian(ack + 8);
    if (received != sent) {
        throw failure("the sink received " + std::to_string(received) + " bytes of " +
                      std::to_string(sent));
    }
    if (mismatch != kNoMismatch) {
        throw failure("the sink received a wrong byte at offset " + std::to_string(mismatch));
    }
}

/** The client of a bulk transfer: `sending` bytes out, `receiving` bytes back, both at once; the
 *  seconds from the first byte sent to the acknowledgement. */
double transfer(uint16_t port, uint64_t sending, uint64_t receiving)
{
    const socketFd s = connectTo(port);
    unsigned char header[kBulkHeader] = {kBulkMark};
    putBigEndian(header + 1, sending);
    putBigEndian(header + 9, receiving);
    stream out;
    out.total = sending;
    stream in;
    in.total = receiving;
    std::vector<unsigned char> buffer(kReadSize);
    const double start = now();
    sendAll(s.get(), header, sizeof header, "bulk header");
    while (!out.complete() || !in.complete()) {
        const auto events =
            static_cast<short>((in.complete() ? 0 : POLLIN) | (out.complete() ? 0 : POLLOUT));
        requireReady(s.get(), events, "bulk transfer (" + progressText(out, in) + ")");
        if ((!out.complete() && !sendPattern(s.get(), out)) ||
            (!in.complete() && receivePattern(s.get(), in, buffer) <= 0)) {
            throw failure("bulk transfer: the connection ended (" + progressText(out, in) + ")");
        }
    }
    if (in.mismatch != kNoMismatch) {
        throw failure("bulk transfer: wrong byte received at offset " +
                      std::to_string(in.mismatch));
    }
    unsigned char ack[kAck];
    receiveAll(s.get(), ack, sizeof ack, "bulk acknowledgement");
    const double seconds = now() - start;
    checkAck(ack, sending);
    return seconds;
}

int runBulk(uint16_t port, uint64_t bytes)
{
    const double seconds = transfer(port, bytes, 0);
    std::printf("bulk %.1f MB_per_s %llu bytes %.3f s\n",
                static_cast<double>(bytes) / seconds / 1e6, static_cast<unsigned long long>(bytes),
                seconds);
    return 0;
}

int runBoth(uint16_t port, uint64_t bytes)
{
    const double seconds = transfer(port, bytes, bytes);
    const double rate = static_cast<double>(bytes) / seconds / 1e6;
    std::printf("both %.3f s %llu bytes_each_way %.1f MB_per_s_each_way\n", seconds,
                static_cast<unsigned long long>(bytes), rate);
    return 0;
}

int runPorts(size_t count)
{
    // All bound at once so that the ports differ; released together at the end.
    std::vector<socketFd> bound;
    for (size_t i = 0; i < count; ++i) {
        bound.push_back(listenOn(0));
        std::printf("%u\n", static_cast<unsigned>(boundPort(bound.back().get())));
    }
    return 0;
}

// ---- The command line --------------------------------------------------------------------------

uint64_t parseNumber(const std::string& text, const char* what)
{
    // A binary suffix K, M or G, as in 256M.
    size_t used = 0;
    unsigned long long value = 0;
    try {
        value = std::stoull(text, &used);
    } catch (const std::exception&) {
        throw usageError(std::string(what) + " is not a number: " + text);
    }
    const std::string suffix = text.substr(used);
    const std::string units = "KMG";
    if (suffix.size() > 1 || (suffix.size() == 1 && units.find(suffix[0]) == std::string::npos)) {
        throw usageError(std::string(what) + " is not a number: " + text);
    }
    const auto shift = suffix.empty() ? 0U : 10U * static_cast<unsigned>(units.find(suffix[0]) + 1);
    return value << shift;
}

uint16_t parsePort(const std::string& text)
{
    const uint64_t port = parseNumber(text, "PORT");
    if (port > 65535) {
        throw usageError("PORT is out of range: " + text);
    }
    return static_cast<uint16_t>(port);
}

const char* const kUsage =
    "usage: tunnel_driver sink PORT | connrate PORT SECONDS | rtt PORT COUNT | idle PORT N |\n"
    "                     bulk PORT BYTES | both PORT BYTES | ports N\n";

int dispatch(const std::vector<std::string>& args)
{
    if (args.size() == 2 && args[0] == "sink") {
        return runSink(parsePort(args[1]));
    }
    if (args.size() == 2 && args[0] == "ports") {
        return runPorts(parseNumber(args[1], "N"));
    }
    if (args.size() != 3) {
        throw usageError("");
    }
    const uint16_t port = parsePort(args[1]);
    const uint64_t n = parseNumber(args[2], "the count");
    if (args[0] == "connrate") {
        return runConnrate(port, static_cast<double>(n));
    }
    const std::vector<std::pair<std::string, std::function<int()>>> commands = {
        {"rtt", [&] { return runRtt(port, n); }},
        {"idle", [&] { return runIdle(port, n); }},
        {"bulk", [&] { return runBulk(port, n); }},
        {"both", [&] { return runBoth(port, n); }},
    };
    for (const auto& command : commands) {
        if (args[0] == command.first) {
            return command.second();
        }
    }
    throw usageError("");
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> args(argv + 1, argv + argc);
    const std::string name = "tunnel_driver" + (args.empty() ? "" : " " + args[0]);
    catchStopSignals();
    try {
        return dispatch(args);
    } catch (const usageError& error) {
        if (error.what()[0] != '\0') {
            (void)std::fprintf(stderr, "%s: %s\n", name.c_str(), error.what());
        }
        (void)std::fputs(kUsage, stderr);
        return 2;
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "%s: %s\n", name.c_str(), error.what());
        return 1;
    }
}
