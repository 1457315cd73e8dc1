// crypto_bench: the library's hot crypto paths, each beside the same work done directly with
// OpenSSL 3, and a table of the library/direct time ratios. How it measures: bench/README.md.
#include "benchCommon.h"

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace veltrix;
using namespace vxbench;

namespace {

constexpr size_t kDigestMessageSize = 64;
constexpr size_t kKeyedMessageSize = 48;
constexpr size_t kKeyedKeySize = 16;
constexpr size_t kAesBlockSize = 16;
constexpr size_t kAes128KeySize = 16;

struct evpFree
{
    void operator()(EVP_MD* p) const { EVP_MD_free(p); }

    void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }

    void operator()(EVP_CIPHER* p) const { EVP_CIPHER_free(p); }

    void operator()(EVP_CIPHER_CTX* p) const { EVP_CIPHER_CTX_free(p); }
};

template <typename T> using evpOwned = std::unique_ptr<T, evpFree>;

const char* evpDigestName(uint32_t hash)
{
    return hash == vxHashId::md5 ? "MD5" : "SHA256";
}

// ---- The library's side ----------------------------------------------------------------------

/** An algorithm identifier and one library object opened on it, once for every iteration; both
 *  closed, the object first, at the end of the scope. */
template <class Id, class Object> class libraryObject
{
public:
    libraryObject(benchFrame& frame, uint32_t algorithm)
    {
        ready = frame.openChild(id, algorithm) && frame.openChild(object, id);
    }

    LVX_NOT_COPYABLE(libraryObject);

    ~libraryObject()
    {
        closeIfOpen(object);
        closeIfOpen(id);
    }

    bool ready = false;

protected:
    Id id;
    Object object;
};

/** One vxMd; a message is Init, Update, Final and GetBytes into a reused buffer. */
class libraryDigest : public libraryObject<vxHashId, vxMd>
{
public:
    using libraryObject::libraryObject;

    bool run(const vxBytes& message, vxBytes& value)
    {
        return object.Init() && object.Update(message) && object.Final() && object.GetBytes(value);
    }
};

/** One vxCipher, keyed once; a block is one Encrypt into a reused buffer. */
class libraryCipher : public libraryObject<vxCipherId, vxCipher>
{
public:
    libraryCipher(benchFrame& frame, const vxBytes& key) : libraryObject(frame, vxCipherId::aes128)
    {
        ready = ready && object.SetKey(key);
    }

    bool run(const vxBytes& in, vxBytes& out) { return object.Encrypt(in, out); }
};

/** One vxHmacMd; a message is SetKey, Init, Update, Final and GetBytes. */
class libraryKeyed : public libraryObject<vxHashId, vxHmacMd>
{
public:
    using libraryObject::libraryObject;

    bool run(const vxBytes& key, const vxBytes& message, vxBytes& value)
    {
        return object.SetKey(key) && object.Init() && object.Update(message) && object.Final() &&
               object.GetBytes(value);
    }
};

// ---- The same work directly with OpenSSL ------------------------------------------------------

/** A fetched digest and one context reused for every message. */
class directDigest
{
public:
    explicit directDigest(uint32_t hash)
        : md(EVP_MD_fetch(nullptr, evpDigestName(hash), nullptr)), ctx(EVP_MD_CTX_new())
    {
        ready = md && ctx;
    }

    bool run(const unsigned char* data, size_t size, unsigned char* value, unsigned int& length)
    {
        return EVP_DigestInit_ex2(ctx.get(), md.get(), nullptr) == 1 &&
               EVP_DigestUpdate(ctx.get(), data, size) == 1 &&
               EVP_DigestFinal_ex(ctx.get(), value, &length) == 1;
    }

    bool ready = false;

private:
    evpOwned<EVP_MD> md;
    evpOwned<EVP_MD_CTX> ctx;
};

/** A fetched AES-128-ECB and one encryption context keyed once, without padding. */
class directCipher
{
public:
    explicit directCipher(const unsigned char* key)
        : cipher(EVP_CIPHER_fetch(nullptr, "AES-128-ECB", nullptr)), ctx(EVP_CIPHER_CTX_new())
    {
        ready = cipher && ctx &&
                EVP_EncryptInit_ex2(ctx.get(), cipher.get(), key, nullptr, nullptr) == 1 &&
                EVP_CIPHER_CTX_set_padding(ctx.get(), 0) == 1;
    }

    bool run(const unsigned char* in, unsigned char* out)
    {
        int produced = 0;
        return EVP_EncryptUpdate(ctx.get(), out, &produced, in, static_cast<int>(kAesBlockSize)) ==
                   1 &&
               produced == static_cast<int>(kAesBlockSize);
    }

    bool ready = false;

private:
    evpOwned<EVP_CIPHER> cipher;
    evpOwned<EVP_CIPHER_CTX> ctx;
};

