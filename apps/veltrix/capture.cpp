// The capture reader: libpcap hands over the frames, each frame is taken apart here down to its
// TCP segment, and the segments are put back together per connection and direction.
//
// A direction's stream is tracked by the offset of its next byte (`next`): everything before it
// has gone to the sink, as data or as a gap. Bytes past it wait in a map of pieces keyed by their
// first offset, which never overlap and all start after `next`; a piece is either bytes the
// capture has or a run the capture cut off (no bytes), which goes out as a gap in its turn. In
// order, a segment's bytes go to the sink straight from libpcap's buffer.
#include "capture.h"

#include "cliFrame.h"

#include <arpa/inet.h>
#include <pcap/pcap.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vxcli::capture {

std::string peerAddress::text() const
{
    char shown[INET6_ADDRSTRLEN] = {};
    const std::string name =
        inet_ntop(family, address, shown, sizeof shown) != nullptr ? shown : "?";
    const std::string suffix = ":" + std::to_string(port);
    return family == AF_INET6 ? "[" + name + "]" + suffix : name + suffix;
}

namespace {

constexpr unsigned kFin = 0x01;
constexpr unsigned kSyn = 0x02;
constexpr unsigned kRst = 0x04;
constexpr unsigned kAck = 0x10;
constexpr unsigned kTcp = 6;
constexpr uint64_t kNoFin = UINT64_MAX;
/** What a held piece counts against kHoldLimit besides its bytes: its bookkeeping, so that many
 *  tiny pieces cannot take more memory than a few large ones. */
constexpr size_t kPieceCost = 64;

uint16_t be16(const unsigned char* bytes)
{
    return static_cast<uint16_t>((bytes[0] << 8U) | bytes[1]);
}

uint32_t be32(const unsigned char* bytes)
{
    return (static_cast<uint32_t>(be16(bytes)) << 16U) | be16(bytes + 2);
}

uint32_t le32(const unsigned char* bytes)
{
    return bytes[0] | (static_cast<uint32_t>(bytes[1]) << 8U) |
           (static_cast<uint32_t>(bytes[2]) << 16U) | (static_cast<uint32_t>(bytes[3]) << 24U);
}

/** A TCP segment as its frame carried it. */
struct segment
{
    peerAddress from;
    peerAddress to;
    uint32_t seq = 0;
    uint32_t ack = 0;
    unsigned flags = 0;
    const unsigned char* payload = nullptr;
    size_t captured = 0; ///< payload bytes in the frame
    size_t length = 0;   ///< payload bytes on the wire: `captured` and what the capture cut off
};

void setAddress(peerAddress& end, int family, const unsigned char* bytes, size_t size)
{
    end.family = family;
    std::memcpy(end.address, bytes, size);
}

// Each reader below takes `size` captured bytes, of which the frame had `cut` more on the wire.

/** The TCP header of a segment of `length` bytes on the wire (`size` of them captured). */
bool readTcp(const unsigned char* bytes, size_t size, size_t length, segment& out)
{
    if (size < 20) {
        return false;
    }
    const size_t header = static_cast<size_t>(bytes[12] >> 4U) * 4U;
    if (header < 20 || header > length) {
        return false;
    }
    out.from.port = be16(bytes);
    out.to.port = be16(bytes + 2);
    out.seq = be32(bytes + 4);
    out.ack = be32(bytes + 8);
    out.flags = bytes[13];
    out.payload = bytes + std::min(header, size);
    out.captured = size > header ? size - header : 0;
    out.length = length - header;
    return true;
}

/** An IPv4 datagram, unfragmented, carrying TCP. The total length, not the frame, bounds it (an
 *  Ethernet trailer is no part of it); a total length of 0 (segmentation offload on the capturing
 *  host) means the rest of the frame. */
bool readIpv4(const unsigned char* bytes, size_t size, size_t cut, segment& out)
{
    if (size < 20 || bytes[0] >> 4U != 4) {
        return false;
    }
    const size_t header = static_cast<size_t>(bytes[0] & 0x0FU) * 4U;
    const size_t total = be16(bytes + 2);
    const size_t length = total == 0 ? size + cut : total;
    // More fragments, or a fragment offset: not reassembled.
    const bool fragment = (be16(bytes + 6) & 0x3FFFU) != 0;
    if (header < 20 || header > size || length < header || length > size + cut || fragment ||
        bytes[9] != kTcp) {
        return false;
    }
    setAddress(out.from, AF_INET, bytes + 12, 4);
    setAddress(out.to, AF_INET, bytes + 16, 4);
    return readTcp(bytes + header, std::min(size, length) - header, length - header, out);
}

/** An IPv6 packet carrying TCP, after any hop-by-hop, routing and destination options headers;
 *  a fragment header (or anything else) ends the search. A payload length of 0 (a jumbogram, or
 *  segmentation offload) means the rest of the frame. */
bool readIpv6(const unsigned char* bytes, size_t size, size_t cut, segment& out)
{
    if (size < 40 || bytes[0] >> 4U != 6) {
        return false;
    }
    const size_t payload = be16(bytes + 4);
    const size_t length = payload == 0 ? size + cut : 40 + payload;
    if (length > size + cut) {
        return false;
    }
    const size_t captured = std::min(size, length);
    unsigned next = bytes[6];
    size_t header = 40;
    while (next == 0 || next == 43 || next == 60) {
        if (header + 2 > captured) {
            return false;
        }
        next = bytes[header];
        header += (static_cast<size_t>(bytes[header + 1]) + 1) * 8;
    }
    if (next != kTcp || header > captured) {
        return false;
    }
    setAddress(out.from, AF_INET6, bytes + 8, 16);
    setAddress(out.to, AF_INET6, bytes + 24, 16);
    return readTcp(bytes + header, captured - header, length - header, out);
}

/** What follows an Ethernet type field, after any 802.1Q or 802.1ad tags. */
bool readEthertype(unsigned type, const unsigned char* bytes, size_t size, size_t cut, segment& out)
{
    while (type == 0x8100 || type == 0x88A8) {
        if (size < 4) {
            return false;
        }
        type = be16(bytes + 2);
        bytes += 4;
        size -= 4;
    }
    if (type == 0x0800) {
        return readIpv4(bytes, size, cut, out);
    }
    return type == 0x86DD && readIpv6(bytes, size, cut, out);
}

/** Raw IP: the version says which. */
bool readIp(const unsigned char* bytes, size_t size, size_t cut, segment& out)
{
    if (size == 0) {
        return false;
    }
    return bytes[0] >> 4U == 4 ? readIpv4(bytes, size, cut, out) : readIpv6(bytes, size, cut, out);
}

/** The BSD loopback header's address family: AF_INET is 2 everywhere, AF_INET6 differs between
 *  the systems that write it (Linux, the BSDs, macOS). */
bool readFamily(uint32_t family, const unsigned char* bytes, size_t size, size_t cut, segment& out)
{
    if (family == 2) {
        return readIpv4(bytes, size, cut, out);
    }
    const bool ipv6 = family == 10 || family == 24 || family == 28 || family == 30;
    return ipv6 && readIpv6(bytes, size, cut, out);
}

bool supportedLink(int link)
{
    switch (link) {
    case DLT_EN10MB:
    case DLT_LINUX_SLL:
    case DLT_LINUX_SLL2:
    case DLT_NULL:
    case DLT_LOOP:
    case DLT_RAW:
    case DLT_IPV4:
    case DLT_IPV6:
        return true;
    default:
        return false;
    }
}

/** The TCP segment of a frame of a supported link type, if it holds one that can be read. */
bool readFrame(int link, const unsigned char* frame, size_t size, size_t cut, segment& out)
{
    switch (link) {
    case DLT_EN10MB:
        return size >= 14 && readEthertype(be16(frame + 12), frame + 14, size - 14, cut, out);
    case DLT_LINUX_SLL:
        return size >= 16 && readEthertype(be16(frame + 14), frame + 16, size - 16, cut, out);
    case DLT_LINUX_SLL2:
        return size >= 20 && readEthertype(be16(frame), frame + 20, size - 20, cut, out);
    case DLT_NULL:
    case DLT_LOOP: {
        if (size < 4) {
            return false;
        }
        // DLT_LOOP is in network order; DLT_NULL in the capturing host's, which may not be ours.
        uint32_t family = be32(frame);
        if (link == DLT_NULL && family > 0xFFFFU) {
            family = le32(frame);
        }
        return readFamily(family, frame + 4, size - 4, cut, out);
    }
    default:
        return readIp(frame, size, cut, out);
    }
}

/** The two ends of a connection in a fixed order (address, then port): the family, then each
 *  end's 16 address bytes and port. Both directions of a connection have the same key. */
using tupleKey = std::array<unsigned char, 37>;

struct tupleHash
{
    size_t operator()(const tupleKey& key) const noexcept
    {
        return std::hash<std::string_view>{}(
            std::string_view(reinterpret_cast<const char*>(key.data()), key.size()));
    }
};

using endKey = std::array<unsigned char, 18>;

endKey endOf(const peerAddress& end)
{
    endKey bytes{};
    std::memcpy(bytes.data(), end.address, sizeof end.address);
    bytes[16] = static_cast<unsigned char>(end.port >> 8U);
    bytes[17] = static_cast<unsigned char>(end.port & 0xFFU);
    return bytes;
}

/** The key of a segment's connection; `fromFirst` tells whether its sender is the key's first
 *  end. */
tupleKey keyOf(const segment& s, bool& fromFirst)
{
    const endKey from = endOf(s.from);
    const endKey to = endOf(s.to);
    fromFirst = from <= to;
    tupleKey key{};
    key[0] = static_cast<unsigned char>(s.from.family);
    std::copy(from.begin(), from.end(), key.begin() + (fromFirst ? 1 : 19));
    std::copy(to.begin(), to.end(), key.begin() + (fromFirst ? 19 : 1));
    return key;
}

/** Held stream bytes past a hole, or (no bytes) a run the capture cut off. */
struct piece
{
    uint64_t end = 0;
    std::vector<unsigned char> bytes;
};

size_t costOf(const piece& held)
{
    return kPieceCost + held.bytes.size();
}

/** One direction of a connection. */
struct flow
{
    bool known = false; ///< its initial sequence number is known; until then nothing is placed
    uint32_t isn = 0;   ///< the SYN's sequence number: offset 0 is the one after it
    uint64_t next = 0;  ///< the offset of the next byte for the sink
    uint64_t finAt = kNoFin;
    bool ended = false;
    std::map<uint64_t, piece> held;
    size_t heldCost = 0;
};

/** The connection on a pair of ends; id 0 while none has started there (its segments were
 *  reported as without a start). */
struct connection
{
    unsigned id = 0;
    bool clientFirst = false; ///< the client is the key's first end
    peerAddress client;
    peerAddress server;
    std::array<flow, 2> ways;
};

size_t indexOf(direction way)
{
    return static_cast<size_t>(way);
}

direction opposite(direction way)
{
    return way == direction::toServer ? direction::toClient : direction::toServer;
}

bool over(const connection& c)
{
    return c.ways[0].ended && c.ways[1].ended;
}

/** The stream offset of sequence number `seq`: the one nearest the direction's next byte. It is
 *  negative for the sequence numbers just before the stream. */
int64_t offsetOf(const flow& f, uint32_t seq)
{
    const auto distance = static_cast<int32_t>(seq - f.isn - 1U - static_cast<uint32_t>(f.next));
    return static_cast<int64_t>(f.next) + distance;
}

class reader
{
public:
    reader(int linkType, uint16_t onlyPort, streamSink& target)
        : link(linkType), port(onlyPort), sink(target)
    {}

