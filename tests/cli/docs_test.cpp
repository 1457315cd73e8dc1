// Every example of the manual page and the README, run: commands in a shell, configuration files
// by a tunnel, the service's files and commands as the unit runs them. The examples are written
// for two machines, 10.0.0.1 (the service) and 10.0.0.2 (its clients); here both are this one,
// and each address becomes a free port on loopback, the one each machine would use.
#include "cliRun.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace vxclitest;

namespace {

struct example
{
    std::string where; ///< "veltrix.1:812"
    std::string text;
    bool clientMachine; ///< the whole block runs on 10.0.0.2
    bool cpp = false;   ///< C++ source, compiled instead of run
};

std::string replaceAll(std::string text, const std::string& from, const std::string& to)
{
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
    return text;
}

/** The text of a roff example line as a reader sees it. */
std::string unroff(std::string line)
{
    for (const char* font : {"\\fI", "\\fP", "\\fB", "\\fR"}) {
        line = replaceAll(line, font, "");
    }
    line = replaceAll(line, "\\-", "-");
    line = replaceAll(line, "\\~", " ");
    return replaceAll(line, "\\e", "\\");
}

/** The .EX blocks of the manual page; a block introduced by "On 10.0.0.2" runs there. */
std::vector<example> manExamples()
{
    std::istringstream page(readFile(VX_SOURCE_DIR "/apps/veltrix/veltrix.1"));
    std::vector<example> found;
    std::string line;
    std::string before;
    int number = 0;
    bool inside = false;
    while (std::getline(page, line)) {
        ++number;
        if (line == ".EX") {
            inside = true;
            found.push_back({"veltrix.1:" + std::to_string(number), "",
                             before.find("On 10.0.0.2") != std::string::npos});
        } else if (line == ".EE") {
            inside = false;
            before.clear();
        } else if (inside) {
            found.back().text += unroff(line) + "\n";
        } else if (line[0] != '.' || line.rfind(".PP", 0) == 0) {
            before = line.rfind(".PP", 0) == 0 ? std::string() : before + line + "\n";
        }
    }
    return found;
}

/** The fenced blocks of the README. */
std::vector<example> readmeExamples()
{
    std::istringstream readme(readFile(VX_SOURCE_DIR "/README.md"));
    std::vector<example> found;
    std::string line;
    int number = 0;
    bool inside = false;
    while (std::getline(readme, line)) {
        ++number;
        if (line.rfind("```", 0) == 0) {
            inside = !inside && line.size() > 3;
            if (inside) {
                found.push_back(
                    {"README.md:" + std::to_string(number), "", false, line == "```cpp"});
            }
        } else if (inside) {
            found.back().text += line + "\n";
        }
    }
    return found;
}

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.rfind(prefix, 0) == 0;
}

/** An HTTP server in a few lines: one answer to any request, then the close. */
void answerHttp(int fd)
{
    std::string request;
    char chunk[512];
    ssize_t got = 1;
    while (request.find("\r\n\r\n") == std::string::npos &&
           (got = recv(fd, chunk, sizeof chunk, 0)) > 0) {
        request.append(chunk, static_cast<size_t>(got));
    }
    if (got > 0) {
        (void)sendAll(fd, "HTTP/1.0 200 OK\r\n\r\nhello through the tunnel\n");
    }
    (void)close(fd);
}

void greetApi(int fd)
{
    (void)sendAll(fd, "api:");
    (void)close(fd);
}

class docsTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(etc);
        std::filesystem::create_directories(dir.file("somedir"));
        std::filesystem::create_directories(pids);
        std::filesystem::create_directories(dir.file("bin"));
        writeFile(dir.file("somedir/a.txt"), pattern(70000, 1), 0644);
        writeFile(dir.file("firmware.bin"), pattern(100000, 2), 0644);
        writeFile(dir.file("tunnel.psk"), "the secret of the examples\n");
        for (const char* name : {"web.psk", "gateway.psk"}) {
            writeFile(etc + "/" + name, "the secret of the examples\n");
        }
        // The program's name in a shell example: a tunnel writes a PID file, so that it can be
        // stopped afterwards, and a listening cat waits in the background, as it would on its
        // own machine, once it listens.
        writeFile(dir.file("bin/veltrix"),
                  "#!/bin/sh\n"
                  "if [ \"$1\" = tunnel ]; then\n"
                  "  exec $VELTRIX \"$@\" --pid-file \"$(mktemp -p \"$PIDS\")\"\n"
                  "fi\n"
                  "if [ \"$1\" = cat ] && [ \"$2\" = --listen ]; then\n"
                  "  $VELTRIX \"$@\" &\n"
                  "  hex=$(printf '%04X' \"${3##*:}\")\n"
                  "  for i in $(seq 100); do\n"
                  "    grep -q \":$hex 00000000:0000 0A\" /proc/net/tcp && exit 0\n"
                  "    sleep 0.1\n"
                  "  done\n"
                  "  exit 1\n"
                  "fi\n"
                  "exec $VELTRIX \"$@\"\n",
                  0755);
        writeFile(dir.file("bin/curl"),
                  "#!/bin/bash\n"
                  "where=${1#http://}; where=${where%%/*}\n"
                  "exec 3<>\"/dev/tcp/${where%:*}/${where#*:}\" || exit 7\n"
                  "printf 'GET / HTTP/1.0\\r\\n\\r\\n' >&3\n"
                  "cat <&3\n",
                  0755);
    }

    void TearDown() override { stopDetached(); }

    /** The example as it runs here: each machine's addresses become this machine's ports. */
    std::string localised(const std::string& text, bool clientMachine) const
    {
        std::string out;
        std::istringstream lines(text);
        std::string line;
        bool client = clientMachine;
        while (std::getline(lines, line)) {
            if (startsWith(line, "# on 10.0.0.")) {
                client = startsWith(line, "# on 10.0.0.2");
            }
            line = replaceAll(line, "127.0.0.1:8080", address(client ? clientPort : web.port));
            line = replaceAll(line, "10.0.0.1:7000", address(serverPort));
            line = replaceAll(line, "10.0.0.1:7001", address(secondPort));
            line = replaceAll(line, "0.0.0.0:7001", address(secondPort));
            line = replaceAll(line, "localhost:9000", "localhost:" + std::to_string(api.port));
            line = replaceAll(line, "/etc/veltrix/", etc + "/");
            // Every example shares the one secret file, which exists before the first runs.
            line = replaceAll(line, "key psk tunnel.psk", "key psk --force tunnel.psk");
            line = replaceAll(line, "tunnel.psk", dir.file("tunnel.psk"));
            out += line + "\n";
        }
        const std::string commands = std::regex_replace(out, std::regex("#[^\n]*"), "");
        EXPECT_EQ(commands.find("10.0.0."), std::string::npos)
            << "an address with no local stand-in:\n"
            << out;
        return out;
    }

    /** Stops the tunnels the shell examples left in the background. */
    void stopDetached() const
    {
        for (const auto& file : std::filesystem::directory_iterator(pids)) {
            const pid_t pid = std::atoi(readFile(file.path().string()).c_str());
            if (pid > 0 && kill(pid, SIGTERM) == 0) {
                (void)within(5, [pid] { return !running(pid); });
            }
            std::filesystem::remove(file.path());
        }
    }

    /** Compiles a C++ example against the headers as an application includes them
     *  (<veltrix/session.h>), with every warning an error. */
    void compileCpp(const example& one)
    {
        const std::string include = dir.file("include");
        if (!std::filesystem::exists(include + "/veltrix")) {
            std::filesystem::create_directories(include);
            std::filesystem::create_directory_symlink(VX_SOURCE_DIR "/lib/session",
                                                      include + "/veltrix");
        }
        const std::string source = dir.file("example" + std::to_string(++shells) + ".cpp");
        writeFile(source, one.text, 0644);
        const runResult run = runProgram({VX_CXX_COMPILER, "-std=c++17", "-fsyntax-only", "-Wall",
                                          "-Wextra", "-Werror", "-I" + include, source});
        EXPECT_EQ(run.status, 0) << one.where << "\n" << one.text << run.out << run.err;
    }

    /** Runs a shell example in a directory of its own, with the files it works on; checks what
     *  its commands show. */
    void runShell(const example& one)
    {
        const std::string work = dir.file("run" + std::to_string(++shells));
        std::filesystem::create_directories(work);
        std::filesystem::copy(dir.file("somedir"), work + "/somedir");
        std::filesystem::copy(dir.file("firmware.bin"), work + "/firmware.bin");
        const std::string script = work + "/example.sh";
        writeFile(script, "set -e\n" + localised(one.text, one.clientMachine) + "wait\n", 0755);
        const runResult run =
            runProgram({"/bin/sh", "-c",
                        "cd " + work + " && PATH=" + dir.file("bin") + ":$PATH VELTRIX='" +
                            veltrixCommand() + "'" + " PIDS=" + pids + " /bin/sh " + script});
        EXPECT_EQ(run.status, 0) << one.where << "\n" << one.text << run.out << run.err;
        if (one.text.find("curl ") != std::string::npos) {
            EXPECT_TRUE(contains(run.out, "hello through the tunnel")) << one.where << run.err;
        }
        if (one.text.find("verify -k") != std::string::npos) {
            EXPECT_TRUE(contains(run.out, "Verified OK")) << one.where;
        }
        if (one.text.find("received.tar") != std::string::npos) {
            const runResult tar = runProgram({"/bin/sh", "-c", "cd " + work + " && tar c somedir"});
            const std::string received = work + "/received.tar";
            (void)within(10, [&] { return readFile(received) == tar.out; });
            EXPECT_TRUE(readFile(received) == tar.out)
                << one.where << ": " << readFile(received).size() << " bytes received of "
                << tar.out.size();
        }
    }

    /** Runs the tunnel of a configuration file as the unit does and checks every service. */
    std::unique_ptr<backgroundRun> runConfig(const std::string& where, const std::string& file,
                                             const std::string& secret)
    {
        auto tunnel = std::make_unique<backgroundRun>(
            std::vector<std::string>{veltrixPath(), "tunnel", "--config", file, "--psk-file",
                                     secret, "--foreground", "--workers", "1"});
        expectServices(where, file, secret, *tunnel);
        return tunnel;
    }

    /** Each service of `file` listens; a server service reaches the service behind it. */
    void expectServices(const std::string& where, const std::string& file,
                        const std::string& secret, const backgroundRun& tunnel) const
    {
        const std::string text = readFile(file);
        const std::regex accept(R"(accept = (\S+):(\d+))");
        for (auto at = std::sregex_iterator(text.begin(), text.end(), accept);
             at != std::sregex_iterator(); ++at) {
            const int port = std::stoi((*at)[2]);
            EXPECT_TRUE(listeningWithin(port, 30)) << where << ": " << tunnel.errorText();
            const runResult cat =
                runVeltrix({"cat", address(port), "--psk-file", secret}, "GET / HTTP/1.0\r\n\r\n");
            EXPECT_TRUE(cat.out == "api:" || cat.out.find("hello") != std::string::npos)
                << where << ": port " << port << ": " << cat.out << cat.err << tunnel.errorText();
        }
    }

    /** The service example: its files written, `systemctl enable` and `reload` done as the unit
     *  does them. */
    void runService(const example& one)
    {
        std::istringstream lines(localised(one.text, false));
        std::string line;
        std::unique_ptr<backgroundRun> tunnel;
        const std::regex heredoc(R"(cat (>>?) (\S+) <<EOF)");
        const std::regex unit(R"(systemctl (enable --now|reload) veltrix-tunnel@(\S+))");
        std::smatch match;
        std::string config;
        while (std::getline(lines, line)) {
            if (std::regex_match(line, match, heredoc)) {
                config = match[2];
                std::string body = match[1] == ">>" ? readFile(config) : std::string();
                while (std::getline(lines, line) && line != "EOF") {
                    body += line + "\n";
                }
                writeFile(config, body, 0644);
            } else if (std::regex_match(line, match, unit) && match[1] == "enable --now") {
                tunnel = runConfig(one.where, config, etc + "/" + match[2].str() + ".psk");
            } else if (std::regex_match(line, match, unit)) {
                ASSERT_TRUE(tunnel);
                tunnel->signal(SIGHUP);
                EXPECT_TRUE(tunnel->waitForError("reloaded", 10)) << tunnel->errorText();
                expectServices(one.where, config, etc + "/" + match[2].str() + ".psk", *tunnel);
            } else {
                ADD_FAILURE() << one.where << ": a line this test does not run: " << line;
            }
        }
    }

    scratchDir dir;
    std::string etc = dir.file("etc/veltrix");
    std::string pids = dir.file("pids");
    loopbackService web{answerHttp};
    loopbackService api{greetApi};
    int serverPort = freePort();
    int secondPort = freePort();
    int clientPort = freePort();
    int shells = 0;
};

