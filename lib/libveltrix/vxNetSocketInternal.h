// Socket helpers that more than one source of the library uses; never installed, never exported.
#pragma once

#include "vxExport.h"

namespace veltrix {

/** Switches on TCP_NODELAY for `fd`, best effort: a descriptor that refuses the option (not a
 *  TCP socket) only loses speed, so nothing is recorded and errno is left as it was. */
VX_NO_EXPORT void sendSegmentsAtOnce(int fd);

} // namespace veltrix
