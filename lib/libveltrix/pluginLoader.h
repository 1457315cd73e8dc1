/// @file
/// Finding, opening and binding one crypto plug-in file.
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
    /** One accepted entry point and the address bound to it. */
    struct entry
    {
        std::string name;         ///< the entry point, such as "vxPluginMdOpen"
        void* function = nullptr; ///< its address; null until bound, or when the plug-in lacks it
    };

    std::vector<entry> symbols; ///< every accepted entry point (see vxApi::populatePluginAccepts)

    vxPluginAccepts();
    LVX_NOT_COPYABLE(vxPluginAccepts);
    ~vxPluginAccepts() override;
};

/** What a plug-in says it offers; filled by the plug-in's vx_init. */
class VX_API vxPluginProvides : public vxBase
{
public:
    std::string name;    ///< the plug-in's name; set by its vx_init before AddSymbol
    std::string version; ///< the plug-in's version; set by its vx_init before AddSymbol
    /** (entry point, exported symbol) with the symbol always name + "_" + entry point. */
    std::vector<std::pair<std::string, std::string>> symbols;

    vxPluginProvides();
    LVX_NOT_COPYABLE(vxPluginProvides);
    ~vxPluginProvides() override;

    /** Announces an entry point. Fails with "Plugin name not set" or "Plugin version not set"
     *  when `name` or `version` is still empty. */
    [[nodiscard]] bool AddSymbol(const char* symbol);
};

/** Loads one plug-in file. The file stays mapped until unloadPlugin (which nothing in the library
 *  calls), so bound entry points outlive the loader. */
class VX_API pluginLoader : public vxBase
{
public:
    void* handle = nullptr;    ///< the dlopen() handle; null until the file is opened
    bool loaded = false;       ///< set once the file is opened, cleared by unloadPlugin
    std::string fileName;      ///< the file name looked for on the search path
    std::string path;          ///< the candidate last tried; once found, the file's path
    vxPluginProvides provides; ///< what the plug-in's vx_init announced

    pluginLoader();
    LVX_NOT_COPYABLE(pluginLoader);
    ~pluginLoader() override;

    /** Finds "libveltrix_<name>.so" (or "lib<name>.so" when the name holds "_") on the
     *  ":"-separated search path, opens it, runs its vx_init and binds what it provides into
     *  `accepts`. Failure texts: "Handle already exists", "Illegal string component",
     *  "No such file or directory: <file>", the dlerror() text, "Unable to locate vx_init",
     *  "vx_init function pointer failed", "Boolean return value failed.". */
    [[nodiscard]] bool loadPlugin(const std::string& searchPath, const std::string& name,
                                  vxPluginAccepts& accepts);
    /** dlopen()s `path`; fails with the dlerror() text. */
    [[nodiscard]] bool openPluginInternal();
    /** Runs the plug-in's vx_init, binds what it provides into `accepts` and adds the plug-in to
     *  the version table. Fails with "Unable to locate vx_init" or "vx_init function pointer
     *  failed". */
    [[nodiscard]] bool loadSymbols(vxPluginAccepts& accepts);
    /** Binds every provided entry point through resolveSymbol. */
    [[nodiscard]] bool linkSymbols(vxPluginAccepts& accepts);
    /** Binds one provided entry point; an entry point the library does not accept is ignored. */
    [[nodiscard]] bool resolveSymbol(std::pair<std::string, std::string>& symbol,
                                     vxPluginAccepts& accepts);
    /** dlclose()s the file when it is loaded; addresses bound from it become invalid. */
    void unloadPlugin();

private:
    /** Walks the search path; true with `path` set to the first candidate that exists. */
    [[nodiscard]] VX_NO_EXPORT bool findPlugin(const std::string& searchPath);
};

} // namespace veltrix
