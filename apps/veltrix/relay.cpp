// The relay of one connection: the stream protocol over a local socket pair, and bare payloads.
#include "relay.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

namespace vxcli {

using namespace veltrix;

namespace {

using steadyClock = std::chrono::steady_clock;

enum cellKind : unsigned char
{
    cellData = 0,
    cellEnd = 1
};

/** Bytes of one cell on the wire: the packet header and the cell (a multiple of 16, unpadded). */
constexpr size_t kCellWire = VX_HEADER_WIRE_SIZE + kCellSize;
/** A queue stops taking bytes from its source above this; the source is read again below it. */
constexpr size_t kQueueHigh = size_t{256} * 1024;
/** Plain input read at once: a whole number of cells. */
constexpr size_t kReadChunk = 16 * kCellData;
/** How long the end that waits for the disconnect command gives the peer after both
 *  directions ended, and how long the last bytes may take to leave. */
constexpr int kClosingMillis = 10000;
constexpr int kTickMillis = 250;

/** Bytes in order: appended at the back, consumed from the front. */
class byteQueue
{
public:
    [[nodiscard]] size_t size() const { return data.size() - head; }

    [[nodiscard]] bool empty() const { return size() == 0; }

    [[nodiscard]] const char* front() const { return data.data() + head; }

    void append(const void* bytes, size_t count)
    {
        data.append(static_cast<const char*>(bytes), count);
    }

