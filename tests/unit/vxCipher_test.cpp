// The block cipher vxCipher (AES known answers and the identity cipher, its one-shot open/close
// life), the random source vxRand, and the library's own deterministic sequence vxSequence.

#include "cryptoapi.h"
#include "vxTest.h"

#include <cstdint>
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

/** Hex text to bytes, independent of the library's hex conversion. */
vxBytes unhex(const std::string& hex)
{
    vxBytes out;
    out.bytes = vxtest::unhex(hex);
    return out;
}

uint32_t cipherIdOf(const std::string& algorithm)
{
    if (algorithm == "aes128") {
        return vxCipherId::aes128;
    }
    if (algorithm == "aes192") {
        return vxCipherId::aes192;
    }
    return algorithm == "aes256" ? uint32_t{vxCipherId::aes256} : 0U;
}

const char* const refused = "Unable to continue from previous error";

// ---- vxCipher ----

class vxCipherTest : public vxtest::vxCryptoTest
{
protected:
    bool openCipher(vxCipherId& id, vxCipher& cipher, uint32_t value)
    {
        return frame.open(id, value) && frame.open(cipher, id);
    }

    static void closeCipher(vxCipherId& id, vxCipher& cipher)
    {
        EXPECT_TRUE(testFrame::close(cipher)) << vxtest::dumpTrail();
        EXPECT_TRUE(testFrame::close(id));
    }
};

TEST_F(vxCipherTest, AesMatchesFips197InBothDirections)
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
        ASSERT_TRUE(cipher.SetKey(key)) << vxtest::dumpTrail();
        vxBytes out;
        EXPECT_TRUE(cipher.Encrypt(plain, out));
        EXPECT_EQ(out.bytes, expected.bytes) << kat.algorithm;
        vxBytes back;
        EXPECT_TRUE(cipher.Decrypt(expected, back));
        EXPECT_EQ(back.bytes, plain.bytes) << kat.algorithm;
        closeCipher(id, cipher);
    }
    EXPECT_FALSE(vxtest::latched());
}

TEST_F(vxCipherTest, BlockAndKeySizes)
{
    // clang-format off
    const struct { uint32_t id; uint32_t keySize; } cases[] = {{vxCipherId::aes128, 16}, {vxCipherId::aes192, 24}, {vxCipherId::aes256, 32}};

    // clang-format on
    for (const auto& c : cases) {
        vxCipherId id;
        vxCipher cipher;
        ASSERT_TRUE(openCipher(id, cipher, c.id));
        uint32_t size = 0;
        EXPECT_TRUE(cipher.GetBlockSize(size));
        EXPECT_EQ(size, 16U);
        EXPECT_TRUE(cipher.GetKeySize(size));
        EXPECT_EQ(size, c.keySize) << c.id;
        closeCipher(id, cipher);
    }
}

TEST_F(vxCipherTest, NoneIsTheIdentity)
{
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
    EXPECT_TRUE(cipher.Encrypt(block, out));
    EXPECT_EQ(out.bytes, block.bytes);
    vxBytes back;
    EXPECT_TRUE(cipher.Decrypt(block, back));
    EXPECT_EQ(back.bytes, block.bytes);
    closeCipher(id, cipher);
}

TEST_F(vxCipherTest, NewKeyReplacesTheOldOne)
{
    const auto cases = vxtest::readKat("aes.vec");
    vxCipherId id;
    vxCipher cipher;
    ASSERT_TRUE(openCipher(id, cipher, vxCipherId::aes128));
    ASSERT_TRUE(cipher.SetKey(unhex("FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF")));
    vxBytes first;
    ASSERT_TRUE(cipher.Encrypt(unhex(cases[0].fields.at("In")), first));
    ASSERT_TRUE(cipher.SetKey(unhex(cases[0].fields.at("Key"))));
    vxBytes second;
    ASSERT_TRUE(cipher.Encrypt(unhex(cases[0].fields.at("In")), second));
    EXPECT_NE(first.bytes, second.bytes);
    EXPECT_EQ(second.bytes, unhex(cases[0].fields.at("Out")).bytes);
    closeCipher(id, cipher);
}

