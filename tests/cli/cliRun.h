// Runs the veltrix program as a user would: arguments, standard input, captured output, exit
// status, and a time limit on every wait so that a hung program fails its test instead of the run.
#pragma once

#include "vxTest.h"

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VX_CLI_ASAN 1
#endif
#endif

namespace vxclitest {

/** Whether the program and the tests run under AddressSanitizer, whose quarantine holds freed
 *  memory back on purpose: a resident size then says nothing about a leak. */
#if defined(__SANITIZE_ADDRESS__) || defined(VX_CLI_ASAN)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

/** How a run ended. `status` is the exit status, or 128 + the signal that ended it, or -1 when it
 *  ran over its time limit (it is then killed). */
struct runResult
{
    int status = -1;
    std::string out;
    std::string err;
};

/** The program under test, built beside this test. */
std::string veltrixPath();
/** The same as a shell runs it: under the emulator that runs the tests, if any (a shell started
 *  by a test is the build machine's own). */
std::string veltrixCommand();

/** Runs veltrix with `args`, `input` on standard input, and waits at most `seconds`. */
runResult runVeltrix(const std::vector<std::string>& args, const std::string& input = "",
                     int seconds = 60);

/** Runs any program (`argv[0]` is looked up in PATH) the same way. */
runResult runProgram(const std::vector<std::string>& argv, const std::string& input = "",
                     int seconds = 60);

/** A program running in the background (a tunnel, a listening cat), standard input from
 *  /dev/null unless a file is given, standard output and error collected into files. */
class backgroundRun
{
public:
    explicit backgroundRun(const std::vector<std::string>& argv, const std::string& stdinFile = "",
                           const std::string& stdoutFile = "");
    backgroundRun(const backgroundRun&) = delete;
    backgroundRun& operator=(const backgroundRun&) = delete;
    /** Kills the program if it still runs. */
    ~backgroundRun();

    /** Sends `signo`. */
    void signal(int signo) const;
    /** Waits at most `seconds` for the program to end; its status as in runResult. */
    int wait(int seconds);
    /** Everything written to standard error so far. */
    std::string errorText() const;
    /** Waits at most `seconds` until standard error holds `text`; true when it does. */
    bool waitForError(const std::string& text, int seconds) const;

    pid_t pid = -1;

private:
    std::string errFile;
    int status = -1;
    bool ended = false;
};

/** A fresh directory, removed with its files when the object goes. */
class scratchDir
{
public:
    scratchDir();
    scratchDir(const scratchDir&) = delete;
    scratchDir& operator=(const scratchDir&) = delete;
    ~scratchDir();

    std::string file(const std::string& name) const { return path + "/" + name; }

    std::string path;
};

/** Writes `content` into `path` with `mode`. */
void writeFile(const std::string& path, const std::string& content, unsigned mode = 0600);
/** The content of `path`; empty when it cannot be read. */
using vxtest::readFile;
/** A free TCP port on 127.0.0.1 at the time of the call. */
int freePort();
/** `size` bytes of a fixed pseudo-random pattern, different for each seed. */
std::string pattern(size_t size, unsigned seed);
/** Number of lines in `text` (a last line without a line feed counts). */
size_t lineCount(const std::string& text);

/** The bytes of pattern(size, seed) piece by piece, for streams too large to hold. */
class patternStream
{
public:
    explicit patternStream(unsigned seed);
    void fill(char* out, size_t count);

private:
    uint32_t state;
};

/** "127.0.0.1:port" */
std::string address(int port);
/** A socket listening on 127.0.0.1:port. */
int listenLoopback(int port);
/** A plain connection to 127.0.0.1:port whose sends and receives give up after 60 s; -1 when
 *  refused. */
int connectLoopback(int port);
/** The local port of a socket. */
int localPort(int fd);
bool sendAll(int fd, const std::string& data);
/** Everything until the end of the stream; `ended` says whether it ended normally. */
std::string receiveAll(int fd, bool* ended = nullptr);
/** Whether the peer ended or reset the connection on `fd` within `seconds`; what arrives before
 *  is dropped. */
bool closedWithin(int fd, int seconds);
/** Whether a socket listens on 127.0.0.1:port (or any address) within `seconds`, seen from
 *  /proc without connecting to it: a listener that takes one connection keeps it. */
bool listeningWithin(int port, int seconds);
/** Sends `size` bytes of patternStream(seed), piece by piece. */
bool sendPattern(int fd, uint64_t size, unsigned seed);
/** Receives until the end of the stream and compares with patternStream(seed); true when every
 *  byte matched and the stream ended normally. `total` counts the bytes received. */
bool receivePattern(int fd, unsigned seed, uint64_t& total);

/** A plain TCP service on loopback: each connection goes to `serve`, on a thread of its own,
 *  which closes it. */
class loopbackService
{
public:
    explicit loopbackService(std::function<void(int)> serve);
    loopbackService(const loopbackService&) = delete;
    loopbackService& operator=(const loopbackService&) = delete;
    ~loopbackService();

