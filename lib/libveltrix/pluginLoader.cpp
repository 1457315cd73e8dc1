// Finding, opening and binding the crypto plug-in.
#include "pluginLoader.h"

#include "vxGuard.h"
#include "vxPlugin.h"
#include "vxVersions.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <algorithm>

namespace veltrix {

LVX_DEFINE_LIFECYCLE(vxPluginAccepts)

LVX_DEFINE_LIFECYCLE(vxPluginProvides)

bool vxPluginProvides::AddSymbol(const char* symbol)
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(!name.empty(), LVX_MSG_NO_PLUGIN_NAME);
    LVX_ENSURE(!version.empty(), LVX_MSG_NO_PLUGIN_VERSION);
    symbols.emplace_back(symbol, name + "_" + symbol);
    return true;
}

LVX_DEFINE_LIFECYCLE(pluginLoader)

bool pluginLoader::loadPlugin(const std::string& searchPath, const std::string& pluginName,
                              vxPluginAccepts& accepts)
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(handle == nullptr, LVX_MSG_HANDLE_EXISTS);
    LVX_ENSURE(pluginName.find('/') == std::string::npos, LVX_MSG_ILLEGAL_NAME);
    // A name with "_" is already complete, so plug-ins of other families can be named directly.
    fileName = pluginName.find('_') == std::string::npos ? "libveltrix_" + pluginName + ".so"
                                                         : "lib" + pluginName + ".so";
    if (!findPlugin(searchPath)) {
        const std::string text = LVX_MSG_NO_SUCH_FILE + fileName;
        LVX_GUARD_LATCH();
        LVX_FAIL("%s", text.c_str());
    }
    LVX_CHECK(openPluginInternal());
    return loadSymbols(accepts);
}

bool pluginLoader::findPlugin(const std::string& searchPath)
{
    // A component runs up to the next ":" from its start, but the separator that leads to the
    // following component is searched for from one past the previous one (from index 1 for the
    // first). A leading ":" therefore tries "/" + file first and skips the second component.
    std::string::size_type start = 0;
    std::string::size_type searchFrom = 1;
    for (;;) {
        const std::string component = searchPath.substr(start, searchPath.find(':', start) - start);
        path = component + "/" + fileName;

        struct stat info
        {
        };

        // lstat as well: a dangling link is taken here and fails in the open, with its reason.
        if (stat(path.c_str(), &info) == 0 || lstat(path.c_str(), &info) == 0) {
            return true;
        }
        const std::string::size_type separator = searchPath.find(':', searchFrom);
        if (separator == std::string::npos) {
            return false; // quiet: the caller reports the file name
        }
        start = separator + 1;
        searchFrom = separator + 1;
    }
}

bool pluginLoader::openPluginInternal()
{
    handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_GLOBAL);
    if (handle == nullptr) {
        const std::string reason = dlerror();
        LVX_GUARD_LATCH();
        LVX_FAIL("%s", reason.c_str());
    }
    loaded = true;
    return true;
}

bool pluginLoader::loadSymbols(vxPluginAccepts& accepts)
{
    void* const entry = dlsym(handle, "vx_init");
    LVX_GUARD_LATCH();
    LVX_ENSURE(entry != nullptr, LVX_MSG_NO_VX_INIT);
    const auto init = reinterpret_cast<vx_init_t>(entry);
    const bool initialised = init(this, &provides);
    LVX_GUARD_LATCH(); // the plug-in may have failed inside vx_init
    LVX_ENSURE(initialised, LVX_MSG_VX_INIT_FAILED);
    LVX_CHECK(linkSymbols(accepts));
    vxGlobal.tryInit();
    (void)vxGlobal.versions->AddPluginInfo(provides.name, provides.version);
    return true;
}

bool pluginLoader::linkSymbols(vxPluginAccepts& accepts)
{
    for (std::pair<std::string, std::string>& symbol : provides.symbols) {
        LVX_CHECK(resolveSymbol(symbol, accepts));
    }
    return true;
}

bool pluginLoader::resolveSymbol(std::pair<std::string, std::string>& symbol,
                                 vxPluginAccepts& accepts)
{
    const auto found =
        std::find_if(accepts.symbols.begin(), accepts.symbols.end(),
                     [&symbol](const vxPluginAccepts::entry& e) { return e.name == symbol.first; });
    if (found == accepts.symbols.end()) {
        // A plug-in may offer more than this library knows; the surplus is ignored without a
        // trace ("Unable to locate method: " is deliberately not recorded).
        return true;
    }
    // Stored as it is, also when missing: users of the registry own that check.
    found->function = dlsym(handle, symbol.second.c_str());
    return true;
}

void pluginLoader::unloadPlugin()
{
    if (loaded) {
        (void)dlclose(handle);
        handle = nullptr;
        loaded = false;
    }
}

} // namespace veltrix
