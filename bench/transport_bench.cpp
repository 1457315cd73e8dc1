// transport_bench: the cost of one packet of the secure transport, send side and receive side, for
// payloads of 0, 16, 1024 and 16384 bytes, each beside the same work done directly with OpenSSL 3
// in the same process, and a table of the library/direct CPU-time ratios at the end.
//
// The direct side is a second end of the transport written straight on OpenSSL: per 16-byte
// block one AES-256 block and the keyed digest of the IV mask (two MD5 digests); per packet the
// random haystack and padding, the hidden length, the entropy-pool digest, the head and body
// keyed digests and the chain-key ratchet. Before anything is timed it exchanges packets with the
// library in both directions, so the two sides are known to do the same work.
//
// Send side: build the packet in memory (header and encrypted body), no I/O. Receive side: what
// a receiver does once bytes are waiting in its socket: read the 48-byte header, decrypt and
// check it, read, decrypt and check the body, copy the payload out. Both receive columns read
// through the same kind of socket with the same two recv calls, so they carry the same
// system-call cost; the packets are written into the socket in batches outside the timed region.
//
//   transport_bench [benchmark options]    (each pair measured five times, alternately)

// The reference uses OpenSSL's low-level MD5 (deprecated in OpenSSL 3, still in libcrypto): for a
// 48-byte message it is about 1.8 times as fast as EVP and allocates nothing.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "benchCommon.h"
#include "vxTransportPair.h"

#include <benchmark/benchmark.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iostream>
#include <memory>
#include <openssl/md5.h>
#include <string>
#include <utility>
#include <vector>

using namespace veltrix;
using namespace vxbench;

namespace {

constexpr size_t kBlock = 16;
constexpr size_t kHeader = 48;
constexpr size_t kKeySize = 32; // AES-256, the default cipher of the tools
constexpr uint32_t kCribRange = 12;
constexpr size_t kSocketBuffer = 150000; // what a socket pair holds without blocking the writer
constexpr size_t kMaxBatch = 1000;
const size_t kSizes[] = {0, 16, 1024, 16384};

using bytes = std::vector<unsigned char>;
using block = std::array<unsigned char, kBlock>;

/** A run of bytes given to a digest. */
struct part
{
    const unsigned char* data;
    size_t size;
};

void md5(std::initializer_list<part> parts, unsigned char* out)
{
    MD5_CTX ctx;
    MD5_Init(&ctx);
    for (const part& p : parts) {
        MD5_Update(&ctx, p.data, p.size);
    }
    MD5_Final(out, &ctx);
}

bytes md5(std::initializer_list<part> parts)
{
    bytes out(MD5_DIGEST_LENGTH);
    md5(parts, out.data());
    return out;
}

part of(const bytes& b)
{
    return {b.data(), b.size()};
}

/** The transport's keyed digest with a 16-byte key: MD5((key xor 0x36) || message); the outer
 *  MD5((key xor 0x5C) || value) is computed and dropped, as the library does. */
void keyed(const unsigned char* key, std::initializer_list<part> parts, unsigned char* out)
{
    block pad{};
    for (size_t i = 0; i < kBlock; ++i) {
        pad[i] = static_cast<unsigned char>(key[i] ^ 0x36U);
    }
    MD5_CTX ctx;
    MD5_Init(&ctx);
    MD5_Update(&ctx, pad.data(), pad.size());
    for (const part& p : parts) {
        MD5_Update(&ctx, p.data, p.size);
    }
    MD5_Final(out, &ctx);
    for (size_t i = 0; i < kBlock; ++i) {
        pad[i] = static_cast<unsigned char>(key[i] ^ 0x5CU);
    }
    block outer{};
    MD5_Init(&ctx);
    MD5_Update(&ctx, pad.data(), pad.size());
    MD5_Update(&ctx, out, kBlock);
    MD5_Final(outer.data(), &ctx);
    benchmark::DoNotOptimize(outer);
}

/** Even-indexed bytes, then odd-indexed bytes. */
std::pair<bytes, bytes> split(const bytes& in)
{
    std::pair<bytes, bytes> halves;
    for (size_t i = 0; i < in.size(); ++i) {
        (i % 2 == 0 ? halves.first : halves.second).push_back(in[i]);
    }
    return halves;
}

/** Key material stretched to 32 bytes: D1 = MD5(even || odd), D2 = MD5(even || D1 || odd),
 *  interleaved D2[0] D1[0] D2[1] D1[1] ... */
bytes expand(const bytes& in)
{
    if (in.size() == kKeySize) {
        return in;
    }
    const auto [even, odd] = split(in);
    const bytes d1 = md5({of(even), of(odd)});
    const bytes d2 = md5({of(even), of(d1), of(odd)});
    bytes out;
    for (size_t i = 0; i < kBlock; ++i) {
        out.push_back(d2[i]);
        out.push_back(d1[i]);
    }
    return out;
}

/** The A and B values of the split scheme: MD5(even || odd || even), MD5(odd || even || odd). */
std::pair<bytes, bytes> splitPair(const bytes& material)
{
    const auto [even, odd] = split(material);
    return {md5({of(even), of(odd), of(even)}), md5({of(odd), of(even), of(odd)})};
}

struct evpFree
{
    void operator()(EVP_CIPHER* p) const { EVP_CIPHER_free(p); }

