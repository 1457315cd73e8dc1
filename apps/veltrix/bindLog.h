// The library's bind log: where a listening socket records its progress, when its directory
// exists.
#pragma once

#include "cliFrame.h"
#include "secretFile.h"

namespace vxcli {

/** Tells `warn` when the bind log is something the library leaves alone (not a regular file of
 *  this user or root): the library itself says nothing of it, so nothing would be logged without
 *  anyone knowing. */
void checkBindLog(const warningSink& warn);

} // namespace vxcli
