// The stream relay of `tunnel` and `cat` (relay.h) facing a peer that holds the keys. The input
// is a script: genuine packets sealed by the peer (data cells whose size, announcement and kind
// it picks, end cells, commands), attacks on the packets not yet sent (a byte flipped, a packet
// cut, replayed or swapped, raw bytes), deliveries of some of those bytes to the relay, and the
// application's bytes and its end. The relay runs in the fuzzing thread with its event loop, a
// socket pair standing in for the network and another for the application; every step is
// non-blocking, so an input that makes it wait for a byte never sent shows up as a hang.
//
// What must hold, whatever the script:
//   - the relay throws nothing but vxcli::failure, and after a step that did not throw the
//     library's latch is clear;
//   - the application receives a prefix of the data of the genuine cells, in the order sealed,
//     up to the first packet that is not the next genuine one or breaks the stream protocol;
//   - once that packet (as many bytes as were announced for it) has arrived, the relay has
//     failed: it never waits for more than it announced it would take;
//   - the peer receives, in packets of exactly the sizes announced, a prefix of the
//     application's bytes;
//   - at the end (the application's input and the network both ended), the relay has finished
//     or failed. It has finished when the script was a whole stream (genuine cells, the end
//     cell, and, when the relay did not connect, the disconnect command after the application's
//     end) with nothing after it, and only when the stream was whole up to where the relay stops
//     reading; then every byte arrived both ways.
#include "fuzzChannel.h"
#include "relay.h"
#include "vxGlobal.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <string>
#include <utility>
#include <vector>

namespace {

using vxfuzz::byteStream;

/** Bytes the script may put on the network, and the application's bytes: well inside a socket
 *  pair's buffer and the relay's queues, so that nothing is held back for lack of room. */
constexpr size_t kStreamLimit = 64 * 1024;
constexpr size_t kAppLimit = 32 * 1024;
constexpr size_t kHeader = 48;
constexpr size_t kBlock = 16;
constexpr uint32_t kMaxBlocks = 1024;
/** The disconnect command's code. */
constexpr uint32_t kDisconnect = 1;

[[noreturn]] void fault()
{
    std::abort();
}

/** What the peer put on its way to the relay: one packet (perhaps altered since) or one run of
 *  raw bytes. */
struct unit
{
    byteStream bytes;
};

/** A packet as the peer sealed it. */
struct sealedPacket
{
    byteStream bytes;
    bool command = false; ///< a command packet (a header alone)
    uint32_t code = 0;    ///< the command's code
    byteStream cell;      ///< the payload of a data packet
};

/** How the bytes on the network read to a correct receiver. */
enum class verdict
{
    running,  ///< every packet so far is right, and more is expected
    complete, ///< a whole stream; the relay reads nothing more
    broken,   ///< a packet is wrong: the relay must fail
    unknown   ///< a command whose effect this harness does not model
};

struct reading
{
    verdict state = verdict::running;
    byteStream data;       ///< the data of the right cells
    size_t wrongAt = 0;    ///< where the wrong packet starts on the network
    size_t wrongSize = 0;  ///< the bytes the relay takes for it: what was announced
    size_t completeAt = 0; ///< where the whole stream ends
};

bool validCell(const byteStream& cell)
{
    if (cell.size() < 3 || cell[0] > 1) {
        return false;
    }
    const uint32_t next = (static_cast<uint32_t>(cell[1]) << 8U) | cell[2];
    return cell[0] == 1 ? cell.size() == 3 && next == 0
                        : cell.size() > 3 && next >= 1 && next <= kMaxBlocks;
}

/** What the network carried, read against the packets in the order the peer sealed them: the
 *  channel authenticates every byte in that order, so a receiver takes exactly the genuine
 *  packets that arrive unchanged, one after the other, while each keeps the stream protocol.
 *  `appEndAt` is how many network bytes had been sent when the application's end was taken. */
reading readStream(const std::vector<sealedPacket>& sealed, const byteStream& wire, size_t appEndAt,
                   bool initiator)
{
    reading result;
    uint32_t expected = 1; // blocks; 0 after the end cell: only the disconnect command
    size_t at = 0;
    const auto wrong = [&](size_t announced) {
        result.state = verdict::broken;
        result.wrongAt = at;
        result.wrongSize = announced;
        return result;
    };
    for (const sealedPacket& packet : sealed) {
        const size_t announced = kHeader + kBlock * expected;
        const size_t size = packet.bytes.size();
        const size_t have = std::min(wire.size() - at, size);
        if (!std::equal(wire.begin() + static_cast<long>(at),
                        wire.begin() + static_cast<long>(at + have), packet.bytes.begin())) {
            return wire.size() - at >= announced ? wrong(announced) : result;
        }
        if (have < size) {
            // The genuine packet is still arriving; past what was announced, it is wrong.
            return have >= announced ? wrong(announced) : result;
        }
        if (packet.command && packet.code != kDisconnect) {
            result.state = verdict::unknown;
            return result;
        }
        const bool right =
            size == announced && (packet.command ? expected == 0 && appEndAt < at + size
                                                 : expected != 0 && validCell(packet.cell));
        if (!right) {
            return wrong(announced);
        }
        at += size;
        if (packet.command || (packet.cell[0] == 1 && initiator)) {
            result.state = verdict::complete;
            result.completeAt = at;
            return result;
        }
        if (packet.cell[0] == 1) {
            expected = 0;
            continue;
        }
        result.data.insert(result.data.end(), packet.cell.begin() + 3, packet.cell.end());
        expected = (static_cast<uint32_t>(packet.cell[1]) << 8U) | packet.cell[2];
    }
    const size_t announced = kHeader + kBlock * expected;
    return wire.size() - at >= announced ? wrong(announced) : result;
}

/** Sends every readiness report of one descriptor to the relay. */
class relayTarget : public vxcli::pollTarget
{
public:
    relayTarget(vxcli::streamRelay& owner, vxcli::streamRelay::role which)
        : relay(owner), role(which)
    {}