    void operator()(EVP_CIPHER_CTX* p) const { EVP_CIPHER_CTX_free(p); }
};

template <typename T> using evpOwned = std::unique_ptr<T, evpFree>;

/** One direction of the reference: its AES context, IV mask, chain key and offset sequence. */
struct direction
{
    evpOwned<EVP_CIPHER_CTX> aes{EVP_CIPHER_CTX_new()};
    block iv{};
    block chain{};
    uint32_t sequence = 1;

    bool key(const EVP_CIPHER* cipher, const bytes& aesKey, const bytes& firstIv,
             const bytes& chainKey, bool encrypt)
    {
        std::copy(firstIv.begin(), firstIv.end(), iv.begin());
        std::copy(chainKey.begin(), chainKey.end(), chain.begin());
        return aes &&
               EVP_CipherInit_ex2(aes.get(), cipher, aesKey.data(), nullptr, encrypt ? 1 : 0,
                                  nullptr) == 1 &&
               EVP_CIPHER_CTX_set_padding(aes.get(), 0) == 1;
    }

    uint32_t nextOffset()
    {
        sequence = sequence * 1103515245U + 12345U;
        return sequence / (2 * kCribRange) % kCribRange;
    }

    void seed(const unsigned char* haystack)
    {
        sequence = (uint32_t{haystack[0]} << 24U) | (uint32_t{haystack[1]} << 16U) |
                   (uint32_t{haystack[2]} << 8U) | uint32_t{haystack[3]};
    }

    /** K' = keyed(K, K || K || head digest || haystack). */
    void ratchet(const unsigned char* headAndHaystack)
    {
        block next{};
        keyed(chain.data(), {{chain.data(), kBlock}, {chain.data(), kBlock}, {headAndHaystack, 32}},
              next.data());
        chain = next;
    }

    /** Encrypts whole blocks in place: E = AES(P), C = E xor IV, IV = keyed(IV, E || IV). */
    bool seal(unsigned char* data, size_t size)
    {
        block e{};
        int produced = 0;
        for (size_t at = 0; at < size; at += kBlock) {
            if (EVP_EncryptUpdate(aes.get(), e.data(), &produced, data + at, kBlock) != 1) {
                return false;
            }
            for (size_t i = 0; i < kBlock; ++i) {
                data[at + i] = static_cast<unsigned char>(e[i] ^ iv[i]);
            }
            keyed(iv.data(), {{e.data(), kBlock}, {iv.data(), kBlock}}, iv.data());
        }
        return true;
    }