    void frame(const pcap_pkthdr& header, const unsigned char* bytes)
    {
        ++summary.frames;
        at.number = summary.frames;
        // Unsigned: a hostile pcapng timestamp may not fit, and must not overflow.
        at.microseconds = static_cast<int64_t>(static_cast<uint64_t>(header.ts.tv_sec) * 1000000U +
                                               static_cast<uint64_t>(header.ts.tv_usec));
        const size_t cut = header.len > header.caplen ? header.len - header.caplen : 0;
        segment s;
        if (!readFrame(link, bytes, header.caplen, cut, s)) {
            ++summary.skipped;
            return;
        }
        arrived(s);
    }

    /** The end of the file: every direction still open ends. */
    void finish()
    {
        std::vector<connection*> open;
        for (auto& entry : tuples) {
            if (entry.second.id != 0 && !over(entry.second)) {
                open.push_back(&entry.second);
            }
        }
        std::sort(open.begin(), open.end(),
                  [](const connection* a, const connection* b) { return a->id < b->id; });
        for (connection* c : open) {
            closeDirection(*c, direction::toServer, streamEnd::captureEnd);
            closeDirection(*c, direction::toClient, streamEnd::captureEnd);
        }
    }

    captureSummary summary;

private:
    void arrived(const segment& s)
    {
        if (port != 0 && s.from.port != port && s.to.port != port) {
            return;
        }
        ++summary.tcpSegments;
        bool fromFirst = false;
        const tupleKey key = keyOf(s, fromFirst);
        connection* c = find(key);
        if ((s.flags & kSyn) != 0) {
            c = starting(c, key, fromFirst, s);
        } else if (c == nullptr) {
            (void)tuples[key];
            sink.withoutStart(s.from, s.to, at);
            return;
        }
        if (c == nullptr || c->id == 0 || over(*c)) {
            return;
        }
        follow(*c, fromFirst == c->clientFirst ? direction::toServer : direction::toClient, s);
    }

