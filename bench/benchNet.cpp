#include "benchNet.h"

#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>
#include <utility>

namespace vxbench {

namespace {

const char* program = "bench"; ///< the name before every message; set by runMeasurements

constexpr rlim_t kSpareDescriptors = 64; // pipes, listeners, standard streams, the plug-in
constexpr int kAcceptWaitMs = 10000;
constexpr int kGraceMs = 2000; // a child left behind by a failed run, before each signal
constexpr int kChildPollMs = 10;

/** One line from `fd` (without its newline), waiting at most until `until`; false at end of file
 *  or when the time is up. */
bool readLineUntil(int fd, std::string& line, steadyClock::time_point until)
{
    line.clear();
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - steadyClock::now());
        pollfd readable{fd, POLLIN, 0};
        const int ready =
            poll(&readable, 1, static_cast<int>(std::max<long long>(left.count(), 0)));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready != 1) {
            return false;
        }
        char c = 0;
        const ssize_t got = read(fd, &c, 1);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got != 1) {
            return false;
        }
        if (c == '\n') {
            return true;
        }
        line.push_back(c);
    }
}

/** Binds 127.0.0.1 on a port the system picks, with `backlog` (0: the library's), and tells the
 *  benchmark process which port. */
bool listenOnLoopback(vxNetServer& server, int reports, uint32_t backlog)
{
    if (backlog != 0 && !server.socket.setSoBacklog(backlog)) {
        return fail("the server could not set its backlog");
    }
    if (!server.SetCipherMode(kCipher) || !server.SetHashMode(kHash) ||
        !server.socket.setPort("0") || !server.socket.setAddress(kLoopback) ||
        !server.socket.BindAndListen()) {
        return fail("the server could not listen on the loopback address");
    }
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    if (getsockname(server.socket.sockFd, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
        return fail("the server could not read back its port");
    }
    return writeLine(reports, std::to_string(ntohs(bound.sin_port)));
}

/** Two decimals; with `tinyScientific`, a ratio far below 1 in scientific notation. */
std::string ratioText(double ratio, bool tinyScientific)
{
    char text[32];
    (void)std::snprintf(text, sizeof text, tinyScientific && !(ratio >= 0.01) ? "%.1e" : "%.2f",
                        ratio);
    return text;
}

void printTable(const std::vector<resultRow>& rows, const tableLayout& layout)
{
    char line[260];
    std::cout << "\n" << layout.title << "\n";
    (void)std::snprintf(line, sizeof line, "%-44s %-*s %-*s %*s %8s\n", "measurement",
                        layout.measured.width, layout.measured.heading, layout.reference.width,
                        layout.reference.heading, layout.ratioWidth, "ratio", "goal");
    std::cout << line;
    for (const resultRow& row : rows) {
        (void)std::snprintf(line, sizeof line, "%-44s %-*s %-*s %*s %8s  %s\n", row.label.c_str(),
                            layout.measured.width, row.measured.c_str(), layout.reference.width,
                            row.reference.c_str(), layout.ratioWidth,
                            ratioText(row.ratio, layout.tinyRatiosScientific).c_str(),
                            row.goal.c_str(), row.verdict.c_str());
        std::cout << line;
    }
}

} // namespace

// ---- Time and text -----------------------------------------------------------------------------

double secondsBetween(steadyClock::time_point from, steadyClock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
}

double processCpuSeconds()
{
    return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

double processCpu(pid_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    const size_t nameEnd = text.rfind(')'); // the command name may hold spaces
    if (nameEnd == std::string::npos) {
        return -1;
    }
    std::istringstream fields(text.substr(nameEnd + 1));
    std::string field;
    unsigned long long user = 0;
    unsigned long long system = 0;
    // From the state (the third field) on: user time is the 14th field, system time the 15th.
    for (int index = 3; index < 14 && fields >> field; ++index) {
    }
    if (!(fields >> user >> system)) {
        return -1;
    }
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::string fixed(double value, int decimals)
{
    std::ostringstream out;
    out.setf(std::ios::fixed);
    out.precision(decimals);
    out << value;
    return out.str();
}

bool fail(const std::string& what)
{
    std::cerr << program << ": " << what << "\n";
    return false;
}

vxBytes bytesOf(const std::string& text)
{
    vxBytes bytes;
    (void)bytes.Replace(text);
    return bytes;
}

bool closeAll(std::initializer_list<vxBase*> objects)
{
    bool closed = true;
    for (auto it = std::rbegin(objects); it != std::rend(objects); ++it) {
        if ((*it)->opened) {
            closed = benchFrame::closeChild(**it) && closed;
        }
    }
    return closed;
}

size_t clampCount(double wanted, size_t least, size_t most)
{
    return std::clamp(static_cast<size_t>(std::max(wanted, 0.0)), least, most);
}

// ---- Descriptors and memory --------------------------------------------------------------------

rlim_t raiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return 0;
    }
    if (limit.rlim_cur < limit.rlim_max) {
        rlimit raised = limit;
        raised.rlim_cur = limit.rlim_max;
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0) {
            limit = raised;
        }
    }
    return limit.rlim_cur;
}

