// veltrix decode: reads a packet capture of encrypted connections and, given the pre-shared
// secret, shows everything that happened on them.
//
// With the secret a capture holds everything both ends knew. The handshake's messages are
// encrypted under keys derived from the secret alone; its two challenges key the session; from
// then on each direction advances in lock-step from packet to packet. The decoder therefore plays
// both receiving ends at once, built from the library's own objects: for each direction an
// encrypted socket opened as the end that receives it, keyed by that end's handshake object from
// the captured messages, reads every header through the library (fed through a local socket
// pair, as the relay feeds it) and checks every body as the receive path does. The first packet
// that does not verify stops its direction, as it would stop the receiving end; a hole in the
// capture stops it too, reported as a hole.
//
// Output, one line per event, times of day in UTC:
//   18:49:50.102000 conn 1 client>server #3 frame 12: payload 1200 bytes
// and a summary per connection once both its directions ended.
#include "capture.h"
#include "commands.h"
#include "handshake.h"
#include "relay.h"
#include "stream.h"
#include "subcommand.h"
#include "vxNetAuth.h"

#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vxcli {

using namespace veltrix;
using capture::direction;
using capture::frameInfo;
using capture::streamEnd;

namespace {

struct decodeOptions
{
    std::string capture;
    std::vector<std::string> pskFiles;
    std::string cipher; ///< empty: try each
    std::string hash;   ///< empty: try both handshake hashes
    std::string payloads;
    bool stream = false;
    uint16_t port = 0;
};

/** The handshake's messages are 16 bytes: the server sends the version, its challenge and its
 *  answer; the client its answer and its challenge. */
constexpr size_t kMessage = 16;
constexpr size_t kServerHandshake = 3 * kMessage;
constexpr size_t kClientHandshake = 2 * kMessage;
/** What a direction may send before the handshake is decided: the ends send nothing else until
 *  they have it, so more means the connection is not one of ours. */
constexpr size_t kHandshakeLimit = 4096;
/** The command code of the disconnect command, which the receiver reads from the codes 1 to
 *  16 alike (it rounds the hidden value up to 16 and subtracts 15). */
constexpr uint32_t kDisconnect = 1;
constexpr uint32_t kReExchange = 2;
constexpr uint32_t kCodesReadAsDisconnect = 16;

const char* sideName(direction way)
{
    return way == direction::toServer ? "client" : "server";
}

const char* wayName(direction way)
{
    return way == direction::toServer ? "client>server" : "server>client";
}

/** The UTC time of day, "18:49:50.102000"; with `date`, the day alone, "2026-11-25". */
std::string timeText(int64_t microseconds, bool date = false)
{
    const auto seconds = static_cast<std::time_t>(microseconds / 1000000);
    std::tm parts{};
    (void)gmtime_r(&seconds, &parts);
    char text[48];
    const size_t length = std::strftime(text, sizeof text, date ? "%F" : "%T", &parts);
    if (!date) {
        (void)std::snprintf(text + length, sizeof text - length, ".%06lld",
                            static_cast<long long>(microseconds % 1000000));
    }
    return text;
}

/** The way a handshake may have been made: a secret, a cipher and a hash. */
struct candidate
{
    const std::string* secretPath;
    const vxBytes* secret;
    std::string cipher;
    std::string hash;
};

/** One receiving end: the library's end of a socket pair as its plain socket, the encrypted
 *  socket opened as that end, and the handshake object of that end. */
class receivingEnd
{
public:
    receivingEnd() : pipe(libraryFd) {}

    LVX_NOT_COPYABLE(receivingEnd);

    ~receivingEnd()
    {
        if (!handedOver) {
            (void)::close(libraryFd);
        }
    }

    /** Opens the three as the server's or the client's end, with the handshake's secret. */
    void open(cliFrame& frame, bool server, const candidate& way)
    {
        frame.open(socket, "cannot set up the decoder", server);
        socket.sockFd = libraryFd;
        handedOver = true;
        frame.open(channel, "cannot open the decoder's encrypted socket", way.cipher, way.hash,
                   &socket);
        frame.open(handshake, "cannot open the decoder's handshake", channel.cipherId,
                   channel.hashId, server);
        require(handshake.SetSecret(*way.secret), "cannot take the secret");
    }

