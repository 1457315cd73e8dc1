// The version table.
#include "vxVersions.h"

#include "uiTable.h"
#include "vxGuard.h"

#include <iostream>

namespace veltrix {

LVX_DEFINE_LIFECYCLE(vxVersions)

vxVersions::vxVersions(bool /*flag*/) : vxVersions() {}

bool vxVersions::AddApplication(const std::string& rowName, const std::string& version)
{
    appName = rowName;
    appVersion = version;
    return true;
}

bool vxVersions::AddLibraryInfo(const std::string& rowName, const std::string& version)
{
    libraries.emplace_back(rowName, version);
    return true;
}

bool vxVersions::AddPluginInfo(const std::string& rowName, const std::string& version)
{
    plugins.emplace_back(rowName, version);
    return true;
}

void vxVersions::Display(const std::ostream& /*out*/)
{
    libuiTable::uiTable table;
    const auto nameColumn = table.createColumn("Name");
    const auto typeColumn = table.createColumn("Type");
    const auto versionColumn = table.createColumn("Version");
    const auto addRow = [&](const std::string& rowName, const char* type,
                            const std::string& version) {
        libuiTable::uiRow& row = table.createRow();
        (void)row.Insert(nameColumn, rowName);
        (void)row.Insert(typeColumn, type);
        (void)row.Insert(versionColumn, version);
    };
    const auto addGroup = [&](const auto& group, const char* type) {
        if (group.empty()) {
            return;
        }
        table.createDecorRow();
        for (const auto& [rowName, version] : group) {
            addRow(rowName, type, version);
        }
    };
    addRow(appName, "Application", appVersion);
    addGroup(libraries, "Library");
    addGroup(plugins, "Plug-in");
    table.Display(std::cout);
}

} // namespace veltrix
