#include "recording/recording_settings.h"

namespace lumetra {

using namespace recording_settings;

VideoRateSettings ReadVideoRateSettings(Settings& settings) {
    VideoRateSettings s;
    s.limit = settings.readInt(kVideo, kFrameRateLimit, kFrameRateLimitDefault) != 0;
    s.cap = settings.readInt(kVideo, kFrameRate, kFrameRateDefault);
    return s;
}

ImageSaveOptions ReadImageSaveOptions(Settings& settings) {
    ImageSaveOptions o;
    if (settings.readInt(kStatusInfo, kTifCompression, 0) != 0) {
        const auto type =
            TiffCompressionOf(settings.readString(kStatusInfo, kTifCompressionType, "lzw"));
        o.tiffCompression =
            type && *type != TiffCompression::kNone && TiffCompressionAvailable(*type)
                ? *type
                : TiffCompression::kLzw;
    }
    o.dpiX = settings.readInt(kStatusInfo, kTifDpiX, kTifDpiDefault);
    o.dpiY = settings.readInt(kStatusInfo, kTifDpiY, kTifDpiDefault);
    return o;
}

}  // namespace lumetra
