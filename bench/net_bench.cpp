// net_bench: the network layer end to end on loopback (throughput, handshakes per second, server
// memory per idle connection), each beside a reference. How it measures: bench/README.md.

#include "benchNet.h"
#include "vxNetAuth.h"
#include "vxNetSocket.h"
#include "vxNetTransport.h"
#include "vxTransportPair.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

using namespace veltrix;
using namespace vxbench;

namespace {

constexpr size_t kPayloadSize = 16384;
constexpr int kRepetitions = 3;
constexpr double kTargetSeconds = 1.5;    // one end-to-end repetition
constexpr double kReferenceSeconds = 0.6; // one in-memory reference, both sides together
constexpr size_t kMinPackets = 200;
constexpr size_t kMaxPackets = 20000;
constexpr size_t kBatch = 8; // 8 packets of 16 KiB fit a socket pair's buffer: no send blocks
constexpr double kThroughputGoal = 0.80;
constexpr double kBusyEnough = 0.90; // below this, a repetition's ends were often off the CPU

constexpr size_t kWarmupHandshakes = 10;
constexpr size_t kHandshakes = 300;

constexpr size_t kIdleConnections = 1000;
constexpr double kMemoryGoal = 64 * 1024;

// The handshake's version message, as the library builds it.
constexpr uint32_t kMessageSize = 16;
constexpr uint32_t kVersionOffsets = 12;
constexpr uint32_t kProtocolVersion = 1;

std::string textOf(const vxBytes& bytes)
{
    return {bytes.bytes.begin(), bytes.bytes.end()};
}

// ---- 1. Throughput -----------------------------------------------------------------------------

/** Two encrypted sockets joined by a socket pair and keyed alike without a handshake. */
class linkedSockets
{
public:
    linkedSockets() = default;
    LVX_NOT_COPYABLE(linkedSockets);

    ~linkedSockets() { (void)close(); }

    bool open(benchFrame& frame)
    {
        int fds[2] = {-1, -1};
        if (!vxbench::socketPair(fds)) {
            return false;
        }
        // Each plain socket owns its descriptor from here on and closes it.
        const bool plainOpened =
            frame.openChild(senderPlain, true) && frame.openChild(receiverPlain, false);
        senderPlain.sockFd = fds[0];
        receiverPlain.sockFd = fds[1];
        if (!plainOpened) {
            return false;
        }
        return frame.openChild(sender, kCipher, kHash, &senderPlain) &&
               frame.openChild(receiver, kCipher, kHash, &receiverPlain) &&
               vxbench::seedAlike(sender.keys, receiver.keys);
    }

    bool close() { return closeAll({&senderPlain, &receiverPlain, &sender, &receiver}); }

    vxNetSocket senderPlain;
    vxNetSocket receiverPlain;
    vxNetEncryptedSocket sender;
    vxNetEncryptedSocket receiver;
};

/** Seconds per packet on each side of the in-memory reference. */
struct packetCost
{
    double send = 0;
    double receive = 0;

