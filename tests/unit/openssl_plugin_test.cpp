// Direct tests of the OpenSSL crypto plug-in. The plug-in file is opened with dlopen and every
// entry point is called through its exported symbol, the way the library's registry calls it,
// but without the library's crypto objects. Digests and AES are checked against published known
// answers; RSA is also checked against the openssl command line tool in both directions.

#include "pluginLoader.h"
#include "vxPlugin.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#ifndef VX_PLUGIN_DIR
#error "VX_PLUGIN_DIR must name the directory that holds libveltrix_openssl.so"
#endif

namespace {

using veltrix::vxByteVector;
using veltrix::vxPluginStorage;

constexpr const char* kPluginFile = VX_PLUGIN_DIR "/libveltrix_openssl.so";

// ---- Binding the plug-in ----------------------------------------------------------------------

/** One typed address per entry point, resolved from "openssl_" + the entry-point name. */
struct entryPoints
{
#define VX_TEST_ENTRY_FIELD(entry, result, params) veltrix::entry##_t entry = nullptr;
    VX_PLUGIN_ENTRY_POINTS(VX_TEST_ENTRY_FIELD)
#undef VX_TEST_ENTRY_FIELD
    veltrix::vx_init_t init = nullptr;
};

struct loadedPlugin
{
    void* handle = nullptr;
    std::string error;
    std::vector<std::string> missing;
    entryPoints api;
};

loadedPlugin& plugin()
{
    static loadedPlugin instance;
    return instance;
}

const entryPoints& api()
{
    return plugin().api;
}

/** dlsym's object address as a function address (POSIX guarantees the conversion). */
template <typename Function> Function lookUp(void* handle, const std::string& name)
{
    void* address = dlsym(handle, name.c_str());
    Function function = nullptr;
    static_assert(sizeof function == sizeof address);
    std::memcpy(&function, &address, sizeof function);
    return function;
}

/** Opens the plug-in once for the whole run and closes it at the end. RTLD_NOW makes a symbol
 *  the plug-in cannot resolve fail here rather than in the middle of a test. */
class pluginEnvironment : public ::testing::Environment
{
public:
    void SetUp() override
    {
        loadedPlugin& p = plugin();
        p.handle = dlopen(kPluginFile, RTLD_NOW | RTLD_LOCAL);
        if (p.handle == nullptr) {
            const char* reason = dlerror();
            p.error = reason != nullptr ? reason : "dlopen failed";
            return;
        }
#define VX_TEST_ENTRY_BIND(entry, result, params)                          \
    p.api.entry = lookUp<veltrix::entry##_t>(p.handle, "openssl_" #entry); \
    if (p.api.entry == nullptr) {                                          \
        p.missing.emplace_back(#entry);                                    \
    }
        VX_PLUGIN_ENTRY_POINTS(VX_TEST_ENTRY_BIND)
#undef VX_TEST_ENTRY_BIND
        p.api.init = lookUp<veltrix::vx_init_t>(p.handle, "vx_init");
    }

    void TearDown() override
    {
        loadedPlugin& p = plugin();
        if (p.handle != nullptr) {
            EXPECT_EQ(dlclose(p.handle), 0);
            p.handle = nullptr;
        }
    }
};

const ::testing::Environment* const registeredEnvironment =
    ::testing::AddGlobalTestEnvironment(new pluginEnvironment);

/** Every test needs the plug-in with all of its entry points. */
class OpensslPlugin : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_NE(plugin().handle, nullptr) << kPluginFile << ": " << plugin().error;
        ASSERT_TRUE(plugin().missing.empty()) << "missing: openssl_" << plugin().missing.front();
    }
};

// ---- Storage records and byte helpers ---------------------------------------------------------

using closeFunction = bool (*)(vxPluginStorage*);

/** A storage record as a crypto object embeds it. `isopen` is written from Open's result, as
 *  the library does, and Close runs however the test ends. */
class record
{
public:
    explicit record(closeFunction closeEntry) : close(closeEntry) {}

    record(const record&) = delete;
    record& operator=(const record&) = delete;
    record(record&&) = delete;
    record& operator=(record&&) = delete;

    ~record()
    {
        if (close != nullptr) {
            close(&storage);
        }
    }

    vxPluginStorage* get() { return &storage; }

    vxPluginStorage storage;

private:
    closeFunction close;
};

std::string toHex(const unsigned char* data, size_t size)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += digits[data[i] >> 4U];
        text += digits[data[i] & 0x0FU];
    }
    return text;
}

std::string toHex(const vxByteVector& bytes)
{
    return toHex(bytes.data(), bytes.size());
}

