// libveltrix_openssl.so: the crypto plug-in of the library, built on OpenSSL 3 libcrypto.
//
// Every crypto object of the library owns one vxPluginStorage record. The plug-in keeps a state
// object behind the record's handle: the family's Open entry point creates it and Close destroys
// it. No entry point keeps mutable data anywhere else, so different objects may be used from
// different threads at once. The only data shared between objects are the algorithm
// implementations fetched from OpenSSL's default provider, which are looked up once per process
// and only read afterwards.

#include "md5Pair.h"
#include "pluginLoader.h"
#include "vxPlugin.h"

// The digests use OpenSSL's low-level functions (MD5_Init and the like), deprecated in OpenSSL 3
// but still part of libcrypto. For the short messages of the transport (a 48-byte MD5 per keyed
// digest, two per 16-byte block) they are about 1.8 times as fast as EVP, and they allocate
// nothing, while OpenSSL 3.0's EVP_DigestInit_ex2 re-creates the provider context per message.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>
#include <sys/random.h>
#include <sys/types.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <openssl/md5.h>
#include <string>
#include <type_traits>
#include <utility>

using veltrix::vxByteVector;
using veltrix::vxPluginStorage;

namespace {

constexpr const char* kPluginName = "openssl";
constexpr const char* kPluginVersion = "1.0";

// Every cipher of the interface works on one 16-byte block.
constexpr size_t kBlockSize = 16;

// Every RSA key made here uses the public exponent 65537.
constexpr BN_ULONG kRsaPublicExponent = 65537;

// RSA number indices: 1 N, 2 E, 3 P, 4 Q, 5 D, named as the OpenSSL key parameters.
constexpr const char* kRsaNumberNames[] = {OSSL_PKEY_PARAM_RSA_N, OSSL_PKEY_PARAM_RSA_E,
                                           OSSL_PKEY_PARAM_RSA_FACTOR1, OSSL_PKEY_PARAM_RSA_FACTOR2,
                                           OSSL_PKEY_PARAM_RSA_D};
constexpr int kRsaNumberCount = 5;

// Given to OpenSSL instead of the null data pointer of an empty vector or message.
constexpr unsigned char kNoData[1] = {0};

// ---- Ownership of OpenSSL objects -------------------------------------------------------------

struct opensslFree
{
    void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }

    void operator()(EVP_CIPHER* p) const { EVP_CIPHER_free(p); }

    void operator()(EVP_CIPHER_CTX* p) const { EVP_CIPHER_CTX_free(p); }

    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }

    void operator()(EVP_PKEY_CTX* p) const { EVP_PKEY_CTX_free(p); }

    // Numbers may be key material: always wiped.
    void operator()(BIGNUM* p) const { BN_clear_free(p); }

    void operator()(BN_CTX* p) const { BN_CTX_free(p); }

    void operator()(OSSL_PARAM_BLD* p) const { OSSL_PARAM_BLD_free(p); }

    void operator()(OSSL_PARAM* p) const { OSSL_PARAM_free(p); }

    // Texts from BN_bn2hex may spell out a private number.
    void operator()(char* p) const { OPENSSL_clear_free(p, std::strlen(p)); }
};

template <typename T> using owned = std::unique_ptr<T, opensslFree>;

/** Ends a failed OpenSSL call: its reasons are dropped from this thread's error queue so that
 *  they cannot be mistaken for the reasons of a later, unrelated failure. */
bool fail()
{
    ERR_clear_error();
    return false;
}

/** Runs `body` and returns its result, or `refused` when it runs out of memory: an entry point
 *  answers a failed allocation with its own failure result, never with an exception thrown into
 *  the library. */
template <typename Body>
std::invoke_result_t<Body&> catchNoMemory(std::invoke_result_t<Body&> refused, Body body)
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return refused;
    }
}

const unsigned char* dataOf(const vxByteVector& bytes)
{
    return bytes.empty() ? kNoData : bytes.data();
}

const vxByteVector& noBytes()
{
    static const vxByteVector empty;
    return empty;
}

// ---- Algorithms fetched once per process ------------------------------------------------------

/** OpenSSL's name for each cipher of the interface, by its identifier in the interface's table;
 *  null for the identity cipher. */
namespace backendCipher {
constexpr const char* none = nullptr;
constexpr const char* aes128 = "AES-128-ECB";
constexpr const char* aes192 = "AES-192-ECB";
constexpr const char* aes256 = "AES-256-ECB";
} // namespace backendCipher

/** One cipher of the interface. */
struct cipherChoice
{
    const char* backend; ///< OpenSSL's name for it; null for the identity cipher
    uint32_t id;
    uint32_t keySize;
};

#define VX_OPENSSL_CIPHER(identifier, number, name, bytes) \
    {backendCipher::identifier, number, bytes},
constexpr cipherChoice kCiphers[] = {VX_CIPHER_ALGORITHMS(VX_OPENSSL_CIPHER)};
#undef VX_OPENSSL_CIPHER

/** The cipher of an id, or null for an unknown id. */
const cipherChoice* cipherOf(uint32_t id)
{
    for (const cipherChoice& choice : kCiphers) {
        if (choice.id == id) {
            return &choice;
        }
    }
    return nullptr;
}

/** The ciphers of the interface, fetched from the default provider on first use. Fetching is
 *  costly (a locked lookup in the method store), and an implicit fetch would repeat it on every
 *  key. The instance is a function-local static: built exactly once even when several threads
 *  race to the first use, and destroyed at exit before OpenSSL's own clean-up, which was
 *  registered earlier (at the latest while this constructor fetched). */
class fetchedAlgorithms
{
public:
    static const fetchedAlgorithms& get()
    {
        static const fetchedAlgorithms instance;
        return instance;
    }

    /** The ECB cipher behind `choice`, or null. */
    [[nodiscard]] const EVP_CIPHER* cipher(const cipherChoice& choice) const
    {
        return fetched[static_cast<size_t>(&choice - kCiphers)].get();
    }

    fetchedAlgorithms(const fetchedAlgorithms&) = delete;
    fetchedAlgorithms& operator=(const fetchedAlgorithms&) = delete;
    fetchedAlgorithms(fetchedAlgorithms&&) = delete;
    fetchedAlgorithms& operator=(fetchedAlgorithms&&) = delete;
    ~fetchedAlgorithms() = default;

private:
    fetchedAlgorithms()
    {
        for (size_t at = 0; at < std::size(kCiphers); ++at) {
            if (kCiphers[at].backend != nullptr) {
                fetched[at].reset(EVP_CIPHER_fetch(nullptr, kCiphers[at].backend, nullptr));
            }
        }
        // An algorithm the provider lacks stays null and its id is refused at Open.
        ERR_clear_error();
    }

