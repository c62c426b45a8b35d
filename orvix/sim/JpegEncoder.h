// On-board JPEG compression of model-10 boards, through libjpeg(-turbo). Samples wider than 8 bits
// are cut to their top 8 bits first (the encoder is 8-bit); colour frames keep their colours
// (decode with JCS_EXT_BGR to get B, G, R again); the fourth channel is dropped.
// Thread: one encoder per thread; encode() is not reentrant on the same object.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FrameFormat.h"

namespace orvix::sim {

struct JpegResult {
    bool ok = false;
    bool overflow = false;  // the compressed frame did not fit the output buffer
    size_t size = 0;
    std::string error;
};

class JpegEncoder {
  public:
    JpegResult encode(const uint8_t* frame, const FrameFormat& format, int quality, uint8_t* out,
                      size_t capacity);

  private:
    std::vector<uint8_t> row_;  // one row cut to 8 bits
};

}  // namespace orvix::sim