    /** Hands `count` bytes to the plain socket, for the library's next receive. */
    void feed(const unsigned char* bytes, size_t count) const { pipe.feed(bytes, count); }

    int libraryFd = -1;
    bool handedOver = false; ///< the plain socket owns the library's end
    packetPipe pipe;
    vxNetSocket socket;
    vxNetEncryptedSocket channel;
    vxNetPSKChallengeResponse handshake;

private:
    // Closed in the reverse order: the handshake and the encrypted socket before the plain socket
    // they use, which closes the library's end of the pair.
    closeOnExit socketOpen{socket};
    closeOnExit channelOpen{channel};
    closeOnExit handshakeOpen{handshake};
};

/** Where a direction is. */
enum class lanePhase : unsigned char
{
    handshake, ///< collecting its handshake messages
    header,    ///< collecting the next packet's 48-byte header
    body,      ///< collecting the body the header announced
    stopped    ///< nothing more is decoded: a failure, a hole, or the disconnect command
};

/** One direction of a connection. */
struct lane
{
    lanePhase phase = lanePhase::handshake;
    std::vector<unsigned char> pending; ///< the bytes of the unit being collected
    size_t need = 0;                    ///< its size
    uint64_t packets = 0;
    uint64_t payloadBytes = 0;
    uint64_t dataBytes = 0; ///< what the stream protocol's cells carried
    uint64_t ignored = 0;   ///< bytes after decoding stopped
    bool disconnected = false;
    std::string failure; ///< why decoding stopped; empty when it did not fail
    std::string ending;  ///< how the direction ended, for the summary
    bool ended = false;
    stream::receiver cells;
    vxBytes wire;    ///< the body as it came
    vxBytes plain;   ///< the body deciphered
    vxBytes magic;   ///< the chain key the body's digest is checked with
    vxBytes payload; ///< the payload alone
    std::ofstream out;
};

/** One connection of the capture. */
struct connection
{
    unsigned id = 0;
    capture::peerAddress client;
    capture::peerAddress server;
    int64_t startTime = 0;
    int64_t lastTime = 0;
    bool keyed = false;
    bool undecodable = false;
    lane lanes[2];
    std::unique_ptr<receivingEnd> atServer; ///< receives what the client sends
    std::unique_ptr<receivingEnd> atClient; ///< receives what the server sends

    lane& of(direction way) { return lanes[static_cast<int>(way)]; }

    receivingEnd& receiverOf(direction way)
    {
        return way == direction::toServer ? *atServer : *atClient;
    }
};

/** Plays the receiving ends of every connection the capture reader reports. */
class decoder : public capture::streamSink
{
public:
    decoder(cliFrame& owner, const decodeOptions& chosen, std::vector<std::string> paths,
            std::vector<vxBytes> secretList)
        : frame(owner), options(chosen), secretPaths(std::move(paths)),
          secrets(std::move(secretList))
    {
        for (size_t index = 0; index < secrets.size(); ++index) {
            for (const std::string& cipher : kCipherModes) {
                if (!options.cipher.empty() && cipher != options.cipher) {
                    continue;
                }
                for (const std::string& hash : kHandshakeHashModes) {
                    if (options.hash.empty() || hash == options.hash) {
                        ways.push_back({&secretPaths[index], &secrets[index], cipher, hash});
                    }
                }
            }
        }
    }

    void started(unsigned id, const capture::peerAddress& client,
                 const capture::peerAddress& server, const frameInfo& at) override
    {
        auto& entry = connections[id];
        entry = std::make_unique<connection>();
        entry->id = id;
        entry->client = client;
        entry->server = server;
        entry->startTime = at.microseconds;
        entry->lastTime = at.microseconds;
        ++seen;
        line(at.microseconds, *entry)
            << "start on " << timeText(at.microseconds, true) << ": client " << client.text()
            << ", server " << server.text() << " (frame " << at.number << ")\n";
    }

