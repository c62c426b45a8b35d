#include "imaging/view_render.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <mutex>

#include <opencv2/imgproc.hpp>

#include "base/debug_output.h"
#include "imaging/display_modes.h"
#include "imaging/display_render.h"
#include "imaging/pixel_conversion.h"

namespace lumetra {

// The planes of the 2 x 2 block colour, kept between paints.
struct BlockPlanes {
    std::vector<cv::Mat> top, bottom;
    cv::Mat green;
    cv::Mat colour;
};

namespace {

using Steady = std::chrono::steady_clock;

int CvDepth(int depth) {
    return depth == 8 ? CV_8U : CV_16U;
}

// Red, green and blue sit at 2, 1 and 0 in B, G, R order.
int ColourChannel(int mode) {
    return kModeBlue - mode;
}

// Into `out` (kept between paints, so that a steady stream allocates nothing). Four channels are
// drawn through a three-channel image: B, G, R (or Y, Cr, Cb).
const cv::Mat& FirstThree(const cv::Mat& image, cv::Mat& out) {
    if (image.channels() != 4) {
        return image;
    }
    out.create(image.size(), CV_MAKETYPE(image.depth(), 3));
    const int pairs[] = {0, 0, 1, 1, 2, 2};
    cv::mixChannels(&image, 1, &out, 1, pairs, 3);
    return out;
}

const cv::Mat& Channel(const cv::Mat& image, int channel, cv::Mat& out) {
    cv::extractChannel(image, out, channel);
    return out;
}

// Colour from 2 x 2 blocks sampled at the display's resolution: each block's red and blue, and the
// mean of its two greens. Used below zoom 1/2, where every display pixel covers at least a block.
const cv::Mat& BlockColour(const cv::Mat& top, const cv::Mat& bottom, int pattern, BlockPlanes& p) {
    cv::split(top, p.top);
    cv::split(bottom, p.bottom);
    const cv::Mat* blue = nullptr;
    const cv::Mat* red = nullptr;
    switch (pattern) {
        case 1:  // BGGR
            blue = &p.top[0], red = &p.bottom[1];
            cv::addWeighted(p.top[1], 0.5, p.bottom[0], 0.5, 0, p.green);
            break;
        case 2:  // RGGB
            red = &p.top[0], blue = &p.bottom[1];
            cv::addWeighted(p.top[1], 0.5, p.bottom[0], 0.5, 0, p.green);
            break;
        case 3:  // GBRG
            blue = &p.top[1], red = &p.bottom[0];
            cv::addWeighted(p.top[0], 0.5, p.bottom[1], 0.5, 0, p.green);
            break;
        default:  // 4: GRBG
            red = &p.top[1], blue = &p.bottom[0];
            cv::addWeighted(p.top[0], 0.5, p.bottom[1], 0.5, 0, p.green);
            break;
    }
    const cv::Mat planes[] = {*blue, p.green, *red};
    cv::merge(planes, 3, p.colour);
    return p.colour;
}

std::array<double, 4> Samples(const cv::Mat& image, int row, int column) {
    std::array<double, 4> s{};
    const int n = std::min(image.channels(), 4);
    if (image.depth() == CV_8U) {
        const uint8_t* p = image.ptr<uint8_t>(row) + static_cast<size_t>(column) * image.channels();
        for (int i = 0; i < n; ++i) {
            s[i] = p[i];
        }
    } else {
        const uint16_t* p =
            image.ptr<uint16_t>(row) + static_cast<size_t>(column) * image.channels();
        for (int i = 0; i < n; ++i) {
            s[i] = p[i];
        }
    }
    return s;
}

// Text sizes of the three overlay levels (zoom 384, 128, 96).
struct OverlayFont {
    double scale;
    int thickness;
    int gap;
};
constexpr OverlayFont kOverlayFonts[3] = {{1.0, 2, 10}, {0.42, 1, 4}, {0.32, 1, 3}};

}  // namespace

PixelLayout LayoutOfDrawing(const cv::Mat& image) {
    if (image.empty() || image.dims != 2) {
        return PixelLayout::None;
    }
    switch (image.type()) {
        case CV_8UC1:
            return PixelLayout::Luminance8;
        case CV_16UC1:
            return PixelLayout::Luminance16;
        case CV_8UC3:
            return PixelLayout::Bgr8;
        case CV_16UC3:
            return PixelLayout::Bgr16;
        default:
            return PixelLayout::None;
    }
}

bool BayerDisplayOn(const BayerSettings& bayer, int rawChannels) {
    return bayer.enabled && bayer.pattern >= 1 && bayer.pattern <= 4 && rawChannels == 1;
}

bool DisplayModeAvailable(int mode, int rawChannels, int rawWidth, int rawHeight, bool bayerOn) {
    if (mode == kModeRgb) {
        return true;
    }
    DisplayRequest request;
    request.mode = mode;
    request.bayerPattern = bayerOn ? 1 : 0;
    return DisplayModeRefusal(rawChannels, rawWidth, rawHeight, request).empty();
}

int EffectiveDisplayMode(int mode, int rawChannels, int rawWidth, int rawHeight, bool bayerOn) {
    return DisplayModeAvailable(mode, rawChannels, rawWidth, rawHeight, bayerOn) ? mode : kModeRgb;
}

MenuVariant MenuVariantFor(int rawChannels, bool hasAux) {
    if (rawChannels == 1) {
        return MenuVariant::Channels;
    }
    return rawChannels > 1 && hasAux ? MenuVariant::LumaChroma : MenuVariant::Base;
}

std::vector<int> MenuModes(MenuVariant variant) {
    std::vector<int> modes{kModeRgb, kModeRed, kModeGreen, kModeBlue, kModeClear};
    if (variant == MenuVariant::Channels) {
        modes.insert(modes.end(), {kModeChannel0, kModeChannel1, kModeChannel2, kModeChannel3});
    } else if (variant == MenuVariant::LumaChroma) {
        modes.insert(modes.end(), {kModeYCrCb, kModeY, kModeCr, kModeCb, kModeCCrCbToRgb});
    }
    return modes;
}

ValueLabels LabelsFor(int mode, int rawChannels, bool bayerOn) {
    switch (mode) {
        case kModeRgb:
            if (rawChannels == 4) {
                return ValueLabels::ColourClear;
            }
            return rawChannels == 3 || bayerOn ? ValueLabels::Colour : ValueLabels::Plain;
        case kModeRed:
            return ValueLabels::Red;
        case kModeGreen:
            return ValueLabels::Green;
        case kModeBlue:
            return ValueLabels::Blue;
        case kModeClear:
            return ValueLabels::Clear;
        case kModeYCrCb:
            return ValueLabels::LumaChroma;
        case kModeY:
            return ValueLabels::Y;
        case kModeCr:
            return ValueLabels::Cr;
        case kModeCb:
            return ValueLabels::Cb;
        case kModeCCrCbToRgb:
            return ValueLabels::Colour;
        default:
            return ValueLabels::Plain;  // the phase planes
    }
}

// What the lock-held step learns and copies.
struct ViewRenderer::Snapshot {
    int width = 0;
    int height = 0;
    int channels = 0;
    int depth = 8;
    int pixelBitCount = 8;
    bool eightBitShift = false;
    int shift = 0;
    bool highBit = false;
    uint64_t frameCount = 0;
    bool bayerOn = false;
    int pattern = 0;
    int mode = 0;
    // Phase planes and 2 x 2 blocks are drawn on a grid of half the raw size at twice the zoom.
    bool halfGrid = false;
    bool blocks = false;
    int rowOffset = 0;
    int columnOffset = 0;
    double zoom = 1.0;
    VisiblePart part;
    // copy_ already holds the visible part at the display's size (zoom below 1).
    bool reduced = false;
    // The raw region copy_ holds when it is at the source's size (with the demosaicing margin).
    cv::Rect copied;
};

bool ViewRenderer::TakeSnapshot(FrameImage& frame, const ViewSettings& s, Snapshot& snap) {
    std::lock_guard lock(frame.frameLock());
    const ImageBuffer& raw = frame.raw();
    if (!raw.hasImage()) {
        return false;
    }
    snap.frameCount = frame.frameCount();
    if (snap.frameCount == 0) {
        return true;
    }
    snap.width = raw.width();
    snap.height = raw.height();
    snap.channels = raw.channels();
    snap.depth = raw.depth();
    snap.pixelBitCount = frame.format().bitsPerPixel;
    snap.eightBitShift = frame.eightBitShift();
    snap.shift = frame.shift();
    snap.highBit = frame.highBit();
    snap.bayerOn = BayerDisplayOn(s.bayer, snap.channels) && snap.width >= 2 && snap.height >= 2;
    snap.pattern = s.bayer.pattern;
    snap.mode = EffectiveDisplayMode(s.mode, snap.channels, snap.width, snap.height, snap.bayerOn);

    const bool plane = IsChannelMode(snap.mode);
    snap.blocks = snap.bayerOn && !plane && s.zoom < 0.5;
    snap.halfGrid = plane || snap.blocks;
    snap.zoom = snap.halfGrid ? s.zoom * 2 : s.zoom;
    const cv::Size grid = snap.halfGrid ? cv::Size(snap.width / 2, snap.height / 2)
                                        : cv::Size(snap.width, snap.height);
    // The raw image's rectangle covers the half grid too (each of its pixels is 2 x 2 raw ones).
    snap.part = MapVisible(s.rect, snap.zoom, grid, s.client);
    if (snap.part.source.empty()) {
        return true;
    }
    const cv::Rect& src = snap.part.source;
    snap.reduced = snap.zoom < 1;
    const cv::Mat whole = raw.mat();
    // The half grid as two-sample pixels: row r of it is raw row 2r (+ 1), pixel c the raw
    // samples 2c and 2c + 1.
    auto pairs = [&](int rowOffset) {
        return cv::Mat(snap.height / 2, snap.width / 2, CV_MAKETYPE(CvDepth(snap.depth), 2),
                       raw.data() + static_cast<size_t>(rowOffset) * raw.widthStep(),
                       static_cast<size_t>(raw.widthStep()) * 2);
    };
    auto take = [&](const cv::Mat& region, cv::Mat& into) {
        if (snap.reduced) {
            cv::resize(region, into, cv::Size(), snap.zoom, snap.zoom, cv::INTER_NEAREST);
        } else {
            region.copyTo(into);
        }
    };
    if (plane) {
        snap.rowOffset = snap.mode == kModeChannel2 || snap.mode == kModeChannel3 ? 1 : 0;
        snap.columnOffset = snap.mode == kModeChannel1 || snap.mode == kModeChannel3 ? 1 : 0;
        take(pairs(snap.rowOffset)(src), copy_);
    } else if (snap.blocks) {
        take(pairs(0)(src), copy_);
        take(pairs(1)(src), copyBottom_);
    } else if (snap.bayerOn) {
        // The demosaicing margin keeps the edge of the visible part exact.
        snap.reduced = false;
        snap.copied = BayerRegion(src.x, src.y, src.x + src.width, src.y + src.height, snap.width,
                                  snap.height);
        whole(snap.copied).copyTo(copy_);
    } else {
        take(whole(src), copy_);
    }
    return true;
}

ViewRenderer::ViewRenderer() : blocks_(std::make_unique<BlockPlanes>()) {}

ViewRenderer::~ViewRenderer() = default;

const cv::Mat& ViewRenderer::Render(FrameImage& frame, const ViewSettings& s,
                                    const cv::Mat& background) {
    // Nothing thrown gets past the view (memory running out, an image OpenCV refuses): that
    // paint draws nothing.
    try {
        return RenderFrame(frame, s, background);
    } catch (const std::exception& e) {
        DebugOutput(std::string("main view: nothing drawn: ") + e.what());
    }
    info_.frameDrawn = false;
    output_ = cv::Mat();
    return output_;
}

const cv::Mat& ViewRenderer::RenderFrame(FrameImage& frame, const ViewSettings& s,
                                         const cv::Mat& background) {
    info_ = {};
    output_ = cv::Mat();
    Snapshot snap;
    const Steady::time_point locked = Steady::now();
    const bool hasImage = TakeSnapshot(frame, s, snap);
    info_.lockedMs = std::chrono::duration<double, std::milli>(Steady::now() - locked).count();
    if (!hasImage) {
        return output_;
    }
    if (snap.frameCount == 0) {
        DrawBackground(background, s.client);
        info_.backgroundDrawn = !output_.empty();
        return output_;
    }
    info_.frameCount = snap.frameCount;
    info_.mode = snap.mode;
    const VisiblePart& part = snap.part;
    if (part.source.empty()) {
        return output_;
    }

    // The values the view shows, at the source's size (or the display's, when reduced): one or
    // three channels, plus `values` for the overlay where it shows more (the C of four channels).
    cv::Mat values;
    cv::Mat picked;
    if (IsChannelMode(snap.mode)) {
        picked = Channel(copy_, snap.columnOffset, plane_);
    } else if (snap.blocks) {
        const cv::Mat& colour = BlockColour(copy_, copyBottom_, snap.pattern, *blocks_);
        picked = snap.mode == kModeRgb ? colour : Channel(colour, ColourChannel(snap.mode), plane_);
    } else if (snap.bayerOn) {
        cv::cvtColor(copy_, colour_, BayerConversionCode(snap.pattern));
        const cv::Mat colour = colour_(part.source - snap.copied.tl());
        picked = snap.mode == kModeRgb ? colour : Channel(colour, ColourChannel(snap.mode), plane_);
    } else if (IsLumaChromaMode(snap.mode)) {
        const int w = copy_.cols;
        const int h = copy_.rows;
        if (!lumaSource_.TryCreate(snap.depth, snap.channels, w, h) ||
            !lumaImage_.TryCreate(snap.depth, snap.channels, w, h)) {
            return output_;
        }
        cv::Mat target = lumaSource_.mat();
        copy_.copyTo(target);
        LumaChromaImage(lumaSource_, lumaImage_, snap.pixelBitCount);
        if (snap.mode == kModeCCrCbToRgb) {
            CCrCbToRgb(lumaImage_, snap.pixelBitCount);
        }
        const cv::Mat luma = lumaImage_.mat();
        picked = snap.mode == kModeYCrCb || snap.mode == kModeCCrCbToRgb
                     ? FirstThree(luma, three_)
                     : Channel(luma, snap.mode - kModeY, plane_);
    } else if (snap.mode == kModeRgb) {
        picked = FirstThree(copy_, three_);
        if (snap.channels == 4) {
            values = copy_;
        }
    } else if (snap.mode == kModeClear) {
        picked = Channel(copy_, 3, plane_);
    } else {
        picked = Channel(copy_, ColourChannel(snap.mode), plane_);
    }
    if (values.empty()) {
        values = picked;
    }

    cv::Mat scaled = picked;
    if (!snap.reduced && snap.zoom != 1.0) {
        cv::resize(picked, magnified_, cv::Size(), snap.zoom, snap.zoom, cv::INTER_NEAREST);
        scaled = magnified_;
    }
    const cv::Rect crop = part.crop & cv::Rect(0, 0, scaled.cols, scaled.rows);
    if (crop.empty()) {
        return output_;
    }
    const cv::Mat shown = scaled(crop);
    const cv::Rect area(part.target(), crop.size());
    info_.imageArea = area;
    info_.frameDrawn = true;

    // The display sample mapping, written straight into the drawing image. "8 bits" wins over a
    // high-bit flag left on by the dialog's Cancel: Cancel is meant to switch to 8-bit display.
    const bool sixteen = shown.depth() == CV_16U;
    const bool eightBit = sixteen && snap.eightBitShift;
    const bool adaptive = sixteen && !eightBit && snap.highBit;
    const int drawType = CV_MAKETYPE(eightBit ? CV_8U : shown.depth(), shown.channels());
    drawing_.create(s.client, drawType);
    if (area != cv::Rect(0, 0, s.client.width, s.client.height)) {
        drawing_.setTo(cv::Scalar::all(0));
    }
    cv::Mat target = drawing_(area);
    output_ = drawing_;
    if (eightBit) {
        ShiftRightToEightBit(shown, target, snap.shift);
    } else {
        shown.copyTo(target);
        if (adaptive) {
            ShiftLeftInPlace(target, HighBitShift(snap.pixelBitCount, target.channels()));
        }
    }

    if (s.falseColour || s.highlightClipping) {
        // Both draw in colour: the drawing image becomes 8-bit BGR, the background staying black.
        cv::Mat eight;
        if (drawing_.depth() == CV_16U) {
            drawing_.convertTo(eight8_, CV_8U, 1.0 / 256);
            eight = eight8_;
        } else {
            eight = drawing_;
        }
        cv::Mat& colour = colourDrawing_;
        if (eight.channels() == 1) {
            cv::cvtColor(eight, colour, cv::COLOR_GRAY2BGR);
            if (s.falseColour) {
                cv::applyColorMap(eight(area), mappedColours_, cv::COLORMAP_TURBO);
                cv::Mat colourArea = colour(area);
                mappedColours_.copyTo(colourArea);
            }
        } else {
            eight.copyTo(colour);
        }
        if (s.highlightClipping) {
            const double maximum =
                snap.depth == 8 ? 255.0 : MaxSampleValue(snap.pixelBitCount, snap.channels);
            cv::Mat& below = belowMask_;
            cv::Mat& zero = zeroMask_;
            cv::inRange(shown, cv::Scalar::all(0), cv::Scalar::all(maximum - 1), below);
            cv::inRange(shown, cv::Scalar::all(0), cv::Scalar::all(0), zero);
            cv::Mat colourArea = colour(area);
            colourArea.setTo(
                cv::Scalar(kSaturatedColour[0], kSaturatedColour[1], kSaturatedColour[2]), ~below);
            colourArea.setTo(cv::Scalar(kZeroColour[0], kZeroColour[1], kZeroColour[2]), zero);
        }
        output_ = colour;
    }

    // The pixel values, at three zooms only; the sample values as they are, before mapping.
    const std::optional<int> level = OverlayLevel(s.zoom);
    if (level && s.dataFormat != kNoValues && !snap.reduced) {
        info_.overlayLevel = *level;
        const OverlayFont& font = kOverlayFonts[*level];
        const int cell = static_cast<int>(snap.zoom);
        const ValueLabels labels = LabelsFor(snap.mode, snap.channels, snap.bayerOn);
        const double white = output_.depth() == CV_16U ? 65535.0 : 255.0;
        const int margin = std::max(2, cell / 24);
        for (int r = 0; r < part.source.height; ++r) {
            for (int c = 0; c < part.source.width; ++c) {
                const cv::Point at(part.origin.x + c * cell, part.origin.y + r * cell);
                const cv::Rect cellRect = cv::Rect(at, cv::Size(cell, cell)) & area;
                if (cellRect.empty()) {
                    continue;
                }
                const int px = part.source.x + c;
                const int py = part.source.y + r;
                // Positions as the raw image counts them, also on the half grid of the planes.
                const int x = IsChannelMode(snap.mode) ? 2 * px + snap.columnOffset : px;
                const int y = IsChannelMode(snap.mode) ? 2 * py + snap.rowOffset : py;
                const std::vector<std::string> lines =
                    PixelValueTexts(x, y, Samples(values, r, c), labels, s.dataFormat);
                // Dark text on bright pixels, light text on dark ones.
                const cv::Point centre = at + cv::Point(cell / 2, cell / 2);
                const cv::Point probe(std::clamp(centre.x, area.x, area.x + area.width - 1),
                                      std::clamp(centre.y, area.y, area.y + area.height - 1));
                const std::array<double, 4> drawn = Samples(output_, probe.y, probe.x);
                double brightness = 0;
                for (int i = 0; i < output_.channels(); ++i) {
                    brightness += drawn[static_cast<size_t>(i)];
                }
                brightness /= output_.channels() * white;
                const cv::Scalar ink =
                    brightness > 0.5 ? cv::Scalar::all(0) : cv::Scalar::all(white);
                double scale = font.scale;
                int widest = 0;
                int baseline = 0;
                int height = 0;
                for (const std::string& line : lines) {
                    const cv::Size size = cv::getTextSize(line, cv::FONT_HERSHEY_SIMPLEX, scale,
                                                          font.thickness, &baseline);
                    widest = std::max(widest, size.width);
                    height = std::max(height, size.height);
                }
                if (widest > cell - 2 * margin && widest > 0) {
                    const double shrink = double(cell - 2 * margin) / widest;
                    scale *= shrink;
                    height = static_cast<int>(height * shrink);
                }
                int baselineY = at.y + margin + height;
                for (const std::string& line : lines) {
                    cv::putText(output_, line, cv::Point(at.x + margin, baselineY),
                                cv::FONT_HERSHEY_SIMPLEX, scale, ink, font.thickness, cv::LINE_8);
                    baselineY += height + font.gap;
                }
            }
        }
    }
    return output_;
}

void ViewRenderer::DrawBackground(const cv::Mat& background, cv::Size client) {
    if (background.empty() || client.width <= 0 || client.height <= 0) {
        return;
    }
    if (backgroundKey_ != background.data || backgroundSize_ != client ||
        backgroundCache_.empty()) {
        cv::Mat eight;
        if (background.depth() == CV_16U) {
            background.convertTo(eight, CV_8U, 1.0 / 256);
        } else if (background.depth() == CV_8U) {
            eight = background;
        } else {
            return;
        }
        cv::Mat colour;
        switch (eight.channels()) {
            case 1:
                cv::cvtColor(eight, colour, cv::COLOR_GRAY2BGR);
                break;
            case 3:
                colour = eight;
                break;
            case 4:
                cv::cvtColor(eight, colour, cv::COLOR_BGRA2BGR);
                break;
            default:
                return;
        }
        // At its own size, or smaller so that it fits; centred.
        const double zoom = std::min(1.0, FitZoom(client, colour.size()));
        cv::Mat fitted;
        cv::resize(colour, fitted, cv::Size(), zoom, zoom, cv::INTER_AREA);
        backgroundCache_.create(client, CV_8UC3);
        backgroundCache_.setTo(cv::Scalar::all(0));
        const cv::Rect where((client.width - fitted.cols) / 2, (client.height - fitted.rows) / 2,
                             fitted.cols, fitted.rows);
        const cv::Rect inside = where & cv::Rect(0, 0, client.width, client.height);
        cv::Mat destination = backgroundCache_(inside);
        fitted(inside - where.tl()).copyTo(destination);
        backgroundKey_ = background.data;
        backgroundSize_ = client;
    }
    output_ = backgroundCache_;
}

}  // namespace lumetra