    /** The connection on `key`, if any; consecutive frames mostly belong to the same one. */
    connection* find(const tupleKey& key)
    {
        if (last != nullptr && key == lastKey) {
            return last;
        }
        const auto found = tuples.find(key);
        if (found == tuples.end()) {
            return nullptr;
        }
        lastKey = key;
        last = &found->second;
        return last;
    }

    /** A SYN or SYN-ACK: the connection it starts or belongs to, or null when it is ignored (a
     *  conflicting one on a live connection, or a late copy of an ended connection's start). */
    connection* starting(connection* c, const tupleKey& key, bool fromFirst, const segment& s)
    {
        const bool synAck = (s.flags & kAck) != 0;
        if (c != nullptr && c->id != 0) {
            const bool fromClient = fromFirst == c->clientFirst;
            flow& own = c->ways[fromClient ? 0 : 1];
            const bool live = !over(*c);
            if (fromClient != synAck) { // the client's SYN, or the server's SYN-ACK
                if (own.known && own.isn == s.seq) {
                    return live ? c : nullptr;
                }
                if (live && synAck && !own.known) {
                    own.known = true;
                    own.isn = s.seq;
                    return c;
                }
            }
            if (live && (!fromClient || synAck)) {
                return nullptr;
            }
            if (live) { // the client starts over with another sequence number
                closeDirection(*c, direction::toServer, streamEnd::captureEnd);
                closeDirection(*c, direction::toClient, streamEnd::captureEnd);
            }
        }
        if (c == nullptr) {
            c = &tuples[key];
            lastKey = key;
            last = c;
        }
        *c = connection{};
        c->id = ++lastId;
        c->clientFirst = synAck ? !fromFirst : fromFirst;
        c->client = synAck ? s.to : s.from;
        c->server = synAck ? s.from : s.to;
        flow& toServer = c->ways[indexOf(direction::toServer)];
        toServer.known = true;
        toServer.isn = synAck ? s.ack - 1U : s.seq;
        if (synAck) {
            flow& toClient = c->ways[indexOf(direction::toClient)];
            toClient.known = true;
            toClient.isn = s.seq;
        }
        sink.started(c->id, c->client, c->server, at);
        return c;
    }

