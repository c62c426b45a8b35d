// "Measure Length": horizontal, vertical and straight-line lengths of a line picked in the main
// view, in the user's unit. Both end pixels count, so a one-pixel line measures one pixel length
// each way; that inclusive counting is how the tool has always measured and it is kept.
#pragma once

#include <string>
#include <string_view>

namespace lumetra {

inline constexpr std::string_view kPixelLengthText = "Please enter a number greater than 0 !";

// Kept application-wide so that it survives closing the dialog.
struct MeasureSettings {
    double pixelLength = 1.0;  // "One Pixel Length:"; not positive is taken as 1.0
    int unit = 0;              // index of the unit combo
};

// "Set": a pixel length not greater than 0 is refused (the caller shows kPixelLengthText) and
// the settings stay as they were.
bool SetPixelLength(MeasureSettings& settings, double pixelLength, int unit);
// On opening the dialog: a stored length that is not positive becomes 1.0.
void NormalisePixelLength(MeasureSettings& settings);

struct Lengths {
    double horizontal = 0.0;
    double vertical = 0.0;
    double cartesian = 0.0;
};
// (|x2 - x1| + 1) x s, (|y2 - y1| + 1) x s and the root of their squares' sum; s not positive is
// taken as 1.0.
Lengths MeasureLengths(int x1, int y1, int x2, int y2, double pixelLength);

// The five read-outs: "(%d,%d)" for the points, "%.2f" for the lengths.
struct LengthTexts {
    std::string start, stop, horizontal, vertical, cartesian;
};
LengthTexts FormatLengths(int x1, int y1, int x2, int y2, const Lengths& lengths);

}  // namespace lumetra
