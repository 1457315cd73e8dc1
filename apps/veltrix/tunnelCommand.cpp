// veltrix tunnel: wraps unmodified TCP services in the encrypted channel.
//
//   server mode: accepts encrypted connections and forwards each in the clear to the service.
//   client mode: accepts plain connections and forwards each over an encrypted connection to the
//                server tunnel.
//
// One process serves every service of its configuration. The parent prepares everything once
// (the plug-in, the crypto library's state, the secrets, the listening sockets), then starts a
// few worker processes that inherit it: each runs one event loop over many connections
// (tunnelConnection.h says why they cannot disturb each other), and the system spreads new
// connections over them. The parent only watches the workers and answers signals:
//
//   SIGHUP          reads the configuration and the secrets again. New workers serve the new
//                   configuration, on the listening sockets kept from the old one where the
//                   address did not change; the old workers stop accepting and end once their
//                   connections did. A configuration that does not load is logged and ignored.
//   SIGUSR1         reopens the log file.
//   SIGUSR2         logs one line per open connection.
//   SIGTERM/SIGINT  stops accepting and gives the open connections --drain-timeout seconds; a
//                   second signal ends them at once.
#include "commands.h"
#include "tunnelConfig.h"
#include "tunnelWorker.h"
#include "vxGlobal.h"

#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <csignal>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <new>
#include <set>

namespace vxcli {

using namespace veltrix;

namespace {

/** What the command line gave. */
struct tunnelCommandLine
{
    std::string config;
    givenOptions service;
    givenOptions process;
};

/** The signals the parent waits for; blocked in every process of the tunnel, whose workers
 *  read theirs from a signal descriptor. */
sigset_t tunnelSignals()
{
    sigset_t set;
    (void)sigemptyset(&set);
    for (const int signo : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGUSR2, SIGCHLD}) {
        (void)sigaddset(&set, signo);
    }
    return set;
}

/** `path` relative to `base` when it is relative: the tunnel leaves its working directory
 *  once detached, and reads its files again at each reload. */
std::string absolute(const std::string& path, const std::string& base)
{
    return path.empty() || path.front() == '/' ? path : base + "/" + path;
}

std::string currentDirectory()
{
    char path[PATH_MAX] = {};
    return getcwd(path, sizeof path) != nullptr ? std::string(path) : std::string("/");
}

/** A listening socket on `at`: non-blocking, its connections small-message friendly. */
int listenSocket(const socketAddress& at, bool sixOnly, unsigned backlog, const std::string& name)
{
    const int fd = socket(at.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        throw failure("cannot listen on " + name + ": socket() failed: " + errnoText());
    }
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    // Accepted sockets inherit this: small messages leave at once.
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (sixOnly) {
        // A name that stands for both families binds both: the IPv6 socket leaves IPv4 alone.
        (void)setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    const char* step = "bind";
    if (bind(fd, reinterpret_cast<const sockaddr*>(&at.address), at.length) == 0) {
        step = "listen";
        if (listen(fd, static_cast<int>(backlog)) == 0) {
            return fd;
        }
    }
    const std::string why = errnoText();
    (void)close(fd);
    throw failure("cannot listen on " + name + ": " + step + "() failed: " + why);
}

/** Connections the system may hold for a service until it accepts them: as many as it serves
 *  at once, so that a burst waits rather than being turned away, and never very few. */
unsigned backlogFor(const serviceSettings& service)
{
    constexpr unsigned kLeast = 16;
    return std::max(service.maxConnections, kLeast);
}

/** The address a listening socket got (the port the system chose for port 0). */
std::string boundText(int fd)
{
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    (void)getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length);
    return addressText(bound);
}

/** Does once, before any worker starts, what every connection would otherwise do for itself:
 *  the crypto library reads its configuration and fetches its algorithms on first use. */
void warmUp(cliFrame& frame, const serviceSetup& setup)
{
    vxNetSocket socket;
    const closeOnExit socketGuard(socket);
    frame.open(socket, "cannot open a socket", setup.server);
    vxNetEncryptedSocket channel;
    const closeOnExit channelGuard(channel);
    frame.open(channel, "cannot open the encrypted socket", setup.channel.cipher,
               setup.channel.hash, &socket);
    vxNetPSKChallengeResponse handshake;
    const closeOnExit handshakeGuard(handshake);
    frame.open(handshake, "cannot open the handshake", channel.cipherId, channel.hashId,
               setup.server);
    require(handshake.SetSecret(setup.secret) && handshake.GenerateChallengeRequest() &&
                handshake.GenerateChallengeResponse(),
            "cannot prepare the handshake");
}

/** What a reload compares to tell a changed service from an unchanged one. */
bool sameService(const serviceSetup& a, const serviceSetup& b, const std::string& acceptA,
                 const std::string& acceptB)
{
    const auto key = [](const serviceSetup& s) {
        const channelOptions& c = s.channel;
        return std::string(s.server ? "server " : "client ") + s.target.text() + c.cipher + c.hash +
               "/" + std::to_string(c.connectTimeout) + "/" + std::to_string(c.handshakeTimeout) +
               "/" + std::to_string(c.limits.receive) + "/" + std::to_string(c.limits.idle) + "/" +
               std::to_string(s.maxConnections) + "/" + std::to_string(s.authTimeout) + "/" +
               std::to_string(s.maxHandshakesPerSource);
    };
    return acceptA == acceptB && key(a) == key(b) && a.secret.bytes == b.secret.bytes;
}

/** The parent process of a tunnel. */
class supervisor
{
public:
    supervisor(cliFrame& owner, tunnelCommandLine given)
        : frame(owner), line(std::move(given)), startDirectory(currentDirectory())
    {
        line.config = absolute(line.config, startDirectory);
    }

