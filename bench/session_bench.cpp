// session_bench: the session layer beside the library's own classes used directly, over TCP on
// 127.0.0.1. How it measures: bench/README.md.

#include "benchNet.h"
#include "session.h"
#include "vxNetSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace veltrix;
using namespace vxbench;
namespace vs = veltrix::session;

namespace {

constexpr int kRepetitions = 3;

constexpr size_t kEchoSizes[] = {64, 1024, 16384};
constexpr size_t kEchoWarmup = 50;
constexpr double kEchoSeconds = 0.25; // one timed block of one side
constexpr size_t kMinEchoes = 50;
constexpr size_t kMaxEchoes = 20000;
constexpr double kEchoGoal = 1.25;

constexpr size_t kClients = 8;
constexpr size_t kManySize = 1024;
constexpr size_t kManyWarmup = 50;
constexpr double kManySeconds = 0.7; // one repetition of one server
constexpr size_t kMinMany = 100;
constexpr size_t kMaxMany = 5000;
constexpr double kManyGoal = 0.80;

constexpr size_t kSilent = 20;
constexpr uint32_t kSilentTimeoutSeconds = 2;
constexpr uint32_t kProbeBacklog = 64;
constexpr size_t kHealthySize = 64;
/** The healthy client's bound: every silent connection's time-out, and room to spare. */
constexpr vs::milliseconds kHealthyLimit{(kSilent * kSilentTimeoutSeconds + 20) * 1000};

constexpr size_t kIdleSessions = 500;
constexpr size_t kDescriptorsPerClient = 3; // a session client's connection and its local pair
constexpr double kMemoryGoal = 1.5;

constexpr int kConnectWaitMs = 5000;
constexpr vs::milliseconds kSessionLimit = std::chrono::seconds(30);

vs::secret sessionSecret()
{
    return vs::secret::fromBytes(kSecret, std::strlen(kSecret));
}

/** One figure of each side per repetition, and each repetition's ratio session / direct. */
struct pairedFigures
{
    std::vector<double> session;
    std::vector<double> direct;
    std::vector<double> ratios;

