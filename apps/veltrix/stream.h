// The stream protocol that `tunnel` and `cat` speak inside the encrypted channel.
//
// The channel carries whole messages and cannot say "this direction has ended", so each payload is
// one cell:
//
//   byte 0      kind: 0 data, 1 end of this direction
//   bytes 1-2   the body size of the sender's next packet, in 16-byte blocks, most significant
//               first: 1 to 1024 after a data cell, 0 after the end cell
//   bytes 3-    the data: 1 to 16381 bytes in a data cell, none in the end cell
//
// A packet's body is its payload rounded up to 16 bytes, so every packet is 48 + 16 * blocks
// bytes on the wire and the receiver knows its size before the first byte arrives: the first
// packet of each direction has a 1-block body, and each cell announces the next. A sender
// announces a larger packet only for data it already holds, so whatever comes later always fits
// the 1-block packet it announced last: up to 13 bytes of new data, or the end cell. A small write
// therefore costs a 64-byte packet, and bulk data travels in packets of 16 KiB.
#pragma once

#include "network.h"
#include "vxNetTransport.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vxcli::stream {

/** The cell's own bytes before the data. */
constexpr size_t kCellHeader = 3;
/** A body grows in blocks of this many bytes. */
constexpr size_t kBlock = 16;
/** The largest body, in blocks: the library's largest payload. */
constexpr uint32_t kMaxBlocks = veltrix::VX_MAX_PACKET_SIZE / kBlock;
/** The most data one cell carries. */
constexpr size_t kMaxData = veltrix::VX_MAX_PACKET_SIZE - kCellHeader;
/** Every direction's first packet has a body of one block. */
constexpr uint32_t kFirstBlocks = 1;

enum kind : unsigned char
{
    kindData = 0,
    kindEnd = 1
};

/** Bytes on the wire of a packet whose body has `blocks` blocks; 0 blocks is a command packet
 *  (the disconnect command), a header alone. */
constexpr size_t wireSize(uint32_t blocks)
{
    return veltrix::VX_HEADER_WIRE_SIZE + kBlock * blocks;
}

/** The blocks of a cell that carries `data` bytes. */
constexpr uint32_t blocksFor(size_t data)
{
    return static_cast<uint32_t>((kCellHeader + data + kBlock - 1) / kBlock);
}

/** Whether the size the library found in a header marks a command packet (the command mark in
 *  its upper half; the command code below) instead of a payload. */
constexpr bool isCommand(uint32_t sizeField)
{
    return (sizeField >> 16U) == (veltrix::kCommandMark >> 16U);
}

/** The sending side: cuts the data it is given into cells that match what it announced. */
class sender
{
public:
    /** How many of `available` bytes (more than 0) the next data cell carries. */
    [[nodiscard]] size_t take(size_t available) const;

    /** The data cell carrying `count` bytes at `data`, of which `following` more are already in
     *  hand for the cells after it, into `cell`. */
    void data(const unsigned char* data, size_t count, size_t following,
              std::vector<unsigned char>& cell);

    /** The end cell into `cell`; nothing but the disconnect command may follow it. */
    void end(std::vector<unsigned char>& cell);

private:
    uint32_t announced = kFirstBlocks;
};

/** The receiving side: the size of the next packet, and the checks on each cell. */
class receiver
{
public:
    /** Bytes on the wire of the packet expected next (48 after the end: the disconnect). */
    [[nodiscard]] size_t packetSize() const { return wireSize(expected); }

    /** The body size the library found in the packet just received must be the announced one;
     *  throws failure otherwise. */
    void checkSize(uint32_t sizeWithPadding) const;

    /** Checks a received cell and takes its announcement; the data it carries, as an offset and
     *  a count into `cell`. Throws failure when the cell breaks the protocol. */
    size_t take(const std::vector<unsigned char>& cell);

    [[nodiscard]] bool ended() const { return sawEnd; }

private:
    uint32_t expected = kFirstBlocks;
    bool sawEnd = false;
    bool started = false; ///< a cell arrived
};

} // namespace vxcli::stream
