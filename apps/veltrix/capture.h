// The TCP connections of a packet capture (pcap or pcapng, as tcpdump and dumpcap write them),
// read with libpcap and put back together per connection and direction.
//
// Link types: Ethernet (with 802.1Q/802.1ad tags), Linux cooked v1 and v2 (tcpdump -i any), BSD
// loopback (DLT_NULL, DLT_LOOP) and raw IP (DLT_RAW, LINKTYPE_IPV4, LINKTYPE_IPV6); IPv4 and IPv6
// (extension headers skipped); a fragmented datagram is not reassembled and counts as skipped.
//
// Reassembly takes each stream byte once: a retransmitted or overlapping segment adds only the
// bytes not yet seen, and an out-of-order segment waits (up to kHoldLimit bytes per direction)
// until the bytes before it arrive. A hole the capture cannot fill is reported as a gap, never
// passed on as data: when the other end acknowledges bytes past it (that end had them, so they
// are not sent again), when the bytes held beyond it pass kHoldLimit, when the direction ends
// (an RST), or at the end of the file. A FIN after a hole waits like any out-of-order segment,
// since a retransmission may still fill the hole; the FIN tells the stream's length, so a hole
// before it is a gap once it has to be declared. Unseen bytes after the last one the capture
// has, which nobody acknowledged and no FIN follows, are not reported at all: nothing says they
// were sent. Bytes a frame held on the wire but the capture cut off (a short snap length) are a
// gap too, and count as seen: a later copy of them is not taken.
// Memory is one hold buffer per open direction: it grows with the connections, not the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace vxcli::capture {

/** The most out-of-order bytes held per direction while a hole waits to be filled. */
constexpr size_t kHoldLimit = 4U << 20U;

/** One end of a TCP connection. */
struct peerAddress
{
    int family = 0;                 ///< AF_INET or AF_INET6
    unsigned char address[16] = {}; ///< 4 bytes used for IPv4
    uint16_t port = 0;
    /** "10.0.0.1:5000", "[fe80::1]:5000"; an address of neither family reads as "?". */
    [[nodiscard]] std::string text() const;
};

/** Which way bytes travel: the client is the end that sent the first SYN. */
enum class direction : unsigned char
{
    toServer = 0,
    toClient = 1
};

/** How a direction's stream ended. */
enum class streamEnd : unsigned char
{
    fin,       ///< the sender closed it: its FIN, once every byte before it was delivered or
               ///< reported as a gap (whatever brought that about: an ACK, an RST, the file's end)
    reset,     ///< either end reset the connection: reported for both directions
    captureEnd ///< the capture holds nothing more of the direction: the file ended, or a new
               ///< connection took over the ports
};

/** Where in the capture something happened. */
struct frameInfo
{
    uint64_t number = 0;      ///< the frame's number in the file, from 1
    int64_t microseconds = 0; ///< its capture time, since the epoch
};

/** What the reader reports, in the order of the frames that make it known. */
class streamSink
{
public:
    streamSink() = default;
    streamSink(const streamSink&) = delete;
    streamSink& operator=(const streamSink&) = delete;
    streamSink(streamSink&&) = delete;
    streamSink& operator=(streamSink&&) = delete;
    virtual ~streamSink() = default;

    /** A connection whose start (its SYN or SYN-ACK) is in the capture; `id` numbers the
     *  connections from 1 in the order they start. The client is the sender of the SYN, or the
     *  receiver of the SYN-ACK when only that is in the capture. A SYN again with the same
     *  sequence number is a retransmission; a SYN of the client with another one, or a SYN or
     *  SYN-ACK on ports whose connection has ended in both directions, starts a new connection
     *  (the old one's open directions end first, with captureEnd). */
    virtual void started(unsigned id, const peerAddress& client, const peerAddress& server,
                         const frameInfo& at) = 0;
    /** The next `count` bytes of a direction, in order; `offset` is the position of the first
     *  byte in the direction's stream (0 = the first byte after the SYN). */
    virtual void data(unsigned id, direction way, uint64_t offset, const unsigned char* bytes,
                      size_t count, const frameInfo& at) = 0;
    /** The capture lost `count` bytes at `offset` of the direction's stream; whatever comes next
     *  in that direction starts at `offset + count`. */
    virtual void gap(unsigned id, direction way, uint64_t offset, uint64_t count,
                     const frameInfo& at) = 0;
    /** The direction ended; nothing more comes for it. Called once per direction of every
     *  connection that started. */
    virtual void ended(unsigned id, direction way, streamEnd how, const frameInfo& at) = 0;
    /** A TCP connection whose start is not in the capture: reported once at its first frame,
     *  then ignored. `first` and `second` are the sender and the receiver of that frame. */
    virtual void withoutStart(const peerAddress& first, const peerAddress& second,
                              const frameInfo& at) = 0;
};

/** What the file held besides the connections. */
struct captureSummary
{
    uint64_t frames = 0;      ///< every frame read
    uint64_t tcpSegments = 0; ///< frames that carried a TCP segment of a chosen port
    /** Frames that were not TCP over IP, a fragment of it, or too damaged to read. TCP segments
     *  of other ports than the chosen one count in neither this nor tcpSegments. */
    uint64_t skipped = 0;
    /** Why the file stopped before its end ("the file ends in the middle of frame 812", or
     *  "frame 812 cannot be read: " and libpcap's reason); empty when it was read to the end.
     *  The connections still open then end with captureEnd. */
    std::string truncated;
};

/** Reads the capture at `path` and reports its TCP connections to `sink`; `port` (not 0) keeps
 *  only the connections with that port at either end. Throws failure ("cannot read the capture
 *  PATH: why", "the capture PATH has link type N (NAME), which is not supported", the name
 *  when libpcap knows one) when the file cannot be read as a capture at all; a file that breaks off later is read up to there (see
 *  captureSummary::truncated). What the sink throws passes through. */
captureSummary readCapture(const std::string& path, uint16_t port, streamSink& sink);

/** The same from an open file, which it closes; `name` stands for it in messages. */
captureSummary readCapture(std::FILE* file, const std::string& name, uint16_t port,
                           streamSink& sink);

} // namespace vxcli::capture
