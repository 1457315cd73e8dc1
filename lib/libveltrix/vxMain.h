/// @file
/// The application frame: the root of the object tree, start-up, plug-in loading and fatal exit.
#pragma once

#include "cryptoapi.h"

namespace veltrix {

/** Derive the application from this, implement main(), call InitAndRun from the process entry. */
class VX_API vxMain : public vxBase
{
public:
    vxApi api; ///< the crypto plug-in front; opened by LoadPlugin

    /** Makes this frame the root of the object tree (replacing an earlier frame). */
    vxMain();
    LVX_NOT_COPYABLE(vxMain);
    /** Never reported as unclosed. Hands the root back to the frame or root this one replaced;
     *  frames may be destroyed in any order. */
    ~vxMain() override;

    /** The application's main routine. */
    [[nodiscard]] virtual bool main(int argc, char** argv) = 0;

    /** Records the application, opens the debug and signal objects and runs main(). A second call
     *  fails ("Object in incorrect state:  Expected closed, ..."). */
    [[nodiscard]] bool InitAndRun(const std::string& appName, const std::string& version, int argc,
                                  char** argv);
    /** Loads the crypto plug-in `name` (up to its first NUL) through `api`. */
    [[nodiscard]] bool LoadPlugin(const std::string& name);
    /** Writes "*** Error: <message>" to stderr and exits with status 1. */
    [[noreturn]] static void Die(const char* format, ...) __attribute__((format(printf, 1, 2)));

private:
    vxBase* previousRoot; ///< the root this frame replaced, restored when it goes
};

} // namespace veltrix