    void data(unsigned id, direction way, uint64_t /*offset*/, const unsigned char* bytes,
              size_t count, const frameInfo& at) override
    {
        connection& conn = *connections.at(id);
        conn.lastTime = at.microseconds;
        if (conn.of(way).phase == lanePhase::handshake) {
            collectHandshake(conn, way, bytes, count, at);
        } else {
            consume(conn, way, bytes, count, at);
        }
    }

    void gap(unsigned id, direction way, uint64_t offset, uint64_t count,
             const frameInfo& at) override
    {
        connection& conn = *connections.at(id);
        lane& from = conn.of(way);
        if (from.phase == lanePhase::stopped) {
            return;
        }
        stop(conn, way, at,
             "the capture lost " + std::to_string(count) + " bytes at offset " +
                 std::to_string(offset) + " of the " + sideName(way) + "'s stream",
             false);
    }

    void ended(unsigned id, direction way, streamEnd how, const frameInfo& at) override
    {
        connection& conn = *connections.at(id);
        conn.lastTime = std::max(conn.lastTime, at.microseconds);
        lane& from = conn.of(way);
        from.ended = true;
        from.ending = how == streamEnd::fin     ? "closed"
                      : how == streamEnd::reset ? "reset"
                                                : "cut off by the capture's end";
        if (conn.lanes[0].ended && conn.lanes[1].ended) {
            finish(conn, at);
        }
    }

    void withoutStart(const capture::peerAddress& first, const capture::peerAddress& second,
                      const frameInfo& at) override
    {
        ++failures;
        ++seen;
        out << timeText(at.microseconds) << " " << first.text() << " > " << second.text()
            << " (frame " << at.number
            << "): the start of this connection is not in the capture; skipped\n";
    }

    /** What the whole capture came to, once it was read; the exit status. */
    int conclude(const capture::captureSummary& summary)
    {
        if (!summary.truncated.empty()) {
            out << "the capture is truncated: " << summary.truncated << "\n";
        }
        if (seen == 0) {
            out << "no TCP connection"
                << (options.port != 0 ? " of port " + std::to_string(options.port) : std::string())
                << " in the capture\n";
            return exitFailure;
        }
        return failures == 0 ? exitOk : exitFailure;
    }

private:
    std::ostream& line(int64_t microseconds, const connection& conn)
    {
        return out << timeText(microseconds) << " conn " << conn.id << " ";
    }

    std::ostream& packetLine(connection& conn, direction way, const frameInfo& at)
    {
        return line(at.microseconds, conn)
               << wayName(way) << " #" << conn.of(way).packets << " frame " << at.number << ": ";
    }

    /** Bytes of a keyed direction: whole headers and bodies go to its receiving end. */
    void consume(connection& conn, direction way, const unsigned char* bytes, size_t count,
                 const frameInfo& at)
    {
        lane& from = conn.of(way);
        while (count > 0 && from.phase != lanePhase::stopped) {
            const size_t take = std::min(count, from.need - from.pending.size());
            from.pending.insert(from.pending.end(), bytes, bytes + take);
            bytes += take;
            count -= take;
            if (from.pending.size() == from.need) {
                completeUnit(conn, way, at);
            }
        }
        from.ignored += count;
    }

    void collectHandshake(connection& conn, direction way, const unsigned char* bytes, size_t count,
                          const frameInfo& at)
    {
        lane& from = conn.of(way);
        if (from.pending.size() + count > kHandshakeLimit) {
            undecodable(conn, at,
                        "the " + std::string(sideName(way)) +
                            " sent more than a handshake before it finished");
            return;
        }
        from.pending.insert(from.pending.end(), bytes, bytes + count);
        if (conn.of(direction::toClient).pending.size() >= kServerHandshake &&
            conn.of(direction::toServer).pending.size() >= kClientHandshake) {
            decideHandshake(conn, at);
        }
    }

