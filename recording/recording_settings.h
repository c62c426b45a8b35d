// The settings the recording paths read, with their sections, value names and defaults.
//
//   "Video"/"FrameRateLimit"   0      1: cap the recording rate at "FrameRate" and pace frames to
//                                     it; errors then go on in a new file at half the rate.
//                                     0: record every frame at the board's rate; an error ends
//                                     the recording.
//   "Video"/"FrameRate"        30     the cap, frames per second
//   "StatusInfo"/"TifCompression" 0   0: TIFF without compression; any other value: compressed
//                                     with "TifCompressionType"
//   "StatusInfo"/"TifCompressionType" "lzw"  "lzw", "deflate" or "zstd"; any other text: LZW
//   "StatusInfo"/"TifDpiX"     96     TIFF resolution, dots per inch
//   "StatusInfo"/"TifDpiY"     96
//   "ImageSave"/"ImageType"    0      the save dialog's file type: 0 bmp, 1 jpg, 2 png, 3 tif, 4
//   raw
#pragma once

#include <string_view>

#include "base/settings.h"
#include "recording/image_files.h"

namespace lumetra {

namespace recording_settings {
inline constexpr std::string_view kVideo = "Video";
inline constexpr std::string_view kFrameRateLimit = "FrameRateLimit";
inline constexpr std::string_view kFrameRate = "FrameRate";
inline constexpr int kFrameRateLimitDefault = 0;
inline constexpr int kFrameRateDefault = 30;

inline constexpr std::string_view kStatusInfo = "StatusInfo";
inline constexpr std::string_view kTifCompression = "TifCompression";
inline constexpr std::string_view kTifCompressionType = "TifCompressionType";
inline constexpr std::string_view kTifDpiX = "TifDpiX";
inline constexpr std::string_view kTifDpiY = "TifDpiY";
inline constexpr int kTifDpiDefault = 96;

inline constexpr std::string_view kImageSave = "ImageSave";
inline constexpr std::string_view kImageType = "ImageType";
}  // namespace recording_settings

struct VideoRateSettings {
    bool limit = false;
    double cap = recording_settings::kFrameRateDefault;
};

VideoRateSettings ReadVideoRateSettings(Settings& settings);
// TIFF compression and resolution from the settings; the rest at their defaults. A compression
// this libtiff lacks falls back to LZW.
ImageSaveOptions ReadImageSaveOptions(Settings& settings);

}  // namespace lumetra