    owned<EVP_CIPHER> fetched[std::size(kCiphers)]; ///< in the order of kCiphers
};

// ---- Digests ----------------------------------------------------------------------------------

/** Room for the context of any digest of the interface. */
union digestContext {
    MD5_CTX md5;
    SHA_CTX sha1;
    SHA256_CTX sha256;
    SHA512_CTX sha512; // also SHA-384's
};

/** One digest algorithm: the low-level functions behind a typeless context, and the size of
 *  what it hands out (the truncated SHA-256 keeps the first 16 of its 32 bytes). */
struct digestAlgorithm
{
    int (*init)(digestContext& ctx);
    int (*update)(digestContext& ctx, const void* data, size_t length);
    int (*final)(unsigned char* out, digestContext& ctx);
    size_t size;     ///< bytes handed out
    size_t fullSize; ///< bytes the function writes
};

/** Adapts the functions of one algorithm, whose context type is `Member` of the union. */
template <typename Ctx, Ctx digestContext::*Member, int (*Init)(Ctx*),
          int (*Update)(Ctx*, const void*, size_t), int (*Final)(unsigned char*, Ctx*)>
struct lowLevel
{
    static int init(digestContext& ctx) { return Init(&(ctx.*Member)); }

    static int update(digestContext& ctx, const void* data, size_t length)
    {
        return Update(&(ctx.*Member), data, length);
    }

    static int final(unsigned char* out, digestContext& ctx) { return Final(out, &(ctx.*Member)); }

    static constexpr digestAlgorithm algorithm(size_t size, size_t fullSize)
    {
        return {init, update, final, size, fullSize};
    }
};

using md5Functions = lowLevel<MD5_CTX, &digestContext::md5, MD5_Init, MD5_Update, MD5_Final>;
using sha1Functions = lowLevel<SHA_CTX, &digestContext::sha1, SHA1_Init, SHA1_Update, SHA1_Final>;
using sha256Functions =
    lowLevel<SHA256_CTX, &digestContext::sha256, SHA256_Init, SHA256_Update, SHA256_Final>;
using sha384Functions =
    lowLevel<SHA512_CTX, &digestContext::sha512, SHA384_Init, SHA384_Update, SHA384_Final>;
using sha512Functions =
    lowLevel<SHA512_CTX, &digestContext::sha512, SHA512_Init, SHA512_Update, SHA512_Final>;

/** Each digest of the interface, by its identifier in the interface's table. */
namespace digests {
constexpr digestAlgorithm md5 = md5Functions::algorithm(MD5_DIGEST_LENGTH, MD5_DIGEST_LENGTH);
constexpr digestAlgorithm sha1 = sha1Functions::algorithm(SHA_DIGEST_LENGTH, SHA_DIGEST_LENGTH);
constexpr digestAlgorithm sha256 =
    sha256Functions::algorithm(SHA256_DIGEST_LENGTH, SHA256_DIGEST_LENGTH);
constexpr digestAlgorithm sha384 =
    sha384Functions::algorithm(SHA384_DIGEST_LENGTH, SHA384_DIGEST_LENGTH);
constexpr digestAlgorithm sha512 =
    sha512Functions::algorithm(SHA512_DIGEST_LENGTH, SHA512_DIGEST_LENGTH);
/** The first half of SHA-256. */
constexpr digestAlgorithm sha256_128 =
    sha256Functions::algorithm(SHA256_DIGEST_LENGTH / 2, SHA256_DIGEST_LENGTH);
} // namespace digests

#define VX_OPENSSL_DIGEST_SIZE(identifier, number, name, bytes) \
    static_assert(digests::identifier.size == (bytes),          \
                  "the size of " name " differs from the table");
VX_DIGEST_ALGORITHMS(VX_OPENSSL_DIGEST_SIZE)
#undef VX_OPENSSL_DIGEST_SIZE

/** The algorithm of a digest id, or null for an unknown id. */
const digestAlgorithm* digestOf(uint32_t id)
{
    switch (id) {
#define VX_OPENSSL_DIGEST(identifier, number, name, bytes) \
    case number:                                           \
        return &digests::identifier;
        VX_DIGEST_ALGORITHMS(VX_OPENSSL_DIGEST)
#undef VX_OPENSSL_DIGEST
    default:
        return nullptr;
    }
}

// ---- Two MD5 digests side by side ------------------------------------------------------------

// MD5 pads a message with 0x80, zeros up to 56 bytes mod 64, then the message length in bits as a
// little-endian 64-bit number, and compresses it 64 bytes at a time from a fixed initial state.
constexpr size_t kMd5Block = MD5_CBLOCK;
constexpr vxmd5::chain kMd5Start = {0x67452301U, 0xefcdab89U, 0x98badcfeU, 0x10325476U};

/** The 32-bit word of the four bytes at `at`, least significant first. */
uint32_t getLittleEndian(const unsigned char* at)
{
    return uint32_t{at[0]} | (uint32_t{at[1]} << 8U) | (uint32_t{at[2]} << 16U) |
           (uint32_t{at[3]} << 24U);
}

/** One whole message on its way through MD5, one block at a time: the message's bytes, then
 *  0x80, zeros, and the length in bits in the last two words of the last block. */
class md5Message
{
public:
    md5Message(const unsigned char* data, size_t length)
        : message(data), size(length), blocks((length + 8) / kMd5Block + 1)
    {}

    md5Message(const md5Message&) = delete;
    md5Message& operator=(const md5Message&) = delete;
    md5Message(md5Message&&) = delete;
    md5Message& operator=(md5Message&&) = delete;

    // The words may hold key-derived bytes (the keyed digests feed their pads to MD5).
    ~md5Message()
    {
        std::memset(words, 0, sizeof words);
        asm volatile("" : : "r"(words) : "memory");
    }

    [[nodiscard]] bool done() const { return next == blocks; }