    /** The inverse of seal. */
    bool open(unsigned char* data, size_t size)
    {
        block e{};
        int produced = 0;
        for (size_t at = 0; at < size; at += kBlock) {
            for (size_t i = 0; i < kBlock; ++i) {
                e[i] = static_cast<unsigned char>(data[at + i] ^ iv[i]);
            }
            keyed(iv.data(), {{e.data(), kBlock}, {iv.data(), kBlock}}, iv.data());
            if (EVP_DecryptUpdate(aes.get(), data + at, &produced, e.data(), kBlock) != 1) {
                return false;
            }
        }
        return true;
    }
};

size_t padded(size_t size)
{
    return (size + kBlock - 1) / kBlock * kBlock;
}

/** The transport end written directly on OpenSSL. */
class referenceEnd
{
public:
    /** Keys as ReSeed(seed0, seed1) derives them, for the end opened with `side`. */
    bool open(bool side, const bytes& seed0, const bytes& seed1)
    {
        const evpOwned<EVP_CIPHER> cipher(EVP_CIPHER_fetch(nullptr, "AES-256-ECB", nullptr));
        const auto [keyA, keyB] = splitPair(expand(md5({of(seed0), of(seed1), of(seed0)})));
        const auto [ivA, ivB] = splitPair(md5({of(seed0), of(seed1)}));
        const bytes magicTwo = md5({of(seed1), of(seed0)});
        const bytes magicOne = md5({of(seed1), of(seed0), of(seed1)});
        // The end opened with true sends with B and ratchets magicTwo; the other end mirrors it.
        return cipher &&
               out.key(cipher.get(), expand(side ? keyB : keyA), side ? ivB : ivA,
                       side ? magicTwo : magicOne, true) &&
               in.key(cipher.get(), expand(side ? keyA : keyB), side ? ivA : ivB,
                      side ? magicOne : magicTwo, false);
    }

    /** Builds the packet of `payload` into `wire`: 48 header bytes, then the body. */
    bool seal(const bytes& payload, bytes& wire)
    {
        const size_t bodySize = padded(payload.size());
        wire.resize(kHeader + bodySize);
        unsigned char* head = wire.data();
        unsigned char* body = head + kHeader;
        std::copy(payload.begin(), payload.end(), body);
        const auto padding = static_cast<int>(bodySize - payload.size());
        unsigned char* haystack = head + kBlock;
        if ((padding > 0 && RAND_bytes(body + payload.size(), padding) != 1) ||
            RAND_bytes(haystack, kBlock) != 1) {
            return false;
        }
        putLength(static_cast<uint32_t>(payload.size()), haystack + out.nextOffset());
        md5({{haystack, kBlock}}, pool.data()); // the entropy pool's fold, not read back
        out.seed(haystack);
        std::array<unsigned char, 2 * kBlock> headAndHaystack{};
        keyed(out.chain.data(), {{haystack, kBlock}}, headAndHaystack.data());
        std::copy(haystack, haystack + kBlock, headAndHaystack.begin() + kBlock);
        out.ratchet(headAndHaystack.data());
        std::copy(headAndHaystack.begin(), headAndHaystack.begin() + kBlock, head);
        keyed(out.chain.data(), {{body, bodySize}}, head + 2 * kBlock);
        return out.seal(head, kHeader) && out.seal(body, bodySize);
    }

    /** Reads one packet from `fd` and checks it; `payload` receives its bytes. */
    bool receive(int fd, bytes& payload)
    {
        if (!readAll(fd, header.data(), kHeader) || !in.open(header.data(), kHeader)) {
            return false;
        }
        const unsigned char* haystack = header.data() + kBlock;
        md5({{haystack, kBlock}}, pool.data());
        block check{};
        keyed(in.chain.data(), {{haystack, kBlock}}, check.data());
        if (CRYPTO_memcmp(check.data(), header.data(), kBlock) != 0) {
            return false;
        }
        const unsigned char* at = haystack + in.nextOffset();
        const uint32_t size = (uint32_t{at[0]} << 24U) | (uint32_t{at[1]} << 16U) |
                              (uint32_t{at[2]} << 8U) | uint32_t{at[3]};
        in.seed(haystack);
        in.ratchet(header.data());
        const size_t bodySize = padded(size);
        payload.resize(bodySize);
        if (bodySize == 0) {
            return true;
        }
        if (!readAll(fd, payload.data(), bodySize) || !in.open(payload.data(), bodySize)) {
            return false;
        }
        keyed(in.chain.data(), {{payload.data(), bodySize}}, check.data());
        payload.resize(size);
        return CRYPTO_memcmp(check.data(), header.data() + 2 * kBlock, kBlock) == 0;
    }

private:
    static void putLength(uint32_t value, unsigned char* at)
    {
        at[0] = static_cast<unsigned char>(value >> 24U);
        at[1] = static_cast<unsigned char>(value >> 16U);
        at[2] = static_cast<unsigned char>(value >> 8U);
        at[3] = static_cast<unsigned char>(value);
    }

