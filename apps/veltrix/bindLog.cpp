// The library's bind log, as the operator hears of it.
#include "bindLog.h"

#include "vxNetSocket.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace vxcli {

using namespace veltrix;

void checkBindLog(const warningSink& warn)
{
    // The library leaves the bind log alone when another user planted something in its place.
    struct stat status = {};
    if (lstat(VX_SOCKET_LOG_PATH, &status) == 0 &&
        (!S_ISREG(status.st_mode) || (status.st_uid != geteuid() && status.st_uid != 0))) {
        warn(std::string("the bind log ") + VX_SOCKET_LOG_PATH +
             " is not a regular file of this user or root: nothing is written to it");
    }
}

} // namespace vxcli