    /** The words of the next block; each call moves on by one block. */
    const vxmd5::block& take()
    {
        const size_t start = next * kMd5Block;
        std::memset(words, 0, sizeof words); // constant size: a few vector stores
        const size_t whole = size > start ? std::min<size_t>(16, (size - start) / 4) : 0;
        for (size_t i = 0; i < whole; ++i) {
            words[i] = getLittleEndian(message + start + 4 * i);
        }
        // The word that holds the message's last bytes, if fewer than four, and the 0x80.
        const size_t at = start + 4 * whole;
        if (whole < 16 && at <= size) {
            uint32_t word = 0x80U << (8 * (size - at));
            for (size_t k = 0; at + k < size; ++k) {
                word |= uint32_t{message[at + k]} << (8 * k);
            }
            words[whole] = word;
        }
        if (++next == blocks) {
            const uint64_t bits = uint64_t{size} * 8;
            words[14] = static_cast<uint32_t>(bits);
            words[15] = static_cast<uint32_t>(bits >> 32U);
        }
        return words;
    }

    /** The digest: the chaining words, least significant byte of A first. */
    void write(unsigned char* out) const
    {
        const uint32_t chaining[] = {state.a, state.b, state.c, state.d};
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        // One copy: built byte by byte, the compiler assembles the digest in a register pair
        // and reloads it whole, which stalls on the halves just stored.
        std::memcpy(out, chaining, sizeof chaining);
#else
        for (const uint32_t word : chaining) {
            for (unsigned shift = 0; shift < 32; shift += 8) {
                *out++ = static_cast<unsigned char>(word >> shift);
            }
        }
#endif
    }

    vxmd5::chain state = kMd5Start;

private:
    const unsigned char* message;
    size_t size;
    size_t blocks;
    size_t next = 0;
    vxmd5::block words = {};
};

/** The MD5 digests of two messages, their compressions run side by side. Once the shorter
 *  message is done, the longer one's blocks run beside a copy of themselves, whose result is
 *  dropped. */
void md5Pair(const unsigned char* firstData, size_t firstLength, unsigned char* firstOut,
             const unsigned char* secondData, size_t secondLength, unsigned char* secondOut)
{
    md5Message one(firstData, firstLength);
    md5Message two(secondData, secondLength);
    while (!one.done() && !two.done()) {
        const vxmd5::block& x1 = one.take();
        vxmd5::compressPair(one.state, x1, two.state, two.take());
    }
    md5Message& rest = one.done() ? two : one;
    while (!rest.done()) {
        vxmd5::chain spare = rest.state;
        const vxmd5::block& x = rest.take();
        vxmd5::compressPair(rest.state, x, spare, x);
    }
    one.write(firstOut);
    two.write(secondOut);
}

// ---- Per-object state behind vxPluginStorage::handle ------------------------------------------

/** Tags the state so that an entry point of one family never misreads another family's state. */
enum class stateKind : uint32_t
{
    digest = 0x76784D44,
    cipher = 0x76784349,
    rsa = 0x76785253,
    random = 0x76785244
};

struct pluginState
{
    explicit pluginState(stateKind k) : kind(k) {}

    pluginState(const pluginState&) = delete;
    pluginState& operator=(const pluginState&) = delete;
    pluginState(pluginState&&) = delete;
    pluginState& operator=(pluginState&&) = delete;
    virtual ~pluginState() = default;

    const stateKind kind;
};

/** The record's state if it is of family T, else null (unopened, closed or another family). */
template <typename T> T* stateOf(const vxPluginStorage* st)
{
    if (st == nullptr || st->handle == nullptr) {
        return nullptr;
    }
    auto* base = static_cast<pluginState*>(st->handle);
    return base->kind == T::kKind ? static_cast<T*>(base) : nullptr;
}

/** Destroys whatever state the record holds. The library's isopen flag is not touched. */
void releaseState(vxPluginStorage* st)
{
    if (st != nullptr) {
        delete static_cast<pluginState*>(st->handle);
        st->handle = nullptr;
    }
}

/** Hands a new state to the record, replacing (and destroying) any state it held before, so
 *  that opening a record twice does not leak. */
template <typename T> bool installState(vxPluginStorage* st, std::unique_ptr<T> state)
{
    releaseState(st);
    st->handle = static_cast<pluginState*>(state.release());
    return true;
}

/** One digest: a context held in the state and re-initialised for every message, so no message
 *  allocates. */
struct digestState final : pluginState
{
    static constexpr stateKind kKind = stateKind::digest;

    explicit digestState(const digestAlgorithm& chosen)
        : pluginState(kKind), algorithm(chosen), digest(chosen.size, 0)
    {}

    digestState(const digestState&) = delete;
    digestState& operator=(const digestState&) = delete;
    digestState(digestState&&) = delete;
    digestState& operator=(digestState&&) = delete;

    // The context may hold key-derived data (the keyed digests feed it their pads): wipe it.
    ~digestState() override { OPENSSL_cleanse(&ctx, sizeof ctx); }

    const digestAlgorithm& algorithm;
    digestContext ctx{};
    /** The output of the last Final, sized once at Open: all zeros until then. */
    vxByteVector digest;
    /** Set by Final, cleared by Init: a message is finished until the next one starts. */
    bool finished = false;
};

/** One block cipher. The key schedule is computed once per key, in both directions. */
struct cipherState final : pluginState
{
    static constexpr stateKind kKind = stateKind::cipher;

    cipherState(const EVP_CIPHER* algorithm, uint32_t size)
        : pluginState(kKind), cipher(algorithm), keySize(size)
    {}

    /** Null for the identity cipher "none", which needs no contexts. */
    const EVP_CIPHER* cipher;
    uint32_t keySize;
    owned<EVP_CIPHER_CTX> encrypt;
    owned<EVP_CIPHER_CTX> decrypt;
    bool keyed = false;
};

/** The reproducible generator behind test-mode reads: SplitMix64 (Steele, Lea and Flood, 2014)
 *  started from the state 0 at every Open. Each step adds 0x9E3779B97F4A7C15 to the state and
 *  mixes it into one 64-bit output word, delivered least significant byte first. The stream is
 *  continuous across reads (bytes of a word not yet delivered are kept for the next read), so a
 *  draw of 16 and then 16 bytes equals one draw of 32. It is only for reproducible tests: its
 *  output is predictable and must never be used where secrecy matters. */
class testGenerator
{
public:
    void fill(unsigned char* out, size_t count)
    {
        for (size_t i = 0; i < count; ++i) {
            if (left == 0) {
                word = next();
                left = sizeof word;
            }
            out[i] = static_cast<unsigned char>(word & 0xFFU);
            word >>= 8U;
            --left;
        }
    }

private:
    uint64_t next()
    {
        state += 0x9E3779B97F4A7C15ULL;
        uint64_t z = state;
        z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27U)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31U);
    }

    uint64_t state = 0;
    uint64_t word = 0;
    size_t left = 0;
};