size_t connectionsWithin(rlim_t descriptorLimit, size_t wanted, size_t descriptorsEach,
                         const char* noun)
{
    if (descriptorLimit >= wanted * descriptorsEach + kSpareDescriptors) {
        return wanted;
    }
    const size_t count =
        descriptorLimit > kSpareDescriptors + 2 * descriptorsEach
            ? static_cast<size_t>((descriptorLimit - kSpareDescriptors) / descriptorsEach)
            : 2;
    std::cout << "   the limit on open files is " << descriptorLimit << ": " << count << " " << noun
              << " instead of " << wanted << "\n";
    return count;
}

bool sampleMemory(memorySample& sample)
{
    std::ifstream statm("/proc/self/statm");
    long long pages = 0;
    long long residentPages = 0;
    if (!(statm >> pages >> residentPages)) {
        return false;
    }
    sample.resident = residentPages * sysconf(_SC_PAGESIZE);
    const struct mallinfo2 info = mallinfo2();
    sample.heap = static_cast<long long>(info.uordblks + info.hblkhd);
    return true;
}

bool sampleBaseline(memorySample& sample)
{
    (void)malloc_trim(0);
    return sampleMemory(sample);
}

bool memoryReport::parse(const std::string& line)
{
    std::istringstream in(line);
    return static_cast<bool>(in >> before.resident >> first.resident >> last.resident >>
                             before.heap >> first.heap >> last.heap);
}

std::string memoryReport::text() const
{
    std::ostringstream line;
    line << before.resident << ' ' << first.resident << ' ' << last.resident << ' ' << before.heap
         << ' ' << first.heap << ' ' << last.heap;
    return line.str();
}

double memoryReport::residentEach(size_t count) const
{
    return static_cast<double>(last.resident - first.resident) / static_cast<double>(count - 1);
}

double memoryReport::heapEach(size_t count) const
{
    return static_cast<double>(last.heap - first.heap) / static_cast<double>(count - 1);
}

// ---- Child processes ---------------------------------------------------------------------------

bool reapWithin(pid_t pid, int milliseconds, int& status)
{
    for (int waited = 0;; waited += kChildPollMs) {
        const pid_t reaped = waitpid(pid, &status, WNOHANG);
        if (reaped == pid) {
            return true;
        }
        if (reaped < 0 || waited >= milliseconds) {
            return false;
        }
        (void)poll(nullptr, 0, kChildPollMs);
    }
}

