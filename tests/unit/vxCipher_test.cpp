// The block cipher vxCipher (AES known answers, the identity cipher, its one-shot life), the random
// source vxRand and the library's deterministic sequence vxSequence.

#include "cryptoapi.h"
#include "vxTest.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

using veltrix::vxBytes;
using veltrix::vxCipher;
using veltrix::vxCipherId;
using veltrix::vxRand;
using veltrix::vxSequence;
using vxtest::testFrame;

using byteVector = std::vector<unsigned char>;

vxBytes unhex(const std::string& hex)
{
    vxBytes out;
    out.bytes = vxtest::unhex(hex);
    return out;
}

uint32_t cipherIdOf(const std::string& algorithm)
{
    const std::map<std::string, uint32_t> ids = {{"aes128", vxCipherId::aes128},
                                                 {"aes192", vxCipherId::aes192},
                                                 {"aes256", vxCipherId::aes256}};
    return ids.count(algorithm) != 0 ? ids.at(algorithm) : 0U;
}

const char* const refused = "Unable to continue from previous error";

class vxCipherTest : public vxtest::vxCryptoTest
{
protected:
    bool openCipher(vxCipherId& id, vxCipher& cipher, uint32_t value)
    {
        return frame.open(id, value) && frame.open(cipher, id);
    }
};

TEST_F(vxCipherTest, AesMatchesFips197InBothDirectionsANewKeyReplacesTheOldAndNoneIsTheIdentity)
{
    const auto cases = vxtest::readKat("aes.vec");
    ASSERT_EQ(cases.size(), 3U);
    for (const auto& kat : cases) {
        vxCipherId id;
        vxCipher cipher;
        ASSERT_TRUE(openCipher(id, cipher, cipherIdOf(kat.algorithm))) << kat.algorithm;
        const vxBytes key = unhex(kat.fields.at("Key"));
        const vxBytes plain = unhex(kat.fields.at("In"));
        const vxBytes expected = unhex(kat.fields.at("Out"));
        uint32_t size = 0;
        EXPECT_TRUE(cipher.GetBlockSize(size));
        EXPECT_EQ(size, 16U);
        EXPECT_TRUE(cipher.GetKeySize(size));
        EXPECT_EQ(size, key.bytes.size()) << kat.algorithm;
        ASSERT_TRUE(cipher.SetKey(unhex(std::string(2 * size, 'F'))));
        vxBytes out;
        ASSERT_TRUE(cipher.Encrypt(plain, out));
        EXPECT_NE(out.bytes, expected.bytes);
        ASSERT_TRUE(cipher.SetKey(key)) << vxtest::dumpTrail();
        EXPECT_TRUE(cipher.Encrypt(plain, out));
        EXPECT_EQ(out.bytes, expected.bytes) << kat.algorithm;
        vxBytes back;
        EXPECT_TRUE(cipher.Decrypt(expected, back));
        EXPECT_EQ(back.bytes, plain.bytes) << kat.algorithm;
        testFrame::closeAll(cipher, id);
    }
    EXPECT_FALSE(vxtest::latched());
    vxCipherId id;
    vxCipher cipher;
    ASSERT_TRUE(openCipher(id, cipher, vxCipherId::none));
    uint32_t size = 0;
    EXPECT_TRUE(cipher.GetBlockSize(size));
    EXPECT_EQ(size, 16U);
    EXPECT_TRUE(cipher.GetKeySize(size));
    ASSERT_TRUE(cipher.SetKey(unhex(std::string(2 * size, '5'))));
    const vxBytes block = unhex("000102030405060708090A0B0C0D0EFF");
    vxBytes out;
    vxBytes back;
    EXPECT_TRUE(cipher.Encrypt(block, out) && cipher.Decrypt(block, back));
    EXPECT_EQ(out.bytes, block.bytes);
    EXPECT_EQ(back.bytes, block.bytes);
    testFrame::closeAll(cipher, id);
}

