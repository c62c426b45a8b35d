// Board configuration files: a versioned text file of every persistent parameter, closed by a
// CRC-32 of everything before it.
//
//   OrvixBoardConfiguration 1
//   # board: PCIe-CL Full Simulator
//   0x10000001=1920
//   ...
//   crc32=0x1A2B3C4D
//
// Thread: pure functions over the store they are given; the caller serialises store access.
#pragma once

#include <string>
#include <string_view>

#include "ParameterStore.h"
#include "Status.h"

namespace orvix::sim {

inline constexpr std::string_view kConfigurationMagic = "OrvixBoardConfiguration";
inline constexpr uint32_t kConfigurationVersion = 1;

std::string serializeConfiguration(const ParameterStore& store, std::string_view boardName);
// Reads and checks a whole file (version, checksum, syntax, completeness) into values; nothing
// is applied. Codes: ORVIX_ERR_FILE_VERSION, ORVIX_ERR_FILE_DAMAGED, ORVIX_ERR_INVALID_PARAMETER.
Status parseConfiguration(std::string_view text, const ParameterStore& store,
                          ParameterValues& values);

// Written to a temporary file beside `path` and renamed over it, so a failed save leaves any
// existing file as it was.
Status saveConfiguration(const ParameterStore& store, std::string_view boardName,
                         const std::string& path);
// Leaves the store untouched unless the whole file is acceptable.
Status loadConfiguration(ParameterStore& store, const std::string& path);

uint32_t crc32Of(std::string_view bytes);

}  // namespace orvix::sim