/** One random source: the bytes of the last draw and the test-mode generator. */
struct randomState final : pluginState
{
    static constexpr stateKind kKind = stateKind::random;

    randomState() : pluginState(kKind) {}

    randomState(const randomState&) = delete;
    randomState& operator=(const randomState&) = delete;
    randomState(randomState&&) = delete;
    randomState& operator=(randomState&&) = delete;

    // The draws may be used as keys or IVs: wipe them with the object.
    ~randomState() override { OPENSSL_cleanse(bytes.data(), bytes.size()); }

    vxByteVector bytes;
    testGenerator generator;
};

/** One RSA key, public or private, or no key yet. */
struct rsaState final : pluginState
{
    static constexpr stateKind kKind = stateKind::rsa;

    rsaState() : pluginState(kKind) {}

    owned<EVP_PKEY> key;
    bool isPrivate = false;
    /** What the caller last asked for. OpenSSL 3 providers always blind private-key operations
     *  and the EVP interface offers no switch, so blinding in fact stays on (the safe choice);
     *  the flag is kept only to record the request. */
    bool blindingRequested = true;
};

// ---- OS random numbers ------------------------------------------------------------------------

/** Fills `out` from the kernel's CSPRNG. getrandom blocks only until the pool is first seeded;
 *  it may deliver fewer bytes than asked for (large requests, signals), hence the loop. */
bool osRandom(unsigned char* out, size_t count)
{
    while (count > 0) {
        const ssize_t got = getrandom(out, count, 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        out += got;
        count -= static_cast<size_t>(got);
    }
    return true;
}

// ---- RSA helpers ------------------------------------------------------------------------------

/** Reads a hexadecimal number text (either letter case). Refuses an empty text, a sign, any
 *  character that is not a hex digit (embedded zero bytes included) and the value zero, which
 *  is no valid RSA number. Secret numbers go to secure memory where OpenSSL has it. */
owned<BIGNUM> parseHex(const std::string& text, bool secret)
{
    owned<BIGNUM> number(secret ? BN_secure_new() : BN_new());
    if (!number || text.empty() || text.size() > INT_MAX / 4 || text[0] == '-') {
        return nullptr;
    }
    BIGNUM* target = number.get();
    if (BN_hex2bn(&target, text.c_str()) != static_cast<int>(text.size()) ||
        BN_is_zero(number.get()) == 1) {
        return nullptr;
    }
    return number;
}

owned<EVP_PKEY_CTX> keyContext(EVP_PKEY* key)
{
    return owned<EVP_PKEY_CTX>(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
}

/** Builds an RSA key from the parameters collected in `builder`. */
owned<EVP_PKEY> keyFromParams(OSSL_PARAM_BLD* builder, int selection)
{
    owned<OSSL_PARAM> params(OSSL_PARAM_BLD_to_param(builder));
    owned<EVP_PKEY_CTX> ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    EVP_PKEY* key = nullptr;
    if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
        EVP_PKEY_fromdata(ctx.get(), &key, selection, params.get()) != 1) {
        return nullptr;
    }
    return owned<EVP_PKEY>(key);
}

owned<EVP_PKEY> buildPublicKey(const std::string& nText, const std::string& eText)
{
    const owned<BIGNUM> n = parseHex(nText, false);
    const owned<BIGNUM> e = parseHex(eText, false);
    const owned<OSSL_PARAM_BLD> builder(OSSL_PARAM_BLD_new());
    if (!n || !e || !builder ||
        OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1 ||
        OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1) {
        return nullptr;
    }
    return keyFromParams(builder.get(), EVP_PKEY_PUBLIC_KEY);
}

/** The CRT values of a private key: d mod (p-1), d mod (q-1) and q^-1 mod p. Only N, E, P, Q
 *  and D travel through the interface, but OpenSSL wants a complete key (without these values
 *  the import fails, and the key check tests them). */
struct crtValues
{
    owned<BIGNUM> dmp1{BN_secure_new()};
    owned<BIGNUM> dmq1{BN_secure_new()};
    owned<BIGNUM> iqmp{BN_secure_new()};
};

bool computeCrt(const BIGNUM* p, const BIGNUM* q, const BIGNUM* d, crtValues& crt)
{
    const owned<BN_CTX> ctx(BN_CTX_secure_new());
    const owned<BIGNUM> pMinus1(BN_secure_new());
    const owned<BIGNUM> qMinus1(BN_secure_new());
    // BN_mod fails on a zero divisor, so a prime of 1 is refused here.
    return ctx && pMinus1 && qMinus1 && crt.dmp1 && crt.dmq1 && crt.iqmp &&
           BN_copy(pMinus1.get(), p) != nullptr && BN_sub_word(pMinus1.get(), 1) == 1 &&
           BN_copy(qMinus1.get(), q) != nullptr && BN_sub_word(qMinus1.get(), 1) == 1 &&
           BN_mod(crt.dmp1.get(), d, pMinus1.get(), ctx.get()) == 1 &&
           BN_mod(crt.dmq1.get(), d, qMinus1.get(), ctx.get()) == 1 &&
           BN_mod_inverse(crt.iqmp.get(), q, p, ctx.get()) != nullptr;
}

owned<EVP_PKEY> buildPrivateKey(const std::string& nText, const std::string& eText,
                                const std::string& pText, const std::string& qText,
                                const std::string& dText)
{
    const owned<BIGNUM> n = parseHex(nText, false);
    const owned<BIGNUM> e = parseHex(eText, false);
    const owned<BIGNUM> p = parseHex(pText, true);
    const owned<BIGNUM> q = parseHex(qText, true);
    const owned<BIGNUM> d = parseHex(dText, true);
    crtValues crt;
    if (!n || !e || !p || !q || !d || !computeCrt(p.get(), q.get(), d.get(), crt)) {
        return nullptr;
    }
    const owned<OSSL_PARAM_BLD> builder(OSSL_PARAM_BLD_new());
    const std::pair<const char*, const BIGNUM*> numbers[] = {
        {OSSL_PKEY_PARAM_RSA_N, n.get()},
        {OSSL_PKEY_PARAM_RSA_E, e.get()},
        {OSSL_PKEY_PARAM_RSA_D, d.get()},
        {OSSL_PKEY_PARAM_RSA_FACTOR1, p.get()},
        {OSSL_PKEY_PARAM_RSA_FACTOR2, q.get()},
        {OSSL_PKEY_PARAM_RSA_EXPONENT1, crt.dmp1.get()},
        {OSSL_PKEY_PARAM_RSA_EXPONENT2, crt.dmq1.get()},
        {OSSL_PKEY_PARAM_RSA_COEFFICIENT1, crt.iqmp.get()}};
    if (!builder) {
        return nullptr;
    }
    for (const auto& [paramName, value] : numbers) {
        if (OSSL_PARAM_BLD_push_BN(builder.get(), paramName, value) != 1) {
            return nullptr;
        }
    }
    return keyFromParams(builder.get(), EVP_PKEY_KEYPAIR);
}

/** Makes `key` the object's key; a key counts as private when it carries a private exponent. */
void installKey(rsaState& state, owned<EVP_PKEY> key)
{
    BIGNUM* d = nullptr;
    state.isPrivate =
        EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_RSA_D, &d) == 1 && BN_is_zero(d) == 0;
    BN_clear_free(d);
    // A public key has no D; the failed lookup must not linger in the error queue.
    ERR_clear_error();
    state.key = std::move(key);
}

