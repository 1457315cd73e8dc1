// Select sets: gathering descriptors and one select() over them.
#include "selectSet.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

namespace {

using oxel::selectSet;

/** A pipe whose ends are closed at the end of the scope. */
class pipePair
{
public:
    pipePair()
    {
        int fds[2] = {-1, -1};
        EXPECT_EQ(pipe(fds), 0);
        readEnd = fds[0];
        writeEnd = fds[1];
    }

    pipePair(const pipePair&) = delete;
    pipePair& operator=(const pipePair&) = delete;

    ~pipePair() { closeBoth(); }

    void closeBoth()
    {
        for (int* fd : {&readEnd, &writeEnd}) {
            if (*fd >= 0) {
                (void)close(*fd);
                *fd = -1;
            }
        }
    }

    int readEnd = -1;
    int writeEnd = -1;
};

bool emptySet(const fd_set& set)
{
    fd_set empty;
    FD_ZERO(&empty);
    return std::memcmp(&set, &empty, sizeof empty) == 0;
}

TEST(selectSet, MaxFdIsTheHighestAdded)
{
    struct row
    {
        std::vector<uint32_t> readFds;
        std::vector<uint32_t> writeFds;
        uint32_t maxFd;
    };

    const std::vector<row> rows = {
        {{9, 5}, {}, 9},    {{5, 9}, {}, 9},       {{3}, {}, 3},   {{1024}, {}, 0},
        {{7, 1024}, {}, 7}, {{}, {1024, 5000}, 0}, {{}, {12}, 12}, {{4}, {2}, 4},
        {{2}, {11, 6}, 11}, {{1023}, {}, 1023},
    };
    for (const row& r : rows) {
        selectSet set;
        for (const uint32_t fd : r.readFds) {
            set.addFd(fd);
        }
        for (const uint32_t fd : r.writeFds) {
            set.addWriteFd(fd);
        }
        EXPECT_EQ(set.maxFd, r.maxFd)
            << r.readFds.size() << " read, " << r.writeFds.size() << " write";
    }
}

TEST(selectSet, DescriptorsBeyondTheSetAreIgnored)
{
    selectSet set;
    set.addFd(1024);
    set.addWriteFd(1024);
    set.addFd(70000);
    EXPECT_TRUE(emptySet(set.readSet));
    EXPECT_TRUE(emptySet(set.writeSet));
    EXPECT_EQ(set.maxFd, 0U);
}

TEST(selectSet, AddsGoToTheirOwnSet)
{
    selectSet set;
    set.addFd(3);
    set.addWriteFd(4);
    EXPECT_TRUE(FD_ISSET(3, &set.readSet));
    EXPECT_FALSE(FD_ISSET(4, &set.readSet));
    EXPECT_TRUE(FD_ISSET(4, &set.writeSet));
    EXPECT_FALSE(FD_ISSET(3, &set.writeSet));
    EXPECT_TRUE(set.isSet(3));
    EXPECT_FALSE(set.isSet(4));
}

TEST(selectSet, ResetEmptiesSetsButKeepsTimeout)
{
    selectSet set;
    set.timeoutSeconds = 7;
    set.addFd(5);
    set.addWriteFd(9);
    set.reset();
    EXPECT_TRUE(emptySet(set.readSet));
    EXPECT_TRUE(emptySet(set.writeSet));
    EXPECT_FALSE(set.isSet(5));
    EXPECT_EQ(set.maxFd, 0U);
    EXPECT_EQ(set.timeoutSeconds, 7U);
}

TEST(selectSet, ReadablePipeIsReported)
{
    pipePair ready;
    pipePair idle;
    ASSERT_EQ(write(ready.writeEnd, "x", 1), 1);
    selectSet set;
    set.timeoutSeconds = 5;
    set.addFd(static_cast<uint32_t>(ready.readEnd));
    set.addFd(static_cast<uint32_t>(idle.readEnd));
    EXPECT_EQ(set.doSelect(), 1);
    EXPECT_TRUE(set.isSet(static_cast<uint32_t>(ready.readEnd)));
    EXPECT_FALSE(set.isSet(static_cast<uint32_t>(idle.readEnd)));
}

TEST(selectSet, IsSetLooksAtTheReadSetOnly)
{
    pipePair pipe;
    selectSet set;
    set.timeoutSeconds = 5;
    const auto fd = static_cast<uint32_t>(pipe.writeEnd);
    set.addWriteFd(fd);
    EXPECT_EQ(set.doSelect(), 1);
    EXPECT_TRUE(FD_ISSET(pipe.writeEnd, &set.writeSet)); // writable...
    EXPECT_FALSE(set.isSet(fd));                         // ...but isSet does not say so
}

TEST(selectSet, ClosedDescriptorFailsWithEbadf)
{
    pipePair pipe;
    const auto fd = static_cast<uint32_t>(pipe.readEnd);
    pipe.closeBoth();
    selectSet set;
    set.timeoutSeconds = 5;
    set.addFd(fd);
    errno = 0;
    EXPECT_EQ(set.doSelect(), -1);
    EXPECT_EQ(errno, EBADF);
}

// The one timed case: a generous bound around the three seconds asked for.
TEST(selectSet, TimeoutWithoutDescriptorsReturnsZeroAfterAboutThreeSeconds)
{
    selectSet set;
    set.timeoutSeconds = 3;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(set.doSelect(), 0);
    const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited.count(), 2.9);
    EXPECT_LT(waited.count(), 10.0);
}

} // namespace