    /** A segment of a live connection: its ACK for the other direction, its bytes and FIN for
     *  its own, and its RST for both. An RST's payload is no part of the stream. */
    void follow(connection& c, direction way, const segment& s)
    {
        flow& own = c.ways[indexOf(way)];
        flow& peer = c.ways[indexOf(opposite(way))];
        if ((s.flags & kAck) != 0) {
            if (!peer.known) { // the server's SYN-ACK is not in the capture: the client's ACK says
                peer.known = true;
                peer.isn = s.ack - 1U;
            } else if (!peer.ended) {
                acknowledged(c, opposite(way), offsetOf(peer, s.ack));
            }
        }
        if (own.known && !own.ended && (s.flags & kRst) == 0) {
            const int64_t start = offsetOf(own, s.seq + ((s.flags & kSyn) != 0 ? 1U : 0U));
            take(c, way, start, s.payload, s.captured);
            take(c, way, start + static_cast<int64_t>(s.captured), nullptr, s.length - s.captured);
            if ((s.flags & kFin) != 0) {
                finSeen(c, way, start + static_cast<int64_t>(s.length));
            }
        }
        if ((s.flags & kRst) != 0) {
            closeDirection(c, direction::toServer, streamEnd::reset);
            closeDirection(c, direction::toClient, streamEnd::reset);
        }
    }