    /** Adds one repetition; returns its ratio. */
    double add(double sessionFigure, double directFigure)
    {
        session.push_back(sessionFigure);
        direct.push_back(directFigure);
        ratios.push_back(sessionFigure / directFigure);
        return ratios.back();
    }
};

// ---- The library servers -----------------------------------------------------------------------

/** Sends every message back until the disconnect command (or the peer's close). */
bool echoUntilDisconnect(vxNetConnectedClient& peer)
{
    vxBytes message;
    for (;;) {
        message.bytes.clear();
        if (!peer.encryptedSocket.RecvEncrypted(message)) {
            return fail("the server could not receive");
        }
        if (peer.socket.doDisconnect) {
            return true;
        }
        if (!peer.encryptedSocket.SendEncrypted(message)) {
            return fail("the server could not send");
        }
    }
}

/** 1: one managed connection, every message sent back. */
bool serveEchoOnce(vxNetServer& server)
{
    if (!acceptManaged(server) || !echoUntilDisconnect(*server.connectedClients.back())) {
        return false;
    }
    (void)server.pruneCClist();
    return server.connectedClients.empty() || fail("the server could not prune the connection");
}

/** 2, in the child of one connection: adopts the accepted descriptor, runs the handshake and
 *  sends every message back; then reports the CPU seconds this process used. */
bool serveAdopted(vxNetServer& server, int fd, int reports)
{
    vxNetConnectedClient record;
    int32_t adopted = fd;
    const bool served = server.func_LVX_CALL_OPENP(&record, kCipher, kHash) &&
                        server.acceptNewClient(bytesOf(kSecret), &record, adopted, 0U) &&
                        echoUntilDisconnect(record);
    if (!served) {
        vxBase::DumpStackTrace(std::cerr);
    }
    return closeAll({&record}) && served && writeLine(reports, fixed(processCpu(getpid()), 3));
}

/** 2: `connections` connections, each served by a process of its own, forked once the
 *  connection is accepted; then every child is waited for. Each child reports its CPU time
 *  through `reports` when its connection ends. */
bool serveForking(vxNetServer& server, size_t connections, int reports)
{
    std::vector<pid_t> children;
    bool ok = true;
    while (ok && children.size() < connections) {
        if (!awaitConnection(server)) {
            ok = false;
            break;
        }
        const int fd = accept(server.socket.sockFd, nullptr, nullptr);
        if (fd < 0) {
            ok = errno == EAGAIN || errno == EINTR || errno == ECONNABORTED ||
                 fail("the forking server could not accept");
            continue;
        }
        std::cout.flush();
        std::cerr.flush();
        const pid_t child = fork();
        if (child == 0) {
            const bool served = serveAdopted(server, fd, reports);
            std::cerr.flush();
            _exit(served ? 0 : 1);
        }
        (void)::close(fd);
        if (child < 0) {
            ok = fail("the forking server could not fork");
            break;
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        if (!reapWithin(child, kExitWaitMs, status)) {
            (void)kill(child, SIGKILL);
            (void)waitpid(child, nullptr, 0);
            ok = fail("a connection's process did not end in time");
        } else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            ok = fail("a connection's process failed");
        }
    }
    return ok;
}

/** 3: accepts on one thread, one connection at a time, each with a 2-second socket time-out.
 *  A connection that fails its handshake (a silent one times out) is closed and the next
 *  accepted; the first that completes it is the healthy client, served until its disconnect.
 *  Reports how many failed before it. */
bool serveBehindSilent(vxNetServer& server, int reports)
{
    size_t timedOut = 0;
    for (size_t i = 0; i <= kSilent; ++i) {
        if (!awaitConnection(server)) {
            return false;
        }
        auto record = std::make_unique<vxNetConnectedClient>();
        if (!server.func_LVX_CALL_OPENP(record.get(), kCipher, kHash)) {
            return fail("the server could not open a connection record");
        }
        if (!server.acceptNewClient(bytesOf(kSecret), record.get(), -1, kSilentTimeoutSeconds)) {
            // The time-out latched the process: cleared, the server goes on with the next one.
            vxBase::lvxClearLastError();
            (void)closeAll({record.get()});
            vxBase::lvxClearLastError();
            ++timedOut;
            continue;
        }
        if (!echoUntilDisconnect(*record) || !closeAll({record.get()})) {
            return false;
        }
        return writeLine(reports, std::to_string(timedOut));
    }
    return fail("no connection completed its handshake");
}

// ---- The session servers -----------------------------------------------------------------------

/** The session server of this child process, for the signal handler. */
vs::server* stoppable = nullptr;

extern "C" void stopOnSignal(int /*signal*/)
{
    if (stoppable != nullptr) {
        stoppable->stop(); // a flag and a one-byte write: safe here
    }
}

/** Sets a session server's handlers (and samples, for 4) after it listens; `healthy` is the
 *  child's result, cleared by a handler that sees something wrong. */
using sessionPrepare = std::function<void(vs::server& server, int reports, bool& healthy)>;

/** A session server in `child`: listens, is prepared, reports its port and serves until SIGTERM;
 *  returns once its port is known. */
bool startSession(childProcess& child, const vs::context& plugin, const std::string& name,
                  const vs::serverOptions& options, const sessionPrepare& prepare)
{
    return child.start(name, [&plugin, options, prepare](int reports) {
        bool healthy = true; // outlives the server, whose handlers set it
        vs::server server(plugin, sessionSecret(), options);
        server.listen(kLoopback, "0");
        prepare(server, reports, healthy);
        stoppable = &server;
        struct sigaction onTerm = {};
        onTerm.sa_handler = stopOnSignal;
        (void)sigemptyset(&onTerm.sa_mask);
        if (sigaction(SIGTERM, &onTerm, nullptr) != 0 ||
            !writeLine(reports, std::to_string(server.port()))) {
            return fail("the session server could not start");
        }
        server.run();
        stoppable = nullptr;
        return healthy;
    }) && child.readPort();
}

/** A session that ends with an error other than the server's stop fails the child. */
void failOnError(vs::server& server, bool& healthy, const char* kind)
{
    server.onEnd = [&healthy, kind](vs::connection& session, const vs::error* why) {
        if (why != nullptr && why->why() != vs::cause::stopped) {
            std::cerr << "session_bench: " << kind << " " << session.id()
                      << " failed: " << why->what() << "\n";
            healthy = false;
        }
    };
}

/** Every message sent back; with `strict`, failOnError. */
sessionPrepare echoing(bool strict)
{
    return [strict](vs::server& server, int /*reports*/, bool& healthy) {
        server.onMessage = [](vs::connection& session, const vs::bytes& message) {
            session.send(message);
        };
        if (strict) {
            failOnError(server, healthy, "session");
        }
    };
}

// ---- The clients -------------------------------------------------------------------------------

bool echoDirect(vxNetClient& client, const vxBytes& payload, vxBytes& got)
{
    got.bytes.clear(); // a receive that returns without a message leaves it empty
    return client.encryptedSocket.SendEncrypted(payload) &&
           client.encryptedSocket.RecvEncrypted(got) && got.bytes == payload.bytes;
}

/** Throws vs::error when the session fails. */
bool echoSession(vs::client& client, const vs::bytes& payload)
{
    client.send(payload, kSessionLimit);
    return client.receive(kSessionLimit) == payload;
}

/** Seconds per echo of `count` echoes. */
template <class Echo> bool timeEchoes(size_t count, const Echo& echo, double& perEcho)
{
    const auto start = steadyClock::now();
    for (size_t i = 0; i < count; ++i) {
        if (!echo()) {
            return fail("an echo failed or came back altered");
        }
    }
    perEcho = secondsBetween(start, steadyClock::now()) / static_cast<double>(count);
    return true;
}

/** A connected, silent TCP connection to the loopback `port`: it never sends a byte. */
int silentConnection(const std::string& port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(std::stoi(port)));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
        pollfd writable{fd, POLLOUT, 0};
        int problem = errno;
        socklen_t length = sizeof problem;
        if (problem != EINPROGRESS || poll(&writable, 1, kConnectWaitMs) != 1 ||
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &problem, &length) != 0 || problem != 0) {
            (void)::close(fd);
            return -1;
        }
    }
    return fd;
}