bool writeLine(int fd, const std::string& text)
{
    const std::string line = text + "\n";
    return write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

childProcess::~childProcess()
{
    closeReports();
    if (pid <= 0) {
        return;
    }
    int status = 0;
    if (!reapWithin(pid, kGraceMs, status)) {
        (void)kill(pid, SIGTERM);
        if (!reapWithin(pid, kGraceMs, status)) {
            (void)kill(pid, SIGKILL);
            (void)waitpid(pid, nullptr, 0);
        }
    }
}

bool childProcess::start(const std::string& name, const std::function<bool(int reports)>& body)
{
    what = name;
    int ends[2] = {-1, -1};
    if (pipe(ends) != 0) {
        return fail("cannot create a pipe for the " + what);
    }
    std::cout.flush();
    std::cerr.flush();
    pid = fork();
    if (pid == 0) {
        (void)::close(ends[0]);
        bool done = false;
        try {
            done = body(ends[1]);
        } catch (const std::exception& thrown) {
            std::cerr << program << ": " << thrown.what() << "\n";
        }
        if (!done) {
            std::cerr << program << ": the " << what << " failed\n";
            if (vxGlobal.stackTrace.errorLatch.load()) {
                vxBase::DumpStackTrace(std::cerr);
            }
        }
        std::cout.flush();
        std::cerr.flush();
        _exit(done ? 0 : 1); // nothing of the parent may run twice
    }
    (void)::close(ends[1]);
    if (pid < 0) {
        (void)::close(ends[0]);
        return fail("cannot start the " + what);
    }
    reports = ends[0];
    return true;
}

bool childProcess::readLine(std::string& line, int milliseconds)
{
    return readLineUntil(reports, line,
                         steadyClock::now() + std::chrono::milliseconds(milliseconds));
}

bool childProcess::readPort()
{
    return (readLine(port) && !port.empty()) || fail("the " + what + " did not report its port");
}

bool childProcess::finish()
{
    closeReports();
    int status = 0;
    const bool reaped = reapWithin(pid, kExitWaitMs, status);
    if (reaped) {
        pid = -1;
    }
    return (reaped && WIFEXITED(status) && WEXITSTATUS(status) == 0) ||
           fail("the " + what + " did not finish cleanly");
}

bool childProcess::stop()
{
    if (pid > 0) {
        (void)kill(pid, SIGTERM);
    }
    return finish();
}

void childProcess::closeReports()
{
    if (reports != -1) {
        (void)::close(reports);
        reports = -1;
    }
}

// ---- The library's ends ------------------------------------------------------------------------

bool startLibrary(childProcess& child, benchFrame& frame, const std::string& name, uint32_t backlog,
                  const libraryServe& serve)
{
    return child.start(name, [&frame, backlog, serve](int reports) {
        vxNetServer server;
        const bool served = frame.openChild(server) && listenOnLoopback(server, reports, backlog) &&
                            serve(server, reports);
        // Whatever the server still manages is closed by its destructor.
        return closeAll({&server}) && served;
    }) && child.readPort();
}

bool awaitConnection(vxNetServer& server)
{
    pollfd pending{server.socket.sockFd, POLLIN, 0};
    return poll(&pending, 1, kAcceptWaitMs) == 1 || fail("the server saw no connection in time");
}

bool acceptManaged(vxNetServer& server)
{
    return awaitConnection(server) &&
           (server.acceptNewManagedClient(bytesOf(kSecret)) ||
            fail("the server could not accept and handshake a connection"));
}

bool drainUntilDisconnect(vxNetConnectedClient& peer)
{
    vxBytes message;
    while (!peer.socket.doDisconnect) {
        if (!peer.encryptedSocket.RecvEncrypted(message)) {
            return fail("the server could not receive");
        }
    }
    return true;
}

bool holdIdle(vxNetServer& server, size_t count, int reports, bool trimFirst)
{
    memoryReport samples;
    if (!(trimFirst ? sampleBaseline(samples.before) : sampleMemory(samples.before))) {
        return fail("the server cannot read its memory use");
    }
    for (size_t i = 0; i < count; ++i) {
        if (!acceptManaged(server) || (i == 0 && !sampleMemory(samples.first))) {
            return false;
        }
    }
    if (!sampleMemory(samples.last)) {
        return fail("the server cannot read its memory use");
    }
    if (!writeLine(reports, samples.text())) {
        return false;
    }
    for (const auto& peer : server.connectedClients) {
        if (!drainUntilDisconnect(*peer)) {
            return false;
        }
    }
    (void)server.pruneCClist();
    return server.connectedClients.empty() || fail("the server could not prune the connections");
}

bool connectClient(benchFrame& frame, vxNetClient& client, const std::string& port)
{
    uint32_t timeout = kReceiveTimeoutSeconds;
    // The port is set before the address: the address is resolved with it.
    if (!frame.openChild(client) || !client.socket.setPort(port) ||
        !client.socket.setAddress(kLoopback) || !client.socket.setTimeOut(timeout) ||
        !client.Connect()) {
        return fail("the client could not connect");
    }
    if (!frame.openChild(client.encryptedSocket, kCipher, kHash, &client.socket) ||
        !client.PerformKeyExchange(bytesOf(kSecret))) {
        return fail("the client's handshake failed");
    }
    return true;
}

bool disconnectClient(vxNetClient& client)
{
    return (client.SendClientDisconnect() && closeAll({&client, &client.encryptedSocket})) ||
           fail("the client could not disconnect");
}

// ---- The result table and the run --------------------------------------------------------------

resultRow atMost(std::string label, std::string measured, std::string reference, double ratio,
                 double goal)
{
    return {std::move(label),       std::move(measured),
            std::move(reference),   ratio,
            "<= " + fixed(goal, 2), ratio <= goal ? "within" : "OVER"};
}

resultRow atLeast(std::string label, std::string measured, std::string reference, double ratio,
                  double goal)
{
    return {std::move(label),       std::move(measured),
            std::move(reference),   ratio,
            ">= " + fixed(goal, 2), ratio >= goal ? "within" : "OVER"};
}

resultRow noGoal(std::string label, std::string measured, std::string reference, double ratio)
{
    return {std::move(label), std::move(measured), std::move(reference), ratio, "-", "-"};
}

int runMeasurements(const char* programName, const char* pluginDir, const tableLayout& layout,
                    const measureFunction& measure)
{
    program = programName;
    const auto start = steadyClock::now();
    benchFrame frame;
    if (!frame.loadPlugin(pluginDir)) {
        std::cerr << program << ": cannot load the plug-in from " << pluginDir << "\n";
        vxBase::DumpStackTrace(std::cerr);
        return 1;
    }
    std::vector<resultRow> rows;
    const bool measured = measure(frame, rows);
    printTable(rows, layout);
    if (layout.runTime) {
        std::cout << "(the run took " << fixed(secondsBetween(start, steadyClock::now()), 1)
                  << " s)\n";
    }
    if (!measured || vxGlobal.stackTrace.errorLatch.load()) {
        std::cerr << program << ": stopped; not everything could be measured\n";
        vxBase::DumpStackTrace(std::cerr);
        return 1;
    }
    return closeAll({&frame.api}) ? 0 : 1;
}

} // namespace vxbench
