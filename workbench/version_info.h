// The "Version" box and the start-up version check.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace lumetra {

// The board part: "CameraLink Frame Grabber" or "CoaXPress Frame Grabber", "\nVersion: %u.%u.%u"
// (bits 16-23, 8-15, 0-7 of the version word) and "\nSerial Number: FG%02d%02d%04d" (bits 24-31,
// 16-23, 0-15 of the serial word); "\nNo Board Connected!" when either word could not be read.
std::string BoardVersionText(std::optional<uint32_t> version, std::optional<uint32_t> serial,
                             bool coaxpress);
// "\n" + the library's file name + " Version:" + "%d.%d.%d.%d" (all four 0 when unknown).
std::string LibraryVersionText(const std::string& fileName,
                               const std::optional<std::array<int, 4>>& version);

// Firmware 5.x below 5.19.2 is outdated; other majors never are.
bool FirmwareOutdated(uint32_t versionWord);
// Library 1.x below 1.7.29 is outdated; other majors never are.
bool LibraryOutdated(const std::array<int, 4>& version);

inline constexpr const char* kUpdateText = "Please Update Board Firmware and OrvixBoard Lib";

}  // namespace lumetra
