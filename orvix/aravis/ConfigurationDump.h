// The camera's configuration file: a versioned dump of its feature values with a checksum.
//
//   OrvixAravisConfiguration 1
//   @vendor=Aravis
//   @model=Fake
//   @buffers=8
//   @colour=1
//   Width=512
//   TriggerMode[TriggerSelector=FrameStart]=Off
//   crc32=0x1234ABCD
//
// Lines starting with @ hold the camera's identity and the library's own settings (ring size,
// colour order); the others are GenICam features, those behind a selector with the selector's
// value in brackets. Values escape backslash, CR and LF. The checksum (CRC-32, as zlib computes
// it) covers every byte before its line. This file only reads and writes the text.
// Thread: pure functions; safe from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Status.h"

namespace orvix::aravis {

inline constexpr std::string_view kDumpMagic = "OrvixAravisConfiguration";
inline constexpr uint32_t kDumpVersion = 1;

struct FeatureValue {
    std::string feature;
    std::vector<std::pair<std::string, std::string>> selectors;  // set first, in order
    std::string value;
    int line = 0;  // in the file it was read from
};

struct CameraDump {
    std::string vendor;
    std::string model;
    uint32_t buffers = 8;
    uint32_t colour = 1;
    std::vector<FeatureValue> features;
};

uint32_t crc32Of(std::string_view bytes);

std::string serializeDump(const CameraDump& dump);

// Fails with 8 (damaged) for a file that is not such a dump, is cut short, has a wrong checksum
// or a malformed line, and with 7 for a dump of another version. A file of another version is
// judged before its checksum: it may well use another one.
Status parseDump(std::string_view text, CameraDump& dump);

// GenICam feature names: letters, digits and underscores.
bool isFeatureName(std::string_view name);

}  // namespace orvix::aravis
