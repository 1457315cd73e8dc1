// The pre-shared secret's file, read with the checks that keep a secret secret.
#pragma once

#include "eventLoop.h"
#include "vxBytes.h"

#include <functional>
#include <string>

namespace veltrix::engine {

/** Where a reader says what it goes on despite. */
using warningSink = std::function<void(const std::string&)>;

/** Empty when a file of mode `mode` is open to its owner alone, else the one-line reason to
 *  refuse it: "the <what> <path> is open to group or others (mode 0644); run chmod 600 <path>". */
std::string sharedFileProblem(const std::string& what, const std::string& path, unsigned mode);

/** The secret in `path`: its content without one trailing LF or CRLF. Throws failure when the
 *  file is not a regular file of this user or root, is larger than 4096 bytes, is open to group
 *  or others, or is empty; a secret shorter than 16 bytes, or one that still ends with a line
 *  end, is used with a warning through `warn`. */
veltrix::vxBytes readSecret(const std::string& path, const warningSink& warn);

} // namespace veltrix::engine
