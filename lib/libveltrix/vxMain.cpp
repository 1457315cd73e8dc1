// The application frame.
#include "vxMain.h"

#include "vxGuard.h"
#include "vxVersions.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace veltrix {

vxMain::vxMain() : previousRoot((vxGlobal.tryInit(), vxGlobal.root))
{
    name = "vxMain";
    opened = true;
    depth = 0;
    parent = nullptr;
    initLine = __LINE__;
    openLine = static_cast<uint32_t>(__LINE__);
    vxGlobal.root = this;
}

vxMain::~vxMain()
{
    opened = false;
    // Frames form a chain from the root through the roots each one replaced. Unlink this frame
    // wherever it stands, so that in any order of destruction a destroyed frame is never the root
    // and never restored as one.
    if (vxGlobal.root == this) {
        vxGlobal.root = previousRoot;
        return;
    }
    for (auto* frame = dynamic_cast<vxMain*>(vxGlobal.root); frame != nullptr;
         frame = dynamic_cast<vxMain*>(frame->previousRoot)) {
        if (frame->previousRoot == this) {
            frame->previousRoot = previousRoot;
            return;
        }
    }
}

bool vxMain::InitAndRun(const std::string& appName, const std::string& version, int argc,
                        char** argv)
{
    (void)vxGlobal.versions->AddApplication(appName, version);
    LVX_GUARD_LATCH();
    LVX_CALL_OPEN(vxGlobal.debug);
    LVX_CALL_OPEN(vxGlobal.signals);
    LVX_CHECK(vxGlobal.signals.CreateMainThread());
    LVX_CHECK(main(argc, argv));
    return true;
}

bool vxMain::LoadPlugin(const std::string& pluginName)
{
    LVX_GUARD_LATCH();
    // The name ends at its first NUL, as a C caller would have passed it.
    LVX_CALL_OPEN(api, pluginName.substr(0, pluginName.find('\0')));
    return true;
}

void vxMain::Die(const char* format, ...)
{
    char message[1024];
    va_list args;
    va_start(args, format);
    (void)vsnprintf(message, sizeof message, format, args);
    va_end(args);
    std::cerr << "*** Error: " << message << std::endl;
    std::exit(1);
}

} // namespace veltrix