/** The library's keyed digest built directly: value = H((K xor 0x36) || m), then the outer
 *  H((K xor 0x5C) || value) that the library computes and discards. Two contexts, as the
 *  library has; the pads are derived from the key for every message, as SetKey does. */
class directKeyed
{
public:
    explicit directKeyed(uint32_t hash)
        : md(EVP_MD_fetch(nullptr, evpDigestName(hash), nullptr)), inner(EVP_MD_CTX_new()),
          outer(EVP_MD_CTX_new())
    {
        ready = md && inner && outer;
    }

    bool run(const unsigned char* key, const unsigned char* data, size_t size, unsigned char* value,
             unsigned int& length)
    {
        for (size_t i = 0; i < kKeyedKeySize; ++i) {
            innerPad[i] = static_cast<unsigned char>(key[i] ^ 0x36U);
            outerPad[i] = static_cast<unsigned char>(key[i] ^ 0x5CU);
        }
        unsigned int outerLength = 0;
        return EVP_DigestInit_ex2(inner.get(), md.get(), nullptr) == 1 &&
               EVP_DigestInit_ex2(outer.get(), md.get(), nullptr) == 1 &&
               EVP_DigestUpdate(inner.get(), innerPad.data(), innerPad.size()) == 1 &&
               EVP_DigestUpdate(inner.get(), data, size) == 1 &&
               EVP_DigestFinal_ex(inner.get(), value, &length) == 1 &&
               EVP_DigestUpdate(outer.get(), outerPad.data(), outerPad.size()) == 1 &&
               EVP_DigestUpdate(outer.get(), value, length) == 1 &&
               EVP_DigestFinal_ex(outer.get(), outerValue.data(), &outerLength) == 1;
    }

    bool ready = false;

private:
    evpOwned<EVP_MD> md;
    evpOwned<EVP_MD_CTX> inner;
    evpOwned<EVP_MD_CTX> outer;
    std::array<unsigned char, kKeyedKeySize> innerPad{};
    std::array<unsigned char, kKeyedKeySize> outerPad{};
    std::array<unsigned char, EVP_MAX_MD_SIZE> outerValue{};
};

// ---- Inputs shared by both sides ---------------------------------------------------------------

struct benchInputs
{
    vxBytes digestMessage = asBytes(pattern(kDigestMessageSize, 1));
    vxBytes keyedMessage = asBytes(pattern(kKeyedMessageSize, 2));
    vxBytes keyedKey = asBytes(pattern(kKeyedKeySize, 3));
    vxBytes aesKey = asBytes(pattern(kAes128KeySize, 4));
    vxBytes aesBlock = asBytes(pattern(kAesBlockSize, 5));
};

// ---- Benchmarks ------------------------------------------------------------------------------

void benchLibraryDigest(benchmark::State& state, benchFrame& frame, const benchInputs& in,
                        uint32_t hash)
{
    libraryDigest digest(frame, hash);
    vxBytes value;
    value.bytes.reserve(EVP_MAX_MD_SIZE);
    timeSteps(state, digest.ready, "the library digest", kDigestMessageSize, value.bytes.data(),
              [&] { return digest.run(in.digestMessage, value); });
}

void benchDirectDigest(benchmark::State& state, const benchInputs& in, uint32_t hash)
{
    directDigest digest(hash);
    std::array<unsigned char, EVP_MAX_MD_SIZE> value{};
    unsigned int length = 0;
    const unsigned char* data = in.digestMessage.bytes.data();
    timeSteps(state, digest.ready, "the OpenSSL digest", kDigestMessageSize, value.data(),
              [&] { return digest.run(data, kDigestMessageSize, value.data(), length); });
}

void benchLibraryCipher(benchmark::State& state, benchFrame& frame, const benchInputs& in)
{
    libraryCipher cipher(frame, in.aesKey);
    vxBytes out;
    out.bytes.reserve(kAesBlockSize);
    timeSteps(state, cipher.ready, "the library cipher", kAesBlockSize, out.bytes.data(),
              [&] { return cipher.run(in.aesBlock, out); });
}

void benchDirectCipher(benchmark::State& state, const benchInputs& in)
{
    directCipher cipher(in.aesKey.bytes.data());
    std::array<unsigned char, kAesBlockSize> out{};
    const unsigned char* block = in.aesBlock.bytes.data();
    timeSteps(state, cipher.ready, "the OpenSSL cipher", kAesBlockSize, out.data(),
              [&] { return cipher.run(block, out.data()); });
}

void benchLibraryKeyed(benchmark::State& state, benchFrame& frame, const benchInputs& in,
                       uint32_t hash)
{
    libraryKeyed mac(frame, hash);
    vxBytes value;
    value.bytes.reserve(EVP_MAX_MD_SIZE);
    timeSteps(state, mac.ready, "the library keyed digest", kKeyedMessageSize, value.bytes.data(),
              [&] { return mac.run(in.keyedKey, in.keyedMessage, value); });
}

