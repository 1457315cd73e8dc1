// Relays one encrypted connection between the peer and a plain side (the application's socket,
// or standard input and output).
//
// Stream protocol inside the channel: every payload is one cell of kCellSize bytes: a kind byte
// (0 data, 1 end of this direction), the number of data bytes (2 bytes, most significant first),
// the data, and zeros up to the cell size. Each end sends "end" once its plain input is over;
// the end that connected sends the disconnect command once both directions have ended, and
// closes. Every packet on the wire therefore has one size, known before it arrives: the relay
// hands a packet to the library only once all of it is there, and never waits in a receive.
// Its sends go into a local socket pair that the relay empties after each one, so no send waits
// either; the relay's one thread is never blocked by a peer that is itself blocked sending.
#pragma once

#include "channel.h"
#include "vxNetSocket.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace vxcli {

/** Payload bytes of every cell, its header, and the data one cell carries. */
constexpr size_t kCellSize = 4096;
constexpr size_t kCellHeader = 3;
constexpr size_t kCellData = kCellSize - kCellHeader;

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

/** Plain bytes relayed so far, for a progress display. */
struct relayCounters
{
    uint64_t toPeer = 0;
    uint64_t fromPeer = 0;
};

/** Called a few times a second while a relay runs, and once at its end. */
using relayTick = std::function<void(const relayCounters&, bool last)>;

/** Relays the connection of `channel` (keyed, its plain socket connected) in the stream
 *  protocol until both directions ended and the connection closed. `initiator` is the end that
 *  connected: it sends the disconnect command. Throws failure when the peer or the plain side
 *  broke off, or a limit of `limits` passed; the plain socket is then reset, so its application
 *  sees the stream did not end normally. */
void relayStream(veltrix::vxNetEncryptedSocket& channel, const plainSide& plain, bool initiator,
                 const relayLimits& limits, const relayTick& tick = {});

/** Relays bare payloads: each read of the input becomes one payload, each payload received is
 *  written out. The initiator sends the disconnect command at the end of its input; the other
 *  end runs until it receives the disconnect command. The library receives a payload whole, so
 *  the receive limit is its own time-out and the socket's. */
void relayRaw(veltrix::vxNetEncryptedSocket& channel, const plainSide& plain, bool initiator,
              const relayLimits& limits, const relayTick& tick = {});

} // namespace vxcli