    void ready(uint32_t events) override { relay.ready(role, events); }

private:
    vxcli::streamRelay& relay;
    vxcli::streamRelay::role role;
};

/** One run of the script. */
class harness
{
public:
    harness(vxfuzz::fuzzChannel& keyed, bool isInitiator) : channel(keyed), initiator(isInitiator)
    {}

    harness(const harness&) = delete;
    harness& operator=(const harness&) = delete;

    ~harness() { (void)::close(appFd); }

    void run(vxfuzz::inputReader& input)
    {
        int plain[2] = {-1, -1};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, plain) != 0) {
            fault();
        }
        appFd = plain[1];
        relaySide = plain[0];
        int net = -1;
        vxcli::eventLoop loop;
        const vxcli::packetPipe pipe(channel.victimPlain.sockFd, net);
        vxcli::setNonBlocking(net);
        vxcli::streamRelay relay(loop, channel.victim, pipe, net,
                                 {relaySide, relaySide, true, "the application", "the application"},
                                 initiator, limits);
        current = &relay;
        relayTarget network(relay, vxcli::streamRelay::role::network);
        relayTarget plainIn(relay, vxcli::streamRelay::role::plainIn);
        relayTarget plainOut(relay, vxcli::streamRelay::role::plainOut);
        try {
            relay.start(network, plainIn, plainOut);
            settle(loop, relay);
            while (!input.empty() && !relay.done()) {
                step(input, loop, relay);
            }
            finish(loop, relay);
        } catch (const vxcli::failure&) {
            failed = true;
            veltrix::vxBase::lvxClearLastError();
            relay.abort();
        }
        judge();
        (void)::close(net);
        (void)::close(relaySide);
    }