    LVX_NOT_COPYABLE(supervisor);

    ~supervisor()
    {
        for (const auto& [key, fd] : bound) {
            (void)close(fd);
        }
        if (counts != nullptr) {
            counts->~sharedCounts();
            (void)munmap(counts, sizeof(sharedCounts));
        }
    }

    /** Loads and starts everything; the exit status once the tunnel stopped. */
    int run()
    {
        inherited = inheritedDescriptors();
        tunnelSettings settings;
        try {
            settings = load();
        } catch (const configError& error) {
            std::cerr << "veltrix tunnel: " << error.what() << std::endl;
            return error.status;
        }
        process = settings.process;
        configureLog(isatty(STDERR_FILENO) == 1 || process.foreground);
        tunnelLog::takeStandardOutput();
        frame.loadPlugin();
        shareCounts();
        std::vector<liveService> services = build(settings);
        commit(std::move(services), settings);
        for (const liveService& live : current) {
            announce(live);
        }
        if (!process.foreground) {
            detach();
        } else {
            writePidFile();
        }
        const sigset_t set = tunnelSignals();
        (void)sigprocmask(SIG_BLOCK, &set, nullptr);
        startWorkers();
        supervise();
        tunnelLog::line(severity::notice, "stopped");
        removePidFile();
        return exitOk;
    }

private:
    [[nodiscard]] tunnelSettings load() const
    {
        tunnelSettings settings = line.config.empty()
                                      ? settingsFromCommandLine(line.service, line.process)
                                      : loadSettings(line.config, line.service, line.process);
        for (serviceSettings& service : settings.services) {
            service.channel.pskFile = absolute(service.channel.pskFile, startDirectory);
        }
        settings.process.logFile = absolute(settings.process.logFile, startDirectory);
        settings.process.pidFile = absolute(settings.process.pidFile, startDirectory);
        return settings;
    }

    void configureLog(bool toStderr) const
    {
        tunnelLog::configure(
            {process.logLevel, process.logFile, toStderr, instanceIdent(line.config)});
    }