void benchDirectKeyed(benchmark::State& state, const benchInputs& in, uint32_t hash)
{
    directKeyed mac(hash);
    std::array<unsigned char, EVP_MAX_MD_SIZE> value{};
    unsigned int length = 0;
    const unsigned char* key = in.keyedKey.bytes.data();
    const unsigned char* data = in.keyedMessage.bytes.data();
    timeSteps(state, mac.ready, "the OpenSSL keyed digest", kKeyedMessageSize, value.data(),
              [&] { return mac.run(key, data, kKeyedMessageSize, value.data(), length); });
}

// ---- Agreement check before timing -----------------------------------------------------------

bool agree(const char* what, const std::vector<unsigned char>& library, const unsigned char* direct,
           size_t directSize)
{
    if (library.size() == directSize && std::equal(library.begin(), library.end(), direct)) {
        return true;
    }
    std::cerr << "crypto_bench: the library and OpenSSL disagree on " << what << "\n";
    return false;
}

/** Every library path computes exactly what its direct counterpart computes. */
bool checkAgreement(benchFrame& frame, const benchInputs& in)
{
    bool ok = true;
    for (const uint32_t hash : {vxHashId::md5, vxHashId::sha256}) {
        std::array<unsigned char, EVP_MAX_MD_SIZE> expected{};
        unsigned int length = 0;
        vxBytes value;

        libraryDigest digest(frame, hash);
        directDigest reference(hash);
        ok = ok && digest.ready && reference.ready && digest.run(in.digestMessage, value) &&
             reference.run(in.digestMessage.bytes.data(), kDigestMessageSize, expected.data(),
                           length) &&
             agree("a digest", value.bytes, expected.data(), length);

        libraryKeyed mac(frame, hash);
        directKeyed keyedReference(hash);
        ok = ok && mac.ready && keyedReference.ready &&
             mac.run(in.keyedKey, in.keyedMessage, value) &&
             keyedReference.run(in.keyedKey.bytes.data(), in.keyedMessage.bytes.data(),
                                kKeyedMessageSize, expected.data(), length) &&
             agree("a keyed digest", value.bytes, expected.data(), length);
    }
    libraryCipher cipher(frame, in.aesKey);
    directCipher reference(in.aesKey.bytes.data());
    std::array<unsigned char, kAesBlockSize> expected{};
    vxBytes out;
    ok = ok && cipher.ready && reference.ready && cipher.run(in.aesBlock, out) &&
         reference.run(in.aesBlock.bytes.data(), expected.data()) &&
         agree("an AES-128 block", out.bytes, expected.data(), expected.size());
    return ok;
}

// ---- Pairs and the ratio table -----------------------------------------------------------------

const std::vector<benchPair> kPairs = {
    {"MD5, 64-byte message", "digest/md5_64B/library", "digest/md5_64B/openssl", 1.5},
    {"SHA-256, 64-byte message", "digest/sha256_64B/library", "digest/sha256_64B/openssl", 1.5},
    {"AES-128, one block", "cipher/aes128_block/library", "cipher/aes128_block/openssl", 3.0},
    {"keyed SHA-256, 48 bytes", "keyed/sha256_48B/library", "keyed/sha256_48B/openssl", 2.0},
    {"keyed MD5, 48 bytes", "keyed/md5_48B/library", "keyed/md5_48B/openssl", 2.0},
};

void registerBenchmarks(benchFrame& frame, const benchInputs& in)
{
    const std::pair<uint32_t, const benchPair*> digests[] = {{vxHashId::md5, &kPairs[0]},
                                                             {vxHashId::sha256, &kPairs[1]}};
    for (const auto& [hash, pair] : digests) {
        registerPair(
            *pair,
            [&frame, &in, hash = hash](auto& state) { benchLibraryDigest(state, frame, in, hash); },
            [&in, hash = hash](auto& state) { benchDirectDigest(state, in, hash); });
    }
    registerPair(
        kPairs[2], [&frame, &in](auto& state) { benchLibraryCipher(state, frame, in); },
        [&in](auto& state) { benchDirectCipher(state, in); });
    const std::pair<uint32_t, const benchPair*> keyed[] = {{vxHashId::sha256, &kPairs[3]},
                                                           {vxHashId::md5, &kPairs[4]}};
    for (const auto& [hash, pair] : keyed) {
        registerPair(
            *pair,
            [&frame, &in, hash = hash](auto& state) { benchLibraryKeyed(state, frame, in, hash); },
            [&in, hash = hash](auto& state) { benchDirectKeyed(state, in, hash); });
    }
}

} // namespace

int main(int argc, char** argv)
{
    const benchInputs inputs;
    return runBenchmarks(argc, argv, "crypto_bench", VX_PLUGIN_DIR, kPairs, [&](benchFrame& frame) {
        if (!checkAgreement(frame, inputs)) {
            return false;
        }
        registerBenchmarks(frame, inputs);
        return true;
    });
}