    static bool readAll(int fd, unsigned char* into, size_t size)
    {
        return recv(fd, into, size, MSG_WAITALL) == static_cast<ssize_t>(size);
    }

    direction out;
    direction in;
    block pool{};
    std::array<unsigned char, kHeader> header{};
};

bytes seedBytes(unsigned char start)
{
    bytes out(kBlock);
    for (size_t i = 0; i < kBlock; ++i) {
        out[i] = static_cast<unsigned char>(start + i);
    }
    return out;
}

/** The seeds transportPair::open re-seeds both library ends with. */
const bytes kSeed0 = seedBytes(0x00);
const bytes kSeed1 = seedBytes(0x10);

/** A library server end and a reference client over one socket pair, keyed alike. The library
 *  client of the pair shares its socket with the reference, so it is closed unused. */
class mixedPair
{
public:
    explicit mixedPair(benchFrame& frame)
    {
        ready = pair.open(frame, vxCipherId::aes256) && reference.open(false, kSeed0, kSeed1);
        for (const int fd : {pair.server.socket.sockFd, pair.client.socket.sockFd}) {
            const int size = 4 << 20;
            (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
            (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        }
    }

    mixedPair(const mixedPair&) = delete;
    mixedPair& operator=(const mixedPair&) = delete;
    mixedPair(mixedPair&&) = delete;
    mixedPair& operator=(mixedPair&&) = delete;

    ~mixedPair() { pair.close(); }

    int referenceFd() const { return pair.client.socket.sockFd; }

    bool ready = false;
    vxtest::transportPair pair;
    referenceEnd reference;
};

// ---- Agreement check before timing -----------------------------------------------------------

/** Packets of every size cross from the library to the reference and back, payloads intact. */
bool checkAgreement(benchFrame& frame)
{
    mixedPair ends(frame);
    if (!ends.ready) {
        return false;
    }
    for (int round = 0; round < 3; ++round) {
        for (const size_t size : kSizes) {
            vxBytes sent = asBytes(pattern(size, static_cast<unsigned>(round)));
            bytes got;
            bytes wire;
            vxBytes back;
            if (!ends.pair.server.send(sent) || !ends.reference.receive(ends.referenceFd(), got) ||
                got != sent.bytes || !ends.reference.seal(sent.bytes, wire) ||
                write(ends.referenceFd(), wire.data(), wire.size()) !=
                    static_cast<ssize_t>(wire.size()) ||
                !ends.pair.server.receive(back) || back.bytes != sent.bytes) {
                std::cerr << "transport_bench: the library and the reference disagree at " << size
                          << " bytes\n";
                return false;
            }
        }
    }
    return true;
}

// ---- Benchmarks ------------------------------------------------------------------------------

void benchLibrarySend(benchmark::State& state, benchFrame& frame, size_t size)
{
    vxtest::transportPair ends;
    const bool ready = ends.open(frame, vxCipherId::aes256);
    vxtest::transportEnd& end = ends.server;
    const vxBytes payload = asBytes(pattern(size, 1));
    timeSteps(state, ready, "the library send", size, end.wire.bytes.data(), [&] {
        end.body.bytes = payload.bytes;
        return end.header.CreateFromPayload(end.keys, payload) &&
               end.header.GetBodyPadding(end.padding) && end.body.CopyBack(end.padding) &&
               end.keys.Encrypt(end.body, end.wire) &&
               end.header.GetEncryptedHeader(end.sealedHeader);
    });
    ends.close();
}

void benchDirectSend(benchmark::State& state, size_t size)
{
    referenceEnd end;
    const bool ready = end.open(true, kSeed0, kSeed1);
    const bytes payload = pattern(size, 1);
    bytes wire;
    timeSteps(state, ready, "the reference send", size, wire.data(),
              [&] { return end.seal(payload, wire); });
}

/** The receive loop both columns share: packets are written in batches with the timer paused,
 *  then received one per iteration. */
template <class Receive>
void timeReceives(benchmark::State& state, bool ready, const char* what, size_t size,
                  vxtest::transportEnd& producer, Receive receive)
{
    if (!ready) {
        state.SkipWithError((std::string("cannot set up ") + what).c_str());
        return;
    }
    const vxBytes payload = asBytes(pattern(size, 2));
    const size_t batch = std::min(kMaxBatch, std::max<size_t>(1, kSocketBuffer / (size + 64)));
    size_t waiting = 0;
    for (auto _ : state) {
        if (waiting == 0) {
            state.PauseTiming();
            for (waiting = 0; waiting < batch; ++waiting) {
                if (!producer.send(payload)) {
                    state.SkipWithError("the producer failed");
                    return;
                }
            }
            state.ResumeTiming();
        }
        if (!receive()) {
            state.SkipWithError((std::string(what) + " failed").c_str());
            return;
        }
        --waiting;
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

void benchLibraryReceive(benchmark::State& state, benchFrame& frame, size_t size)
{
    mixedPair ends(frame); // the library client reads; the reference stays idle
    vxBytes got;
    got.bytes.reserve(size);
    timeReceives(state, ends.ready, "the library receive", size, ends.pair.server,
                 [&] { return ends.pair.client.receive(got); });
}

void benchDirectReceive(benchmark::State& state, benchFrame& frame, size_t size)
{
    mixedPair ends(frame);
    bytes got;
    got.reserve(size);
    timeReceives(state, ends.ready, "the reference receive", size, ends.pair.server,
                 [&] { return ends.reference.receive(ends.referenceFd(), got); });
}

std::vector<benchPair> pairs()
{
    static std::vector<std::string> names;
    static std::vector<std::string> labels;
    if (names.empty()) {
        for (const char* side : {"send", "receive"}) {
            for (const size_t size : kSizes) {
                const std::string base = std::string(side) + "/" + std::to_string(size) + "B/";
                names.push_back(base + "library");
                names.push_back(base + "openssl");
                labels.push_back(std::string(side) + ", " + std::to_string(size) + "-byte payload");
            }
        }
    }
    std::vector<benchPair> table;
    for (size_t i = 0; i < labels.size(); ++i) {
        const bool largest = labels[i].find("16384") != std::string::npos;
        const bool empty = labels[i].find(", 0-byte") != std::string::npos;
        table.push_back({labels[i].c_str(), names[2 * i].c_str(), names[2 * i + 1].c_str(),
                         largest ? 1.25 : (empty ? 2.0 : 0)});
    }
    return table;
}

void registerBenchmarks(benchFrame& frame, const std::vector<benchPair>& table)
{
    for (size_t i = 0; i < table.size(); ++i) {
        const size_t size = kSizes[i % std::size(kSizes)];
        if (i < std::size(kSizes)) {
            registerPair(
                table[i], [&frame, size](auto& state) { benchLibrarySend(state, frame, size); },
                [size](auto& state) { benchDirectSend(state, size); });
        } else {
            registerPair(
                table[i], [&frame, size](auto& state) { benchLibraryReceive(state, frame, size); },
                [&frame, size](auto& state) { benchDirectReceive(state, frame, size); });
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<benchPair> table = pairs();
    return runBenchmarks(argc, argv, "transport_bench", VX_PLUGIN_DIR, table,
                         [&](benchFrame& frame) {
                             if (!checkAgreement(frame)) {
                                 return false;
                             }
                             registerBenchmarks(frame, table);
                             return true;
                         });
}