TEST_F(vxCipherTest, OpenTwiceOrWhileLatchedOrWithARefusedIdFails)
{
    vxCipherId id;
    vxCipher cipher;
    ASSERT_TRUE(openCipher(id, cipher, vxCipherId::aes128));
    EXPECT_FAILS_WITH(cipher.Open(id), "storage.isopen == false");
    veltrix::vxBase::lvxClearLastError();
    closeCipher(id, cipher);

    vxCipherId unset; // value 0
    vxCipher refusedId;
    EXPECT_FAILS_WITH(frame.open(refusedId, unset), "storage.isopen == true");
    EXPECT_FALSE(refusedId.opened);
    veltrix::vxBase::lvxClearLastError();

    vxCipherId other;
    ASSERT_TRUE(frame.open(other, vxCipherId::aes128));
    vxGlobal.stackTrace.errorLatch = true;
    vxCipher latched;
    EXPECT_FALSE(latched.Open(other));
    EXPECT_EQ(vxtest::firstMessage(), refused);
    EXPECT_FALSE(latched.storage.isopen);
    veltrix::vxBase::lvxClearLastError();
    EXPECT_TRUE(testFrame::close(other));
}

TEST_F(vxCipherTest, OperationsOfACipherNotOpenedByItsOwnerFail)
{
    const char* const expectedOpen = "Object in incorrect state:  Expected open. ";
    vxCipher cipher;
    EXPECT_FAILS_WITH(cipher.SetKey(unhex("000102030405060708090A0B0C0D0E0F")), expectedOpen);
    veltrix::vxBase::lvxClearLastError();
    uint32_t size = 7;
    EXPECT_FAILS_WITH(cipher.GetBlockSize(size), expectedOpen);
    veltrix::vxBase::lvxClearLastError();
    EXPECT_FAILS_WITH(cipher.GetKeySize(size), expectedOpen);
    EXPECT_EQ(size, 7U);
}

TEST_F(vxCipherTest, SetKeyOfTheWrongLengthFails)
{
    vxCipherId id;
    vxCipher cipher;
    ASSERT_TRUE(openCipher(id, cipher, vxCipherId::aes128));
    EXPECT_FAILS_WITH(cipher.SetKey(unhex("0102030405")), "Plugin layer SetKey failed");
    veltrix::vxBase::lvxClearLastError();
    closeCipher(id, cipher);
}

TEST_F(vxCipherTest, GuardedOperationsRefuseWhileLatched)
{
    vxCipherId id;
    vxCipher cipher;
    ASSERT_TRUE(openCipher(id, cipher, vxCipherId::aes128));
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_REFUSED(cipher.SetKey(unhex("000102030405060708090A0B0C0D0E0F")));
    uint32_t size = 0;
    EXPECT_REFUSED(cipher.GetBlockSize(size));
    EXPECT_REFUSED(cipher.GetKeySize(size));
    veltrix::vxBase::lvxClearLastError();
    closeCipher(id, cipher);
}

TEST_F(vxCipherTest, ClosedCipherCannotBeOpenedAgain)
{
    vxCipherId id;
    vxCipher cipher;
    ASSERT_TRUE(openCipher(id, cipher, vxCipherId::aes256));
    ASSERT_TRUE(testFrame::close(cipher));
    EXPECT_TRUE(cipher.storage.isopen) << "Close leaves the storage flag set";
    EXPECT_FALSE(cipher.cipherId.opened);
    EXPECT_FAILS_WITH(frame.open(cipher, id), "storage.isopen == false");
    EXPECT_FALSE(cipher.opened);
    veltrix::vxBase::lvxClearLastError();
    EXPECT_TRUE(testFrame::close(id));
}

TEST_F(vxCipherTest, CloseWhileLatchedStillReleasesThePluginState)
{
    const auto cases = vxtest::readKat("aes.vec");
    vxCipherId id;
    vxCipher cipher;
    ASSERT_TRUE(openCipher(id, cipher, vxCipherId::aes128));
    ASSERT_TRUE(cipher.SetKey(unhex(cases[0].fields.at("Key"))));
    vxGlobal.stackTrace.errorLatch = true;
    vxBytes out;
    ASSERT_TRUE(cipher.Encrypt(unhex(cases[0].fields.at("In")), out)) << "Encrypt has no guard";

    EXPECT_REFUSED(cipher.Close());
    EXPECT_TRUE(cipher.cipherId.opened) << "the identifier is not closed while latched";
    EXPECT_FALSE(cipher.Encrypt(unhex(cases[0].fields.at("In")), out))
        << "the plug-in state is gone";

    veltrix::vxBase::lvxClearLastError();
    closeCipher(id, cipher);
}

// ---- vxRand ----

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

TEST_F(vxRandTest, UnopenedSourceDrawsNothingQuietly)
{
    vxRand source;
    EXPECT_FALSE(source.Read(16));
    uint32_t number = 42;
    EXPECT_FALSE(source.GetNumFromZero(10, number));
    EXPECT_EQ(number, 42U);
    EXPECT_FALSE(vxtest::latched());
    EXPECT_TRUE(vxtest::trailMessages().empty());
}

