// Mutexes, conditions and threads, and the trail under concurrent failures.
#include "vxThread.h"

#include "vxTest.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using veltrix::vxBase;
using veltrix::vxCondition;
using veltrix::vxMutex;
using veltrix::vxThread;
using vxThreadTest = vxtest::vxTest;

using vxtest::latchByFailure;

void pause()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

/** Closes the members a vxThread leaves open, then the thread object itself. */
void closeThread(vxThread& thread)
{
    vxtest::testFrame::closeAll(thread.condition, thread.mutex, thread);
}

// What the thread entry saw; one started thread at a time.
std::atomic<vxThread*> startedWith{nullptr};
std::atomic<size_t> startedStackSize{0};

void recordStart(void* argument)
{
    pthread_attr_t attributes;
    size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        (void)pthread_attr_getstacksize(&attributes, &size);
        (void)pthread_attr_destroy(&attributes);
    }
    startedStackSize.store(size);
    startedWith.store(static_cast<vxThread*>(argument));
}

vxThread* waitForStart()
{
    vxThread* seen = nullptr;
    while ((seen = startedWith.load()) == nullptr) {
        pause();
    }
    startedWith.store(nullptr);
    return seen;
}

TEST_F(vxThreadTest, MutexLocksAndUnlocks)
{
    vxMutex mutex;
    ASSERT_TRUE(frame.openChild(mutex));
    EXPECT_TRUE(mutex.Lock());
    EXPECT_EQ(pthread_mutex_trylock(&mutex.mutex), EBUSY);
    EXPECT_TRUE(mutex.UnLock());
    EXPECT_EQ(pthread_mutex_trylock(&mutex.mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&mutex.mutex), 0);
    EXPECT_TRUE(vxtest::testFrame::closeChild(mutex));
    EXPECT_FALSE(vxBase::HaveStackTrace());
}

TEST_F(vxThreadTest, MutexRefusesWhileLatchedWithoutTakingTheLock)
{
    vxMutex other;
    latchByFailure();
    EXPECT_FALSE(other.Lock());
    EXPECT_FALSE(other.UnLock());
    EXPECT_FALSE(other.Open());
    const std::vector<std::string> messages = vxtest::trailMessages();
    ASSERT_EQ(vxGlobal.stackTrace.events.size(), 4U);
    EXPECT_EQ(std::vector<std::string>(messages.begin() + 1, messages.end()),
              std::vector<std::string>(3, vxtest::kRefusal));
    EXPECT_EQ(pthread_mutex_trylock(&other.mutex), 0) << "Lock did not take the mutex";
    EXPECT_EQ(pthread_mutex_unlock(&other.mutex), 0);
}

TEST_F(vxThreadTest, AFailingLockRecordsTheCallsStatus)
{
    vxMutex checking;
    pthread_mutexattr_t checkingAttributes;
    ASSERT_EQ(pthread_mutexattr_init(&checkingAttributes), 0);
    ASSERT_EQ(pthread_mutexattr_settype(&checkingAttributes, PTHREAD_MUTEX_ERRORCHECK), 0);
    ASSERT_EQ(pthread_mutex_init(&checking.mutex, &checkingAttributes), 0);
    (void)pthread_mutexattr_destroy(&checkingAttributes);
    // Locking an error-checking mutex twice from one thread fails with EDEADLK.
    static_assert(EDEADLK == 35, "Linux error numbers");
    ASSERT_TRUE(checking.Lock());
    EXPECT_FAILS_WITH(checking.Lock(), "Int return value failed. (35). ");
    EXPECT_EQ(vxtest::trailMessages().size(), 1U);
    EXPECT_EQ(pthread_mutex_unlock(&checking.mutex), 0);
    (void)pthread_mutex_destroy(&checking.mutex);
}

