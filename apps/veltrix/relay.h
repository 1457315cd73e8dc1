// Relays one encrypted connection between the peer and a plain side (the application's socket,
// or standard input and output), in the stream protocol (stream.h) or as bare payloads.
//
// The stream relay never waits on the peer. It reads from the network only the bytes of the
// packet it expects next, and hands that packet to the library only once all of it is there,
// through a local socket pair that holds exactly those bytes: the library's receive then finds
// everything it needs, and a packet that declares more than was announced fails at once instead
// of waiting. The library's sends go into the same pair, which the relay empties after each send,
// so no send waits either. Each direction's bytes queue in the relay until the other side takes
// them, and a full queue stops reading from its source: both directions can be saturated at once
// without a deadlock, and local back-pressure (a slow output) is never charged to the peer.
#pragma once

#include "channelOptions.h"
#include "cliFrame.h"
#include "eventLoop.h"
#include "packetPipe.h"
#include "stream.h"
#include "vxNetSocket.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace vxcli {

/** Where the bytes for the peer come from and where the peer's bytes go. A socket is both
 *  (`input` == `output`), and its sending side is shut down once the peer's stream ended;
 *  another output is closed then. */
struct plainSide
{
    int input;
    int output;
    bool isSocket;
    std::string inputName;  ///< for messages: "the application", "standard input"
    std::string outputName; ///< "the application", "standard output"
};

/** Plain bytes relayed so far, for a progress display and the connection's last log line. */
struct relayCounters
{
    uint64_t toPeer = 0;
    uint64_t fromPeer = 0;
    uint64_t wireOut = 0; ///< bytes sent on the connection once it was keyed
    uint64_t wireIn = 0;  ///< bytes received on it once it was keyed
};

/** Called a few times a second while a relay runs, and once at its end. */
using relayTick = std::function<void(const relayCounters&, bool last)>;

/** The stream relay of one keyed connection, driven by an event loop. Its handlers throw failure
 *  when the connection must end. */
class streamRelay
{
public:
    /** `network` is the TCP connection to the peer (non-blocking); `keyed`'s socket is the
     *  pipe's library end. `isInitiator`: the end that connected, which sends the disconnect
     *  command. */
    streamRelay(eventLoop& owner, veltrix::vxNetEncryptedSocket& keyed, const packetPipe& packets,
                int network, plainSide plainEnd, bool isInitiator, const relayLimits& chosen);
    LVX_NOT_COPYABLE(streamRelay);
    ~streamRelay() = default;

    /** Which descriptor a readiness report is about. */
    enum class role
    {
        network,
        plainIn,
        plainOut
    };

    /** Registers with the loop through `targets` (one per role) and moves what can move. */
    void start(pollTarget& network, pollTarget& plainIn, pollTarget& plainOut);
    /** Handles readiness of one descriptor and moves everything that can move. */
    void ready(role which, uint32_t events);

    /** Both directions ended and the disconnect command went through. */
    [[nodiscard]] bool done() const { return state == phase::finished; }

    /** When a limit on the peer passes next; time_point::max() for none. */
    [[nodiscard]] steadyClock::time_point deadline() const;
    /** Throws failure when a limit passed by `now`. */
    void checkLimits(steadyClock::time_point now) const;
    /** After a failure: resets the plain socket and the network, so that neither end takes the
     *  cut stream for a whole one. */
    void abort() const;

    [[nodiscard]] const relayCounters& counters() const { return moved; }

private:
    enum class phase
    {
        relaying, ///< data both ways until both ends sent their end
        closing,  ///< the disconnect command: sending it, or waiting for it
        finished
    };

    /** Plain input to the peer. */
    struct outbound
    {
        stream::sender cells;
        byteQueue toNet;      ///< packets the network has not taken yet
        bool readable = true; ///< the plain input may have bytes: cleared by a read that took all
        bool sentEnd = false; ///< the plain input ended and the end cell went out

