/// @file
/// The process-wide signal object and the signal handlers applications may install.
#pragma once

#include "vxBase.h"

namespace veltrix {

/** The process-wide signal object (vxGlobal.signals), opened by vxMain::InitAndRun. It installs
 *  no handler itself: the application installs the handlers below as it needs them. */
class VX_API vxSignals : public vxBase
{
public:
    vxSignals();
    LVX_NOT_COPYABLE(vxSignals);
    ~vxSignals() override;

    /** Does nothing; true. */
    [[nodiscard]] bool Open() override { return true; }

    /** No signal thread is needed; true. */
    [[nodiscard]] bool CreateMainThread() { return true; }
};

/** Absorbs SIGINT and SIGHUP: re-installs itself for both. */
VX_API void vxSignalHandlerDummy(int signo);
/** Reaps every finished child without blocking, keeping errno intact. */
VX_API void vxSignalHandlerChld(int signo);
/** Ends the process with status 0 through _exit: exit() is not safe in a signal handler, so no
 *  atexit handler, static destructor or stdio flush runs. */
VX_API void vxSignalHandlerQuit(int signo);
/** Thread routine of the signal object; returns null at once. */
VX_API void* vxSignalsMainThread(void* arg);

} // namespace veltrix
