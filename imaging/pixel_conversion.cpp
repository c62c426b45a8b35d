#include "imaging/pixel_conversion.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include <opencv2/imgproc.hpp>

#include "imaging/display_modes.h"
#include "imaging/kernel_clones.h"
#include "imaging/row_bands.h"

namespace lumetra {

namespace {

// rint rounds half to even in the default rounding mode, which nothing here changes; unlike
// nearbyint the compiler vectorises it.
template <typename T>
[[gnu::always_inline]] inline T RoundClamp(double value, double maxValue) {
    return static_cast<T>(std::min(std::max(std::rint(value), 0.0), maxValue));
}

template <typename T>
LUMETRA_KERNEL_CLONES void LumaChromaRow(const T* src, T* dst, int width, double maxValue) {
    for (int x = 0; x < width; ++x) {
        const double b = src[4 * x];
        const double g = src[4 * x + 1];
        const double r = src[4 * x + 2];
        const T c = src[4 * x + 3];
        const double y = 0.299 * r + 0.587 * g + 0.114 * b;
        const double cr = 0.5 * r - 0.41869 * g - 0.08131 * b + 128;
        const double cb = -0.16874 * r - 0.33126 * g + 0.5 * b + 128;
        dst[4 * x] = RoundClamp<T>(y, maxValue);
        dst[4 * x + 1] = RoundClamp<T>(cr, maxValue);
        dst[4 * x + 2] = RoundClamp<T>(cb, maxValue);
        dst[4 * x + 3] = c;
    }
}

template <typename T>
LUMETRA_KERNEL_CLONES void CCrCbRow(T* p, int width, double maxValue) {
    for (int x = 0; x < width; ++x) {
        const double cr = static_cast<double>(p[4 * x + 1]) - 128;
        const double cb = static_cast<double>(p[4 * x + 2]) - 128;
        const double c = p[4 * x + 3];
        const double first = c + 1.772 * cb;
        const double second = c - 0.34414 * cb - 0.71414 * cr;
        const double third = c + 1.402 * cr;
        p[4 * x] = RoundClamp<T>(first, maxValue);
        p[4 * x + 1] = RoundClamp<T>(second, maxValue);
        p[4 * x + 2] = RoundClamp<T>(third, maxValue);
    }
}

// 8-bit samples clamp at 255 whatever the format says.
double ClampFor(const ImageBuffer& image, int pixelBitCount) {
    return image.depth() == 8 ? 255.0 : MaxSampleValue(pixelBitCount, image.channels());
}

template <typename T>
void ForEachRow4(const ImageBuffer& src, ImageBuffer& dst, int threads, double maxValue,
                 bool inverse) {
    const int width = src.width();
    if (threads <= 0) {
        threads = AutoThreadCount(src.height(), int64_t{width} * 4);
    }
    ForEachRowBand(src.height(), threads, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            // Rows by the widthStep in 64 bits: a block may be larger than 2 GiB.
            const auto* s = reinterpret_cast<const T*>(src.data() + static_cast<std::size_t>(y) *
                                                                        src.widthStep());
            auto* d =
                reinterpret_cast<T*>(dst.data() + static_cast<std::size_t>(y) * dst.widthStep());
            if (inverse) {
                CCrCbRow<T>(d, width, maxValue);
            } else {
                LumaChromaRow<T>(s, d, width, maxValue);
            }
        }
    });
}

bool SameShape(const ImageBuffer& a, const ImageBuffer& b) {
    return a.depth() == b.depth() && a.channels() == b.channels() && a.width() == b.width() &&
           a.height() == b.height();
}

template <typename T>
void CopyPhase(const ImageBuffer& raw, ImageBuffer& aux, int rowOffset, int columnOffset) {
    for (int r = 0; r < aux.height(); ++r) {
        const auto* s = reinterpret_cast<const T*>(
            raw.data() + static_cast<std::size_t>(2 * r + rowOffset) * raw.widthStep());
        auto* d = reinterpret_cast<T*>(aux.data() + static_cast<std::size_t>(r) * aux.widthStep());
        for (int c = 0; c < aux.width(); ++c) {
            d[c] = s[2 * c + columnOffset];
        }
    }
}

template <typename T>
void ShiftLeft(cv::Mat& image, int shift) {
    for (int y = 0; y < image.rows; ++y) {
        T* p = image.ptr<T>(y);
        const std::size_t n = static_cast<std::size_t>(image.cols) * image.channels();
        for (std::size_t i = 0; i < n; ++i) {
            p[i] = static_cast<T>(p[i] << shift);
        }
    }
}

}  // namespace

