// Raw image files: the samples alone, no header. Rows follow each other without padding, the
// samples of a pixel are interleaved in the frame's own order (B, G, R and C for colour), and
// samples of more than 8 bits take two bytes, little-endian, with the data in the low bits. The
// size, channels and sample width are not in the file: the reader is told them.
#pragma once

#include <string>

#include <opencv2/core/mat.hpp>

#include "imaging/image_buffer.h"

namespace lumetra {

struct RawLayout {
    int width = 0;
    int height = 0;
    int channels = 1;       // 1, 3 or 4
    int bitsPerSample = 8;  // 8 takes one byte a sample, 9 to 16 two
};

// True for "*.raw" (any case).
bool IsRawImagePath(const std::string& path);

// Reads the file into image (made 8- or 16-bit to fit). The file must hold exactly the layout's
// bytes. On failure returns false with the reason in error and leaves image as it was.
bool ReadRawImage(const std::string& path, const RawLayout& layout, ImageBuffer& image,
                  std::string& error);

// Writes an 8- or 16-bit image of any channel count. False with the reason on failure.
bool WriteRawImage(const std::string& path, const cv::Mat& image, std::string& error);

}  // namespace lumetra
