// Names of the ABI's parameter ids, for the texts of the last-error record.
// Thread: immutable data; safe from any thread.
#pragma once

#include <cstdint>
#include <string>

namespace orvix::aravis {

// "image width (0x10000001)"; ids outside the ABI give "parameter 0x........".
std::string describeParameter(uint32_t id);
// Whether the id is one of the ABI's parameter ids.
bool isKnownParameter(uint32_t id);

}  // namespace orvix::aravis
