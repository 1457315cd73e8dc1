// A plug-in that fails the loader in one chosen way (see CMakeLists.txt). The "fake" variant
// loads: it announces vxPluginMdOpen (exported), vxPluginMdInit (not exported) and
// vxPluginFrobnicate (exported, unknown to the library).
#include "pluginLoader.h"
#include "vxGlobal.h"
#include "vxPlugin.h"

using veltrix::pluginLoader;
using veltrix::vxPluginProvides;
using veltrix::vxPluginStorage;

#ifndef FAKE_NO_INIT
VX_PLUGIN_EXPORT bool vx_init(pluginLoader* loader, vxPluginProvides* provides)
{
#if defined(FAKE_INIT_FALSE)
    (void)loader;
    (void)provides;
    return false;
#elif defined(FAKE_LATCH)
    (void)provides;
    loader->addHistory(__PRETTY_FUNCTION__, __FILE__, __LINE__);
    loader->addMessage("%s", "fake plug-in latched");
    vxGlobal.stackTrace.errorLatch = true;
    return true;
#else
    (void)loader;
#ifndef FAKE_NO_NAME
    provides->name = "fake";
#endif
#ifndef FAKE_NO_VERSION
    provides->version = "0.1";
#endif
    return provides->AddSymbol("vxPluginMdOpen") && provides->AddSymbol("vxPluginMdInit") &&
           provides->AddSymbol("vxPluginFrobnicate");
#endif
}
#endif

VX_PLUGIN_EXPORT bool fake_vxPluginMdOpen(vxPluginStorage* /*st*/, uint32_t algorithm)
{
    return algorithm == 1;
}

VX_PLUGIN_EXPORT bool fake_vxPluginFrobnicate()
{
    return true;
}
