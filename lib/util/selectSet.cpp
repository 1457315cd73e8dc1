// Select sets.
#include "selectSet.h"

#include <sys/time.h>

namespace oxel {

namespace {

constexpr uint32_t setSize = FD_SETSIZE;

} // namespace

selectSet::selectSet() : readSet(), writeSet()
{
    reset();
}

void selectSet::addFd(uint32_t fd)
{
    add(readSet, fd);
}

void selectSet::addWriteFd(uint32_t fd)
{
    add(writeSet, fd);
}

void selectSet::add(fd_set& set, uint32_t fd)
{
    if (fd >= setSize) {
        return;
    }
    FD_SET(static_cast<int>(fd), &set);
    if (fd > maxFd) {
        maxFd = fd;
    }
}

void selectSet::reset()
{
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    maxFd = 0;
}

bool selectSet::isSet(uint32_t fd)
{
    return fd < setSize && FD_ISSET(static_cast<int>(fd), &readSet);
}

int selectSet::doSelect()
{
    timeval timeout{static_cast<time_t>(timeoutSeconds), 0};
    return select(static_cast<int>(maxFd) + 1, &readSet, &writeSet, nullptr,
                  timeoutSeconds != 0 ? &timeout : nullptr);
}

} // namespace oxel
