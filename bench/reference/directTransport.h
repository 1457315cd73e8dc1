// A second end of the secure transport written directly on OpenSSL 3: the same crypto work per
// packet as the library's end, without its objects and plug-in calls. Per 16-byte block one AES
// block and the keyed digest of the IV mask (two MD5 digests); per packet the random haystack and
// padding, the hidden length, the entropy-pool digest, the head and body keyed digests and the
// chain-key ratchet. The measurements of the library stand beside it; before any timing, packets
// cross between it and the library in both directions, so the two are known to do the same work.
#pragma once

#include "vxBytes.h"
#include "vxTransportPair.h"

#include <openssl/evp.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vxdirect {

using bytes = std::vector<unsigned char>;

constexpr size_t kBlock = 16;
constexpr size_t kHeader = 48;

using block = std::array<unsigned char, kBlock>;

/** The payload sizes every transport measurement covers. */
constexpr size_t kPayloadSizes[] = {0, 16, 1024, 16384};

/** A cipher mode of the transport and the OpenSSL cipher that does its block work. */
struct cipherChoice
{
    const char* mode;
    uint32_t id; ///< the library's cipher identifier
    const char* evpName;
    size_t keySize;
};

/** The cipher of `mode` ("aes128", "aes192" or "aes256"); nullptr for any other. */
const cipherChoice* findCipher(const std::string& mode);

/** `size` random bytes. */
bytes randomBytes(size_t size);

/** Bytes the producer of a receive measurement writes into a socket before the reader starts:
 *  as many packets of `payloadSize` as the enlarged socket buffer holds without blocking. */
size_t receiveBatch(size_t payloadSize);

/** The pseudo-random offsets at which a direction hides its 32-bit values, as the library's
 *  anti-crib draws them. */
class offsetSequence
{
public:
    /** Starts again from the first four bytes of `seed`, big-endian. */
    void seed(const unsigned char* seed);
    uint32_t next();

private:
    uint32_t state = 1;
};

struct evpFree
{
    void operator()(EVP_CIPHER* p) const { EVP_CIPHER_free(p); }

    void operator()(EVP_CIPHER_CTX* p) const { EVP_CIPHER_CTX_free(p); }
};

template <typename T> using evpOwned = std::unique_ptr<T, evpFree>;

/** One direction of an end: its AES context, IV mask, chain key and offset sequence. */
struct direction
{
    evpOwned<EVP_CIPHER_CTX> aes{EVP_CIPHER_CTX_new()};
    block iv{};
    block chain{};
    offsetSequence offsets;

    bool key(const EVP_CIPHER* cipher, const bytes& aesKey, const bytes& firstIv,
             const bytes& chainKey, bool encrypt);
    /** K' = keyed(K, K || K || head digest || haystack). */
    void ratchet(const unsigned char* headAndHaystack);
    /** Encrypts whole blocks in place: E = AES(P), C = E xor IV, IV = keyed(IV, E || IV). */
    bool seal(unsigned char* data, size_t size);
    /** The inverse of seal. */
    bool open(unsigned char* data, size_t size);
};

/** The transport end written directly on OpenSSL. */
class referenceEnd
{
public:
    /** Keys as the library's ReSeed(seed0, seed1) derives them, for the end opened with
     *  `side`. */
    bool open(const cipherChoice& cipher, bool side, const bytes& seed0, const bytes& seed1);
    /** Keys as the end of a vxbench::transportPair opened with `side`: seeded with its seeds. */
    bool openPaired(const cipherChoice& cipher, bool side);
    /** Keys as a handshake derives them from the shared secret, before any challenge. */
    bool openForSecret(const cipherChoice& cipher, bool side, const bytes& secret);

    /** Builds the packet of `payload` into `wire`: 48 header bytes, then the body. */
    bool seal(const bytes& payload, bytes& wire);
    /** Reads one packet from `fd` and checks it; `payload` receives its bytes. */
    bool receive(int fd, bytes& payload);

    /** Encrypts one 16-byte message in place with the sending direction, decrypts one with the
     *  receiving direction. */
    bool sealMessage(block& message) { return out.seal(message.data(), kBlock); }

    bool openMessage(block& message) { return in.open(message.data(), kBlock); }

    /** Whether this end sends as `other` receives and receives as it sends: the two are the
     *  ends of one connection. */
    bool mirrors(const referenceEnd& other) const;

private:
    bool key(const cipherChoice& cipher, bool side, const bytes& keyMaterial,
             const bytes& ivMaterial, const bytes& magicOne, const bytes& magicTwo);

    direction out;
    direction in;
    block pool{};
    std::array<unsigned char, kHeader> header{};
};

/** A library server end and a reference client over one socket pair, keyed alike. The library
 *  client of the pair shares its socket with the reference: either of the two reads what the
 *  server sends, never both. */
class mixedPair
{
public:
    /** Opens the pair under `frame` (any object with a bool open(child, args...)). */
    template <class Frame> mixedPair(Frame& frame, const cipherChoice& cipher)
    {
        ready = pair.open(frame, cipher.id) && reference.openPaired(cipher, false);
        enlargeBuffers();
    }

    LVX_NOT_COPYABLE(mixedPair);

    ~mixedPair() { pair.close(); }

    int referenceFd() const { return pair.client.socket.sockFd; }

    bool ready = false;
    vxbench::transportPair pair;
    referenceEnd reference;

private:
    /** Room for a batch of packets (receiveBatch) in the pair's sockets. */
    void enlargeBuffers() const;
};

/** Packets of every size cross from the library to the reference and back, payloads intact, three
 *  times over. False at the first packet that does not, with its payload size in `failedSize`. */
bool checkAgreement(mixedPair& ends, size_t& failedSize);

} // namespace vxdirect