    double slower() const { return std::max(send, receive); }
};

/** One batch sent, then received; each side's time added to its total. */
bool timeBatch(linkedSockets& pair, const vxBytes& payload, double& sendTotal, double& recvTotal)
{
    vxBytes got;
    const auto start = steadyClock::now();
    for (size_t i = 0; i < kBatch; ++i) {
        if (!pair.sender.SendEncrypted(payload)) {
            return fail("the in-memory send failed");
        }
    }
    const auto sent = steadyClock::now();
    for (size_t i = 0; i < kBatch; ++i) {
        if (!pair.receiver.RecvEncrypted(got)) {
            return fail("the in-memory receive failed");
        }
    }
    const auto received = steadyClock::now();
    sendTotal += secondsBetween(start, sent);
    recvTotal += secondsBetween(sent, received);
    if (got.bytes != payload.bytes) {
        return fail("the in-memory receive returned other bytes than were sent");
    }
    return true;
}

/** The reference: batches until both sides together took kReferenceSeconds. */
bool measurePacketCost(benchFrame& frame, packetCost& cost)
{
    linkedSockets pair;
    if (!pair.open(frame)) {
        return fail("cannot open the in-memory socket pair");
    }
    const vxBytes payload = asBytes(pattern(kPayloadSize, 1));
    double sendTotal = 0;
    double recvTotal = 0;
    if (!timeBatch(pair, payload, sendTotal, recvTotal)) { // warm-up, not counted
        return false;
    }
    sendTotal = 0;
    recvTotal = 0;
    size_t packets = 0;
    while (sendTotal + recvTotal < kReferenceSeconds) {
        if (!timeBatch(pair, payload, sendTotal, recvTotal)) {
            return false;
        }
        packets += kBatch;
    }
    cost.send = sendTotal / static_cast<double>(packets);
    cost.receive = recvTotal / static_cast<double>(packets);
    return pair.close() || fail("cannot close the in-memory socket pair");
}

/** The server of the throughput test: one connection; after every `packets` payloads a small
 *  acknowledgement carrying the count and the CPU seconds the server used since the last one. */
bool sinkPayloads(vxNetServer& server, size_t packets)
{
    if (!acceptManaged(server)) {
        return false;
    }
    vxNetConnectedClient& peer = *server.connectedClients.back();
    vxBytes message;
    size_t received = 0;
    double cpuAtLastAck = processCpuSeconds();
    for (;;) {
        if (!peer.encryptedSocket.RecvEncrypted(message)) {
            return fail("the server could not receive a payload");
        }
        if (peer.socket.doDisconnect) {
            break;
        }
        if (message.bytes.size() != kPayloadSize) {
            return fail("the server received a payload of the wrong size");
        }
        if (++received == packets) {
            received = 0;
            const double cpu = processCpuSeconds();
            const std::string ack = std::to_string(packets) + " " + fixed(cpu - cpuAtLastAck, 6);
            cpuAtLastAck = cpu;
            if (!peer.encryptedSocket.SendEncrypted(bytesOf(ack))) {
                return fail("the server could not acknowledge");
            }
        }
    }
    (void)server.pruneCClist();
    return server.connectedClients.empty() || fail("the server could not prune the connection");
}

/** One end-to-end repetition: its wall-clock time, and the CPU time each process used in it. */
struct repetitionTimes
{
    double seconds = 0;
    double clientCpu = 0;
    double serverCpu = 0; ///< as the server's acknowledgement reports it
};

/** One end-to-end repetition: `packets` payloads sent until the acknowledgement is back. */
bool timePayloads(vxNetClient& client, size_t packets, repetitionTimes& times)
{
    const vxBytes payload = asBytes(pattern(kPayloadSize, 2));
    vxBytes ack;
    const double cpuAtStart = processCpuSeconds();
    const auto start = steadyClock::now();
    for (size_t i = 0; i < packets; ++i) {
        if (!client.encryptedSocket.SendEncrypted(payload)) {
            return fail("the client could not send a payload");
        }
    }
    if (!client.encryptedSocket.RecvEncrypted(ack)) {
        return fail("the client received no acknowledgement");
    }
    times.seconds = secondsBetween(start, steadyClock::now());
    times.clientCpu = processCpuSeconds() - cpuAtStart;
    std::istringstream fields(textOf(ack));
    size_t counted = 0;
    if (!(fields >> counted >> times.serverCpu) || counted != packets) {
        return fail("the acknowledgement is wrong: " + textOf(ack));
    }
    return true;
}

std::string rateText(double packetsPerSecond)
{
    return fixed(packetsPerSecond, 0) + " pkt/s, " +
           fixed(packetsPerSecond * kPayloadSize / 1e6, 1) + " MB/s";
}

/** Enough packets for about kTargetSeconds at the reference rate. */
size_t packetsFor(const packetCost& cost)
{
    const auto wanted = static_cast<size_t>(kTargetSeconds / cost.slower());
    return std::clamp(wanted, kMinPackets, kMaxPackets);
}

/** One repetition's figures: the in-memory reference measured just before it, and the end-to-end
 *  run. */
struct repetition
{
    packetCost cost;
    repetitionTimes times;
    size_t packets = 0;

    double endToEnd() const { return static_cast<double>(packets) / times.seconds; }

    double reference() const { return 1 / cost.slower(); }

    double ratio() const { return endToEnd() / reference(); }