/** Waits on `condition` until `signalled`, re-checking after every wake-up. */
void sleeper(vxCondition& condition, std::atomic<int>& sleeping, const std::atomic<bool>& signalled,
             std::atomic<int>& woken)
{
    EXPECT_TRUE(condition.mutex.Lock());
    ++sleeping;
    while (!signalled.load()) {
        EXPECT_TRUE(condition.Sleep()); // returns with the mutex released
        EXPECT_TRUE(condition.mutex.Lock());
    }
    EXPECT_TRUE(condition.mutex.UnLock());
    ++woken;
}

TEST_F(vxThreadTest, ConditionWakeupOneHoldsSleeperUntilUnlockAndWakeupAllWakesEverySleeper)
{
    for (const int count : {1, 2}) {
        vxCondition condition;
        ASSERT_TRUE(frame.openChild(condition));
        std::atomic<int> sleeping{0};
        std::atomic<bool> signalled{false};
        std::atomic<int> woken{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < count; ++i) {
            waiters.emplace_back(sleeper, std::ref(condition), std::ref(sleeping),
                                 std::cref(signalled), std::ref(woken));
        }
        while (sleeping.load() < count) {
            pause();
        }
        // Succeeds only once the sleepers wait, and returns with the mutex held.
        ASSERT_TRUE(count == 1 ? condition.WakeupOne() : condition.WakeupAll());
        signalled.store(true);
        if (count == 1) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            EXPECT_EQ(woken.load(), 0) << "the sleeper must stay blocked until the waker unlocks";
        }
        EXPECT_TRUE(condition.mutex.UnLock());
        for (std::thread& waiter : waiters) {
            waiter.join(); // a lost wake-up would hang here until the test's time-out
        }
        EXPECT_EQ(woken.load(), count);
        EXPECT_TRUE(vxtest::testFrame::closeChild(condition));
    }
    EXPECT_FALSE(vxBase::HaveStackTrace());
}

TEST_F(vxThreadTest, ThreadOpenOpensItsMembersWhichCloseLeavesOpen)
{
    vxThread thread;
    ASSERT_TRUE(frame.openChild(thread));
    EXPECT_TRUE(thread.opened);
    EXPECT_FALSE(thread.threadCreated);
    for (const vxBase* member :
         {static_cast<vxBase*>(&thread.mutex), static_cast<vxBase*>(&thread.condition)}) {
        EXPECT_TRUE(member->opened);
        EXPECT_EQ(member->parent, &thread);
        EXPECT_EQ(member->depth, 2U);
    }
    int detach = 0;
    EXPECT_EQ(pthread_attr_getdetachstate(&thread.attributes, &detach), 0);
    EXPECT_EQ(detach, PTHREAD_CREATE_DETACHED);
    // Close does not touch the members.
    EXPECT_TRUE(vxtest::testFrame::closeChild(thread));
    EXPECT_TRUE(thread.mutex.opened);
    EXPECT_TRUE(thread.condition.opened);
    EXPECT_TRUE(vxtest::testFrame::closeChild(thread.condition));
    EXPECT_TRUE(vxtest::testFrame::closeChild(thread.mutex));
    EXPECT_FALSE(vxBase::HaveStackTrace());
}

TEST_F(vxThreadTest, ConditionWakeupRefusesWhileLatchedWithoutTakingTheLock)
{
    vxCondition condition;
    latchByFailure();
    EXPECT_FALSE(condition.WakeupOne());
    EXPECT_FALSE(condition.WakeupAll());
    const std::vector<std::string> messages = vxtest::trailMessages();
    ASSERT_EQ(messages.size(), 3U);
    EXPECT_EQ(messages[1], vxtest::kRefusal);
    EXPECT_EQ(messages[2], vxtest::kRefusal);
    EXPECT_EQ(pthread_mutex_trylock(&condition.mutex.mutex), 0) << "the inner mutex was not taken";
    EXPECT_EQ(pthread_mutex_unlock(&condition.mutex.mutex), 0);
}