TEST_F(vxCipherTest, OpenCloseSetKeyAndTheLatch)
{
    vxCipherId id;
    vxCipher cipher;
    ASSERT_TRUE(openCipher(id, cipher, vxCipherId::aes128));
    EXPECT_FAILS_WITH(cipher.Open(id), "storage.isopen == false");
    veltrix::vxBase::lvxClearLastError();
    testFrame::closeAll(cipher, id);
    vxCipherId unset; // value 0
    vxCipher refusedId;
    EXPECT_FAILS_WITH(frame.open(refusedId, unset), "storage.isopen == true");
    EXPECT_FALSE(refusedId.opened);
    veltrix::vxBase::lvxClearLastError();
    const char* const expectedOpen = "Object in incorrect state:  Expected open. ";
    vxCipher notOpened;
    EXPECT_FAILS_WITH(notOpened.SetKey(unhex("000102030405060708090A0B0C0D0E0F")), expectedOpen);
    veltrix::vxBase::lvxClearLastError();
    uint32_t size = 7;
    EXPECT_FAILS_WITH(notOpened.GetBlockSize(size), expectedOpen);
    veltrix::vxBase::lvxClearLastError();
    EXPECT_FAILS_WITH(notOpened.GetKeySize(size), expectedOpen);
    EXPECT_EQ(size, 7U);
    veltrix::vxBase::lvxClearLastError();
    vxCipherId other;
    ASSERT_TRUE(frame.open(other, vxCipherId::aes128));
    vxGlobal.stackTrace.errorLatch = true;
    vxCipher latched;
    EXPECT_FALSE(latched.Open(other));
    EXPECT_EQ(vxtest::firstMessage(), refused);
    EXPECT_FALSE(latched.storage.isopen);
    veltrix::vxBase::lvxClearLastError();
    testFrame::closeAll(other);
    const auto cases = vxtest::readKat("aes.vec");
    vxCipherId keyId;
    vxCipher keyed;
    ASSERT_TRUE(openCipher(keyId, keyed, vxCipherId::aes128));
    EXPECT_FAILS_WITH(keyed.SetKey(unhex("0102030405")), "Plugin layer SetKey failed");
    veltrix::vxBase::lvxClearLastError();
    ASSERT_TRUE(keyed.SetKey(unhex(cases[0].fields.at("Key"))));
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_REFUSED(keyed.SetKey(unhex("000102030405060708090A0B0C0D0E0F")));
    uint32_t latchedSize = 0;
    EXPECT_REFUSED(keyed.GetBlockSize(latchedSize));
    EXPECT_REFUSED(keyed.GetKeySize(latchedSize));
    vxBytes out;
    ASSERT_TRUE(keyed.Encrypt(unhex(cases[0].fields.at("In")), out)) << "Encrypt has no guard";
    EXPECT_REFUSED(keyed.Close());
    EXPECT_TRUE(keyed.cipherId.opened) << "the identifier is not closed while latched";
    EXPECT_FALSE(keyed.Encrypt(unhex(cases[0].fields.at("In")), out))
        << "the plug-in state is gone";
    veltrix::vxBase::lvxClearLastError();
    testFrame::closeAll(keyed, keyId);
    vxCipherId id256;
    vxCipher cipher256;
    ASSERT_TRUE(openCipher(id256, cipher256, vxCipherId::aes256));
    ASSERT_TRUE(testFrame::close(cipher256));
    EXPECT_TRUE(cipher256.storage.isopen) << "Close leaves the storage flag set";
    EXPECT_FALSE(cipher256.cipherId.opened);
    EXPECT_FAILS_WITH(frame.open(cipher256, id256), "storage.isopen == false");
    EXPECT_FALSE(cipher256.opened);
    veltrix::vxBase::lvxClearLastError();
    testFrame::closeAll(id256);
}

class vxRandTest : public vxtest::vxCryptoTest
{
protected:
    bool openSource(vxRand& source) { return frame.open(source) && source.Open(true); }
};

/** SplitMix64 from the state 0, bytes of each word least significant first: the reproducible
 *  generator the OpenSSL plug-in documents for test mode. */
byteVector splitMix64Bytes(size_t count)
{
    byteVector out;
    uint64_t state = 0;
    while (out.size() < count) {
        state += 0x9E3779B97F4A7C15ULL;
        uint64_t z = state;
        z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27U)) * 0x94D049BB133111EBULL;
        z ^= z >> 31U;
        for (int i = 0; i < 8 && out.size() < count; ++i) {
            out.push_back(static_cast<unsigned char>(z >> (8U * static_cast<unsigned>(i))));
        }
    }
    return out;
}

