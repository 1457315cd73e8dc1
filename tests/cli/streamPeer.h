// A test's own end of the stream protocol that `tunnel` and `cat` speak inside the encrypted
// channel, built on the library's classes and written apart from the program's code, so that a
// test can speak it exactly, or break it on purpose:
//
//   a payload is one cell: byte 0 the kind (0 data, 1 end of this direction), bytes 1-2 the body
//   of the sender's next packet in 16-byte blocks (1 to 1024 after data, 0 after the end), then
//   1 to 16381 bytes of data (none in the end cell). A packet is 48 + 16 * blocks bytes on the
//   wire, and the first packet of each direction has a body of one block.
//
// The peer seals every packet into bytes first (its encrypted socket writes into a local socket
// pair), so a test can alter, cut, replay or hold any of them before they go out.
#pragma once

#include "vxNetClient.h"
#include "vxTest.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace vxclitest {

/** The wire sizes of the stream protocol. */
namespace cells {

constexpr size_t kCellHeader = 3;
constexpr size_t kBlock = 16;
constexpr size_t kPacketHeader = 48;
constexpr size_t kMaxData = 16381;
constexpr uint16_t kMaxBlocks = 1024;
/** Every direction's first packet: a one-block body. */
constexpr size_t kFirstPacket = kPacketHeader + kBlock;

/** Bytes on the wire of a packet whose body has `blocks` blocks. */
constexpr size_t wireSize(size_t blocks)
{
    return kPacketHeader + kBlock * blocks;
}

/** The blocks of the data cell that carries `count` bytes. */
constexpr uint16_t blocksFor(size_t count)
{
    return static_cast<uint16_t>((kCellHeader + count + kBlock - 1) / kBlock);
}

/** A data cell carrying `bytes` that announces `next` blocks. */
std::vector<unsigned char> data(const std::string& bytes, uint16_t next);
/** The end cell. */
std::vector<unsigned char> end();

} // namespace cells

/** One cell as received, after the peer's checks. */
struct receivedCell
{
    unsigned char kind = 0;
    uint16_t next = 0;
    std::string data;
};

/** A client of a server tunnel (or a listening cat) that speaks the stream protocol. Every wait
 *  on the other end has a time limit. Failures say why in `problem()`. */
class streamPeer
{
public:
    explicit streamPeer(vxtest::testFrame& frame);
    streamPeer(const streamPeer&) = delete;
    streamPeer& operator=(const streamPeer&) = delete;
    /** Closes whatever is open, even after a failure latched the library. */
    ~streamPeer();

    /** Connects to 127.0.0.1:`port` and runs the handshake with `secret`; a receive gives up
     *  after `seconds`. */
    bool connect(int port, const std::string& secret, uint32_t seconds = 30);

    /** The packet that carries `payload`, as bytes; the keys advance as if it was sent. */
    std::string seal(const std::vector<unsigned char>& payload);
    /** The disconnect command (a header alone), as bytes. */
    std::string sealDisconnect();
    /** The command packet of `code` (a header alone), as bytes. */
    std::string sealCommand(uint32_t code);
    /** The packets that carry `bytes` as the protocol's sender cuts data it holds whole: each
     *  cell fills what the previous one announced, and announces the next; the last announces
     *  one block. */
    std::vector<std::string> sealData(const std::string& bytes);
    /** The packet of the end cell. */
    std::string sealEnd();

    /** Writes bytes as they are to the connection. */
    bool sendRaw(const std::string& bytes);
    bool sendData(const std::string& bytes);
    bool sendEnd();
    bool sendDisconnect();

    /** Receives one packet and checks it: the size the last cell announced, a known kind, data
     *  only in a data cell, an announcement in range. */
    bool receive(receivedCell& cell);
    /** Receives data cells until the end cell; false when the stream broke off first. */
    bool receiveStream(std::string& data);
    /** Receives data cells until `count` bytes arrived in all; false at an end cell before. */
    bool receiveData(size_t count, std::string& data);

    /** The connection's descriptor. */
    [[nodiscard]] int fd() const { return client.socket.sockFd; }

    /** The blocks the peer announced for its own next packet. */
    [[nodiscard]] uint16_t announced() const { return nextOut; }

    [[nodiscard]] const std::string& problem() const { return why; }

    /** Closes the connection (and clears a latch the other end's failure left). */
    void close();

    veltrix::vxNetClient client;

private:
    bool fail(const std::string& text);
    /** Sends a sealed packet; false when it is empty, sealing having failed. */
    bool sendSealed(const std::string& packet);
    /** What `send` writes on the channel, as bytes, sent to a capture instead of the peer. */
    std::string sealWith(const std::function<bool(veltrix::vxNetEncryptedSocket&)>& send,
                         const std::string& what);
    bool openCapture();
    std::string captured();

    vxtest::testFrame& frame;
    veltrix::vxNetSocket capture; ///< where the encrypted socket writes while sealing
    int captureRead = -1;         ///< the other end of the capture pair
    uint16_t nextOut = 1;         ///< the blocks this end announced last
    uint16_t nextIn = 1;          ///< the blocks the other end announced last
    std::string why;
};

} // namespace vxclitest
