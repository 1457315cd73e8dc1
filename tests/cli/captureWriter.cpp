// Capture files for tests: frames through libpcap's dump or a small pcapng writer, and TCP
// segments built byte by byte.
#include "captureWriter.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace vxclitest {

namespace {

constexpr unsigned kIpv4Type = 0x0800;
constexpr unsigned kIpv6Type = 0x86DD;

void putBe16(byteVector& out, unsigned value)
{
    out.push_back(static_cast<unsigned char>((value >> 8U) & 0xFFU));
    out.push_back(static_cast<unsigned char>(value & 0xFFU));
}

void putBe32(byteVector& out, uint32_t value)
{
    putBe16(out, value >> 16U);
    putBe16(out, value & 0xFFFFU);
}

void putLe16(byteVector& out, unsigned value)
{
    out.push_back(static_cast<unsigned char>(value & 0xFFU));
    out.push_back(static_cast<unsigned char>((value >> 8U) & 0xFFU));
}

void putLe32(byteVector& out, uint32_t value)
{
    putLe16(out, value & 0xFFFFU);
    putLe16(out, value >> 16U);
}

/** A pcapng block: type, total length, body padded to 4 bytes, total length again. */
byteVector block(uint32_t type, const byteVector& body)
{
    const size_t padded = (body.size() + 3) / 4 * 4;
    const auto total = static_cast<uint32_t>(12 + padded);
    byteVector out;
    putLe32(out, type);
    putLe32(out, total);
    out.insert(out.end(), body.begin(), body.end());
    out.resize(8 + padded, 0);
    putLe32(out, total);
    return out;
}

/** The link type number a file records for `linkType`: libpcap's DLT_RAW is LINKTYPE_RAW. */
uint32_t fileLinkType(int linkType)
{
    return linkType == DLT_RAW ? 101 : static_cast<uint32_t>(linkType);
}

/** The header in front of an IP packet of `version` on the link. */
byteVector linkHeader(const captureFormat& format, unsigned version)
{
    const unsigned type = version == 4 ? kIpv4Type : kIpv6Type;
    const byteVector mac{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    byteVector header;
    switch (format.linkType) {
    case DLT_EN10MB:
        header.assign(12, 0x02);
        for (unsigned tag = 0; tag < format.vlanTags; ++tag) {
            putBe16(header, tag == 0 && format.vlanTags > 1 ? 0x88A8 : 0x8100);
            putBe16(header, 100 + tag);
        }
        putBe16(header, type);
        break;
    case DLT_LINUX_SLL:
        putBe16(header, 0); // sent to this host
        putBe16(header, 1); // ARPHRD_ETHER
        putBe16(header, 6);
        header.insert(header.end(), mac.begin(), mac.end());
        header.resize(14, 0);
        putBe16(header, type);
        break;
    case DLT_LINUX_SLL2:
        putBe16(header, type);
        putBe16(header, 0);
        putBe32(header, 2); // interface index
        putBe16(header, 1); // ARPHRD_ETHER
        header.push_back(0);
        header.push_back(6);
        header.insert(header.end(), mac.begin(), mac.end());
        header.resize(20, 0);
        break;
    case DLT_NULL: // as macOS writes it: little-endian, AF_INET6 30
        putLe32(header, version == 4 ? 2 : 30);
        break;
    case DLT_LOOP: // as OpenBSD writes it: network order, AF_INET6 24
        putBe32(header, version == 4 ? 2 : 24);
        break;
    default:
        break;
    }
    return header;
}

vxcli::capture::peerAddress peerOf(const endpoint& end)
{
    vxcli::capture::peerAddress peer;
    peer.family = end.address.find(':') == std::string::npos ? AF_INET : AF_INET6;
    peer.port = end.port;
    if (inet_pton(peer.family, end.address.c_str(), peer.address) != 1) {
        throw std::invalid_argument("not an IP address: " + end.address);
    }
    return peer;
}

size_t indexOf(direction way)
{
    return static_cast<size_t>(way);
}

direction opposite(direction way)
{
    return way == direction::toServer ? direction::toClient : direction::toServer;
}

} // namespace

captureWriter::captureWriter(const std::string& path, const captureFormat& format) : how(format)
{
    if (how.pcapng) {
        ng.open(path, std::ios::binary | std::ios::trunc);
        byteVector header;
        putLe32(header, 0x1A2B3C4D);
        putLe16(header, 1);
        putLe16(header, 0);
        header.insert(header.end(), 8, 0xFF); // section length unknown
        byteVector interface;
        putLe16(interface, fileLinkType(how.linkType));
        putLe16(interface, 0);
        putLe32(interface, how.snapLength);
        for (const byteVector& written : {block(0x0A0D0D0A, header), block(1, interface)}) {
            ng.write(reinterpret_cast<const char*>(written.data()),
                     static_cast<std::streamsize>(written.size()));
        }
        if (!ng) {
            throw std::runtime_error("cannot write " + path);
        }
        return;
    }
    dead = pcap_open_dead_with_tstamp_precision(how.linkType, static_cast<int>(how.snapLength),
                                                how.nanoseconds ? PCAP_TSTAMP_PRECISION_NANO
                                                                : PCAP_TSTAMP_PRECISION_MICRO);
    dumper = dead == nullptr ? nullptr : pcap_dump_open(dead, path.c_str());
    if (dumper == nullptr) {
        throw std::runtime_error("cannot write " + path);
    }
}

captureWriter::~captureWriter()
{
    close();
}

uint64_t captureWriter::writeFrame(const byteVector& frame)
{
    ++frames;
    const int64_t micros = kFirstFrameTime + static_cast<int64_t>(frames - 1) * kFrameStep;
    const auto captured = static_cast<uint32_t>(std::min<size_t>(frame.size(), how.snapLength));
    const auto length = static_cast<uint32_t>(frame.size());
    if (how.pcapng) {
        byteVector body;
        putLe32(body, 0); // interface
        putLe32(body, static_cast<uint32_t>(static_cast<uint64_t>(micros) >> 32U));
        putLe32(body, static_cast<uint32_t>(static_cast<uint64_t>(micros) & 0xFFFFFFFFU));
        putLe32(body, captured);
        putLe32(body, length);
        body.insert(body.end(), frame.begin(), frame.begin() + captured);
        const byteVector written = block(6, body);
        ng.write(reinterpret_cast<const char*>(written.data()),
                 static_cast<std::streamsize>(written.size()));
        return frames;
    }
    pcap_pkthdr header{};
    header.ts.tv_sec = static_cast<time_t>(micros / 1000000);
    header.ts.tv_usec = static_cast<suseconds_t>(micros % 1000000 * (how.nanoseconds ? 1000 : 1));
    header.caplen = captured;
    header.len = length;
    pcap_dump(reinterpret_cast<unsigned char*>(dumper), &header, frame.data());
    return frames;
}

uint64_t captureWriter::writePacket(const byteVector& packet)
{
    byteVector frame = linkHeader(how, packet.empty() ? 4 : packet[0] >> 4U);
    frame.insert(frame.end(), packet.begin(), packet.end());
    if (how.linkType == DLT_EN10MB && frame.size() < 60) {
        frame.resize(60, 0); // the padding of a short Ethernet frame, as a receiver captures it
    }
    return writeFrame(frame);
}

uint64_t captureWriter::size()
{
    if (how.pcapng) {
        ng.flush();
        return static_cast<uint64_t>(ng.tellp());
    }
    (void)pcap_dump_flush(dumper);
    return static_cast<uint64_t>(pcap_dump_ftell64(dumper));
}

void captureWriter::close()
{
    if (dumper != nullptr) {
        pcap_dump_close(dumper);
        dumper = nullptr;
    }
    if (dead != nullptr) {
        pcap_close(dead);
        dead = nullptr;
    }
    if (ng.is_open()) {
        ng.close();
    }
}

tcpFlow::tcpFlow(captureWriter& output, flowSetup setup)
    : out(output), client(peerOf(setup.client)), server(peerOf(setup.server)),
      extras(setup.ipExtras)
{
    sides[indexOf(direction::toServer)].isn = setup.clientIsn;
    sides[indexOf(direction::toClient)].isn = setup.serverIsn;
}

uint64_t tcpFlow::syn(std::string_view data)
{
    side& own = sides[indexOf(direction::toServer)];
    own.written = std::max<uint64_t>(own.written, data.size());
    return write(direction::toServer, own.isn, 0, tcpFlags::syn, data);
}

uint64_t tcpFlow::synAck()
{
    return write(direction::toClient, sides[indexOf(direction::toClient)].isn,
                 ackFrom(direction::toClient), tcpFlags::syn | tcpFlags::ack, {});
}

uint64_t tcpFlow::handshake()
{
    const uint64_t first = syn();
    (void)synAck();
    (void)send(direction::toServer, 0, {}, tcpFlags::ack);
    return first;
}

uint64_t tcpFlow::send(direction way, uint64_t offset, std::string_view bytes, uint8_t flags)
{
    side& own = sides[indexOf(way)];
    own.written = std::max<uint64_t>(own.written, offset + bytes.size());
    own.finWritten = own.finWritten || (flags & tcpFlags::fin) != 0;
    return write(way, seqOf(way, offset), ackFrom(way), flags, bytes);
}

std::vector<uint64_t> tcpFlow::sendAll(direction way, std::string_view bytes, size_t segmentSize,
                                       uint64_t offset)
{
    std::vector<uint64_t> numbers;
    for (size_t at = 0; at < bytes.size(); at += segmentSize) {
        numbers.push_back(send(way, offset + at, bytes.substr(at, segmentSize)));
    }
    return numbers;
}

uint64_t tcpFlow::ack(direction way, uint64_t acked)
{
    const side& own = sides[indexOf(way)];
    return write(way, seqOf(way, own.written + (own.finWritten ? 1 : 0)),
                 seqOf(opposite(way), acked), tcpFlags::ack, {});
}

uint64_t tcpFlow::fin(direction way)
{
    return send(way, sides[indexOf(way)].written, {}, tcpFlags::fin | tcpFlags::ack);
}

uint64_t tcpFlow::rst(direction way)
{
    const side& own = sides[indexOf(way)];
    return write(way, seqOf(way, own.written + (own.finWritten ? 1 : 0)), ackFrom(way),
                 tcpFlags::rst | tcpFlags::ack, {});
}

void tcpFlow::pinAck(direction way, uint64_t acked)
{
    side& own = sides[indexOf(way)];
    own.pinned = true;
    own.pinnedAck = acked;
}

void tcpFlow::unpinAck(direction way)
{
    sides[indexOf(way)].pinned = false;
}

uint32_t tcpFlow::seqOf(direction way, uint64_t offset) const
{
    return static_cast<uint32_t>(sides[indexOf(way)].isn + 1U + offset);
}

uint32_t tcpFlow::ackFrom(direction way) const
{
    const side& own = sides[indexOf(way)];
    const side& other = sides[indexOf(opposite(way))];
    return seqOf(opposite(way),
                 own.pinned ? own.pinnedAck : other.written + (other.finWritten ? 1 : 0));
}

byteVector tcpFlow::packet(direction way, uint32_t seq, uint32_t ackNumber, uint8_t flags,
                           std::string_view bytes) const
{
    const vxcli::capture::peerAddress& from = way == direction::toServer ? client : server;
    const vxcli::capture::peerAddress& to = way == direction::toServer ? server : client;
    byteVector tcp;
    putBe16(tcp, from.port);
    putBe16(tcp, to.port);
    putBe32(tcp, seq);
    putBe32(tcp, ackNumber);
    tcp.push_back(5U << 4U); // 20 bytes, no options
    tcp.push_back(flags);
    putBe16(tcp, 65535); // window
    putBe32(tcp, 0);     // checksum, urgent pointer
    tcp.insert(tcp.end(), bytes.begin(), bytes.end());

    byteVector ip;
    if (from.family == AF_INET) {
        const size_t header = extras ? 24 : 20;
        ip.push_back(static_cast<unsigned char>(0x40U | header / 4));
        ip.push_back(0);
        putBe16(ip, static_cast<unsigned>(header + tcp.size()));
        putBe32(ip, 0x4000); // identification 0, don't fragment
        ip.push_back(64);    // time to live
        ip.push_back(6);     // TCP
        putBe16(ip, 0);      // checksum
        ip.insert(ip.end(), from.address, from.address + 4);
        ip.insert(ip.end(), to.address, to.address + 4);
        if (extras) {
            ip.insert(ip.end(), {0x01, 0x01, 0x01, 0x00}); // no-operations, end of options
        }
    } else {
        // Hop-by-hop and destination options headers, each 8 bytes of padding (PadN).
        const byteVector options{0, 0, 0x01, 0x04, 0, 0, 0, 0};
        ip.push_back(0x60);
        ip.insert(ip.end(), {0, 0, 0});
        putBe16(ip, static_cast<unsigned>(tcp.size() + (extras ? 2 * options.size() : 0)));
        ip.push_back(extras ? 0 : 6);
        ip.push_back(64); // hop limit
        ip.insert(ip.end(), from.address, from.address + 16);
        ip.insert(ip.end(), to.address, to.address + 16);
        if (extras) {
            for (const unsigned char next : {60, 6}) {
                ip.insert(ip.end(), options.begin(), options.end());
                ip[ip.size() - options.size()] = next;
            }
        }
    }
    ip.insert(ip.end(), tcp.begin(), tcp.end());
    return ip;
}

uint64_t tcpFlow::write(direction way, uint32_t seq, uint32_t ackNumber, uint8_t flags,
                        std::string_view bytes)
{
    return out.writePacket(packet(way, seq, ackNumber, flags, bytes));
}

} // namespace vxclitest
