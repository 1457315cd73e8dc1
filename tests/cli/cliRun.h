// Runs the veltrix program as a user would: arguments, standard input, captured output, exit
// status, and a time limit on every wait so that a hung program fails its test instead of the run.
#pragma once

#include "vxTest.h"

#include <gtest/gtest.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
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
/** Whether `text` holds `part`; a failed expectation shows both. */
testing::AssertionResult contains(const std::string& text, const std::string& part);
/** How many times `part` stands in `text`, none overlapping. */
size_t occurrences(const std::string& text, const std::string& part);
/** Checks `holds` every 10 ms for at most `seconds`; true as soon as it holds. */
bool within(int seconds, const std::function<bool()>& holds);

/** The bytes of pattern(size, seed) piece by piece, for streams too large to hold. */
class patternStream
{
public:
    explicit patternStream(unsigned seed);
    void fill(char* out, size_t count);

private:
    uint32_t state;
};

/** Names each case of a parameterized suite by its `name`: the name generator of
 *  INSTANTIATE_TEST_SUITE_P, so that the test's own name says which case failed. */
struct caseName
{
    template <class Info> std::string operator()(const Info& info) const { return info.param.name; }
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
/** Connects to 127.0.0.1:port, sends `request` while the answer comes back, half-closes after
 *  it, and returns the whole answer; expects that all of it went out and the answer ended
 *  normally. */
std::string exchange(const std::string& request, int port);
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

/** Bytes that crossed a proxyConnection in one read, and their direction. */
struct recordedChunk
{
    bool toServer;
    std::string bytes;
};

/** One connection from a client, relayed on a thread of its own from a port of its own to
 *  127.0.0.1:`upstream`, with what crosses it recorded in the order it crossed. Each direction
 *  ends when its sender ends it, except that of the client's, only the first `clientBudget` bytes
 *  pass: once they are spent, the rest and the client's end are dropped and the server's side of
 *  the connection is held open. The relay gives up after 60 s of silence. */
class proxyConnection
{
public:
    explicit proxyConnection(int upstream, size_t clientBudget = SIZE_MAX);
    proxyConnection(const proxyConnection&) = delete;
    proxyConnection& operator=(const proxyConnection&) = delete;
    ~proxyConnection();

    /** Waits until both directions ended; the chunks that passed, in the order they crossed. */
    const std::vector<recordedChunk>& finished();
    /** Waits as finished() does; whether the server ended its direction (not the time limit). */
    bool serverEnded();

    const int port;

private:
    void relayOne(int upstream, size_t clientBudget);

    int listener;
    std::vector<recordedChunk> chunks;
    bool serverDone = false;
    std::thread worker;
};

/** Sends every byte of the connection back, then the end of the stream (a half-close answered
 *  the way a request/response service answers it), and closes. */
void echoBytes(int fd);

/** How both ends of one `cat --listen` session ended. */
struct catPair
{
    runResult client;
    int listenerStatus = -1;
    std::string listenerErr;
    std::string heard; ///< the listener's standard output
};

/** `cat --listen 127.0.0.1:port` with `listenerOptions` and `spoken` on its standard input, and
 *  once it listens, a `cat` client to it with `clientOptions` and `said`; both run to their ends. */
catPair runCatPair(int port, const std::vector<std::string>& listenerOptions,
                   const std::string& spoken, const std::vector<std::string>& clientOptions,
                   const std::string& said);

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

} // namespace vxclitest
