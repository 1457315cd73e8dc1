// The program's own surface: help, the version table, and the usage errors of every command
// (exit status 2 and one line on standard error).
#include "cliRun.h"

#include <gtest/gtest.h>

#include <cctype>
#include <sstream>
#include <string>
#include <vector>

using namespace vxclitest;

namespace {

struct usageCase
{
    std::vector<std::string> args;
    const char* says; ///< a part of the one line
};

const usageCase kUsageErrors[] = {
    {{}, "a command is required"},
    {{"frobnicate"}, "frobnicate"},
    {{"help", "frobnicate"}, "no command \"frobnicate\""},
    {{"tunnel", "--accept", "127.0.0.1:1", "--connect", "127.0.0.1:2", "--psk-file", "k"},
     "--server or --client"},
    {{"tunnel", "--server", "--client", "--accept", "127.0.0.1:1", "--connect", "127.0.0.1:2",
      "--psk-file", "k"},
     "excludes"},
    {{"tunnel", "--server", "--accept", "local host:1", "--connect", "127.0.0.1:2", "--psk-file",
      "k"},
     "a host name or a numeric IPv4 or IPv6 address"},
    {{"tunnel", "--server", "--accept", "127.0.0.1:1", "--connect", "127.0.0.1:1", "--psk-file",
      "k"},
     "are the same address"},
    {{"tunnel", "--server", "--accept", "127.0.0.1:1", "--connect", "127.0.0.1:2", "--psk-file",
      "k", "--log-level", "debug"},
     "use err, warning, notice or info"},
    {{"tunnel", "--server", "--accept", "127.0.0.1:70000", "--connect", "127.0.0.1:2", "--psk-file",
      "k"},
     "from 0 to 65535"},
    {{"tunnel", "--server", "--accept", "127.0.0.1", "--connect", "127.0.0.1:2", "--psk-file", "k"},
     "is not ADDR:PORT"},
    {{"tunnel", "--server", "--accept", "127.0.0.1:1", "--connect", "127.0.0.1:2"},
     "--psk-file is required"},
    {{"tunnel", "--server", "--accept", "127.0.0.1:1", "--connect", "127.0.0.1:2", "--psk-file",
      "k", "--hash", "sha1"},
     "needs a 16-byte digest"},
    {{"tunnel", "--server", "--accept", "127.0.0.1:1", "--connect", "127.0.0.1:2", "--psk-file",
      "k", "--cipher", "des"},
     "des"},
    {{"tunnel", "--server", "--accept", "127.0.0.1:1", "--connect", "127.0.0.1:2", "--psk-file",
      "k", "--max-connections", "0"},
     "--max-connections"},
    {{"cat", "--psk-file", "k"}, "--listen ADDR:PORT or a peer ADDR:PORT"},
    {{"cat", "--listen", "127.0.0.1:1", "127.0.0.1:2", "--psk-file", "k"}, "excludes"},
    {{"cat", "127.0.0.1:1", "--psk-file", "k", "--handshake-timeout", "0"}, "--handshake-timeout"},
    {{"cat", "[::1]:1", "--psk-file", "k", "--bogus"}, "--bogus"},
    {{"cat", "127.0.0.1:1", "--psk-file", "k", "--receive-timeout", "-1"}, "--receive-timeout"},
    {{"tunnel", "--server", "--accept", "127.0.0.1:1", "--connect", "127.0.0.1:2", "--psk-file",
      "k", "--idle-timeout", "soon"},
     "--idle-timeout"},
    {{"digest", "--algorithm", "sha3"}, "sha3"},
    {{"digest", "-a"}, "-a"},
    {{"digest", "--nope"}, "--nope"},
    {{"digest", "--quiet", "x"}, "--quiet"},
    {{"digest", "--status"}, "--status"},
    {{"digest", "--strict"}, "--strict"},
    {{"digest", "-w"}, "-w"},
    {{"digest", "-a", "MD5", "-"}, "MD5"},
    {{"key"}, "veltrix key: "},
    {{"key", "rotate"}, "A subcommand is required"},
    {{"key", "generate"}, "KEYFILE is required"},
    {{"key", "generate", "--bits", "1000", "k"}, "1000"},
    {{"key", "generate", "--bits", "two", "k"}, "two"},
    {{"key", "fingerprint", "--bogus", "k"}, "--bogus"},
    {{"key", "public", "k"}, "OUTFILE is required"},
    {{"key", "sign", "file"}, "--key is required"},
    {{"key", "sign", "--key"}, "--key"},
    {{"key", "verify", "-k", "k", "file"}, "SIGFILE is required"},
    {{"key", "export-pem"}, "--key is required"},
    {{"key", "export-pem", "-k", "k", "extra"}, "extra"},
    {{"bench", "--seconds", "soon"}, "soon"},
    {{"bench", "--cipher", "des"}, "des"},
};

TEST(usageTest, EveryUsageErrorIsStatusTwoAndOneLine)
{
    for (const usageCase& usage : kUsageErrors) {
        const runResult run = runVeltrix(usage.args);
        const std::string label = testing::PrintToString(usage.args);
        EXPECT_EQ(run.status, 2) << label;
        EXPECT_EQ(lineCount(run.err), 1U) << label << ": " << run.err;
        EXPECT_EQ(run.err.rfind("veltrix", 0), 0U) << label << ": " << run.err;
        EXPECT_NE(run.err.find(usage.says), std::string::npos) << label << ": " << run.err;
        EXPECT_EQ(run.out, "") << label;
    }
}

TEST(usageTest, HelpDescribesTheProgramAndEachCommand)
{
    const runResult program = runVeltrix({"help"});
    EXPECT_EQ(program.status, 0);
    std::vector<const char*> commands = {"tunnel", "cat", "key", "digest", "bench"};
#ifdef VX_DECODE
    commands.push_back("decode");
#endif
    for (const char* command : commands) {
        EXPECT_NE(program.out.find(command), std::string::npos) << command;
        const runResult topic = runVeltrix({"help", command});
        EXPECT_EQ(topic.status, 0) << command;
        const runResult flag = runVeltrix({command, "--help"});
        EXPECT_EQ(flag.status, 0) << command;
        EXPECT_EQ(flag.out, topic.out) << command;
    }
    EXPECT_NE(runVeltrix({"tunnel", "--help"}).out.find("--psk-file"), std::string::npos);
    const std::string cat = runVeltrix({"cat", "--help"}).out;
    for (const char* option : {"--receive-timeout", "--idle-timeout", "--stats"}) {
        EXPECT_NE(cat.find(option), std::string::npos) << option;
    }
}

TEST(usageTest, VersionTableListsProgramLibraryAndPlugin)
{
    const runResult run = runVeltrix({"--version"});
    EXPECT_EQ(run.status, 0) << run.err;
    for (const char* row : {"| veltrix    | Application | 2.0     |",
                            "| libveltrix | Library     | 2.0     |", "| Plug-in     |"}) {
        EXPECT_NE(run.out.find(row), std::string::npos) << row << "\n" << run.out;
    }
}

TEST(usageTest, AMissingPluginIsOneLineAndTheTrailOnlyWithVerbose)
{
    const runResult quiet = runVeltrix({"--plugin-path", "/nonexistent", "--version"});
    EXPECT_EQ(quiet.status, 1);
    EXPECT_EQ(lineCount(quiet.err), 1U) << quiet.err;
    EXPECT_EQ(quiet.err.rfind("veltrix --version: cannot load the crypto plug-in from "
                              "\"/nonexistent\": ",
                              0),
              0U)
        << quiet.err;
    const runResult verbose = runVeltrix({"-v", "--plugin-path", "/nonexistent", "--version"});
    EXPECT_EQ(verbose.status, 1);
    EXPECT_GT(lineCount(verbose.err), 3U);
    EXPECT_NE(verbose.err.find("Message Hints"), std::string::npos) << verbose.err;
}

/** The long options a help text lists: the first word of each option line ("-a,--algorithm",
 *  "--psk-file"), split at its commas. */
std::vector<std::string> longOptions(const std::string& help)
{
    std::vector<std::string> options;
    std::istringstream lines(help);
    for (std::string line; std::getline(lines, line);) {
        const size_t start = line.find_first_not_of(' ');
        if (start == std::string::npos || line[start] != '-') {
            continue;
        }
        std::istringstream names(line.substr(start, line.find(' ', start) - start));
        for (std::string name; std::getline(names, name, ',');) {
            if (name.rfind("--", 0) == 0) {
                options.push_back(name);
            }
        }
    }
    return options;
}

/** Whether `page` names `option` whole: "--connect-timeout" does not name "--connect". */
bool namesOption(const std::string& page, const std::string& option)
{
    for (size_t at = page.find(option); at != std::string::npos; at = page.find(option, at + 1)) {
        const size_t end = at + option.size();
        if (end == page.size() ||
            (std::isalnum(static_cast<unsigned char>(page[end])) == 0 && page[end] != '-')) {
            return true;
        }
    }
    return false;
}

TEST(usageTest, TheManualPageHasEveryOptionThatHelpLists)
{
    std::string page = readFile(VX_MAN_PAGE);
    ASSERT_FALSE(page.empty()) << VX_MAN_PAGE;
    for (size_t at = 0; (at = page.find("\\-", at)) != std::string::npos;) {
        page.erase(at, 1); // roff writes a minus as "\-"
    }
    std::vector<const char*> commands = {
        "",         "help",         "tunnel",          "cat",
        "key",      "key generate", "key fingerprint", "key public",
        "key sign", "key verify",   "key export-pem",  "digest",
        "bench"};
#ifdef VX_DECODE
    commands.push_back("decode");
#endif
    for (const char* command : commands) {
        std::istringstream words(command);
        std::vector<std::string> args;
        for (std::string word; words >> word;) {
            args.push_back(word);
        }
        args.emplace_back("--help");
        const runResult help = runVeltrix(args);
        const std::string label = testing::PrintToString(args);
        EXPECT_EQ(help.status, 0) << label;
        const std::vector<std::string> options = longOptions(help.out);
        EXPECT_FALSE(options.empty()) << label << "\n" << help.out;
        for (const std::string& option : options) {
            EXPECT_TRUE(namesOption(page, option))
                << label << ": " << option << " is not in " << VX_MAN_PAGE;
        }
    }
}

} // namespace