    /** The other end has every byte before `offset`: what the capture lacks of them is lost. */
    void acknowledged(connection& c, direction way, int64_t offset)
    {
        const flow& f = c.ways[indexOf(way)];
        if (offset > static_cast<int64_t>(f.next)) {
            flushTo(c, way, std::min(static_cast<uint64_t>(offset), f.finAt));
        }
    }

    /** `count` stream bytes from `start` (those before offset 0 dropped): `bytes` holds them, or
     *  is null for a run the capture cut off. Only the bytes not seen before count. */
    void take(connection& c, direction way, int64_t start, const unsigned char* bytes,
              uint64_t count)
    {
        flow& f = c.ways[indexOf(way)];
        const int64_t end = start + static_cast<int64_t>(count);
        if (end <= 0) {
            return;
        }
        const uint64_t to = std::min(static_cast<uint64_t>(end), f.finAt);
        uint64_t from = std::max(static_cast<uint64_t>(std::max<int64_t>(start, 0)), f.next);
        while (from < to && !f.ended) {
            const auto after = f.held.upper_bound(from);
            if (after != f.held.begin() && std::prev(after)->second.end > from) {
                from = std::prev(after)->second.end; // held already: the first copy wins
                continue;
            }
            const uint64_t stop = after == f.held.end() ? to : std::min(to, after->first);
            const unsigned char* part =
                bytes == nullptr ? nullptr : bytes + (static_cast<int64_t>(from) - start);
            if (from == f.next) {
                emit(c, way, from, stop - from, part);
                f.next = stop;
                settle(c, way);
            } else {
                hold(c, way, from, stop, part);
            }
            from = std::max(stop, f.next);
        }
    }

    /** Keeps [from, to) until the bytes before it are in; a piece that continues the one before
     *  it joins it. Past kHoldLimit, the holes before the held pieces become gaps. */
    void hold(connection& c, direction way, uint64_t from, uint64_t to, const unsigned char* bytes)
    {
        flow& f = c.ways[indexOf(way)];
        const size_t count = bytes == nullptr ? 0 : static_cast<size_t>(to - from);
        const auto after = f.held.lower_bound(from);
        piece* before = after == f.held.begin() ? nullptr : &std::prev(after)->second;
        if (before != nullptr && before->end == from &&
            before->bytes.empty() == (bytes == nullptr)) {
            before->bytes.insert(before->bytes.end(), bytes, bytes + count);
            before->end = to;
            f.heldCost += count;
        } else {
            const auto added = f.held.emplace_hint(after, from, piece{to, {}});
            added->second.bytes.assign(bytes, bytes + count);
            f.heldCost += costOf(added->second);
        }
        while (f.heldCost > kHoldLimit) {
            flushTo(c, way, f.held.begin()->first);
        }
    }

    /** Every byte before `limit` goes out: held pieces as they are, holes as gaps. */
    void flushTo(connection& c, direction way, uint64_t limit)
    {
        flow& f = c.ways[indexOf(way)];
        while (f.next < limit && !f.ended) {
            const uint64_t hole = f.held.empty() ? limit : std::min(limit, f.held.begin()->first);
            if (hole > f.next) {
                emit(c, way, f.next, hole - f.next, nullptr);
                f.next = hole;
            }
            settle(c, way);
        }
    }

    /** Sends the held pieces that now follow on, and ends the direction at its FIN. */
    void settle(connection& c, direction way)
    {
        flow& f = c.ways[indexOf(way)];
        while (!f.held.empty() && f.held.begin()->first == f.next) {
            const auto first = f.held.begin();
            const piece& held = first->second;
            emit(c, way, f.next, held.end - f.next,
                 held.bytes.empty() ? nullptr : held.bytes.data());
            f.next = held.end;
            f.heldCost -= costOf(held);
            f.held.erase(first);
        }
        if (f.next >= f.finAt && !f.ended) {
            end(c, way, streamEnd::fin);
        }
    }

