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

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace vxclitest {

namespace {

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

[[noreturn]] void execOrDie(const std::vector<std::string>& argv)
{
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
    const auto deadline = clock::now() + std::chrono::seconds(seconds);
    while (errorText().find(text) == std::string::npos) {
        if (clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
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
    uint32_t state = seed * 2654435761U + 1;
    for (char& c : data) {
        state = state * 1103515245U + 12345U;
        c = static_cast<char>(state >> 24U);
    }
    return data;
}

size_t lineCount(const std::string& text)
{
    size_t lines = 0;
    for (const char c : text) {
        lines += c == '\n' ? 1 : 0;
    }
    return lines + (!text.empty() && text.back() != '\n' ? 1 : 0);
}

} // namespace vxclitest
