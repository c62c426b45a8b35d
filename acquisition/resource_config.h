// The installation's resource file, BoardConfig.ini, section "Config".
#pragma once

#include <string>

#include "base/settings.h"

namespace lumetra {

struct ResourceConfig {
    std::string softwareName = "Lumetra";
    std::string libraryName = "OrvixBoard";
    std::string softwareBackground;  // image shown in the view when no frame is there
    std::string softwareIcon;
    std::string path;  // the file read, empty when none was found
};

inline constexpr const char* kInstallKey = "SOFTWARE\\KELM\\Lumetra";

// <prefix>/share/lumetra/Resource/BoardConfig.ini, where <prefix> is the system-scope
// "Directory" value when set and else the folder above the executable's bin/.
std::string ResourceConfigPath(Settings& settings);

// A missing or unreadable file leaves every key at its default.
ResourceConfig LoadResourceConfig(const std::string& path);

}  // namespace lumetra