    /** Both ends' handshake messages are in: finds the secret, cipher and hash they verify
     *  with, keys both receiving ends, and decodes what each direction sent after them. */
    void decideHandshake(connection& conn, const frameInfo& at)
    {
        std::vector<unsigned char> serverBytes = std::move(conn.of(direction::toClient).pending);
        std::vector<unsigned char> clientBytes = std::move(conn.of(direction::toServer).pending);
        for (const candidate& way : ways) {
            if (tryKeys(conn, way, serverBytes, clientBytes)) {
                conn.keyed = true;
                line(at.microseconds, conn)
                    << "handshake: version " << conn.atClient->handshake.protocolVersion
                    << ", cipher " << way.cipher << ", hash " << way.hash << ", secret "
                    << *way.secretPath << "; both answers verify\n";
                openPayloads(conn);
                for (direction side : {direction::toServer, direction::toClient}) {
                    lane& from = conn.of(side);
                    from.phase = lanePhase::header;
                    from.need = VX_HEADER_WIRE_SIZE;
                    from.pending.clear();
                }
                consume(conn, direction::toClient, serverBytes.data() + kServerHandshake,
                        serverBytes.size() - kServerHandshake, at);
                consume(conn, direction::toServer, clientBytes.data() + kClientHandshake,
                        clientBytes.size() - kClientHandshake, at);
                return;
            }
        }
        undecodable(conn, at,
                    "the handshake does not verify with any secret, cipher and hash tried: the "
                    "secret, cipher or hash differs from the ends'" +
                        foreign(serverBytes, clientBytes));
    }

    /** Runs both ends' receiving halves of the handshake with `way` over what each side sent:
     *  the client's answer must be the keyed digest of the server's challenge, and the server's
     *  answer, when it is there, that of the client's. With the whole handshake both receiving
     *  ends of `conn` are keyed; with its first part (the server's version and challenge, the
     *  client's answer) only the client's answer is checked. */
    bool tryKeys(connection& conn, const candidate& way, const std::vector<unsigned char>& server,
                 const std::vector<unsigned char>& client)
    {
        const bool whole = server.size() >= kServerHandshake && client.size() >= kClientHandshake;
        auto atServer = std::make_unique<receivingEnd>();
        auto atClient = std::make_unique<receivingEnd>();
        atServer->open(frame, true, way);
        atClient->open(frame, false, way);
        vxNetPSKChallengeResponse& serverEnd = atServer->handshake;
        vxNetPSKChallengeResponse& clientEnd = atClient->handshake;
        // What the client receives: the version, the server's challenge and the server's answer;
        // what the server receives: the client's answer and the client's challenge.
        atClient->feed(server.data(), whole ? kServerHandshake : 2 * kMessage);
        atServer->feed(client.data(), whole ? kClientHandshake : kMessage);
        bool verified = clientEnd.RecvProtocolVersion(atClient->socket) &&
                        clientEnd.RecvChallengeRequest(atClient->socket) &&
                        serverEnd.RecvChallengeResponse(atServer->socket) &&
                        clientEnd.GenerateChallengeResponse() &&
                        clientEnd.workBytes.bytes == serverEnd.decrypted.bytes;
        if (verified && whole) {
            verified = clientEnd.RecvChallengeResponse(atClient->socket) &&
                       serverEnd.RecvChallengeRequest(atServer->socket) &&
                       serverEnd.GenerateChallengeResponse() &&
                       serverEnd.workBytes.bytes == clientEnd.decrypted.bytes;
        }
        if (!verified || !whole) {
            vxBase::lvxClearLastError();
            return verified;
        }
        // Each end's own challenge joins its pools, as sending it did.
        require(serverEnd.UpdateEntropyPool(false, clientEnd.receivedChallenge) &&
                    clientEnd.UpdateEntropyPool(false, serverEnd.receivedChallenge) &&
                    serverEnd.SeedInitialKeys(atServer->channel) &&
                    clientEnd.SeedInitialKeys(atClient->channel),
                "cannot key the decoder");
        conn.atServer = std::move(atServer);
        conn.atClient = std::move(atClient);
        return true;
    }