TEST_F(vxRandTest, ReadThenGetHashedBytesGivesTheCount)
{
    vxRand source;
    ASSERT_TRUE(openSource(source));
    for (const uint32_t count : {16U, 1U, 33U, 4096U}) {
        ASSERT_TRUE(source.Read(count));
        vxBytes out;
        out.bytes = {1, 2, 3};
        EXPECT_TRUE(source.GetHashedBytes(out));
        EXPECT_EQ(out.bytes.size(), count);
        vxBytes plain;
        EXPECT_TRUE(source.GetBytes(plain));
        EXPECT_EQ(plain.bytes, out.bytes) << "both read the same draw";
    }
    EXPECT_TRUE(testFrame::close(source));
}

TEST_F(vxRandTest, EmptyDraw)
{
    vxRand source;
    ASSERT_TRUE(openSource(source));
    ASSERT_TRUE(source.Read(0));
    vxBytes out;
    out.bytes = {1, 2, 3};
    EXPECT_FALSE(source.GetHashedBytes(out));
    EXPECT_TRUE(out.bytes.empty());
    EXPECT_FALSE(vxtest::latched());
    EXPECT_TRUE(vxtest::trailMessages().empty());
    out.bytes = {1, 2, 3};
    EXPECT_TRUE(source.GetBytes(out));
    EXPECT_TRUE(out.bytes.empty());
    EXPECT_TRUE(testFrame::close(source));
}

TEST_F(vxRandTest, GetBytesRefusesWhileLatched)
{
    vxRand source;
    ASSERT_TRUE(openSource(source));
    ASSERT_TRUE(source.Read(8));
    vxGlobal.stackTrace.errorLatch = true;
    vxBytes out;
    EXPECT_FALSE(source.GetBytes(out));
    EXPECT_EQ(vxtest::firstMessage(), refused);
    EXPECT_REFUSED(source.GetHashedBytes(out));
    veltrix::vxBase::lvxClearLastError();
    EXPECT_TRUE(testFrame::close(source));
}

TEST_F(vxRandTest, TestModeIsReproducible)
{
    vxRand first;
    vxRand second;
    ASSERT_TRUE(openSource(first));
    ASSERT_TRUE(openSource(second));
    ASSERT_TRUE(first.SetTestMode());
    ASSERT_TRUE(second.SetTestMode());
    vxBytes a;
    vxBytes b;
    ASSERT_TRUE(first.Read(16));
    ASSERT_TRUE(first.GetHashedBytes(a));
    ASSERT_TRUE(second.Read(16));
    ASSERT_TRUE(second.GetHashedBytes(b));
    EXPECT_EQ(a.bytes, b.bytes);
    EXPECT_EQ(a.bytes, splitMix64Bytes(16));
    // The stream continues across reads: 16 then 20 bytes equal the first 36 of one stream.
    ASSERT_TRUE(first.Read(20));
    ASSERT_TRUE(first.GetHashedBytes(b));
    a.bytes.insert(a.bytes.end(), b.bytes.begin(), b.bytes.end());
    EXPECT_EQ(a.bytes, splitMix64Bytes(36));
    EXPECT_TRUE(testFrame::close(first));
    EXPECT_TRUE(testFrame::close(second));
    // Without test mode two sources differ, and neither follows the test stream.
    vxRand third;
    vxRand fourth;
    ASSERT_TRUE(openSource(third));
    ASSERT_TRUE(openSource(fourth));
    ASSERT_TRUE(third.Read(32) && third.GetHashedBytes(a));
    ASSERT_TRUE(fourth.Read(32) && fourth.GetHashedBytes(b));
    EXPECT_NE(a.bytes, b.bytes);
    EXPECT_NE(a.bytes, splitMix64Bytes(32));
    EXPECT_TRUE(testFrame::close(third));
    EXPECT_TRUE(testFrame::close(fourth));
}

TEST_F(vxRandTest, GetNumFromZeroStaysBelowTheLimit)
{
    vxRand source;
    ASSERT_TRUE(openSource(source));
    for (const int limit : {1, 2, 7, 1000}) {
        std::set<uint32_t> seen;
        for (int i = 0; i < 2000; ++i) {
            uint32_t number = UINT32_MAX;
            ASSERT_TRUE(source.GetNumFromZero(limit, number));
            ASSERT_LT(number, static_cast<uint32_t>(limit));
            seen.insert(number);
        }
        if (limit <= 7) {
            // 2000 draws miss one of at most 7 values with a chance below 7 * (6/7)^2000.
            EXPECT_EQ(seen.size(), static_cast<size_t>(limit)) << limit;
        }
    }
    for (const int limit : {0, -1, INT32_MIN}) { // an empty range gives zero
        uint32_t number = 42;
        EXPECT_TRUE(source.GetNumFromZero(limit, number));
        EXPECT_EQ(number, 0U) << limit;
    }
    EXPECT_TRUE(testFrame::close(source));
}