    /** The rate had both ends been on a CPU the whole time: the larger CPU time per packet. */
    double onCpu() const
    {
        return static_cast<double>(packets) / std::max(times.clientCpu, times.serverCpu);
    }
};

/** The figures of one repetition. The CPU time per packet of each process says whether a side was
 *  busy the whole time or off the CPU (waiting for the other, or for a CPU), and how its cost per
 *  packet compares with the reference's, measured alone. */
void printRepetition(int number, const repetition& r)
{
    const auto count = static_cast<double>(r.packets);
    std::cout << "   repetition " << number << ": in memory " << fixed(r.cost.send * 1e6, 1)
              << " us send, " << fixed(r.cost.receive * 1e6, 1) << " us receive per packet -> "
              << rateText(r.reference()) << "; end to end " << rateText(r.endToEnd()) << " in "
              << fixed(r.times.seconds, 2) << " s, ratio " << fixed(r.ratio(), 3) << "\n"
              << "      CPU per packet end to end: client "
              << fixed(r.times.clientCpu / count * 1e6, 1) << " us (busy "
              << fixed(r.times.clientCpu / r.times.seconds * 100, 0) << "% of the time), server "
              << fixed(r.times.serverCpu / count * 1e6, 1) << " us (busy "
              << fixed(r.times.serverCpu / r.times.seconds * 100, 0)
              << "%); never off the CPU it would be " << fixed(r.onCpu(), 0) << " pkt/s, ratio "
              << fixed(r.onCpu() / r.reference(), 3) << "\n";
    const double busiest = std::max(r.times.clientCpu, r.times.serverCpu) / r.times.seconds;
    if (busiest < kBusyEnough) {
        std::cout << "      note: neither end was on a CPU more than " << fixed(busiest * 100, 0)
                  << "% of the time: the CPUs were shared with other work, or each end waited "
                     "for the other\n";
    }
}

/** The repetition whose ratio is the median, so that the row's figures and ratio belong
 *  together. */
const repetition& medianRepetition(std::vector<repetition>& all)
{
    std::sort(all.begin(), all.end(),
              [](const repetition& a, const repetition& b) { return a.ratio() < b.ratio(); });
    return all[all.size() / 2];
}

bool measureThroughput(benchFrame& frame, std::vector<resultRow>& rows)
{
    packetCost cost;
    if (!measurePacketCost(frame, cost)) {
        return false;
    }
    const size_t packets = packetsFor(cost);
    std::cout << "1. throughput of " << kPayloadSize << "-byte payloads, " << packets
              << " per repetition (MB = 10^6 payload bytes)\n";
    childProcess server;
    if (!startLibrary(server, frame, "throughput server", 0,
                      [packets](vxNetServer& s, int) { return sinkPayloads(s, packets); })) {
        return false;
    }
    vxNetClient client;
    if (!connectClient(frame, client, server.port)) {
        return false;
    }
    std::vector<repetition> all;
    for (int number = 1; number <= kRepetitions; ++number) {
        // The first reference is the one N was chosen from; the others are fresh.
        repetition r;
        r.packets = packets;
        r.cost = cost;
        if ((number > 1 && !measurePacketCost(frame, r.cost)) ||
            !timePayloads(client, packets, r.times)) {
            return false;
        }
        printRepetition(number, r);
        all.push_back(r);
    }
    if (!disconnectClient(client) || !server.finish()) {
        return false;
    }
    const repetition& middle = medianRepetition(all);
    rows.push_back(atLeast("loopback 16 KiB one way, end to end", rateText(middle.endToEnd()),
                           rateText(middle.reference()), middle.ratio(), kThroughputGoal));
    return true;
}

// ---- 2. Handshakes -----------------------------------------------------------------------------

/** The server of the handshake test: `count` connections, one at a time, each received until its
 *  disconnect and pruned. */
bool serveHandshakes(vxNetServer& server, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        if (!acceptManaged(server) || !drainUntilDisconnect(*server.connectedClients.back())) {
            return false;
        }
        (void)server.pruneCClist();
        if (!server.connectedClients.empty()) {
            return fail("the server could not prune a connection");
        }
    }
    return true;
}

/** A fresh client: connect, handshake, disconnect, close. */
bool oneHandshake(benchFrame& frame, const std::string& port)
{
    const auto client = std::make_unique<vxNetClient>();
    return connectClient(frame, *client, port) && disconnectClient(*client);
}

