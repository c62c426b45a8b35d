#include "acquisition/resource_config.h"

#include <filesystem>

#include "acquisition/board_library.h"
#include "base/ini_file.h"

namespace lumetra {

std::string ResourceConfigPath(Settings& settings) {
    std::filesystem::path prefix;
    if (auto dir = settings.readSystemString(kInstallKey, "Directory"); dir && !dir->empty()) {
        prefix = *dir;
    } else {
        prefix = std::filesystem::path(ExecutableDirectory()).parent_path();
    }
    return (prefix / "share" / "lumetra" / "Resource" / "BoardConfig.ini").string();
}

ResourceConfig LoadResourceConfig(const std::string& path) {
    ResourceConfig rc;
    auto ini = IniFile::Load(path);
    if (!ini) {
        return rc;
    }
    rc.path = path;
    rc.softwareName = ini->value("Config", "SoftwareName", rc.softwareName);
    rc.libraryName = ini->value("Config", "LibraryName", rc.libraryName);
    rc.softwareBackground = ini->value("Config", "SoftwareBackground");
    rc.softwareIcon = ini->value("Config", "SoftwareIcon");
    return rc;
}

}  // namespace lumetra
