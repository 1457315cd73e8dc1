// The library's deterministic sequence vxSequence: its first value, its seed and agreement with the
// sequence written out a second time here.

#include "cryptoapi.h"
#include "vxTest.h"

#include <cstdint>
#include <string>
#include <vector>

namespace {

using veltrix::vxSequence;
using vxtest::fromHex;
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

TEST_F(vxSequenceTest, OpenStartsFromStateOneAndTheFirstValueIsNine)
{
    vxSequence sequence;
    ASSERT_TRUE(sequence.Open(10));
    EXPECT_EQ(sequence.state, 1U);
    EXPECT_EQ(sequence.divisor, 20U);
    EXPECT_EQ(sequence.range, 10U);
    EXPECT_EQ(sequence.Next(), 9U);
    EXPECT_EQ(sequence.state, 1103527590U);
}

TEST_F(vxSequenceTest, AZeroRangeGivesZeroAndStillAdvances)
{
    vxSequence empty;
    ASSERT_TRUE(empty.Open(0));
    const uint32_t first = empty.Next();
    const uint32_t afterOne = empty.state;
    EXPECT_EQ(std::vector<uint32_t>({first, empty.Next()}), std::vector<uint32_t>(2, 0U));
    EXPECT_EQ(afterOne, 1103527590U) << "the step of any range";
    EXPECT_NE(empty.state, afterOne);
}

TEST_F(vxSequenceTest, ASeedOfFewerThanFourBytesFails)
{
    vxSequence seeded;
    ASSERT_TRUE(seeded.Open(10));
    EXPECT_FAILS_WITH(seeded.Seed(fromHex("000005")), "inValue.bytes.size() >= 4");
    EXPECT_EQ(seeded.state, 1U);
    veltrix::vxBase::lvxClearLastError();
    EXPECT_FALSE(seeded.Seed(fromHex("")));
}

TEST_F(vxSequenceTest, SeedRefusesWhileLatchedButNextHasNoGuard)
{
    vxSequence seeded;
    ASSERT_TRUE(seeded.Open(10));
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_FALSE(seeded.Seed(fromHex("00000005")));
    EXPECT_EQ(vxtest::firstMessage(), vxtest::kRefusal);
    EXPECT_EQ(seeded.state, 1U);
    EXPECT_EQ(seeded.Next(), 9U);
}

TEST_F(vxSequenceTest, TheSeedIsItsFirstFourBytesBigEndian)
{
    vxSequence seeded;
    ASSERT_TRUE(seeded.Open(10));
    EXPECT_TRUE(seeded.Seed(fromHex("00000005AABBCC")));
    EXPECT_EQ(seeded.state, 5U);
    EXPECT_TRUE(seeded.Seed(fromHex("DEADBEEF")));
    EXPECT_EQ(seeded.state, 0xDEADBEEFU);
    EXPECT_QUIET();
}

TEST_F(vxSequenceTest, ValuesAgreeWithTheReferenceForEverySeedAndRange)
{
    // clang-format off
    const struct { const char* seed; uint32_t state; uint32_t range; } cases[] = {{"00000001", 1, 10}, {"00000005", 5, 7}, {"DEADBEEF", 0xDEADBEEF, 256}, {"FFFFFFFF", 0xFFFFFFFF, 1000}, {"12345678", 0x12345678, 1}, {"80000000", 0x80000000, 0x80000000U}, {"0000002A", 42, 0xFFFFFFFFU}};

    // clang-format on
    for (const auto& c : cases) {
        vxSequence generated;
        ASSERT_TRUE(generated.Open(c.range));
        ASSERT_TRUE(generated.Seed(fromHex(c.seed)));
        std::vector<uint32_t> got;
        for (int i = 0; i < 8; ++i) {
            got.push_back(generated.Next());
        }
        EXPECT_EQ(got, referenceSequence(c.state, c.range, 8)) << c.seed << " " << c.range;
    }
}

TEST_F(vxSequenceTest, AValueWorkedOutByHand)
{
    // Seed 5, range 7: 5 * 1103515245 + 12345 = 5517588570, which is 1222621274 modulo 2^32;
    // 1222621274 / 14 = 87330091, and 87330091 % 7 = 2.
    vxSequence generated;
    ASSERT_TRUE(generated.Open(7));
    ASSERT_TRUE(generated.Seed(fromHex("00000005")));
    EXPECT_EQ(generated.Next(), 2U);
    EXPECT_EQ(generated.state, 1222621274U);
}

} // namespace