uint32_t keyBytes(const rsaState& state)
{
    const int size = state.key ? EVP_PKEY_get_size(state.key.get()) : 0;
    return size > 0 ? static_cast<uint32_t>(size) : 0;
}

/** OAEP as OpenSSL defaults it (SHA-1 for the label hash and for MGF1), stated explicitly so
 *  that a changed default cannot silently break compatibility with existing peers. */
bool useOaep(EVP_PKEY_CTX* ctx)
{
    return EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_OAEP_PADDING) == 1 &&
           EVP_PKEY_CTX_set_rsa_oaep_md_name(ctx, "SHA1", nullptr) == 1 &&
           EVP_PKEY_CTX_set_rsa_mgf1_md_name(ctx, "SHA1", nullptr) == 1;
}

/** Starts a signature or verification: RSASSA-PKCS1-v1_5 over SHA-256. */
bool startSignature(EVP_MD_CTX* ctx, EVP_PKEY* key, bool sign)
{
    EVP_PKEY_CTX* pctx = nullptr; // owned by ctx
    const int started =
        sign ? EVP_DigestSignInit_ex(ctx, &pctx, "SHA256", nullptr, nullptr, key, nullptr)
             : EVP_DigestVerifyInit_ex(ctx, &pctx, "SHA256", nullptr, nullptr, key, nullptr);
    return started == 1 && EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PADDING) == 1;
}

/** `blocks` consecutive blocks of `in` into `out`, which may be `in`. */
bool runCipherBlocks(vxPluginStorage* st, const unsigned char* in, unsigned char* out,
                     uint32_t blocks, bool encrypt)
{
    auto* state = stateOf<cipherState>(st);
    constexpr auto kMostBlocks = static_cast<uint32_t>(INT_MAX / kBlockSize); // an int length
    if (state == nullptr || blocks > kMostBlocks ||
        (blocks > 0 && (in == nullptr || out == nullptr))) {
        return false;
    }
    const size_t size = size_t{blocks} * kBlockSize;
    if (state->cipher == nullptr) {
        if (size > 0) {
            std::memmove(out, in, size);
        }
        return true;
    }
    if (!state->keyed) {
        return false;
    }
    // ECB without padding on whole blocks: EVP_Cipher hands them straight to the provider's
    // cipher, without the buffering bookkeeping of EVP_EncryptUpdate, which this path never
    // needs (no partial block is ever kept back). It returns 1 on success for a provider cipher.
    EVP_CIPHER_CTX* ctx = encrypt ? state->encrypt.get() : state->decrypt.get();
    if (size > 0 && EVP_Cipher(ctx, out, in, static_cast<unsigned int>(size)) <= 0) {
        return fail();
    }
    return true;
}

bool runCipherBlock(vxPluginStorage* st, const vxByteVector* in, vxByteVector* out, bool encrypt)
{
    const auto* state = stateOf<cipherState>(st);
    if (state == nullptr || in == nullptr || out == nullptr || in->size() != kBlockSize ||
        (state->cipher != nullptr && !state->keyed)) {
        return false;
    }
    return catchNoMemory(false, [&] {
        out->resize(kBlockSize); // no-op when `out` is `in`, or already holds a block
        return runCipherBlocks(st, in->data(), out->data(), 1, encrypt);
    });
}

bool scheduleKey(EVP_CIPHER_CTX* ctx, const EVP_CIPHER* cipher, const unsigned char* key,
                 int encrypt)
{
    return EVP_CipherInit_ex2(ctx, cipher, key, nullptr, encrypt, nullptr) == 1 &&
           EVP_CIPHER_CTX_set_padding(ctx, 0) == 1;
}

} // namespace

// ---- Entry points ------------------------------------------------------------------------------

// Every entry point is declared from the interface's own table, so a signature cannot drift
// from what the library calls; the static_asserts below check the definitions as well.
#define VX_OPENSSL_DECLARE(entry, asked, result, params) \
    VX_PLUGIN_EXPORT result openssl_##entry params;
VX_PLUGIN_ENTRY_POINTS(VX_OPENSSL_DECLARE)
#undef VX_OPENSSL_DECLARE

VX_PLUGIN_EXPORT bool vx_init(veltrix::pluginLoader* loader, veltrix::vxPluginProvides* provides);

// ---- Digests ----

VX_PLUGIN_EXPORT bool openssl_vxPluginMdOpen(vxPluginStorage* st, uint32_t algorithm)
{
    const digestAlgorithm* chosen = digestOf(algorithm);
    if (st == nullptr || chosen == nullptr) {
        return false;
    }
    return catchNoMemory(false, [st, chosen] {
        auto state = std::make_unique<digestState>(*chosen);
        // Started at once, so that an Update before the first Init is still well defined.
        if (chosen->init(state->ctx) != 1) {
            return fail();
        }
        return installState(st, std::move(state));
    });
}

VX_PLUGIN_EXPORT bool openssl_vxPluginMdInit(vxPluginStorage* st)
{
    auto* state = stateOf<digestState>(st);
    if (state == nullptr) {
        return false;
    }
    state->finished = false;
    return state->algorithm.init(state->ctx) == 1 || fail();
}

VX_PLUGIN_EXPORT bool openssl_vxPluginMdClose(vxPluginStorage* st)
{
    releaseState(st);
    return true;
}

