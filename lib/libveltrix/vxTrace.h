/// @file
/// Time-stamped developer trace on standard error, and messages to the system log.
#pragma once

#include "vxBase.h"

namespace veltrix {

/** The trace log (vxGlobal.traceLog). Its operations need no Open. */
class VX_API vxTraceLog : public vxBase
{
public:
    uint32_t flags = 0; ///< room for trace flags; not read

    vxTraceLog();
    LVX_NOT_COPYABLE(vxTraceLog);
    ~vxTraceLog() override;

    /** Writes "[%Y/%m/%d %H:%M:%S] -> message" and a line end to stderr; always true, also while
     *  the error latch is set. */
    [[nodiscard]] bool AddMessage(const std::string& message);
    /** Passes the message to syslog (facility local5, priority info); always true. */
    [[nodiscard]] bool SysLog(const std::string& message);
    /** Trace flags are accepted and ignored: every message is written. */
    [[nodiscard]] bool RegisterTraceFlag(const std::string& flag);
    /** Accepted and ignored; true. */
    [[nodiscard]] bool EnableTraceFlag(const std::string& flag);
    /** Accepted and ignored; true. */
    [[nodiscard]] bool DisableTraceFlag(const std::string& flag);
};

} // namespace veltrix