// ---- vxSequence ----

class vxSequenceTest : public vxtest::vxTest
{
};

/** The sequence as defined, written out independently: a 32-bit linear congruential step, then
 *  the state divided by twice the range, modulo the range. */
std::vector<uint32_t> referenceSequence(uint32_t state, uint32_t range, size_t count)
{
    std::vector<uint32_t> out;
    for (size_t i = 0; i < count; ++i) {
        state = static_cast<uint32_t>((uint64_t{state} * 1103515245ULL + 12345ULL) % 4294967296ULL);
        const uint64_t divisor = (2ULL * range) % 4294967296ULL;
        const uint64_t q = divisor == 0 ? 0 : state / divisor;
        out.push_back(range == 0 ? 0 : static_cast<uint32_t>(q % range));
    }
    return out;
}

TEST_F(vxSequenceTest, FirstValueWithoutSeed)
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
}

TEST_F(vxSequenceTest, SeedTakesTheFirstFourBytesBigEndian)
{
    vxSequence sequence;
    ASSERT_TRUE(sequence.Open(10));
    EXPECT_TRUE(sequence.Seed(unhex("00000005AABBCC")));
    EXPECT_EQ(sequence.state, 5U);
    EXPECT_TRUE(sequence.Seed(unhex("DEADBEEF")));
    EXPECT_EQ(sequence.state, 0xDEADBEEFU);
    EXPECT_FALSE(vxtest::latched());
}

TEST_F(vxSequenceTest, SeedWithThreeBytesFails)
{
    vxSequence sequence;
    ASSERT_TRUE(sequence.Open(10));
    EXPECT_FAILS_WITH(sequence.Seed(unhex("000005")), "inValue.bytes.size() >= 4");
    EXPECT_EQ(sequence.state, 1U);
    veltrix::vxBase::lvxClearLastError();
    EXPECT_FALSE(sequence.Seed(unhex("")));
    veltrix::vxBase::lvxClearLastError();
}

TEST_F(vxSequenceTest, SeedRefusesWhileLatched)
{
    vxSequence sequence;
    ASSERT_TRUE(sequence.Open(10));
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_FALSE(sequence.Seed(unhex("00000005")));
    EXPECT_EQ(vxtest::firstMessage(), refused);
    EXPECT_EQ(sequence.state, 1U);
    EXPECT_EQ(sequence.Next(), 9U) << "Next has no guard";
    veltrix::vxBase::lvxClearLastError();
}

TEST_F(vxSequenceTest, MatchesTheReferenceForSeveralSeedsAndRanges)
{
    // clang-format off
    const struct { const char* seed; uint32_t state; uint32_t range; } cases[] = {{"00000001", 1, 10}, {"00000005", 5, 7}, {"DEADBEEF", 0xDEADBEEF, 256}, {"FFFFFFFF", 0xFFFFFFFF, 1000}, {"12345678", 0x12345678, 1}, {"80000000", 0x80000000, 0x80000000U}, {"0000002A", 42, 0xFFFFFFFFU}};

    // clang-format on
    for (const auto& c : cases) {
        vxSequence sequence;
        ASSERT_TRUE(sequence.Open(c.range));
        ASSERT_TRUE(sequence.Seed(unhex(c.seed)));
        std::vector<uint32_t> got;
        for (int i = 0; i < 8; ++i) {
            got.push_back(sequence.Next());
        }
        EXPECT_EQ(got, referenceSequence(c.state, c.range, 8)) << c.seed << " " << c.range;
    }
    // A few values worked out by hand for seed 5, range 7: 5 * 1103515245 + 12345 = 5517588570,
    // which is 1222621274 modulo 2^32; 1222621274 / 14 = 87330091, and 87330091 % 7 = 2.
    vxSequence sequence;
    ASSERT_TRUE(sequence.Open(7));
    ASSERT_TRUE(sequence.Seed(unhex("00000005")));
    EXPECT_EQ(sequence.Next(), 2U);
    EXPECT_EQ(sequence.state, 1222621274U);
}

} // namespace
