// Finding, opening and binding one crypto plug-in file.
#pragma once

#include "vxBase.h"

#include <string>
#include <utility>
#include <vector>

namespace veltrix {

/** What the library is prepared to take from a plug-in, and the addresses it got. */
class VX_API vxPluginAccepts : public vxBase
{
public:
    struct entry
    {
        std::string name;
        void* function = nullptr;
    };

    std::vector<entry> symbols;

    vxPluginAccepts();
    LVX_NOT_COPYABLE(vxPluginAccepts);
    ~vxPluginAccepts() override;
};

/** What a plug-in says it offers; filled by the plug-in's vx_init. */
class VX_API vxPluginProvides : public vxBase
{
public:
    std::string name;
    std::string version;
    /** (entry point, exported symbol) with the symbol always name + "_" + entry point. */
    std::vector<std::pair<std::string, std::string>> symbols;

    vxPluginProvides();
    LVX_NOT_COPYABLE(vxPluginProvides);
    ~vxPluginProvides() override;

    /** Announces an entry point. Fails with "Plugin name not set" or "Plugin version not set"
     *  when `name` or `version` is still empty. */
    bool AddSymbol(const char* symbol);
};

/** Loads one plug-in file. The file stays mapped until unloadPlugin (which nothing in the library
 *  calls), so bound entry points outlive the loader. */
class VX_API pluginLoader : public vxBase
{
public:
    void* handle = nullptr;
    bool loaded = false;
    std::string fileName;
    std::string path;
    vxPluginProvides provides;

    pluginLoader();
    LVX_NOT_COPYABLE(pluginLoader);
    ~pluginLoader() override;

    /** Finds "libveltrix_<name>.so" (or "lib<name>.so" when the name holds "_") on the
     *  ":"-separated search path, opens it, runs its vx_init and binds what it provides into
     *  `accepts`. Failure texts: "Handle already exists", "Illegal string component",
     *  "No such file or directory: <file>", the dlerror() text, "Unable to locate vx_init",
     *  "vx_init function pointer failed", "Boolean return value failed.". */
    bool loadPlugin(const std::string& searchPath, const std::string& name,
                    vxPluginAccepts& accepts);
    bool openPluginInternal();
    bool loadSymbols(vxPluginAccepts& accepts);
    bool linkSymbols(vxPluginAccepts& accepts);
    /** Binds one provided entry point; an entry point the library does not accept is ignored. */
    bool resolveSymbol(std::pair<std::string, std::string>& symbol, vxPluginAccepts& accepts);
    void unloadPlugin();

private:
    /** Walks the search path; true with `path` set to the first candidate that exists. */
    bool findPlugin(const std::string& searchPath);
};

} // namespace veltrix