/** kSilent silent connections, held until close() or the end of the scope. */
class silentSet
{
public:
    silentSet() = default;
    LVX_NOT_COPYABLE(silentSet);

    ~silentSet() { close(); }

    bool open(const std::string& port)
    {
        for (size_t i = 0; i < kSilent; ++i) {
            const int fd = silentConnection(port);
            if (fd < 0) {
                return fail("a silent connection could not connect");
            }
            fds.push_back(fd);
        }
        return true;
    }

    void close()
    {
        for (const int fd : fds) {
            (void)::close(fd);
        }
        fds.clear();
    }

private:
    std::vector<int> fds;
};

/** The healthy client of 3: connect, handshake and one echo, timed, every wait within
 *  kHealthyLimit. */
bool healthyClient(const vs::context& plugin, const std::string& port, double& seconds)
{
    const vs::bytes payload = pattern(kHealthySize, 9);
    try {
        const auto start = steadyClock::now();
        vs::client client(plugin, sessionSecret());
        client.connect(kLoopback, port, kHealthyLimit);
        client.send(payload, kHealthyLimit);
        const vs::bytes echoed = client.receive(kHealthyLimit);
        seconds = secondsBetween(start, steadyClock::now());
        client.close();
        return echoed == payload || fail("the healthy client's echo came back altered");
    } catch (const vs::error& failed) {
        return fail(std::string("the healthy client failed: ") + failed.what());
    }
}

// ---- 1. Echo round trip ------------------------------------------------------------------------

