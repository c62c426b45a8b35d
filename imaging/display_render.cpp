#include "imaging/display_render.h"

#include <algorithm>
#include <string>

#include <opencv2/core.hpp>

#include "imaging/display_modes.h"
#include "imaging/frame_image.h"
#include "imaging/pixel_conversion.h"

namespace lumetra {

namespace {

std::string ModeName(int mode) {
    return "mode " + std::to_string(mode) + " (" + std::string(*DisplayModeText(mode)) + ")";
}

// Red, green and blue sit at 2, 1 and 0 in B, G, R order.
int ColourChannel(int mode) {
    return kModeBlue - mode;
}

cv::Mat Channel(const cv::Mat& image, int channel) {
    cv::Mat plane;
    cv::extractChannel(image, plane, channel);
    return plane;
}

// Four channels are drawn through a three-channel drawing image: B, G, R (or Y, Cr, Cb).
cv::Mat FirstThree(const cv::Mat& image) {
    if (image.channels() == 3) {
        return image;
    }
    cv::Mat three(image.size(), CV_MAKETYPE(image.depth(), 3));
    const int pairs[] = {0, 0, 1, 1, 2, 2};
    cv::mixChannels(&image, 1, &three, 1, pairs, 3);
    return three;
}

cv::Mat MapSamples(const cv::Mat& picked, const DisplayRequest& request, int pixelBitCount) {
    if (picked.depth() != CV_16U) {
        return picked.clone();
    }
    switch (request.mapping) {
        case SampleMapping::Adaptive: {
            cv::Mat out = picked.clone();
            ShiftLeftInPlace(out, HighBitShift(pixelBitCount, out.channels()));
            return out;
        }
        case SampleMapping::EightBit: {
            cv::Mat out;
            ShiftRightToEightBit(picked, out, request.shift);
            return out;
        }
        case SampleMapping::AsIs:
            break;
    }
    return picked.clone();
}

}  // namespace

std::string DisplayModeRefusal(int channels, int width, int height, const DisplayRequest& request) {
    const int mode = request.mode;
    if (!IsValidDisplayMode(mode)) {
        return "display mode " + std::to_string(mode) + " is out of range (0 to 13)";
    }
    if (request.bayerPattern < 0 || request.bayerPattern > 4) {
        return "Bayer pattern " + std::to_string(request.bayerPattern) +
               " is out of range (0 to 4)";
    }
    if (request.bayerPattern != 0 && channels != 1) {
        return "a Bayer pattern needs a one-channel image; this one has " +
               std::to_string(channels) + " channels";
    }
    if (channels != 1 && channels != 3 && channels != 4) {
        return "images of " + std::to_string(channels) + " channels cannot be drawn";
    }
    if (IsChannelMode(mode)) {
        if (channels != 1) {
            return ModeName(mode) +
                   " is a Bayer phase plane: it needs a one-channel image; this "
                   "one has " +
                   std::to_string(channels) + " channels";
        }
        if (width < 2 || height < 2) {
            return ModeName(mode) + " needs an image of at least 2 x 2 pixels";
        }
    }
    if (channels == 1 && mode >= kModeRed && mode <= kModeBlue && request.bayerPattern == 0) {
        return ModeName(mode) + " needs a colour image or a Bayer pattern";
    }
    if (mode == kModeClear && channels != 4) {
        return ModeName(mode) + " needs a four-channel (RGBC) image";
    }
    if (IsLumaChromaMode(mode) && channels == 1) {
        return ModeName(mode) + " needs a colour image of three or four channels";
    }
    if (mode == kModeCCrCbToRgb && channels != 4) {
        return ModeName(mode) + " needs a four-channel (RGBC) image";
    }
    return {};
}

DisplayResult RenderDisplayMode(const ImageBuffer& raw, const DisplayRequest& request) {
    DisplayResult result;
    if (!raw.hasImage()) {
        result.error = "there is no image";
        return result;
    }
    result.error = DisplayModeRefusal(raw.channels(), raw.width(), raw.height(), request);
    if (!result.ok()) {
        return result;
    }
    const int mode = request.mode;
    const int channels = raw.channels();
    const int pixelBitCount =
        request.pixelBitCount > 0 ? request.pixelBitCount : raw.depth() * channels;
    if (request.mapping == SampleMapping::EightBit && raw.depth() == 16) {
        const int highest = std::max(0, pixelBitCount / channels - 8);
        if (request.shift < 0 || request.shift > highest) {
            result.error = "shift " + std::to_string(request.shift) + " is out of range (0 to " +
                           std::to_string(highest) + ")";
            return result;
        }
    }

    ImageBuffer work;
    auto make = [&](int workChannels, int width, int height) {
        if (work.TryCreate(raw.depth(), workChannels, width, height)) {
            return true;
        }
        result.error = "not enough memory for the conversion";
        return false;
    };
    cv::Mat picked;
    if (channels == 1) {
        if (IsChannelMode(mode)) {
            if (!make(1, raw.width() / 2, raw.height() / 2)) {
                return result;
            }
            BayerPhasePlane(raw, work, mode);
            picked = work.mat();
        } else if (request.bayerPattern != 0) {
            if (!make(3, raw.width(), raw.height())) {
                return result;
            }
            ImageBuffer::ConvertColour(raw, work, BayerConversionCode(request.bayerPattern));
            picked = mode == kModeRgb ? work.mat() : Channel(work.mat(), ColourChannel(mode));
        } else {
            picked = raw.mat();
        }
    } else if (IsLumaChromaMode(mode)) {
        if (!make(channels, raw.width(), raw.height())) {
            return result;
        }
        LumaChromaImage(raw, work, pixelBitCount, request.threads);
        if (mode == kModeCCrCbToRgb) {
            CCrCbToRgb(work, pixelBitCount, request.threads);
        }
        picked = mode == kModeYCrCb || mode == kModeCCrCbToRgb ? FirstThree(work.mat())
                                                               : Channel(work.mat(), mode - kModeY);
    } else if (mode == kModeRgb) {
        picked = FirstThree(raw.mat());
    } else if (mode == kModeClear) {
        picked = Channel(raw.mat(), 3);
    } else {
        picked = Channel(raw.mat(), ColourChannel(mode));
    }
    result.image = MapSamples(picked, request, pixelBitCount);
    return result;
}

}  // namespace lumetra
