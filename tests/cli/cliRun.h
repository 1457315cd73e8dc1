// Runs the veltrix program as a user would: arguments, standard input, captured output, exit
// status, and a time limit on every wait so that a hung program fails its test instead of the run.
#pragma once

#include "vxTest.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace vxclitest {

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

} // namespace vxclitest