bool measureEchoSize(vxNetClient& directClient, vs::client& sessionClient, size_t size,
                     std::vector<resultRow>& rows)
{
    const vxBytes directPayload = asBytes(pattern(size, 1));
    const vs::bytes sessionPayload = pattern(size, 1);
    vxBytes got;
    const auto direct = [&] { return echoDirect(directClient, directPayload, got); };
    const auto session = [&] { return echoSession(sessionClient, sessionPayload); };
    double directWarm = 0;
    double sessionWarm = 0;
    if (!timeEchoes(kEchoWarmup, direct, directWarm) ||
        !timeEchoes(kEchoWarmup, session, sessionWarm)) {
        return false;
    }
    const size_t count =
        clampCount(kEchoSeconds / std::max(directWarm, sessionWarm), kMinEchoes, kMaxEchoes);
    pairedFigures times;
    for (int number = 1; number <= kRepetitions; ++number) {
        double directTime = 0;
        double sessionTime = 0;
        if (!timeEchoes(count, direct, directTime) || !timeEchoes(count, session, sessionTime)) {
            return false;
        }
        const double ratio = times.add(sessionTime, directTime);
        std::cout << "   " << size << " B, repetition " << number << ": " << count
                  << " round trips each; direct " << fixed(directTime * 1e6, 1) << " us, session "
                  << fixed(sessionTime * 1e6, 1) << " us, ratio " << fixed(ratio, 3) << "\n";
    }
    rows.push_back(atMost("1. echo round trip, " + std::to_string(size) + " B",
                          fixed(median(times.session) * 1e6, 1) + " us",
                          fixed(median(times.direct) * 1e6, 1) + " us", median(times.ratios),
                          kEchoGoal));
    return true;
}

bool measureEcho(benchFrame& frame, const vs::context& plugin, std::vector<resultRow>& rows)
{
    std::cout << "1. echo round trip of one message: session client and server against "
                 "vxNetClient and a vxNetServer echo loop\n";
    childProcess library;
    childProcess sessions;
    vxNetClient direct;
    if (!startLibrary(library, frame, "echo library server", 0,
                      [](vxNetServer& s, int) { return serveEchoOnce(s); }) ||
        !startSession(sessions, plugin, "echo session server", {}, echoing(true)) ||
        !connectClient(frame, direct, library.port)) {
        return false;
    }
    try {
        vs::client session(plugin, sessionSecret());
        session.connect(kLoopback, sessions.port, kSessionLimit);
        for (const size_t size : kEchoSizes) {
            if (!measureEchoSize(direct, session, size, rows)) {
                return false;
            }
        }
        session.close();
    } catch (const vs::error& failed) {
        return fail(std::string("the session client failed: ") + failed.what());
    }
    return disconnectClient(direct) && library.finish() && sessions.stop();
}

// ---- 2. Many clients at once -------------------------------------------------------------------

/** Holds the clients until all are connected, so that the clock starts with all of them. */
class startLine
{
public:
    void arrive()
    {
        {
            const std::lock_guard<std::mutex> hold(lock);
            ++arrived;
        }
        changed.notify_all();
    }

    /** True once released, false when abandoned or not released in time. */
    bool awaitRelease()
    {
        std::unique_lock<std::mutex> hold(lock);
        (void)changed.wait_for(hold, std::chrono::milliseconds(kReportWaitMs),
                               [this] { return released || abandoned; });
        return released;
    }

    bool awaitAll(size_t count)
    {
        std::unique_lock<std::mutex> hold(lock);
        return changed.wait_for(hold, std::chrono::milliseconds(kReportWaitMs),
                                [this, count] { return arrived == count; });
    }

    void release(bool go)
    {
        {
            const std::lock_guard<std::mutex> hold(lock);
            released = go;
            abandoned = !go;
        }
        changed.notify_all();
    }

private:
    std::mutex lock;
    std::condition_variable changed;
    size_t arrived = 0;
    bool released = false;
    bool abandoned = false;
};

struct clientOutcome
{
    bool ok = false;
    steadyClock::time_point finished;
    std::string problem;
};

