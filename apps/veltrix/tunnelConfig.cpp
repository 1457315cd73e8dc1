// The tunnel's settings: the option tables, the configuration file and the checks of the whole.
//
// The file format is small enough to read here rather than through an INI library: the one in
// Debian is built to hand its callback no line numbers, to cut lines at 200 bytes and names at 50
// without a word, to take an indented line for the continuation of the previous value, and to
// call nothing for an empty section, and each mistake here must name its line.
#include "tunnelConfig.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <set>
#include <sstream>

namespace vxcli {

namespace {

/** Services one file may hold: each has a place in the counts the workers share. */
constexpr size_t kMaxServices = 64;

std::string endpointProblem(const std::string& text)
{
    try {
        (void)parseEndpoint(text);
    } catch (const failure& error) {
        return error.what();
    }
    return {};
}

/** The same endpoint whatever its spelling: a numeric address in its canonical form, a name in
 *  lower case. */
std::string canonical(const std::string& text)
{
    endpoint where = parseEndpoint(text);
    if (where.numeric()) {
        // Written back from its bytes: "::0001" and "::1" are one address. No lookup is made.
        where = parseEndpoint(addressText(resolve(where).front().address));
    } else {
        std::transform(where.address.begin(), where.address.end(), where.address.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    }
    return std::to_string(std::stoul(where.port)) + "/" + where.address;
}

/** Whether connections accepted at `accept` would be forwarded to `accept` again. */
bool loopsBack(const std::string& accept, const std::string& connect)
{
    const std::string in = canonical(accept);
    const std::string out = canonical(connect);
    if (in == out) {
        return true;
    }
    const std::string inPort = in.substr(0, in.find('/'));
    const std::string outPort = out.substr(0, out.find('/'));
    const std::string inHost = in.substr(in.find('/') + 1);
    const std::string outHost = out.substr(out.find('/') + 1);
    const bool wildcard = inHost == "0.0.0.0" || inHost == "::";
    const bool local = outHost == "localhost" || outHost == "::1" || outHost.rfind("127.", 0) == 0;
    return inPort == outPort && wildcard && local;
}

/** Edit distance, for the nearest valid name of a misspelt one. */
size_t distance(const std::string& a, const std::string& b)
{
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            row[j] =
                std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0U : 1U)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

/** " (did you mean \"connect\"?)" for a name near a valid one, else empty. */
std::string nearest(const std::string& name)
{
    std::string best;
    size_t bestDistance = std::max<size_t>(2, name.size() / 3) + 1;
    const auto consider = [&](const std::string& candidate) {
        const size_t d = distance(name, candidate);
        if (d < bestDistance) {
            best = candidate;
            bestDistance = d;
        }
    };
    for (const auto& row : serviceRows()) {
        consider(row.name);
    }
    for (const auto& row : processRows()) {
        consider(row.name);
    }
    return best.empty() ? std::string() : " (did you mean \"" + best + "\"?)";
}

std::string trim(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") + 1 - first);
}

bool validServiceName(const std::string& name)
{
    return !name.empty() && name.size() <= 32 &&
           name.find_first_not_of(
               "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") ==
               std::string::npos;
}

/** One `name = value` line of the file. */
struct entry
{
    std::string name;
    std::string value;
    int line;
};

/** A part of the file: what comes before the first section, or one section. */
struct part
{
    std::string name; ///< empty before the first section
    int line = 0;
    std::vector<entry> entries;
};

/** Reads the file into its parts, checking each line as it comes. */
class fileReader
{
public:
    explicit fileReader(std::string path) : file(std::move(path)) {}

    std::vector<part> read()
    {
        parts.push_back(part{});
        std::istringstream in(content());
        std::string text;
        while (std::getline(in, text)) {
            ++line;
            if (!text.empty() && text.back() == '\r') {
                text.pop_back();
            }
            take(trim(text));
        }
        return parts;
    }

private:
    /** The whole file; configError with the system's reason when it cannot be read. */
    [[nodiscard]] std::string content() const
    {
        const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
        std::string text;
        struct stat status = {};
        if (fd >= 0 && fstat(fd, &status) == 0 && S_ISDIR(status.st_mode)) {
            errno = EISDIR;
        } else if (fd >= 0) {
            char chunk[4096];
            ssize_t got = 0;
            while ((got = ::read(fd, chunk, sizeof chunk)) > 0) {
                text.append(chunk, static_cast<size_t>(got));
            }
            if (got == 0) {
                (void)close(fd);
                return text;
            }
        }
        const std::string why = errnoText();
        if (fd >= 0) {
            (void)close(fd);
        }
        throw configError("cannot read the configuration " + file + ": " + why, 1);
    }

    [[noreturn]] void refuse(const std::string& what) const
    {
        throw configError(file + ":" + std::to_string(line) + ": " + what, 2);
    }

    void take(const std::string& text)
    {
        if (text.empty() || text[0] == '#' || text[0] == ';') {
            return;
        }
        if (text[0] == '[') {
            section(text);
            return;
        }
        const size_t equals = text.find('=');
        if (equals == std::string::npos) {
            refuse("\"" + text + R"(" is neither "name = value" nor "[NAME]")");
        }
        entry setting{trim(text.substr(0, equals)), trim(text.substr(equals + 1)), line};
        if (setting.value.size() >= 2 && setting.value.front() == '"' &&
            setting.value.back() == '"') {
            setting.value = setting.value.substr(1, setting.value.size() - 2);
        } else if (setting.value.find('"') != std::string::npos) {
            refuse("the value of \"" + setting.name + "\" has an unmatched double quote");
        }
        check(setting);
        parts.back().entries.push_back(setting);
    }

    void section(const std::string& text)
    {
        if (text.back() != ']') {
            refuse("\"" + text + R"(" is not a section: a section is "[NAME]")");
        }
        const std::string name = trim(text.substr(1, text.size() - 2));
        if (!validServiceName(name)) {
            refuse("\"" + text +
                   "\": a service's name is 1 to 32 letters, digits, '.', '_' or '-'");
        }
        for (const part& earlier : parts) {
            if (earlier.name == name) {
                refuse("[" + name + "] is given twice (first on line " +
                       std::to_string(earlier.line) + ")");
            }
        }
        if (parts.size() > kMaxServices) {
            refuse("more than " + std::to_string(kMaxServices) + " services");
        }
        parts.push_back(part{name, line, {}});
    }

    /** The key is known, belongs where it stands, comes once there, and its value is valid. */
    void check(const entry& setting) const
    {
        const part& current = parts.back();
        const std::string where =
            current.name.empty() ? "before the first section" : "in [" + current.name + "]";
        std::string problem;
        if (const auto* whole = findRow(processRows(), setting.name)) {
            if (!current.name.empty()) {
                refuse("\"" + setting.name +
                       "\" sets the whole tunnel: put it before the first section");
            }
            processSettings scratch{};
            problem = whole->apply(setting.value, scratch);
        } else if (const auto* ofService = findRow(serviceRows(), setting.name)) {
            serviceSettings scratch{};
            problem = ofService->apply(setting.value, scratch);
        } else {
            refuse("unknown option \"" + setting.name + "\"" + nearest(setting.name));
        }
        for (const entry& earlier : current.entries) {
            if (earlier.name == setting.name) {
                refuse("\"" + setting.name + "\" is given twice " + where + " (first on line " +
                       std::to_string(earlier.line) + ")");
            }
        }
        if (!problem.empty()) {
            refuse(setting.name + ": " + problem);
        }
    }

    std::string file;
    int line = 0;
    std::vector<part> parts;
};

/** The line of the file that set `key` for `service`; its section's line when none did. */
int lineOf(const serviceSettings& service, const std::string& key)
{
    const auto found = service.lines.find(key);
    return found != service.lines.end() ? found->second : service.line;
}

/** Checks one service and the services before it; `refuse(line, text)` throws. A service of the
 *  command line (no name) is told in the command line's terms, one of a file in the file's. */
void checkService(const serviceSettings& service, const std::vector<serviceSettings>& before,
                  const std::function<void(int, const std::string&)>& refuse)
{
    const bool inFile = !service.name.empty();
    const std::pair<const char*, const std::string*> required[] = {
        {"accept", &service.accept},
        {"connect", &service.connect},
        {"psk-file", &service.channel.pskFile},
    };
    for (const auto& [key, value] : required) {
        if (value->empty()) {
            refuse(service.line, inFile ? "[" + service.name + "] has no " + key
                                        : std::string("--") + key + " is required");
        }
    }
    if (!service.server && !service.client) {
        refuse(service.line, inFile ? "[" + service.name + "] needs server = true or client = true"
                                    : "--server or --client is required");
    }
    if (service.server && service.client) {
        refuse(std::max(lineOf(service, "server"), lineOf(service, "client")),
               "[" + service.name + "] sets both server and client");
    }
    if (loopsBack(service.accept, service.connect)) {
        refuse(std::max(lineOf(service, "accept"), lineOf(service, "connect")),
               "accept " + service.accept + " and connect " + service.connect +
                   " are the same address: each connection would come back to the tunnel");
    }
    for (const serviceSettings& other : before) {
        if (canonical(other.accept) == canonical(service.accept)) {
            refuse(lineOf(service, "accept"), "[" + service.name + "] and [" + other.name +
                                                  "] both accept on " + service.accept);
        }
    }
}

} // namespace

const optionRows<serviceSettings>& serviceRows()
{
    using row = optionRow<serviceSettings>;
    static const optionRows<serviceSettings> rows = [] {
        optionRows<serviceSettings> all = {
            row{"accept", "ADDR:PORT", "where to accept connections (a host name or an address)",
                "",
                [](const std::string& text, serviceSettings& into) {
                    into.accept = text;
                    return endpointProblem(text);
                }},
            row{"connect", "ADDR:PORT",
                "where to forward each connection (a host name is resolved for each)", "",
                [](const std::string& text, serviceSettings& into) {
                    into.connect = text;
                    return endpointProblem(text);
                }},
            row{"server", "", "accept encrypted connections, forward each in the clear", "false",
                [](const std::string& text, serviceSettings& into) {
                    return parseSwitch(text, into.server);
                },
                true},
            row{"client", "", "accept plain connections, forward each encrypted", "false",
                [](const std::string& text, serviceSettings& into) {
                    return parseSwitch(text, into.client);
                },
                true},
        };
        for (const auto& channel : channelRows()) {
            all.push_back(
                row{channel.name, channel.type, channel.help, channel.defaultText,
                    [apply = channel.apply](const std::string& text, serviceSettings& into) {
                        return apply(text, into.channel);
                    },
                    channel.flag});
        }
        all.push_back(row{"max-connections", "N", "connections served at once", "64",
                          [](const std::string& text, serviceSettings& into) {
                              return parseNumber(text, 1, 10000, into.maxConnections);
                          }});
        all.push_back(row{"auth-timeout", "SECONDS",
                          "server: seconds for a peer to prove it holds the secret", "5",
                          [](const std::string& text, serviceSettings& into) {
                              return parseNumber(text, 1, 3600, into.authTimeout);
                          }});
        all.push_back(row{"max-handshakes-per-source", "N",
                          "server: handshakes at once from one address (0: no limit)", "16",
                          [](const std::string& text, serviceSettings& into) {
                              return parseNumber(text, 0, 10000, into.maxHandshakesPerSource);
                          }});
        return all;
    }();
    return rows;
}

const optionRows<processSettings>& processRows()
{
    using row = optionRow<processSettings>;
    static const optionRows<processSettings> rows = {
        row{"workers", "N", "processes that serve connections (0: one per processor)", "0",
            [](const std::string& text, processSettings& into) {
                return parseNumber(text, 0, 64, into.workers);
            }},
        row{"drain-timeout", "SECONDS",
            "seconds open connections get to finish once the tunnel is told to stop", "10",
            [](const std::string& text, processSettings& into) {
                return parseNumber(text, 0, 3600, into.drainTimeout);
            }},
        row{"log-level", "LEVEL", "err, warning, notice or info: the least that is logged", "info",
            [](const std::string& text, processSettings& into) {
                return parseSeverity(text, into.logLevel);
            }},
        row{"log-file", "FILE", "log to FILE instead of the system log", "",
            [](const std::string& text, processSettings& into) {
                into.logFile = text;
                return std::string();
            }},
        row{"pid-file", "FILE", "write the tunnel's process ID to FILE", "",
            [](const std::string& text, processSettings& into) {
                into.pidFile = text;
                return std::string();
            }},
        row{"foreground", "", "stay in the foreground and log to standard error as well", "false",
            [](const std::string& text, processSettings& into) {
                return parseSwitch(text, into.foreground);
            },
            true},
    };
    return rows;
}

tunnelSettings settingsFromCommandLine(const givenOptions& service, const givenOptions& process)
{
    tunnelSettings settings;
    settings.process = defaultsOf(processRows());
    applyGiven(processRows(), process, settings.process);
    serviceSettings one = defaultsOf(serviceRows());
    applyGiven(serviceRows(), service, one);
    checkService(one, {}, [](int, const std::string& text) { throw configError(text, 2); });
    settings.services.push_back(one);
    return settings;
}

tunnelSettings loadSettings(const std::string& file, const givenOptions& service,
                            const givenOptions& process)
{
    const std::vector<part> parts = fileReader(file).read();
    const auto refuse = [&file](int line, const std::string& text) {
        throw configError(file + ":" + std::to_string(line) + ": " + text, 2);
    };
    tunnelSettings settings;
    settings.file = file;
    settings.process = defaultsOf(processRows());
    serviceSettings defaults = defaultsOf(serviceRows());
    applyGiven(serviceRows(), service, defaults);
    for (const entry& setting : parts.front().entries) {
        if (const auto* row = findRow(processRows(), setting.name)) {
            (void)row->apply(setting.value, settings.process);
        } else {
            (void)findRow(serviceRows(), setting.name)->apply(setting.value, defaults);
            defaults.lines[setting.name] = setting.line;
        }
    }
    applyGiven(processRows(), process, settings.process);
    if (parts.size() == 1) {
        refuse(parts.front().entries.empty() ? 1 : parts.front().entries.back().line,
               "no service: each service is a [NAME] section");
    }
    for (size_t i = 1; i < parts.size(); ++i) {
        serviceSettings one = defaults;
        one.name = parts[i].name;
        one.line = parts[i].line;
        for (const entry& setting : parts[i].entries) {
            (void)findRow(serviceRows(), setting.name)->apply(setting.value, one);
            one.lines[setting.name] = setting.line;
        }
        checkService(one, settings.services, refuse);
        settings.services.push_back(one);
    }
    return settings;
}

std::string instanceIdent(const std::string& file)
{
    if (file.empty()) {
        return "veltrix-tunnel";
    }
    std::string base = file.substr(file.rfind('/') + 1);
    if (base.size() > 5 && base.compare(base.size() - 5, 5, ".conf") == 0) {
        base.resize(base.size() - 5);
    }
    return "veltrix-tunnel@" + base;
}

} // namespace vxcli