    /** The memory the workers count in, before any of them starts. */
    void shareCounts()
    {
        void* shared = mmap(nullptr, sizeof(sharedCounts), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (shared == MAP_FAILED) {
            throw failure("cannot share the connection counts: " + errnoText());
        }
        counts = new (shared) sharedCounts;
        if (getrandom(&counts->bucketKey, sizeof counts->bucketKey, 0) !=
            static_cast<ssize_t>(sizeof counts->bucketKey)) {
            throw failure("cannot draw a random key: " + errnoText());
        }
    }

    /** The services of `settings`, ready to serve: secrets read, numeric targets resolved,
     *  listening sockets bound (or kept from the configuration in force). Throws failure and
     *  leaves nothing behind. */
    std::vector<liveService> build(const tunnelSettings& settings)
    {
        std::vector<liveService> services;
        fresh.clear();
        try {
            for (const serviceSettings& service : settings.services) {
                services.push_back(buildOne(service));
            }
        } catch (...) {
            // Only the sockets bound for it: those kept from the configuration in force serve on.
            for (const auto& [key, fd] : fresh) {
                if (bound.count(key) == 0) {
                    (void)close(fd);
                }
            }
            fresh.clear();
            throw;
        }
        return services;
    }

    liveService buildOne(const serviceSettings& service)
    {
        const std::string prefix = service.name.empty() ? "" : service.name + ": ";
        liveService live;
        try {
            live.setup = std::make_unique<serviceSetup>(
                serviceSetup{frame,
                             service.name,
                             service.server,
                             parseEndpoint(service.connect),
                             {},
                             readSecret(service.channel.pskFile,
                                        [&prefix](const std::string& text) {
                                            tunnelLog::line(severity::warning, prefix + text);
                                        }),
                             service.channel,
                             service.maxConnections,
                             service.authTimeout,
                             service.maxHandshakesPerSource});
            const endpoint& target = live.setup->target;
            if (target.numeric()) {
                live.setup->targetAddresses = resolve(target);
            }
            warmUp(frame, *live.setup);
            const endpoint acceptAt = parseEndpoint(service.accept);
            const std::vector<socketAddress> addresses = resolve(acceptAt, true);
            for (const socketAddress& at : addresses) {
                const std::string key = service.accept + "|" + addressText(at.address);
                const auto kept = bound.find(key);
                int fd = -1;
                if (kept != bound.end()) {
                    fd = kept->second;
                    (void)listen(fd, static_cast<int>(backlogFor(service)));
                } else {
                    fd = listenSocket(at, addresses.size() > 1, backlogFor(service),
                                      acceptAt.numeric()
                                          ? acceptAt.text()
                                          : acceptAt.text() + " (" + addressText(at.address) + ")");
                }
                fresh[key] = fd;
                live.listeners.push_back(fd);
            }
        } catch (const failure& error) {
            throw failure(prefix + error.what());
        }
        return live;
    }

    /** Makes `services` the configuration in force: the listening sockets it does not use are
     *  closed, each service gets its place in the shared counts. */
    void commit(std::vector<liveService> services, const tunnelSettings& settings)
    {
        for (const auto& [key, fd] : bound) {
            if (fresh.count(key) == 0) {
                (void)close(fd);
            }
        }
        bound = fresh;
        fresh.clear();
        std::set<std::string> names;
        for (liveService& live : services) {
            live.slot = slotFor(slotName(*live.setup));
            names.insert(slotName(*live.setup));
        }
        // A place whose service is gone is free once its last connection ended.
        for (sharedCounts::serviceSlot& slot : counts->slots) {
            if (slot.name[0] != '\0' && names.count(slot.name) == 0 && slot.open.load() == 0) {
                slot.name[0] = '\0';
            }
        }
        accepts.clear();
        for (const serviceSettings& service : settings.services) {
            accepts.push_back(service.accept);
        }
        current = std::move(services);
        ++generation;
    }

    static std::string slotName(const serviceSetup& setup)
    {
        return setup.name.empty() ? std::string("-") : setup.name;
    }

    size_t slotFor(const std::string& name)
    {
        size_t free = sharedCounts::kSlots;
        for (size_t i = 0; i < sharedCounts::kSlots; ++i) {
            if (name == counts->slots[i].name) {
                return i;
            }
            if (free == sharedCounts::kSlots && counts->slots[i].name[0] == '\0' &&
                counts->slots[i].open.load() == 0) {
                free = i;
            }
        }
        if (free == sharedCounts::kSlots) {
            throw failure("too many services over the reloads: restart the tunnel");
        }
        sharedCounts::serviceSlot& slot = counts->slots[free];
        (void)std::snprintf(slot.name, sizeof slot.name, "%s", name.c_str());
        return free;
    }

    void announce(const liveService& live) const
    {
        const serviceSetup& setup = *live.setup;
        std::string at;
        for (const int fd : live.listeners) {
            at += (at.empty() ? "" : ", ") + boundText(fd);
        }
        tunnelLog::line(severity::notice, setup.prefix() + (setup.server ? "server" : "client") +
                                              " tunnel listening on " + at + ", forwarding to " +
                                              setup.target.text() + " (" + setup.channel.cipher +
                                              ", " + setup.channel.hash + ")");
    }

    /** Goes to the background: the starting process returns once the tunnel runs there and
     *  its PID file is written, with status 1 and the reason when that failed. */
    void detach()
    {
        if (!tunnelLog::reachesAnyone()) {
            std::cerr << "veltrix tunnel: warning: there is no system log (/dev/log) and no "
                         "--log-file: in the background the tunnel will log nothing"
                      << std::endl;
        }
        int ready[2] = {-1, -1};
        if (pipe2(ready, O_CLOEXEC) != 0) {
            throw failure("cannot run in the background: " + errnoText());
        }
        std::cout.flush();
        std::cerr.flush();
        const pid_t child = fork();
        if (child < 0) {
            throw failure("cannot run in the background: " + errnoText());
        }
        if (child > 0) {
            (void)close(ready[1]);
            std::string report;
            char chunk[256];
            ssize_t got = 0;
            while ((got = read(ready[0], chunk, sizeof chunk)) > 0) {
                report.append(chunk, static_cast<size_t>(got));
            }
            if (report != "ok") {
                std::cerr << "veltrix tunnel: "
                          << (report.empty() ? "the tunnel ended while it started" : report)
                          << std::endl;
            }
            _exit(report == "ok" ? exitOk : exitFailure);
        }
        (void)close(ready[0]);
        (void)setsid();
        std::string problem;
        try {
            writePidFile();
        } catch (const failure& error) {
            problem = error.what();
        }
        if (!problem.empty()) {
            writeQuietly(ready[1], problem.data(), problem.size());
            _exit(exitFailure);
        }
        (void)chdir("/");
        // What the starting process was given (its caller's pipes, say) is not the tunnel's to
        // hold open for as long as it runs.
        for (const int fd : inherited) {
            (void)close(fd);
        }
        const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
        for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            (void)dup2(null, fd);
        }
        (void)close(null);
        tunnelLog::detached();
        writeQuietly(ready[1], "ok", 2);
        (void)close(ready[1]);
    }