    /** Why a handshake that did not finish stopped, from what each side sent of it. */
    std::string unfinished(connection& conn)
    {
        const std::vector<unsigned char>& server = conn.of(direction::toClient).pending;
        const std::vector<unsigned char>& client = conn.of(direction::toServer).pending;
        const std::string sent = "the server sent " + std::to_string(server.size()) + " of its " +
                                 std::to_string(kServerHandshake) + " bytes, the client " +
                                 std::to_string(client.size()) + " of its " +
                                 std::to_string(kClientHandshake);
        if (server.size() < 2 * kMessage || client.size() < kMessage) {
            return "the handshake did not finish: " + sent + foreign(server, client);
        }
        for (const candidate& way : ways) {
            if (tryKeys(conn, way, server, client)) {
                return "the handshake did not finish: " + sent +
                       "; the client's answer verifies with cipher " + way.cipher + ", hash " +
                       way.hash + ", secret " + *way.secretPath;
            }
        }
        return "the handshake failed: " + sent +
               "; the client's answer does not verify with any secret, cipher and hash tried: the "
               "client's secret, cipher or hash differs from the server's, or from the ones tried" +
               foreign(server, client);
    }

    /** "; the client sent plain text ..." when either side's first bytes show that it speaks
     *  another protocol. */
    static std::string foreign(const std::vector<unsigned char>& server,
                               const std::vector<unsigned char>& client)
    {
        for (const auto& [name, bytes] :
             {std::pair<const char*, const std::vector<unsigned char>*>{"client", &client},
              {"server", &server}}) {
            const std::string other = foreignProtocol(bytes->data(), bytes->size());
            if (!other.empty()) {
                return std::string("; the ") + name + " is no veltrix end: " + other;
            }
        }
        return "";
    }

    void openPayloads(connection& conn)
    {
        if (options.payloads.empty()) {
            return;
        }
        for (direction way : {direction::toServer, direction::toClient}) {
            const std::string path =
                options.payloads + "/" + std::to_string(conn.id) + "." + sideName(way);
            std::ofstream& file = conn.of(way).out;
            file.open(path, std::ios::binary | std::ios::trunc);
            if (!file) {
                throw failure("cannot write " + path + ": " + errnoText());
            }
        }
    }

    /** A whole header or body has arrived. */
    void completeUnit(connection& conn, direction way, const frameInfo& at)
    {
        lane& from = conn.of(way);
        receivingEnd& end = conn.receiverOf(way);
        vxNetTransportHeader& header = end.channel.header;
        if (from.phase == lanePhase::header) {
            ++from.packets;
            end.feed(from.pending.data(), from.pending.size());
            from.pending.clear();
            header.Clear();
            if (!header.ReadFromWire(end.channel.keys, &end.socket)) {
                stop(conn, way, at, digestFailure("header", at), true);
                return;
            }
            const uint32_t padded = header.sizeWithPadding;
            if (stream::isCommand(padded)) {
                command(conn, way, at);
                return;
            }
            if (!bodySizeTaken(conn, way, at)) {
                return;
            }
            from.phase = lanePhase::body;
            from.need = padded;
            return;
        }
        from.wire.bytes.swap(from.pending);
        from.pending.clear();
        from.phase = lanePhase::header;
        from.need = VX_HEADER_WIRE_SIZE;
        from.plain.bytes.clear();
        from.magic.bytes.clear();
        if (!end.channel.keys.Decrypt(from.wire, from.plain) ||
            !end.channel.keys.chain.GetMagic(from.magic) ||
            !header.ValidateHmacBody(from.magic, from.plain)) {
            stop(conn, way, at, digestFailure("body", at), true);
            return;
        }
        from.payload.bytes.assign(from.plain.bytes.begin(),
                                  from.plain.bytes.begin() + header.payloadSize);
        from.payloadBytes += header.payloadSize;
        deliver(conn, way, at);
    }

    /** The size a data header announced, checked as the receiving end checks it. */
    bool bodySizeTaken(connection& conn, direction way, const frameInfo& at)
    {
        const uint32_t padded = conn.receiverOf(way).channel.header.sizeWithPadding;
        if (padded == 0) {
            stop(conn, way, at, "an empty payload, which the receiving end refuses (\"size >= 1\")",
                 true);
            return false;
        }
        if (padded > VX_MAX_PACKET_SIZE) {
            stop(conn, way, at,
                 "a payload of " + std::to_string(conn.receiverOf(way).channel.header.payloadSize) +
                     " bytes, more than the receiving end takes (" +
                     std::to_string(VX_MAX_PACKET_SIZE) + ")",
                 true);
            return false;
        }
        if (options.stream) {
            try {
                conn.of(way).cells.checkSize(padded);
            } catch (const failure& broken) {
                stop(conn, way, at, broken.what(), true);
                return false;
            }
        }
        return true;
    }