/** Seconds per handshake over the network, after a few untimed ones. */
bool timeHandshakes(benchFrame& frame, double& perHandshake)
{
    childProcess server;
    if (!startLibrary(server, frame, "handshake server", 0, [](vxNetServer& s, int) {
            return serveHandshakes(s, kWarmupHandshakes + kHandshakes);
        })) {
        return false;
    }
    for (size_t i = 0; i < kWarmupHandshakes; ++i) {
        if (!oneHandshake(frame, server.port)) {
            return false;
        }
    }
    const auto start = steadyClock::now();
    for (size_t i = 0; i < kHandshakes; ++i) {
        if (!oneHandshake(frame, server.port)) {
            return false;
        }
    }
    perHandshake = secondsBetween(start, steadyClock::now()) / static_cast<double>(kHandshakes);
    return server.finish();
}

/** A 16-byte message from one end to the other: `to` receives `from`'s wire bytes and decrypts
 *  them into `plain`, as its receive would. */
bool deliver(vxNetPSKChallengeResponse& from, vxNetPSKChallengeResponse& to, vxBytes& plain)
{
    to.wireBytes.bytes = from.wireBytes.bytes;
    return to.keys.Decrypt(to.wireBytes, plain);
}

/** The version message: the server hides the version in 16 random bytes and encrypts them; the
 *  client decrypts and finds it. */
bool versionMessage(benchFrame& frame, vxNetPSKChallengeResponse& server,
                    vxNetPSKChallengeResponse& client)
{
    vxRand rand;
    vxNetTransportAntiCrib hide;
    vxNetTransportAntiCrib find;
    const bool exchanged =
        frame.openChild(rand, true) && rand.Read(kMessageSize) &&
        rand.GetHashedBytes(server.workBytes) && frame.openChild(hide, kVersionOffsets) &&
        hide.Seed(server.secretDigest) && hide.Hide(kProtocolVersion, server.workBytes) &&
        server.keys.Encrypt(server.workBytes, server.wireBytes) &&
        deliver(server, client, client.decrypted) && frame.openChild(find, kVersionOffsets) &&
        find.Seed(client.secretDigest) && find.Find(client.decrypted) &&
        find.GetValue(client.protocolVersion);
    return closeAll({&rand, &hide, &find}) && exchanged &&
           client.protocolVersion == kProtocolVersion;
}

/** Both ends of one handshake in the order of their exchange, each keying its encrypted socket.
 *  `server` and `client` are closed handshake objects, opened here and closed again as the
 *  endpoints do. */
bool replayHandshake(benchFrame& frame, vxNetPSKChallengeResponse& server,
                     vxNetPSKChallengeResponse& client, vxNetEncryptedSocket& serverSide,
                     vxNetEncryptedSocket& clientSide)
{
    const vxBytes secret = bytesOf(kSecret);
    const bool done =
        frame.openChild(server, serverSide.cipherId, serverSide.hashId, true) &&
        frame.openChild(client, clientSide.cipherId, clientSide.hashId, false) &&
        server.SetSecret(secret) && client.SetSecret(secret) &&
        versionMessage(frame, server, client) &&
        // The server's challenge, the client's answer, the server's check.
        server.GenerateChallengeRequest() && deliver(server, client, client.receivedChallenge) &&
        client.UpdateEntropyPool(true, client.receivedChallenge) &&
        client.GenerateChallengeResponse() && deliver(client, server, server.decrypted) &&
        server.ValidateChallengeResponse() &&
        // The client's challenge, the server's answer, the client's check.
        client.GenerateChallengeRequest() && deliver(client, server, server.receivedChallenge) &&
        server.UpdateEntropyPool(true, server.receivedChallenge) &&
        server.GenerateChallengeResponse() && deliver(server, client, client.decrypted) &&
        client.ValidateChallengeResponse() && server.SeedInitialKeys(serverSide) &&
        client.SeedInitialKeys(clientSide);
    return closeAll({&server, &client}) && done;
}

/** Seconds of crypto work per handshake, both ends: the replayed exchange, and the opening and
 *  closing of the two encrypted sockets. */
struct handshakeCrypto
{
    double exchange = 0;
    double sockets = 0;

    double total() const { return exchange + sockets; }
};

