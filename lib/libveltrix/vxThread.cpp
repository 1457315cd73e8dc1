// Threads, mutexes and condition variables.
#include "vxThread.h"

#include "vxGuard.h"

#include <memory>

namespace veltrix {

namespace {

/** What a new thread needs: handed over through the heap so that starts never share state. */
struct threadStart
{
    void (*entry)(void*);
    vxThread* thread;
};

void* runThread(void* argument)
{
    const std::unique_ptr<threadStart> start(static_cast<threadStart*>(argument));
    start->entry(start->thread);
    return nullptr;
}

} // namespace

LVX_DEFINE_LIFECYCLE(vxMutex)

bool vxMutex::Open()
{
    LVX_CHECK_INT(pthread_mutex_init(&mutex, nullptr));
    return true;
}

bool vxMutex::Lock()
{
    LVX_CHECK_INT(pthread_mutex_lock(&mutex));
    return true;
}

bool vxMutex::UnLock()
{
    LVX_CHECK_INT(pthread_mutex_unlock(&mutex));
    return true;
}

LVX_DEFINE_LIFECYCLE(vxCondition)

bool vxCondition::Sleep()
{
    (void)pthread_cond_wait(&condition, &mutex.mutex);
    LVX_CHECK(mutex.UnLock());
    return true;
}

bool vxCondition::WakeupOne()
{
    return wakeup(pthread_cond_signal);
}

bool vxCondition::WakeupAll()
{
    return wakeup(pthread_cond_broadcast);
}

bool vxCondition::wakeup(int (*signalFunction)(pthread_cond_t*))
{
    LVX_CHECK(mutex.Lock());
    (void)signalFunction(&condition);
    return true;
}

LVX_DEFINE_LIFECYCLE(vxThread)

bool vxThread::Open()
{
    threadCreated = false;
    LVX_CHECK_INT(pthread_attr_init(&attributes));
    LVX_CHECK_INT(pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED));
    LVX_CALL_OPEN(mutex);
    LVX_CALL_OPEN(condition);
    return true;
}

bool vxThread::StartMain(void (*&entry)(void*))
{
    auto start = std::make_unique<threadStart>(threadStart{entry, this});
    const int rv = pthread_create(&thread, &attributes, runThread, start.get());
    if (rv == 0) {
        (void)start.release(); // the new thread owns it now
    }
    LVX_GUARD_LATCH();
    LVX_ENSURE(rv == 0, LVX_MSG_RV_ZERO);
    return true;
}

bool vxThread::SetStackSize(uint32_t size)
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(!threadCreated, LVX_MSG_THREAD_CREATED);
    LVX_ENSURE(pthread_attr_setstacksize(&attributes, size) == 0, LVX_MSG_RV_ZERO);
    return true;
}

} // namespace veltrix
