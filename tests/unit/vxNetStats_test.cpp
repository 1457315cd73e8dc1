// Protocol statistics: the counters' restart below 2^32, the re-key policy's running sum and the
// exact table Display writes.

#include "vxNetStats.h"

#include "vxTest.h"

#include <cstdint>
#include <iomanip>
#include <iostream>
#include <string>
#include <tuple>
#include <vector>

namespace {

using veltrix::vxBytes;
using veltrix::vxNetProtocolStats;
using veltrix::vxNetProtocolStatsCounter;
using vxtest::testFrame;

class vxNetStatsTest : public vxtest::vxTest
{
protected:
    void SetUp() override
    {
        vxtest::vxTest::SetUp();
        ASSERT_TRUE(frame.openChild(stats));
        closeAtEnd = {&stats};
    }

    vxNetProtocolStats stats;
};

TEST_F(vxNetStatsTest, ACounterRestartsAtTheLimitOneLargestPacketBelowTwoToThe32)
{
    // value before, added, value after, wraps after
    const std::vector<std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>> cases = {
        {0xFFFFBFFFU, 1, 1, 1},
        {0xFFFFBFFEU, 1, 0xFFFFBFFFU, 0},
        {0xFFFF8000U, 16384, 16384, 1},
        {0xFFFEC000U, 16384, 0xFFFF0000U, 0},
        {0, 0, 0, 0}};
    for (const auto& [before, added, after, wraps] : cases) {
        vxNetProtocolStatsCounter counter;
        ASSERT_TRUE(frame.openChild(counter));
        counter.value = before;
        ASSERT_TRUE(counter.Update(added));
        uint32_t value = 0;
        ASSERT_TRUE(counter.GetIntValue(value));
        EXPECT_EQ(value, after) << before << " + " << added;
        EXPECT_EQ(counter.wraps, wraps) << before << " + " << added;
        testFrame::closeAll(counter);
    }
}

TEST_F(vxNetStatsTest, TheReKeyPolicyAddsTheWholeRunningTotalOnEveryCall)
{
    ASSERT_TRUE(stats.UpdateSendStats(3000));
    const std::vector<bool> answers = {false, true, false, true, false};
    for (size_t i = 0; i < answers.size(); ++i) {
        EXPECT_EQ(stats.NeedReKey(), answers[i]) << "call " << i;
    }
    EXPECT_EQ(stats.reKeyAccumulator, 3000U);
    ASSERT_TRUE(stats.UpdateSendStats(3000));
    EXPECT_TRUE(stats.NeedReKey()) << "3000 + 6000 passes 5000";
    EXPECT_EQ(stats.reKeyAccumulator, 0U);
    EXPECT_QUIET();
}

TEST_F(vxNetStatsTest, ByteCountersReadAsTextMessagesCountOncePerUpdate)
{
    std::string text;
    ASSERT_TRUE(stats.SentBytes.GetStrValue(text));
    EXPECT_EQ(text, "0 bytes.");
    ASSERT_TRUE(stats.UpdateSendStats(vxBytes()) && stats.UpdateSendStats(1234));
    ASSERT_TRUE(stats.SentBytes.GetStrValue(text));
    EXPECT_EQ(text, "1234 bytes.");
    uint32_t messages = 0;
    ASSERT_TRUE(stats.SentMsgs.GetIntValue(messages));
    EXPECT_EQ(messages, 2U);
}

TEST_F(vxNetStatsTest, DisplayWritesTheCountersAsATableAndLeavesTheStreamAsItWas)
{
    vxBytes header;
    header.bytes.resize(48);
    ASSERT_TRUE(stats.UpdateSendStats(header) && stats.UpdateSendStats(32));
    ASSERT_TRUE(stats.UpdateRecvStats(32));
    testing::internal::CaptureStdout();
    ASSERT_TRUE(stats.Display());
    std::cout << std::setw(6) << 42 << "\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "|------------------|-----------|\n"
                                                      "| Object           | Value     |\n"
                                                      "|------------------|-----------|\n"
                                                      "| RecvMsgs         | 1         |\n"
                                                      "| SentMsgs         | 2         |\n"
                                                      "| RecvBytes        | 32 bytes. |\n"
                                                      "| SentBytes        | 80 bytes. |\n"
                                                      "| Key Re-Exchanges | 0         |\n"
                                                      "|------------------|-----------|\n"
                                                      "    42\n");
}

TEST_F(vxNetStatsTest, CountersRefuseBeforeOpenAfterCloseAndWhileLatched)
{
    vxNetProtocolStatsCounter counter;
    EXPECT_FAILS_WITH(counter.Update(1), vxtest::kExpectedOpen);
    veltrix::vxBase::lvxClearLastError();
    testFrame::closeExpected(stats);
    EXPECT_FAILS_WITH(stats.UpdateRecvStats(1), vxtest::kExpectedOpen);
    veltrix::vxBase::lvxClearLastError();
    ASSERT_TRUE(frame.openChild(stats));
    vxtest::latchByFailure();
    EXPECT_REFUSED(stats.Display());
    EXPECT_REFUSED(stats.NeedReKey());
}

} // namespace