vxByteVector fromHex(const std::string& text)
{
    vxByteVector bytes;
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

vxByteVector bytesOf(const std::string& text)
{
    return vxByteVector(text.begin(), text.end());
}

std::string takeText(std::string* text)
{
    const std::unique_ptr<std::string> owned(text);
    return owned ? *owned : std::string("(null)");
}

// ---- Digests ----------------------------------------------------------------------------------

constexpr uint32_t kMd5 = 1;
constexpr uint32_t kSha1 = 2;
constexpr uint32_t kSha256 = 3;
constexpr uint32_t kSha512 = 4;
constexpr uint32_t kSha384 = 5;
constexpr uint32_t kSha256Half = 19;

const std::string kMillionA(1000, 'a'); // hashed 1000 times
const std::string kTwoBlock448 = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
const std::string kTwoBlock896 = "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmn"
                                 "hijklmnoijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu";

/** The digest of `message` repeated `times` times, as lower-case hex. */
std::string digestHex(uint32_t id, const std::string& message, int times = 1)
{
    record md(api().vxPluginMdClose);
    md.storage.isopen = api().vxPluginMdOpen(md.get(), id);
    if (!md.storage.isopen || !api().vxPluginMdInit(md.get())) {
        return "(open or init failed)";
    }
    const auto* data = reinterpret_cast<const unsigned char*>(message.data());
    for (int i = 0; i < times; ++i) {
        if (!api().vxPluginMdUpdate(md.get(), data, static_cast<uint32_t>(message.size()))) {
            return "(update failed)";
        }
    }
    if (!api().vxPluginMdFinal(md.get())) {
        return "(final failed)";
    }
    const vxByteVector* digest = api().vxPluginMdDigest(md.get());
    const uint32_t size = api().vxPluginMdDigestSize(md.get());
    if (digest == nullptr || digest->size() < size) {
        return "(digest vector shorter than the digest size)";
    }
    return toHex(digest->data(), size);
}

// RFC 1321, appendix A.5.
TEST_F(OpensslPlugin, Md5Rfc1321Suite)
{
    EXPECT_EQ(digestHex(kMd5, ""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(digestHex(kMd5, "a"), "0cc175b9c0f1b6a831c399e269772661");
    EXPECT_EQ(digestHex(kMd5, "abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(digestHex(kMd5, "message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(digestHex(kMd5, "abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
    EXPECT_EQ(digestHex(kMd5, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
              "d174ab98d277d9f5a5611c2c9f419d9f");
    EXPECT_EQ(digestHex(kMd5, "1234567890", 8), "57edf4a22be3c955ac49da2e2107b67a");
}

// FIPS 180-4 examples (NIST CSRC) and the long-message test of FIPS 180-2 appendix B.3.
TEST_F(OpensslPlugin, Sha1Fips180)
{
    EXPECT_EQ(digestHex(kSha1, ""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(digestHex(kSha1, "abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(digestHex(kSha1, kTwoBlock448), "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
    EXPECT_EQ(digestHex(kSha1, kMillionA, 1000), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST_F(OpensslPlugin, Sha256Fips180)
{
    EXPECT_EQ(digestHex(kSha256, ""),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(digestHex(kSha256, "abc"),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(digestHex(kSha256, kTwoBlock448),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(digestHex(kSha256, kMillionA, 1000),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST_F(OpensslPlugin, Sha384Fips180)
{
    EXPECT_EQ(digestHex(kSha384, ""), "38b060a751ac96384cd9327eb1b1e36a21fdb71114be0743"
                                      "4c0cc7bf63f6e1da274edebfe76f65fbd51ad2f14898b95b");
    EXPECT_EQ(digestHex(kSha384, "abc"), "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded163"
                                         "1a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7");
    EXPECT_EQ(digestHex(kSha384, kTwoBlock896), "09330c33f71147e83d192fc782cd1b4753111b173b3b05d2"
                                                "2fa08086e3b0f712fcc7c71a557e2db966c3e9fa91746039");
    EXPECT_EQ(digestHex(kSha384, kMillionA, 1000),
              "9d0e1809716474cb086e834e310a4a1ced149e9c00f248527972cec5704c2a5b"
              "07b8b3dc38ecc4ebae97ddd87f3d8985");
}

TEST_F(OpensslPlugin, Sha512Fips180)
{
    EXPECT_EQ(digestHex(kSha512, ""),
              "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
              "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e");
    EXPECT_EQ(digestHex(kSha512, "abc"),
              "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
              "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f");
    EXPECT_EQ(digestHex(kSha512, kTwoBlock896),
              "8e959b75dae313da8cf4f72814fc143f8f7779c6eb9f7fa17299aeadb6889018"
              "501d289e4900f7e4331b99dec4b5433ac7d329eeb6dd26545e96e55b874be909");
    EXPECT_EQ(digestHex(kSha512, kMillionA, 1000),
              "e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973eb"
              "de0ff244877ea60a4cb0432ce577c31beb009c5c2c49aa2e4eadb217ad8cc09b");
}

TEST_F(OpensslPlugin, Sha256HalfIsTheFirstSixteenBytesOfSha256)
{
    EXPECT_EQ(digestHex(kSha256Half, "abc"), "ba7816bf8f01cfea414140de5dae2223");
    EXPECT_EQ(digestHex(kSha256Half, ""), "e3b0c44298fc1c149afbf4c8996fb924");
    for (const std::string& message : {std::string("message digest"), kTwoBlock448}) {
        EXPECT_EQ(digestHex(kSha256Half, message), digestHex(kSha256, message).substr(0, 32));
    }
    EXPECT_EQ(digestHex(kSha256Half, kMillionA, 1000), "cdc76e5c9914fb9281a1c7e284d73e67");
}

TEST_F(OpensslPlugin, DigestSizes)
{
    const std::pair<uint32_t, uint32_t> sizes[] = {{kMd5, 16},    {kSha1, 20},   {kSha256, 32},
                                                   {kSha512, 64}, {kSha384, 48}, {kSha256Half, 16}};
    for (const auto& [id, size] : sizes) {
        record md(api().vxPluginMdClose);
        ASSERT_TRUE(api().vxPluginMdOpen(md.get(), id)) << id;
        EXPECT_EQ(api().vxPluginMdDigestSize(md.get()), size) << id;
        // Before the first Final the vector already holds the digest size, all zeros.
        const vxByteVector* digest = api().vxPluginMdDigest(md.get());
        ASSERT_NE(digest, nullptr);
        ASSERT_GE(digest->size(), size);
        EXPECT_EQ(vxByteVector(digest->begin(), digest->begin() + size), vxByteVector(size, 0));
    }
}

TEST_F(OpensslPlugin, UnknownDigestIdsAreRefused)
{
    for (const uint32_t id : {0U, 6U, 7U, 18U, 20U, 0xFFFFFFFFU}) {
        record md(api().vxPluginMdClose);
        EXPECT_FALSE(api().vxPluginMdOpen(md.get(), id)) << id;
        EXPECT_EQ(md.storage.handle, nullptr) << "nothing is allocated for id " << id;
        EXPECT_EQ(api().vxPluginMdDigestSize(md.get()), 0U);
        ASSERT_NE(api().vxPluginMdDigest(md.get()), nullptr);
        EXPECT_TRUE(api().vxPluginMdDigest(md.get())->empty());
    }
}

TEST_F(OpensslPlugin, DigestMessagesRestartAtInit)
{
    record md(api().vxPluginMdClose);
    ASSERT_TRUE(api().vxPluginMdOpen(md.get(), kSha256));
    const auto feed = [&md](const std::string& text) {
        return api().vxPluginMdUpdate(md.get(), reinterpret_cast<const unsigned char*>(text.data()),
                                      static_cast<uint32_t>(text.size()));
    };
    const std::string abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

    ASSERT_TRUE(api().vxPluginMdInit(md.get()));
    EXPECT_TRUE(feed("discarded"));
    ASSERT_TRUE(api().vxPluginMdInit(md.get()));
    EXPECT_TRUE(feed("a"));
    EXPECT_TRUE(feed(""));
    EXPECT_TRUE(feed("bc"));
    ASSERT_TRUE(api().vxPluginMdFinal(md.get()));
    EXPECT_EQ(toHex(*api().vxPluginMdDigest(md.get())), abc);

    // A second Final without Init must be harmless; Update waits for the next Init.
    (void)api().vxPluginMdFinal(md.get());
    EXPECT_EQ(api().vxPluginMdDigest(md.get())->size(), 32U);
    EXPECT_FALSE(feed("late"));

    ASSERT_TRUE(api().vxPluginMdInit(md.get()));
    EXPECT_TRUE(feed("abc"));
    ASSERT_TRUE(api().vxPluginMdFinal(md.get()));
    EXPECT_EQ(toHex(*api().vxPluginMdDigest(md.get())), abc);
}

TEST_F(OpensslPlugin, DigestRecordLifecycle)
{
    record md(api().vxPluginMdClose);
    // An unopened record is refused without a crash.
    EXPECT_FALSE(api().vxPluginMdInit(md.get()));
    EXPECT_FALSE(api().vxPluginMdUpdate(md.get(), reinterpret_cast<const unsigned char*>("x"), 1));
    EXPECT_FALSE(api().vxPluginMdFinal(md.get()));
    EXPECT_TRUE(api().vxPluginMdClose(md.get()));

    // Opening again replaces the earlier state (no leak), and the library's flag is untouched.
    md.storage.isopen = true;
    ASSERT_TRUE(api().vxPluginMdOpen(md.get(), kMd5));
    ASSERT_TRUE(api().vxPluginMdOpen(md.get(), kSha1));
    EXPECT_EQ(api().vxPluginMdDigestSize(md.get()), 20U);
    EXPECT_TRUE(api().vxPluginMdClose(md.get()));
    EXPECT_EQ(md.storage.handle, nullptr);
    EXPECT_TRUE(md.storage.isopen);
    EXPECT_TRUE(api().vxPluginMdClose(md.get())); // closing twice is harmless
}

// ---- Block ciphers ----------------------------------------------------------------------------

constexpr uint32_t kNone = 1;
constexpr uint32_t kAes128 = 2;
constexpr uint32_t kAes192 = 3;
constexpr uint32_t kAes256 = 4;

struct aesVector
{
    uint32_t id;
    const char* key;
    const char* cipherText;
};

// FIPS 197, appendix C (C.1, C.2, C.3), all on the same plaintext.
const char* const kFips197Plain = "00112233445566778899aabbccddeeff";
const aesVector kFips197[] = {
    {kAes128, "000102030405060708090a0b0c0d0e0f", "69c4e0d86a7b0430d8cdb78070b4c55a"},
    {kAes192, "000102030405060708090a0b0c0d0e0f1011121314151617",
     "dda97ca4864cdfe06eaf70a0ec0d7191"},
    {kAes256, "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f",
     "8ea2b7ca516745bfeafc49904b496089"}};

TEST_F(OpensslPlugin, AesFips197AppendixC)
{
    for (const aesVector& v : kFips197) {
        record cipher(api().vxPluginCipherClose);
        cipher.storage.isopen = api().vxPluginCipherOpen(cipher.get(), v.id);
        ASSERT_TRUE(cipher.storage.isopen) << v.id;
        const vxByteVector key = fromHex(v.key);
        EXPECT_EQ(api().vxPluginCipherGetKeySize(cipher.get()), key.size());
        EXPECT_EQ(api().vxPluginCipherGetBlockSize(cipher.get()), 16U);
        ASSERT_TRUE(api().vxPluginCipherSetKey(cipher.get(), &key));

        const vxByteVector plain = fromHex(kFips197Plain);
        vxByteVector encrypted;
        vxByteVector decrypted;
        // Several blocks in a row: the key schedule of SetKey serves them all.
        for (int round = 0; round < 3; ++round) {
            ASSERT_TRUE(api().vxPluginCipherEncryptBlock(cipher.get(), &plain, &encrypted));
            EXPECT_EQ(toHex(encrypted), v.cipherText);
            ASSERT_TRUE(api().vxPluginCipherDecryptBlock(cipher.get(), &encrypted, &decrypted));
            EXPECT_EQ(toHex(decrypted), kFips197Plain);
        }
        // In place, with input and output the same vector.
        vxByteVector block = plain;
        ASSERT_TRUE(api().vxPluginCipherEncryptBlock(cipher.get(), &block, &block));
        EXPECT_EQ(toHex(block), v.cipherText);
        ASSERT_TRUE(api().vxPluginCipherDecryptBlock(cipher.get(), &block, &block));
        EXPECT_EQ(toHex(block), kFips197Plain);
    }
}

TEST_F(OpensslPlugin, AesRekeyAndOutputSizing)
{
    record cipher(api().vxPluginCipherClose);
    ASSERT_TRUE(api().vxPluginCipherOpen(cipher.get(), kAes128));
    const vxByteVector plain = fromHex(kFips197Plain);
    vxByteVector out(40, 0xEE); // longer than a block: cut to one block
    const vxByteVector otherKey(16, 0x42);
    const vxByteVector key = fromHex(kFips197[0].key);

    EXPECT_FALSE(api().vxPluginCipherEncryptBlock(cipher.get(), &plain, &out)) << "no key yet";
    ASSERT_TRUE(api().vxPluginCipherSetKey(cipher.get(), &otherKey));
    ASSERT_TRUE(api().vxPluginCipherEncryptBlock(cipher.get(), &plain, &out));
    EXPECT_EQ(out.size(), 16U);
    EXPECT_NE(toHex(out), kFips197[0].cipherText);
    ASSERT_TRUE(api().vxPluginCipherSetKey(cipher.get(), &key));
    ASSERT_TRUE(api().vxPluginCipherEncryptBlock(cipher.get(), &plain, &out));
    EXPECT_EQ(toHex(out), kFips197[0].cipherText);
}

TEST_F(OpensslPlugin, AesRefusesWrongKeyAndBlockLengths)
{
    for (const aesVector& v : kFips197) {
        record cipher(api().vxPluginCipherClose);
        ASSERT_TRUE(api().vxPluginCipherOpen(cipher.get(), v.id));
        const size_t good = fromHex(v.key).size();
        for (const size_t length : {size_t{0}, size_t{15}, size_t{17}, size_t{24}, size_t{32}}) {
            if (length != good) {
                const vxByteVector key(length, 1);
                EXPECT_FALSE(api().vxPluginCipherSetKey(cipher.get(), &key)) << length;
            }
        }
        EXPECT_FALSE(api().vxPluginCipherSetKey(cipher.get(), nullptr));
        const vxByteVector key = fromHex(v.key);
        ASSERT_TRUE(api().vxPluginCipherSetKey(cipher.get(), &key));
        for (const size_t length : {size_t{0}, size_t{1}, size_t{15}, size_t{17}, size_t{32}}) {
            const vxByteVector in(length, 7);
            vxByteVector out;
            EXPECT_FALSE(api().vxPluginCipherEncryptBlock(cipher.get(), &in, &out)) << length;
            EXPECT_FALSE(api().vxPluginCipherDecryptBlock(cipher.get(), &in, &out)) << length;
        }
        // A refused key length kept the good key in place.
        const vxByteVector plain = fromHex(kFips197Plain);
        vxByteVector out;
        ASSERT_TRUE(api().vxPluginCipherEncryptBlock(cipher.get(), &plain, &out));
        EXPECT_EQ(toHex(out), v.cipherText);
    }
}

TEST_F(OpensslPlugin, NoneCipherIsTheIdentity)
{
    record cipher(api().vxPluginCipherClose);
    ASSERT_TRUE(api().vxPluginCipherOpen(cipher.get(), kNone));
    EXPECT_EQ(api().vxPluginCipherGetKeySize(cipher.get()), 16U);
    EXPECT_EQ(api().vxPluginCipherGetBlockSize(cipher.get()), 16U);
    const vxByteVector key(16, 0x5A);
    const vxByteVector shortKey(15, 0x5A);
    EXPECT_TRUE(api().vxPluginCipherSetKey(cipher.get(), &key));
    EXPECT_FALSE(api().vxPluginCipherSetKey(cipher.get(), &shortKey));

    const vxByteVector plain = fromHex(kFips197Plain);
    vxByteVector out;
    ASSERT_TRUE(api().vxPluginCipherEncryptBlock(cipher.get(), &plain, &out));
    EXPECT_EQ(out, plain);
    out.clear();
    ASSERT_TRUE(api().vxPluginCipherDecryptBlock(cipher.get(), &plain, &out));
    EXPECT_EQ(out, plain);
    vxByteVector block = plain;
    ASSERT_TRUE(api().vxPluginCipherEncryptBlock(cipher.get(), &block, &block));
    EXPECT_EQ(block, plain);

    const vxByteVector odd(17, 1);
    EXPECT_FALSE(api().vxPluginCipherEncryptBlock(cipher.get(), &odd, &out));
}

TEST_F(OpensslPlugin, CipherRecordLifecycle)
{
    for (const uint32_t id : {0U, 5U, 6U, 0xFFFFFFFFU}) {
        record cipher(api().vxPluginCipherClose);
        EXPECT_FALSE(api().vxPluginCipherOpen(cipher.get(), id)) << id;
        EXPECT_EQ(cipher.storage.handle, nullptr);
    }
    record cipher(api().vxPluginCipherClose);
    const vxByteVector key(16, 1);
    const vxByteVector block(16, 2);
    vxByteVector out;
    EXPECT_EQ(api().vxPluginCipherGetKeySize(cipher.get()), 0U);
    EXPECT_EQ(api().vxPluginCipherGetBlockSize(cipher.get()), 0U);
    EXPECT_FALSE(api().vxPluginCipherSetKey(cipher.get(), &key));
    EXPECT_FALSE(api().vxPluginCipherEncryptBlock(cipher.get(), &block, &out));
    EXPECT_TRUE(api().vxPluginCipherClose(cipher.get()));

    ASSERT_TRUE(api().vxPluginCipherOpen(cipher.get(), kAes256));
    ASSERT_TRUE(api().vxPluginCipherOpen(cipher.get(), kAes128)); // replaces the first state
    EXPECT_EQ(api().vxPluginCipherGetKeySize(cipher.get()), 16U);
    // A digest entry point does not mistake the cipher's state for its own.
    EXPECT_EQ(api().vxPluginMdDigestSize(cipher.get()), 0U);
}

// ---- Random source ----------------------------------------------------------------------------

vxByteVector draw(vxPluginStorage* st, uint32_t count, bool testMode)
{
    if (!api().vxPluginRandRead(st, count, testMode)) {
        return {};
    }
    return *api().vxPluginRandGetBytes(st);
}

TEST_F(OpensslPlugin, RandomDrawsOfTwoObjectsDiffer)
{
    record first(api().vxPluginRandClose);
    record second(api().vxPluginRandClose);
    first.storage.isopen = api().vxPluginRandOpen(first.get(), true);
    second.storage.isopen = api().vxPluginRandOpen(second.get(), true);
    ASSERT_TRUE(first.storage.isopen && second.storage.isopen);

    const vxByteVector a = draw(first.get(), 32, false);
    const vxByteVector b = draw(second.get(), 32, false);
    ASSERT_EQ(a.size(), 32U);
    ASSERT_EQ(b.size(), 32U);
    EXPECT_NE(a, b); // equal with probability 2^-256
    EXPECT_NE(a, draw(first.get(), 32, false));
    // A large draw crosses getrandom's single-call limit for some kernels.
    EXPECT_EQ(draw(first.get(), 100000, false).size(), 100000U);
}

TEST_F(OpensslPlugin, RandomTestModeIsReproducible)
{
    record first(api().vxPluginRandClose);
    record second(api().vxPluginRandClose);
    ASSERT_TRUE(api().vxPluginRandOpen(first.get(), false));
    ASSERT_TRUE(api().vxPluginRandOpen(second.get(), true)); // the flag does not matter

    // The documented generator: SplitMix64 from state 0, words least significant byte first.
    // Its first two outputs are 0xE220A8397B1DCDAF and 0x6E789E6AA1B965F4.
    const vxByteVector a = draw(first.get(), 32, true);
    EXPECT_EQ(toHex(vxByteVector(a.begin(), a.begin() + 16)), "afcd1d7b39a820e2f465b9a16a9e786e");
    // Another object yields the same stream, also when it is drawn in pieces.
    vxByteVector b = draw(second.get(), 5, true);
    const vxByteVector rest = draw(second.get(), 27, true);
    b.insert(b.end(), rest.begin(), rest.end());
    EXPECT_EQ(a, b);
    // Reopening restarts the stream.
    ASSERT_TRUE(api().vxPluginRandOpen(second.get(), true));
    EXPECT_EQ(draw(second.get(), 32, true), a);
    // OS draws are not taken from it.
    EXPECT_NE(draw(first.get(), 32, false), a);
}

TEST_F(OpensslPlugin, RandomBytesFollowTheLastRead)
{
    record rand(api().vxPluginRandClose);
    const vxByteVector* bytes = api().vxPluginRandGetBytes(rand.get());
    ASSERT_NE(bytes, nullptr) << "an unopened record still yields a vector";
    EXPECT_TRUE(bytes->empty());
    EXPECT_FALSE(api().vxPluginRandRead(rand.get(), 16, false)) << "unopened";
    EXPECT_FALSE(api().vxPluginRandRead(rand.get(), 16, true)) << "unopened";

    ASSERT_TRUE(api().vxPluginRandOpen(rand.get(), true));
    EXPECT_TRUE(api().vxPluginRandGetBytes(rand.get())->empty()) << "before any read";
    ASSERT_TRUE(api().vxPluginRandRead(rand.get(), 16, false));
    EXPECT_EQ(api().vxPluginRandGetBytes(rand.get())->size(), 16U);
    ASSERT_TRUE(api().vxPluginRandRead(rand.get(), 0, false));
    EXPECT_TRUE(api().vxPluginRandGetBytes(rand.get())->empty()) << "after Read(0)";
    EXPECT_TRUE(api().vxPluginRandClose(rand.get()));
    EXPECT_EQ(rand.storage.handle, nullptr);
}

TEST_F(OpensslPlugin, RandomNumbersStayInRange)
{
    record rand(api().vxPluginRandClose);
    ASSERT_TRUE(api().vxPluginRandOpen(rand.get(), true));
    for (const int limit : {1, 2, 3, 7, 10, 255, 256, 1000, 65537, INT_MAX}) {
        std::set<uint32_t> seen;
        for (int i = 0; i < 200; ++i) {
            const uint32_t number = api().vxPluginRandGetNumFromZero(rand.get(), limit);
            ASSERT_LT(number, static_cast<uint32_t>(limit)) << limit;
            seen.insert(number);
        }
        if (limit == 2) {
            EXPECT_EQ(seen.size(), 2U); // both values within 200 draws (misses: 2^-199)
        }
    }
    for (const int limit : {0, -1, -1000, INT_MIN}) {
        EXPECT_EQ(api().vxPluginRandGetNumFromZero(rand.get(), limit), 0U) << limit;
    }
}

// ---- RSA --------------------------------------------------------------------------------------

/** The five numbers of a key, by exponent index 1..5. */
struct rsaNumbers
{
    std::string n, e, p, q, d;
};

rsaNumbers exportNumbers(vxPluginStorage* st)
{
    return {takeText(api().vxPluginRsaGetExponent(st, 1)),
            takeText(api().vxPluginRsaGetExponent(st, 2)),
            takeText(api().vxPluginRsaGetExponent(st, 3)),
            takeText(api().vxPluginRsaGetExponent(st, 4)),
            takeText(api().vxPluginRsaGetExponent(st, 5))};
}

bool importNumbers(vxPluginStorage* st, const rsaNumbers& k)
{
    return api().vxPluginRsaMakeKeyFromExps(st, &k.n, &k.e, &k.p, &k.q, &k.d);
}

bool importPublic(vxPluginStorage* st, const rsaNumbers& k)
{
    const std::string none;
    return api().vxPluginRsaMakeKeyFromExps(st, &k.n, &k.e, &none, &none, &none);
}

vxByteVector sign(vxPluginStorage* st, const vxByteVector& message)
{
    vxByteVector signature;
    if (!api().vxPluginRsaSign(st, &message, &signature)) {
        return {};
    }
    return signature;
}

bool verify(vxPluginStorage* st, const vxByteVector& message, const vxByteVector& signature)
{
    return api().vxPluginRsaVerify(st, &message, &signature);
}

/** OAEP-encrypts `message` with the key in `st`; empty on failure. */
vxByteVector encrypt(vxPluginStorage* st, const vxByteVector& message)
{
    vxByteVector out(api().vxPluginRsaKeySize(st, nullptr));
    const int written = api().vxPluginRsaPublicEncrypt(st, static_cast<uint32_t>(message.size()),
                                                       message.data(), out.data());
    if (written <= 0) {
        return {};
    }
    out.resize(static_cast<size_t>(written));
    return out;
}

/** Decrypts one key-size block; the length is returned through `length` (-1 on failure). */
vxByteVector decrypt(vxPluginStorage* st, const vxByteVector& block, int& length)
{
    vxByteVector out(api().vxPluginRsaKeySize(st, nullptr));
    length = api().vxPluginRsaPrivateDecrypt(st, block.data(), out.data());
    out.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return out;
}

bool isUpperHex(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789ABCDEF") == std::string::npos;
}

/** One generated 2048-bit key shared by the RSA tests (generation is slow under valgrind). */
class OpensslPluginRsa : public OpensslPlugin
{
protected:
    static void SetUpTestSuite()
    {
        if (plugin().handle == nullptr || !plugin().missing.empty()) {
            return;
        }
        generated = std::make_unique<record>(api().vxPluginRsaClose);
        generated->storage.isopen = api().vxPluginRsaOpen(generated->get());
        generatedOk =
            generated->storage.isopen && api().vxPluginRsaGeneratePrivate(generated->get(), 2048);
    }

    static void TearDownTestSuite() { generated.reset(); }

    void SetUp() override
    {
        OpensslPlugin::SetUp();
        ASSERT_TRUE(generatedOk) << "RSA key generation failed";
    }

    static vxPluginStorage* key() { return generated->get(); }

    static std::unique_ptr<record> generated;
    static bool generatedOk;
};

std::unique_ptr<record> OpensslPluginRsa::generated;
bool OpensslPluginRsa::generatedOk = false;

TEST_F(OpensslPlugin, RsaWithoutKey)
{
    record rsa(api().vxPluginRsaClose);
    EXPECT_FALSE(api().vxPluginRsaGeneratePrivate(rsa.get(), 2048)) << "unopened";
    rsa.storage.isopen = api().vxPluginRsaOpen(rsa.get());
    ASSERT_TRUE(rsa.storage.isopen);

    uint32_t size = 99;
    EXPECT_EQ(api().vxPluginRsaKeySize(rsa.get(), &size), 0U);
    EXPECT_EQ(size, 0U);
    EXPECT_FALSE(api().vxPluginRsaIsPublic(rsa.get()));
    EXPECT_FALSE(api().vxPluginRsaIsPrivate(rsa.get()));
    EXPECT_FALSE(api().vxPluginRsaKeyCheck(rsa.get()));
    EXPECT_FALSE(api().vxPluginRsaBlindingOn(rsa.get()));
    EXPECT_FALSE(api().vxPluginRsaBlindingOff(rsa.get()));
    EXPECT_EQ(takeText(api().vxPluginRsaGetExponent(rsa.get(), 1)), "0");
    const vxByteVector message = bytesOf("message");
    vxByteVector signature;
    EXPECT_FALSE(api().vxPluginRsaSign(rsa.get(), &message, &signature));
    EXPECT_FALSE(api().vxPluginRsaVerify(rsa.get(), &message, &signature));
    unsigned char buffer[256] = {};
    EXPECT_EQ(api().vxPluginRsaPublicEncrypt(rsa.get(), 4, buffer, buffer), -1);
    EXPECT_EQ(api().vxPluginRsaPrivateDecrypt(rsa.get(), buffer, buffer), -1);
    // Sizes OpenSSL cannot make are refused.
    EXPECT_FALSE(api().vxPluginRsaGeneratePrivate(rsa.get(), 0));
    EXPECT_FALSE(api().vxPluginRsaGeneratePrivate(rsa.get(), 100));
    EXPECT_FALSE(api().vxPluginRsaIsPublic(rsa.get()));
}

TEST_F(OpensslPluginRsa, GeneratedKey)
{
    uint32_t size = 0;
    EXPECT_EQ(api().vxPluginRsaKeySize(key(), &size), 256U);
    EXPECT_EQ(size, 256U);
    EXPECT_TRUE(api().vxPluginRsaIsPublic(key()));
    EXPECT_TRUE(api().vxPluginRsaIsPrivate(key()));
    EXPECT_TRUE(api().vxPluginRsaKeyCheck(key()));

    const rsaNumbers k = exportNumbers(key());
    EXPECT_EQ(k.n.size(), 512U);
    EXPECT_TRUE(isUpperHex(k.n)) << k.n;
    EXPECT_EQ(k.e, "010001");
    EXPECT_EQ(k.p.size(), 256U);
    EXPECT_EQ(k.q.size(), 256U);
    EXPECT_TRUE(isUpperHex(k.p) && isUpperHex(k.q) && isUpperHex(k.d));
    EXPECT_NE(k.d, "0");
    for (const int index : {0, 6, -1, INT_MAX}) {
        EXPECT_EQ(takeText(api().vxPluginRsaGetExponent(key(), index)), "0") << index;
    }
}

TEST_F(OpensslPluginRsa, BlindingSwitchesAnswerWithAKey)
{
    const vxByteVector message = bytesOf("blinded or not");
    EXPECT_TRUE(api().vxPluginRsaBlindingOff(key()));
    const vxByteVector signature = sign(key(), message);
    EXPECT_TRUE(verify(key(), message, signature));
    EXPECT_TRUE(api().vxPluginRsaBlindingOn(key()));
    EXPECT_EQ(sign(key(), message), signature);
}

TEST_F(OpensslPluginRsa, SignAndVerify)
{
    const vxByteVector message = bytesOf("The quick brown fox jumps over the lazy dog");
    const vxByteVector signature = sign(key(), message);
    ASSERT_EQ(signature.size(), 256U);
    EXPECT_TRUE(verify(key(), message, signature));
    EXPECT_EQ(sign(key(), message), signature) << "PKCS#1 v1.5 signatures are deterministic";

    vxByteVector tampered = message;
    tampered[4] ^= 0x01U;
    EXPECT_FALSE(verify(key(), tampered, signature));
    vxByteVector badSignature = signature;
    badSignature[100] ^= 0x80U;
    EXPECT_FALSE(verify(key(), message, badSignature));
    EXPECT_FALSE(verify(key(), message, vxByteVector(signature.begin(), signature.end() - 1)));
    EXPECT_FALSE(verify(key(), message, {}));

    const vxByteVector empty;
    const vxByteVector emptySignature = sign(key(), empty);
    ASSERT_EQ(emptySignature.size(), 256U);
    EXPECT_TRUE(verify(key(), empty, emptySignature));

    // The signature may be written over the message's own vector.
    vxByteVector shared = message;
    ASSERT_TRUE(api().vxPluginRsaSign(key(), &shared, &shared));
    EXPECT_EQ(shared, signature);
}

TEST_F(OpensslPluginRsa, RebuildPrivateKeyFromNumbers)
{
    const rsaNumbers k = exportNumbers(key());
    record rebuilt(api().vxPluginRsaClose);
    ASSERT_TRUE(api().vxPluginRsaOpen(rebuilt.get()));
    ASSERT_TRUE(importNumbers(rebuilt.get(), k));
    EXPECT_TRUE(api().vxPluginRsaIsPrivate(rebuilt.get()));
    EXPECT_TRUE(api().vxPluginRsaKeyCheck(rebuilt.get())) << "complete with its CRT values";
    EXPECT_EQ(api().vxPluginRsaKeySize(rebuilt.get(), nullptr), 256U);
    const rsaNumbers again = exportNumbers(rebuilt.get());
    EXPECT_EQ(again.n, k.n);
    EXPECT_EQ(again.e, k.e);
    EXPECT_EQ(again.p, k.p);
    EXPECT_EQ(again.q, k.q);
    EXPECT_EQ(again.d, k.d);

    const vxByteVector message = bytesOf("rebuilt");
    EXPECT_EQ(sign(rebuilt.get(), message), sign(key(), message));
    int length = 0;
    const vxByteVector secret = bytesOf("shared secret");
    EXPECT_EQ(decrypt(rebuilt.get(), encrypt(key(), secret), length), secret);

    // Lower-case digits are read as well.
    rsaNumbers lower = k;
    for (std::string* text : {&lower.n, &lower.p, &lower.q, &lower.d}) {
        for (char& c : *text) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
    }
    record fromLower(api().vxPluginRsaClose);
    ASSERT_TRUE(api().vxPluginRsaOpen(fromLower.get()));
    ASSERT_TRUE(importNumbers(fromLower.get(), lower));
    EXPECT_EQ(exportNumbers(fromLower.get()).n, k.n);
}

TEST_F(OpensslPluginRsa, RebuildPublicKeyFromNumbers)
{
    const rsaNumbers k = exportNumbers(key());
    record pub(api().vxPluginRsaClose);
    ASSERT_TRUE(api().vxPluginRsaOpen(pub.get()));
    ASSERT_TRUE(importPublic(pub.get(), k));
    EXPECT_TRUE(api().vxPluginRsaIsPublic(pub.get()));
    EXPECT_FALSE(api().vxPluginRsaIsPrivate(pub.get()));
    EXPECT_TRUE(api().vxPluginRsaKeyCheck(pub.get()));
    EXPECT_TRUE(api().vxPluginRsaBlindingOn(pub.get()));
    EXPECT_EQ(api().vxPluginRsaKeySize(pub.get(), nullptr), 256U);
    const rsaNumbers numbers = exportNumbers(pub.get());
    EXPECT_EQ(numbers.n, k.n);
    EXPECT_EQ(numbers.e, k.e);
    EXPECT_EQ(numbers.p, "0");
    EXPECT_EQ(numbers.q, "0");
    EXPECT_EQ(numbers.d, "0");

    const vxByteVector message = bytesOf("public check");
    EXPECT_TRUE(verify(pub.get(), message, sign(key(), message)));
    EXPECT_TRUE(sign(pub.get(), message).empty()) << "a public key cannot sign";
    const vxByteVector block = encrypt(pub.get(), message);
    ASSERT_EQ(block.size(), 256U);
    int length = 0;
    EXPECT_EQ(decrypt(key(), block, length), message);
    (void)decrypt(pub.get(), block, length);
    EXPECT_EQ(length, -1) << "a public key cannot decrypt";

    // Importing over a key replaces it.
    ASSERT_TRUE(importNumbers(pub.get(), k));
    EXPECT_TRUE(api().vxPluginRsaIsPrivate(pub.get()));
}

TEST_F(OpensslPluginRsa, OaepRoundTrip)
{
    const vxByteVector secret = bytesOf("0123456789abcdef0123456789abcdef");
    const vxByteVector first = encrypt(key(), secret);
    const vxByteVector second = encrypt(key(), secret);
    ASSERT_EQ(first.size(), 256U);
    EXPECT_NE(first, second) << "OAEP is randomised";
    int length = 0;
    EXPECT_EQ(decrypt(key(), first, length), secret);
    EXPECT_EQ(length, 32);
    EXPECT_EQ(decrypt(key(), second, length), secret);

    // OAEP with SHA-1 carries at most 256 - 2 * 20 - 2 = 214 bytes in a 2048-bit key.
    const vxByteVector largest(214, 0xA5);
    EXPECT_EQ(decrypt(key(), encrypt(key(), largest), length), largest);
    vxByteVector out(256);
    const vxByteVector tooLong(215, 0xA5);
    EXPECT_EQ(api().vxPluginRsaPublicEncrypt(key(), 215, tooLong.data(), out.data()), -1);

    vxByteVector corrupted = first;
    corrupted[10] ^= 0x01U;
    (void)decrypt(key(), corrupted, length);
    EXPECT_EQ(length, -1);

    // An empty message encrypts; it decrypts to length 0.
    EXPECT_EQ(api().vxPluginRsaPublicEncrypt(key(), 0, nullptr, out.data()), 256);
    const vxByteVector emptyBlock = out;
    EXPECT_EQ(api().vxPluginRsaPrivateDecrypt(key(), emptyBlock.data(), out.data()), 0);
}

TEST_F(OpensslPluginRsa, BadNumbersAreRefused)
{
    const rsaNumbers k = exportNumbers(key());
    record rsa(api().vxPluginRsaClose);
    ASSERT_TRUE(api().vxPluginRsaOpen(rsa.get()));
    ASSERT_TRUE(importNumbers(rsa.get(), k));

    const std::vector<std::string> badTexts = {"",
                                               "XYZ",
                                               "-01",
                                               "12 34",
                                               "0x10",
                                               "0",
                                               "00",
                                               std::string("12\0"
                                                           "34",
                                                           5)};
    for (const std::string& bad : badTexts) {
        rsaNumbers wrongN = k;
        wrongN.n = bad;
        EXPECT_FALSE(importNumbers(rsa.get(), wrongN)) << "N = '" << bad << "'";
        EXPECT_FALSE(importPublic(rsa.get(), wrongN)) << "N = '" << bad << "'";
        rsaNumbers wrongD = k;
        wrongD.d = bad + "Z";
        EXPECT_FALSE(importNumbers(rsa.get(), wrongD)) << "D = '" << wrongD.d << "'";
    }
    rsaNumbers partial = k;
    partial.q.clear();
    partial.d.clear();
    EXPECT_FALSE(importNumbers(rsa.get(), partial)) << "P alone is neither public nor private";
    rsaNumbers primeOne = k;
    primeOne.p = "01";
    EXPECT_FALSE(importNumbers(rsa.get(), primeOne));
    EXPECT_FALSE(api().vxPluginRsaMakeKeyFromExps(rsa.get(), &k.n, nullptr, &k.p, &k.q, &k.d));

    // Every refusal left the earlier key in place.
    EXPECT_TRUE(api().vxPluginRsaIsPrivate(rsa.get()));
    EXPECT_EQ(exportNumbers(rsa.get()).n, k.n);

    record unopened(api().vxPluginRsaClose);
    EXPECT_FALSE(importNumbers(unopened.get(), k));
    EXPECT_EQ(unopened.storage.handle, nullptr);
}

TEST_F(OpensslPluginRsa, RecordsOfOtherFamiliesAreNotKeys)
{
    record md(api().vxPluginMdClose);
    ASSERT_TRUE(api().vxPluginMdOpen(md.get(), kSha256));
    EXPECT_FALSE(api().vxPluginRsaIsPublic(md.get()));
    EXPECT_EQ(api().vxPluginRsaKeySize(md.get(), nullptr), 0U);
    EXPECT_FALSE(importNumbers(md.get(), exportNumbers(key())));
    EXPECT_EQ(api().vxPluginMdDigestSize(md.get()), 32U);
}

// ---- Interoperation with the openssl command line ---------------------------------------------

/** A private directory for the key and message files, removed at the end. */
class scratchDirectory
{
public:
    scratchDirectory()
    {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/vxosslXXXXXX";
        if (mkdtemp(pattern.data()) != nullptr) {
            path = pattern;
        }
    }

    scratchDirectory(const scratchDirectory&) = delete;
    scratchDirectory& operator=(const scratchDirectory&) = delete;
    scratchDirectory(scratchDirectory&&) = delete;
    scratchDirectory& operator=(scratchDirectory&&) = delete;

    ~scratchDirectory()
    {
        if (!path.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
    }

    [[nodiscard]] std::string file(const std::string& name) const { return path + "/" + name; }

    std::string path;
};

bool writeFile(const std::string& path, const vxByteVector& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

vxByteVector readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return vxByteVector(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

/** Runs a shell command; true when it exits with status 0. Its messages go to `log`. */
bool run(const std::string& command, const std::string& log)
{
    const std::string line = command + " >>" + log + " 2>&1";
    return std::system(line.c_str()) == 0; // NOLINT(cert-env33-c): the tool is the point
}

/** Reads the numbers from "openssl rsa -text -noout": each is a label line ("modulus:") followed
 *  by indented lines of colon-separated hex bytes; the public exponent is written in one line as
 *  "publicExponent: 65537 (0x10001)". Leading zero bytes are dropped. */
rsaNumbers parseRsaText(const std::string& text)
{
    std::map<std::string, std::string> found;
    std::istringstream lines(text);
    std::string line;
    std::string current;
    while (std::getline(lines, line)) {
        if (!line.empty() && (line[0] == ' ' || line[0] == '\t')) {
            for (const char c : line) {
                if (std::isxdigit(static_cast<unsigned char>(c)) != 0) {
                    found[current] +=
                        static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
                }
            }
            continue;
        }
        current = line.substr(0, line.find(':'));
        const size_t hex = line.find("(0x");
        if (hex != std::string::npos) {
            const size_t end = line.find(')', hex);
            found[current] = line.substr(hex + 3, end - hex - 3);
        }
    }
    for (auto& entry : found) {
        const size_t first = entry.second.find_first_not_of('0');
        entry.second = first == std::string::npos ? "0" : entry.second.substr(first);
    }
    return {found["modulus"], found["publicExponent"], found["prime1"], found["prime2"],
            found["privateExponent"]};
}

std::string withoutLeadingZeros(const std::string& hex)
{
    const size_t first = hex.find_first_not_of('0');
    return first == std::string::npos ? "0" : hex.substr(first);
}

/** A key made by the openssl tool, loaded into the plug-in through its numbers. */
class OpensslPluginInterop : public OpensslPlugin
{
protected:
    void SetUp() override
    {
        OpensslPlugin::SetUp();
        if (!run("openssl version", "/dev/null")) {
            GTEST_SKIP() << "no openssl command line tool";
        }
        ASSERT_FALSE(dir.path.empty()) << "mkdtemp failed";
        ASSERT_TRUE(
            run("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " + privatePem(),
                log()));
        ASSERT_TRUE(
            run("openssl pkey -in " + privatePem() + " -pubout -out " + publicPem(), log()));
        ASSERT_TRUE(
            run("openssl rsa -in " + privatePem() + " -text -noout -out " + dir.file("key.txt"),
                log()));
        std::ifstream in(dir.file("key.txt"));
        const std::string text((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
        numbers = parseRsaText(text);
        ASSERT_FALSE(numbers.n.empty() || numbers.d.empty()) << text;

        rsa.storage.isopen = api().vxPluginRsaOpen(rsa.get());
        ASSERT_TRUE(rsa.storage.isopen);
        ASSERT_TRUE(importNumbers(rsa.get(), numbers));
        ASSERT_TRUE(api().vxPluginRsaKeyCheck(rsa.get()));
        ASSERT_EQ(api().vxPluginRsaKeySize(rsa.get(), nullptr), 256U);
    }

    [[nodiscard]] std::string privatePem() const { return dir.file("key.pem"); }

    [[nodiscard]] std::string publicPem() const { return dir.file("pub.pem"); }

    [[nodiscard]] std::string log() const { return dir.file("log.txt"); }

    [[nodiscard]] std::string logText() const
    {
        const vxByteVector bytes = readFile(log());
        return std::string(bytes.begin(), bytes.end());
    }

    scratchDirectory dir;
    rsaNumbers numbers;
    record rsa{api().vxPluginRsaClose};
};

TEST_F(OpensslPluginInterop, NumbersMatchTheTool)
{
    const rsaNumbers exported = exportNumbers(rsa.get());
    EXPECT_EQ(withoutLeadingZeros(exported.n), numbers.n);
    EXPECT_EQ(withoutLeadingZeros(exported.e), "10001");
    EXPECT_EQ(withoutLeadingZeros(exported.d), numbers.d);
}

TEST_F(OpensslPluginInterop, PluginSignatureVerifiesWithTheTool)
{
    const vxByteVector message = bytesOf("signed by the plug-in\n");
    ASSERT_TRUE(writeFile(dir.file("msg"), message));
    const vxByteVector signature = sign(rsa.get(), message);
    ASSERT_EQ(signature.size(), 256U);
    ASSERT_TRUE(writeFile(dir.file("sig"), signature));
    EXPECT_TRUE(run("openssl dgst -sha256 -verify " + publicPem() + " -signature " +
                        dir.file("sig") + " " + dir.file("msg"),
                    log()))
        << logText();

    vxByteVector tampered = signature;
    tampered[0] ^= 0x01U;
    ASSERT_TRUE(writeFile(dir.file("bad.sig"), tampered));
    EXPECT_FALSE(run("openssl dgst -sha256 -verify " + publicPem() + " -signature " +
                         dir.file("bad.sig") + " " + dir.file("msg"),
                     log()));
}

TEST_F(OpensslPluginInterop, ToolSignatureVerifiesWithThePlugin)
{
    const vxByteVector message = bytesOf("signed by the tool\n");
    ASSERT_TRUE(writeFile(dir.file("msg"), message));
    ASSERT_TRUE(run("openssl dgst -sha256 -sign " + privatePem() + " -out " + dir.file("sig") +
                        " " + dir.file("msg"),
                    log()))
        << logText();
    const vxByteVector signature = readFile(dir.file("sig"));
    EXPECT_TRUE(verify(rsa.get(), message, signature));
    EXPECT_EQ(sign(rsa.get(), message), signature);

    record pub(api().vxPluginRsaClose);
    ASSERT_TRUE(api().vxPluginRsaOpen(pub.get()));
    ASSERT_TRUE(importPublic(pub.get(), numbers));
    EXPECT_TRUE(verify(pub.get(), message, signature));
    EXPECT_FALSE(verify(pub.get(), bytesOf("signed by the tool?\n"), signature));
}

TEST_F(OpensslPluginInterop, ToolEncryptsPluginDecrypts)
{
    const vxByteVector secret = bytesOf("a secret for the plug-in");
    ASSERT_TRUE(writeFile(dir.file("secret"), secret));
    ASSERT_TRUE(run("openssl pkeyutl -encrypt -pubin -inkey " + publicPem() +
                        " -pkeyopt rsa_padding_mode:oaep -in " + dir.file("secret") + " -out " +
                        dir.file("ct"),
                    log()))
        << logText();
    const vxByteVector block = readFile(dir.file("ct"));
    ASSERT_EQ(block.size(), 256U);
    int length = 0;
    EXPECT_EQ(decrypt(rsa.get(), block, length), secret);
    EXPECT_EQ(length, static_cast<int>(secret.size()));
}

TEST_F(OpensslPluginInterop, PluginEncryptsToolDecrypts)
{
    record pub(api().vxPluginRsaClose);
    ASSERT_TRUE(api().vxPluginRsaOpen(pub.get()));
    ASSERT_TRUE(importPublic(pub.get(), numbers));
    const vxByteVector secret = bytesOf("a secret for the tool");
    const vxByteVector block = encrypt(pub.get(), secret);
    ASSERT_EQ(block.size(), 256U);
    ASSERT_TRUE(writeFile(dir.file("ct"), block));
    ASSERT_TRUE(run("openssl pkeyutl -decrypt -inkey " + privatePem() +
                        " -pkeyopt rsa_padding_mode:oaep -in " + dir.file("ct") + " -out " +
                        dir.file("pt"),
                    log()))
        << logText();
    EXPECT_EQ(readFile(dir.file("pt")), secret);
}

// ---- Announcement -----------------------------------------------------------------------------

TEST_F(OpensslPlugin, InitAnnouncesEveryEntryPoint)
{
    ASSERT_NE(api().init, nullptr) << "vx_init is not exported";
    veltrix::vxPluginProvides provides;
    ASSERT_TRUE(api().init(nullptr, &provides));
    EXPECT_EQ(provides.name, "openssl");
    EXPECT_FALSE(provides.version.empty());

    std::vector<std::string> expected;
#define VX_TEST_ENTRY_NAME(entry, result, params) expected.emplace_back(#entry);
    VX_PLUGIN_ENTRY_POINTS(VX_TEST_ENTRY_NAME)
#undef VX_TEST_ENTRY_NAME
    ASSERT_EQ(provides.symbols.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(provides.symbols[i].first, expected[i]);
        EXPECT_EQ(provides.symbols[i].second, "openssl_" + expected[i]);
        EXPECT_NE(dlsym(plugin().handle, provides.symbols[i].second.c_str()), nullptr);
    }
}

} // namespace