VX_PLUGIN_EXPORT bool openssl_vxPluginMdFinal(vxPluginStorage* st)
{
    auto* state = stateOf<digestState>(st);
    if (state == nullptr) {
        return false;
    }
    if (state->finished) {
        return true; // a repeated Final keeps the digest of the finished message
    }
    const digestAlgorithm& algorithm = state->algorithm;
    if (algorithm.size == algorithm.fullSize) {
        // Straight into the output: this is the path of every keyed digest of the transport.
        if (algorithm.final(state->digest.data(), state->ctx) != 1) {
            return fail();
        }
    } else {
        unsigned char full[SHA512_DIGEST_LENGTH];
        if (algorithm.final(full, state->ctx) != 1) {
            return fail();
        }
        std::memcpy(state->digest.data(), full, algorithm.size);
        OPENSSL_cleanse(full, sizeof full);
    }
    state->finished = true;
    return true;
}

VX_PLUGIN_EXPORT bool openssl_vxPluginMdUpdate(vxPluginStorage* st, const unsigned char* data,
                                               uint32_t length)
{
    auto* state = stateOf<digestState>(st);
    if (state == nullptr || state->finished || (data == nullptr && length > 0)) {
        return false;
    }
    if (length == 0) {
        return true;
    }
    return state->algorithm.update(state->ctx, data, length) == 1 || fail();
}

VX_PLUGIN_EXPORT bool openssl_vxPluginMdDigestPair(vxPluginStorage* first,
                                                   const unsigned char* firstData,
                                                   uint32_t firstLength, vxPluginStorage* second,
                                                   const unsigned char* secondData,
                                                   uint32_t secondLength)
{
    auto* one = stateOf<digestState>(first);
    auto* two = stateOf<digestState>(second);
    if (one == nullptr || two == nullptr || (firstData == nullptr && firstLength > 0) ||
        (secondData == nullptr && secondLength > 0)) {
        return false;
    }
    if (one == two || &one->algorithm != &digests::md5 || &two->algorithm != &digests::md5) {
        // Nothing to run side by side: the same digests one after the other.
        const auto whole = [](vxPluginStorage* st, const unsigned char* data, uint32_t length) {
            return openssl_vxPluginMdInit(st) && openssl_vxPluginMdUpdate(st, data, length) &&
                   openssl_vxPluginMdFinal(st);
        };
        return whole(first, firstData, firstLength) && whole(second, secondData, secondLength);
    }
    md5Pair(firstData, firstLength, one->digest.data(), secondData, secondLength,
            two->digest.data());
    // Finished, as after Final: the contexts wait for the next Init.
    one->finished = true;
    two->finished = true;
    return true;
}

VX_PLUGIN_EXPORT const vxByteVector* openssl_vxPluginMdDigest(vxPluginStorage* st)
{
    const auto* state = stateOf<digestState>(st);
    return state != nullptr ? &state->digest : &noBytes();
}

VX_PLUGIN_EXPORT uint32_t openssl_vxPluginMdDigestSize(vxPluginStorage* st)
{
    const auto* state = stateOf<digestState>(st);
    return state != nullptr ? static_cast<uint32_t>(state->digest.size()) : 0;
}

// ---- Block ciphers ----

VX_PLUGIN_EXPORT bool openssl_vxPluginCipherOpen(vxPluginStorage* st, uint32_t algorithm)
{
    const cipherChoice* choice = cipherOf(algorithm);
    if (st == nullptr || choice == nullptr) {
        return false;
    }
    return catchNoMemory(false, [st, choice] {
        if (choice->backend == nullptr) {
            return installState(st, std::make_unique<cipherState>(nullptr, choice->keySize));
        }
        const EVP_CIPHER* cipher = fetchedAlgorithms::get().cipher(*choice);
        if (cipher == nullptr) {
            return false;
        }
        auto state = std::make_unique<cipherState>(cipher, choice->keySize);
        state->encrypt.reset(EVP_CIPHER_CTX_new());
        state->decrypt.reset(EVP_CIPHER_CTX_new());
        if (!state->encrypt || !state->decrypt) {
            return fail();
        }
        return installState(st, std::move(state));
    });
}

VX_PLUGIN_EXPORT bool openssl_vxPluginCipherClose(vxPluginStorage* st)
{
    // The cipher contexts wipe their key schedules when freed.
    releaseState(st);
    return true;
}

VX_PLUGIN_EXPORT bool openssl_vxPluginCipherSetKey(vxPluginStorage* st, const vxByteVector* key)
{
    auto* state = stateOf<cipherState>(st);
    if (state == nullptr || key == nullptr || key->size() != state->keySize) {
        return false; // a key of the wrong length leaves the previous key in place
    }
    if (state->cipher == nullptr) {
        state->keyed = true;
        return true;
    }
    // Both schedules are computed here, once per key, never per block.
    state->keyed = false;
    if (!scheduleKey(state->encrypt.get(), state->cipher, key->data(), 1) ||
        !scheduleKey(state->decrypt.get(), state->cipher, key->data(), 0)) {
        return fail();
    }
    state->keyed = true;
    return true;
}

VX_PLUGIN_EXPORT uint32_t openssl_vxPluginCipherGetKeySize(vxPluginStorage* st)
{
    const auto* state = stateOf<cipherState>(st);
    return state != nullptr ? state->keySize : 0;
}

VX_PLUGIN_EXPORT uint32_t openssl_vxPluginCipherGetBlockSize(vxPluginStorage* st)
{
    return stateOf<cipherState>(st) != nullptr ? static_cast<uint32_t>(kBlockSize) : 0;
}

VX_PLUGIN_EXPORT bool openssl_vxPluginCipherDecryptBlock(vxPluginStorage* st,
                                                         const vxByteVector* in, vxByteVector* out)
{
    return runCipherBlock(st, in, out, false);
}

VX_PLUGIN_EXPORT bool openssl_vxPluginCipherEncryptBlock(vxPluginStorage* st,
                                                         const vxByteVector* in, vxByteVector* out)
{
    return runCipherBlock(st, in, out, true);
}

VX_PLUGIN_EXPORT bool openssl_vxPluginCipherEncryptBlocks(vxPluginStorage* st,
                                                          const unsigned char* in,
                                                          unsigned char* out, uint32_t blocks)
{
    return runCipherBlocks(st, in, out, blocks, true);
}

VX_PLUGIN_EXPORT bool openssl_vxPluginCipherDecryptBlocks(vxPluginStorage* st,
                                                          const unsigned char* in,
                                                          unsigned char* out, uint32_t blocks)
{
    return runCipherBlocks(st, in, out, blocks, false);
}

// ---- RSA ----

VX_PLUGIN_EXPORT bool openssl_vxPluginRsaOpen(vxPluginStorage* st)
{
    if (st == nullptr) {
        return false;
    }
    return catchNoMemory(false, [st] { return installState(st, std::make_unique<rsaState>()); });
}

