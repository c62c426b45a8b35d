#include "workbench/version_info.h"

#include <cstdio>

namespace lumetra {

std::string BoardVersionText(std::optional<uint32_t> version, std::optional<uint32_t> serial,
                             bool coaxpress) {
    if (!version || !serial) {
        return "\nNo Board Connected!";
    }
    char text[160];
    std::snprintf(text, sizeof text, "%s\nVersion: %u.%u.%u\nSerial Number: FG%02d%02d%04d",
                  coaxpress ? "CoaXPress Frame Grabber" : "CameraLink Frame Grabber",
                  (*version >> 16) & 0xFF, (*version >> 8) & 0xFF, *version & 0xFF,
                  static_cast<int>((*serial >> 24) & 0xFF),
                  static_cast<int>((*serial >> 16) & 0xFF), static_cast<int>(*serial & 0xFFFF));
    return text;
}

std::string LibraryVersionText(const std::string& fileName,
                               const std::optional<std::array<int, 4>>& version) {
    const std::array<int, 4> v = version.value_or(std::array<int, 4>{0, 0, 0, 0});
    char numbers[64];
    std::snprintf(numbers, sizeof numbers, "%d.%d.%d.%d", v[0], v[1], v[2], v[3]);
    return "\n" + fileName + " Version:" + numbers;
}

bool FirmwareOutdated(uint32_t versionWord) {
    const uint32_t major = (versionWord >> 16) & 0xFF;
    const uint32_t minor = (versionWord >> 8) & 0xFF;
    const uint32_t patch = versionWord & 0xFF;
    return major == 5 && (minor < 19 || (minor == 19 && patch < 2));
}

bool LibraryOutdated(const std::array<int, 4>& v) {
    return v[0] == 1 && (v[1] < 7 || (v[1] == 7 && v[2] < 29));
}

}  // namespace lumetra