    /** The descriptors above standard error that the process was started with. */
    static std::vector<int> inheritedDescriptors()
    {
        std::vector<int> found;
        DIR* listing = opendir("/proc/self/fd");
        if (listing == nullptr) {
            return found;
        }
        const int own = dirfd(listing);
        while (const dirent* entry = readdir(listing)) {
            const int fd = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
            if (fd > STDERR_FILENO && fd != own) {
                found.push_back(fd);
            }
        }
        (void)closedir(listing);
        return found;
    }

    void writePidFile() const
    {
        if (process.pidFile.empty()) {
            return;
        }
        const std::string text = std::to_string(getpid()) + "\n";
        const int fd = open(process.pidFile.c_str(),
                            O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            const std::string why = errnoText();
            if (fd >= 0) {
                (void)close(fd);
            }
            throw failure("cannot write the PID file " + process.pidFile + ": " + why);
        }
        (void)close(fd);
    }

    /** Removes the PID file when it still names this process. */
    void removePidFile() const
    {
        if (!process.pidFile.empty() &&
            readFileText(process.pidFile) == std::to_string(getpid()) + "\n") {
            (void)unlink(process.pidFile.c_str());
        }
    }

    static std::string readFileText(const std::string& path)
    {
        std::string text;
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            return text;
        }
        char chunk[64];
        ssize_t got = 0;
        while ((got = read(fd, chunk, sizeof chunk)) > 0) {
            text.append(chunk, static_cast<size_t>(got));
        }
        (void)close(fd);
        return text;
    }