    void deliver(connection& conn, direction way, const frameInfo& at)
    {
        lane& from = conn.of(way);
        const std::vector<unsigned char>& payload = from.payload.bytes;
        if (!options.stream) {
            packetLine(conn, way, at) << "payload " << payload.size() << " bytes\n";
            write(from, payload.data(), payload.size());
            return;
        }
        size_t count = 0;
        try {
            count = from.cells.take(payload);
        } catch (const failure& broken) {
            stop(conn, way, at, broken.what(), true);
            return;
        }
        packetLine(conn, way, at) << "payload " << payload.size() << " bytes, "
                                  << (from.cells.ended()
                                          ? std::string("end cell")
                                          : "data cell of " + std::to_string(count) + " bytes")
                                  << "\n";
        from.dataBytes += count;
        write(from, payload.data() + stream::kCellHeader, count);
    }

    static void write(lane& from, const unsigned char* bytes, size_t count)
    {
        if (from.out.is_open() && !from.out.write(reinterpret_cast<const char*>(bytes),
                                                  static_cast<std::streamsize>(count))) {
            throw failure("cannot write a payload file: " + errnoText());
        }
    }

    /** A command header: what the sender sent, and what the receiving end makes of it. */
    void command(connection& conn, direction way, const frameInfo& at)
    {
        const vxNetTransportHeader& header = conn.receiverOf(way).channel.header;
        const uint32_t code = header.payloadSize & 0xFFFFU;
        std::ostream& text = packetLine(conn, way, at) << "command " << code;
        if (code == kDisconnect) {
            text << " (disconnect)\n";
        } else if (code == kReExchange) {
            text << " (key re-exchange request, which the receiving end takes for a disconnect)\n";
        } else {
            text << "\n";
        }
        lane& from = conn.of(way);
        if (code == 0 || code > kCodesReadAsDisconnect) {
            stop(conn, way, at,
                 "command " + std::to_string(code) +
                     " is unknown to the receiving end, which ends the connection",
                 true);
            return;
        }
        // The receiving end stops reading at the disconnect command.
        from.disconnected = true;
        from.phase = lanePhase::stopped;
    }

    static std::string digestFailure(const char* part, const frameInfo& at)
    {
        return std::string(part) +
               " digest does not match: the data was altered, lost or reordered at or before "
               "frame " +
               std::to_string(at.number);
    }

    /** Decoding of a direction stops: `packet` when a packet is to blame (its line names it). */
    void stop(connection& conn, direction way, const frameInfo& at, const std::string& why,
              bool packet)
    {
        lane& from = conn.of(way);
        from.phase = lanePhase::stopped;
        from.failure = why;
        ++failures;
        vxBase::lvxClearLastError();
        if (packet) {
            packetLine(conn, way, at) << why << "\n";
        } else {
            line(at.microseconds, conn) << wayName(way) << ": " << why << "\n";
        }
    }

    void undecodable(connection& conn, const frameInfo& at, const std::string& why)
    {
        conn.undecodable = true;
        ++failures;
        vxBase::lvxClearLastError();
        line(at.microseconds, conn) << why << "\n";
        for (lane& each : conn.lanes) {
            each.phase = lanePhase::stopped;
            each.pending.clear();
            each.pending.shrink_to_fit();
        }
    }

    /** Both directions ended: the summary, and the connection's objects go. */
    void finish(connection& conn, const frameInfo& at)
    {
        if (!conn.keyed && !conn.undecodable) {
            undecodable(conn, at, unfinished(conn));
        }
        const double seconds = static_cast<double>(conn.lastTime - conn.startTime) / 1e6;
        char duration[32];
        (void)std::snprintf(duration, sizeof duration, "%.6f", seconds);
        out << "conn " << conn.id << " summary: client " << conn.client.text() << ", server "
            << conn.server.text() << ", " << duration << " s\n";
        for (direction way : {direction::toServer, direction::toClient}) {
            lane& from = conn.of(way);
            out << "  " << wayName(way) << ": " << from.packets << " packets, " << from.payloadBytes
                << " payload bytes"
                << (options.stream ? " (" + std::to_string(from.dataBytes) + " of data)"
                                   : std::string())
                << ", " << laneEnding(from) << "\n";
            if (from.out.is_open()) {
                from.out.close();
                if (!from.out) {
                    throw failure("cannot write a payload file: " + errnoText());
                }
            }
        }
        connections.erase(conn.id);
    }