    /** The direction's FIN at `offset`: the stream's length. The first FIN counts; held bytes
     *  past it are dropped. */
    void finSeen(connection& c, direction way, int64_t offset)
    {
        flow& f = c.ways[indexOf(way)];
        if (f.finAt != kNoFin) {
            return;
        }
        f.finAt = static_cast<uint64_t>(std::max<int64_t>(offset, 0));
        const auto beyond = f.held.lower_bound(f.finAt);
        for (auto dropped = beyond; dropped != f.held.end(); ++dropped) {
            f.heldCost -= costOf(dropped->second);
        }
        f.held.erase(beyond, f.held.end());
        if (!f.held.empty() && f.held.rbegin()->second.end > f.finAt) {
            piece& lastPiece = f.held.rbegin()->second;
            if (!lastPiece.bytes.empty()) {
                f.heldCost -= lastPiece.end - f.finAt;
                lastPiece.bytes.resize(lastPiece.bytes.size() - (lastPiece.end - f.finAt));
            }
            lastPiece.end = f.finAt;
        }
        settle(c, way);
    }

    /** Ends a direction that is still open: the holes before its held pieces, or before its
     *  FIN, become gaps; with its FIN seen it ends with fin, else as `how` says. */
    void closeDirection(connection& c, direction way, streamEnd how)
    {
        flow& f = c.ways[indexOf(way)];
        if (f.ended) {
            return;
        }
        const uint64_t limit = f.finAt != kNoFin ? f.finAt
                               : f.held.empty()  ? f.next
                                                 : f.held.rbegin()->second.end;
        flushTo(c, way, limit);
        if (!f.ended) {
            end(c, way, how);
        }
    }

    void end(connection& c, direction way, streamEnd how)
    {
        flow& f = c.ways[indexOf(way)];
        f.ended = true;
        f.held.clear();
        f.heldCost = 0;
        sink.ended(c.id, way, how, at);
    }

    /** Stream bytes in order to the sink: data, or a gap when there are none. */
    void emit(const connection& c, direction way, uint64_t offset, uint64_t count,
              const unsigned char* bytes)
    {
        if (bytes == nullptr) {
            sink.gap(c.id, way, offset, count, at);
        } else {
            sink.data(c.id, way, offset, bytes, static_cast<size_t>(count), at);
        }
    }

    const int link;
    const uint16_t port;
    streamSink& sink;
    frameInfo at;
    unsigned lastId = 0;
    std::unordered_map<tupleKey, connection, tupleHash> tuples;
    tupleKey lastKey{};
    connection* last = nullptr; ///< the connection on lastKey (entries never move)
};

} // namespace

captureSummary readCapture(const std::string& path, uint16_t port, streamSink& sink)
{
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        throw failure("cannot read the capture " + path + ": " + errnoText());
    }
    return readCapture(file, path, port, sink);
}

captureSummary readCapture(std::FILE* file, const std::string& name, uint16_t port,
                           streamSink& sink)
{
    char why[PCAP_ERRBUF_SIZE] = {};
    pcap_t* const opened = pcap_fopen_offline(file, why);
    if (opened == nullptr) {
        (void)std::fclose(file); // libpcap closes it only once it took it
        throw failure("cannot read the capture " + name + ": " + why);
    }
    const std::unique_ptr<pcap_t, decltype(&pcap_close)> capture(opened, &pcap_close);
    const int link = pcap_datalink(opened);
    if (!supportedLink(link)) {
        const char* linkName = pcap_datalink_val_to_name(link);
        const std::string named = linkName == nullptr ? "" : " (" + std::string(linkName) + ")";
        throw failure("the capture " + name + " has link type " + std::to_string(link) + named +
                      ", which is not supported");
    }
    reader frames(link, port, sink);
    pcap_pkthdr* header = nullptr;
    const unsigned char* bytes = nullptr;
    int status = 0;
    while ((status = pcap_next_ex(opened, &header, &bytes)) == 1) {
        frames.frame(*header, bytes);
    }
    if (status == PCAP_ERROR) {
        const std::string frame = std::to_string(frames.summary.frames + 1);
        frames.summary.truncated =
            std::feof(pcap_file(opened)) != 0
                ? "the file ends in the middle of frame " + frame
                : "frame " + frame + " cannot be read: " + pcap_geterr(opened);
    }
    frames.finish();
    return frames.summary;
}

} // namespace vxcli::capture
