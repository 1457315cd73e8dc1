/// @file
/// One select() over a gathered set of descriptors.
#pragma once

#include "vxExport.h"

#include <sys/select.h>

#include <cstdint>

/** The descriptor-set helper. */
namespace oxel {

/** Not a library object: no protocol, no trail. Descriptors of 1024 or more are ignored. */
class VX_API selectSet
{
public:
    fd_set readSet;     ///< descriptors to wait on for reading; after doSelect, the readable ones
    fd_set writeSet;    ///< descriptors to wait on for writing; after doSelect, the writable ones
    uint32_t maxFd = 0; ///< the highest descriptor added
    /** Whole seconds for doSelect; 0 waits without a time-out. Survives reset(). */
    uint32_t timeoutSeconds = 0;

    selectSet();
    /** Adds `fd` to the read set. */
    void addFd(uint32_t fd);
    /** Adds `fd` to the write set. */
    void addWriteFd(uint32_t fd);
    /** Empties both sets and maxFd; keeps timeoutSeconds. */
    void reset();
    /** Whether `fd` is in the read set (after doSelect, whether it is readable). */
    [[nodiscard]] bool isSet(uint32_t fd);
    /** One select(); its result unchanged (ready count, 0 on time-out, -1 with errno). */
    int doSelect();

private:
    VX_NO_EXPORT void add(fd_set& set, uint32_t fd);
};

} // namespace oxel
