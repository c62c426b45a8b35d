// The texts of the main image view: the marker read-out for the status bar, the pixel-value
// overlay drawn at the three largest zooms, and the context-creation failure texts.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "imaging/image_buffer.h"

namespace lumetra {

// "Marker(x,y)=(%d,%d)  Value(Gray)= ..." for the raw pixel at column x, row y: one, three or four
// samples in memory order, "%X" of the rounded values for data format 1 (hexadecimal) and "%.0f"
// otherwise. Empty when the marker lies outside the raw image or it has another channel count.
// The caller holds the frame lock.
std::string MarkerReadout(const ImageBuffer& raw, int x, int y, int dataFormat);
std::string MarkerReadout(const std::array<double, 4>& samples, int channels, int x, int y,
                          int dataFormat);

// How the overlay names the samples of a drawn pixel.
enum class ValueLabels {
    Plain,        // a grey image or a phase plane: the value alone
    Colour,       // B, G, R in memory: "R:", "G:", "B:"
    ColourClear,  // B, G, R, C in memory: "R:", "G:", "B:", "C:"
    LumaChroma,   // Y, Cr, Cb in memory: "Y:", "Cr:", "Cb:"
    Red,
    Green,
    Blue,
    Clear,
    Y,
    Cr,
    Cb,
};

// The overlay's lines for one pixel: "(%d, %d)" with its position, then one line per sample
// ("R:  %X" or "R:  %d" and so on; the value alone for Plain). No lines for data format 2 ("No").
std::vector<std::string> PixelValueTexts(int x, int y, const std::array<double, 4>& samples,
                                         ValueLabels labels, int dataFormat);

// Why no OpenGL context could be had for the view, and the message-window text of each.
enum class ContextFailure {
    NoSurface,           // no native window to draw on
    NoPixelFormat,       // the context lacks what the view draws with (OpenGL 1.x and 2.0)
    NoRenderingContext,  // no context could be created
    NotCurrent,          // the context could not be made current
};
std::string_view ContextFailureText(ContextFailure failure);

}  // namespace lumetra