TEST_F(vxThreadTest, StartMainRunsTheEntryWithTheStackSizeSet)
{
    vxThread thread;
    ASSERT_TRUE(frame.openChild(thread));
    void (*entry)(void*) = recordStart;
    const size_t small = 256 * 1024;
    const size_t large = 1024 * 1024;
    EXPECT_TRUE(thread.SetStackSize(small));
    EXPECT_TRUE(thread.StartMain(entry));
    EXPECT_EQ(waitForStart(), &thread);
    EXPECT_FALSE(thread.threadCreated);
    const size_t first = startedStackSize.load();
    EXPECT_TRUE(thread.SetStackSize(large)); // accepted after a start
    EXPECT_TRUE(thread.StartMain(entry));
    EXPECT_EQ(waitForStart(), &thread);
    const size_t second = startedStackSize.load();
    EXPECT_GE(first, small);
    EXPECT_LT(first, large);
    EXPECT_GE(second, large);
    EXPECT_FALSE(vxBase::HaveStackTrace());
    EXPECT_FAILS_WITH(thread.SetStackSize(1), "rv == 0");
    const size_t before = vxGlobal.stackTrace.events.size();
    EXPECT_FALSE(thread.StartMain(entry)) << "latched";
    EXPECT_EQ(waitForStart(), &thread); // started all the same
    ASSERT_EQ(vxGlobal.stackTrace.events.size(), before + 1);
    EXPECT_EQ(vxtest::trailMessages().back(), vxtest::kRefusal);
    vxBase::lvxClearLastError();
    closeThread(thread);
}

TEST_F(vxThreadTest, DestroyingAThreadWithOpenMembersReportsTheFirstOnly)
{
    // Members go in reverse order: the condition is reported first and latches, so the mutex
    // after it adds nothing.
    for (const char* member : {"vxCondition", "vxMutex"}) {
        vxBase::lvxClearLastError();
        {
            vxThread unclosed;
            ASSERT_TRUE(frame.openChild(unclosed));
            ASSERT_TRUE(vxtest::testFrame::closeChild(unclosed));
            if (std::string(member) == "vxMutex") {
                ASSERT_TRUE(vxtest::testFrame::closeChild(unclosed.condition));
            }
        }
        EXPECT_TRUE(vxtest::latched());
        EXPECT_EQ(vxtest::trailMessages(),
                  (std::vector<std::string>{"Object ( veltrix::" + std::string(member) +
                                                " ) was not closed before going out of scope. ",
                                            "Opened by: veltrix::" + std::string(member),
                                            "Opened by: veltrix::vxThread"}));
    }
}

TEST_F(vxThreadTest, ConcurrentFailuresKeepTrailConsistent)
{
    constexpr int threads = 8;
    constexpr int calls = 200;
    std::atomic<int> ready{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&ready] {
            veltrix::vxBytes source;
            source.bytes = {1, 2, 3, 4};
            veltrix::vxBytes target;
            ++ready;
            while (ready.load() < threads) {
                std::this_thread::yield();
            }
            for (int i = 0; i < calls; ++i) {
                EXPECT_FALSE(target.CopyOffsets(3, 3, source));
            }
            EXPECT_TRUE(target.bytes.empty());
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    EXPECT_TRUE(vxtest::latched());
    ASSERT_EQ(vxGlobal.stackTrace.events.size(), static_cast<size_t>(threads * calls));
    size_t bounds = 0;
    for (const veltrix::vxHistoryEvent& event : vxGlobal.stackTrace.events) {
        ASSERT_EQ(event.lines.size(), 1U);
        const std::string& message = event.lines[0].message;
        if (message == "offset2 > offset1") {
            ++bounds;
        } else {
            EXPECT_EQ(message, vxtest::kRefusal);
        }
    }
    // The first event is always a real failure; every thread may have seen a clear latch once.
    EXPECT_EQ(vxtest::firstMessage(), "offset2 > offset1");
    EXPECT_GE(bounds, 1U);
    EXPECT_LE(bounds, static_cast<size_t>(threads));
}

} // namespace
