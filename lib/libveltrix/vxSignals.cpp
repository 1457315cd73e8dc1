// The signal object and the signal handlers.
#include "vxSignals.h"

#include "vxGuard.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace veltrix {

LVX_DEFINE_LIFECYCLE(vxSignals)

void vxSignalHandlerDummy(int /*signo*/)
{
    (void)signal(SIGINT, vxSignalHandlerDummy);
    (void)signal(SIGHUP, vxSignalHandlerDummy);
}

void vxSignalHandlerChld(int /*signo*/)
{
    const int saved = errno;
    for (;;) {
        const pid_t child = waitpid(-1, nullptr, WNOHANG);
        if (child > 0) {
            continue;
        }
        if (child < 0 && errno == EINTR) {
            continue;
        }
        break;
    }
    (void)signal(SIGCHLD, vxSignalHandlerChld);
    errno = saved;
}

void vxSignalHandlerQuit(int /*signo*/)
{
    // exit() could run atexit handlers and flush stdio in the middle of the interrupted code
    // (possibly inside malloc or a stream); _exit is async-signal-safe and ends at once.
    _exit(0);
}

void* vxSignalsMainThread(void* /*arg*/)
{
    return nullptr;
}

} // namespace veltrix
