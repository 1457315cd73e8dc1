// What a tunnel runs: its services and the settings of the whole process, from the command line
// alone or from a configuration file with the command line's values.
//
// A configuration file holds `name = value` lines (a value may be in double quotes) and `#` or `;`
// comment lines. The lines before the first section set the whole tunnel (workers, log-level,
// ...) and the defaults of every service; each `[NAME]` section is one service and may override a
// default. Every key, section and value is checked: the first mistake is reported as
// "FILE:LINE: what is wrong".
#pragma once

#include "channelOptions.h"
#include "endpoint.h"
#include "tunnelLog.h"

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace vxcli {

/** One service: where it accepts, where it forwards, how its connections are made. */
struct serviceSettings
{
    std::string name; ///< the section's name; empty for the command line's one service
    std::string accept;
    std::string connect;
    bool server{};
    bool client{};
    channelOptions channel{};
    unsigned maxConnections{};
    unsigned authTimeout{};            ///< server end: seconds for the peer to prove its secret
    unsigned maxHandshakesPerSource{}; ///< server end: handshakes at once from one address; 0: any
    int line{};                        ///< the section's line; 0 for the command line
    std::map<std::string, int> lines;  ///< the line that set each key in the file
};

/** The settings of the whole tunnel. */
struct processSettings
{
    unsigned workers{}; ///< 0: one per processor
    unsigned drainTimeout{};
    severity logLevel{severity::info};
    std::string logFile;
    std::string pidFile;
    bool foreground{};
};

struct tunnelSettings
{
    std::string file; ///< the configuration file; empty without one
    processSettings process;
    std::vector<serviceSettings> services;
};

const optionRows<serviceSettings>& serviceRows();
const optionRows<processSettings>& processRows();

/** A configuration that cannot be used: the one-line reason and the exit status it calls for
 *  (2 for a mistake in it, 1 when it cannot be read). */
class configError : public std::runtime_error
{
public:
    configError(const std::string& text, int exitStatus)
        : std::runtime_error(text), status(exitStatus)
    {}

    int status;
};

/** The one service of a command line without a file; throws configError naming the option that
 *  is missing or wrong. */
tunnelSettings settingsFromCommandLine(const givenOptions& service, const givenOptions& process);

/** The services of `file`; the command line's service options are defaults beneath the file's,
 *  its process options take precedence over the file's. Throws configError. */
tunnelSettings loadSettings(const std::string& file, const givenOptions& service,
                            const givenOptions& process);

/** The name the system log and the log file give the tunnel: "veltrix-tunnel@web" for
 *  /etc/veltrix/web.conf, "veltrix-tunnel" without a file. */
std::string instanceIdent(const std::string& file);

} // namespace vxcli
