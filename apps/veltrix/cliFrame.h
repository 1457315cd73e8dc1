// What every command of the veltrix program shares: the frame that loads the crypto plug-in,
// failures reported as one line, and the exit statuses.
#pragma once

#include "eventLoop.h"
#include "vxMain.h"

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

namespace vxcli {

/** Exit statuses of the program. */
enum exitStatus : int
{
    exitOk = 0,
    exitFailure = 1,
    exitUsage = 2
};

// The engine's descriptors, queues and failures are the program's own vocabulary. A failure's
// text is one line saying what failed and why, with the file or address involved; the frame
// prints it after "veltrix <command>: ".
using namespace veltrix::engine;

/** Options that come before the command. */
struct globalOptions
{
    bool verbose = false;   ///< print the error trail after the failure line
    std::string pluginPath; ///< empty: the build tree's plug-ins, or the library's default path
};

/** Throws failure("<what>: <newest trail message>") when `ok` is false. */
void require(bool ok, const std::string& what);

/** The root of the object tree while a command runs. */
class cliFrame : public veltrix::vxMain
{
public:
    using body = std::function<int(cliFrame&)>;

    cliFrame(globalOptions options, std::string command);

    /** Runs `command` inside the frame and returns its exit status. A failure it throws becomes
     *  "veltrix <command>: <text>" on standard error (and the trail with -v) and status 1. */
    int run(const body& command);

    /** Loads the crypto plug-in: from --plugin-path when given, from the build tree when this
     *  program runs from it, else from the library's default search path. */
    void loadPlugin();

    /** Opens `child` under the frame; throws failure("<what>: <reason>") when it cannot. */
    template <class Child, class... Args>
    void open(Child& child, const std::string& what, Args&&... args)
    {
        require(openChild(child, std::forward<Args>(args)...), what);
    }

    [[nodiscard]] const globalOptions& options() const { return settings; }

    bool main(int argc, char** argv) override;

private:
    globalOptions settings;
    std::string commandLabel;
    const body* current = nullptr;
    int status = exitFailure;
};

/** Closes `object` when it is open, at the end of a scope, whatever happened before. */
class closeOnExit
{
public:
    explicit closeOnExit(veltrix::vxBase& object) : target(object) {}

    LVX_NOT_COPYABLE(closeOnExit);

    ~closeOnExit()
    {
        if (target.opened) {
            (void)cliFrame::closeChild(target);
        }
    }

private:
    veltrix::vxBase& target;
};

} // namespace vxcli
