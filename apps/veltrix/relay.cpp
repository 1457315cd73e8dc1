// The relay of one connection: the stream protocol driven by an event loop, and bare payloads.
#include "relay.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

namespace vxcli {

using namespace veltrix;

namespace {

/** A queue stops taking bytes from its source above this; the source is read again below it. */
constexpr size_t kQueueHigh = size_t{128} * 1024;
/** Plain input read at once: a 1-block cell, then four full cells. */
constexpr size_t kReadChunk = stream::kBlock - stream::kCellHeader + 4 * stream::kMaxData;
/** How long the end that waits for the disconnect command gives the peer after both
 *  directions ended, and how long the last bytes may take to leave. */
constexpr auto kClosing = std::chrono::seconds(10);
constexpr int kTickMillis = 250;

/** Plain input and network bytes of the one relay that reads at a time (each process has one
 *  thread). */
unsigned char readBuffer[kReadChunk];
unsigned char netBuffer[size_t{64} * 1024];

/** Ends an output that is not a socket (standard output): its reader sees the end of the stream.
 *  The descriptor then refers to /dev/null, so that no file opened later takes its number. */
void endOutput(int fd)
{
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null < 0 || dup2(null, fd) < 0) {
        (void)close(fd);
    }
    if (null >= 0) {
        (void)close(null);
    }
}

/** Whether a descriptor's reads and writes may be made non-blocking without changing how anyone
 *  else sees it: pipes and sockets (a terminal's flags are shared with the shell). */
bool nonBlockingSafe(int fd)
{
    struct stat status = {};
    return fstat(fd, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

} // namespace

void resetOnClose(int fd)
{
    const linger abort{1, 0};
    (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
}

streamRelay::streamRelay(eventLoop& owner, vxNetEncryptedSocket& keyed, const packetPipe& packets,
                         int network, plainSide plainEnd, bool isInitiator,
                         const relayLimits& chosen)
    : loop(owner), channel(keyed), pipe(packets), net(network), plain(std::move(plainEnd)),
      initiator(isInitiator), limits(chosen)
{}

void streamRelay::start(pollTarget& network, pollTarget& plainIn, pollTarget& plainOut)
{
    targets[static_cast<int>(role::network)] = &network;
    targets[static_cast<int>(role::plainIn)] = &plainIn;
    targets[static_cast<int>(role::plainOut)] = &plainOut;
    lastTraffic = steadyClock::now();
    advance();
}

void streamRelay::ready(role which, uint32_t events)
{
    // A hang-up or an error shows up as the read or write that fails.
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
        (which == role::network ? in.readable : out.readable) = true;
    }
    advance();
}

void streamRelay::advance()
{
    if (state == phase::finished) {
        return;
    }
    flushNet();
    readNet();
    flushPlain();
    readPlain();
    finishIfDone();
    updateInterest();
}

void streamRelay::readPlain()
{
    if (state != phase::relaying) {
        return;
    }
    while (out.readable && out.takesInput()) {
        size_t got = 0;
        const ioResult result = readInto(plain.input, readBuffer, sizeof readBuffer, got);
        // A short read took everything there was: the loop reports the next bytes.
        out.readable = result == ioResult::progress && got == sizeof readBuffer;
        if (result == ioResult::blocked) {
            return;
        }
        if (result == ioResult::failed) {
            throw failure("reading from " + plain.inputName + " failed: " + errnoText());
        }
        if (result == ioResult::ended) {
            out.cells.end(cell.bytes);
            sendCell();
            out.sentEnd = true;
            flushNet();
            return;
        }
        moved.toPeer += got;
        sendData(readBuffer, got);
        flushNet();
    }
}

void streamRelay::sendData(const unsigned char* data, size_t count)
{
    while (count > 0) {
        const size_t take = out.cells.take(count);
        out.cells.data(data, take, count - take, cell.bytes);
        sendCell();
        data += take;
        count -= take;
    }
}

void streamRelay::sendCell()
{
    require(channel.SendEncrypted(cell), "sending to the peer failed");
    pipe.drain(out.toNet,
               stream::wireSize(stream::blocksFor(cell.bytes.size() - stream::kCellHeader)));
}

void streamRelay::flushNet()
{
    const size_t queued = out.toNet.size();
    const ioResult result = writeFrom(net, true, out.toNet);
    moved.wireOut += queued - out.toNet.size();
    if (result == ioResult::failed) {
        throw failure("the peer closed the connection before the end of the stream (" +
                      errnoText() + ")");
    }
    if (result == ioResult::progress) {
        lastTraffic = steadyClock::now();
    }
}

bool streamRelay::outbound::takesInput() const
{
    return !sentEnd && toNet.size() < kQueueHigh;
}

bool streamRelay::inbound::expectsMore(bool isInitiator) const
{
    return peer == peerEnd::open && !(cells.ended() && isInitiator);
}

bool streamRelay::expectsMore() const
{
    return state != phase::finished && in.expectsMore(initiator);
}

bool streamRelay::wantsNet() const
{
    return expectsMore() && in.toPlain.size() < kQueueHigh;
}

void streamRelay::readNet()
{
    while (wantsNet() && in.readable) {
        if (!in.packet.empty()) {
            completePacket();
            continue;
        }
        // Whole packets are handed on straight from the read; only the start of one that is
        // still arriving is kept with the connection.
        size_t got = 0;
        if (!readFromNet(netBuffer, sizeof netBuffer, got)) {
            return;
        }
        const unsigned char* next = netBuffer;
        while (got > 0) {
            if (!expectsMore()) {
                throw failure("the peer broke the stream protocol: it sent more after the end "
                              "of its stream");
            }
            const size_t size = in.cells.packetSize();
            if (got < size) {
                in.packet.assign(next, next + got);
                in.partialSince = lastTraffic;
                break;
            }
            deliver(next, size);
            next += size;
            got -= size;
        }
    }
}

void streamRelay::completePacket()
{
    const size_t size = in.cells.packetSize();
    const size_t have = in.packet.size();
    in.packet.resize(size);
    size_t got = 0;
    const bool arrived = readFromNet(in.packet.data() + have, size - have, got);
    in.packet.resize(have + got);
    if (arrived && in.packet.size() == size) {
        deliver(in.packet.data(), size);
        std::vector<unsigned char>().swap(in.packet); // an idle connection holds nothing
    }
}

bool streamRelay::readFromNet(unsigned char* at, size_t limit, size_t& got)
{
    const ioResult result = readInto(net, at, limit, got);
    // A short read took everything there was: the loop reports the next bytes.
    in.readable = result == ioResult::progress && got == limit;
    if (result == ioResult::ended || result == ioResult::failed) {
        netEnded();
    }
    if (result != ioResult::progress) {
        return false;
    }
    moved.wireIn += got;
    lastTraffic = steadyClock::now();
    return true;
}

void streamRelay::deliver(const unsigned char* packet, size_t size)
{
    in.partialSince = steadyClock::time_point::max();
    pipe.feed(packet, size);
    if (size == VX_HEADER_WIRE_SIZE) {
        // The receiver reads 16 bytes after a command header; the end of the pair's stream
        // answers that read at once. Nothing may follow the disconnect command anyway.
        pipe.endFeed();
    }
    receive();
}

void streamRelay::receive()
{
    // Some true results leave the payload as it was (a command): emptied first, it cannot pass
    // for the previous cell a second time.
    received.bytes.clear();
    if (!channel.RecvEncrypted(received)) {
        // A header that declares more body than was announced finds the pair short: the library
        // fails at once, and the declared size says why. A header that did not authenticate
        // declares nothing (0), and the library's own reason stands.
        const uint32_t declared = channel.header.sizeWithPadding;
        if (declared != 0 && !stream::isCommand(declared)) {
            in.cells.checkSize(declared);
        }
        require(false, "receiving from the peer failed");
    }
    if (channel.socket->doDisconnect) {
        if (!out.finished() || !in.cells.ended() || initiator) {
            throw failure("the peer disconnected before the end of the stream");
        }
        in.peer = peerEnd::disconnected;
        return;
    }
    in.cells.checkSize(channel.header.sizeWithPadding);
    const size_t count = in.cells.take(received.bytes);
    in.toPlain.append(received.bytes.data() + stream::kCellHeader, count);
    moved.fromPeer += count;
}

void streamRelay::netEnded()
{
    in.peer = peerEnd::closed;
    if (!in.packet.empty() || !in.cells.ended()) {
        throw failure("the peer closed the connection before the end of the stream");
    }
    if (!initiator) {
        throw failure("the peer closed without the disconnect command");
    }
}

void streamRelay::flushPlain()
{
    const ioResult result = writeFrom(plain.output, plain.isSocket, in.toPlain);
    if (result == ioResult::failed) {
        throw failure("writing to " + plain.outputName + " failed: " + errnoText());
    }
    if (in.cells.ended() && in.toPlain.empty() && !in.outputShut) {
        if (plain.isSocket) {
            (void)shutdown(plain.output, SHUT_WR);
        } else {
            loop.forget(plain.output);
            endOutput(plain.output);
        }
        in.outputShut = true;
    }
}

void streamRelay::finishIfDone()
{
    if (state == phase::relaying && out.finished() && in.finished()) {
        state = phase::closing;
        closingSince = steadyClock::now();
        if (initiator) {
            require(channel.SendClientDisconnect(), "sending the disconnect command failed");
            pipe.drain(out.toNet);
            flushNet();
        }
    }
    // The end that connected is done once its command left; the other once the command came.
    if (state == phase::closing && out.toNet.empty() &&
        (initiator || in.peer == peerEnd::disconnected)) {
        state = phase::finished;
    }
}

void streamRelay::updateInterest()
{
    if (state == phase::finished) {
        return; // the owner closes the descriptors, or stops waiting for them
    }
    const bool reading = wantsNet();
    const bool stillReading = reading || in.peer != peerEnd::open;
    if (in.held && stillReading) {
        // The peer gets its full limits again from the moment the relay reads again.
        lastTraffic = steadyClock::now();
        if (!in.packet.empty()) {
            in.partialSince = lastTraffic;
        }
    }
    in.held = !stillReading;
    const uint32_t netEvents = (reading ? EPOLLIN : 0U) | (out.toNet.empty() ? 0U : EPOLLOUT);
    loop.want(net, *targets[static_cast<int>(role::network)], netEvents);
    const bool takeInput = state == phase::relaying && out.takesInput();
    const uint32_t inEvents = takeInput ? EPOLLIN : 0U;
    const uint32_t outEvents = in.toPlain.empty() || in.outputShut ? 0U : EPOLLOUT;
    if (plain.input == plain.output) {
        loop.want(plain.input, *targets[static_cast<int>(role::plainIn)], inEvents | outEvents);
        return;
    }
    if (!out.finished()) {
        loop.want(plain.input, *targets[static_cast<int>(role::plainIn)], inEvents);
    } else {
        loop.forget(plain.input);
    }
    if (!in.outputShut) {
        loop.want(plain.output, *targets[static_cast<int>(role::plainOut)], outEvents);
    }
}

steadyClock::time_point streamRelay::deadline() const
{
    auto soonest = steadyClock::time_point::max();
    if (state == phase::closing) {
        soonest = closingSince + kClosing;
    }
    if (in.held || state == phase::finished) {
        return soonest;
    }
    if (limits.receive > 0 && in.partialSince != steadyClock::time_point::max()) {
        soonest = std::min(soonest, in.partialSince + std::chrono::seconds(limits.receive));
    }
    if (limits.idle > 0) {
        soonest = std::min(soonest, lastTraffic + std::chrono::seconds(limits.idle));
    }
    return soonest;
}

void streamRelay::checkLimits(steadyClock::time_point now) const
{
    if (state == phase::closing && now >= closingSince + kClosing) {
        throw failure(initiator ? "the peer did not take the last bytes"
                                : "the peer did not send the disconnect command after both "
                                  "streams ended");
    }
    if (in.held || state == phase::finished) {
        return;
    }
    if (limits.receive > 0 && in.partialSince != steadyClock::time_point::max() &&
        now >= in.partialSince + std::chrono::seconds(limits.receive)) {
        throw failure("the peer sent part of a packet and nothing more for " +
                      std::to_string(limits.receive) + " s");
    }
    if (limits.idle > 0 && now >= lastTraffic + std::chrono::seconds(limits.idle)) {
        throw failure("the connection was idle for " + std::to_string(limits.idle) + " s");
    }
}

void streamRelay::abort() const
{
    if (plain.isSocket) {
        resetOnClose(plain.output);
    }
    resetOnClose(net);
}

namespace {

/** Sends every readiness report of one descriptor to the relay. */
class relayTarget : public pollTarget
{
public:
    relayTarget(streamRelay& owner, streamRelay::role which) : relay(owner), role(which) {}

    void ready(uint32_t events) override { relay.ready(role, events); }

private:
    streamRelay& relay;
    streamRelay::role role;
};

/** Restores a descriptor's flags when it goes: standard input and output outlive the relay. */
class savedFlags
{
public:
    explicit savedFlags(int descriptor) : fd(descriptor), flags(fcntl(fd, F_GETFL)) {}

    LVX_NOT_COPYABLE(savedFlags);

    ~savedFlags()
    {
        if (flags >= 0) {
            (void)fcntl(fd, F_SETFL, flags);
        }
    }

private:
    int fd;
    int flags;
};

} // namespace

void relayStream(vxNetEncryptedSocket& channel, const plainSide& plain, bool initiator,
                 const relayLimits& limits, const relayTick& tick, relayCounters* counters)
{
    int net = -1;
    const packetPipe pipe(channel.socket->sockFd, net);
    const savedFlags inputFlags(plain.input);
    const savedFlags outputFlags(plain.output);
    for (const int fd : {net, plain.input, plain.output}) {
        if (fd == net || nonBlockingSafe(fd)) {
            setNonBlocking(fd);
        }
    }
    eventLoop loop;
    streamRelay relay(loop, channel, pipe, net, plain, initiator, limits);
    relayTarget network(relay, streamRelay::role::network);
    relayTarget input(relay, streamRelay::role::plainIn);
    relayTarget output(relay, streamRelay::role::plainOut);
    auto nextTick = steadyClock::now() + std::chrono::milliseconds(kTickMillis);
    try {
        relay.start(network, input, output);
        while (!relay.done()) {
            const auto wake = tick ? std::min(nextTick, relay.deadline()) : relay.deadline();
            loop.runOnce(millisUntil(wake));
            relay.checkLimits(steadyClock::now());
            if (tick && steadyClock::now() >= nextTick) {
                tick(relay.counters(), false);
                nextTick = steadyClock::now() + std::chrono::milliseconds(kTickMillis);
            }
        }
    } catch (const failure&) {
        relay.abort();
        (void)close(net);
        throw;
    }
    (void)close(net);
    if (tick) {
        tick(relay.counters(), true);
    }
    if (counters != nullptr) {
        *counters = relay.counters();
    }
}

namespace {

/** The poll set of one wait: one entry per descriptor, events merged. */
class pollSet
{
public:
    void want(int fd, short events)
    {
        for (pollfd& entry : entries) {
            if (entry.fd == fd) {
                entry.events = static_cast<short>(entry.events | events);
                return;
            }
        }
        entries.push_back({fd, events, 0});
    }

    /** Waits at most `millis` (-1: no limit). */
    void wait(int millis)
    {
        if (poll(entries.data(), entries.size(), millis) < 0 && errno != EINTR) {
            throw failure("poll() failed: " + errnoText());
        }
    }

    [[nodiscard]] bool ready(int fd, short events) const
    {
        for (const pollfd& entry : entries) {
            if (entry.fd == fd) {
                return (entry.revents & (events | POLLHUP | POLLERR)) != 0;
            }
        }
        return false;
    }

private:
    std::vector<pollfd> entries;
};

/** Calls the tick a few times a second. */
class ticker
{
public:
    explicit ticker(const relayTick& callback) : tick(callback) {}

    /** Milliseconds a wait may last before the next tick is due; -1 without a tick. */
    [[nodiscard]] int budget() const { return tick ? kTickMillis : -1; }

    void maybe(const relayCounters& counters, bool last = false)
    {
        if (tick &&
            (last || steadyClock::now() - previous >= std::chrono::milliseconds(kTickMillis))) {
            previous = steadyClock::now();
            tick(counters, last);
        }
    }

private:
    const relayTick& tick;
    steadyClock::time_point previous = steadyClock::now();
};

/** The shorter of two waits in milliseconds, -1 meaning no limit. */
int sooner(int first, int second)
{
    if (first < 0 || second < 0) {
        return std::max(first, second);
    }
    return std::min(first, second);
}

/** The idle limit of the raw relay: a connection on which nothing moves either way. */
class idleTimer
{
public:
    explicit idleTimer(unsigned chosen) : seconds(chosen) {}

    void traffic() { last = steadyClock::now(); }

    /** Throws failure once the limit passed. */
    void check() const
    {
        if (seconds > 0 && steadyClock::now() - last >= std::chrono::seconds(seconds)) {
            throw failure("the connection was idle for " + std::to_string(seconds) + " s");
        }
    }

    /** Milliseconds a wait may last before the limit passes; -1 without one. */
    [[nodiscard]] int budget() const
    {
        return seconds > 0 ? millisUntil(last + std::chrono::seconds(seconds)) : -1;
    }

private:
    unsigned seconds;
    steadyClock::time_point last = steadyClock::now();
};

/** Writes all of `count` bytes to a blocking output. */
void writeAll(const plainSide& plain, const unsigned char* data, size_t count)
{
    while (count > 0) {
        const ssize_t sent = plain.isSocket ? send(plain.output, data, count, MSG_NOSIGNAL)
                                            : write(plain.output, data, count);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            throw failure("writing to " + plain.outputName + " failed: " + errnoText());
        }
        data += sent;
        count -= static_cast<size_t>(sent);
    }
}

/** The library receives a payload in two blocking reads, header and body: the receive limit
 *  becomes its own wait for the first byte of each and the socket's wait for the rest. */
void limitRawReceive(vxNetEncryptedSocket& channel, unsigned seconds)
{
    if (seconds == 0) {
        return;
    }
    uint32_t wait = seconds;
    const timeval limit{static_cast<time_t>(seconds), 0};
    if (!channel.socket->setTimeOut(wait) ||
        setsockopt(channel.socket->sockFd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
        throw failure("cannot set the receive time-out: " + errnoText());
    }
}

/** One payload from the peer; a receive that failed after the limit is named for it. */
void receiveRaw(vxNetEncryptedSocket& channel, vxBytes& payload, unsigned seconds)
{
    payload.bytes.clear(); // a command leaves it untouched: nothing to write out then
    const auto start = steadyClock::now();
    const bool received = channel.RecvEncrypted(payload);
    if (!received && seconds > 0 && steadyClock::now() - start >= std::chrono::seconds(seconds)) {
        throw failure("the peer sent part of a packet and nothing more for " +
                      std::to_string(seconds) + " s");
    }
    require(received, "receiving from the peer failed");
}

/** Bytes on the wire of a packet carrying `payload` bytes: the header and the padded body. */
uint64_t rawWireSize(size_t payload)
{
    return VX_HEADER_WIRE_SIZE + (payload + stream::kBlock - 1) / stream::kBlock * stream::kBlock;
}

uint32_t announcement(const std::vector<unsigned char>& cell)
{
    return (static_cast<uint32_t>(cell[1]) << 8U) | cell[2];
}

/** Whether `payload` is what an end of the stream protocol sends first: the end cell, or a data
 *  cell of 1 to 13 bytes that announces 1 to 1024 blocks, in a packet of one block. */
bool looksLikeFirstCell(const std::vector<unsigned char>& payload)
{
    if (payload.size() < stream::kCellHeader || payload.size() > stream::kBlock) {
        return false;
    }
    const uint32_t next = announcement(payload);
    if (payload[0] == stream::kindEnd) {
        return payload.size() == stream::kCellHeader && next == 0;
    }
    return payload[0] == stream::kindData && payload.size() > stream::kCellHeader && next >= 1 &&
           next <= stream::kMaxBlocks;
}

/** Whether `payload` is the cell that the data cell `first` announced. */
bool followsCell(const std::vector<unsigned char>& first, const std::vector<unsigned char>& payload)
{
    return first[0] == stream::kindData && payload.size() >= stream::kCellHeader &&
           payload[0] <= stream::kindEnd &&
           stream::blocksFor(payload.size() - stream::kCellHeader) == announcement(first);
}

const char* const kStreamPeer =
    "the peer's packets are cells of the stream protocol: it runs without --raw (run both ends "
    "with --raw, or neither)";

/** The relay of bare payloads, on blocking reads of whole packets. */
class rawRelay
{
public:
    rawRelay(vxNetEncryptedSocket& keyed, const plainSide& plainEnd, bool isInitiator,
             const relayLimits& chosen, unsigned lingerSeconds)
        : channel(keyed), plain(plainEnd), initiator(isInitiator), limits(chosen),
          linger(std::chrono::seconds(lingerSeconds)), idle(chosen.idle)
    {}

    /** Relays until the conversation ended; throws failure when it broke off. */
    void run(ticker& clock)
    {
        limitRawReceive(channel, limits.receive);
        while (state != phase::ended) {
            pollSet set;
            if (inputOpen) {
                set.want(plain.input, POLLIN);
            }
            set.want(net, POLLIN);
            idle.check();
            set.wait(sooner(sooner(clock.budget(), idle.budget()), millisUntil(nextDeadline())));
            clock.maybe(moved);
            if (inputOpen && set.ready(plain.input, POLLIN)) {
                readInput();
            }
            if (set.ready(net, POLLIN)) {
                receive();
            }
            checkDeadline();
        }
        clock.maybe(moved, true);
    }

    [[nodiscard]] const relayCounters& counters() const { return moved; }

private:
    /** Where the conversation stands. */
    enum class phase
    {
        relaying,      ///< payloads both ways
        disconnecting, ///< the initiator sent the disconnect command: the peer closes next
        ended
    };

    void readInput()
    {
        std::vector<unsigned char>& chunk = payload.bytes;
        chunk.resize(VX_MAX_PACKET_SIZE);
        const ssize_t got = read(plain.input, chunk.data(), chunk.size());
        if (got < 0) {
            if (errno != EINTR && errno != EAGAIN) {
                throw failure("reading from " + plain.inputName + " failed: " + errnoText());
            }
            return;
        }
        if (got == 0) {
            inputOpen = false;
            traffic();
            return;
        }
        chunk.resize(static_cast<size_t>(got));
        require(channel.SendEncrypted(payload), "sending to the peer failed");
        moved.toPeer += chunk.size();
        moved.wireOut += rawWireSize(chunk.size());
        traffic();
    }

    void receive()
    {
        unsigned char first = 0;
        const ssize_t peeked = recv(net, &first, 1, MSG_PEEK | MSG_DONTWAIT);
        if (peeked < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
        if (peeked < 0) {
            if (errno == ECONNRESET) {
                throw failure(held.empty() ? "the peer reset the connection (an end without "
                                             "--raw does so on bare payloads: run both ends "
                                             "with --raw, or neither)"
                                           : kStreamPeer);
            }
            throw failure("receiving from the peer failed: " + errnoText());
        }
        if (peeked == 0) {
            peerClosed();
            return;
        }
        receiveRaw(channel, payload, limits.receive);
        traffic();
        const uint32_t body = channel.header.sizeWithPadding;
        moved.wireIn += VX_HEADER_WIRE_SIZE + (stream::isCommand(body) ? 0 : body);
        if (channel.socket->doDisconnect) {
            // An end of the stream protocol sends the command only after cells of this end's:
            // what was held was bare data.
            write(held);
            state = phase::ended;
            return;
        }
        deliver();
    }

    /** Writes the payload just received, unless it may be the first cell of the stream
     *  protocol: that one waits for the next packet, which tells. */
    void deliver()
    {
        if (!held.empty()) {
            if (followsCell(held, payload.bytes)) {
                throw failure(kStreamPeer);
            }
            write(held);
            held.clear();
        } else if (!anyReceived && looksLikeFirstCell(payload.bytes)) {
            held = payload.bytes;
            heldSince = steadyClock::now();
        }
        anyReceived = true;
        if (held.empty()) {
            write(payload.bytes);
        }
    }

    void write(const std::vector<unsigned char>& bytes)
    {
        writeAll(plain, bytes.data(), bytes.size());
        moved.fromPeer += bytes.size();
    }

    /** The peer closed its end between two packets. */
    void peerClosed()
    {
        if (!held.empty()) {
            throw failure(kStreamPeer);
        }
        if (!initiator) {
            throw failure("the peer closed the connection without the disconnect command");
        }
        if (inputOpen) {
            throw failure("the peer closed the connection before the end of " + plain.inputName);
        }
        state = phase::ended;
    }

    /** When waiting must stop for a limit of this relay: the linger, the wait for the peer to
     *  close after the disconnect command, the time a cell may be held. */
    [[nodiscard]] steadyClock::time_point nextDeadline() const
    {
        auto next = steadyClock::time_point::max();
        if (!held.empty()) {
            next = heldSince + heldLimit();
        }
        if (initiator && !inputOpen) {
            next =
                std::min(next, lastTraffic + (state == phase::disconnecting ? kClosing : linger));
        }
        return next;
    }

    void checkDeadline()
    {
        if (state == phase::ended || steadyClock::now() < nextDeadline()) {
            return;
        }
        if (!held.empty() && steadyClock::now() >= heldSince + heldLimit()) {
            throw failure(kStreamPeer);
        }
        if (state == phase::disconnecting) {
            // The peer did not close: nothing more is coming from it either way.
            state = phase::ended;
            return;
        }
        // Quiet for the linger: the peer has answered. What it sends after the command still
        // arrives before it closes.
        require(channel.SendClientDisconnect(), "sending the disconnect command failed");
        moved.wireOut += VX_HEADER_WIRE_SIZE;
        // The peer reads 16 bytes after a command header: the end of this direction answers
        // that read at once.
        (void)shutdown(net, SHUT_WR);
        state = phase::disconnecting;
        traffic();
    }

    [[nodiscard]] std::chrono::seconds heldLimit() const
    {
        return limits.receive > 0 ? std::chrono::seconds(limits.receive) : kClosing;
    }

    void traffic()
    {
        lastTraffic = steadyClock::now();
        idle.traffic();
    }

    vxNetEncryptedSocket& channel;
    const plainSide& plain;
    bool initiator;
    const relayLimits& limits;
    std::chrono::seconds linger;
    idleTimer idle;
    const int net = channel.socket->sockFd;
    relayCounters moved;
    vxBytes payload;
    std::vector<unsigned char> held; ///< a payload that may be the first cell of the stream
    steadyClock::time_point heldSince;
    steadyClock::time_point lastTraffic = steadyClock::now();
    bool inputOpen = true;
    bool anyReceived = false;
    phase state = phase::relaying;
};

} // namespace

void relayRaw(vxNetEncryptedSocket& channel, const plainSide& plain, bool initiator,
              const relayLimits& limits, unsigned linger, const relayTick& tick,
              relayCounters* counters)
{
    ticker clock(tick);
    rawRelay relay(channel, plain, initiator, limits, linger);
    relay.run(clock);
    if (counters != nullptr) {
        *counters = relay.counters();
    }
}

} // namespace vxcli
