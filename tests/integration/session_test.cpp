// The session layer over 127.0.0.1: echoes of every size, sessions that fail alone beside healthy
// ones (a wrong secret, a silent peer, a crashed process, payloads out of bounds, a throwing
// handler, a peer that does not read), the client's errors by cause, stop(), secret files, the
// plug-in directory and the names of the causes. It links the session library alone, without the
// test frame: the layer must work in a program that has none. Each case runs in its own process
// under ctest, so the process-wide plug-in registry starts empty in each.

#include "session.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

namespace vs = veltrix::session;
using vs::cause;

const std::string kSecret = "the secret every end of these tests shares";
/** The bound of every wait for the other end: far above what any step takes, far below the
 *  ctest time-out, so that a hang fails the case instead of stalling the run. */
constexpr vs::milliseconds kWait{20000};
/** Payload sizes just outside what a message may carry. */
const size_t kOutOfBounds[] = {0, vs::maxPayload + 1};

vs::secret sharedSecret(const std::string& text = kSecret)
{
    return vs::secret::fromBytes(text.data(), text.size());
}

vs::bytes asBytes(const std::string& text)
{
    return vs::bytes(text.begin(), text.end());
}

std::string asText(const vs::bytes& data)
{
    return std::string(data.begin(), data.end());
}

vs::bytes randomPayload(std::mt19937& generator, size_t size)
{
    std::uniform_int_distribution<unsigned> octet(0, 255);
    vs::bytes out(size);
    for (auto& byte : out) {
        byte = static_cast<unsigned char>(octet(generator));
    }
    return out;
}

/** What an action threw: the session error, or a description of anything else it did. */
struct outcome
{
    std::optional<vs::error> failure;
    std::string otherwise;
};

template <class Action> outcome outcomeOf(const Action& action)
{
    outcome result;
    try {
        action();
        result.otherwise = "it threw nothing";
    } catch (const vs::error& thrown) {
        result.failure = thrown;
    } catch (const std::exception& thrown) {
        result.otherwise = std::string("it threw another exception: ") + thrown.what();
    }
    return result;
}

std::string describe(const vs::error& failure)
{
    return std::string(vs::causeName(failure.why())) + " (" + failure.what() + ")";
}

/** Success when `action` throws error(expected) whose text contains `containing`. */
template <class Action>
::testing::AssertionResult failsWith(cause expected, const Action& action,
                                     const std::string& containing = std::string())
{
    const outcome result = outcomeOf(action);
    if (!result.failure) {
        return ::testing::AssertionFailure()
               << "expected error(" << vs::causeName(expected) << "), but " << result.otherwise;
    }
    if (result.failure->why() != expected) {
        return ::testing::AssertionFailure() << "expected error(" << vs::causeName(expected)
                                             << "), got " << describe(*result.failure);
    }
    if (std::string(result.failure->what()).find(containing) == std::string::npos) {
        return ::testing::AssertionFailure() << "the error's text does not contain \"" << containing
                                             << "\": " << result.failure->what();
    }
    return ::testing::AssertionSuccess();
}

/** Sends `message` and checks that the same bytes come back; empty when they do, else what went
 *  wrong. Usable on any thread. */
std::string echoProblem(vs::client& end, const vs::bytes& message)
{
    try {
        end.send(message, kWait);
        const vs::bytes back = end.receive(kWait);
        if (back == message) {
            return {};
        }
        const auto differ = std::mismatch(
            message.begin(), message.end(), back.begin(),
            back.begin() + static_cast<std::ptrdiff_t>(std::min(message.size(), back.size())));
        return "the echo of " + std::to_string(message.size()) + " bytes came back as " +
               std::to_string(back.size()) + " bytes, first difference at byte " +
               std::to_string(differ.first - message.begin());
    } catch (const vs::error& failed) {
        return "the echo of " + std::to_string(message.size()) +
               " bytes failed: " + describe(failed);
    }
}

// ---------------------------------------------------------------------------------------------
// Raw sockets: peers that are not session clients.

/** A descriptor closed when it goes. */
class descriptor
{
public:
    explicit descriptor(int opened = -1) : fd(opened) {}

    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;

    descriptor(descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}

    descriptor& operator=(descriptor&& other) noexcept
    {
        std::swap(fd, other.fd);
        return *this;
    }

    ~descriptor()
    {
        if (fd >= 0) {
            (void)::close(fd);
        }
    }

    [[nodiscard]] int get() const { return fd; }

    [[nodiscard]] bool valid() const { return fd >= 0; }

private:
    int fd;
};

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

uint16_t localPort(int fd)
{
    sockaddr_in local = {};
    socklen_t length = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
        return 0;
    }
    return ntohs(local.sin_port);
}