VX_PLUGIN_EXPORT bool openssl_vxPluginRsaSign(vxPluginStorage* st, const vxByteVector* message,
                                              vxByteVector* signature)
{
    const auto* state = stateOf<rsaState>(st);
    if (state == nullptr || !state->isPrivate || message == nullptr || signature == nullptr) {
        return false;
    }
    return catchNoMemory(false, [state, message, signature] {
        // Signed into a local vector first: `signature` may be the very vector of `message`.
        vxByteVector result(keyBytes(*state));
        size_t length = result.size();
        const owned<EVP_MD_CTX> ctx(EVP_MD_CTX_new());
        if (!ctx || !startSignature(ctx.get(), state->key.get(), true)) {
            return fail();
        }
        const unsigned char* data = dataOf(*message);
        if (EVP_DigestSign(ctx.get(), result.data(), &length, data, message->size()) != 1) {
            return fail();
        }
        result.resize(length);
        *signature = std::move(result);
        return true;
    });
}

VX_PLUGIN_EXPORT bool openssl_vxPluginRsaClose(vxPluginStorage* st)
{
    releaseState(st);
    return true;
}

VX_PLUGIN_EXPORT bool openssl_vxPluginRsaVerify(vxPluginStorage* st, const vxByteVector* message,
                                                const vxByteVector* signature)
{
    const auto* state = stateOf<rsaState>(st);
    if (state == nullptr || !state->key || message == nullptr || signature == nullptr) {
        return false;
    }
    const owned<EVP_MD_CTX> ctx(EVP_MD_CTX_new());
    if (!ctx || !startSignature(ctx.get(), state->key.get(), false) ||
        EVP_DigestVerify(ctx.get(), dataOf(*signature), signature->size(), dataOf(*message),
                         message->size()) != 1) {
        return fail();
    }
    return true;
}

VX_PLUGIN_EXPORT uint32_t openssl_vxPluginRsaKeySize(vxPluginStorage* st, uint32_t* size)
{
    const auto* state = stateOf<rsaState>(st);
    const uint32_t bytes = state != nullptr ? keyBytes(*state) : 0;
    if (size != nullptr) {
        *size = bytes;
    }
    return bytes;
}

VX_PLUGIN_EXPORT bool openssl_vxPluginRsaKeyCheck(vxPluginStorage* st)
{
    const auto* state = stateOf<rsaState>(st);
    if (state == nullptr || !state->key) {
        return false;
    }
    // A private key is checked whole (primes, exponents, CRT values, n = p * q); a public key
    // only as far as N and E allow.
    const owned<EVP_PKEY_CTX> ctx = keyContext(state->key.get());
    if (!ctx) {
        return fail();
    }
    const int checked =
        state->isPrivate ? EVP_PKEY_check(ctx.get()) : EVP_PKEY_public_check(ctx.get());
    return checked == 1 || fail();
}

VX_PLUGIN_EXPORT bool openssl_vxPluginRsaIsPublic(vxPluginStorage* st)
{
    const auto* state = stateOf<rsaState>(st);
    return state != nullptr && state->key != nullptr;
}

VX_PLUGIN_EXPORT bool openssl_vxPluginRsaIsPrivate(vxPluginStorage* st)
{
    const auto* state = stateOf<rsaState>(st);
    return state != nullptr && state->key != nullptr && state->isPrivate;
}

VX_PLUGIN_EXPORT bool openssl_vxPluginRsaBlindingOn(vxPluginStorage* st)
{
    auto* state = stateOf<rsaState>(st);
    if (state == nullptr || !state->key) {
        return false;
    }
    state->blindingRequested = true;
    return true;
}

VX_PLUGIN_EXPORT bool openssl_vxPluginRsaBlindingOff(vxPluginStorage* st)
{
    auto* state = stateOf<rsaState>(st);
    if (state == nullptr || !state->key) {
        return false;
    }
    // Recorded only: OpenSSL keeps blinding private-key operations regardless (see rsaState).
    state->blindingRequested = false;
    return true;
}

VX_PLUGIN_EXPORT std::string* openssl_vxPluginRsaGetExponent(vxPluginStorage* st, int index)
{
    // Upper-case hexadecimal as BN_bn2hex writes it (whole bytes, so 65537 reads "010001"),
    // the same form MakeKeyFromExps reads back. A number that is absent (the private numbers
    // of a public key, no key at all, an unknown index) reads "0": the text is never empty.
    return catchNoMemory(nullptr, [st, index] {
        auto text = std::make_unique<std::string>("0");
        const auto* state = stateOf<rsaState>(st);
        if (state == nullptr || !state->key || index < 1 || index > kRsaNumberCount) {
            return text.release();
        }
        BIGNUM* raw = nullptr;
        if (EVP_PKEY_get_bn_param(state->key.get(), kRsaNumberNames[index - 1], &raw) != 1) {
            (void)fail();
            return text.release();
        }
        const owned<BIGNUM> number(raw);
        const owned<char> hex(BN_bn2hex(number.get()));
        if (hex && hex.get()[0] != '\0') {
            *text = hex.get();
        }
        return text.release();
    });
}

VX_PLUGIN_EXPORT int openssl_vxPluginRsaPublicEncrypt(vxPluginStorage* st, uint32_t length,
                                                      const unsigned char* in, unsigned char* out)
{
    const auto* state = stateOf<rsaState>(st);
    if (state == nullptr || !state->key || out == nullptr || (in == nullptr && length > 0)) {
        return -1;
    }
    size_t written = keyBytes(*state);
    const owned<EVP_PKEY_CTX> ctx = keyContext(state->key.get());
    if (!ctx || EVP_PKEY_encrypt_init(ctx.get()) != 1 || !useOaep(ctx.get()) ||
        EVP_PKEY_encrypt(ctx.get(), out, &written, in != nullptr ? in : kNoData, length) != 1) {
        (void)fail();
        return -1;
    }
    return static_cast<int>(written);
}

VX_PLUGIN_EXPORT int openssl_vxPluginRsaPrivateDecrypt(vxPluginStorage* st, const unsigned char* in,
                                                       unsigned char* out)
{
    const auto* state = stateOf<rsaState>(st);
    if (state == nullptr || !state->isPrivate || in == nullptr || out == nullptr) {
        return -1;
    }
    // The input is one block of the key's size; `out` has room for as much.
    const size_t blockSize = keyBytes(*state);
    size_t written = blockSize;
    const owned<EVP_PKEY_CTX> ctx = keyContext(state->key.get());
    if (!ctx || EVP_PKEY_decrypt_init(ctx.get()) != 1 || !useOaep(ctx.get()) ||
        EVP_PKEY_decrypt(ctx.get(), out, &written, in, blockSize) != 1) {
        (void)fail();
        return -1;
    }
    return static_cast<int>(written);
}

