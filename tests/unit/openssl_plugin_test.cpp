// The OpenSSL crypto plug-in's entry points called directly through the registry: bad records, null
// pointers, wrong lengths and ids, bad numbers, the test-mode stream and vx_init's announcement.
// Known answers, round trips and the openssl tool are checked through the library's own tests.

#include "cryptoapi.h"
#include "vxTest.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

/** While set, the kernel's random source fails, as it does on a system without it. The test
 *  program exports this definition, so the plug-in's calls come here. */
bool failRandom = false;

extern "C" ssize_t getrandom(void* buffer, size_t length, unsigned int flags)
{
    if (failRandom) {
        errno = ENOSYS;
        return -1;
    }
    return syscall(SYS_getrandom, buffer, length, flags);
}

namespace {

using veltrix::vxByteVector;
using veltrix::vxPluginStorage;
using vxtest::unhex;

constexpr const char* kPluginFile = VX_PLUGIN_DIR "/libveltrix_openssl.so";

const veltrix::vxReg& api()
{
    return *veltrix::cryptoRegistry;
}

using OpensslPlugin = vxtest::vxCryptoTest;

using closeFunction = bool (*)(vxPluginStorage*);

/** A storage record as a crypto object embeds it; Close runs however the test ends. */
struct record
{
    explicit record(closeFunction closeEntry) : close(closeEntry) {}

    ~record() { close(&storage); }

    vxPluginStorage* get() { return &storage; }