/** A plain TCP connection to 127.0.0.1:`port`. */
descriptor connectRaw(uint16_t port)
{
    descriptor made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    if (!made.valid() ||
        connect(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return descriptor();
    }
    return made;
}

/** A socket listening on 127.0.0.1 that nobody accepts from; its port into `port`. */
descriptor listenRaw(uint16_t& port)
{
    descriptor made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(0);
    if (!made.valid() ||
        bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(made.get(), 8) != 0) {
        return descriptor();
    }
    port = localPort(made.get());
    return made;
}

/** A port of 127.0.0.1 that nothing listens on: bound once by the system's choice, then let go. */
uint16_t unusedPort()
{
    uint16_t port = 0;
    descriptor probe = listenRaw(port);
    return probe.valid() ? port : 0;
}

/** Waits at most `bound` for bytes on `fd` and reads some; false when none came. */
bool receivedSomething(int fd, vs::milliseconds bound)
{
    pollfd watched = {fd, POLLIN, 0};
    if (poll(&watched, 1, static_cast<int>(bound.count())) != 1) {
        return false;
    }
    unsigned char some[64];
    return recv(fd, some, sizeof some, 0) > 0;
}

/** The base of the helpers below that hold a thread, a lock, a process or a file: none is copied
 *  or moved. */
class pinned
{
public:
    pinned(const pinned&) = delete;
    pinned& operator=(const pinned&) = delete;
    pinned(pinned&&) = delete;
    pinned& operator=(pinned&&) = delete;

protected:
    pinned() = default;
    ~pinned() = default;
};

// ---------------------------------------------------------------------------------------------
// A server on a thread of its own, with a record of how each of its sessions ended.

/** One session's end, as the server's onEnd saw it. */
struct ended
{
    uint64_t id = 0;
    std::string peer;
    bool opened = false;
    std::string label; ///< the session's first message, as text; empty when none came
    bool clean = false;
    cause why = cause::system;
    std::string text;
};

std::string describe(const ended& record)
{
    return "session " + std::to_string(record.id) + " with " + record.peer + " (\"" + record.label +
           "\"): " +
           (record.clean ? "clean" : std::string(vs::causeName(record.why)) + ": " + record.text);
}

class serverHarness : pinned
{
public:
    /** What the server does with one message. */
    using replyFunction = std::function<void(vs::connection&, const vs::bytes&)>;

    static void echo(vs::connection& session, const vs::bytes& message) { session.send(message); }

    /** A server on 127.0.0.1 at a port of the system's choice, listening but not yet run. */
    explicit serverHarness(vs::context& loaded, vs::serverOptions limits = vs::serverOptions(),
                           replyFunction answer = echo)
        : server(loaded, sharedSecret(), std::move(limits)), reply(std::move(answer))
    {
        server.onOpen = [this](vs::connection& session) {
            const std::lock_guard<std::mutex> hold(lock);
            opened.insert(session.id());
        };
        server.onMessage = [this](vs::connection& session, const vs::bytes& message) {
            {
                const std::lock_guard<std::mutex> hold(lock);
                labels.emplace(session.id(), asText(message).substr(0, 64)); // the first stays
            }
            reply(session, message);
        };
        server.onEnd = [this](vs::connection& session, const vs::error* why) {
            const std::lock_guard<std::mutex> hold(lock);
            ended record;
            record.id = session.id();
            record.peer = session.peer();
            record.opened = opened.count(session.id()) > 0;
            const auto label = labels.find(session.id());
            record.label = label == labels.end() ? std::string() : label->second;
            record.clean = why == nullptr;
            if (why != nullptr) {
                record.why = why->why();
                record.text = why->what();
            }
            records.push_back(record);
            changed.notify_all();
        };
        server.listen("127.0.0.1", "0");
    }

    ~serverHarness() { stop(); }

    void start()
    {
        runner = std::thread([this] {
            try {
                server.run();
            } catch (const std::exception& thrown) {
                const std::lock_guard<std::mutex> hold(lock);
                runFailure = thrown.what();
            }
        });
    }

    /** Stops the server and waits for run() to return; the sessions still open end first. */
    void stop()
    {
        if (runner.joinable()) {
            server.stop();
            runner.join();
        }
    }

    [[nodiscard]] uint16_t portNumber() const { return server.port(); }

    [[nodiscard]] std::string port() const { return std::to_string(server.port()); }

    /** Waits at most `bound` until `count` sessions have ended; false when fewer did. */
    bool waitForEnds(size_t count, vs::milliseconds bound)
    {
        std::unique_lock<std::mutex> hold(lock);
        return changed.wait_for(hold, bound, [&] { return records.size() >= count; });
    }

    /** The sessions' ends in the order they were reported. */
    std::vector<ended> ends()
    {
        const std::lock_guard<std::mutex> hold(lock);
        return records;
    }

    /** What run() threw; empty when it threw nothing. */
    std::string runProblem()
    {
        const std::lock_guard<std::mutex> hold(lock);
        return runFailure;
    }

private:
    vs::server server;
    replyFunction reply;
    std::thread runner;
    std::mutex lock;
    std::condition_variable changed;
    std::set<uint64_t> opened;
    std::map<uint64_t, std::string> labels;
    std::vector<ended> records;
    std::string runFailure;
};

std::unique_ptr<vs::client> connectedClient(vs::context& loaded, const std::string& port,
                                            vs::modes chosen = vs::modes())
{
    auto made = std::make_unique<vs::client>(loaded, sharedSecret(), std::move(chosen));
    made->connect("127.0.0.1", port, kWait);
    return made;
}

/** Threads joined when the case leaves, however it leaves. */
class threadGroup : pinned
{
public:
    ~threadGroup() { joinAll(); }

    template <class Body> void run(Body body) { all.emplace_back(std::move(body)); }

    void joinAll()
    {
        for (auto& thread : all) {
            if (thread.joinable()) {
                thread.join();
            }
        }
    }

private:
    std::vector<std::thread> all;
};

/** Holds threads until the case lets them go, or until a bound passes, so that no case hangs on
 *  it; the case can wait for a number of them to be held. */
class gate : pinned
{
public:
    ~gate() { release(); }

    /** Waits until release(), at most kWait. */
    void hold()
    {
        std::unique_lock<std::mutex> locked(lock);
        ++holding;
        changed.notify_all();
        (void)changed.wait_for(locked, kWait, [&] { return released; });
    }

    /** Whether `count` threads came to hold(), waiting at most `bound` for them. */
    bool arrived(int count, vs::milliseconds bound)
    {
        std::unique_lock<std::mutex> locked(lock);
        return changed.wait_for(locked, bound, [&] { return holding >= count; });
    }

    void release()
    {
        const std::lock_guard<std::mutex> locked(lock);
        released = true;
        changed.notify_all();
    }

private:
    std::mutex lock;
    std::condition_variable changed;
    int holding = 0;
    bool released = false;
};

/** Releases a gate when the case leaves, however it leaves. */
class releaseOnExit : pinned
{
public:
    explicit releaseOnExit(gate& held) : guarded(held) {}

    ~releaseOnExit() { guarded.release(); }

private:
    gate& guarded;
};

/** Every case but those of secrets, causes and the context itself has the plug-in loaded. */
class sessionTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_NO_THROW(loaded = std::make_unique<vs::context>(VX_PLUGIN_DIR));
    }

    std::unique_ptr<vs::context> loaded;
};