VX_PLUGIN_EXPORT bool openssl_vxPluginRsaGeneratePrivate(vxPluginStorage* st, uint32_t bits)
{
    auto* state = stateOf<rsaState>(st);
    if (state == nullptr || bits > INT_MAX) {
        return false;
    }
    const owned<EVP_PKEY_CTX> ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    const owned<BIGNUM> exponent(BN_new());
    EVP_PKEY* key = nullptr;
    // OpenSSL refuses sizes it cannot make safely (below 512 bits) by itself.
    if (!ctx || !exponent || BN_set_word(exponent.get(), kRsaPublicExponent) != 1 ||
        EVP_PKEY_keygen_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), static_cast<int>(bits)) != 1 ||
        EVP_PKEY_CTX_set1_rsa_keygen_pubexp(ctx.get(), exponent.get()) != 1 ||
        EVP_PKEY_generate(ctx.get(), &key) != 1) {
        return fail(); // the previous key, if any, stays
    }
    installKey(*state, owned<EVP_PKEY>(key));
    return true;
}

VX_PLUGIN_EXPORT bool openssl_vxPluginRsaMakeKeyFromExps(vxPluginStorage* st, const std::string* n,
                                                         const std::string* e, const std::string* p,
                                                         const std::string* q, const std::string* d)
{
    auto* state = stateOf<rsaState>(st);
    if (state == nullptr || n == nullptr || e == nullptr || p == nullptr || q == nullptr ||
        d == nullptr) {
        return false;
    }
    // Empty P, Q and D ask for a public key; a private key needs all three (a partial set is
    // refused by the number reader). The old key is replaced only once the new one is built.
    const bool isPublic = p->empty() && q->empty() && d->empty();
    owned<EVP_PKEY> key = isPublic ? buildPublicKey(*n, *e) : buildPrivateKey(*n, *e, *p, *q, *d);
    if (!key) {
        return fail();
    }
    installKey(*state, std::move(key));
    return true;
}

// ---- Random numbers ----

VX_PLUGIN_EXPORT bool openssl_vxPluginRandOpen(vxPluginStorage* st, bool testMode)
{
    // The flag does not choose the generator: only the test-mode argument of each Read does,
    // so a source opened with any flag draws from the OS unless a read asks otherwise.
    (void)testMode;
    if (st == nullptr) {
        return false;
    }
    // A fresh state also restarts the test-mode generator from its fixed seed.
    return catchNoMemory(false, [st] { return installState(st, std::make_unique<randomState>()); });
}

VX_PLUGIN_EXPORT bool openssl_vxPluginRandRead(vxPluginStorage* st, uint32_t count, bool testMode)
{
    auto* state = stateOf<randomState>(st);
    if (state == nullptr) {
        return false;
    }
    const bool sized = catchNoMemory(false, [state, count] {
        state->bytes.resize(count);
        return true;
    });
    if (!sized) {
        state->bytes.clear();
        return false;
    }
    if (testMode) {
        state->generator.fill(state->bytes.data(), state->bytes.size());
        return true;
    }
    if (!osRandom(state->bytes.data(), state->bytes.size())) {
        state->bytes.clear(); // never hand out a partly filled draw
        return false;
    }
    return true;
}

VX_PLUGIN_EXPORT bool openssl_vxPluginRandClose(vxPluginStorage* st)
{
    releaseState(st);
    return true;
}

VX_PLUGIN_EXPORT const vxByteVector* openssl_vxPluginRandGetBytes(vxPluginStorage* st)
{
    const auto* state = stateOf<randomState>(st);
    return state != nullptr ? &state->bytes : &noBytes();
}

VX_PLUGIN_EXPORT uint32_t openssl_vxPluginRandGetNumFromZero(vxPluginStorage* st, int limit)
{
    (void)st; // always drawn from the OS, so no state is needed
    // The range [0, limit) is empty for a limit of 0 or less; such a limit yields 0, the only
    // value a caller counting from zero can always accept, rather than an error the interface
    // has no way to report.
    if (limit <= 0) {
        return 0;
    }
    const auto bound = static_cast<uint32_t>(limit);
    // Rejection sampling: of the 2^32 possible draws, the lowest (2^32 mod bound) are refused,
    // leaving a multiple of `bound` values, so that `draw % bound` has no modulo bias. At most
    // half of all draws can be refused, so the loop ends quickly.
    const uint32_t refused = (0U - bound) % bound;
    for (;;) {
        uint32_t draw = 0;
        if (!osRandom(reinterpret_cast<unsigned char*>(&draw), sizeof draw)) {
            return 0; // the OS source failed; there is no error path in this entry point
        }
        if (draw >= refused) {
            return draw % bound;
        }
    }
}

// ---- Signature checks and announcement ----

#define VX_OPENSSL_CHECK_SIGNATURE(entry, asked, result, params)                  \
    static_assert(std::is_same_v<decltype(&openssl_##entry), veltrix::entry##_t>, \
                  "openssl_" #entry " does not match the entry-point table");
VX_PLUGIN_ENTRY_POINTS(VX_OPENSSL_CHECK_SIGNATURE)
#undef VX_OPENSSL_CHECK_SIGNATURE
static_assert(std::is_same_v<decltype(&vx_init), veltrix::vx_init_t>,
              "vx_init does not match its declared type");

// The names of all entry points, in the order of the interface's table.
constexpr const char* kEntryPointNames[] = {
#define VX_OPENSSL_NAME(entry, asked, result, params) #entry,
    VX_PLUGIN_ENTRY_POINTS(VX_OPENSSL_NAME)
#undef VX_OPENSSL_NAME
};

/** Names the plug-in and announces every entry point of the interface, straight from its table
 *  so that none can be forgotten. */
VX_PLUGIN_EXPORT bool vx_init(veltrix::pluginLoader* /*loader*/,
                              veltrix::vxPluginProvides* provides)
{
    if (provides == nullptr) {
        return false;
    }
    return catchNoMemory(false, [provides] {
        provides->name = kPluginName;
        provides->version = kPluginVersion;
        for (const char* entry : kEntryPointNames) {
            if (!provides->AddSymbol(entry)) {
                return false;
            }
        }
        return true;
    });
}
