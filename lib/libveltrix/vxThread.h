/// @file
/// Thin wrappers over POSIX threads, mutexes and condition variables. Their operations check only
/// the error latch, not the open state.
#pragma once

#include "vxBase.h"

#include <pthread.h>

namespace veltrix {

/** A POSIX mutex. */
class VX_API vxMutex : public vxBase
{
public:
    /** Statically initialised; Open initialises it again. */
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

    vxMutex();
    LVX_NOT_COPYABLE(vxMutex);
    ~vxMutex() override;

    /** Initialises the mutex; fails with "Int return value failed. (%d). ". */
    [[nodiscard]] bool Open() override;
    /** pthread_mutex_lock; fails with "Int return value failed. (%d). " and its result. */
    [[nodiscard]] bool Lock();
    /** pthread_mutex_unlock; fails as Lock. */
    [[nodiscard]] bool UnLock();
};

/** A POSIX condition variable and its mutex. */
class VX_API vxCondition : public vxBase
{
public:
    vxMutex mutex;                                       ///< never opened: statically initialised
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER; ///< statically initialised

    vxCondition();
    LVX_NOT_COPYABLE(vxCondition);
    ~vxCondition() override;

    [[nodiscard]] bool Open() override { return true; }

    /** Waits on the condition with `mutex`, which the caller must hold, then unlocks `mutex`
     *  and returns true. The latch is checked only after the wait: while it is set, the call
     *  still waits, then refuses ("Unable to continue from previous error") and returns false
     *  with `mutex` still held. A failed unlock is recorded ("Int return value failed. (%d). ")
     *  and gives false. */
    [[nodiscard]] bool Sleep();
    /** Locks `mutex` and wakes one sleeper; returns with `mutex` held (release with UnLock).
     *  While the latch is set it refuses before locking, and wakes nobody. */
    [[nodiscard]] bool WakeupOne();
    /** Locks `mutex` and wakes every sleeper; returns with `mutex` held. Refuses while latched,
     *  as WakeupOne. */
    [[nodiscard]] bool WakeupAll();

private:
    [[nodiscard]] VX_NO_EXPORT bool wakeup(int (*signalFunction)(pthread_cond_t*));
};

/** A detached thread. Close neither stops the thread nor closes the members. */
class VX_API vxThread : public vxBase
{
public:
    bool threadCreated = false;  ///< cleared by Open and never set: SetStackSize always goes on
    pthread_t thread{};          ///< the thread StartMain started last
    pthread_attr_t attributes{}; ///< detached; prepared by Open
    vxMutex mutex;               ///< opened by Open, for the application's use
    vxCondition condition;       ///< opened by Open, for the application's use

    vxThread();
    LVX_NOT_COPYABLE(vxThread);
    ~vxThread() override;

    /** Prepares detached attributes and opens the member mutex and condition. */
    [[nodiscard]] bool Open() override;

    /** Does nothing; true. */
    [[nodiscard]] bool Close() override { return true; }

    /** Starts `entry` at once with this object as argument. Fails with "rv == 0" when the thread
     *  cannot be created, or with the latch text (the thread has started all the same). */
    [[nodiscard]] bool StartMain(void (*&entry)(void*));
    /** Stack size for threads started afterwards; fails with "rv == 0". */
    [[nodiscard]] bool SetStackSize(uint32_t size);
};

} // namespace veltrix