/** One replayed handshake with fresh encrypted sockets; times added to `cost`. */
bool replayOnce(benchFrame& frame, vxNetSocket& serverPlain, vxNetSocket& clientPlain,
                handshakeCrypto& cost)
{
    vxNetEncryptedSocket serverSide;
    vxNetEncryptedSocket clientSide;
    const auto start = steadyClock::now();
    if (!frame.openChild(serverSide, kCipher, kHash, &serverPlain) ||
        !frame.openChild(clientSide, kCipher, kHash, &clientPlain)) {
        return fail("cannot open the encrypted sockets of the replayed handshake");
    }
    const auto opened = steadyClock::now();
    vxNetPSKChallengeResponse server;
    vxNetPSKChallengeResponse client;
    if (!replayHandshake(frame, server, client, serverSide, clientSide)) {
        return fail("the replayed handshake failed");
    }
    const auto replayed = steadyClock::now();
    if (!closeAll({&serverSide, &clientSide})) {
        return fail("cannot close the encrypted sockets of the replayed handshake");
    }
    const auto closed = steadyClock::now();
    cost.sockets += secondsBetween(start, opened) + secondsBetween(replayed, closed);
    cost.exchange += secondsBetween(opened, replayed);
    return true;
}

bool measureHandshakeCrypto(benchFrame& frame, handshakeCrypto& perHandshake)
{
    // Plain sockets without descriptors: the encrypted sockets only read their side from them.
    vxNetSocket serverPlain;
    vxNetSocket clientPlain;
    if (!frame.openChild(serverPlain, true) || !frame.openChild(clientPlain, false)) {
        return fail("cannot open the plain sockets of the replayed handshake");
    }
    handshakeCrypto cost;
    for (size_t i = 0; i < kWarmupHandshakes; ++i) {
        if (!replayOnce(frame, serverPlain, clientPlain, cost)) {
            return false;
        }
    }
    cost = {};
    for (size_t i = 0; i < kHandshakes; ++i) {
        if (!replayOnce(frame, serverPlain, clientPlain, cost)) {
            return false;
        }
    }
    perHandshake.exchange = cost.exchange / static_cast<double>(kHandshakes);
    perHandshake.sockets = cost.sockets / static_cast<double>(kHandshakes);
    return closeAll({&serverPlain, &clientPlain}) || fail("cannot close the plain sockets");
}

bool measureHandshakes(benchFrame& frame, std::vector<resultRow>& rows)
{
    std::cout << "2. handshakes: " << kHandshakes << " sequential, after " << kWarmupHandshakes
              << " untimed\n";
    double perHandshake = 0;
    handshakeCrypto crypto;
    if (!timeHandshakes(frame, perHandshake) || !measureHandshakeCrypto(frame, crypto)) {
        return false;
    }
    const double share = crypto.total() / perHandshake;
    std::cout << "   over loopback " << fixed(perHandshake * 1e6, 1) << " us per handshake ("
              << fixed(1 / perHandshake, 0) << "/s)\n"
              << "   crypto in process, both ends: " << fixed(crypto.exchange * 1e6, 1)
              << " us the exchange + " << fixed(crypto.sockets * 1e6, 1)
              << " us opening and closing the two encrypted sockets = "
              << fixed(crypto.total() * 1e6, 1) << " us (" << fixed(share * 100, 1)
              << "% of a handshake)\n";
    rows.push_back(noGoal("handshakes per second (ratio: crypto share)",
                          fixed(1 / perHandshake, 0) + " /s",
                          fixed(1 / crypto.total(), 0) + " /s crypto alone", share));
    return true;
}

// ---- 3. Memory per idle connection -------------------------------------------------------------

void addMemoryRow(std::vector<resultRow>& rows, const char* label, double perConnection)
{
    rows.push_back(atMost(label, fixed(perConnection / 1024, 1) + " KiB",
                          fixed(kMemoryGoal / 1024, 1) + " KiB (budget)",
                          perConnection / kMemoryGoal, 1.0));
}

bool reportMemory(const std::string& line, size_t count, std::vector<resultRow>& rows)
{
    memoryReport report;
    if (!report.parse(line)) {
        return fail("the memory report of the server is unreadable: " + line);
    }
    const auto kib = [](long long bytes) { return fixed(static_cast<double>(bytes) / 1024, 1); };
    std::cout << "   the first connection: resident +"
              << kib(report.first.resident - report.before.resident) << " KiB, heap +"
              << kib(report.first.heap - report.before.heap) << " KiB (one-time costs included)\n"
              << "   the " << count - 1 << " after it: resident +"
              << kib(report.last.resident - report.first.resident) << " KiB, heap +"
              << kib(report.last.heap - report.first.heap) << " KiB in all\n";
    addMemoryRow(rows, "server memory per idle connection, resident", report.residentEach(count));
    addMemoryRow(rows, "server memory per idle connection, heap", report.heapEach(count));
    return true;
}

