// Where the main image view puts the image and at which zoom, without a window: the zoom steps of
// the mouse wheel and the context menu, zoom fit, the image's rectangle in client pixels and how
// zooming about an anchor, dragging, scrolling and "Goto Pixel..." move it, which part of the
// image a paint has to draw, and the command ids and texts of the view's context menu.
//
// Client pixels are the view's drawing pixels, y downwards; the image rectangle's left and top
// are where image pixel (0, 0)'s top-left corner lands.
#pragma once

#include <array>
#include <optional>
#include <string_view>

#include <opencv2/core/types.hpp>

namespace lumetra {

inline constexpr double kMaxZoom = 384.0;
inline constexpr double kMinZoom = 1.0 / 384.0;  // 0.0026041666666666665

// The context menu's commands (the display modes' ids are in display_modes.h).
namespace viewcmd {
inline constexpr int kDisplaySetting = 32833;
inline constexpr int kGotoPixel = 32936;
inline constexpr int kZoomFit = 32868;
inline constexpr int kOriginalSize = 32851;
inline constexpr int kMaximumImage = 32898;
inline constexpr int kBlankImage = 32934;
inline constexpr int kDecimal = 32887;
inline constexpr int kHexadecimal = 32886;
inline constexpr int kNoValues = 32971;
}  // namespace viewcmd

struct ViewCommandInfo {
    int id;
    std::string_view text;
};

// The fixed zoom commands, "X 2" to "X 32" and "X 1/2" to "X 1/32", with their zoom.
struct ZoomCommand {
    int id;
    std::string_view text;
    double zoom;
};
inline constexpr std::array<ZoomCommand, 10> kZoomCommands{{
    {32857, "X 2", 2.0},
    {32858, "X 4", 4.0},
    {32859, "X 8", 8.0},
    {32860, "X 16", 16.0},
    {32861, "X 32", 32.0},
    {32862, "X 1/2", 0.5},
    {32863, "X 1/4", 0.25},
    {32864, "X 1/8", 0.125},
    {32865, "X 1/16", 0.0625},
    {32866, "X 1/32", 0.03125},
}};

// The data formats of the pixel read-outs: 0 "Decimal ", 1 "Hexadecimal", 2 "No".
enum DataFormat : int { kDecimal = 0, kHexadecimal = 1, kNoValues = 2 };
inline constexpr std::array<ViewCommandInfo, 3> kDataFormatCommands{{
    {viewcmd::kDecimal, "Decimal "},
    {viewcmd::kHexadecimal, "Hexadecimal"},
    {viewcmd::kNoValues, "No"},
}};

// The menu text of a context-menu command (zoom, format, the dialogs, "Blank Image"); empty for
// other ids.
std::string_view ViewCommandText(int id);
// The zoom a fixed zoom command sets ("Original Size" 1.0, "Maximum Image" 384), or nullopt.
std::optional<double> FixedZoomOf(int id);

// One notch of the mouse wheel. Forward: doubles below 32 (at most 32), then 64, 96, 128 and 384.
// Backward: 384, 128, 96 and 64 step down to 128, 96, 64 and 32; anything else halves, and stops
// at 1/384.
double WheelZoom(double zoom, bool forward);

// A zoom command's value: at most 384 ("Original Size" is not clamped: it is 1 anyway).
inline double ClampCommandZoom(double zoom) {
    return zoom > kMaxZoom ? kMaxZoom : zoom;
}

// The zoom at which the image fits the window rectangle: the smaller of the two ratios, within
// [1/384, 384]. 1.0 for an empty image or window.
double FitZoom(cv::Size window, cv::Size image);

// The pixel-value overlay's level at a zoom: 0 at 384, 1 at 128, 2 at 96; none at any other zoom.
std::optional<int> OverlayLevel(double zoom);

// The image's rectangle in client pixels, as doubles so that zooming and scrolling never
// accumulate rounding.
struct ImageRect {
    double left = 0;
    double top = 0;
    double right = 0;
    double bottom = 0;

    double width() const { return right - left; }
    double height() const { return bottom - top; }
    // All four within 1e-8 of zero: no layout yet.
    bool unset() const;
    bool operator==(const ImageRect&) const = default;
};

// Each coordinate scaled by r about the anchor: left = left x r + ax x (1 - r), and so on.
ImageRect ScaleAbout(const ImageRect& rect, double r, cv::Point2d anchor);
// The rectangle of an image at a zoom with its top-left at a point.
ImageRect RectAt(cv::Point2d topLeft, cv::Size image, double zoom);
// The first layout: the image at the zoom, centred along an axis where it is smaller than the
// client area and at the top or left where it is larger.
ImageRect InitialLayout(cv::Size image, double zoom, cv::Size client);
// Centred in an area (zoom fit places the image so).
ImageRect CentredIn(cv::Size image, double zoom, cv::Rect2d area);
// Moved by (dx, dy) client pixels (dragging).
ImageRect Panned(const ImageRect& rect, double dx, double dy);
// Keeps at least some of the image within reach: min(32, extent) pixels of it stay inside the
// client area along each axis, so that no drag or zoom can lose it.
ImageRect KeptInReach(const ImageRect& rect, cv::Size client);
// Moves the rectangle so that the centre of image pixel `pixel` lies at the client area's centre.
ImageRect CentredOnPixel(const ImageRect& rect, double zoom, cv::Point pixel, cv::Size client);

// The image point (in image pixels, fractional) under a client point, and the pixel holding it.
cv::Point2d ClientToImage(const ImageRect& rect, double zoom, cv::Point2d client);
cv::Point ImagePixelAt(const ImageRect& rect, double zoom, cv::Point2d client);
// The client point of an image pixel's centre.
cv::Point2d PixelCentre(const ImageRect& rect, double zoom, cv::Point pixel);

// One scroll bar over the union of the image's extent [lo, hi) and the client extent [0, page):
// range 0..maximum, the page, and the value (where the client starts in that union). needed is
// false when the image fits the client extent: the bar is then hidden.
struct ScrollAxis {
    int maximum = 0;
    int page = 0;
    int value = 0;
    bool needed = false;
    bool operator==(const ScrollAxis&) const = default;
};
ScrollAxis ScrollFor(double lo, double hi, int page);
// The shift of the image's extent that moves the bar to `value`: add it to lo and hi.
double ScrollShift(double lo, double hi, int page, int value);

// Which part of a display image a paint draws and where: the image pixels it covers (clipped to
// the image), their size once resized by the zoom, where that resized block's top-left lands in
// the client area (it may start left of or above it), and the part of the block inside the
// client area. source is empty when no pixel of the image is visible.
struct VisiblePart {
    cv::Rect source;
    cv::Size scaled;
    cv::Point origin;
    cv::Rect crop;
    // Where crop's top-left lands in the client area.
    cv::Point target() const { return origin + crop.tl(); }
};
VisiblePart MapVisible(const ImageRect& rect, double zoom, cv::Size image, cv::Size client);

// "Goto Pixel...": the pixel limits of a raw image (width - 1, height - 1) and whether a typed
// value lies within [0, limit].
struct PixelLimits {
    int maxX = 0;
    int maxY = 0;
};
PixelLimits GotoPixelLimits(int width, int height);
// The value of an edit's text when it is a whole number within [0, limit]; nullopt otherwise.
std::optional<int> ParsePixelCoordinate(std::string_view text, int limit);

}  // namespace lumetra
