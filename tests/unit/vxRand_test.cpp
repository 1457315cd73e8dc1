// The random source vxRand: its quiet refusals, the bounded draws, the reproducible test mode and
// the hashed and plain reads of one draw.

#include "cryptoapi.h"
#include "vxTest.h"

#include <cstdint>
#include <set>
#include <vector>

namespace {

using veltrix::vxBytes;
using veltrix::vxRand;
using byteVector = std::vector<unsigned char>;

class vxRandTest : public vxtest::vxCryptoTest
{
protected:
    void SetUp() override
    {
        vxtest::vxCryptoTest::SetUp();
        closeAtEnd = {&source, &other};
        ASSERT_TRUE(open(source));
    }

    bool open(vxRand& opened) { return frame.openChild(opened) && opened.Open(true); }

    /** `count` bytes of one read, through the hashed output. */
    static byteVector draw(vxRand& from, uint32_t count)
    {
        vxBytes hashed;
        EXPECT_TRUE(from.Read(count) && from.GetHashedBytes(hashed));
        return hashed.bytes;
    }

    vxRand source;
    vxRand other; ///< a second source, for the cases that compare two
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

TEST_F(vxRandTest, AnUnopenedSourceRefusesQuietly)
{
    vxRand unopened;
    EXPECT_FALSE(unopened.Read(16));
    uint32_t number = 42;
    EXPECT_FALSE(unopened.GetNumFromZero(10, number));
    EXPECT_EQ(number, 42U);
    EXPECT_QUIET();
}

TEST_F(vxRandTest, AnEmptyReadHasNoHashedBytesButEmptyPlainOnes)
{
    ASSERT_TRUE(source.Read(0));
    vxBytes out = vxtest::bufferOf({1, 2, 3});
    EXPECT_FALSE(source.GetHashedBytes(out));
    EXPECT_TRUE(out.bytes.empty());
    EXPECT_QUIET();
    out.bytes = {1, 2, 3};
    EXPECT_TRUE(source.GetBytes(out));
    EXPECT_TRUE(out.bytes.empty());
}

TEST_F(vxRandTest, ReadsRefuseWhileLatched)
{
    ASSERT_TRUE(source.Read(8));
    vxGlobal.stackTrace.errorLatch = true;
    vxBytes out;
    EXPECT_FALSE(source.GetBytes(out));
    EXPECT_EQ(vxtest::firstMessage(), vxtest::kRefusal);
    EXPECT_REFUSED(source.GetHashedBytes(out));
}

TEST_F(vxRandTest, DrawsStayBelowTheLimitAndReachEveryValue)
{
    for (const int limit : {1, 2, 7, 1000}) {
        std::set<uint32_t> seen;
        for (int i = 0; i < 2000; ++i) {
            uint32_t drawn = UINT32_MAX;
            ASSERT_TRUE(source.GetNumFromZero(limit, drawn));
            ASSERT_LT(drawn, static_cast<uint32_t>(limit));
            seen.insert(drawn);
        }
        if (limit <= 7) {
            // 2000 draws miss one of at most 7 values with a chance below 7 * (6/7)^2000.
            EXPECT_EQ(seen.size(), static_cast<size_t>(limit)) << limit;
        }
    }
}

TEST_F(vxRandTest, AnEmptyRangeGivesZero)
{
    for (const int limit : {0, -1, INT32_MIN}) {
        uint32_t drawn = 42;
        EXPECT_TRUE(source.GetNumFromZero(limit, drawn));
        EXPECT_EQ(drawn, 0U) << limit;
    }
}

TEST_F(vxRandTest, TestModeFollowsTheDocumentedStreamAcrossReads)
{
    ASSERT_TRUE(open(other));
    ASSERT_TRUE(source.SetTestMode() && other.SetTestMode());
    byteVector a = draw(source, 16);
    EXPECT_EQ(a, draw(other, 16));
    EXPECT_EQ(a, splitMix64Bytes(16));
    // 16 then 20 bytes equal the first 36 of one stream.
    const byteVector b = draw(source, 20);
    a.insert(a.end(), b.begin(), b.end());
    EXPECT_EQ(a, splitMix64Bytes(36));
}

TEST_F(vxRandTest, WithoutTestModeTwoSourcesDifferAndNeitherFollowsTheTestStream)
{
    ASSERT_TRUE(open(other));
    const byteVector c = draw(source, 32);
    EXPECT_NE(c, draw(other, 32));
    EXPECT_NE(c, splitMix64Bytes(32));
}

TEST_F(vxRandTest, HashedAndPlainBytesAreTheSameDrawOfTheSizeRead)
{
    for (const uint32_t count : {16U, 1U, 33U, 4096U}) {
        ASSERT_TRUE(source.Read(count));
        vxBytes hashed = vxtest::bufferOf({1, 2, 3});
        EXPECT_TRUE(source.GetHashedBytes(hashed));
        EXPECT_EQ(hashed.bytes.size(), count);
        vxBytes plain;
        EXPECT_TRUE(source.GetBytes(plain));
        EXPECT_EQ(plain.bytes, hashed.bytes) << count;
    }
}

} // namespace
