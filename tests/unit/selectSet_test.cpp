// Select sets: gathering descriptors and one select() over them.
#include "selectSet.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

namespace {

using oxel::selectSet;

/** A pipe whose ends are closed at the end of the scope. */
class pipePair
{
public:
    pipePair() { EXPECT_EQ(pipe(fds), 0); }

    pipePair(const pipePair&) = delete;
    pipePair& operator=(const pipePair&) = delete;

    ~pipePair() { closeBoth(); }

    void closeBoth()
    {
        for (int& fd : fds) {
            if (fd >= 0) {
                (void)close(fd);
                fd = -1;
            }
        }
    }

    uint32_t readEnd() const { return static_cast<uint32_t>(fds[0]); }

    uint32_t writeEnd() const { return static_cast<uint32_t>(fds[1]); }

    int fds[2] = {-1, -1};
};

bool emptySet(const fd_set& set)
{
    fd_set empty;
    FD_ZERO(&empty);
    return std::memcmp(&set, &empty, sizeof empty) == 0;
}

TEST(selectSet, MaxFdIsTheLargestKeptAndFdsPastTheSetAreIgnored)
{
    // clang-format off
    const struct { std::vector<uint32_t> readFds; std::vector<uint32_t> writeFds; uint32_t maxFd; } rows[] = {
        {{9, 5}, {}, 9}, {{5, 9}, {}, 9}, {{3}, {}, 3}, {{1024}, {}, 0}, {{7, 1024}, {}, 7}, {{}, {1024, 5000}, 0},
        {{}, {12}, 12}, {{4}, {2}, 4}, {{2}, {11, 6}, 11}, {{1023}, {}, 1023}, {{1024, 70000}, {1024}, 0}};

    // clang-format on
    for (const auto& r : rows) {
        selectSet set;
        for (const uint32_t fd : r.readFds) {
            set.addFd(fd);
        }
        for (const uint32_t fd : r.writeFds) {
            set.addWriteFd(fd);
        }
        EXPECT_EQ(set.maxFd, r.maxFd)
            << r.readFds.size() << " read, " << r.writeFds.size() << " write";
        if (r.maxFd == 0) {
            EXPECT_TRUE(emptySet(set.readSet) && emptySet(set.writeSet));
        }
    }
}

TEST(selectSet, ReadAndWriteFdsGoToTheirOwnSetsAndResetEmptiesBoth)
{
    selectSet both;
    both.timeoutSeconds = 7;
    both.addFd(3);
    both.addWriteFd(4);
    EXPECT_TRUE(FD_ISSET(3, &both.readSet));
    EXPECT_FALSE(FD_ISSET(4, &both.readSet));
    EXPECT_TRUE(FD_ISSET(4, &both.writeSet));
    EXPECT_FALSE(FD_ISSET(3, &both.writeSet));
    EXPECT_TRUE(both.isSet(3));
    EXPECT_FALSE(both.isSet(4));
    both.reset();
    EXPECT_TRUE(emptySet(both.readSet));
    EXPECT_TRUE(emptySet(both.writeSet));
    EXPECT_FALSE(both.isSet(3));
    EXPECT_EQ(both.maxFd, 0U);
}

TEST(selectSet, SelectCountsTheReadyDescriptorsButIsSetOnlyReadsOnes)
{
    pipePair ready;
    pipePair idle;
    ASSERT_EQ(write(ready.fds[1], "x", 1), 1);
    selectSet set;
    set.timeoutSeconds = 5;
    set.addFd(ready.readEnd());
    set.addFd(idle.readEnd());
    set.addWriteFd(idle.writeEnd());
    EXPECT_EQ(set.doSelect(), 2);
    EXPECT_TRUE(set.isSet(ready.readEnd()));
    EXPECT_FALSE(set.isSet(idle.readEnd()));
    EXPECT_TRUE(FD_ISSET(idle.fds[1], &set.writeSet)); // writable...
    EXPECT_FALSE(set.isSet(idle.writeEnd()));          // ...but isSet does not say so
}

TEST(selectSet, ASelectOverAClosedDescriptorFailsWithEbadf)
{
    pipePair pipe;
    const uint32_t fd = pipe.readEnd();
    pipe.closeBoth();
    selectSet closedSet;
    closedSet.timeoutSeconds = 5;
    closedSet.addFd(fd);
    errno = 0;
    EXPECT_EQ(closedSet.doSelect(), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(selectSet, TheTimeOutSurvivesReset)
{
    // The time-out survives reset(): the wait over an idle pipe ends after it, not when a late
    // writer makes the pipe readable (which it would without a time-out).
    pipePair idle;
    pipePair late;
    selectSet idleSet;
    idleSet.timeoutSeconds = 1;
    idleSet.addFd(idle.readEnd());
    idleSet.reset();
    idleSet.addFd(late.readEnd());
    std::thread writer([&late] {
        std::this_thread::sleep_for(std::chrono::seconds(5));
        EXPECT_EQ(write(late.fds[1], "x", 1), 1);
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(idleSet.doSelect(), 0);
    const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
    writer.join();
    EXPECT_GE(waited.count(), 0.9);
}

} // namespace