int MaxSampleValue(int pixelBitCount, int channels) {
    switch (pixelBitCount) {
        case 8:
        case 24:
        case 32:
            return 255;
        case 10:
        case 30:
        case 40:
            return 1023;
        case 12:
        case 36:
            return 4095;
        case 14:
        case 42:
        case 56:
            return 16383;
        case 16:
        case 64:
            return 65535;
        case 48:
            return channels == 1 || channels == 3 ? 65535 : 4095;
        default:
            // Not 255: kept as the pipeline has always clamped unknown formats.
            return 256;
    }
}

int HighBitShift(int pixelBitCount, int displayChannels) {
    switch (pixelBitCount) {
        case 10:
        case 30:
        case 40:
            return 6;
        case 12:
        case 36:
            return 4;
        case 14:
        case 42:
            return 2;
        case 48:
            return displayChannels == 3 ? 4 : 2;
        default:
            // 16, 56 and 64 included: 56 is a 14-bit format, yet it has always been drawn as is.
            return 0;
    }
}

bool LumaChromaImage(const ImageBuffer& raw, ImageBuffer& aux, int pixelBitCount, int threads) {
    if (!raw.hasImage() || !aux.hasImage() || !SameShape(raw, aux)) {
        return false;
    }
    if (raw.channels() == 3) {
        ImageBuffer::ConvertColour(raw, aux, cv::COLOR_BGR2YCrCb);
        return true;
    }
    if (raw.channels() != 4) {
        return false;
    }
    const double maxValue = ClampFor(raw, pixelBitCount);
    if (raw.depth() == 8) {
        ForEachRow4<uint8_t>(raw, aux, threads, maxValue, false);
    } else {
        ForEachRow4<uint16_t>(raw, aux, threads, maxValue, false);
    }
    return true;
}

bool CCrCbToRgb(ImageBuffer& aux, int pixelBitCount, int threads) {
    if (!aux.hasImage() || aux.channels() != 4) {
        return false;
    }
    const double maxValue = ClampFor(aux, pixelBitCount);
    if (aux.depth() == 8) {
        ForEachRow4<uint8_t>(aux, aux, threads, maxValue, true);
    } else {
        ForEachRow4<uint16_t>(aux, aux, threads, maxValue, true);
    }
    return true;
}

bool BayerPhasePlane(const ImageBuffer& raw, ImageBuffer& aux, int mode) {
    if (!IsChannelMode(mode) || !raw.hasImage() || !aux.hasImage() || raw.channels() != 1 ||
        aux.channels() != 1 || aux.depth() != raw.depth() || aux.width() != raw.width() / 2 ||
        aux.height() != raw.height() / 2) {
        return false;
    }
    const int rowOffset = mode == kModeChannel2 || mode == kModeChannel3 ? 1 : 0;
    const int columnOffset = mode == kModeChannel1 || mode == kModeChannel3 ? 1 : 0;
    if (raw.depth() == 8) {
        CopyPhase<uint8_t>(raw, aux, rowOffset, columnOffset);
    } else {
        CopyPhase<uint16_t>(raw, aux, rowOffset, columnOffset);
    }
    return true;
}

void UpdateLumaChromaImage(FrameImage& frame, int pixelBitCount, int displayMode) {
    if (!IsLumaChromaMode(displayMode)) {
        return;
    }
    {
        std::lock_guard lock(frame.frameLock());
        if (frame.raw().channels() <= 1 ||
            !LumaChromaImage(frame.raw(), frame.aux(), pixelBitCount)) {
            return;
        }
    }
    // The auxiliary image is the pipeline's own: the rebuild needs no frame lock.
    if (displayMode == kModeCCrCbToRgb) {
        CCrCbToRgb(frame.aux(), pixelBitCount);
    }
}

void ShiftLeftInPlace(cv::Mat& image, int shift) {
    if (image.depth() != CV_16U || shift <= 0) {
        return;
    }
    if (shift >= 16) {
        image.setTo(cv::Scalar::all(0));
        return;
    }
    ShiftLeft<uint16_t>(image, shift);
}

void ShiftRightToEightBit(const cv::Mat& image, cv::Mat& eightBit, int shift) {
    if (image.depth() != CV_16U) {
        return;
    }
    eightBit.create(image.size(), CV_MAKETYPE(CV_8U, image.channels()));
    shift = std::max(shift, 0);
    for (int y = 0; y < image.rows; ++y) {
        const uint16_t* s = image.ptr<uint16_t>(y);
        uint8_t* d = eightBit.ptr<uint8_t>(y);
        const std::size_t n = static_cast<std::size_t>(image.cols) * image.channels();
        for (std::size_t i = 0; i < n; ++i) {
            d[i] = shift >= 16 ? 0 : static_cast<uint8_t>(s[i] >> shift);
        }
    }
}

}  // namespace lumetra
