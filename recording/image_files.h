// Still images: the Frame image to and from BMP, JPEG, PNG, TIFF, PGM/PPM and raw files.
//
// Pixels are handed over as the Frame image holds them: 8-bit or 16-bit samples (wider samples
// sit in 16-bit words, unscaled), 1, 3 or 4 channels, colour in B, G, R (and C) order. Files get
// their own order (RGB); 16-bit samples stay 16-bit in PNG, TIFF, PGM/PPM and raw, and keep their
// top eight significant bits in BMP and JPEG. A fourth "C" sample is kept only by TIFF (as an
// extra sample) and raw. PGM holds one channel, PPM colour.
//
// The image libraries report nothing on the terminal: their warnings and errors go to the debug
// output, and a failure comes back as one reason.
//
// Raw files are the samples exactly as held, without a header: rows top to bottom, no padding,
// channels interleaved in the held order (B, G, R, C), one byte per sample when a sample has 8
// bits, otherwise one 16-bit little-endian word. Their size is width x height x channels x
// bytes per sample; importing one needs width, height, bits per sample and channels.
//
// Saving never damages an existing file: the data go to a temporary file in the same folder,
// which replaces the target only once it is complete (StageImageFile and Commit split the two, so
// that a sequence puts its files in place in their order). Devices such as /dev/full are written
// in place.
//
// Thread: any; the functions that take the Frame image take its frame lock themselves.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "base/messages.h"
#include "imaging/frame_image.h"

namespace lumetra {

enum class ImageFileType { kUnknown, kBmp, kJpeg, kPng, kTiff, kRaw, kPgm, kPpm };

// By the extension after the last ".", in any case: bmp, jpg, jpeg, png, tif, tiff, raw, pgm, ppm.
ImageFileType ImageFileTypeOf(std::string_view path);
// The extensions the save dialog offers, by the "ImageSave"/"ImageType" index: 0 "bmp", 1 "jpg",
// 2 "png", 3 "tif", 4 "raw"; "bmp" for any other index.
std::string_view ImageTypeExtension(int index);

// TIFF compression; the compressed ones use the horizontal predictor.
enum class TiffCompression { kNone, kLzw, kDeflate, kZstd };

// "none", "lzw", "deflate", "zstd" (any case); empty for any other name.
std::optional<TiffCompression> TiffCompressionOf(std::string_view name);
std::string_view TiffCompressionName(TiffCompression compression);
// Whether the libtiff in use can write it (Debian's builds Deflate and Zstandard in).
bool TiffCompressionAvailable(TiffCompression compression);

// The resolutions a TIFF may be given, dots per inch.
inline constexpr int kMinTiffDpi = 96;
inline constexpr int kMaxTiffDpi = 1000;

struct ImageSaveOptions {
    TiffCompression tiffCompression = TiffCompression::kNone;
    int dpiX = 96;  // TIFF resolution, dots per inch
    int dpiY = 96;
    int jpegQuality = 95;
    // zlib level of PNG files: the fastest by default, so that sequences keep up.
    int pngLevel = 1;
    // Bits a 16-bit sample carries (9 to 16): BMP and JPEG take bits (significantBits - 8) and up.
    int significantBits = 16;
};

// A complete file waiting beside its target: Commit puts it in place; dropping it uncommitted
// removes it. An in-place write (a device) has nothing to commit.
class StagedImageFile {
  public:
    StagedImageFile() = default;
    StagedImageFile(StagedImageFile&& other) noexcept;
    StagedImageFile& operator=(StagedImageFile&& other) noexcept;
    StagedImageFile(const StagedImageFile&) = delete;
    StagedImageFile& operator=(const StagedImageFile&) = delete;
    ~StagedImageFile() { Discard(); }

    // Renames the temporary file over the target. False with the reason in error.
    bool Commit(std::string& error);
    void Discard();
    bool pending() const { return !temp_.empty(); }

  private:
    friend bool StageImageFile(const cv::Mat&, const std::string&, const ImageSaveOptions&,
                               StagedImageFile&, std::string&);
    std::string target_;
    std::string temp_;
};

// Writes image in the format path's extension names into a temporary file beside path. False
// with the reason in error, leaving nothing behind.
bool StageImageFile(const cv::Mat& image, const std::string& path, const ImageSaveOptions& options,
                    StagedImageFile& staged, std::string& error);

// Saves image to path in the format its extension names. False with the reason in error.
bool SaveImageFile(const cv::Mat& image, const std::string& path, const ImageSaveOptions& options,
                   std::string& error);

// Reads a BMP, JPEG, PNG, TIFF, PGM or PPM file, told apart by its content. 8-bit or 16-bit
// samples, 1, 3 or 4 channels, colour in B, G, R (, C) order. False with the reason in error; a
// damaged or truncated file is refused, not half-read.
bool LoadImageFile(const std::string& path, cv::Mat& image, std::string& error);

// Reads one image file and writes it in the format of out's extension (lumetra-cli convert).
bool ConvertImageFile(const std::string& in, const std::string& out,
                      const ImageSaveOptions& options, std::string& error);

struct RawLayout {
    int width = 0;
    int height = 0;
    int bitsPerSample = 8;  // 8 to 16
    int channels = 1;       // 1, 3 or 4
    uint64_t bytes() const;
};

// Reads a raw file of the given layout; a file of another size is refused with both sizes.
bool LoadRawImageFile(const std::string& path, const RawLayout& layout, cv::Mat& image,
                      std::string& error);

// The Frame image's raw image, copied under the frame lock, and the bits its samples carry.
struct FrameSnapshot {
    cv::Mat pixels;
    int bitsPerSample = 8;
};
// False when the Frame image holds no image.
bool SnapshotFrame(FrameImage& frame, FrameSnapshot& snapshot);

// Makes the Frame image the image's size, channels and depth and copies it in, under the frame
// lock; then posts the frame-size and paint messages. The Frame image is left alone when the
// image has an unsupported shape; false with the reason in error.
bool AdoptImage(FrameImage& frame, const cv::Mat& image, int bitsPerSample, MessageSink* sink,
                std::string& error);

// "Open Image": loads the file into the Frame image, or logs why not and leaves it as it was.
bool OpenImageIntoFrame(FrameImage& frame, const std::string& path, MessageLog& log,
                        MessageSink* sink);
// Raw import with the user's layout, the same way.
bool ImportRawIntoFrame(FrameImage& frame, const std::string& path, const RawLayout& layout,
                        MessageLog& log, MessageSink* sink);

// The log lines of a failed open or save: "Open image fail: PATH: REASON\n".
std::string OpenFailedText(const std::string& path, const std::string& reason);
std::string SaveFailedText(const std::string& path, const std::string& reason);

}  // namespace lumetra
