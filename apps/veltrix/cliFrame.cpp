// The veltrix program's frame.
#include "cliFrame.h"

#include "vxGlobal.h"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace vxcli {

using namespace veltrix;

namespace {

/** The directory this program runs from, resolved; empty when unknown. */
std::string programDirectory()
{
    char path[PATH_MAX] = {};
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) {
        return {};
    }
    std::string resolved(path, static_cast<size_t>(length));
    return resolved.substr(0, resolved.rfind('/'));
}

} // namespace

void require(bool ok, const std::string& what)
{
    if (!ok) {
        throw failure(what + ": " + trailReason());
    }
}

cliFrame::cliFrame(globalOptions options, std::string command)
    : settings(std::move(options)), commandLabel(std::move(command))
{}

int cliFrame::run(const body& command)
{
    current = &command;
    std::string failed;
    try {
        if (InitAndRun("veltrix", VX_CLI_VERSION, 0, nullptr)) {
            return status;
        }
        failed = "the application frame could not start: " + trailReason();
    } catch (const failure& error) {
        failed = error.what();
    } catch (const std::exception& error) {
        failed = std::string("unexpected error: ") + error.what();
    }
    std::cerr << "veltrix " << commandLabel << ": " << failed << std::endl;
    if (settings.verbose && vxBase::HaveStackTrace()) {
        vxBase::DumpStackTrace(std::cerr);
    }
    return exitFailure;
}

bool cliFrame::main(int /*argc*/, char** /*argv*/)
{
    status = (*current)(*this);
    return true;
}

void cliFrame::loadPlugin()
{
    if (!settings.pluginPath.empty()) {
        api.setSearchPath(settings.pluginPath);
    } else if (programDirectory() == VX_CLI_BUILD_DIR) {
        api.setSearchPath(VX_CLI_BUILD_PLUGIN_DIR);
    }
    require(LoadPlugin("openssl"),
            "cannot load the crypto plug-in from \"" + api.searchPath + "\"");
}

} // namespace vxcli
