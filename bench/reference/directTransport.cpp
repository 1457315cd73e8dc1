#include "directTransport.h"

#include "directDigest.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace vxdirect {

namespace {

constexpr uint32_t kCribRange = 12;
constexpr size_t kSocketBuffer = 150000; // what a socket pair holds without blocking the writer
constexpr size_t kMaxBatch = 1000;
constexpr int kEnlargedBuffer = 4 << 20;
constexpr int kAgreementRounds = 3;

const cipherChoice kCiphers[] = {{"aes128", veltrix::vxCipherId::aes128, "AES-128-ECB", 16},
                                 {"aes192", veltrix::vxCipherId::aes192, "AES-192-ECB", 24},
                                 {"aes256", veltrix::vxCipherId::aes256, "AES-256-ECB", 32}};

/** Even-indexed bytes, then odd-indexed bytes. */
std::pair<bytes, bytes> split(const bytes& in)
{
    std::pair<bytes, bytes> halves;
    for (size_t i = 0; i < in.size(); ++i) {
        (i % 2 == 0 ? halves.first : halves.second).push_back(in[i]);
    }
    return halves;
}

/** Key material stretched to `size` bytes: D1 = MD5(even || odd); for 24 or 32 bytes
 *  D2 = MD5(even || D1 || odd), interleaved D2[0] D1[0] D2[1] D1[1] ... */
bytes expand(const bytes& in, size_t size)
{
    if (in.size() == size) {
        return in;
    }
    const auto [even, odd] = split(in);
    bytes d1 = md5({of(even), of(odd)});
    if (size == kBlock) {
        return d1;
    }
    const bytes d2 = md5({of(even), of(d1), of(odd)});
    bytes out;
    for (size_t i = 0; out.size() < size; ++i) {
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

size_t padded(size_t size)
{
    return (size + kBlock - 1) / kBlock * kBlock;
}

bool readAll(int fd, unsigned char* into, size_t size)
{
    return recv(fd, into, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

bool writeAll(int fd, const bytes& data)
{
    return write(fd, data.data(), data.size()) == static_cast<ssize_t>(data.size());
}

/** One packet from the library to the reference and one back, with the same payload. */
bool exchange(mixedPair& ends, const veltrix::vxBytes& sent)
{
    bytes got;
    bytes wire;
    veltrix::vxBytes back;
    return ends.pair.server.send(sent) && ends.reference.receive(ends.referenceFd(), got) &&
           got == sent.bytes && ends.reference.seal(sent.bytes, wire) &&
           writeAll(ends.referenceFd(), wire) && ends.pair.server.receive(back) &&
           back.bytes == sent.bytes;
}

} // namespace

const cipherChoice* findCipher(const std::string& mode)
{
    for (const cipherChoice& cipher : kCiphers) {
        if (mode == cipher.mode) {
            return &cipher;
        }
    }
    return nullptr;
}

bytes randomBytes(size_t size)
{
    bytes out(size);
    if (size > 0 && RAND_bytes(out.data(), static_cast<int>(size)) != 1) {
        out.clear();
    }
    return out;
}

size_t receiveBatch(size_t payloadSize)
{
    return std::min(kMaxBatch, std::max<size_t>(1, kSocketBuffer / (payloadSize + 64)));
}

void offsetSequence::seed(const unsigned char* seed)
{
    state = getLength(seed);
}

uint32_t offsetSequence::next()
{
    state = state * 1103515245U + 12345U;
    return state / (2 * kCribRange) % kCribRange;
}

bool direction::key(const EVP_CIPHER* cipher, const bytes& aesKey, const bytes& firstIv,
                    const bytes& chainKey, bool encrypt)
{
    std::copy(firstIv.begin(), firstIv.end(), iv.begin());
    std::copy(chainKey.begin(), chainKey.end(), chain.begin());
    return aes &&
           EVP_CipherInit_ex2(aes.get(), cipher, aesKey.data(), nullptr, encrypt ? 1 : 0,
                              nullptr) == 1 &&
           EVP_CIPHER_CTX_set_padding(aes.get(), 0) == 1;
}

void direction::ratchet(const unsigned char* headAndHaystack)
{
    block next{};
    md5Keyed(chain.data(), {{chain.data(), kBlock}, {chain.data(), kBlock}, {headAndHaystack, 32}},
             next.data());
    chain = next;
}

bool direction::seal(unsigned char* data, size_t size)
{
    // ECB: every block's cipher in one call, then the mask chain over the results.
    if (size > 0 && EVP_Cipher(aes.get(), data, data, static_cast<unsigned int>(size)) <= 0) {
        return false;
    }
    block e{};
    for (size_t at = 0; at < size; at += kBlock) {
        std::copy(data + at, data + at + kBlock, e.begin());
        for (size_t i = 0; i < kBlock; ++i) {
            data[at + i] = static_cast<unsigned char>(e[i] ^ iv[i]);
        }
        md5Keyed(iv.data(), {{e.data(), kBlock}, {iv.data(), kBlock}}, iv.data());
    }
    return true;
}

bool direction::open(unsigned char* data, size_t size)
{
    for (size_t at = 0; at < size; at += kBlock) {
        for (size_t i = 0; i < kBlock; ++i) {
            data[at + i] = static_cast<unsigned char>(data[at + i] ^ iv[i]);
        }
        md5Keyed(iv.data(), {{data + at, kBlock}, {iv.data(), kBlock}}, iv.data());
    }
    return size == 0 || EVP_Cipher(aes.get(), data, data, static_cast<unsigned int>(size)) > 0;
}

bool referenceEnd::key(const cipherChoice& cipher, bool side, const bytes& keyMaterial,
                       const bytes& ivMaterial, const bytes& magicOne, const bytes& magicTwo)
{
    const evpOwned<EVP_CIPHER> aes(EVP_CIPHER_fetch(nullptr, cipher.evpName, nullptr));
    const auto [keyA, keyB] = splitPair(keyMaterial);
    const auto [ivA, ivB] = splitPair(ivMaterial);
    // The end opened with true sends with B and ratchets magicTwo; the other end mirrors it.
    return aes &&
           out.key(aes.get(), expand(side ? keyB : keyA, cipher.keySize), side ? ivB : ivA,
                   side ? magicTwo : magicOne, true) &&
           in.key(aes.get(), expand(side ? keyA : keyB, cipher.keySize), side ? ivA : ivB,
                  side ? magicOne : magicTwo, false);
}

bool referenceEnd::open(const cipherChoice& cipher, bool side, const bytes& seed0,
                        const bytes& seed1)
{
    // The entropy pools are derived as well, though nothing reads them back.
    md5({of(seed1), of(seed0), of(seed1), of(seed0)}, pool.data());
    md5({of(seed0), of(seed1), of(seed0), of(seed1)}, pool.data());
    return key(cipher, side, expand(md5({of(seed0), of(seed1), of(seed0)}), cipher.keySize),
               md5({of(seed0), of(seed1)}), md5({of(seed1), of(seed0), of(seed1)}),
               md5({of(seed1), of(seed0)}));
}

bool referenceEnd::openPaired(const cipherChoice& cipher, bool side)
{
    return open(cipher, side, vxbench::pairSeed0().bytes, vxbench::pairSeed1().bytes);
}

bool referenceEnd::openForSecret(const cipherChoice& cipher, bool side, const bytes& secret)
{
    // A handshake's own keys carry no chain keys: its messages have no header.
    return key(cipher, side, expand(secret, cipher.keySize), secret, {}, {});
}

bool referenceEnd::seal(const bytes& payload, bytes& wire)
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
    putLength(static_cast<uint32_t>(payload.size()), haystack + out.offsets.next());
    md5({{haystack, kBlock}}, pool.data()); // the entropy pool's fold, not read back
    out.offsets.seed(haystack);
    std::array<unsigned char, 2 * kBlock> headAndHaystack{};
    md5Keyed(out.chain.data(), {{haystack, kBlock}}, headAndHaystack.data());
    std::copy(haystack, haystack + kBlock, headAndHaystack.begin() + kBlock);
    out.ratchet(headAndHaystack.data());
    std::copy(headAndHaystack.begin(), headAndHaystack.begin() + kBlock, head);
    md5Keyed(out.chain.data(), {{body, bodySize}}, head + 2 * kBlock);
    return out.seal(head, kHeader) && out.seal(body, bodySize);
}

bool referenceEnd::receive(int fd, bytes& payload)
{
    if (!readAll(fd, header.data(), kHeader) || !in.open(header.data(), kHeader)) {
        return false;
    }
    const unsigned char* haystack = header.data() + kBlock;
    md5({{haystack, kBlock}}, pool.data());
    block check{};
    md5Keyed(in.chain.data(), {{haystack, kBlock}}, check.data());
    if (CRYPTO_memcmp(check.data(), header.data(), kBlock) != 0) {
        return false;
    }
    const uint32_t size = getLength(haystack + in.offsets.next());
    in.offsets.seed(haystack);
    in.ratchet(header.data());
    const size_t bodySize = padded(size);
    payload.resize(bodySize);
    if (bodySize == 0) {
        return true;
    }
    if (!readAll(fd, payload.data(), bodySize) || !in.open(payload.data(), bodySize)) {
        return false;
    }
    md5Keyed(in.chain.data(), {{payload.data(), bodySize}}, check.data());
    payload.resize(size);
    return CRYPTO_memcmp(check.data(), header.data() + 2 * kBlock, kBlock) == 0;
}

bool referenceEnd::mirrors(const referenceEnd& other) const
{
    return out.iv == other.in.iv && out.chain == other.in.chain && in.iv == other.out.iv &&
           in.chain == other.out.chain;
}

void mixedPair::enlargeBuffers() const
{
    for (const int fd : {pair.server.socket.sockFd, pair.client.socket.sockFd}) {
        (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kEnlargedBuffer, sizeof kEnlargedBuffer);
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kEnlargedBuffer, sizeof kEnlargedBuffer);
    }
}

bool checkAgreement(mixedPair& ends, size_t& failedSize)
{
    for (int round = 0; round < kAgreementRounds; ++round) {
        for (const size_t size : kPayloadSizes) {
            veltrix::vxBytes sent;
            sent.bytes = randomBytes(size);
            if (sent.bytes.size() != size || !exchange(ends, sent)) {
                failedSize = size;
                return false;
            }
        }
    }
    return true;
}

} // namespace vxdirect
