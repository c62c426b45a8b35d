// JPEG data, a file's or a compressing board's frame, decoded with libjpeg-turbo.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <opencv2/core/mat.hpp>

namespace lumetra {

// Decodes into 8-bit grey or B, G, R. A damaged or truncated stream is refused with the reason in
// error, never decoded half grey.
bool DecodeJpeg(const uint8_t* data, size_t size, cv::Mat& image, std::string& error);

}  // namespace lumetra
