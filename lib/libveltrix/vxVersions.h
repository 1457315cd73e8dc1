/// @file
/// The version table: the application, the library and each loaded plug-in.
#pragma once

#include "vxBase.h"

#include <ostream>

namespace veltrix {

/** The application, the libraries and the plug-ins in use, with their versions
 *  (vxGlobal.versions). The library records itself; the loader records each plug-in. */
class VX_API vxVersions : public vxBase
{
public:
    std::string appName;                                        ///< set by AddApplication
    std::string appVersion;                                     ///< set by AddApplication
    std::vector<std::pair<std::string, std::string>> libraries; ///< (name, version), in order added
    std::vector<std::pair<std::string, std::string>> plugins;   ///< (name, version), in order added

    vxVersions();
    /** The same as the default constructor: `flag` is not used. */
    explicit vxVersions(bool flag);
    LVX_NOT_COPYABLE(vxVersions);
    ~vxVersions() override;

    [[nodiscard]] bool Open() override { return true; }

    /** Replaces the application row; always true. */
    [[nodiscard]] bool AddApplication(const std::string& name, const std::string& version);
    /** Appends a library row (duplicates kept); always true. */
    [[nodiscard]] bool AddLibraryInfo(const std::string& name, const std::string& version);
    /** Appends a plug-in row (duplicates kept); always true. */
    [[nodiscard]] bool AddPluginInfo(const std::string& name, const std::string& version);
    /** Prints the "Name" / "Type" / "Version" table. It always goes to standard output; `out` is
     *  not written (kept so for existing callers). */
    void Display(const std::ostream& out);
};

} // namespace veltrix