/** Keys the record's encrypted socket as its accept would: a replayed handshake whose server end
 *  is the record's own handshake object, against a client end that is closed again at once. */
bool keyRecord(benchFrame& frame, vxNetConnectedClient& record, vxNetSocket& clientPlain)
{
    vxNetEncryptedSocket clientSide;
    vxNetPSKChallengeResponse client;
    const bool keyed =
        frame.openChild(clientSide, kCipher, kHash, &clientPlain) &&
        replayHandshake(frame, record.handshake, client, record.encryptedSocket, clientSide);
    return closeAll({&clientSide}) && keyed;
}

/** Where an idle connection's heap goes, measured in this process without descriptors: the record
 *  of kBreakdownRecords connections opened (plain and encrypted socket), then keyed. */
bool printRecordBreakdown(benchFrame& frame)
{
    constexpr size_t kBreakdownRecords = 100;
    vxNetSocket clientPlain;
    std::vector<std::unique_ptr<vxNetConnectedClient>> records;
    memorySample start;
    memorySample opened;
    memorySample keyed;
    bool ok = frame.openChild(clientPlain, false) && sampleMemory(start);
    for (size_t i = 0; ok && i < kBreakdownRecords; ++i) {
        records.push_back(std::make_unique<vxNetConnectedClient>());
        ok = frame.openChild(*records.back(), kCipher, kHash);
    }
    ok = ok && sampleMemory(opened);
    for (size_t i = 0; ok && i < records.size(); ++i) {
        ok = keyRecord(frame, *records[i], clientPlain);
    }
    ok = ok && sampleMemory(keyed);
    for (const auto& record : records) {
        ok = closeAll({record.get()}) && ok;
    }
    if (!closeAll({&clientPlain}) || !ok) {
        return fail("cannot measure the heap of a connection record");
    }
    const auto count = static_cast<double>(kBreakdownRecords);
    std::cout << "   in this process, per record (" << kBreakdownRecords
              << " records): the object itself " << fixed(sizeof(vxNetConnectedClient) / 1024.0, 1)
              << " KiB; heap "
              << fixed(static_cast<double>(opened.heap - start.heap) / count / 1024, 1)
              << " KiB opened (with the plain socket's " << VX_MAX_PACKET_SIZE / 1024
              << " KiB packet buffer), +"
              << fixed(static_cast<double>(keyed.heap - opened.heap) / count / 1024, 1)
              << " KiB after its handshake\n";
    return true;
}

bool measureIdleMemory(benchFrame& frame, rlim_t descriptorLimit, std::vector<resultRow>& rows)
{
    std::cout << "3. server memory per idle connection\n";
    const size_t count = connectionsWithin(descriptorLimit, kIdleConnections, 1, "connections");
    childProcess server;
    if (!startLibrary(server, frame, "memory server", 0, [count](vxNetServer& s, int reports) {
            return holdIdle(s, count, reports, false);
        })) {
        return false;
    }
    // Each connection needs its own client and encrypted socket, alive until the server reported.
    std::vector<std::unique_ptr<vxNetClient>> clients;
    for (size_t i = 0; i < count; ++i) {
        clients.push_back(std::make_unique<vxNetClient>());
        if (!connectClient(frame, *clients.back(), server.port)) {
            return false;
        }
    }
    std::string report;
    if (!server.readLine(report)) {
        return fail("the memory server did not report");
    }
    for (const auto& client : clients) {
        if (!disconnectClient(*client)) {
            return false;
        }
    }
    return server.finish() && reportMemory(report, count, rows) && printRecordBreakdown(frame);
}

// ---- The run -----------------------------------------------------------------------------------

bool measureAll(benchFrame& frame, std::vector<resultRow>& rows)
{
    const rlim_t descriptorLimit = raiseDescriptorLimit();
    return measureThroughput(frame, rows) && measureHandshakes(frame, rows) &&
           measureIdleMemory(frame, descriptorLimit, rows);
}

} // namespace

int main()
{
    const tableLayout table{"results (ratio = measured / reference)",
                            {"measured", 24},
                            {"reference", 30},
                            6,      // the ratio's width
                            false,  // a tiny ratio reads 0.00
                            false}; // no run time under the table
    return runMeasurements("net_bench", VX_PLUGIN_DIR, table, measureAll);
}
