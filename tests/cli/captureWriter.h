// Capture files for the tests of the capture reader and of `decode`: classic pcap written by
// libpcap, or pcapng written here (libpcap reads pcapng but cannot write it), with TCP
// connections built segment by segment so that a test decides exactly what the capture holds:
// reordered, repeated, overlapping, missing or altered segments, and where a frame is cut.
//
//     vxclitest::captureWriter out(dir.path("x.pcap"));
//     vxclitest::tcpFlow flow(out, {});
//     flow.handshake();
//     flow.sendAll(direction::toServer, clientBytes, 1000);
//     flow.send(direction::toClient, 0, "hello");
//     flow.fin(direction::toServer);
//     out.close();
//
// Checksums are left 0: the reader does not check them.
#pragma once

#include "capture.h"

#include <pcap/pcap.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace vxclitest {

using vxcli::capture::direction;
using byteVector = std::vector<unsigned char>;

/** The capture time of frame 1, in microseconds since the epoch; each frame is kFrameStep
 *  later than the one before. */
constexpr int64_t kFirstFrameTime = 1700000000000000;
constexpr int64_t kFrameStep = 1000;

/** How the file is written. */
struct captureFormat
{
    int linkType = DLT_EN10MB; ///< DLT_EN10MB, DLT_LINUX_SLL, DLT_LINUX_SLL2, DLT_NULL, DLT_LOOP,
                               ///< DLT_RAW, DLT_IPV4, DLT_IPV6 frame IP packets; any other takes
                               ///< writeFrame only
    uint32_t snapLength = 262144; ///< longer frames are cut to it, as tcpdump -s cuts them
    bool pcapng = false;
    bool nanoseconds = false; ///< classic pcap with nanosecond time stamps
    unsigned vlanTags = 0;    ///< Ethernet: VLAN tags (one: 802.1Q; more: 802.1ad, then 802.1Q)
};

/** Writes one capture file; every frame gets the next frame number, from 1. */
class captureWriter
{
public:
    explicit captureWriter(const std::string& path, const captureFormat& format = {});
    captureWriter(const captureWriter&) = delete;
    captureWriter& operator=(const captureWriter&) = delete;
    ~captureWriter();

    /** A frame of the link type as it is (cut to the snap length); returns its number. */
    uint64_t writeFrame(const byteVector& frame);
    /** An IPv4 or IPv6 packet (its version picks the link header's protocol field) in the link
     *  type's framing, an Ethernet frame padded to 60 bytes as a receiver captures it; returns
     *  the frame number. */
    uint64_t writePacket(const byteVector& packet);

    /** Bytes in the file so far: where the next frame will start. */
    [[nodiscard]] uint64_t size();
    /** Finishes the file; the destructor does it too. */
    void close();

    [[nodiscard]] const captureFormat& format() const { return how; }

private:
    captureFormat how;
    pcap_t* dead = nullptr;
    pcap_dumper_t* dumper = nullptr;
    std::ofstream ng;
    uint64_t frames = 0;
};

/** One end of a connection: an IPv4 or IPv6 address as text, and a port. */
struct endpoint
{
    std::string address;
    uint16_t port = 0;
};

/** A connection's ends, initial sequence numbers, and IP header extras. */
struct flowSetup
{
    endpoint client{"10.0.0.1", 40000};
    endpoint server{"10.0.0.2", 5000};
    uint32_t clientIsn = 1000;
    uint32_t serverIsn = 700000;
    /** IPv4: a header with 4 bytes of options; IPv6: hop-by-hop and destination options headers
     *  before the TCP header. */
    bool ipExtras = false;
};

/** TCP flag bits, to combine for tcpFlow::send. */
namespace tcpFlags {
constexpr uint8_t fin = 0x01;
constexpr uint8_t syn = 0x02;
constexpr uint8_t rst = 0x04;
constexpr uint8_t psh = 0x08;
constexpr uint8_t ack = 0x10;
} // namespace tcpFlags

/** A TCP connection written segment by segment. Offsets are stream offsets of a direction (0 is
 *  the first byte after the SYN); the flow turns them into sequence numbers, wrapping at 2^32.
 *  Every segment but the client's SYN carries an ACK: by default of everything the flow wrote in
 *  the other direction so far (the FIN included), as a receiver that got it all; pinAck() fixes
 *  it instead. Every write returns its frame number. */
class tcpFlow
{
public:
    tcpFlow(captureWriter& out, flowSetup setup);

    /** The client's SYN, carrying `data` (TCP fast open) when given. */
    uint64_t syn(std::string_view data = {});
    /** The server's SYN-ACK. */
    uint64_t synAck();
    /** SYN, SYN-ACK and the client's ACK; returns the SYN's frame number. */
    uint64_t handshake();

    /** One segment from `way`'s sender with `bytes` at `offset` of its stream. */
    uint64_t send(direction way, uint64_t offset, std::string_view bytes,
                  uint8_t flags = tcpFlags::ack | tcpFlags::psh);
    /** A whole stream (or its part from `offset`) in segments of `segmentSize` bytes, in order;
     *  returns their frame numbers. */
    std::vector<uint64_t> sendAll(direction way, std::string_view bytes, size_t segmentSize,
                                  uint64_t offset = 0);
    /** A pure ACK from `way`'s sender of `acked` bytes of the other direction. */
    uint64_t ack(direction way, uint64_t acked);
    /** A FIN from `way`'s sender after the last byte the flow wrote that way. */
    uint64_t fin(direction way);
    /** An RST (with ACK) from `way`'s sender. */
    uint64_t rst(direction way);

    /** From now on, `way`'s segments acknowledge `acked` bytes of the other direction. */
    void pinAck(direction way, uint64_t acked);
    /** Back to acknowledging everything written the other way. */
    void unpinAck(direction way);

    /** The IP packet of a segment, without writing it: for a test to alter (a fragment, another
     *  protocol, a damaged header) and write with captureWriter::writePacket. */
    [[nodiscard]] byteVector packet(direction way, uint32_t seq, uint32_t ackNumber, uint8_t flags,
                                    std::string_view bytes) const;
    /** The sequence number of `offset` in `way`'s stream. */
    [[nodiscard]] uint32_t seqOf(direction way, uint64_t offset) const;

    /** The peers as the reader reports them. */
    [[nodiscard]] vxcli::capture::peerAddress clientPeer() const { return client; }

    [[nodiscard]] vxcli::capture::peerAddress serverPeer() const { return server; }

private:
    struct side
    {
        uint32_t isn = 0;
        uint64_t written = 0; ///< the end of the furthest segment written
        bool finWritten = false;
        bool pinned = false;
        uint64_t pinnedAck = 0;
    };

    uint64_t write(direction way, uint32_t seq, uint32_t ackNumber, uint8_t flags,
                   std::string_view bytes);
    /** The ACK `way`'s segments carry: pinned, or everything written the other way. */
    [[nodiscard]] uint32_t ackFrom(direction way) const;

    captureWriter& out;
    vxcli::capture::peerAddress client;
    vxcli::capture::peerAddress server;
    bool extras;
    side sides[2];
};

} // namespace vxclitest