        /** The plain input ended and the peer was told so. */
        [[nodiscard]] bool finished() const { return sentEnd; }

        /** Whether the plain input is to be read: not ended, and the network keeps up. */
        [[nodiscard]] bool takesInput() const;
    };

    /** How the peer's side of the connection ended. */
    enum class peerEnd
    {
        open,        ///< it may still send
        closed,      ///< it closed the connection
        disconnected ///< it sent the disconnect command
    };

    /** The peer to the plain output. */
    struct inbound
    {
        stream::receiver cells;
        std::vector<unsigned char> packet; ///< the bytes of the expected packet so far
        byteQueue toPlain;                 ///< data the plain output has not taken yet
        bool readable = true;    ///< the network may have bytes: cleared by a read that took all
        bool held = false;       ///< not read because the plain output is behind
        bool outputShut = false; ///< the plain output ended after the peer's end
        peerEnd peer = peerEnd::open;
        /** When the packet still arriving began; max() while none is. */
        steadyClock::time_point partialSince = steadyClock::time_point::max();

        /** The peer's stream ended and the plain output took all of it. */
        [[nodiscard]] bool finished() const { return outputShut; }

        /** Whether the peer may still send something: the end that connected expects nothing
         *  after the peer's end, the other the disconnect command. */
        [[nodiscard]] bool expectsMore(bool isInitiator) const;
    };

    void advance();
    void readPlain();
    void sendData(const unsigned char* data, size_t count);
    void sendCell();
    void flushNet();
    void readNet();
    void completePacket();
    /** Reads at most `limit` bytes from the peer; false when none came. */
    bool readFromNet(unsigned char* at, size_t limit, size_t& got);
    void deliver(const unsigned char* packet, size_t size);
    void receive();
    void netEnded();
    void flushPlain();
    /** Moves on to the next phase once the current one's work is done. */
    void finishIfDone();
    void updateInterest();
    [[nodiscard]] bool expectsMore() const;
    [[nodiscard]] bool wantsNet() const;

    eventLoop& loop;
    veltrix::vxNetEncryptedSocket& channel;
    const packetPipe& pipe;
    int net;
    plainSide plain;
    bool initiator;
    const relayLimits& limits;
    pollTarget* targets[3] = {};
    phase state = phase::relaying;
    outbound out;
    inbound in;
    relayCounters moved;
    veltrix::vxBytes cell;
    veltrix::vxBytes received;
    steadyClock::time_point lastTraffic = steadyClock::now();
    steadyClock::time_point closingSince = steadyClock::time_point::max();
};

/** Relays the keyed connection of `channel` (its plain socket connected) in the stream protocol
 *  until both directions ended and the connection closed: the single connection of `cat`.
 *  Throws failure when the peer or the plain side broke off, or a limit passed. */
void relayStream(veltrix::vxNetEncryptedSocket& channel, const plainSide& plain, bool initiator,
                 const relayLimits& limits, const relayTick& tick = {},
                 relayCounters* counters = nullptr);

/** Relays bare payloads: each read of the input becomes one payload, each payload received is
 *  written out. After the end of its input the initiator goes on receiving until the peer has
 *  been quiet for `linger` seconds or closed the connection; only then does it send the
 *  disconnect command, and it reads what the peer sent meanwhile until the peer closes. The
 *  other end runs until it receives the disconnect command. The library receives a payload
 *  whole, so the receive limit is its own time-out and the socket's. A peer that speaks the
 *  stream protocol is recognised by its first cells and ends the relay within the receive
 *  limit. */
void relayRaw(veltrix::vxNetEncryptedSocket& channel, const plainSide& plain, bool initiator,
              const relayLimits& limits, unsigned linger, const relayTick& tick = {},
              relayCounters* counters = nullptr);

/** Makes the close of a socket reset it instead of ending it in order. */
void resetOnClose(int fd);

} // namespace vxcli
