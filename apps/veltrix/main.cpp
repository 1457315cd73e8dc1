// veltrix: the library's command-line program. One program, several commands:
//
//   veltrix tunnel   wrap an unmodified TCP service in the encrypted channel
//   veltrix cat      standard input to a peer and the peer's bytes to standard output
//   veltrix key      RSA key files: generate, fingerprint, public, sign, verify, export-pem,
//                    import-pem; psk writes a secret file
//   veltrix digest   file digests in the format of the coreutils sums, and -c
//   veltrix bench    the library's throughput and handshake rate beside direct OpenSSL
//
// Exit status: 0 success, 1 failure, 2 usage error. Every failure is one line on standard error;
// -v adds the library's error trail.
#include "cliFrame.h"
#include "commands.h"
#include "vxGlobal.h"
#include "vxVersions.h"

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <iostream>
#include <string>
#include <vector>

using namespace vxcli;

namespace {

/** One line, whatever the parser's text holds. */
std::string oneLine(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

/** The subcommand whose options were being parsed, for the usage hint. */
std::string activeCommand(const CLI::App& program)
{
    std::string path;
    for (const CLI::App* app = &program; app != nullptr;) {
        const auto chosen = app->get_subcommands();
        if (chosen.empty()) {
            break;
        }
        app = chosen.front();
        path += " " + app->get_name();
    }
    return path;
}

int printVersions(cliFrame& frame)
{
    std::string pluginProblem;
    try {
        frame.loadPlugin();
    } catch (const failure& error) {
        pluginProblem = error.what();
    }
    vxGlobal.versions->Display(std::cout);
    if (!pluginProblem.empty()) {
        throw failure(pluginProblem);
    }
    return exitOk;
}

/** Parses the command line and runs the chosen command; the exit status. */
int parseAndRun(int argc, char** argv)
{
    CLI::App program{"veltrix: encrypted tunnels, keys and digests through libveltrix.", "veltrix"};
    program.fallthrough();
    program.require_subcommand(0, 1);
    globalOptions globals;
    bool showVersion = false;
    program.add_flag("-v,--verbose", globals.verbose, "print the error trail after a failure");
    program.add_option("--plugin-path", globals.pluginPath,
                       "directories to search for the crypto plug-in, separated by ':'");
    program.add_flag("--version", showVersion,
                     "print the version table (program, library, plug-in)");

    selection chosen;
    std::vector<std::string> helpTopic;
    CLI::App* help = program.add_subcommand("help", "describe the program or one command");
    help->add_option("command", helpTopic,
                     "the command to describe, with its subcommand (key sign)");
    addTunnelCommand(program, chosen);
    addCatCommand(program, chosen);
    addKeyCommand(program, chosen);
    addDigestCommand(program, chosen);
    addBenchCommand(program, chosen);
#ifdef VX_DECODE
    addDecodeCommand(program, chosen);
#endif

    try {
        program.parse(argc, argv);
    } catch (const CLI::Success& done) {
        return program.exit(done); // --help
    } catch (const CLI::ParseError& error) {
        const std::string command = "veltrix" + activeCommand(program);
        std::cerr << command << ": " << oneLine(error.what()) << " (see \"" << command
                  << " --help\")" << std::endl;
        return exitUsage;
    }

    if (help->parsed()) {
        if (helpTopic.empty()) {
            // help() would describe the chosen subcommand, which is "help" itself.
            std::cout << program.get_formatter()->make_help(&program, "veltrix",
                                                            CLI::AppFormatMode::Normal);
            return exitOk;
        }
        // Each word names a subcommand of the one before: "help key sign" is "key sign --help",
        // whose help is titled by the names before its own.
        CLI::App* topic = &program;
        std::string title;
        std::string words;
        for (const std::string& word : helpTopic) {
            if (title.empty()) {
                title = "veltrix";
            } else {
                title += ' ';
                title += topic->get_name();
            }
            if (!words.empty()) {
                words += ' ';
            }
            words += word;
            const auto commands = topic->get_subcommands(
                [&](const CLI::App* app) { return app->get_name() == word; });
            if (commands.empty()) {
                std::cerr << "veltrix help: no command \"" << words << R"(" (see "veltrix help"))"
                          << std::endl;
                return exitUsage;
            }
            topic = commands.front();
        }
        std::cout << topic->help(title);
        return exitOk;
    }
    if (showVersion && !chosen.body) {
        return cliFrame(globals, "--version").run(printVersions);
    }
    if (!chosen.body) {
        std::cerr << "veltrix: a command is required (see \"veltrix help\")" << std::endl;
        return exitUsage;
    }
    return cliFrame(globals, chosen.name).run(chosen.body);
}

/** Opens /dev/null on each of 0, 1 and 2 that is closed; false when that fails. */
bool standardDescriptorsSafe()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) {
            continue;
        }
        // The lowest free number is this one: everything below it is open.
        const int null = open("/dev/null", O_RDWR);
        if (null != fd) {
            if (null >= 0) {
                (void)close(null);
            }
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    // A descriptor among 0, 1 and 2 that was closed at the start would be handed out by the next
    // open: a listening socket would then stand where output goes, and a message for the
    // terminal would reach a peer. /dev/null takes the place of each before anything opens.
    if (!standardDescriptorsSafe()) {
        return exitFailure;
    }
    // A reader that went away is an error to report, not a reason to die.
    (void)std::signal(SIGPIPE, SIG_IGN);
    try {
        return parseAndRun(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "veltrix: " << error.what() << std::endl;
        return exitFailure;
    }
}
