// The version table: the application, the library and each loaded plug-in.
#pragma once

#include "vxBase.h"

#include <ostream>

namespace veltrix {

class VX_API vxVersions : public vxBase
{
public:
    std::string appName;
    std::string appVersion;
    std::vector<std::pair<std::string, std::string>> libraries;
    std::vector<std::pair<std::string, std::string>> plugins;

    vxVersions();
    explicit vxVersions(bool flag);
    LVX_NOT_COPYABLE(vxVersions);
    ~vxVersions() override;

    bool Open() override { return true; }

    /** Replaces the application row; always true. */
    bool AddApplication(const std::string& name, const std::string& version);
    /** Appends a library row (duplicates kept); always true. */
    bool AddLibraryInfo(const std::string& name, const std::string& version);
    /** Appends a plug-in row (duplicates kept); always true. */
    bool AddPluginInfo(const std::string& name, const std::string& version);
    /** Prints the "Name" / "Type" / "Version" table. It always goes to standard output; `out` is
     *  not written (kept so for existing callers). */
    void Display(const std::ostream& out);
};

} // namespace veltrix
