#include "imaging/view_layout.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include <opencv2/core/fast_math.hpp>

namespace lumetra {

std::string_view ViewCommandText(int id) {
    for (const ZoomCommand& z : kZoomCommands) {
        if (z.id == id) {
            return z.text;
        }
    }
    for (const ViewCommandInfo& f : kDataFormatCommands) {
        if (f.id == id) {
            return f.text;
        }
    }
    switch (id) {
        case viewcmd::kDisplaySetting:
            return "Display Setting...";
        case viewcmd::kGotoPixel:
            return "Goto Pixel...";
        case viewcmd::kZoomFit:
            return "Zoom Fit";
        case viewcmd::kOriginalSize:
            return "Original Size";
        case viewcmd::kMaximumImage:
            return "Maximum Image";
        case viewcmd::kBlankImage:
            return "Blank Image";
        default:
            return {};
    }
}

std::optional<double> FixedZoomOf(int id) {
    for (const ZoomCommand& z : kZoomCommands) {
        if (z.id == id) {
            return z.zoom;
        }
    }
    if (id == viewcmd::kOriginalSize) {
        return 1.0;
    }
    if (id == viewcmd::kMaximumImage) {
        return kMaxZoom;
    }
    return std::nullopt;
}

double WheelZoom(double zoom, bool forward) {
    if (forward) {
        if (zoom < 32) {
            return std::min(zoom * 2, 32.0);
        }
        if (zoom < 64) {
            return 64;
        }
        if (zoom < 96) {
            return 96;
        }
        if (zoom < 128) {
            return 128;
        }
        return kMaxZoom;
    }
    if (zoom == 384) {
        return 128;
    }
    if (zoom == 128) {
        return 96;
    }
    if (zoom == 96) {
        return 64;
    }
    if (zoom == 64) {
        return 32;
    }
    const double half = zoom / 2;
    return half <= kMinZoom ? kMinZoom : half;
}

double FitZoom(cv::Size window, cv::Size image) {
    if (image.width <= 0 || image.height <= 0 || window.width <= 0 || window.height <= 0) {
        return 1.0;
    }
    const double zoom = std::min(static_cast<double>(window.width) / image.width,
                                 static_cast<double>(window.height) / image.height);
    return std::clamp(zoom, kMinZoom, kMaxZoom);
}

std::optional<int> OverlayLevel(double zoom) {
    if (zoom == 384) {
        return 0;
    }
    if (zoom == 128) {
        return 1;
    }
    if (zoom == 96) {
        return 2;
    }
    return std::nullopt;
}

bool ImageRect::unset() const {
    constexpr double kEps = 1e-8;
    return std::abs(left) < kEps && std::abs(top) < kEps && std::abs(right) < kEps &&
           std::abs(bottom) < kEps;
}

ImageRect ScaleAbout(const ImageRect& rect, double r, cv::Point2d anchor) {
    return {rect.left * r + anchor.x * (1 - r), rect.top * r + anchor.y * (1 - r),
            rect.right * r + anchor.x * (1 - r), rect.bottom * r + anchor.y * (1 - r)};
}

ImageRect RectAt(cv::Point2d topLeft, cv::Size image, double zoom) {
    return {topLeft.x, topLeft.y, topLeft.x + image.width * zoom, topLeft.y + image.height * zoom};
}

namespace {

// Where an extent starts when centred in [start, start + room), on a whole pixel.
double CentredStart(double start, double room, double extent) {
    return start + std::floor((room - extent) / 2);
}

}  // namespace

ImageRect InitialLayout(cv::Size image, double zoom, cv::Size client) {
    const double w = image.width * zoom;
    const double h = image.height * zoom;
    const double left = w < client.width ? CentredStart(0, client.width, w) : 0;
    const double top = h < client.height ? CentredStart(0, client.height, h) : 0;
    return RectAt({left, top}, image, zoom);
}

ImageRect CentredIn(cv::Size image, double zoom, cv::Rect2d area) {
    return RectAt({CentredStart(area.x, area.width, image.width * zoom),
                   CentredStart(area.y, area.height, image.height * zoom)},
                  image, zoom);
}

ImageRect Panned(const ImageRect& rect, double dx, double dy) {
    return {rect.left + dx, rect.top + dy, rect.right + dx, rect.bottom + dy};
}

ImageRect KeptInReach(const ImageRect& rect, cv::Size client) {
    auto shiftFor = [](double lo, double hi, int room) {
        const double keep = std::min(32.0, hi - lo);
        if (hi < keep) {
            return keep - hi;
        }
        if (lo > room - keep) {
            return room - keep - lo;
        }
        return 0.0;
    };
    return Panned(rect, shiftFor(rect.left, rect.right, client.width),
                  shiftFor(rect.top, rect.bottom, client.height));
}

cv::Point2d ClientToImage(const ImageRect& rect, double zoom, cv::Point2d client) {
    return {(client.x - rect.left) / zoom, (client.y - rect.top) / zoom};
}

cv::Point ImagePixelAt(const ImageRect& rect, double zoom, cv::Point2d client) {
    const cv::Point2d p = ClientToImage(rect, zoom, client);
    return {static_cast<int>(std::floor(p.x)), static_cast<int>(std::floor(p.y))};
}

cv::Point2d PixelCentre(const ImageRect& rect, double zoom, cv::Point pixel) {
    return {rect.left + (pixel.x + 0.5) * zoom, rect.top + (pixel.y + 0.5) * zoom};
}

ImageRect CentredOnPixel(const ImageRect& rect, double zoom, cv::Point pixel, cv::Size client) {
    const cv::Point2d centre = PixelCentre(rect, zoom, pixel);
    return Panned(rect, client.width / 2.0 - centre.x, client.height / 2.0 - centre.y);
}

ScrollAxis ScrollFor(double lo, double hi, int page) {
    ScrollAxis axis;
    const double unionLo = std::min(lo, 0.0);
    const double unionHi = std::max(hi, static_cast<double>(page));
    axis.page = std::max(page, 0);
    axis.maximum = std::max(0, static_cast<int>(std::lround(unionHi - unionLo)) - axis.page);
    axis.value = std::clamp(static_cast<int>(std::lround(-unionLo)), 0, axis.maximum);
    axis.needed = hi - lo > page;
    return axis;
}

double ScrollShift(double lo, double hi, int page, int value) {
    return ScrollFor(lo, hi, page).value - value;
}

VisiblePart MapVisible(const ImageRect& rect, double zoom, cv::Size image, cv::Size client) {
    VisiblePart part;
    if (image.width <= 0 || image.height <= 0 || client.width <= 0 || client.height <= 0 ||
        !(zoom > 0)) {
        return part;
    }
    auto span = [zoom](double start, int room, int extent, int& first, int& end) {
        first = static_cast<int>(std::clamp(std::floor(-start / zoom), 0.0, double(extent)));
        end = static_cast<int>(std::clamp(std::ceil((room - start) / zoom), 0.0, double(extent)));
    };
    int x0 = 0, x1 = 0, y0 = 0, y1 = 0;
    span(rect.left, client.width, image.width, x0, x1);
    span(rect.top, client.height, image.height, y0, y1);
    if (x1 <= x0 || y1 <= y0) {
        return part;
    }
    part.source = {x0, y0, x1 - x0, y1 - y0};
    // The size cv::resize gives for a scale factor (rounded as it rounds).
    part.scaled = {std::max(1, cvRound(part.source.width * zoom)),
                   std::max(1, cvRound(part.source.height * zoom))};
    part.origin = {cvFloor(rect.left + x0 * zoom + 0.5), cvFloor(rect.top + y0 * zoom + 0.5)};
    const cv::Rect block(part.origin, part.scaled);
    const cv::Rect inside = block & cv::Rect(0, 0, client.width, client.height);
    if (inside.empty()) {
        part = {};
        return part;
    }
    part.crop = inside - part.origin;
    return part;
}

PixelLimits GotoPixelLimits(int width, int height) {
    return {width - 1, height - 1};
}

std::optional<int> ParsePixelCoordinate(std::string_view text, int limit) {
    while (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    while (!text.empty() && text.back() == ' ') {
        text.remove_suffix(1);
    }
    int value = 0;
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end || value < 0 || value > limit) {
        return std::nullopt;
    }
    return value;
}

}  // namespace lumetra