TEST_F(vxRandTest, RandomSources)
{
    vxRand source;
    EXPECT_FALSE(source.Read(16));
    uint32_t number = 42;
    EXPECT_FALSE(source.GetNumFromZero(10, number));
    EXPECT_EQ(number, 42U);
    EXPECT_QUIET();
    ASSERT_TRUE(openSource(source));
    ASSERT_TRUE(source.Read(0));
    vxBytes out;
    out.bytes = {1, 2, 3};
    EXPECT_FALSE(source.GetHashedBytes(out));
    EXPECT_TRUE(out.bytes.empty());
    EXPECT_QUIET();
    out.bytes = {1, 2, 3};
    EXPECT_TRUE(source.GetBytes(out));
    EXPECT_TRUE(out.bytes.empty());
    ASSERT_TRUE(source.Read(8));
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_FALSE(source.GetBytes(out));
    EXPECT_EQ(vxtest::firstMessage(), refused);
    EXPECT_REFUSED(source.GetHashedBytes(out));
    veltrix::vxBase::lvxClearLastError();
    testFrame::closeAll(source);
    vxRand ranged;
    ASSERT_TRUE(openSource(ranged));
    for (const int limit : {1, 2, 7, 1000}) {
        std::set<uint32_t> seen;
        for (int i = 0; i < 2000; ++i) {
            uint32_t drawn = UINT32_MAX;
            ASSERT_TRUE(ranged.GetNumFromZero(limit, drawn));
            ASSERT_LT(drawn, static_cast<uint32_t>(limit));
            seen.insert(drawn);
        }
        if (limit <= 7) {
            // 2000 draws miss one of at most 7 values with a chance below 7 * (6/7)^2000.
            EXPECT_EQ(seen.size(), static_cast<size_t>(limit)) << limit;
        }
    }
    for (const int limit : {0, -1, INT32_MIN}) { // an empty range gives zero
        uint32_t drawn = 42;
        EXPECT_TRUE(ranged.GetNumFromZero(limit, drawn));
        EXPECT_EQ(drawn, 0U) << limit;
    }
    testFrame::closeAll(ranged);
    const auto draw = [](vxRand& counted, uint32_t count) {
        vxBytes hashed;
        EXPECT_TRUE(counted.Read(count) && counted.GetHashedBytes(hashed));
        return hashed.bytes;
    };
    vxRand first;
    vxRand second;
    vxRand third;
    vxRand fourth;
    ASSERT_TRUE(openSource(first) && openSource(second) && openSource(third) && openSource(fourth));
    ASSERT_TRUE(first.SetTestMode() && second.SetTestMode());
    byteVector a = draw(first, 16);
    EXPECT_EQ(a, draw(second, 16));
    EXPECT_EQ(a, splitMix64Bytes(16));
    // The stream continues across reads: 16 then 20 bytes equal the first 36 of one stream.
    const byteVector b = draw(first, 20);
    a.insert(a.end(), b.begin(), b.end());
    EXPECT_EQ(a, splitMix64Bytes(36));
    // Without test mode two sources differ, and neither follows the test stream.
    const byteVector c = draw(third, 32);
    EXPECT_NE(c, draw(fourth, 32));
    EXPECT_NE(c, splitMix64Bytes(32));
    testFrame::closeAll(first, second, third, fourth);
    vxRand counted;
    ASSERT_TRUE(openSource(counted));
    for (const uint32_t count : {16U, 1U, 33U, 4096U}) {
        ASSERT_TRUE(counted.Read(count));
        vxBytes hashed;
        hashed.bytes = {1, 2, 3};
        EXPECT_TRUE(counted.GetHashedBytes(hashed));
        EXPECT_EQ(hashed.bytes.size(), count);
        vxBytes plain;
        EXPECT_TRUE(counted.GetBytes(plain));
        EXPECT_EQ(plain.bytes, hashed.bytes) << "both read the same draw";
    }
    testFrame::closeAll(counted);
}

