// The file formats the still-image paths write and read with the libraries directly (libtiff,
// libpng) or by hand (PGM/PPM), so that none of them talks on the terminal: warnings and errors
// go to the debug output, and a failure comes back as one reason.
//
// Images are as image_files.h describes them: 8- or 16-bit samples, 1, 3 or 4 channels in B, G,
// R (, C) order. Thread: any.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "recording/image_files.h"

namespace lumetra::codecs {

// The whole TIFF into fd, which stays open. Strips of about 256 KiB; colour as RGB with the
// fourth sample as an unspecified extra sample; the compression and resolution of options.
bool WriteTiff(int fd, const std::string& name, const cv::Mat& image,
               const ImageSaveOptions& options, std::string& error);
// The first image of a TIFF: 8- and 16-bit samples as stored; anything else libtiff can read
// (palettes, fewer bits, YCbCr) as 8-bit grey or colour.
bool DecodeTiff(const uint8_t* data, size_t size, cv::Mat& image, std::string& error);

// 1 or 3 channels (a fourth is left out), 8 or 16 bits, zlib level 0 to 9.
bool EncodePng(const cv::Mat& image, int level, std::vector<uint8_t>& out, std::string& error);
bool DecodePng(const uint8_t* data, size_t size, cv::Mat& image, std::string& error);

// Binary PGM (one channel) or PPM (colour; a fourth channel is left out); 16-bit samples as
// maxval 65535, most significant byte first.
bool EncodePnm(const cv::Mat& image, bool colour, std::vector<uint8_t>& out, std::string& error);
// P2, P3, P5 and P6; samples as stored (no scaling to maxval).
bool DecodePnm(const uint8_t* data, size_t size, cv::Mat& image, std::string& error);
bool IsPnm(const uint8_t* data, size_t size);

// Whether a BMP holds all the pixel rows its header promises (uncompressed and bit-field BMPs;
// run-length ones are left to the decoder). False with the reason in error.
bool BmpComplete(const uint8_t* data, size_t size, std::string& error);

}  // namespace lumetra::codecs
