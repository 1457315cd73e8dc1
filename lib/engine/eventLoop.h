// One thread's wait for many descriptors (epoll), and the non-blocking byte moves around it:
// what drives many encrypted connections on one thread without letting any peer hold it.
#pragma once

#include "vxBase.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace veltrix::engine {

/** Something that cannot go on: the text is one line saying what failed and why. */
class failure : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/** The text of the current errno. */
std::string errnoText();

/** Why the library's last call failed: the innermost message of the error trail, or "no reason
 *  recorded". */
std::string trailReason();

using steadyClock = std::chrono::steady_clock;

/** Something that waits for a descriptor. */
class pollTarget
{
public:
    pollTarget() = default;
    pollTarget(const pollTarget&) = delete;
    pollTarget& operator=(const pollTarget&) = delete;
    pollTarget(pollTarget&&) = delete;
    pollTarget& operator=(pollTarget&&) = delete;
    virtual ~pollTarget() = default;

    /** The descriptor is ready for `events` (EPOLLIN, EPOLLOUT, EPOLLHUP, EPOLLERR). */
    virtual void ready(uint32_t events) = 0;
};

/** The descriptors one thread waits for. A descriptor epoll cannot watch (a regular file, or
 *  /dev/null) is always ready: it is reported on every round while it is wanted. */
class eventLoop
{
public:
    eventLoop();
    LVX_NOT_COPYABLE(eventLoop);
    ~eventLoop();

    /** Waits for `events` on `fd` (0: for nothing, but stays registered); cheap when unchanged. */
    void want(int fd, pollTarget& target, uint32_t events);

    /** Stops watching `fd`. */
    void forget(int fd);
    /** Forgets `fd`, which is about to be closed: its close takes it out of the epoll set, as no
     *  other descriptor refers to its socket. */
    void closing(int fd);

    /** Waits at most `millis` (-1: no limit) and reports what is ready. */
    void runOnce(int millis);

private:
    struct entry
    {
        pollTarget* target = nullptr;
        uint32_t events = 0;
        bool registered = false; ///< in the epoll set
        bool alwaysReady = false;
    };

    entry& at(int fd);

    int poller;
    std::vector<entry> entries; ///< by descriptor
    std::vector<int> alwaysReady;
};

/** Bytes in order: appended at the back, taken from the front. Its memory is given back when it
 *  runs empty, so an idle connection holds none. */
class byteQueue
{
public:
    [[nodiscard]] size_t size() const { return data.size() - head; }

    [[nodiscard]] bool empty() const { return size() == 0; }

    [[nodiscard]] const char* front() const { return data.data() + head; }

    void append(const void* bytes, size_t count)
    {
        data.append(static_cast<const char*>(bytes), count);
    }

    void consume(size_t count);

private:
    std::string data;
    size_t head = 0;
};

/** Makes `fd` non-blocking; throws failure. */
void setNonBlocking(int fd);

/** What a non-blocking read or write did. */
enum class ioResult
{
    progress, ///< some bytes moved
    blocked,  ///< nothing now: wait for the descriptor
    ended,    ///< the end of the stream (reads)
    failed    ///< a real error, errno set
};

/** Reads at most `limit` bytes into `out`; `got` says how many. */
ioResult readInto(int fd, void* out, size_t limit, size_t& got);

/** Writes the front of `queue` as far as `fd` takes it now. */
ioResult writeFrom(int fd, bool isSocket, byteQueue& queue);

/** Reads what `fd` holds now into `queue`. */
ioResult drainInto(int fd, byteQueue& queue);

/** Writes `count` bytes where no one could be told of a failure (a log line, a wake-up). */
void writeQuietly(int fd, const void* bytes, size_t count);

/** Milliseconds from now until `when`, rounded up; -1 for time_point::max(). */
int millisUntil(steadyClock::time_point when);

} // namespace veltrix::engine