/** One client thread of 2: connect, wait for the start, `echoes` echoes, close. */
void manyClient(const vs::context& plugin, const std::string& port, size_t echoes, unsigned seed,
                startLine& line, clientOutcome& outcome)
{
    bool arrived = false;
    try {
        vs::client client(plugin, sessionSecret());
        client.connect(kLoopback, port, kSessionLimit);
        const vs::bytes payload = pattern(kManySize, seed);
        line.arrive();
        arrived = true;
        if (!line.awaitRelease()) {
            outcome.problem = "the clients were not all connected in time";
            return;
        }
        for (size_t i = 0; i < echoes; ++i) {
            if (!echoSession(client, payload)) {
                outcome.problem = "an echo came back altered";
                return;
            }
        }
        outcome.finished = steadyClock::now();
        client.close();
        outcome.ok = true;
    } catch (const std::exception& thrown) {
        outcome.problem = thrown.what();
        if (!arrived) {
            line.arrive(); // the others need not wait for this one
        }
    }
}

/** kClients clients at once against `port`, `echoes` each; seconds from the moment all are
 *  connected until the last has its last echo. */
bool runClients(const vs::context& plugin, const std::string& port, size_t echoes, double& seconds)
{
    startLine line;
    std::vector<clientOutcome> outcomes(kClients);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < kClients; ++i) {
        threads.emplace_back(manyClient, std::cref(plugin), std::cref(port), echoes,
                             static_cast<unsigned>(i), std::ref(line), std::ref(outcomes[i]));
    }
    const bool all = line.awaitAll(kClients);
    const auto start = steadyClock::now();
    line.release(all);
    for (std::thread& thread : threads) {
        thread.join();
    }
    steadyClock::time_point end = start;
    for (const clientOutcome& outcome : outcomes) {
        if (!outcome.ok) {
            return fail("a client of the many failed: " + outcome.problem);
        }
        end = std::max(end, outcome.finished);
    }
    seconds = secondsBetween(start, end);
    return all || fail("the clients were not all connected in time");
}

/** One timed round of 2: its wall-clock time and the CPU time of the clients' process and of the
 *  server's process(es). */
struct roundCpu
{
    double seconds = 0;
    double client = 0;
    double server = 0;

    /** Per message, and how much of the round's time the server's side was on a CPU (more than
     *  100% for the forking server's processes together). */
    std::string text(double messages) const
    {
        return "clients " + fixed(client / messages * 1e6, 1) + " us, server " +
               fixed(server / messages * 1e6, 1) + " us (on a CPU " +
               fixed(server / seconds * 100, 0) + "% of the time)";
    }
};

/** A round against `port`; with `serverPid`, the CPU time of that process too. */
bool timeRound(const vs::context& plugin, const std::string& port, size_t echoes, pid_t serverPid,
               roundCpu& timed)
{
    const pid_t self = getpid();
    const double clientBefore = processCpu(self);
    const double serverBefore = serverPid > 0 ? processCpu(serverPid) : 0;
    if (!runClients(plugin, port, echoes, timed.seconds)) {
        return false;
    }
    timed.client = processCpu(self) - clientBefore;
    if (serverPid > 0) {
        timed.server = processCpu(serverPid) - serverBefore;
    }
    return true;
}

/** The CPU seconds of the forking server's kClients connection processes of one round, each
 *  reported when its connection ended. */
bool forkedCpu(childProcess& forking, double& seconds)
{
    seconds = 0;
    for (size_t i = 0; i < kClients; ++i) {
        std::string line;
        if (!forking.readLine(line)) {
            return fail("a connection process of the forking server did not report");
        }
        seconds += std::stod(line);
    }
    return true;
}