    const int port;

private:
    void acceptAll();

    /** A connection's thread, and whether it finished (it is then joined at the next accept). */
    struct worker
    {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };

    int listener;
    std::function<void(int)> handler;
    std::thread acceptor;
    std::list<worker> workers;
};

/** Sends every byte of the connection back, then the end of the stream (a half-close answered
 *  the way a request/response service answers it), and closes. */
void echoBytes(int fd);

/** `veltrix tunnel <mode> --foreground` accepting on one port and forwarding to the other, once
 *  it logged that it listens. */
std::unique_ptr<backgroundRun> startTunnel(const std::string& mode, int acceptPort, int connectPort,
                                           const std::string& secretFile,
                                           const std::vector<std::string>& extra = {});

/** Open descriptors and resident anonymous memory (heap, stacks, written data: what a leak
 *  grows; shared code a worker touches for the first time does not count) of a process, from
 *  /proc. */
struct processFigures
{
    size_t descriptors = 0;
    long anonKiB = 0;
};

processFigures figuresOf(pid_t pid);
/** The children of `pid` (a tunnel's workers), in the order /proc lists them. */
std::vector<pid_t> childrenOf(pid_t pid);
/** The figures of `pid` and its children added up: a tunnel and its workers. */
processFigures figuresOfTree(pid_t pid);
/** Whether `pid` exists and has not ended (a zombie has). */
bool running(pid_t pid);

/** The number in row `row` of a statistics table printed by `cat --stats`; -1 without one. */
int64_t statsValue(const std::string& table, const std::string& row);

/** The four traffic counters of a `cat --stats` table. */
struct trafficCounters
{
    int64_t sentMsgs = -1;
    int64_t sentBytes = -1;
    int64_t recvMsgs = -1;
    int64_t recvBytes = -1;
};

trafficCounters trafficOf(const std::string& table);

/** Where `cat --stats-start` puts the counters for the checks below: 16 below the point where
 *  the library restarts a counter. No message of the channel is smaller than 16 bytes, so each
 *  byte counter restarts at its first update and from then on holds the exact total; the
 *  message counters restart at their 16th message. */
constexpr uint32_t kCountersStart = 0xFFFFC000U - 16;

/** How many messages took a message counter from kCountersStart to `value` under the library's
 *  restart rule; -1 when no count does. */
int64_t messagesCounted(int64_t value);
/** What a message counter started at kCountersStart shows after `messages` messages. */
int64_t messageCounter(uint64_t messages);

/** Expects what one end's counters (started at kCountersStart) show for `packets` packets sent
 *  with bodies of `bodies` bytes in all, each behind a 48-byte header and counted as two
 *  messages, and the disconnect command (one message of 64 bytes) when it is the `initiator`. */
void expectSent(const trafficCounters& counted, int64_t packets, int64_t bodies, bool initiator);

/** Expects `packets` packets with `bodies` bytes of bodies to be a stream that carried `data`
 *  bytes and its end in cells of the stream protocol: each body is its cell (3 bytes and the
 *  data) rounded up to 16 bytes, no cell carries more than 16381 bytes, and the end cell has a
 *  body of its own. */
void expectStreamBodies(uint64_t data, int64_t packets, int64_t bodies);

} // namespace vxclitest