// ---------------------------------------------------------------------------------------------
// Echoes.

using sessionEchoTest = sessionTest;

TEST_F(sessionEchoTest, AThousandMessagesOfRandomSizesComeBackWholeAndTheCloseIsClean)
{
    serverHarness server(*loaded);
    server.start();
    {
        std::unique_ptr<vs::client> end;
        ASSERT_NO_THROW(end = connectedClient(*loaded, server.port()));
        EXPECT_TRUE(end->connected());
        std::mt19937 generator(20240611);
        std::uniform_int_distribution<size_t> sizes(1, vs::maxPayload);
        // Both bounds first, then sizes the generator picks.
        std::vector<size_t> chosen = {1, vs::maxPayload};
        for (int i = 0; i < 1000; ++i) {
            chosen.push_back(sizes(generator));
        }
        for (size_t i = 0; i < chosen.size(); ++i) {
            const std::string problem = echoProblem(*end, randomPayload(generator, chosen[i]));
            ASSERT_EQ(problem, "") << "message " << i << " of " << chosen[i] << " bytes";
        }
    } // the client's destructor sends the disconnect command
    ASSERT_TRUE(server.waitForEnds(1, kWait)) << "the server never saw the session end";
    server.stop();
    const std::vector<ended> ends = server.ends();
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_TRUE(ends[0].opened);
    EXPECT_TRUE(ends[0].clean) << describe(ends[0]);
    EXPECT_EQ(server.runProblem(), "");
    EXPECT_FALSE(vs::errorLatched());
}

// ---------------------------------------------------------------------------------------------
// Bad clients fail alone.

/** A client in a process of its own that echoes one message, then ends the process without
 *  closing its session, as a crash would. The exit status tells the parent how far it got. */
[[noreturn]] void crashAfterOneEcho(const std::string& port)
{
    int status = 2;
    try {
        vs::context own(VX_PLUGIN_DIR);
        vs::client end(own, sharedSecret());
        end.connect("127.0.0.1", port, kWait);
        const vs::bytes hello = asBytes("id:crash");
        end.send(hello, kWait);
        status = end.receive(kWait) == hello ? 0 : 3;
        _exit(status); // the session is still open: no close, no destructor
    } catch (...) {
        status = 2;
    }
    _exit(status);
}

/** A child process, killed and reaped if the case leaves before it ended. */
class childProcess : pinned
{
public:
    explicit childProcess(pid_t started) : pid(started) {}

    ~childProcess()
    {
        if (pid > 0) {
            (void)kill(pid, SIGKILL);
            (void)waitpid(pid, nullptr, 0);
        }
    }