bool measureMany(benchFrame& frame, const vs::context& plugin, std::vector<resultRow>& rows)
{
    std::cout << "2. " << kClients << " session clients on " << kClients << " threads, "
              << kManySize << "-byte echoes: a session server against a library server that "
              << "forks per connection\n";
    childProcess forking;
    childProcess sessions;
    if (!startLibrary(forking, frame, "forking library server", 0,
                      [](vxNetServer& s, int reports) {
                          return serveForking(s, kClients * (kRepetitions + 1), reports);
                      }) ||
        !startSession(sessions, plugin, "many-client session server", {}, echoing(true))) {
        return false;
    }
    double forkingWarm = 0;
    double sessionWarm = 0;
    double unused = 0;
    if (!runClients(plugin, forking.port, kManyWarmup, forkingWarm) ||
        !forkedCpu(forking, unused) ||
        !runClients(plugin, sessions.port, kManyWarmup, sessionWarm)) {
        return false;
    }
    const double slowerPerEcho =
        std::max(forkingWarm, sessionWarm) / static_cast<double>(kClients * kManyWarmup);
    const size_t echoes = clampCount(kManySeconds / slowerPerEcho / static_cast<double>(kClients),
                                     kMinMany, kMaxMany);
    const auto total = static_cast<double>(kClients * echoes);
    pairedFigures rates;
    for (int number = 1; number <= kRepetitions; ++number) {
        roundCpu forked;
        roundCpu session;
        if (!timeRound(plugin, forking.port, echoes, 0, forked) ||
            !forkedCpu(forking, forked.server) ||
            !timeRound(plugin, sessions.port, echoes, sessions.processId(), session)) {
            return false;
        }
        const double ratio = rates.add(total / session.seconds, total / forked.seconds);
        std::cout << "   repetition " << number << ": " << echoes << " echoes per client; forking "
                  << fixed(rates.direct.back(), 0) << " msg/s, session "
                  << fixed(rates.session.back(), 0) << " msg/s, ratio " << fixed(ratio, 3)
                  << "\n      CPU per message, forking: " << forked.text(total)
                  << "; session: " << session.text(total) << "\n";
    }
    if (!forking.finish() || !sessions.stop()) {
        return false;
    }
    rows.push_back(atLeast("2. " + std::to_string(kClients) + " clients at once, 1 KiB echoes",
                           fixed(median(rates.session), 0) + " msg/s",
                           fixed(median(rates.direct), 0) + " msg/s (forking server)",
                           median(rates.ratios), kManyGoal));
    return true;
}

// ---- 3. A healthy client behind silent connections ---------------------------------------------

/** One probe process: its own library server, kSilent silent connections, then the healthy
 *  client; reports "SECONDS TIMEDOUT". */
bool probeLibrary(benchFrame& frame, const vs::context& plugin, int reports)
{
    childProcess server;
    if (!startLibrary(server, frame, "time-out library server", kProbeBacklog, serveBehindSilent)) {
        return false;
    }
    silentSet silent;
    double seconds = 0;
    std::string timedOut;
    if (!silent.open(server.port) || !healthyClient(plugin, server.port, seconds)) {
        return false;
    }
    silent.close();
    if (!server.readLine(timedOut) || !server.finish()) {
        return fail("the time-out library server did not report");
    }
    return writeLine(reports, fixed(seconds, 6) + " " + timedOut);
}

/** The library side of 3, running beside the rest of the run. */
struct libraryProbes
{
    std::vector<std::unique_ptr<childProcess>> probes;
    steadyClock::time_point started;
};

bool startProbes(benchFrame& frame, const vs::context& plugin, libraryProbes& running)
{
    running.started = steadyClock::now();
    for (int i = 0; i < kRepetitions; ++i) {
        running.probes.push_back(std::make_unique<childProcess>());
        if (!running.probes.back()->start("time-out probe", [&frame, &plugin](int reports) {
                return probeLibrary(frame, plugin, reports);
            })) {
            return false;
        }
    }
    return true;
}

/** The session side of 3: seconds of each repetition. */
bool measureSilentSession(const vs::context& plugin, std::vector<double>& times)
{
    std::cout << "3. a healthy client behind " << kSilent
              << " silent connections: the session server (the library server's side runs in "
                 "the background)\n";
    vs::serverOptions options;
    options.handshakeTimeout = std::chrono::seconds(kSilentTimeoutSeconds);
    childProcess sessions;
    if (!startSession(sessions, plugin, "time-out session server", options, echoing(false))) {
        return false;
    }
    for (int number = 1; number <= kRepetitions; ++number) {
        silentSet silent;
        double seconds = 0;
        if (!silent.open(sessions.port) || !healthyClient(plugin, sessions.port, seconds)) {
            return false;
        }
        times.push_back(seconds);
        std::cout << "   repetition " << number << ": session server " << fixed(seconds * 1e3, 2)
                  << " ms\n";
    }
    return sessions.stop();
}

