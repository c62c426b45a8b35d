#include "imaging/view_readout.h"

#include <cmath>
#include <cstdio>

namespace lumetra {

namespace {

std::string Format(const char* format, auto... values) {
    char text[160];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

unsigned Rounded(double value) {
    return static_cast<unsigned>(std::llround(value));
}

}  // namespace

std::string MarkerReadout(const std::array<double, 4>& s, int channels, int x, int y,
                          int dataFormat) {
    const bool hex = dataFormat == 1;
    switch (channels) {
        case 1:
            return hex ? Format("Marker(x,y)=(%d,%d)  Value(Gray)= %X", x, y, Rounded(s[0]))
                       : Format("Marker(x,y)=(%d,%d)  Value(Gray)= %.0f", x, y, s[0]);
        case 3:
            return hex ? Format("Marker(x,y)=(%d,%d)  Value(RGB)= %X %X %X ", x, y, Rounded(s[0]),
                                Rounded(s[1]), Rounded(s[2]))
                       : Format("Marker(x,y)=(%d,%d)  Value(RGB)= %.0f %.0f %.0f ", x, y, s[0],
                                s[1], s[2]);
        case 4:
            return hex ? Format("Marker(x,y)=(%d,%d)  Value(RGBC)= %X %X %X %X ", x, y,
                                Rounded(s[0]), Rounded(s[1]), Rounded(s[2]), Rounded(s[3]))
                       : Format("Marker(x,y)=(%d,%d)  Value(RGBC)= %.0f %.0f %.0f %.0f ", x, y,
                                s[0], s[1], s[2], s[3]);
        default:
            return {};
    }
}

std::string MarkerReadout(const ImageBuffer& raw, int x, int y, int dataFormat) {
    if (!raw.hasImage() || x < 0 || y < 0 || x >= raw.width() || y >= raw.height()) {
        return {};
    }
    return MarkerReadout(raw.ReadPixel(y, x), raw.channels(), x, y, dataFormat);
}

std::vector<std::string> PixelValueTexts(int x, int y, const std::array<double, 4>& s,
                                         ValueLabels labels, int dataFormat) {
    if (dataFormat == 2) {
        return {};
    }
    const bool hex = dataFormat == 1;
    std::vector<std::string> lines{Format("(%d, %d)", x, y)};
    auto add = [&](const char* label, double value) {
        const unsigned v = Rounded(value);
        if (label == nullptr) {
            lines.push_back(Format(hex ? "%X" : "%d", v));
        } else {
            lines.push_back(Format(hex ? "%s:  %X" : "%s:  %d", label, v));
        }
    };
    switch (labels) {
        case ValueLabels::Plain:
            add(nullptr, s[0]);
            break;
        case ValueLabels::Colour:
        case ValueLabels::ColourClear:
            add("R", s[2]);
            add("G", s[1]);
            add("B", s[0]);
            if (labels == ValueLabels::ColourClear) {
                add("C", s[3]);
            }
            break;
        case ValueLabels::LumaChroma:
            add("Y", s[0]);
            add("Cr", s[1]);
            add("Cb", s[2]);
            break;
        case ValueLabels::Red:
            add("R", s[0]);
            break;
        case ValueLabels::Green:
            add("G", s[0]);
            break;
        case ValueLabels::Blue:
            add("B", s[0]);
            break;
        case ValueLabels::Clear:
            add("C", s[0]);
            break;
        case ValueLabels::Y:
            add("Y", s[0]);
            break;
        case ValueLabels::Cr:
            add("Cr", s[0]);
            break;
        case ValueLabels::Cb:
            add("Cb", s[0]);
            break;
    }
    return lines;
}

std::string_view ContextFailureText(ContextFailure failure) {
    switch (failure) {
        case ContextFailure::NoSurface:
            return "Can't Get Client DC\n";
        case ContextFailure::NoPixelFormat:
            return "Can't Setup Pixel Format Description\n";
        case ContextFailure::NoRenderingContext:
            return "Can't Create Rendering Context\n";
        case ContextFailure::NotCurrent:
            return "Can't Make Current DC\n";
    }
    return {};
}

}  // namespace lumetra