    void consume(size_t count)
    {
        head += count;
        if (head == data.size()) {
            data.clear();
            head = 0;
        } else if (head >= kQueueHigh) {
            data.erase(0, head); // keep the consumed prefix from growing without end
            head = 0;
        }
    }

private:
    std::string data;
    size_t head = 0;
};

void setNonBlocking(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        throw failure("cannot make a descriptor non-blocking: " + errnoText());
    }
}

bool wouldBlock()
{
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

/** Writes what `fd` takes now from the front of `queue`; false with errno on a real error. */
bool writeSome(int fd, bool isSocket, byteQueue& queue)
{
    while (!queue.empty()) {
        const ssize_t sent = isSocket ? send(fd, queue.front(), queue.size(), MSG_NOSIGNAL)
                                      : write(fd, queue.front(), queue.size());
        if (sent < 0) {
            return wouldBlock();
        }
        queue.consume(static_cast<size_t>(sent));
    }
    return true;
}

/** Reads what `fd` has now, up to `limit` bytes, into `queue`: the count, 0 at the end of the
 *  stream, -1 with errno on a real error; -2 when nothing is there yet. */
ssize_t readSome(int fd, byteQueue& queue, size_t limit)
{
    static char chunk[kReadChunk]; // the program relays one connection per process
    const ssize_t got = read(fd, chunk, std::min(limit, sizeof chunk));
    if (got > 0) {
        queue.append(chunk, static_cast<size_t>(got));
    }
    return got < 0 && wouldBlock() ? -2 : got;
}

/** Makes the close of a socket reset it instead of ending it in order: its application sees an
 *  error, not a clean end of stream, and so never mistakes a truncated stream for a whole one. */
void resetOnClose(int fd)
{
    const linger abort{1, 0};
    (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
}

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

/** The limits on the peer: the rest of a packet once its first byte arrived, and a connection
 *  on which nothing moves either way. */
class peerTimer
{
public:
    explicit peerTimer(const relayLimits& chosen) : limits(chosen) {}

    /** Bytes came from the peer; `packetBegun` when the first byte of a packet still
     *  incomplete was among them. */
    void received(bool packetBegun)
    {
        lastTraffic = steadyClock::now();
        if (packetBegun) {
            packetSince = lastTraffic;
        }
    }

    void sent() { lastTraffic = steadyClock::now(); }

    /** While the relay does not read from the peer, the rest of a packet may be waiting in the
     *  kernel: its time starts once the relay reads again. */
    void holdPacket() { packetSince = steadyClock::now(); }

    /** Throws failure once a limit passed; `partial` says the peer sent part of a packet. */
    void check(bool partial) const
    {
        const auto now = steadyClock::now();
        if (partial && passed(limits.receive, packetSince, now)) {
            throw failure("the peer sent part of a packet and nothing more for " +
                          std::to_string(limits.receive) + " s");
        }
        if (passed(limits.idle, lastTraffic, now)) {
            throw failure("the connection was idle for " + std::to_string(limits.idle) + " s");
        }
    }

    /** Milliseconds a wait may last before a limit passes; -1 without one. */
    [[nodiscard]] int budget(bool partial) const
    {
        const auto now = steadyClock::now();
        return sooner(partial ? left(limits.receive, packetSince, now) : -1,
                      left(limits.idle, lastTraffic, now));
    }

private:
    static bool passed(unsigned seconds, steadyClock::time_point since, steadyClock::time_point now)
    {
        return seconds > 0 && now - since >= std::chrono::seconds(seconds);
    }

    /** Rounded up, so that the wait ends after the limit passed, not just before. */
    static int left(unsigned seconds, steadyClock::time_point since, steadyClock::time_point now)
    {
        if (seconds == 0) {
            return -1;
        }
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(
            since + std::chrono::seconds(seconds) - now);
        return static_cast<int>(std::max<std::chrono::milliseconds::rep>(rest.count(), 0));
    }

    const relayLimits& limits;
    steadyClock::time_point packetSince = steadyClock::now();
    steadyClock::time_point lastTraffic = steadyClock::now();
};

class streamRelay
{
public:
    streamRelay(vxNetEncryptedSocket& encrypted, const plainSide& plainEnd, bool isInitiator,
                const relayLimits& limits, const relayTick& tick)
        : channel(encrypted), plain(plainEnd), initiator(isInitiator), clock(tick), timer(limits)
    {
        attachPair();
        cell.bytes.reserve(kCellSize);
    }

    LVX_NOT_COPYABLE(streamRelay);

    ~streamRelay()
    {
        (void)close(outer);
        (void)close(net);
    }

    void run()
    {
        try {
            runToEnd();
        } catch (const failure&) {
            if (plain.isSocket) {
                resetOnClose(plain.output);
            }
            resetOnClose(net);
            throw;
        }
        clock.maybe(counters, true);
    }

private:
    /** The library's socket keeps its descriptor number, which from now on is one end of a
     *  local socket pair; the TCP connection moves to a descriptor of the relay's own. */
    void attachPair()
    {
        int pair[2] = {-1, -1};
        const int librarySide = channel.socket->sockFd;
        net = fcntl(librarySide, F_DUPFD_CLOEXEC, 0);
        if (net < 0 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0 ||
            dup2(pair[0], librarySide) < 0) {
            throw failure("cannot set up the relay: " + errnoText());
        }
        (void)close(pair[0]);
        outer = pair[1];
        setNonBlocking(outer);
        setNonBlocking(net);
        if (plain.isSocket) {
            setNonBlocking(plain.input);
        }
    }

    void runToEnd()
    {
        auto closingSince = steadyClock::time_point::max();
        for (;;) {
            receiveCells();
            flushPlain();
            // Both directions have ended once this end sent its end of stream and wrote out
            // every byte before the peer's.
            if (sentEnd && plainShut) {
                if (initiator) {
                    disconnect();
                    return;
                }
                if (disconnected) {
                    return;
                }
                closingSince = std::min(closingSince, steadyClock::now());
                if (steadyClock::now() - closingSince > std::chrono::milliseconds(kClosingMillis)) {
                    throw failure("the peer did not send the disconnect command after both "
                                  "streams ended");
                }
            }
            waitAndMove();
            clock.maybe(counters);
        }
    }

    void waitAndMove()
    {
        pollSet set;
        const bool takeInput = !sentEnd && toNet.size() < kQueueHigh;
        if (takeInput) {
            set.want(plain.input, POLLIN);
        }
        if (!toPlain.empty()) {
            set.want(plain.output, POLLOUT);
        }
        if (!netEnded && fromNet.size() < kQueueHigh) {
            set.want(net, POLLIN);
        } else {
            timer.holdPacket();
        }
        if (!toNet.empty()) {
            set.want(net, POLLOUT);
        }
        if (!fromNet.empty()) {
            set.want(outer, POLLOUT);
        }
        timer.check(partialPacket());
        set.wait(sooner(sentEnd && plainShut ? kTickMillis : clock.budget(),
                        timer.budget(partialPacket())));
        if (takeInput && set.ready(plain.input, POLLIN)) {
            readPlain();
        }
        if (set.ready(net, POLLIN) && !netEnded) {
            readNet();
        }
        feedPair();
        sendNet();
    }

    void sendNet()
    {
        const size_t queued = toNet.size();
        if (!writeSome(net, true, toNet)) {
            throw failure("the peer closed the connection before the end of the stream (" +
                          errnoText() + ")");
        }
        if (toNet.size() < queued) {
            timer.sent();
        }
    }

    /** Every packet is kCellWire bytes, so the count of bytes read says whether the peer is
     *  in the middle of one. The disconnect command is a header alone: the close that follows
     *  it ends the wait. */
    [[nodiscard]] bool partialPacket() const { return !netEnded && netBytes % kCellWire != 0; }

    void readPlain()
    {
        byteQueue input;
        const ssize_t got = readSome(plain.input, input, kReadChunk);
        if (got == -2) {
            return;
        }
        if (got < 0) {
            throw failure("reading from " + plain.inputName + " failed: " + errnoText());
        }
        if (got == 0) {
            sendCell(cellEnd, nullptr, 0);
            sentEnd = true;
            return;
        }
        counters.toPeer += static_cast<uint64_t>(got);
        for (size_t at = 0; at < input.size(); at += kCellData) {
            sendCell(cellData, input.front() + at, std::min(kCellData, input.size() - at));
        }
    }

    void sendCell(cellKind kind, const char* data, size_t count)
    {
        cell.bytes.assign(kCellSize, 0);
        cell.bytes[0] = kind;
        cell.bytes[1] = static_cast<unsigned char>(count >> 8U);
        cell.bytes[2] = static_cast<unsigned char>(count & 0xFFU);
        std::copy(data, data + count, cell.bytes.begin() + kCellHeader);
        require(channel.SendEncrypted(cell), "sending to the peer failed");
        drainPair();
    }

    /** Takes what the library wrote into the pair; emptied after every send, the pair always
     *  has room for the next packet. */
    void drainPair()
    {
        for (;;) {
            const ssize_t got = readSome(outer, toNet, kReadChunk);
            if (got == -2) {
                return;
            }
            if (got <= 0) {
                throw failure("the relay's socket pair failed: " + errnoText());
            }
        }
    }

    void readNet()
    {
        const ssize_t got = readSome(net, fromNet, kQueueHigh - fromNet.size());
        if (got == 0 || got == -1) {
            netEnded = true; // the peer closed, or the connection broke
        }
        if (got > 0) {
            const uint64_t before = netBytes;
            netBytes += static_cast<uint64_t>(got);
            // The packet now incomplete began in this read when the read started a packet or
            // finished one.
            timer.received(before % kCellWire == 0 || before / kCellWire != netBytes / kCellWire);
        }
    }

    /** Passes the peer's bytes to the library's end of the pair, and the end of the stream
     *  after them. */
    void feedPair()
    {
        if (!writeSome(outer, true, fromNet)) {
            throw failure("the relay's socket pair failed: " + errnoText());
        }
        if (netEnded && fromNet.empty() && !pairShut) {
            (void)shutdown(outer, SHUT_WR);
            pairShut = true;
        }
    }

    [[nodiscard]] size_t waitingInPair() const
    {
        int count = 0;
        return ioctl(channel.socket->sockFd, FIONREAD, &count) == 0 ? static_cast<size_t>(count)
                                                                    : 0;
    }

    /** Receives every cell that is whole in the pair, while the plain side keeps up. */
    void receiveCells()
    {
        while (!disconnected && toPlain.size() < kQueueHigh) {
            const size_t waiting = waitingInPair();
            // After the peer's end of stream, what is left is whole cells and perhaps the
            // disconnect command (a header alone); anything else was cut off.
            if (waiting >= kCellWire || (pairShut && waiting == VX_HEADER_WIRE_SIZE)) {
                receiveOne();
            } else if (pairShut) {
                throw failure(sentEnd && receivedEnd
                                  ? "the peer closed without the disconnect command"
                                  : "the peer closed the connection before the end of the stream");
            } else {
                return;
            }
        }
    }

    void receiveOne()
    {
        // Some true results leave the payload as it was (a re-key request, the wake-up pipe):
        // emptied first, it cannot pass for the previous cell a second time.
        received.bytes.clear();
        require(channel.RecvEncrypted(received), "receiving from the peer failed");
        if (channel.socket->doDisconnect) {
            if (!sentEnd || !receivedEnd) {
                throw failure("the peer disconnected before the end of the stream");
            }
            disconnected = true;
            return;
        }
        takeCell();
    }

    void takeCell()
    {
        const std::vector<unsigned char>& bytes = received.bytes;
        if (bytes.size() != kCellSize || bytes[0] > cellEnd || receivedEnd) {
            throw failure("the peer broke the stream protocol");
        }
        const size_t count = (static_cast<size_t>(bytes[1]) << 8U) | bytes[2];
        if ((bytes[0] == cellData) != (count > 0) || count > kCellData) {
            throw failure("the peer broke the stream protocol");
        }
        toPlain.append(bytes.data() + kCellHeader, count);
        counters.fromPeer += count;
        receivedEnd = bytes[0] == cellEnd;
    }

    /** Writes the peer's bytes out; after the peer's end of stream, ends the plain output. */
    void flushPlain()
    {
        if (!writeSome(plain.output, plain.isSocket, toPlain)) {
            throw failure("writing to " + plain.outputName + " failed: " + errnoText());
        }
        if (receivedEnd && toPlain.empty() && !plainShut) {
            if (plain.isSocket) {
                (void)shutdown(plain.output, SHUT_WR);
            } else {
                endOutput(plain.output);
            }
            plainShut = true;
        }
    }

    /** Both directions ended: the disconnect command, and the last bytes out before closing. */
    void disconnect()
    {
        require(channel.SendClientDisconnect(), "sending the disconnect command failed");
        drainPair();
        const auto deadline = steadyClock::now() + std::chrono::milliseconds(kClosingMillis);
        while (!toNet.empty() && steadyClock::now() < deadline) {
            pollSet set;
            set.want(net, POLLOUT);
            set.wait(kTickMillis);
            sendNet();
        }
        if (!toNet.empty()) {
            throw failure("the peer did not take the last bytes");
        }
    }

    vxNetEncryptedSocket& channel;
    const plainSide& plain;
    bool initiator;
    ticker clock;
    peerTimer timer;
    relayCounters counters;
    uint64_t netBytes = 0; ///< read from the peer so far
    int net = -1;          ///< the TCP connection to the peer
    int outer = -1;        ///< the relay's end of the socket pair
    byteQueue toNet;
    byteQueue fromNet;
    byteQueue toPlain;
    vxBytes cell;
    vxBytes received;
    bool sentEnd = false;
    bool receivedEnd = false;
    bool plainShut = false;
    bool netEnded = false;
    bool pairShut = false;
    bool disconnected = false;
};

} // namespace

void relayStream(vxNetEncryptedSocket& channel, const plainSide& plain, bool initiator,
                 const relayLimits& limits, const relayTick& tick)
{
    streamRelay(channel, plain, initiator, limits, tick).run();
}

namespace {

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

} // namespace

void relayRaw(vxNetEncryptedSocket& channel, const plainSide& plain, bool initiator,
              const relayLimits& limits, const relayTick& tick)
{
    ticker clock(tick);
    peerTimer timer(limits);
    relayCounters counters;
    const int net = channel.socket->sockFd;
    limitRawReceive(channel, limits.receive);
    bool inputOpen = true;
    vxBytes payload;
    std::vector<unsigned char> chunk(VX_MAX_PACKET_SIZE);
    for (;;) {
        pollSet set;
        if (inputOpen) {
            set.want(plain.input, POLLIN);
        }
        set.want(net, POLLIN);
        timer.check(false);
        set.wait(sooner(clock.budget(), timer.budget(false)));
        clock.maybe(counters);
        if (inputOpen && set.ready(plain.input, POLLIN)) {
            const ssize_t got = read(plain.input, chunk.data(), chunk.size());
            if (got < 0 && !wouldBlock()) {
                throw failure("reading from " + plain.inputName + " failed: " + errnoText());
            }
            if (got == 0 && initiator) {
                require(channel.SendClientDisconnect(), "sending the disconnect command failed");
                break;
            }
            inputOpen = got != 0;
            if (got > 0) {
                payload.bytes.assign(chunk.begin(), chunk.begin() + got);
                require(channel.SendEncrypted(payload), "sending to the peer failed");
                counters.toPeer += static_cast<uint64_t>(got);
                timer.sent();
            }
        }
        if (set.ready(net, POLLIN)) {
            receiveRaw(channel, payload, limits.receive);
            timer.received(false);
            if (channel.socket->doDisconnect) {
                break;
            }
            byteQueue out;
            out.append(payload.bytes.data(), payload.bytes.size());
            if (!writeSome(plain.output, plain.isSocket, out)) {
                throw failure("writing to " + plain.outputName + " failed: " + errnoText());
            }
            counters.fromPeer += payload.bytes.size();
        }
    }
    clock.maybe(counters, true);
}

} // namespace vxcli