bool collectProbes(libraryProbes& running, const std::vector<double>& sessionTimes,
                   std::vector<resultRow>& rows)
{
    std::cout << "3. the library server's side: waiting for its " << kRepetitions << " probes ("
              << kSilent << " time-outs of " << kSilentTimeoutSeconds << " s each)\n";
    const auto until = running.started + kHealthyLimit + std::chrono::seconds(30);
    std::vector<double> times;
    int number = 0;
    for (const auto& probe : running.probes) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - steadyClock::now());
        std::string line;
        double seconds = 0;
        size_t timedOut = 0;
        if (!probe->readLine(line, static_cast<int>(std::max<long long>(left.count(), 0))) ||
            !(std::istringstream(line) >> seconds >> timedOut) || !probe->finish()) {
            return fail("a time-out probe did not report: " + line);
        }
        times.push_back(seconds);
        std::cout << "   repetition " << ++number << ": library server " << fixed(seconds, 2)
                  << " s, after " << timedOut << " silent connections timed out\n";
    }
    const double session = median(sessionTimes);
    const double library = median(times);
    rows.push_back(noGoal("3. healthy client behind " + std::to_string(kSilent) + " silent",
                          fixed(session * 1e3, 2) + " ms",
                          fixed(library, 2) + " s (one-thread server)", session / library));
    return true;
}

// ---- 4. Server memory per idle session ---------------------------------------------------------

/** The session server of 4: samples before, after the first and after the last onOpen, and
 *  reports them once `count` sessions are open. */
void holdIdleSessions(vs::server& server, size_t count, int reports, bool& healthy)
{
    auto samples = std::make_shared<memoryReport>();
    auto opened = std::make_shared<size_t>(0);
    healthy = sampleBaseline(samples->before);
    server.onOpen = [samples, opened, count, reports, &healthy](vs::connection&) {
        ++*opened;
        if (*opened == 1) {
            healthy = sampleMemory(samples->first) && healthy;
        }
        if (*opened == count) {
            healthy = sampleMemory(samples->last) && writeLine(reports, samples->text()) && healthy;
        }
    };
    failOnError(server, healthy, "idle session");
}

/** `count` session clients connected to `server` and kept until it reported; then closed. */
bool holdClients(const vs::context& plugin, childProcess& server, size_t count,
                 memoryReport& report)
{
    std::string line;
    try {
        std::vector<std::unique_ptr<vs::client>> clients;
        for (size_t i = 0; i < count; ++i) {
            clients.push_back(std::make_unique<vs::client>(plugin, sessionSecret()));
            clients.back()->connect(kLoopback, server.port, kSessionLimit);
        }
        if (!server.readLine(line)) {
            return fail("the memory server did not report");
        }
        for (const auto& client : clients) {
            client->close();
        }
    } catch (const vs::error& failed) {
        return fail(std::string("an idle client failed: ") + failed.what());
    }
    return report.parse(line) || fail("the memory report is unreadable: " + line);
}