    [[nodiscard]] unsigned workerCount() const
    {
        return process.workers != 0
                   ? process.workers
                   : static_cast<unsigned>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
    }

    void startWorkers()
    {
        for (unsigned i = 0; i < workerCount(); ++i) {
            startWorker();
        }
    }

    /** Runs one worker of the configuration in force in a new process. */
    void startWorker()
    {
        std::cout.flush();
        std::cerr.flush();
        const pid_t parent = getpid();
        const pid_t child = fork();
        if (child < 0) {
            tunnelLog::line(severity::err, "cannot start a worker: " + errnoText());
            return;
        }
        if (child != 0) {
            workers[child] = generation;
            return;
        }
        // The tunnel is one unit: a worker whose parent is gone (killed, say) ends at once
        // rather than serve on without it.
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(exitFailure);
        }
        int status = exitOk;
        try {
            status = runWorker(current, *counts, {process.drainTimeout});
        } catch (const std::exception& error) {
            tunnelLog::line(severity::err, std::string("a worker failed: ") + error.what());
            status = exitFailure;
        }
        std::cout.flush();
        std::cerr.flush();
        _exit(status); // the parent's objects are the parent's to close
    }

    void supervise()
    {
        const sigset_t set = tunnelSignals();
        while (!workers.empty()) {
            siginfo_t info{};
            const int signo = sigwaitinfo(&set, &info);
            switch (signo) {
            case SIGTERM:
            case SIGINT:
                stop();
                break;
            case SIGHUP:
                if (stops == 0) {
                    reload();
                }
                break;
            case SIGUSR1:
                (void)tunnelLog::reopen();
                tellWorkers(SIGUSR1);
                break;
            case SIGUSR2:
                tunnelLog::line(severity::notice,
                                std::to_string(openConnections()) + " connection(s) open");
                tellWorkers(SIGUSR2);
                break;
            case SIGCHLD:
                reapWorkers();
                break;
            default:
                break;
            }
        }
    }

    void tellWorkers(int signo) const
    {
        for (const auto& [pid, of] : workers) {
            (void)kill(pid, signo);
        }
    }

    [[nodiscard]] uint32_t openConnections() const
    {
        uint32_t open = 0;
        for (const sharedCounts::serviceSlot& slot : counts->slots) {
            open += slot.open.load();
        }
        return open;
    }

    void stop()
    {
        if (++stops == 1) {
            // Counted first: a worker woken by the shut listener holds a place for a moment.
            const uint32_t open = openConnections();
            // The workers hold the same sockets: shutting them down ends the listening in every
            // process at once, so nothing is accepted once this line is logged.
            for (const auto& [key, fd] : bound) {
                (void)shutdown(fd, SHUT_RDWR);
                (void)close(fd);
            }
            bound.clear();
            tunnelLog::line(severity::notice, "stopping: waiting for " + std::to_string(open) +
                                                  " connection(s) to finish, at most " +
                                                  std::to_string(process.drainTimeout) + " s");
        }
        tellWorkers(SIGTERM);
    }

    void reload()
    {
        tunnelSettings settings;
        std::vector<liveService> services;
        try {
            settings = load();
            services = build(settings);
        } catch (const std::exception& error) {
            tunnelLog::line(severity::err, std::string("reload failed, the configuration in "
                                                       "force stays: ") +
                                               error.what());
            return;
        }
        const std::string summary = changes(services, settings);
        // Settings that only a start can change stay as they are.
        const std::string pidFile = process.pidFile;
        const bool foreground = process.foreground;
        process = settings.process;
        process.pidFile = pidFile;
        process.foreground = foreground;
        try {
            configureLog(foreground);
        } catch (const failure& error) {
            tunnelLog::line(severity::err, error.what());
        }
        // The old workers finish what they serve; new ones serve the new configuration.
        std::vector<pid_t> retired;
        for (const auto& [pid, of] : workers) {
            retired.push_back(pid);
        }
        commit(std::move(services), settings);
        for (const pid_t pid : retired) {
            (void)kill(pid, SIGHUP);
        }
        startWorkers();
        tunnelLog::line(severity::notice,
                        "reloaded " + (line.config.empty() ? "the secret files" : line.config) +
                            summary);
    }

    /** ": web, api (added api; changed web; removed old)" */
    [[nodiscard]] std::string changes(const std::vector<liveService>& services,
                                      const tunnelSettings& settings) const
    {
        std::string all;
        std::string added;
        std::string changed;
        std::string removed;
        const auto add = [](std::string& list, const std::string& name) {
            list += (list.empty() ? "" : ", ") + name;
        };
        for (size_t i = 0; i < services.size(); ++i) {
            const serviceSetup& now = *services[i].setup;
            add(all, slotName(now));
            bool found = false;
            for (size_t j = 0; j < current.size(); ++j) {
                const serviceSetup& before = *current[j].setup;
                if (before.name == now.name) {
                    found = true;
                    if (!sameService(before, now, accepts[j], settings.services[i].accept)) {
                        add(changed, slotName(now));
                    }
                }
            }
            if (!found) {
                add(added, slotName(now));
            }
        }
        for (const liveService& before : current) {
            bool kept = false;
            for (const liveService& now : services) {
                kept = kept || now.setup->name == before.setup->name;
            }
            if (!kept) {
                add(removed, slotName(*before.setup));
            }
        }
        std::string what;
        for (const auto& [label, list] : {std::pair<const char*, std::string&>{"added", added},
                                          {"changed", changed},
                                          {"removed", removed}}) {
            if (!list.empty()) {
                what += std::string(what.empty() ? "" : "; ") + label + " " + list;
            }
        }
        return ": " + all + (what.empty() ? " (unchanged)" : " (" + what + ")");
    }

    void reapWorkers()
    {
        int status = 0;
        pid_t pid = 0;
        while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
            const auto found = workers.find(pid);
            if (found == workers.end()) {
                continue;
            }
            const bool ofCurrent = found->second == generation;
            workers.erase(found);
            if (!ofCurrent || stops != 0) {
                continue;
            }
            if (WIFSIGNALED(status)) {
                // Its connections are gone; the others' are not, and new ones need a worker.
                tunnelLog::line(severity::err, "a worker was ended by signal " +
                                                   std::to_string(WTERMSIG(status)) +
                                                   "; starting another");
                startWorker();
            } else if (WEXITSTATUS(status) != exitOk) {
                tunnelLog::line(severity::err, "a worker failed (status " +
                                                   std::to_string(WEXITSTATUS(status)) + ")");
            }
        }
    }

    cliFrame& frame;
    tunnelCommandLine line;
    std::string startDirectory;
    std::vector<int> inherited; ///< descriptors given at the start, closed once detached
    processSettings process{};
    sharedCounts* counts = nullptr;
    std::vector<liveService> current;
    std::vector<std::string> accepts;  ///< the accept text of each service in force
    std::map<std::string, int> bound;  ///< listening sockets in force, by service and address
    std::map<std::string, int> fresh;  ///< those of the configuration being built
    std::map<pid_t, unsigned> workers; ///< each worker and the configuration it serves
    unsigned generation = 0;
    unsigned stops = 0;
};

} // namespace

void addTunnelCommand(CLI::App& program, selection& chosen)
{
    auto line = std::make_shared<tunnelCommandLine>();
    CLI::App* command =
        program.add_subcommand("tunnel", "wrap unmodified TCP services in the encrypted channel");
    command->add_option("--config", line->config,
                        "the services of FILE: [NAME] sections of name = value lines");
    addOptions(*command, serviceRows(), line->service);
    addOptions(*command, processRows(), line->process);
    command->get_option("--server")->excludes(command->get_option("--client"));
    command->callback([line, &chosen] {
        if (line->config.empty()) {
            try {
                (void)settingsFromCommandLine(line->service, line->process);
            } catch (const configError& error) {
                throw CLI::RequiredError(error.what(), CLI::ExitCodes::RequiredError);
            }
        }
        chosen = {"tunnel", [line](cliFrame& frame) { return supervisor(frame, *line).run(); }};
    });
}

} // namespace vxcli
