// Log lines of the tunnel: severities, the system log or a file, standard error in the
// foreground.
#include "tunnelLog.h"

#include "cliFrame.h"
#include "eventLoop.h"
#include "vxGlobal.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>
#include <iostream>
#include <streambuf>
#include <string>

namespace vxcli {

namespace {

/** Each severity and its name, as --log-level takes it and the log file shows it. */
const struct
{
    severity level;
    const char* name;
} kSeverities[] = {
    {severity::err, "err"},
    {severity::warning, "warning"},
    {severity::notice, "notice"},
    {severity::info, "info"},
};

/** Where lines go; set once at start and again at a reload. */
struct logState
{
    logSettings settings;
    int fd = -1;             ///< the log file; -1 for the system log
    bool syslogOpen = false; ///< openlog() was called with settings.ident
};

logState& state()
{
    static logState current;
    return current;
}

int openLogFile(const std::string& path)
{
    return open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640);
}

/** "2026-01-31 23:59:58 veltrix-tunnel@web[1234] notice: text\n" */
std::string fileLine(severity level, const std::string& text)
{
    timeval now{};
    (void)gettimeofday(&now, nullptr);
    tm local{};
    (void)localtime_r(&now.tv_sec, &local);
    char stamp[32];
    const size_t length = strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S ", &local);
    return std::string(stamp, length) + state().settings.ident + "[" + std::to_string(getpid()) +
           "] " + severityName(level) + ": " + text + "\n";
}

/** A stream buffer that turns what is written to it into log lines. Unbuffered, so that each
 *  thread's text collects in a line of its own. */
class logLines : public std::streambuf
{
protected:
    int_type overflow(int_type next) override
    {
        if (!traits_type::eq_int_type(next, traits_type::eof())) {
            put(traits_type::to_char_type(next));
        }
        return traits_type::not_eof(next);
    }

    std::streamsize xsputn(const char* text, std::streamsize count) override
    {
        for (std::streamsize at = 0; at < count; ++at) {
            put(text[at]);
        }
        return count;
    }

private:
    /** The longest line kept; the rest of a longer one is left out. */
    static constexpr size_t kLongest = 1024;

    static void put(char next)
    {
        thread_local std::string pending;
        if (next != '\n') {
            if (pending.size() < kLongest) {
                pending += next;
            }
            return;
        }
        if (!pending.empty()) {
            tunnelLog::line(severity::info, "the library reports: " + pending);
            pending.clear();
        }
    }
};

} // namespace

const char* severityName(severity level)
{
    for (const auto& known : kSeverities) {
        if (known.level == level) {
            return known.name;
        }
    }
    return "info";
}

std::string parseSeverity(const std::string& text, severity& into)
{
    for (const auto& known : kSeverities) {
        if (text == known.name) {
            into = known.level;
            return {};
        }
    }
    return "\"" + text + "\" is not a log level: use err, warning, notice or info";
}

namespace tunnelLog {

void configure(const logSettings& settings)
{
    logState& current = state();
    int fd = -1;
    if (!settings.file.empty()) {
        fd = openLogFile(settings.file);
        if (fd < 0) {
            throw failure("cannot open the log file " + settings.file + ": " + errnoText());
        }
    }
    if (current.fd >= 0) {
        (void)close(current.fd);
    }
    current.fd = fd;
    current.settings = settings;
    if (current.syslogOpen) {
        closelog();
        current.syslogOpen = false;
    }
    if (fd < 0) {
        // The ident is kept by pointer: it lives in the settings held above.
        openlog(current.settings.ident.c_str(), LOG_PID, LOG_LOCAL5);
        current.syslogOpen = true;
    }
}

bool reopen()
{
    logState& current = state();
    if (current.fd < 0) {
        return true;
    }
    const int fd = openLogFile(current.settings.file);
    if (fd < 0) {
        line(severity::err, "cannot reopen the log file " + current.settings.file + ": " +
                                errnoText() + "; logging on to the file already open");
        return false;
    }
    (void)dup3(fd, current.fd, O_CLOEXEC);
    (void)close(fd);
    return true;
}

bool reachesAnyone()
{
    return state().fd >= 0 || access("/dev/log", W_OK) == 0;
}

void line(severity level, const std::string& text)
{
    const logState& current = state();
    if (static_cast<int>(level) > static_cast<int>(current.settings.level)) {
        return;
    }
    if (current.settings.toStderr) {
        (void)::vxGlobal.traceLog.AddMessage(text);
    }
    if (current.fd >= 0) {
        const std::string whole = fileLine(level, text);
        writeQuietly(current.fd, whole.data(), whole.size());
    } else {
        // Without a system log socket every line would cost a failed connect to it.
        static const bool syslogThere = access("/dev/log", W_OK) == 0;
        if (syslogThere) {
            syslog(static_cast<int>(level), "%s", text.c_str());
        }
    }
}

void detached()
{
    state().settings.toStderr = false;
}

void takeStandardOutput()
{
    // The standard stream is flushed at exit, after this object is gone: it gets its own
    // buffer back first.
    static struct taken
    {
        logLines lines;
        std::streambuf* original = std::cout.rdbuf(&lines);
        taken() = default;
        LVX_NOT_COPYABLE(taken);

        ~taken() { std::cout.rdbuf(original); }
    } redirect;
}

} // namespace tunnelLog

} // namespace vxcli
