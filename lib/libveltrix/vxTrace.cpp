// Trace log lines on standard error and the system log.
#include "vxTrace.h"

#include "vxGuard.h"

#include <sys/time.h>
#include <syslog.h>

#include <ctime>
#include <iostream>

namespace veltrix {

LVX_DEFINE_LIFECYCLE(vxTraceLog)

bool vxTraceLog::AddMessage(const std::string& message)
{
    timeval now{};
    (void)gettimeofday(&now, nullptr);
    tm local{};
    (void)localtime_r(&now.tv_sec, &local);
    char stamp[256];
    const size_t length = strftime(stamp, sizeof stamp, "[%Y/%m/%d %H:%M:%S] ->", &local);
    // One write per line keeps lines from different threads whole.
    std::string line(stamp, length);
    line += ' ';
    line += message;
    line += '\n';
    std::cerr << line << std::flush;
    return true;
}

bool vxTraceLog::SysLog(const std::string& message)
{
    syslog(LOG_LOCAL5 | LOG_INFO, "%s", message.c_str());
    return true;
}

bool vxTraceLog::RegisterTraceFlag(const std::string& /*flag*/)
{
    return true;
}

bool vxTraceLog::EnableTraceFlag(const std::string& /*flag*/)
{
    return true;
}

bool vxTraceLog::DisableTraceFlag(const std::string& /*flag*/)
{
    return true;
}

} // namespace veltrix