    /** Its exit status, waiting at most `bound`; -1 when it did not exit normally in time. */
    int exitStatus(vs::milliseconds bound)
    {
        const auto until = std::chrono::steady_clock::now() + bound;
        while (pid > 0 && std::chrono::steady_clock::now() < until) {
            int status = 0;
            const pid_t done = waitpid(pid, &status, WNOHANG);
            if (done == pid) {
                pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            if (done < 0) {
                return -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }

private:
    pid_t pid;
};

/** A client that echoes `kHealthyEchoes` messages, the first naming it, then closes. Between the
 *  first and the others it waits at `start`. */
struct healthyRun
{
    size_t echoed = 0;
    std::string problem;
};

constexpr size_t kHealthyEchoes = 50;

healthyRun runHealthyClient(vs::context& loaded, const std::string& port, unsigned number,
                            gate& start)
{
    healthyRun run;
    std::unique_ptr<vs::client> end;
    try {
        end = connectedClient(loaded, port);
    } catch (const vs::error& failed) {
        run.problem = "connect: " + describe(failed);
        return run;
    }
    // Small messages: the sizes are the echo case's concern; here all of them must be over within
    // the silent peer's 2 s handshake time-out even under valgrind, which takes some 1.3 s.
    std::mt19937 generator(7000 + number);
    std::uniform_int_distribution<size_t> sizes(1, 64);
    for (size_t i = 0; i < kHealthyEchoes; ++i) {
        const vs::bytes message = i == 0 ? asBytes("id:healthy-" + std::to_string(number))
                                         : randomPayload(generator, sizes(generator));
        run.problem = echoProblem(*end, message);
        if (!run.problem.empty()) {
            return run;
        }
        ++run.echoed;
        if (i == 0) {
            start.hold();
        }
    }
    return run; // the client's destructor sends the disconnect command
}

using sessionIsolationTest = sessionTest;

TEST_F(sessionIsolationTest, BadClientsFailAloneWhileHealthyOnesKeepEchoing)
{
    vs::serverOptions limits;
    limits.handshakeTimeout = std::chrono::seconds(6); // room for the healthy work under valgrind
    serverHarness server(*loaded, limits);
    const std::string port = server.port();

    // The crashing client's process is forked while this process has a single thread, so that it
    // cannot inherit a lock that another thread held at the fork. Its connection waits in the
    // listening socket's backlog until the server runs.
    const pid_t forked = fork();
    if (forked == 0) {
        crashAfterOneEcho(port);
    }
    ASSERT_GT(forked, 0) << "fork: " << std::strerror(errno);
    childProcess crasher(forked);
    server.start();

    // The healthy clients connect and echo their first message, then wait; the silent peer
    // connects and is greeted; then everything else runs while its handshake is pending. Its
    // time-out starts at its accept, so the healthy sessions' ends must all come before it.
    std::vector<healthyRun> healthy(3);
    std::optional<vs::error> wrongSecret;
    std::string wrongSecretOtherwise;
    gate started;
    threadGroup clients;
    const releaseOnExit letGo(started); // before the threads are joined
    for (unsigned n = 0; n < healthy.size(); ++n) {
        clients.run([&, n] { healthy[n] = runHealthyClient(*loaded, port, n, started); });
    }
    std::unique_ptr<vs::client> sizes;
    ASSERT_NO_THROW(sizes = connectedClient(*loaded, port));
    EXPECT_EQ(echoProblem(*sizes, asBytes("id:sizes")), "");
    EXPECT_TRUE(started.arrived(static_cast<int>(healthy.size()), kWait));

    const descriptor silent = connectRaw(server.portNumber());
    ASSERT_TRUE(silent.valid()) << std::strerror(errno);
    const std::string silentPeer = "127.0.0.1:" + std::to_string(localPort(silent.get()));
    ASSERT_TRUE(receivedSomething(silent.get(), kWait)) << "the server never greeted it";
    started.release();
    clients.run([&] {
        const outcome result = outcomeOf([&] {
            vs::client end(*loaded, sharedSecret("not the secret the server holds"));
            end.connect("127.0.0.1", port, kWait);
        });
        wrongSecret = result.failure;
        wrongSecretOtherwise = result.otherwise;
    });

    // Meanwhile, payloads out of bounds on one more client, which goes on echoing after them.
    EXPECT_TRUE(failsWith(cause::payloadSize, [&] { sizes->send(""); }));
    for (const size_t size : kOutOfBounds) {
        const vs::bytes payload(size, 'x');
        EXPECT_TRUE(failsWith(cause::payloadSize, [&] { sizes->send(payload); }))
            << size << " bytes";
    }
    EXPECT_TRUE(sizes->connected());
    EXPECT_EQ(echoProblem(*sizes, asBytes("after the refused sizes")), "");
    EXPECT_EQ(echoProblem(*sizes, vs::bytes(vs::maxPayload, 'y')), "");
    sizes.reset(); // the disconnect command
    clients.joinAll();

    // 3 healthy, the sizes client, the wrong secret, the silent peer and the crashed process.
    const size_t kSessions = 7;
    EXPECT_TRUE(server.waitForEnds(kSessions, kWait)) << server.ends().size() << " ended";
    EXPECT_EQ(crasher.exitStatus(kWait), 0) << "the crashing client did not echo its message";
    server.stop();
    EXPECT_EQ(server.runProblem(), "");

    for (unsigned n = 0; n < healthy.size(); ++n) {
        EXPECT_EQ(healthy[n].echoed, kHealthyEchoes)
            << "healthy client " << n << ": " << healthy[n].problem;
    }
    ASSERT_TRUE(wrongSecret.has_value()) << wrongSecretOtherwise;
    EXPECT_EQ(wrongSecret->why(), cause::wrongSecretOrModes) << describe(*wrongSecret);

    // Each session by its first message, the silent one by its port; the one left is the wrong
    // secret's, which never opened.
    const std::vector<ended> ends = server.ends();
    std::map<std::string, std::vector<size_t>> byWho;
    for (size_t i = 0; i < ends.size(); ++i) {
        const std::string who = ends[i].peer == silentPeer ? "silent"
                                : ends[i].label.empty()    ? "unlabelled"
                                                           : ends[i].label;
        byWho[who].push_back(i);
    }

    struct expectedEnd
    {
        const char* who;
        bool opened;
        std::optional<cause> why; ///< none: a clean end, the disconnect command
    };

    const expectedEnd expected[] = {
        {"id:healthy-0", true, std::nullopt},
        {"id:healthy-1", true, std::nullopt},
        {"id:healthy-2", true, std::nullopt},
        {"id:sizes", true, std::nullopt},
        {"id:crash", true, cause::peerClosed},
        {"silent", false, cause::timedOut},
        {"unlabelled", false, cause::wrongSecretOrModes},
    };
    std::string all;
    for (const ended& record : ends) {
        all += "\n  " + describe(record);
    }
    EXPECT_EQ(ends.size(), kSessions) << all;
    for (const expectedEnd& want : expected) {
        SCOPED_TRACE(want.who);
        const auto found = byWho.find(want.who);
        ASSERT_NE(found, byWho.end()) << "no such session among:" << all;
        ASSERT_EQ(found->second.size(), 1U) << all;
        const ended& record = ends[found->second.front()];
        EXPECT_EQ(record.opened, want.opened) << describe(record);
        EXPECT_EQ(record.clean, !want.why.has_value()) << describe(record);
        if (want.why) {
            EXPECT_EQ(record.why, *want.why) << describe(record);
        }
    }
    // Nothing waited for the silent peer: every healthy session was over before its time-out.
    const size_t silentAt = byWho["silent"].front();
    for (const char* healthyOne : {"id:healthy-0", "id:healthy-1", "id:healthy-2", "id:sizes"}) {
        EXPECT_LT(byWho[healthyOne].front(), silentAt) << healthyOne << all;
    }
    EXPECT_FALSE(vs::errorLatched());
}

// ---------------------------------------------------------------------------------------------
// The client's errors, each named by its cause.

/** What one row of the table below sets up and keeps until the case ends. */
struct clientStage
{
    descriptor rawListener;
    std::unique_ptr<serverHarness> server;
    std::unique_ptr<vs::client> end; ///< destroyed before the server
};

struct clientErrorRow
{
    const char* name;
    cause expected;
    /** Makes the error happen; it must throw. */
    void (*provoke)(vs::context& loaded, clientStage& stage);
    /** What must hold after it, or null. */
    void (*afterwards)(clientStage& stage);
};

void PrintTo(const clientErrorRow& row, std::ostream* out)
{
    *out << row.name;
}

/** Answers "ping" with "pong", and nothing else. */
void pingOnly(vs::connection& session, const vs::bytes& message)
{
    if (asText(message) == "ping") {
        session.send(std::string_view("pong"));
    }
}

const clientErrorRow kClientErrors[] = {
    {"ClosedPortIsRefused", cause::refused,
     [](vs::context& loaded, clientStage& stage) {
         stage.end = std::make_unique<vs::client>(loaded, sharedSecret());
         stage.end->connect("127.0.0.1", std::to_string(unusedPort()), kWait);
     },
     nullptr},
    {"ListenerThatNeverAnswersTimesOut", cause::timedOut,
     [](vs::context& loaded, clientStage& stage) {
         uint16_t port = 0;
         stage.rawListener = listenRaw(port);
         ASSERT_TRUE(stage.rawListener.valid()) << std::strerror(errno);
         stage.end = std::make_unique<vs::client>(loaded, sharedSecret());
         stage.end->connect("127.0.0.1", std::to_string(port), vs::milliseconds(300));
     },
     nullptr},
    {"OtherHashIsWrongSecretOrModes", cause::wrongSecretOrModes,
     [](vs::context& loaded, clientStage& stage) {
         stage.server = std::make_unique<serverHarness>(loaded); // md5, the default
         stage.server->start();
         stage.end = std::make_unique<vs::client>(loaded, sharedSecret(),
                                                  vs::modes{"aes256", "sha256-128"});
         stage.end->connect("127.0.0.1", stage.server->port(), kWait);
     },
     [](clientStage& stage) {
         EXPECT_FALSE(stage.end->connected());
         ASSERT_TRUE(stage.server->waitForEnds(1, kWait));
         const ended record = stage.server->ends().front();
         EXPECT_FALSE(record.opened);
         EXPECT_FALSE(record.clean);
         EXPECT_EQ(record.why, cause::wrongSecretOrModes) << describe(record);
     }},
    {"UnknownCipherIsSetup", cause::setup,
     [](vs::context& loaded, clientStage& stage) {
         stage.end =
             std::make_unique<vs::client>(loaded, sharedSecret(), vs::modes{"aes512", "md5"});
     },
     nullptr},
    {"ReceiveWithNothingSentTimesOutAndTheSessionGoesOn", cause::timedOut,
     [](vs::context& loaded, clientStage& stage) {
         stage.server = std::make_unique<serverHarness>(loaded, vs::serverOptions(), pingOnly);
         stage.server->start();
         stage.end = connectedClient(loaded, stage.server->port());
         (void)stage.end->receive(vs::milliseconds(200));
     },
     [](clientStage& stage) {
         EXPECT_TRUE(stage.end->connected());
         ASSERT_NO_THROW(stage.end->send(std::string_view("ping"), kWait));
         vs::bytes reply;
         ASSERT_NO_THROW(reply = stage.end->receive(kWait));
         EXPECT_EQ(asText(reply), "pong");
         // A message the server does not answer: the wait ends the same way, again.
         ASSERT_NO_THROW(stage.end->send(std::string_view("not a ping"), kWait));
         EXPECT_TRUE(
             failsWith(cause::timedOut, [&] { (void)stage.end->receive(vs::milliseconds(200)); }));
         ASSERT_NO_THROW(stage.end->send(std::string_view("ping"), kWait));
         ASSERT_NO_THROW(reply = stage.end->receive(kWait));
         EXPECT_EQ(asText(reply), "pong");
     }},
};

class sessionClientErrorTest : public sessionTest,
                               public ::testing::WithParamInterface<clientErrorRow>
{
};

TEST_P(sessionClientErrorTest, NamesItsCause)
{
    const clientErrorRow& row = GetParam();
    clientStage stage;
    EXPECT_TRUE(failsWith(row.expected, [&] { row.provoke(*loaded, stage); }));
    if (row.afterwards != nullptr && !HasFatalFailure()) {
        row.afterwards(stage);
    }
    stage.end.reset();
    if (stage.server) {
        stage.server->stop();
        EXPECT_EQ(stage.server->runProblem(), "");
    }
    EXPECT_FALSE(vs::errorLatched());
}

INSTANTIATE_TEST_SUITE_P(Rows, sessionClientErrorTest, ::testing::ValuesIn(kClientErrors),
                         [](const ::testing::TestParamInfo<clientErrorRow>& named) {
                             return std::string(named.param.name);
                         });

// ---------------------------------------------------------------------------------------------
// The server's side of a session.

using sessionServerSendTest = sessionTest;

TEST_F(sessionServerSendTest, SizesOutOfBoundsThrowInTheHandlerAndTheSessionGoesOn)
{
    std::mutex seenLock;
    std::vector<std::string> seen; // what each out-of-bounds send did, in order
    serverHarness server(
        *loaded, vs::serverOptions(), [&](vs::connection& session, const vs::bytes& message) {
            for (const size_t size : kOutOfBounds) {
                const vs::bytes payload(size, 'z');
                const outcome result = outcomeOf([&] { session.send(payload); });
                const std::lock_guard<std::mutex> hold(seenLock);
                seen.push_back(std::to_string(size) + ": " +
                               (result.failure ? std::string(vs::causeName(result.failure->why()))
                                               : result.otherwise));
            }
            session.send(message);
        });
    server.start();
    {
        std::unique_ptr<vs::client> end;
        ASSERT_NO_THROW(end = connectedClient(*loaded, server.port()));
        // Each reply is the echo alone: nothing of the refused sends was queued before it.
        EXPECT_EQ(echoProblem(*end, asBytes("first")), "");
        EXPECT_EQ(echoProblem(*end, asBytes("second")), "");
    }
    ASSERT_TRUE(server.waitForEnds(1, kWait));
    server.stop();
    const std::string zero = "0: payload size";
    const std::string over = std::to_string(vs::maxPayload + 1) + ": payload size";
    const std::lock_guard<std::mutex> hold(seenLock);
    EXPECT_EQ(seen, (std::vector<std::string>{zero, over, zero, over}));
    const ended record = server.ends().front();
    EXPECT_TRUE(record.clean) << describe(record);
    EXPECT_FALSE(vs::errorLatched());
}

using sessionHandlerTest = sessionTest;

TEST_F(sessionHandlerTest, AThrowingHandlerEndsItsOwnSessionWithSetupAndTheOtherGoesOn)
{
    const std::string refusal = "the handler refuses boom";
    serverHarness server(*loaded, vs::serverOptions(),
                         [&](vs::connection& session, const vs::bytes& message) {
                             if (asText(message) == "boom") {
                                 throw std::runtime_error(refusal);
                             }
                             session.send(message);
                         });
    server.start();
    std::unique_ptr<vs::client> other;
    std::unique_ptr<vs::client> thrower;
    ASSERT_NO_THROW(other = connectedClient(*loaded, server.port()));
    ASSERT_NO_THROW(thrower = connectedClient(*loaded, server.port()));
    EXPECT_EQ(echoProblem(*other, asBytes("other")), "");
    EXPECT_EQ(echoProblem(*thrower, asBytes("thrower")), "");

    ASSERT_NO_THROW(thrower->send(std::string_view("boom"), kWait));
    ASSERT_TRUE(server.waitForEnds(1, kWait)) << "the throwing session did not end";
    const ended first = server.ends().front();
    EXPECT_EQ(first.label, "thrower");
    EXPECT_FALSE(first.clean);
    EXPECT_EQ(first.why, cause::setup) << describe(first);
    EXPECT_NE(first.text.find(refusal), std::string::npos) << first.text;
    EXPECT_TRUE(failsWith(cause::peerClosed, [&] { (void)thrower->receive(kWait); }));
    EXPECT_FALSE(thrower->connected());

    // The other session was open all along and still echoes.
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(echoProblem(*other, asBytes("other again " + std::to_string(i))), "");
    }
    other.reset();
    ASSERT_TRUE(server.waitForEnds(2, kWait));
    server.stop();
    const ended second = server.ends().back();
    EXPECT_EQ(second.label, "other");
    EXPECT_TRUE(second.clean) << describe(second);
    EXPECT_FALSE(vs::errorLatched());
}

using sessionSlowPeerTest = sessionTest;

TEST_F(sessionSlowPeerTest, APeerThatDoesNotReadEndsWithSlowPeer)
{
    // Over loopback the kernel's socket buffers take some 4 MiB for a peer that reads nothing
    // (the default largest send buffer) before the server's own queue grows at all, so one
    // request's 1 MiB of answers would fit there whole. The requests are therefore taken in one
    // go: the server is held in the handler of a first message while the client sends them all,
    // and answers them together once let go.
    const int kRequests = 6; // 6 MiB of answers: half as much again as the kernel holds
    gate handler;
    vs::serverOptions limits;
    limits.maxQueued = size_t{256} * 1024;
    serverHarness server(*loaded, limits, [&](vs::connection& session, const vs::bytes& message) {
        if (asText(message) == "hold") {
            handler.hold();
            return;
        }
        const vs::bytes block(vs::maxPayload, 'f');
        for (int i = 0; i < 64; ++i) {
            session.send(block);
        }
    });
    server.start();

    const releaseOnExit letGo(handler); // before the server stops
    std::unique_ptr<vs::client> end;
    ASSERT_NO_THROW(end = connectedClient(*loaded, server.port()));
    ASSERT_NO_THROW(end->send(std::string_view("hold"), kWait));
    ASSERT_TRUE(handler.arrived(1, kWait)) << "the server never ran the handler";
    for (int i = 0; i < kRequests; ++i) {
        ASSERT_NO_THROW(end->send(std::string_view("flood me"), kWait)) << "request " << i;
    }
    handler.release();
    // The client reads nothing while the server's onEnd is awaited.
    // Sealing 6 MiB takes some 40 s under valgrind, hence a longer bound.
    ASSERT_TRUE(server.waitForEnds(1, 3 * kWait)) << "the server kept a session that reads nothing";
    server.stop();
    const ended record = server.ends().front();
    EXPECT_FALSE(record.clean);
    EXPECT_EQ(record.why, cause::slowPeer) << describe(record);
    EXPECT_FALSE(vs::errorLatched());
}

TEST_F(sessionSlowPeerTest, APeerThatTakesNothingWithinTheReceiveLimitEndsWithSlowPeer)
{
    // Below the queue bound, but the peer takes none of it: the receive limit ends the wait.
    vs::serverOptions limits;
    limits.maxQueued = size_t{64} * 1024 * 1024;
    limits.receiveTimeout = std::chrono::milliseconds(500);
    serverHarness server(*loaded, limits, [](vs::connection& session, const vs::bytes&) {
        const vs::bytes block(vs::maxPayload, 's');
        for (int i = 0; i < 384; ++i) { // 6 MiB: more than the kernel's buffers take
            session.send(block);
        }
    });
    server.start();
    std::unique_ptr<vs::client> end;
    ASSERT_NO_THROW(end = connectedClient(*loaded, server.port()));
    ASSERT_NO_THROW(end->send(std::string_view("flood me"), kWait));
    ASSERT_TRUE(server.waitForEnds(1, 3 * kWait)) << "the server kept a session that reads nothing";
    server.stop();
    const ended record = server.ends().front();
    EXPECT_EQ(record.why, cause::slowPeer) << describe(record);
    EXPECT_NE(record.text.find("took nothing"), std::string::npos) << record.text;
}

using sessionStopTest = sessionTest;

TEST_F(sessionStopTest, SessionsStillOpenAtStopEndWithStopped)
{
    serverHarness server(*loaded);
    server.start();
    std::unique_ptr<vs::client> first;
    std::unique_ptr<vs::client> second;
    ASSERT_NO_THROW(first = connectedClient(*loaded, server.port()));
    ASSERT_NO_THROW(second = connectedClient(*loaded, server.port()));
    EXPECT_EQ(echoProblem(*first, asBytes("first")), "");
    EXPECT_EQ(echoProblem(*second, asBytes("second")), "");
    // One more still in its handshake: greeted, so accepted, but silent.
    const descriptor silent = connectRaw(server.portNumber());
    ASSERT_TRUE(silent.valid());
    ASSERT_TRUE(receivedSomething(silent.get(), kWait));

    server.stop();
    EXPECT_EQ(server.runProblem(), "");
    const std::vector<ended> ends = server.ends();
    ASSERT_EQ(ends.size(), 3U);
    for (const ended& record : ends) {
        EXPECT_FALSE(record.clean) << describe(record);
        EXPECT_EQ(record.why, cause::stopped) << describe(record);
    }
    // The clients learn of it on their next receive.
    for (vs::client* end : {first.get(), second.get()}) {
        EXPECT_TRUE(failsWith(cause::peerClosed, [&] { (void)end->receive(kWait); }));
        EXPECT_FALSE(end->connected());
    }
    EXPECT_FALSE(vs::errorLatched());
}

// ---------------------------------------------------------------------------------------------
// Secret files: no plug-in needed.

/** A directory of its own under /tmp, removed with what the case wrote in it. */
class scratchDirectory : pinned
{
public:
    scratchDirectory()
    {
        char name[] = "/tmp/vx-session-test-XXXXXX";
        if (mkdtemp(name) != nullptr) {
            path = name;
        }
    }

    ~scratchDirectory()
    {
        for (const std::string& file : files) {
            (void)unlink(file.c_str());
        }
        if (!path.empty()) {
            (void)rmdir(path.c_str());
        }
    }

    /** Writes `content` to a new file `name` with exactly `mode`; its path, empty on failure. */
    std::string write(const std::string& name, const std::string& content, mode_t mode)
    {
        const std::string file = path + "/" + name;
        const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) {
            return {};
        }
        files.push_back(file);
        const bool whole =
            ::write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
        const bool moded = fchmod(fd, mode) == 0; // exactly `mode`, whatever the umask
        (void)::close(fd);
        return whole && moded ? file : std::string();
    }

    std::string path;

private:
    std::vector<std::string> files;
};

struct secretFileRow
{
    const char* name;
    const char* content;
    mode_t mode;
    const char* value;   ///< the secret read, or null when the file is refused
    const char* problem; ///< part of the refusal's text
};

const secretFileRow kSecretFiles[] = {
    {"open-to-others", "abc\n", 0644, nullptr, "open to group or others"},
    {"open-to-group", "abc\n", 0640, nullptr, "open to group or others"},
    {"empty", "", 0600, nullptr, ""},
    {"only-a-line-end", "\n", 0600, nullptr, ""},
    {"owner-only", "abc\n", 0600, "abc", nullptr},
    {"without-a-line-end", "abc", 0600, "abc", nullptr},
    {"crlf", "abc\r\n", 0600, "abc", nullptr},
    {"two-line-ends", "abc\n\n", 0600, "abc\n", nullptr},
};

TEST(sessionSecretTest, FilesAreReadOrRefusedAsTheirModeAndContentSay)
{
    scratchDirectory scratch;
    ASSERT_FALSE(scratch.path.empty()) << std::strerror(errno);
    for (const secretFileRow& row : kSecretFiles) {
        SCOPED_TRACE(row.name);
        const std::string file = scratch.write(row.name, row.content, row.mode);
        ASSERT_FALSE(file.empty()) << std::strerror(errno);
        if (row.value == nullptr) {
            EXPECT_TRUE(failsWith(
                cause::setup, [&] { (void)vs::secret::fromFile(file); }, row.problem));
            continue;
        }
        try {
            const vs::secret read = vs::secret::fromFile(file);
            EXPECT_EQ(asText(read.value()), row.value);
        } catch (const vs::error& refused) {
            ADD_FAILURE() << describe(refused);
        }
    }
}

TEST(sessionSecretTest, AMissingFileAndNoBytesAreRefused)
{
    scratchDirectory scratch;
    EXPECT_TRUE(
        failsWith(cause::setup, [&] { (void)vs::secret::fromFile(scratch.path + "/missing"); }));
    EXPECT_TRUE(failsWith(cause::setup, [] { (void)vs::secret::fromBytes(nullptr, 0); }));
    const vs::secret some = vs::secret::fromBytes("xyz", 3);
    EXPECT_EQ(asText(some.value()), "xyz");
}

// ---------------------------------------------------------------------------------------------
// The context: these cases load no plug-in before their own attempt.

TEST(sessionContextTest, ADirectoryWithoutThePlugInIsASetupErrorNamingIt)
{
    scratchDirectory empty;
    ASSERT_FALSE(empty.path.empty()) << std::strerror(errno);
    EXPECT_TRUE(failsWith(
        cause::setup, [&] { vs::context attempt(empty.path); }, empty.path));
    EXPECT_FALSE(vs::errorLatched());
}

/** Sets or unsets an environment variable for the case, and puts it back afterwards. */
class environmentVariable : pinned
{
public:
    explicit environmentVariable(const char* variable) : name(variable)
    {
        const char* was = std::getenv(variable);
        if (was != nullptr) {
            saved = was;
        }
    }