/** What the unit runs, with its instance named NAME. */
std::string unitCommand()
{
    const std::string unit = readFile(VX_SOURCE_DIR "/packaging/veltrix-tunnel@.service.in");
    std::smatch match;
    EXPECT_TRUE(
        std::regex_search(unit, match, std::regex("ExecStart=@CMAKE_INSTALL_FULL_BINDIR@/(.*)")));
    std::string command = match[1];
    command = replaceAll(command, "%d", "/run/credentials/veltrix-tunnel@%i.service");
    return replaceAll(command, "%i", "NAME");
}

TEST_F(docsTest, EveryExampleRuns)
{
    std::vector<example> all = manExamples();
    const std::vector<example> readme = readmeExamples();
    all.insert(all.end(), readme.begin(), readme.end());
    size_t ran = 0;
    for (const example& one : all) {
        const std::string& text = one.text;
        if (one.cpp) {
            ++ran;
            compileCpp(one);
            continue;
        }
        const bool config = std::regex_search(text, std::regex(R"(^\[[A-Za-z0-9._-]+\]$)",
                                                               std::regex::multiline)) &&
                            text.find("<<EOF") == std::string::npos;
        if (std::regex_search(text, std::regex(R"(^(veltrix [a-z ]+|\[20\d\d/.*\] ->.*): )"))) {
            continue; // what a command prints, quoted
        }
        if (std::regex_search(text, std::regex(R"(^\d\d:\d\d:\d\d\.\d{6} conn )"))) {
            continue; // what decode prints, quoted
        }
        if (text.find("field.pcap") != std::string::npos) {
            continue; // a capture made on a device in the field: the decode tests run its like
        }
        if (startsWith(text, "scripts/") || startsWith(text, "cmake ") ||
            startsWith(text, "sudo ")) {
            continue; // building and testing, which CI does
        }
        if (startsWith(text, "[Service]") ||
            std::regex_match(text, std::regex(R"(((systemctl|journalctl) [^\n]*\n)+)"))) {
            continue; // commands of the service manager and a drop-in, for a system running it
        }
        ++ran;
        const bool shell = !config && text.find("<<EOF") == std::string::npos &&
                           text.find("/run/credentials") == std::string::npos;
        // A client's example goes on from the server's before it; any other starts afresh.
        if (!shell || text.find("--server") != std::string::npos) {
            stopDetached();
        }
        if (text.find("/run/credentials") != std::string::npos) {
            std::string joined = replaceAll(replaceAll(text, "\\\n", " "), "\n", "");
            joined = std::regex_replace(joined, std::regex(" +"), " ");
            EXPECT_EQ(joined, unitCommand()) << one.where << ": not what the unit runs";
        } else if (text.find("<<EOF") != std::string::npos) {
            runService(one);
        } else if (config) {
            const std::string file = dir.file("example.conf");
            writeFile(file, localised(text, false), 0644);
            (void)runConfig(one.where, file, dir.file("tunnel.psk"));
        } else {
            runShell(one);
        }
    }
    EXPECT_GE(ran, 10U);
}

} // namespace
