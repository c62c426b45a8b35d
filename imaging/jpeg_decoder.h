// JPEG data, a file's or a compressing board's frame, decoded with libjpeg-turbo.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <opencv2/core/mat.hpp>

namespace lumetra {

// The picture a board's frame must hold: its size is known before a byte is decoded.
struct JpegShape {
    int width = 0;
    int height = 0;
    int channels = 0;
};

// Decodes into 8-bit grey or B, G, R. A damaged or truncated stream is refused with the reason in
// error, never decoded half grey. With expected, a stream whose header claims another size or
// layout is refused before anything is allocated for it: a damaged frame header may claim
// gigapixels.
bool DecodeJpeg(const uint8_t* data, size_t size, cv::Mat& image, std::string& error,
                const JpegShape* expected = nullptr);

}  // namespace lumetra