private:
    void step(vxfuzz::inputReader& input, vxcli::eventLoop& loop, vxcli::streamRelay& relay)
    {
        const uint8_t op = input.byte() % 12;
        if (op < 3) {
            sealCell(input);
        } else if (op == 3) {
            sealCommand(input);
        } else if (op < 9) {
            attack(static_cast<uint8_t>(op - 4), input);
        } else if (op < 11) {
            deliver(input.word() % 8192U + 1U);
            settle(loop, relay);
        } else {
            application(input);
            settle(loop, relay);
        }
    }

    /** The last steps: everything still pending goes out, the application's input ends, then
     *  the network's. */
    void finish(vxcli::eventLoop& loop, vxcli::streamRelay& relay)
    {
        deliver(kStreamLimit);
        settle(loop, relay);
        if (!appEnded) {
            endApplication();
            settle(loop, relay);
        }
        (void)shutdown(channel.feedFd, SHUT_WR);
        settle(loop, relay);
    }

    /** Lets the relay move everything it can, through its loop and then directly: every step
     *  of the relay is non-blocking, so this returns. */
    void settle(vxcli::eventLoop& loop, vxcli::streamRelay& relay)
    {
        for (int round = 0; round < 4; ++round) {
            loop.runOnce(0);
            relay.ready(vxcli::streamRelay::role::network, EPOLLIN);
            relay.ready(vxcli::streamRelay::role::plainIn, EPOLLIN | EPOLLOUT);
            if (::vxGlobal.stackTrace.errorLatch) {
                fault(); // a library failure the relay did not turn into its own
            }
            takeApplication();
            takeNetwork();
        }
        checkDelivered();
        checkPromptFailure();
    }

    /** A genuine packet of the peer, sealed now. */
    void sealCell(vxfuzz::inputReader& input)
    {
        const uint8_t mode = input.byte();
        byteStream cell;
        uint32_t next = 0;
        // Data fills what was announced last, within the largest packet.
        const uint32_t blocks = sealAnnounced == 0 ? 1 : 1 + (sealAnnounced - 1) % kMaxBlocks;
        switch (mode % 4) {
        case 0:
        case 1: { // data that fills the announced body, announcing what the input says
            const size_t low = blocks == 1 ? 1 : kBlock * (blocks - 1) - 2;
            const size_t high = kBlock * blocks - 3;
            const size_t count = low + input.word() % (high - low + 1);
            next = mode % 4 == 0 ? 1U + input.word() % kMaxBlocks : input.word();
            cell = dataCell(0, next, count);
            break;
        }
        case 2: // the end cell, or one that carries an announcement
            next = (mode & 0x10U) != 0 ? input.word() : 0;
            cell = dataCell(1, next, 0);
            break;
        default: { // anything: kind, announcement and length, possibly cut below the cell's bytes
            const uint8_t kind = input.byte();
            next = input.word();
            cell = dataCell(kind, next, input.word() % 1100U);
            if ((mode & 0x20U) != 0) {
                cell.resize(std::min<size_t>(cell.size(), input.byte() % 4U));
            }
        }
        }
        const size_t onWire = kHeader + (cell.size() + kBlock - 1) / kBlock * kBlock;
        if (!fits(onWire)) {
            return;
        }
        veltrix::vxBytes payload;
        payload.bytes = cell;
        sealedPacket packet;
        if (!channel.sender.SendEncrypted(payload) || !channel.capture(packet.bytes)) {
            fault(); // the genuine peer cannot fail on a payload within bounds
        }
        sealAnnounced = cell.size() >= 3 ? next : sealAnnounced;
        packet.cell = std::move(cell);
        seal(std::move(packet));
    }

    /** The disconnect command, or a command of a code the input picks. */
    void sealCommand(vxfuzz::inputReader& input)
    {
        const uint8_t choice = input.byte();
        const uint32_t code = choice % 4 == 0 ? input.word() : kDisconnect;
        if (!fits(kHeader)) {
            return;
        }
        sealedPacket packet;
        if (!channel.sender.header.CreateCmdMessage(code, channel.sender.keys,
                                                    &channel.senderPlain) ||
            !channel.capture(packet.bytes)) {
            fault();
        }
        packet.command = true;
        packet.code = code;
        seal(std::move(packet));
    }

    /** One attack on the bytes not yet delivered. */
    void attack(uint8_t kind, vxfuzz::inputReader& input)
    {
        if (kind == 4) { // raw bytes of the attacker's own
            unit raw;
            raw.bytes = input.bytes(input.byte() + 1U);
            if (fits(raw.bytes.size())) {
                queue(std::move(raw));
            }
            return;
        }
        if (pending.empty()) {
            return;
        }
        // The unit at the front may be partly delivered: only the rest of it can change.
        const size_t index = input.byte() % pending.size();
        unit& target = pending[index];
        const size_t start = index == 0 ? frontSent : 0;
        switch (kind) {
        case 0: // flip bits of one byte
            if (target.bytes.size() > start) {
                target.bytes[start + input.word() % (target.bytes.size() - start)] ^=
                    static_cast<unsigned char>(input.byte() | 1U);
            }
            break;
        case 1: // cut it short
            if (target.bytes.size() > start) {
                target.bytes.resize(start + input.word() % (target.bytes.size() - start));
            }
            break;
        case 2: // send it again at the end
            if (fits(target.bytes.size())) {
                unit copy = target;
                queue(std::move(copy));
            }
            break;
        default: // swap the last two, neither begun
            if (pending.size() >= 2 && (pending.size() > 2 || frontSent == 0)) {
                std::swap(pending[pending.size() - 1], pending[pending.size() - 2]);
            }
        }
    }

    /** Application bytes to the relay, or the end of them. */
    void application(vxfuzz::inputReader& input)
    {
        const uint8_t choice = input.byte();
        if (appEnded) {
            return;
        }
        if (choice % 4 == 0) {
            endApplication();
            return;
        }
        const size_t count =
            std::min<size_t>(input.word() % 4096U + 1U, kAppLimit - appSent.size());
        byteStream bytes(count);
        for (unsigned char& byte : bytes) {
            byte = static_cast<unsigned char>(appSent.size() * 29 + (appSent.size() >> 7U));
            appSent.push_back(byte);
        }
        if (!bytes.empty() &&
            write(appFd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            fault(); // well within the pair's buffer
        }
    }

    void endApplication()
    {
        (void)shutdown(appFd, SHUT_WR);
        appEnded = true;
        appEndAt = wire.size();
    }

    /** Up to `count` pending bytes onto the network, front first. */
    void deliver(size_t count)
    {
        while (count > 0 && !pending.empty()) {
            unit& front = pending.front();
            const size_t take = std::min(count, front.bytes.size() - frontSent);
            const ssize_t wrote =
                take == 0 ? 0 : write(channel.feedFd, front.bytes.data() + frontSent, take);
            if (wrote < 0) {
                fault(); // well within the pair's buffer
            }
            const auto* from = front.bytes.data() + frontSent;
            wire.insert(wire.end(), from, from + wrote);
            frontSent += static_cast<size_t>(wrote);
            count -= static_cast<size_t>(wrote);
            if (frontSent == front.bytes.size()) {
                pending.pop_front();
                frontSent = 0;
            }
        }
    }

    /** What the relay wrote to the application so far. */
    void takeApplication()
    {
        unsigned char chunk[4096];
        ssize_t got = 0;
        while ((got = read(appFd, chunk, sizeof chunk)) > 0) {
            appReceived.insert(appReceived.end(), chunk, chunk + got);
        }
        appOutputEnded = appOutputEnded || got == 0;
    }

    /** What the relay sent to the peer, received by the peer's encrypted socket packet by
     *  packet, each as large as the previous cell announced. */
    void takeNetwork()
    {
        unsigned char chunk[4096];
        ssize_t got = 0;
        while ((got = read(channel.feedFd, chunk, sizeof chunk)) > 0) {
            outbound.insert(outbound.end(), chunk, chunk + got);
        }
        for (;;) {
            const size_t size = kHeader + kBlock * outExpected;
            if (disconnectSeen || outbound.size() < size) {
                return;
            }
            if (outExpected == 0) {
                peerReceiveCommand();
            } else {
                peerReceiveCell(size);
            }
            outbound.erase(outbound.begin(), outbound.begin() + static_cast<long>(size));
        }
    }

    void peerReceiveCell(size_t size)
    {
        if (write(channel.captureFd, outbound.data(), size) != static_cast<ssize_t>(size)) {
            fault();
        }
        veltrix::vxBytes payload;
        if (!channel.sender.RecvEncrypted(payload) ||
            channel.sender.header.sizeWithPadding != kBlock * outExpected ||
            !validCell(payload.bytes)) {
            fault(); // the relay sent a packet the protocol does not allow
        }
        outReceived.insert(outReceived.end(), payload.bytes.begin() + 3, payload.bytes.end());
        outExpected = payload.bytes[0] == 1
                          ? 0
                          : (static_cast<uint32_t>(payload.bytes[1]) << 8U) | payload.bytes[2];
        outEnded = outEnded || payload.bytes[0] == 1;
        if (outReceived.size() > appSent.size() ||
            !std::equal(outReceived.begin(), outReceived.end(), appSent.begin())) {
            fault(); // data the application never wrote
        }
    }

    /** After its end cell, only the end that connected sends anything: the disconnect. */
    void peerReceiveCommand()
    {
        if (!initiator) {
            fault();
        }
        // The peer's receive reads 16 bytes after a command header: the end of its stream.
        if (write(channel.captureFd, outbound.data(), kHeader) != static_cast<ssize_t>(kHeader)) {
            fault();
        }
        (void)shutdown(channel.captureFd, SHUT_WR);
        veltrix::vxBytes payload;
        if (!channel.sender.RecvEncrypted(payload) || !channel.senderPlain.doDisconnect) {
            fault();
        }
        disconnectSeen = true;
    }

    [[nodiscard]] reading readWire() const { return readStream(sealed, wire, appEndAt, initiator); }

    /** The application never receives what the peer did not send rightly; of what it did, the
     *  relay may not have written everything out yet. */
    void checkDelivered() const
    {
        const byteStream allowed = readWire().data;
        if (appReceived.size() > allowed.size() ||
            !std::equal(appReceived.begin(), appReceived.end(), allowed.begin())) {
            fault();
        }
    }

    /** A wrong packet that has arrived in full (as many bytes as were announced) has failed the
     *  relay: settle() returned, so the relay is not waiting for more. */
    void checkPromptFailure() const
    {
        const reading model = readWire();
        if (model.state == verdict::broken && wire.size() >= model.wrongAt + model.wrongSize) {
            fault();
        }
    }

    /** The end of the run: both inputs ended. */
    void judge()
    {
        takeApplication();
        checkDelivered();
        const reading model = readWire();
        const bool whole = model.state == verdict::complete && wire.size() == model.completeAt;
        const bool done = !failed && current->done();
        if (!failed && !done) {
            fault(); // neither finished nor failed: waiting for what will never come
        }
        if (whole && !done) {
            fault(); // refused a whole, right stream
        }
        if (done && model.state != verdict::complete && model.state != verdict::unknown) {
            fault(); // finished on a stream that was not whole
        }
        if (done && (appReceived != model.data || !appOutputEnded || outReceived != appSent ||
                     !outEnded || (initiator && !disconnectSeen))) {
            fault(); // finished before every byte arrived both ways
        }
    }

    [[nodiscard]] bool fits(size_t more) const { return queued + more <= kStreamLimit; }

    void queue(unit packet)
    {
        queued += packet.bytes.size();
        pending.push_back(std::move(packet));
    }

    void seal(sealedPacket packet)
    {
        queue(unit{packet.bytes});
        sealed.push_back(std::move(packet));
    }

    /** A cell of `kind` announcing `next` with `count` bytes of data that differ from cell to
     *  cell, so that a replay or a reordering shows in what the application receives. */
    byteStream dataCell(uint8_t kind, uint32_t next, size_t count)
    {
        byteStream cell{kind, static_cast<unsigned char>(next >> 8U),
                        static_cast<unsigned char>(next & 0xFFU)};
        for (size_t i = 0; i < count; ++i, ++dataCounter) {
            cell.push_back(static_cast<unsigned char>(dataCounter * 131U + (dataCounter >> 8U)));
        }
        return cell;
    }

    vxfuzz::fuzzChannel& channel;
    bool initiator;
    vxcli::relayLimits limits{0, 0}; // no time limits: the script decides what arrives
    vxcli::streamRelay* current = nullptr;
    int appFd = -1;
    int relaySide = -1;
    std::deque<unit> pending; ///< not yet delivered; the front possibly in part
    size_t frontSent = 0;
    std::vector<sealedPacket> sealed; ///< in the order sealed
    byteStream wire;                  ///< every byte delivered to the network
    size_t queued = 0;
    size_t appEndAt = SIZE_MAX;
    uint32_t sealAnnounced = 1; ///< what the peer's last sealed cell announced
    uint32_t dataCounter = 0;
    bool appEnded = false;
    byteStream appSent;
    byteStream appReceived;
    bool appOutputEnded = false;
    byteStream outbound;
    uint32_t outExpected = 1;
    byteStream outReceived;
    bool outEnded = false;
    bool disconnectSeen = false;
    bool failed = false;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    vxfuzz::inputReader input(data, size);
    const uint8_t setup = input.byte();
    const std::string& cipher = vxfuzz::cipherFor(setup);
    vxfuzz::withChannel(cipher, [&input, setup](vxfuzz::fuzzChannel& channel) {
        harness script(channel, (setup & 0x80U) != 0);
        script.run(input);
    });
    return 0;
}
