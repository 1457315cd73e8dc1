// Shared by the programs that measure over loopback (net_bench, session_bench): time and text
// helpers, the descriptor limit and memory samples, servers in forked child processes that report
// over a pipe one line at a time, the library's client and server ends, and the result table with
// the main that prints it.
#pragma once

#include "benchCommon.h"
#include "vxNetClient.h"
#include "vxNetServer.h"

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace vxbench {

inline constexpr const char* kCipher = "aes256";
inline constexpr const char* kHash = "md5";
inline constexpr const char* kLoopback = "127.0.0.1";
inline constexpr const char* kSecret = "the secret both ends of every benchmark connection share";

inline constexpr int kReportWaitMs = 30000; ///< the longest wait for a child's next line
inline constexpr int kExitWaitMs = 10000;   ///< the longest wait for a child to end by itself
/** A library client's guard against a stuck server. */
inline constexpr uint32_t kReceiveTimeoutSeconds = 30;

// ---- Time and text -----------------------------------------------------------------------------

using steadyClock = std::chrono::steady_clock;

double secondsBetween(steadyClock::time_point from, steadyClock::time_point to);

/** CPU seconds this process has used so far (std::clock). */
double processCpuSeconds();

/** CPU seconds (user and system) process `pid` used so far, from /proc/PID/stat; -1 when it
 *  cannot be read. */
double processCpu(pid_t pid);

std::string fixed(double value, int decimals);

/** Reports why the run stops, after the program's name; main prints the library's error trail
 *  once. Always false. */
bool fail(const std::string& what);

vxBytes bytesOf(const std::string& text);

/** Closes, last first, whichever of `objects` are open; false when a close fails. */
bool closeAll(std::initializer_list<vxBase*> objects);

size_t clampCount(double wanted, size_t least, size_t most);

// ---- Descriptors and memory --------------------------------------------------------------------

/** Raises the soft limit on open files to the hard limit; returns the limit now in force. A forked
 *  server inherits it. */
rlim_t raiseDescriptorLimit();

/** How many of `wanted` connections, `descriptorsEach` descriptors each, the limit allows; said
 *  aloud (as `noun`) when fewer. */
size_t connectionsWithin(rlim_t descriptorLimit, size_t wanted, size_t descriptorsEach,
                         const char* noun);

struct memorySample
{
    long long resident = 0; ///< bytes, from /proc/self/statm
    long long heap = 0;     ///< bytes allocated by malloc, arena and mapped blocks
};

bool sampleMemory(memorySample& sample);

/** The first sample of a forked server's memory. The server inherits the benchmark process's heap
 *  with the chunks it freed, which are resident and would take the server's first allocations
 *  without any growth of its resident set: they are given back to the system first. */
bool sampleBaseline(memorySample& sample);

/** A server's memory before its first connection, after the first and after the last, as it
 *  reports them in one line. */
struct memoryReport
{
    memorySample before;
    memorySample first;
    memorySample last;

    bool parse(const std::string& line);
    std::string text() const;

    /** Growth per connection from the first to the last of `count`: one-time costs left out. */
    double residentEach(size_t count) const;
    double heapEach(size_t count) const;

    /** The first connection's growth of the resident set, one-time costs included. */
    double residentFirst() const { return static_cast<double>(first.resident - before.resident); }
};

// ---- Child processes ---------------------------------------------------------------------------

/** Reaps `pid` once it ended, waiting at most `milliseconds`; its status into `status`. */
bool reapWithin(pid_t pid, int milliseconds, int& status);

bool writeLine(int fd, const std::string& text);

/** A forked child process running one function, and the pipe it reports through. A child still
 *  running when this goes (the run failed) is given time to end by itself, then terminated. */
class childProcess
{
public:
    childProcess() = default;
    LVX_NOT_COPYABLE(childProcess);
    ~childProcess();

    /** Forks and runs `body` in the child with the write end of the pipe; its result becomes the
     *  child's exit status. */
    bool start(const std::string& name, const std::function<bool(int reports)>& body);

    /** The child's next line, waiting at most `milliseconds`. */
    bool readLine(std::string& line, int milliseconds = kReportWaitMs);

    /** A server's first line: the port it listens on, into `port`. */
    bool readPort();

    /** Waits (bounded) for the child to end by itself; true when it ended successfully. */
    bool finish();

    /** Asks a server that runs until told to stop (SIGTERM), then finish(). */
    bool stop();

    [[nodiscard]] pid_t processId() const { return pid; }

    std::string port;

private:
    void closeReports();

    std::string what;
    pid_t pid = -1;
    int reports = -1; ///< read end of the pipe
};

// ---- The library's ends ------------------------------------------------------------------------

/** What a library server does once it listens; `reports` is the pipe to the benchmark process. */
using libraryServe = std::function<bool(vxNetServer& server, int reports)>;

/** A vxNetServer in `child`, listening on 127.0.0.1 with `backlog` (0: the library's), then
 *  `serve`; returns once its port is known. */
bool startLibrary(childProcess& child, benchFrame& frame, const std::string& name, uint32_t backlog,
                  const libraryServe& serve);

/** Waits (bounded) until the non-blocking listening socket has a connection pending. */
bool awaitConnection(vxNetServer& server);

/** Accepts and handshakes one managed connection, once one is pending. */
bool acceptManaged(vxNetServer& server);

/** Receives on `peer` until its disconnect command (or its close); messages are dropped. */
bool drainUntilDisconnect(vxNetConnectedClient& peer);

/** `count` managed connections accepted and left idle, memory sampled before the first (with
 *  `trimFirst` by sampleBaseline), after the first and after the last and reported as one line;
 *  then each connection received until its disconnect, and pruned. */
bool holdIdle(vxNetServer& server, size_t count, int reports, bool trimFirst);

/** Opens `client`, connects it to the server's port and runs the handshake. */
bool connectClient(benchFrame& frame, vxNetClient& client, const std::string& port);

/** The disconnect command, then the close at once: the server waits for it. */
bool disconnectClient(vxNetClient& client);

// ---- The result table and the run --------------------------------------------------------------

struct resultRow
{
    std::string label;
    std::string measured;
    std::string reference;
    double ratio = 0;
    std::string goal;    ///< "-" for none
    std::string verdict; ///< "within", "OVER" or "-"
};

/** A row whose goal is ratio <= goal, one whose goal is ratio >= goal, and one without. */
resultRow atMost(std::string label, std::string measured, std::string reference, double ratio,
                 double goal);
resultRow atLeast(std::string label, std::string measured, std::string reference, double ratio,
                  double goal);
resultRow noGoal(std::string label, std::string measured, std::string reference, double ratio);

struct tableColumn
{
    const char* heading;
    int width;
};

struct tableLayout
{
    std::string title; ///< the line above the table
    tableColumn measured;
    tableColumn reference;
    int ratioWidth;
    bool tinyRatiosScientific; ///< a ratio below 0.01 as 5.0e-03, so that it does not read 0.00
    bool runTime;              ///< a line under the table with how long the run took
};

using measureFunction = std::function<bool(benchFrame& frame, std::vector<resultRow>& rows)>;

/** The common main: the plug-in loaded from `pluginDir`, `measure` run, the table of what it
 *  measured printed (after a failure too). Returns the exit status: nonzero only when something
 *  could not be measured, never for a missed goal. */
int runMeasurements(const char* program, const char* pluginDir, const tableLayout& layout,
                    const measureFunction& measure);

} // namespace vxbench
