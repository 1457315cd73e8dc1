// Runs programs for the command-line tests.
#include "cliRun.h"

#include "vxTest.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace vxclitest {

namespace {

sockaddr_in loopbackAddress(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

using clock = std::chrono::steady_clock;

std::vector<char*> argvOf(const std::vector<std::string>& args)
{
    std::vector<char*> pointers;
    for (const std::string& arg : args) {
        pointers.push_back(const_cast<char*>(arg.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

/** In the child: `fd` becomes `target`, or /dev/null when `fd` is -1. */
void redirect(int fd, int target, int flags)
{
    const int source = fd >= 0 ? fd : open("/dev/null", flags);
    (void)dup2(source, target);
    if (source != target) {
        (void)close(source);
    }
}

/** The program run under VX_TEST_WRAPPER when that is set (words separated by blanks, such as
 *  "valgrind --leak-check=full --error-exitcode=99 -q"): the leak check of the valgrind job. */
std::vector<std::string> wrapped(const std::vector<std::string>& argv)
{
    const char* wrapper = std::getenv("VX_TEST_WRAPPER");
    if (wrapper == nullptr || argv.empty() || argv[0] != veltrixPath()) {
        return argv;
    }
    std::vector<std::string> words;
    std::istringstream split(wrapper);
    for (std::string word; split >> word;) {
        words.push_back(word);
    }
    words.insert(words.end(), argv.begin(), argv.end());
    return words;
}

[[noreturn]] void execOrDie(const std::vector<std::string>& command)
{
    const std::vector<std::string> argv = wrapped(command);
    std::vector<char*> pointers = argvOf(argv);
    (void)execvp(pointers[0], pointers.data());
    std::perror(pointers[0]);
    _exit(127);
}

int decodeStatus(int raw)
{
    if (WIFEXITED(raw)) {
        return WEXITSTATUS(raw);
    }
    return WIFSIGNALED(raw) ? 128 + WTERMSIG(raw) : -1;
}

/** Waits for `pid` until `deadline`; kills it past the deadline. */
int waitUntil(pid_t pid, clock::time_point deadline)
{
    int raw = 0;
    for (;;) {
        const pid_t done = waitpid(pid, &raw, WNOHANG);
        if (done == pid) {
            return decodeStatus(raw);
        }
        if (done < 0 || clock::now() >= deadline) {
            (void)kill(pid, SIGKILL);
            (void)waitpid(pid, &raw, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

std::string tempPath(const char* stem)
{
    const char* base = std::getenv("TMPDIR");
    return std::string(base != nullptr ? base : "/tmp") + "/" + stem + "." +
           std::to_string(getpid()) + "." + std::to_string(std::rand());
}

} // namespace

std::string veltrixPath()
{
    return VX_VELTRIX_PROGRAM;
}

std::string veltrixCommand()
{
    const std::string emulator = VX_EMULATOR;
    return emulator.empty() ? veltrixPath() : emulator + " " + veltrixPath();
}

runResult runProgram(const std::vector<std::string>& argv, const std::string& input, int seconds)
{
    const std::string inputFile = tempPath("vxcli-input");
    writeFile(inputFile, input);
    int outPipe[2];
    int errPipe[2];
    if (pipe(outPipe) != 0 || pipe(errPipe) != 0) {
        throw std::runtime_error("pipe failed");
    }
    const pid_t pid = fork();
    if (pid == 0) {
        redirect(open(inputFile.c_str(), O_RDONLY), 0, O_RDONLY);
        redirect(outPipe[1], 1, O_WRONLY);
        redirect(errPipe[1], 2, O_WRONLY);
        (void)close(outPipe[0]);
        (void)close(errPipe[0]);
        execOrDie(argv);
    }
    (void)close(outPipe[1]);
    (void)close(errPipe[1]);
    const auto deadline = clock::now() + std::chrono::seconds(seconds);
    runResult result;
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open = 2;
    while (open > 0 && clock::now() < deadline) {
        if (poll(fds, 2, 100) <= 0) {
            continue;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char chunk[65536];
            const ssize_t got = read(fds[i].fd, chunk, sizeof chunk);
            if (got > 0) {
                sinks[i]->append(chunk, static_cast<size_t>(got));
            } else {
                (void)close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (const pollfd& fd : fds) {
        if (fd.fd >= 0) {
            (void)close(fd.fd);
        }
    }
    result.status = waitUntil(pid, deadline);
    (void)unlink(inputFile.c_str());
    return result;
}

runResult runVeltrix(const std::vector<std::string>& args, const std::string& input, int seconds)
{
    std::vector<std::string> argv{veltrixPath()};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProgram(argv, input, seconds);
}

backgroundRun::backgroundRun(const std::vector<std::string>& argv, const std::string& stdinFile,
                             const std::string& stdoutFile)
    : errFile(tempPath("vxcli-stderr"))
{
    writeFile(errFile, "");
    pid = fork();
    if (pid == 0) {
        redirect(stdinFile.empty() ? -1 : open(stdinFile.c_str(), O_RDONLY), 0, O_RDONLY);
        redirect(stdoutFile.empty() ? -1
                                    : open(stdoutFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
                 1, O_WRONLY);
        redirect(open(errFile.c_str(), O_WRONLY | O_APPEND), 2, O_WRONLY);
        execOrDie(argv);
    }
}

backgroundRun::~backgroundRun()
{
    if (!ended && pid > 0) {
        (void)kill(pid, SIGKILL);
        (void)waitpid(pid, nullptr, 0);
    }
    (void)unlink(errFile.c_str());
}

void backgroundRun::signal(int signo) const
{
    (void)kill(pid, signo);
}

int backgroundRun::wait(int seconds)
{
    if (!ended) {
        status = waitUntil(pid, clock::now() + std::chrono::seconds(seconds));
        ended = true;
    }
    return status;
}

std::string backgroundRun::errorText() const
{
    return readFile(errFile);
}

bool backgroundRun::waitForError(const std::string& text, int seconds) const
{
    return within(seconds, [&] { return errorText().find(text) != std::string::npos; });
}

scratchDir::scratchDir()
{
    std::string pattern = tempPath("vxcli-dir") + ".XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path = pattern;
}

scratchDir::~scratchDir()
{
    (void)runProgram({"rm", "-rf", path});
}

void writeFile(const std::string& path, const std::string& content, unsigned mode)
{
    vxtest::writeFile(path, content);
    if (chmod(path.c_str(), mode) != 0) {
        throw std::runtime_error("cannot write " + path);
    }
}

int freePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("cannot find a free port");
    }
    (void)close(fd);
    return ntohs(address.sin_port);
}

std::string pattern(size_t size, unsigned seed)
{
    std::string data(size, '\0');
    patternStream(seed).fill(data.data(), size);
    return data;
}

patternStream::patternStream(unsigned seed) : state(seed * 2654435761U + 1) {}

void patternStream::fill(char* out, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        state = state * 1103515245U + 12345U;
        out[i] = static_cast<char>(state >> 24U);
    }
}

size_t lineCount(const std::string& text)
{
    size_t lines = 0;
    for (const char c : text) {
        lines += c == '\n' ? 1 : 0;
    }
    return lines + (!text.empty() && text.back() != '\n' ? 1 : 0);
}

testing::AssertionResult contains(const std::string& text, const std::string& part)
{
    const bool found = text.find(part) != std::string::npos;
    return (found ? testing::AssertionSuccess() : testing::AssertionFailure())
           << "\"" << part << "\" " << (found ? "is" : "is not") << " in:\n"
           << text;
}

size_t occurrences(const std::string& text, const std::string& part)
{
    size_t found = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) {
        ++found;
    }
    return found;
}

bool within(int seconds, const std::function<bool()>& holds)
{
    const auto deadline = clock::now() + std::chrono::seconds(seconds);
    while (!holds()) {
        if (clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

std::string address(int port)
{
    return "127.0.0.1:" + std::to_string(port);
}

int listenLoopback(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in where = loopbackAddress(port);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&where), sizeof where) != 0 ||
        listen(fd, 64) != 0) {
        throw std::runtime_error("cannot listen");
    }
    return fd;
}

int connectLoopback(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in where = loopbackAddress(port);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&where), sizeof where) != 0) {
        (void)close(fd);
        return -1;
    }
    const timeval limit{60, 0}; // a hung program fails the test instead of the run
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return fd;
}

int localPort(int fd)
{
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    return getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length) == 0
               ? ntohs(bound.sin_port)
               : -1;
}

bool sendAll(int fd, const std::string& data)
{
    for (size_t at = 0; at < data.size();) {
        const ssize_t sent = send(fd, data.data() + at, data.size() - at, MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        at += static_cast<size_t>(sent);
    }
    return true;
}

std::string receiveAll(int fd, bool* ended)
{
    std::string data;
    std::vector<char> chunk(1 << 16);
    ssize_t got = 0;
    while ((got = recv(fd, chunk.data(), chunk.size(), 0)) > 0) {
        data.append(chunk.data(), static_cast<size_t>(got));
    }
    if (ended != nullptr) {
        *ended = got == 0;
    }
    return data;
}

bool closedWithin(int fd, int seconds)
{
    const auto deadline = clock::now() + std::chrono::seconds(seconds);
    char chunk[4096];
    while (clock::now() < deadline) {
        pollfd watched{fd, POLLIN, 0};
        if (poll(&watched, 1, 100) != 1) {
            continue;
        }
        const ssize_t got = recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
            return true;
        }
    }
    return false;
}

bool listeningWithin(int port, int seconds)
{
    char wanted[8];
    (void)std::snprintf(wanted, sizeof wanted, ":%04X", static_cast<unsigned>(port));
    return within(seconds, [&] {
        // Each line: "sl local_address rem_address st ...", addresses as hex IP:PORT, 0A = listen.
        std::istringstream table(readFile("/proc/net/tcp"));
        std::string line;
        std::getline(table, line); // the column names
        while (std::getline(table, line)) {
            std::istringstream fields(line);
            std::string slot;
            std::string local;
            std::string remote;
            std::string state;
            fields >> slot >> local >> remote >> state;
            if (local.size() > 5 && local.compare(local.size() - 5, 5, wanted) == 0 &&
                state == "0A") {
                return true;
            }
        }
        return false;
    });
}

std::string exchange(const std::string& request, int port)
{
    const int fd = connectLoopback(port);
    EXPECT_GE(fd, 0);
    std::atomic<bool> sent{false};
    std::thread writer([&] {
        sent = sendAll(fd, request);
        (void)shutdown(fd, SHUT_WR);
    });
    bool ended = false;
    std::string answer = receiveAll(fd, &ended);
    writer.join();
    (void)close(fd);
    EXPECT_TRUE(sent);
    EXPECT_TRUE(ended);
    return answer;
}

bool sendPattern(int fd, uint64_t size, unsigned seed)
{
    patternStream source(seed);
    std::string chunk(size_t{1} << 16U, '\0');
    for (uint64_t at = 0; at < size; at += chunk.size()) {
        chunk.resize(static_cast<size_t>(std::min<uint64_t>(chunk.size(), size - at)));
        source.fill(chunk.data(), chunk.size());
        if (!sendAll(fd, chunk)) {
            return false;
        }
    }
    return true;
}

bool receivePattern(int fd, unsigned seed, uint64_t& total)
{
    patternStream expected(seed);
    std::vector<char> chunk(size_t{1} << 16U);
    std::vector<char> wanted(chunk.size());
    bool same = true;
    ssize_t got = 0;
    total = 0;
    while ((got = recv(fd, chunk.data(), chunk.size(), 0)) > 0) {
        expected.fill(wanted.data(), static_cast<size_t>(got));
        same = same && std::equal(chunk.begin(), chunk.begin() + got, wanted.begin());
        total += static_cast<uint64_t>(got);
    }
    return same && got == 0;
}

loopbackService::loopbackService(std::function<void(int)> serve)
    : port(freePort()), listener(listenLoopback(port)), handler(std::move(serve))
{
    acceptor = std::thread([this] { acceptAll(); });
}

loopbackService::~loopbackService()
{
    (void)shutdown(listener, SHUT_RDWR);
    acceptor.join();
    (void)close(listener);
    for (worker& each : workers) {
        each.thread.join();
    }
}

void loopbackService::acceptAll()
{
    int fd = -1;
    while ((fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
        workers.remove_if([](worker& each) {
            if (!*each.done) {
                return false;
            }
            each.thread.join();
            return true;
        });
        auto done = std::make_shared<std::atomic<bool>>(false);
        workers.push_back({std::thread([this, fd, done] {
                               handler(fd);
                               *done = true;
                           }),
                           done});
    }
}

proxyConnection::proxyConnection(int upstream, size_t clientBudget)
    : port(freePort()), listener(listenLoopback(port)),
      worker([this, upstream, clientBudget] { relayOne(upstream, clientBudget); })
{}

proxyConnection::~proxyConnection()
{
    (void)shutdown(listener, SHUT_RDWR); // a test that ended early never connected: stop waiting
    (void)finished();
    (void)close(listener);
}

const std::vector<recordedChunk>& proxyConnection::finished()
{
    if (worker.joinable()) {
        worker.join();
    }
    return chunks;
}

bool proxyConnection::serverEnded()
{
    (void)finished();
    return serverDone;
}

void proxyConnection::relayOne(int upstream, size_t clientBudget)
{
    const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    int server = -1;
    for (int attempt = 0; client >= 0 && server < 0 && attempt < 500; ++attempt) {
        server = connectLoopback(upstream); // a server just started may not listen yet
        std::this_thread::sleep_for(std::chrono::milliseconds(server < 0 ? 20 : 0));
    }
    const int fds[2] = {client, server};
    pollfd ends[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
    size_t budget = clientBudget;
    std::vector<char> buffer(1 << 16);
    while ((ends[0].fd >= 0 || ends[1].fd >= 0) && fds[0] >= 0 && fds[1] >= 0 &&
           poll(ends, 2, 60000) > 0) {
        for (int side = 0; side < 2; ++side) {
            if (ends[side].fd < 0 || ends[side].revents == 0) {
                continue;
            }
            const ssize_t got = read(fds[side], buffer.data(), buffer.size());
            if (got <= 0) {
                ends[side].fd = -1; // poll() passes over it from now on
                if (side == 1 || budget > 0) {
                    (void)shutdown(fds[1 - side], SHUT_WR);
                }
                serverDone = serverDone || side == 1;
                continue;
            }
            std::string bytes(buffer.data(), static_cast<size_t>(got));
            if (side == 0) {
                bytes.resize(std::min(bytes.size(), budget));
                budget -= bytes.size();
            }
            if (!bytes.empty()) {
                chunks.push_back({side == 0, bytes});
                (void)sendAll(fds[1 - side], bytes);
            }
        }
    }
    for (const int fd : fds) {
        (void)close(fd);
    }
}

void echoBytes(int fd)
{
    std::vector<char> chunk(1 << 16);
    ssize_t got = 0;
    while ((got = recv(fd, chunk.data(), chunk.size(), 0)) > 0 &&
           sendAll(fd, std::string(chunk.data(), static_cast<size_t>(got)))) {
    }
    (void)shutdown(fd, SHUT_WR);
    (void)close(fd);
}

catPair runCatPair(int port, const std::vector<std::string>& listenerOptions,
                   const std::string& spoken, const std::vector<std::string>& clientOptions,
                   const std::string& said)
{
    const scratchDir dir;
    writeFile(dir.file("spoken"), spoken);
    std::vector<std::string> server{veltrixPath(), "cat", "--listen", address(port)};
    server.insert(server.end(), listenerOptions.begin(), listenerOptions.end());
    backgroundRun listener(server, dir.file("spoken"), dir.file("heard"));
    EXPECT_TRUE(listeningWithin(port, 30)) << listener.errorText();
    std::vector<std::string> client{"cat", address(port)};
    client.insert(client.end(), clientOptions.begin(), clientOptions.end());
    catPair ends;
    ends.client = runVeltrix(client, said, 120);
    ends.listenerStatus = listener.wait(60);
    ends.listenerErr = listener.errorText();
    ends.heard = readFile(dir.file("heard"));
    return ends;
}

std::unique_ptr<backgroundRun> startTunnel(const std::string& mode, int acceptPort, int connectPort,
                                           const std::string& secretFile,
                                           const std::vector<std::string>& extra)
{
    std::vector<std::string> argv{veltrixPath(), "tunnel",
                                  mode,          "--foreground",
                                  "--accept",    address(acceptPort),
                                  "--connect",   address(connectPort),
                                  "--psk-file",  secretFile};
    argv.insert(argv.end(), extra.begin(), extra.end());
    auto run = std::make_unique<backgroundRun>(argv);
    EXPECT_TRUE(run->waitForError("listening on", 30)) << run->errorText();
    return run;
}

processFigures figuresOf(pid_t pid)
{
    processFigures figures;
    const std::string proc = "/proc/" + std::to_string(pid);
    for (const auto& entry : std::filesystem::directory_iterator(proc + "/fd")) {
        (void)entry;
        ++figures.descriptors;
    }
    const std::string status = readFile(proc + "/status");
    const size_t at = status.find("RssAnon:");
    figures.anonKiB = at == std::string::npos ? -1 : std::atol(status.c_str() + at + 8);
    return figures;
}

std::vector<pid_t> childrenOf(pid_t pid)
{
    const std::string id = std::to_string(pid);
    std::istringstream listed(readFile("/proc/" + id + "/task/" + id + "/children"));
    std::vector<pid_t> children;
    for (pid_t child = 0; listed >> child;) {
        children.push_back(child);
    }
    return children;
}

processFigures figuresOfTree(pid_t pid)
{
    processFigures total = figuresOf(pid);
    for (const pid_t child : childrenOf(pid)) {
        const processFigures figures = figuresOf(child);
        total.descriptors += figures.descriptors;
        total.anonKiB += figures.anonKiB;
    }
    return total;
}

bool running(pid_t pid)
{
    const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

} // namespace vxclitest