using vxSequenceTest = vxtest::vxTest;

/** The sequence written out a second time, apart from the library's code: a 32-bit linear
 *  congruential step, then the state divided by twice the range, modulo the range. */
std::vector<uint32_t> referenceSequence(uint32_t state, uint32_t range, size_t count)
{
    std::vector<uint32_t> values;
    for (size_t i = 0; i < count; ++i) {
        state = static_cast<uint32_t>((uint64_t{state} * 1103515245ULL + 12345ULL) % 4294967296ULL);
        const uint64_t divisor = (2ULL * range) % 4294967296ULL;
        const uint64_t q = divisor == 0 ? 0 : state / divisor;
        values.push_back(range == 0 ? 0 : static_cast<uint32_t>(q % range));
    }
    return values;
}

TEST_F(vxSequenceTest, FirstValueSeedAndAgreementWithTheReference)
{
    vxSequence sequence;
    ASSERT_TRUE(sequence.Open(10));
    EXPECT_EQ(sequence.state, 1U);
    EXPECT_EQ(sequence.divisor, 20U);
    EXPECT_EQ(sequence.range, 10U);
    EXPECT_EQ(sequence.Next(), 9U);
    EXPECT_EQ(sequence.state, 1103527590U);
    vxSequence empty; // a zero range gives zero and still advances
    ASSERT_TRUE(empty.Open(0));
    EXPECT_EQ(empty.Next(), 0U);
    EXPECT_EQ(empty.state, 1103527590U);
    EXPECT_EQ(empty.Next(), 0U);
    EXPECT_NE(empty.state, 1103527590U);
    vxSequence seeded;
    ASSERT_TRUE(seeded.Open(10));
    EXPECT_FAILS_WITH(seeded.Seed(unhex("000005")), "inValue.bytes.size() >= 4");
    EXPECT_EQ(seeded.state, 1U);
    veltrix::vxBase::lvxClearLastError();
    EXPECT_FALSE(seeded.Seed(unhex("")));
    veltrix::vxBase::lvxClearLastError();
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_FALSE(seeded.Seed(unhex("00000005")));
    EXPECT_EQ(vxtest::firstMessage(), refused);
    EXPECT_EQ(seeded.state, 1U);
    EXPECT_EQ(seeded.Next(), 9U) << "Next has no guard";
    veltrix::vxBase::lvxClearLastError();
    EXPECT_TRUE(seeded.Seed(unhex("00000005AABBCC")));
    EXPECT_EQ(seeded.state, 5U);
    EXPECT_TRUE(seeded.Seed(unhex("DEADBEEF")));
    EXPECT_EQ(seeded.state, 0xDEADBEEFU);
    EXPECT_FALSE(vxtest::latched());

    // clang-format off
    const struct { const char* seed; uint32_t state; uint32_t range; } cases[] = {{"00000001", 1, 10}, {"00000005", 5, 7}, {"DEADBEEF", 0xDEADBEEF, 256}, {"FFFFFFFF", 0xFFFFFFFF, 1000}, {"12345678", 0x12345678, 1}, {"80000000", 0x80000000, 0x80000000U}, {"0000002A", 42, 0xFFFFFFFFU}};

    // clang-format on
    for (const auto& c : cases) {
        vxSequence generated;
        ASSERT_TRUE(generated.Open(c.range));
        ASSERT_TRUE(generated.Seed(unhex(c.seed)));
        std::vector<uint32_t> got;
        for (int i = 0; i < 8; ++i) {
            got.push_back(generated.Next());
        }
        EXPECT_EQ(got, referenceSequence(c.state, c.range, 8)) << c.seed << " " << c.range;
    }
    // A value worked out by hand for seed 5, range 7: 5 * 1103515245 + 12345 = 5517588570,
    // which is 1222621274 modulo 2^32; 1222621274 / 14 = 87330091, and 87330091 % 7 = 2.
    vxSequence generated;
    ASSERT_TRUE(generated.Open(7));
    ASSERT_TRUE(generated.Seed(unhex("00000005")));
    EXPECT_EQ(generated.Next(), 2U);
    EXPECT_EQ(generated.state, 1222621274U);
}

} // namespace