    static std::string laneEnding(const lane& from)
    {
        std::string ending = from.ending;
        if (from.disconnected) {
            ending = "disconnect command, then " + ending;
        }
        if (!from.failure.empty()) {
            ending += "; decoding stopped: " + from.failure;
        } else if (from.phase == lanePhase::header && !from.pending.empty()) {
            ending += "; the last packet is incomplete (" + std::to_string(from.pending.size()) +
                      " of its 48 header bytes)";
        } else if (from.phase == lanePhase::body) {
            ending += "; the last packet is incomplete (" + std::to_string(from.pending.size()) +
                      " of its " + std::to_string(from.need) + " body bytes)";
        }
        if (from.ignored != 0) {
            ending += "; " + std::to_string(from.ignored) + " bytes after it not decoded";
        }
        return ending;
    }

    cliFrame& frame;
    const decodeOptions& options;
    std::vector<std::string> secretPaths;
    std::vector<vxBytes> secrets;
    std::vector<candidate> ways;
    std::map<unsigned, std::unique_ptr<connection>> connections;
    std::ostream& out = std::cout;
    uint64_t seen = 0;
    uint64_t failures = 0;
};

int runDecode(cliFrame& frame, const decodeOptions& options)
{
    frame.loadPlugin();
    const warningSink warn = [](const std::string& text) {
        std::cerr << "veltrix decode: " << text << "\n";
    };
    std::vector<vxBytes> secrets;
    for (const std::string& path : options.pskFiles) {
        secrets.push_back(readSecret(path, warn));
    }
    if (!options.payloads.empty()) {
        struct stat status
        {
        };

        if (stat(options.payloads.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
            throw failure("the payload directory " + options.payloads + " is not a directory");
        }
    }
    std::ios::sync_with_stdio(false);
    decoder reader(frame, options, options.pskFiles, std::move(secrets));
    const capture::captureSummary summary =
        capture::readCapture(options.capture, options.port, reader);
    const int status = reader.conclude(summary);
    std::cout.flush();
    return status;
}

void declareDecode(CLI::App& command, decodeOptions& options)
{
    command.add_option("capture", options.capture, "the capture file (pcap or pcapng)")
        ->required()
        ->check(CLI::ExistingFile);
    command
        .add_option("--psk-file", options.pskFiles,
                    "file holding the pre-shared secret; repeat it to try several")
        ->required()
        ->allow_extra_args(false);
    const auto rowCheck = [](const char* name) {
        return CLI::Validator(
            [name](const std::string& text) {
                channelOptions scratch{};
                return findRow(channelRows(), name)->apply(text, scratch);
            },
            name == std::string("cipher") ? "CIPHER" : "HASH");
    };
    command.add_option("--cipher", options.cipher, "the ends' cipher; default: try each")
        ->check(rowCheck("cipher"));
    command.add_option("--hash", options.hash, "the ends' handshake hash; default: try both")
        ->check(rowCheck("hash"));
    command.add_option("--payloads", options.payloads,
                       "write each connection N's payloads to DIR/N.client and DIR/N.server");
    command.add_flag("--stream", options.stream,
                     "the connections carry the tunnel's stream protocol (tunnel and cat "
                     "without --raw): show its cells, and write the data they carry");
    command.add_option("--port", options.port, "only the connections of this TCP port")
        ->check(CLI::Range(1, 65535));
}

} // namespace

void addDecodeCommand(CLI::App& program, selection& chosen)
{
    addSubcommand<decodeOptions>(
        program, chosen, "decode",
        "show every packet of the connections in a capture, with the secret", declareDecode,
        nullptr, runDecode);
}

} // namespace vxcli