bool measureMemory(benchFrame& frame, const vs::context& plugin, rlim_t descriptorLimit,
                   std::vector<resultRow>& rows)
{
    const size_t count =
        connectionsWithin(descriptorLimit, kIdleSessions, kDescriptorsPerClient, "sessions");
    std::cout << "4. server memory per idle session: " << count
              << " idle sessions on a session server against as many managed connections on a "
                 "vxNetServer\n";
    pairedFigures resident;
    pairedFigures heap;
    for (int number = 1; number <= kRepetitions; ++number) {
        memoryReport library;
        memoryReport session;
        childProcess libraryServer;
        childProcess sessionServer;
        if (!startLibrary(libraryServer, frame, "memory library server", 0,
                          [count](vxNetServer& s, int reports) {
                              return holdIdle(s, count, reports, true);
                          }) ||
            !holdClients(plugin, libraryServer, count, library) || !libraryServer.finish() ||
            !startSession(sessionServer, plugin, "memory session server", {},
                          [count](vs::server& s, int reports, bool& healthy) {
                              holdIdleSessions(s, count, reports, healthy);
                          }) ||
            !holdClients(plugin, sessionServer, count, session) || !sessionServer.stop()) {
            return false;
        }
        if (library.residentEach(count) <= 0 || library.heapEach(count) <= 0) {
            return fail("the vxNetServer's memory did not grow: no ratio can be formed");
        }
        const double residentRatio =
            resident.add(session.residentEach(count), library.residentEach(count));
        const double heapRatio = heap.add(session.heapEach(count), library.heapEach(count));
        std::cout << "   repetition " << number << ": per session after the first: session server "
                  << fixed(resident.session.back() / 1024, 1) << " KiB resident, "
                  << fixed(heap.session.back() / 1024, 1) << " KiB heap; vxNetServer "
                  << fixed(resident.direct.back() / 1024, 1) << " KiB resident, "
                  << fixed(heap.direct.back() / 1024, 1) << " KiB heap; ratio "
                  << fixed(residentRatio, 3) << " resident, " << fixed(heapRatio, 3) << " heap\n";
        if (number == 1) {
            std::cout << "      the first: session server +"
                      << fixed(session.residentFirst() / 1024, 1) << " KiB resident, vxNetServer +"
                      << fixed(library.residentFirst() / 1024, 1)
                      << " KiB (one-time costs included)\n";
        }
    }
    rows.push_back(atMost("4. server memory per idle session, resident",
                          fixed(median(resident.session) / 1024, 1) + " KiB",
                          fixed(median(resident.direct) / 1024, 1) + " KiB (vxNetServer)",
                          median(resident.ratios), kMemoryGoal));
    // The heap in use, for comparison: it does not depend on which pages happen to be resident.
    rows.push_back(noGoal(
        "4. server memory per idle session, heap", fixed(median(heap.session) / 1024, 1) + " KiB",
        fixed(median(heap.direct) / 1024, 1) + " KiB (vxNetServer)", median(heap.ratios)));
    return true;
}

// ---- The run -----------------------------------------------------------------------------------

bool measureAll(benchFrame& frame, std::vector<resultRow>& rows)
{
    const rlim_t descriptorLimit = raiseDescriptorLimit();
    std::vector<resultRow> memoryRows; // after 3's row, which is complete only at the end
    bool measured = false;
    try {
        // The registry is the process's: the context must find the frame's plug-in loaded.
        const vs::context plugin(VX_PLUGIN_DIR);
        // The probes first, while no other thread runs: their 40 s pass beside everything else.
        libraryProbes probes;
        std::vector<double> silentSession;
        measured = (plugin.pluginDir().empty() ||
                    fail("the session context loaded the plug-in a second time")) &&
                   startProbes(frame, plugin, probes) && measureEcho(frame, plugin, rows) &&
                   measureMany(frame, plugin, rows) &&
                   measureSilentSession(plugin, silentSession) &&
                   measureMemory(frame, plugin, descriptorLimit, memoryRows) &&
                   collectProbes(probes, silentSession, rows);
    } catch (const vs::error& failed) {
        measured = fail(std::string("the session layer failed: ") + failed.what());
    }
    rows.insert(rows.end(), memoryRows.begin(), memoryRows.end());
    return measured;
}

} // namespace

int main()
{
    // A peer that closes first must show as an error, not end the process.
    (void)std::signal(SIGPIPE, SIG_IGN);
    const tableLayout table{"results (ratio = session / direct; medians of " +
                                std::to_string(kRepetitions) + " repetitions)",
                            {"session", 26},
                            {"direct (reference)", 32},
                            8,     // the ratio's width
                            true,  // a tiny ratio in scientific notation
                            true}; // the run time under the table
    return runMeasurements("session_bench", VX_PLUGIN_DIR, table, measureAll);
}
