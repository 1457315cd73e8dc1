// The tunnel's log: one line per event, with a severity that says what it means, to the system
// log (facility local5) or to a file, and to standard error in the foreground. Every process of
// a tunnel writes through the same settings: each line leaves in one write, so the lines of the
// workers never mix.
#pragma once

#include <syslog.h>

#include <string>

namespace vxcli {

/** What a line means to the operator. */
enum class severity : int
{
    err = LOG_ERR,         ///< the tunnel, or a service of it, cannot work
    warning = LOG_WARNING, ///< a connection was refused or failed
    notice = LOG_NOTICE,   ///< start, stop, reload; what the operator asked to see
    info = LOG_INFO        ///< the steps of each connection
};

/** The name of a severity as --log-level takes it: "err", "warning", "notice", "info". */
const char* severityName(severity level);
/** `text` as a severity into `into`; the problem, else empty. */
std::string parseSeverity(const std::string& text, severity& into);

struct logSettings
{
    severity level = severity::info; ///< lines below it are left out
    std::string file;                ///< empty: the system log
    bool toStderr = false;           ///< also standard error, in the trace log's format
    std::string ident;               ///< names the instance in the system log and the file
};

namespace tunnelLog {

/** Sets where lines go from now on; throws failure when the log file cannot be opened. */
void configure(const logSettings& settings);
/** Opens the log file again (after a rotation): true when it could, else the old one stays in
 *  use and the reason is logged to it. */
bool reopen();
/** Whether lines would reach anyone once the process detached (a log file, or a system log). */
bool reachesAnyone();
/** Writes `text` when `level` is at or above the configured level. */
void line(severity level, const std::string& text);
/** Standard error is no longer the operator's: the process detached. */
void detached();
/** What the library writes to standard output comes into the log from now on, a line at a
 *  time at `info`: the tunnel's standard output is nobody's data stream, and in the foreground
 *  a report there would stand outside the log's format. */
void takeStandardOutput();

} // namespace tunnelLog

} // namespace vxcli