    ~environmentVariable() { set(saved ? saved->c_str() : nullptr); }

    /** Sets the variable to `value`, or unsets it for null. */
    void set(const char* value)
    {
        if (value == nullptr) {
            (void)unsetenv(name);
        } else {
            (void)setenv(name, value, 1);
        }
    }

private:
    const char* name;
    std::optional<std::string> saved;
};

struct pluginDirRow
{
    const char* name;
    const char* variable; ///< VELTRIX_PLUGIN_DIR, or null for unset
    const char* exact;    ///< the directory expected, or null for one ending in "/secure"
};

const pluginDirRow kPluginDirs[] = {
    {"set", "/opt/elsewhere/plug-ins", "/opt/elsewhere/plug-ins"},
    {"empty", "", nullptr},
    {"unset", nullptr, nullptr},
};

TEST(sessionContextTest, TheDefaultPlugInDirectoryIsTheVariableElseBesideTheLibrary)
{
    environmentVariable variable("VELTRIX_PLUGIN_DIR");
    for (const pluginDirRow& row : kPluginDirs) {
        SCOPED_TRACE(row.name);
        variable.set(row.variable);
        const std::string found = vs::context::defaultPluginDir();
        if (row.exact != nullptr) {
            EXPECT_EQ(found, row.exact);
            continue;
        }
        const std::string ending = "/secure";
        EXPECT_TRUE(found.size() > ending.size() &&
                    found.compare(found.size() - ending.size(), ending.size(), ending) == 0)
            << found;
    }
}

// ---------------------------------------------------------------------------------------------
// The causes' names.

struct causeRow
{
    cause why;
    const char* name;
};

const causeRow kCauses[] = {
    {cause::refused, "refused"},
    {cause::timedOut, "timed out"},
    {cause::wrongSecretOrModes, "wrong secret or modes"},
    {cause::peerClosed, "peer closed"},
    {cause::payloadSize, "payload size"},
    {cause::protocol, "protocol"},
    {cause::slowPeer, "slow peer"},
    {cause::system, "system"},
    {cause::setup, "setup"},
    {cause::stopped, "stopped"},
};

TEST(sessionCauseTest, EveryCauseHasItsName)
{
    for (const causeRow& row : kCauses) {
        EXPECT_STREQ(vs::causeName(row.why), row.name);
        const vs::error made(row.why, "text");
        EXPECT_EQ(made.why(), row.why) << row.name;
        EXPECT_STREQ(made.what(), "text");
    }
}

} // namespace
