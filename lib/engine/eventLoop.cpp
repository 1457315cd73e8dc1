// The wait of one thread for many descriptors, and non-blocking reads and writes.
#include "eventLoop.h"

#include "vxGlobal.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace veltrix::engine {

namespace {

/** Events taken from one wait. */
constexpr int kBatch = 64;

bool wouldBlock()
{
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

/** A queue that ran empty keeps at most this much memory for the next bytes. */
constexpr size_t kKeptCapacity = 4096;

} // namespace

eventLoop::eventLoop() : poller(epoll_create1(EPOLL_CLOEXEC))
{
    if (poller < 0) {
        throw failure("cannot create an epoll instance: " + errnoText());
    }
}

eventLoop::~eventLoop()
{
    (void)close(poller);
}

eventLoop::entry& eventLoop::at(int fd)
{
    const auto index = static_cast<size_t>(fd);
    if (index >= entries.size()) {
        entries.resize(index + 1);
    }
    return entries[index];
}

void eventLoop::want(int fd, pollTarget& target, uint32_t events)
{
    entry& slot = at(fd);
    slot.target = &target;
    if (slot.events == events && (slot.registered || events == 0)) {
        return;
    }
    slot.events = events;
    if (slot.alwaysReady) {
        return;
    }
    // A descriptor wanted for nothing leaves the set: a hang-up is reported whatever the events
    // asked for, and would wake the loop again and again.
    if (events == 0) {
        if (slot.registered) {
            (void)epoll_ctl(poller, EPOLL_CTL_DEL, fd, nullptr);
            slot.registered = false;
        }
        return;
    }
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    if (epoll_ctl(poller, slot.registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &event) == 0) {
        slot.registered = true;
        return;
    }
    if (errno != EPERM) {
        throw failure("cannot wait for a descriptor: " + errnoText());
    }
    // A regular file or /dev/null never blocks: it is ready whenever it is wanted.
    slot.alwaysReady = true;
    alwaysReady.push_back(fd);
}

void eventLoop::forget(int fd)
{
    if (fd < 0 || static_cast<size_t>(fd) >= entries.size()) {
        return;
    }
    entry& slot = entries[fd];
    if (slot.alwaysReady) {
        alwaysReady.erase(std::remove(alwaysReady.begin(), alwaysReady.end(), fd),
                          alwaysReady.end());
    } else if (slot.registered) {
        (void)epoll_ctl(poller, EPOLL_CTL_DEL, fd, nullptr);
    }
    slot = entry{};
}

void eventLoop::closing(int fd)
{
    if (fd >= 0 && static_cast<size_t>(fd) < entries.size() && !entries[fd].alwaysReady) {
        entries[fd] = entry{};
        return;
    }
    forget(fd);
}

void eventLoop::runOnce(int millis)
{
    const bool anyReady = std::any_of(alwaysReady.begin(), alwaysReady.end(),
                                      [this](int fd) { return entries[fd].events != 0; });
    epoll_event events[kBatch];
    const int count = epoll_wait(poller, events, kBatch, anyReady ? 0 : millis);
    if (count < 0 && errno != EINTR) {
        throw failure("epoll_wait() failed: " + errnoText());
    }
    // Each event is looked up again when its turn comes: a target handled earlier in this round
    // may have ended another connection and forgotten its descriptors.
    for (int i = 0; i < count; ++i) {
        const int fd = events[i].data.fd;
        if (static_cast<size_t>(fd) < entries.size() && entries[fd].target != nullptr) {
            entries[fd].target->ready(events[i].events);
        }
    }
    // By index: a target may forget a descriptor meanwhile, and the next round sees the rest.
    for (size_t i = 0; i < alwaysReady.size(); ++i) { // NOLINT(modernize-loop-convert): may shrink
        const entry& slot = entries[alwaysReady[i]];
        if (slot.target != nullptr && slot.events != 0) {
            slot.target->ready(slot.events);
        }
    }
}

void byteQueue::consume(size_t count)
{
    head += count;
    if (head == data.size()) {
        data.clear();
        head = 0;
        if (data.capacity() > kKeptCapacity) {
            std::string().swap(data);
        }
    } else if (head >= data.size() / 2 && head >= kKeptCapacity) {
        data.erase(0, head); // the consumed front must not grow without end
        head = 0;
    }
}

void setNonBlocking(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        throw failure("cannot make a descriptor non-blocking: " + errnoText());
    }
}

ioResult readInto(int fd, void* out, size_t limit, size_t& got)
{
    got = 0;
    const ssize_t count = read(fd, out, limit);
    if (count > 0) {
        got = static_cast<size_t>(count);
        return ioResult::progress;
    }
    if (count == 0) {
        return ioResult::ended;
    }
    return wouldBlock() ? ioResult::blocked : ioResult::failed;
}

ioResult writeFrom(int fd, bool isSocket, byteQueue& queue)
{
    bool moved = false;
    while (!queue.empty()) {
        const ssize_t sent = isSocket ? send(fd, queue.front(), queue.size(), MSG_NOSIGNAL)
                                      : write(fd, queue.front(), queue.size());
        if (sent < 0) {
            if (!wouldBlock()) {
                return ioResult::failed;
            }
            return moved ? ioResult::progress : ioResult::blocked;
        }
        moved = true;
        queue.consume(static_cast<size_t>(sent));
    }
    return moved ? ioResult::progress : ioResult::blocked;
}

ioResult drainInto(int fd, byteQueue& queue)
{
    char chunk[65536];
    bool moved = false;
    for (;;) {
        size_t got = 0;
        const ioResult result = readInto(fd, chunk, sizeof chunk, got);
        if (result != ioResult::progress) {
            return moved && result == ioResult::blocked ? ioResult::progress : result;
        }
        moved = true;
        queue.append(chunk, got);
    }
}

void writeQuietly(int fd, const void* bytes, size_t count)
{
    if (write(fd, bytes, count) < 0) {
        return; // the log or the wake-up is lost, and there is nowhere to report that
    }
}

int millisUntil(steadyClock::time_point when)
{
    if (when == steadyClock::time_point::max()) {
        return -1;
    }
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(when - steadyClock::now());
    return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(rest.count(), 0, 3600000));
}

std::string trailReason()
{
    const auto lock = ::vxGlobal.stackTrace.hold();
    const auto& events = ::vxGlobal.stackTrace.events;
    // The first event holds the innermost failure, which says why; the later ones only say which
    // callers passed it on ("Boolean return value failed.").
    for (const veltrix::vxHistoryEvent& event : events) {
        for (const veltrix::vxHistoryLine& line : event.lines) {
            if (!line.message.empty()) {
                return line.message;
            }
        }
    }
    return "no reason recorded";
}

std::string errnoText()
{
    return std::strerror(errno);
}

} // namespace veltrix::engine