    closeFunction close;
    vxPluginStorage storage;
};

vxByteVector bytesOf(const std::string& text)
{
    return vxByteVector(text.begin(), text.end());
}

std::string takeText(std::string* text)
{
    const std::unique_ptr<std::string> owned(text);
    return owned ? *owned : std::string("(null)");
}

constexpr uint32_t kMd5 = veltrix::vxHashId::md5;
constexpr uint32_t kSha1 = veltrix::vxHashId::sha1;
constexpr uint32_t kSha256 = veltrix::vxHashId::sha256;

/** An algorithm as peers and the program know it: its id, its name and its size (a digest's
 *  length, a cipher's key length). */
using published = std::set<std::tuple<uint32_t, std::string, uint32_t>>;

const published kDigests = {{1, "md5", 16},    {2, "sha1", 20},   {3, "sha256", 32},
                            {4, "sha512", 64}, {5, "sha384", 48}, {19, "sha256-128", 16}};
const published kCiphers = {
    {1, "none", 16}, {2, "aes128", 16}, {3, "aes192", 24}, {4, "aes256", 32}};

TEST(AlgorithmTables, HoldThePublishedIdsNamesAndSizes)
{
    published digests;
    published ciphers;
#define VX_TABLE_ROW(identifier, number, name, bytes) rows.emplace(number, name, bytes);
    {
        published& rows = digests;
        VX_DIGEST_ALGORITHMS(VX_TABLE_ROW)
    }
    {
        published& rows = ciphers;
        VX_CIPHER_ALGORITHMS(VX_TABLE_ROW)
    }
#undef VX_TABLE_ROW
    EXPECT_EQ(digests, kDigests);
    EXPECT_EQ(ciphers, kCiphers);
}

TEST_F(OpensslPlugin, InitAnnouncesEveryEntryPointDigestSizesAndUnknownIds)
{
    // Every published digest, and ids around them that name no digest (size 0).
    std::vector<std::pair<uint32_t, uint32_t>> sizes = {{0, 0},  {6, 0},  {7, 0},
                                                        {18, 0}, {20, 0}, {0xFFFFFFFFU, 0}};
    for (const auto& [id, name, size] : kDigests) {
        sizes.emplace_back(id, size);
    }
    for (const auto& [id, size] : sizes) {
        record md(api().vxPluginMdClose);
        ASSERT_EQ(api().vxPluginMdOpen(md.get(), id), size != 0) << id;
        EXPECT_EQ(api().vxPluginMdDigestSize(md.get()), size) << id;
        const vxByteVector* digest = api().vxPluginMdDigest(md.get());
        ASSERT_NE(digest, nullptr);
        ASSERT_GE(digest->size(), size);
        EXPECT_EQ(vxByteVector(digest->begin(), digest->begin() + size), vxByteVector(size, 0));
        if (size == 0) {
            EXPECT_EQ(md.storage.handle, nullptr) << "nothing is allocated for id " << id;
            EXPECT_TRUE(digest->empty());
        }
    }
    void* handle = dlopen(kPluginFile, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(handle, nullptr) << kPluginFile;
    void* init = dlsym(handle, "vx_init");
    ASSERT_NE(init, nullptr) << "vx_init is not exported";
    veltrix::vx_init_t initEntry = nullptr;
    std::memcpy(&initEntry, &init, sizeof init); // POSIX: object address to function address
    veltrix::vxPluginProvides provides;
    ASSERT_TRUE(initEntry(nullptr, &provides));
    EXPECT_EQ(provides.name, "openssl");
    EXPECT_FALSE(provides.version.empty());
    std::vector<std::pair<std::string, void*>> expected;
#define VX_TEST_ENTRY(entry, asked, result, params) \
    ASSERT_NE(api().entry, nullptr) << #entry;      \
    expected.emplace_back(#entry, nullptr);         \
    std::memcpy(&expected.back().second, &api().entry, sizeof(void*));
    VX_PLUGIN_ENTRY_POINTS(VX_TEST_ENTRY)
#undef VX_TEST_ENTRY
    ASSERT_EQ(provides.symbols.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(provides.symbols[i].first, expected[i].first);
        EXPECT_EQ(provides.symbols[i].second, "openssl_" + expected[i].first);
        EXPECT_EQ(dlsym(handle, provides.symbols[i].second.c_str()), expected[i].second);
    }
    EXPECT_EQ(dlclose(handle), 0);
}

TEST_F(OpensslPlugin, DigestMessagesRestartAtInitFinalTwiceIsHarmlessAndRecordLifecycle)
{
    record md(api().vxPluginMdClose);
    ASSERT_TRUE(api().vxPluginMdOpen(md.get(), kSha256));
    const auto feed = [&md](const std::string& text) {
        return api().vxPluginMdUpdate(md.get(), reinterpret_cast<const unsigned char*>(text.data()),
                                      static_cast<uint32_t>(text.size()));
    };
    const vxByteVector abc =
        unhex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    ASSERT_TRUE(api().vxPluginMdInit(md.get()));
    EXPECT_TRUE(feed("discarded"));
    ASSERT_TRUE(api().vxPluginMdInit(md.get()));
    EXPECT_TRUE(feed("a") && feed("") && feed("bc"));
    ASSERT_TRUE(api().vxPluginMdFinal(md.get()));
    EXPECT_EQ(*api().vxPluginMdDigest(md.get()), abc);
    // A second Final without Init must be harmless; Update waits for the next Init.
    (void)api().vxPluginMdFinal(md.get());
    EXPECT_EQ(api().vxPluginMdDigest(md.get())->size(), 32U);
    EXPECT_FALSE(feed("late"));
    ASSERT_TRUE(api().vxPluginMdInit(md.get()));
    EXPECT_TRUE(feed("abc"));
    ASSERT_TRUE(api().vxPluginMdFinal(md.get()));
    EXPECT_EQ(*api().vxPluginMdDigest(md.get()), abc);
    record fresh(api().vxPluginMdClose);
    // An unopened record is refused without a crash.
    EXPECT_FALSE(api().vxPluginMdInit(fresh.get()));
    EXPECT_FALSE(
        api().vxPluginMdUpdate(fresh.get(), reinterpret_cast<const unsigned char*>("x"), 1));
    EXPECT_FALSE(api().vxPluginMdFinal(fresh.get()));
    EXPECT_TRUE(api().vxPluginMdClose(fresh.get()));
    // Opening again replaces the earlier state (no leak), and the library's flag is untouched.
    fresh.storage.isopen = true;
    ASSERT_TRUE(api().vxPluginMdOpen(fresh.get(), kMd5));
    ASSERT_TRUE(api().vxPluginMdOpen(fresh.get(), kSha1));
    EXPECT_EQ(api().vxPluginMdDigestSize(fresh.get()), 20U);
    EXPECT_TRUE(api().vxPluginMdClose(fresh.get()));
    EXPECT_EQ(fresh.storage.handle, nullptr);
    EXPECT_TRUE(fresh.storage.isopen);
    EXPECT_TRUE(api().vxPluginMdClose(fresh.get())); // closing twice is harmless
}

// ---- Two digests side by side ----

/** An opened digest record. */
struct digestRecord : record
{
    explicit digestRecord(uint32_t id) : record(api().vxPluginMdClose)
    {
        opened = api().vxPluginMdOpen(get(), id);
    }

    bool opened = false;
};

vxByteVector digestOf(digestRecord& md)
{
    return *api().vxPluginMdDigest(md.get());
}

/** The digest of `message` the usual way: Init, Update, Final. */
vxByteVector oneAtATime(uint32_t id, const vxByteVector& message)
{
    digestRecord md(id);
    const bool done =
        md.opened && api().vxPluginMdInit(md.get()) &&
        api().vxPluginMdUpdate(md.get(), message.data(), static_cast<uint32_t>(message.size())) &&
        api().vxPluginMdFinal(md.get());
    return done ? digestOf(md) : vxByteVector();
}

bool digestPair(digestRecord& first, const vxByteVector& one, digestRecord& second,
                const vxByteVector& two)
{
    return api().vxPluginMdDigestPair(first.get(), one.data(), static_cast<uint32_t>(one.size()),
                                      second.get(), two.data(), static_cast<uint32_t>(two.size()));
}

TEST_F(OpensslPlugin, CipherBlocksAreTheOneBlockEntryPointOnEachBlock)
{
    std::mt19937 random(26);
    const vxByteVector key =
        unhex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
    for (const uint32_t id : {1U, 2U, 3U, 4U}) {
        record cipher(api().vxPluginCipherClose);
        ASSERT_TRUE(api().vxPluginCipherOpen(cipher.get(), id));
        const uint32_t keySize = api().vxPluginCipherGetKeySize(cipher.get());
        const vxByteVector ownKey(key.begin(), key.begin() + keySize);
        unsigned char spare[16] = {};
        if (id != 1) {
            EXPECT_FALSE(api().vxPluginCipherEncryptBlocks(cipher.get(), spare, spare, 1))
                << "no key";
        }
        ASSERT_TRUE(api().vxPluginCipherSetKey(cipher.get(), &ownKey));
        for (const uint32_t count : {0U, 1U, 2U, 3U, 17U, 1024U}) {
            vxByteVector plain(size_t{count} * 16);
            for (unsigned char& byte : plain) {
                byte = static_cast<unsigned char>(random());
            }
            vxByteVector apart(plain.size());
            ASSERT_TRUE(
                api().vxPluginCipherEncryptBlocks(cipher.get(), plain.data(), apart.data(), count));
            vxByteVector together = plain; // in place
            ASSERT_TRUE(api().vxPluginCipherEncryptBlocks(cipher.get(), together.data(),
                                                          together.data(), count));
            EXPECT_EQ(together, apart);
            for (uint32_t k = 0; k < count; ++k) {
                const vxByteVector one(plain.begin() + 16 * k, plain.begin() + 16 * (k + 1));
                vxByteVector alone;
                ASSERT_TRUE(api().vxPluginCipherEncryptBlock(cipher.get(), &one, &alone));
                EXPECT_TRUE(std::equal(alone.begin(), alone.end(), apart.begin() + 16 * k))
                    << "cipher " << id << ", block " << k << " of " << count;
            }
            ASSERT_TRUE(api().vxPluginCipherDecryptBlocks(cipher.get(), together.data(),
                                                          together.data(), count));
            EXPECT_EQ(together, plain) << "cipher " << id << ", " << count << " blocks";
        }
        EXPECT_TRUE(api().vxPluginCipherEncryptBlocks(cipher.get(), nullptr, nullptr, 0));
        EXPECT_FALSE(api().vxPluginCipherEncryptBlocks(cipher.get(), nullptr, spare, 1));
        EXPECT_FALSE(api().vxPluginCipherDecryptBlocks(cipher.get(), spare, nullptr, 1));
        EXPECT_FALSE(api().vxPluginCipherEncryptBlocks(cipher.get(), spare, spare, 0x8000000U))
            << "more bytes than one call can take";
    }
    unsigned char spare[16] = {};
    record digest(api().vxPluginMdClose);
    ASSERT_TRUE(api().vxPluginMdOpen(digest.get(), kMd5));
    EXPECT_FALSE(api().vxPluginCipherEncryptBlocks(digest.get(), spare, spare, 1));
    EXPECT_FALSE(api().vxPluginCipherDecryptBlocks(nullptr, spare, spare, 1));
}

TEST_F(OpensslPlugin, DigestPairGivesTheRfc1321AnswersInEitherLane)
{
    // RFC 1321, appendix A.5.
    const std::pair<std::string, const char*> suite[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"}};
    for (const auto& [first, firstDigest] : suite) {
        for (const auto& [second, secondDigest] : suite) {
            digestRecord one(kMd5);
            digestRecord two(kMd5);
            ASSERT_TRUE(one.opened && two.opened);
            ASSERT_TRUE(digestPair(one, bytesOf(first), two, bytesOf(second)));
            EXPECT_EQ(digestOf(one), unhex(firstDigest))
                << '"' << first << "\" beside \"" << second;
            EXPECT_EQ(digestOf(two), unhex(secondDigest))
                << '"' << second << "\" beside \"" << first;
        }
    }
}

TEST_F(OpensslPlugin, DigestPairAgreesWithOpensslForEveryLengthToThreeHundredInBothLanes)
{
    std::mt19937 random(1321);
    const auto message = [&random](size_t size) {
        vxByteVector bytes(size);
        for (unsigned char& byte : bytes) {
            byte = static_cast<unsigned char>(random());
        }
        return bytes;
    };
    digestRecord one(kMd5);
    digestRecord two(kMd5);
    ASSERT_TRUE(one.opened && two.opened);
    for (size_t size = 0; size <= 300; ++size) {
        const vxByteVector mine = message(size);
        const vxByteVector expected = oneAtATime(kMd5, mine);
        // Beside messages that need fewer, as many and more blocks, in the first lane and in the
        // second: the result never depends on the other lane.
        for (const size_t otherSize : {size_t{0}, size, size_t{55}, size_t{56}, size_t{64},
                                       size_t{119}, size_t{120}, size_t{300}}) {
            const vxByteVector other = message(otherSize);
            const vxByteVector otherExpected = oneAtATime(kMd5, other);
            ASSERT_TRUE(digestPair(one, mine, two, other));
            ASSERT_EQ(digestOf(one), expected) << size << " bytes beside " << otherSize;
            ASSERT_EQ(digestOf(two), otherExpected) << otherSize << " bytes beside " << size;
            ASSERT_TRUE(digestPair(one, other, two, mine));
            ASSERT_EQ(digestOf(two), expected) << size << " bytes in the second lane";
            ASSERT_EQ(digestOf(one), otherExpected);
        }
    }
}

TEST_F(OpensslPlugin, DigestPairOfOtherDigestsOrOneRecordTwiceIsTheSameAsOneAtATime)
{
    const vxByteVector abc = bytesOf("abc");
    const vxByteVector longer = bytesOf("message digest");
    digestRecord md5(kMd5);
    digestRecord sha256(kSha256);
    ASSERT_TRUE(md5.opened && sha256.opened);
    ASSERT_TRUE(digestPair(sha256, abc, md5, longer));
    EXPECT_EQ(digestOf(sha256), oneAtATime(kSha256, abc));
    EXPECT_EQ(digestOf(md5), oneAtATime(kMd5, longer));
    // One record in both places: the second message is what it finishes with.
    ASSERT_TRUE(digestPair(md5, abc, md5, longer));
    EXPECT_EQ(digestOf(md5), oneAtATime(kMd5, longer));
    // Finished as after Final: a further Final keeps the digest, Update waits for Init.
    ASSERT_TRUE(digestPair(md5, abc, sha256, abc));
    (void)api().vxPluginMdFinal(md5.get());
    EXPECT_EQ(digestOf(md5), oneAtATime(kMd5, abc));
    EXPECT_FALSE(api().vxPluginMdUpdate(md5.get(), abc.data(), 3));
    ASSERT_TRUE(api().vxPluginMdInit(md5.get()));
    EXPECT_TRUE(api().vxPluginMdUpdate(md5.get(), abc.data(), 3));

    // Refused: an unopened record or a missing message.
    digestRecord unknown(6);
    EXPECT_FALSE(unknown.opened);
    EXPECT_FALSE(digestPair(unknown, abc, md5, abc));
    EXPECT_FALSE(digestPair(md5, abc, unknown, abc));
    EXPECT_FALSE(api().vxPluginMdDigestPair(md5.get(), nullptr, 3, sha256.get(), abc.data(), 3));
    EXPECT_FALSE(api().vxPluginMdDigestPair(md5.get(), abc.data(), 3, sha256.get(), nullptr, 1));
    EXPECT_TRUE(api().vxPluginMdDigestPair(md5.get(), nullptr, 0, sha256.get(), nullptr, 0));
    EXPECT_EQ(digestOf(md5), unhex("d41d8cd98f00b204e9800998ecf8427e"));
}

TEST_F(OpensslPlugin, AesLengthsAndInPlaceCipherRecordLifecycleAndTheNoneCipher)
{
    const vxByteVector plain = unhex("00112233445566778899aabbccddeeff");

    // clang-format off
    const struct { uint32_t id; const char* key; const char* cipherText; } kAes[] = {
        {2, "000102030405060708090a0b0c0d0e0f", "69c4e0d86a7b0430d8cdb78070b4c55a"},
        {3, "000102030405060708090a0b0c0d0e0f1011121314151617", "dda97ca4864cdfe06eaf70a0ec0d7191"},
        {4, "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", "8ea2b7ca516745bfeafc49904b496089"}};

    // clang-format on
    for (const auto& v : kAes) {
        record cipher(api().vxPluginCipherClose);
        ASSERT_TRUE(api().vxPluginCipherOpen(cipher.get(), v.id));
        const vxByteVector key = unhex(v.key);
        vxByteVector out(40, 0xEE); // longer than a block: cut to one block
        EXPECT_FALSE(api().vxPluginCipherEncryptBlock(cipher.get(), &plain, &out)) << "no key";
        for (const size_t length : {size_t{0}, size_t{15}, size_t{17}, size_t{24}, size_t{32}}) {
            const vxByteVector wrong(length, 1);
            EXPECT_EQ(api().vxPluginCipherSetKey(cipher.get(), &wrong), length == key.size());
        }
        EXPECT_FALSE(api().vxPluginCipherSetKey(cipher.get(), nullptr));
        ASSERT_TRUE(api().vxPluginCipherSetKey(cipher.get(), &key));
        for (const size_t length : {size_t{0}, size_t{1}, size_t{15}, size_t{17}, size_t{32}}) {
            const vxByteVector in(length, 7);
            vxByteVector sink;
            EXPECT_FALSE(api().vxPluginCipherEncryptBlock(cipher.get(), &in, &sink)) << length;
            EXPECT_FALSE(api().vxPluginCipherDecryptBlock(cipher.get(), &in, &sink)) << length;
        }
        // A refused key kept the good key; several blocks in a row, also in place.
        for (int round = 0; round < 2; ++round) {
            ASSERT_TRUE(api().vxPluginCipherEncryptBlock(cipher.get(), &plain, &out));
            EXPECT_EQ(out, unhex(v.cipherText));
        }
        vxByteVector block = plain;
        ASSERT_TRUE(api().vxPluginCipherEncryptBlock(cipher.get(), &block, &block));
        EXPECT_EQ(block, unhex(v.cipherText));
        ASSERT_TRUE(api().vxPluginCipherDecryptBlock(cipher.get(), &block, &block));
        EXPECT_EQ(block, plain);
    }
    for (const uint32_t id : {0U, 5U, 6U, 0xFFFFFFFFU}) {
        record cipher(api().vxPluginCipherClose);
        EXPECT_FALSE(api().vxPluginCipherOpen(cipher.get(), id)) << id;
        EXPECT_EQ(cipher.storage.handle, nullptr);
    }
    record cipher(api().vxPluginCipherClose);
    const vxByteVector fives(16, 0x5A);
    const vxByteVector shortKey(15, 0x5A);
    const vxByteVector twos(16, 2);
    const vxByteVector odd(17, 1);
    vxByteVector block = twos;
    EXPECT_EQ(api().vxPluginCipherGetKeySize(cipher.get()), 0U);
    EXPECT_EQ(api().vxPluginCipherGetBlockSize(cipher.get()), 0U);
    EXPECT_FALSE(api().vxPluginCipherSetKey(cipher.get(), &fives));
    EXPECT_FALSE(api().vxPluginCipherEncryptBlock(cipher.get(), &twos, &block));
    EXPECT_TRUE(api().vxPluginCipherClose(cipher.get()));
    // The identity cipher checks lengths and works in place.
    ASSERT_TRUE(api().vxPluginCipherOpen(cipher.get(), 1));
    EXPECT_EQ(api().vxPluginCipherGetKeySize(cipher.get()), 16U);
    EXPECT_TRUE(api().vxPluginCipherSetKey(cipher.get(), &fives));
    EXPECT_FALSE(api().vxPluginCipherSetKey(cipher.get(), &shortKey));
    ASSERT_TRUE(api().vxPluginCipherEncryptBlock(cipher.get(), &block, &block));
    EXPECT_EQ(block, twos);
    EXPECT_FALSE(api().vxPluginCipherEncryptBlock(cipher.get(), &odd, &block));
    ASSERT_TRUE(api().vxPluginCipherOpen(cipher.get(), 4));
    ASSERT_TRUE(api().vxPluginCipherOpen(cipher.get(), 2)); // replaces the earlier states
    EXPECT_EQ(api().vxPluginCipherGetKeySize(cipher.get()), 16U);
    // A digest entry point does not mistake the cipher's state for its own.
    EXPECT_EQ(api().vxPluginMdDigestSize(cipher.get()), 0U);
}

vxByteVector draw(vxPluginStorage* st, uint32_t count, bool testMode)
{
    return api().vxPluginRandRead(st, count, testMode) ? *api().vxPluginRandGetBytes(st)
                                                       : vxByteVector{};
}

TEST_F(OpensslPlugin, RandomTestModeIsPinnedOsDrawsAreNotBytesFollowTheLastReadNumbersInRange)
{
    record first(api().vxPluginRandClose);
    record second(api().vxPluginRandClose);
    ASSERT_TRUE(api().vxPluginRandOpen(first.get(), false));
    ASSERT_TRUE(api().vxPluginRandOpen(second.get(), true)); // the flag does not matter
    // SplitMix64 from state 0, least significant byte first: 0xE220A8397B1DCDAF, 0x6E789E6AA1B965F4.
    const vxByteVector a = draw(first.get(), 32, true);
    EXPECT_EQ(vxByteVector(a.begin(), a.begin() + 16), unhex("afcd1d7b39a820e2f465b9a16a9e786e"));
    // Another object yields the same stream, also when it is drawn in pieces.
    vxByteVector b = draw(second.get(), 5, true);
    const vxByteVector rest = draw(second.get(), 27, true);
    b.insert(b.end(), rest.begin(), rest.end());
    EXPECT_EQ(a, b);
    ASSERT_TRUE(api().vxPluginRandOpen(second.get(), true)); // reopening restarts the stream
    EXPECT_EQ(draw(second.get(), 32, true), a);
    const vxByteVector os = draw(first.get(), 32, false);
    EXPECT_NE(os, a);
    EXPECT_NE(os, draw(first.get(), 32, false));
    // A large draw crosses getrandom's single-call limit for some kernels.
    EXPECT_EQ(draw(first.get(), 100000, false).size(), 100000U);
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
    for (const int limit : {1, 2, 3, 255, 256, 65537, INT_MAX}) {
        std::set<uint32_t> seen;
        for (int i = 0; i < 200; ++i) {
            seen.insert(api().vxPluginRandGetNumFromZero(rand.get(), limit));
        }
        EXPECT_LT(*seen.rbegin(), static_cast<uint32_t>(limit)) << limit;
        EXPECT_TRUE(limit != 2 || seen.size() == 2U); // both values within 200 draws
    }
    for (const int limit : {0, -1, -1000, INT_MIN}) {
        EXPECT_EQ(api().vxPluginRandGetNumFromZero(rand.get(), limit), 0U) << limit;
    }
    EXPECT_TRUE(api().vxPluginRandClose(rand.get()));
    EXPECT_EQ(rand.storage.handle, nullptr);
}

/** The five numbers of a key, by exponent index 1..5. */
struct rsaNumbers
{
    std::string n, e, p, q, d;
};

rsaNumbers exportNumbers(vxPluginStorage* st)
{
    const auto get = [st](int index) { return takeText(api().vxPluginRsaGetExponent(st, index)); };
    return {get(1), get(2), get(3), get(4), get(5)};
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
    return api().vxPluginRsaSign(st, &message, &signature) ? signature : vxByteVector{};
}

bool verify(vxPluginStorage* st, const vxByteVector& message, const vxByteVector& signature)
{
    return api().vxPluginRsaVerify(st, &message, &signature);
}

/** Decrypts one key-size block; the result is the returned length (-1 on failure). */
int decryptLength(vxPluginStorage* st, const vxByteVector& block)
{
    vxByteVector out(api().vxPluginRsaKeySize(st, nullptr) + 1U);
    return api().vxPluginRsaPrivateDecrypt(st, block.data(), out.data());
}

TEST_F(OpensslPlugin, RandomFailsClosedWhenTheKernelSourceFails)
{
    record rand(api().vxPluginRandClose);
    ASSERT_TRUE(api().vxPluginRandOpen(rand.get(), false));
    ASSERT_TRUE(api().vxPluginRandRead(rand.get(), 16, false));
    failRandom = true;
    EXPECT_FALSE(api().vxPluginRandRead(rand.get(), 16, false));
    EXPECT_TRUE(api().vxPluginRandGetBytes(rand.get())->empty()) << "no stale or partial draw";
    EXPECT_TRUE(api().vxPluginRandRead(rand.get(), 16, true)) << "test mode needs no kernel";
    failRandom = false;
    EXPECT_TRUE(api().vxPluginRandRead(rand.get(), 16, false));
}

/** One generated 2048-bit key shared by the RSA tests. */
class OpensslPluginRsa : public OpensslPlugin
{
protected:
    static void SetUpTestSuite()
    {
        vxtest::ensurePlugin();
        if (veltrix::cryptoRegistry == nullptr) {
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
        vxtest::vxCryptoTest::SetUp();
        ASSERT_TRUE(generatedOk) << "RSA key generation failed";
    }

    static vxPluginStorage* key() { return generated->get(); }

    static std::unique_ptr<record> generated;
    static bool generatedOk;
};

std::unique_ptr<record> OpensslPluginRsa::generated;
bool OpensslPluginRsa::generatedOk = false;

TEST_F(OpensslPluginRsa, SignatureEdgeCasesAndOaepIsRandomisedBoundedAndTakesEmptyMessages)
{
    const vxByteVector message = bytesOf("The quick brown fox jumps over the lazy dog");
    const vxByteVector signature = sign(key(), message);
    ASSERT_EQ(signature.size(), 256U);
    EXPECT_FALSE(verify(key(), message, vxByteVector(signature.begin(), signature.end() - 1)));
    EXPECT_FALSE(verify(key(), message, {}));
    const vxByteVector emptySignature = sign(key(), {});
    ASSERT_EQ(emptySignature.size(), 256U);
    EXPECT_TRUE(verify(key(), {}, emptySignature));
    // The signature may be written over the message's own vector.
    vxByteVector shared = message;
    ASSERT_TRUE(api().vxPluginRsaSign(key(), &shared, &shared));
    EXPECT_EQ(shared, signature);
    const vxByteVector secret = bytesOf("0123456789abcdef0123456789abcdef");
    vxByteVector first(256);
    vxByteVector second(256);
    ASSERT_EQ(api().vxPluginRsaPublicEncrypt(key(), 32, secret.data(), first.data()), 256);
    ASSERT_EQ(api().vxPluginRsaPublicEncrypt(key(), 32, secret.data(), second.data()), 256);
    EXPECT_NE(first, second) << "OAEP is randomised";
    EXPECT_EQ(decryptLength(key(), first), 32);
    // OAEP with SHA-1 carries at most 256 - 2 * 20 - 2 = 214 bytes in a 2048-bit key.
    const vxByteVector largest(215, 0xA5);
    EXPECT_EQ(api().vxPluginRsaPublicEncrypt(key(), 214, largest.data(), first.data()), 256);
    EXPECT_EQ(decryptLength(key(), first), 214);
    EXPECT_EQ(api().vxPluginRsaPublicEncrypt(key(), 215, largest.data(), first.data()), -1);
    EXPECT_EQ(api().vxPluginRsaPublicEncrypt(key(), 0, nullptr, first.data()), 256);
    EXPECT_EQ(decryptLength(key(), first), 0);
}

TEST_F(OpensslPluginRsa, ExportImportLowerCaseBadIndexesAndNoKey)
{
    const rsaNumbers k = exportNumbers(key());
    rsaNumbers lower = k;
    for (std::string* text : {&lower.n, &lower.p, &lower.q, &lower.d}) {
        EXPECT_EQ(text->find_first_not_of("0123456789ABCDEF"), std::string::npos) << *text;
        for (char& c : *text) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
    }
    EXPECT_EQ(k.p.size(), 256U);
    EXPECT_EQ(k.q.size(), 256U);
    for (const int index : {0, 6, -1, INT_MAX}) {
        EXPECT_EQ(takeText(api().vxPluginRsaGetExponent(key(), index)), "0") << index;
    }
    record rsa(api().vxPluginRsaClose);
    ASSERT_TRUE(api().vxPluginRsaOpen(rsa.get()));
    ASSERT_TRUE(importNumbers(rsa.get(), lower));
    EXPECT_TRUE(api().vxPluginRsaKeyCheck(rsa.get())) << "complete with its CRT values";
    EXPECT_EQ(exportNumbers(rsa.get()).n, k.n);
    // Importing over a key replaces it; a public key exports "0" for P, Q and D.
    ASSERT_TRUE(importPublic(rsa.get(), k));
    EXPECT_FALSE(api().vxPluginRsaIsPrivate(rsa.get()));
    EXPECT_TRUE(api().vxPluginRsaKeyCheck(rsa.get()));
    EXPECT_TRUE(api().vxPluginRsaBlindingOn(rsa.get()));
    const rsaNumbers numbers = exportNumbers(rsa.get());
    EXPECT_EQ(numbers.n + numbers.e, k.n + k.e);
    EXPECT_EQ(numbers.p + numbers.q + numbers.d, "000");
    ASSERT_TRUE(importNumbers(rsa.get(), k));
    EXPECT_TRUE(api().vxPluginRsaIsPrivate(rsa.get()));
    record empty(api().vxPluginRsaClose);
    EXPECT_FALSE(api().vxPluginRsaGeneratePrivate(empty.get(), 2048)) << "unopened";
    empty.storage.isopen = api().vxPluginRsaOpen(empty.get());
    ASSERT_TRUE(empty.storage.isopen);
    uint32_t emptySize = 99;
    EXPECT_EQ(api().vxPluginRsaKeySize(empty.get(), &emptySize), 0U);
    EXPECT_EQ(emptySize, 0U);
    EXPECT_FALSE(
        api().vxPluginRsaIsPublic(empty.get()) || api().vxPluginRsaIsPrivate(empty.get()) ||
        api().vxPluginRsaKeyCheck(empty.get()) || api().vxPluginRsaBlindingOn(empty.get()) ||
        api().vxPluginRsaBlindingOff(empty.get()));
    EXPECT_EQ(takeText(api().vxPluginRsaGetExponent(empty.get(), 1)), "0");
    const vxByteVector text = bytesOf("message");
    vxByteVector noSignature;
    EXPECT_FALSE(api().vxPluginRsaSign(empty.get(), &text, &noSignature));
    EXPECT_FALSE(api().vxPluginRsaVerify(empty.get(), &text, &noSignature));
    unsigned char raw[256] = {};
    EXPECT_EQ(api().vxPluginRsaPublicEncrypt(empty.get(), 4, raw, raw), -1);
    EXPECT_EQ(api().vxPluginRsaPrivateDecrypt(empty.get(), raw, raw), -1);
    EXPECT_FALSE(api().vxPluginRsaGeneratePrivate(empty.get(), 0));
    EXPECT_FALSE(api().vxPluginRsaGeneratePrivate(empty.get(), 100));
    EXPECT_FALSE(api().vxPluginRsaIsPublic(empty.get()));
}

TEST_F(OpensslPluginRsa, BadNumbersAndOtherFamiliesAreRefused)
{
    const rsaNumbers k = exportNumbers(key());
    record rsa(api().vxPluginRsaClose);
    ASSERT_TRUE(api().vxPluginRsaOpen(rsa.get()));
    ASSERT_TRUE(importNumbers(rsa.get(), k));
    // clang-format off
    for (const std::string& bad : {std::string(), std::string("XYZ"), std::string("-01"), std::string("12 34"), std::string("0x10"), std::string("0"), std::string("00"), std::string("12\0" "34", 5)}) {
        // clang-format on
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
    EXPECT_TRUE(api().vxPluginRsaIsPrivate(rsa.get()));
    EXPECT_EQ(exportNumbers(rsa.get()).n, k.n);
    record unopened(api().vxPluginRsaClose);
    EXPECT_FALSE(importNumbers(unopened.get(), k));
    EXPECT_EQ(unopened.storage.handle, nullptr);
    record md(api().vxPluginMdClose);
    ASSERT_TRUE(api().vxPluginMdOpen(md.get(), kSha256));
    EXPECT_FALSE(api().vxPluginRsaIsPublic(md.get()));
    EXPECT_EQ(api().vxPluginRsaKeySize(md.get(), nullptr), 0U);
    EXPECT_FALSE(importNumbers(md.get(), k));
    EXPECT_EQ(api().vxPluginMdDigestSize(md.get()), 32U);
}

} // namespace
