#include "analysis/length_measure.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace lumetra {

bool SetPixelLength(MeasureSettings& settings, double pixelLength, int unit) {
    // NaN is not greater than 0 either.
    if (!(pixelLength > 0.0)) {
        return false;
    }
    settings.pixelLength = pixelLength;
    settings.unit = unit;
    return true;
}

void NormalisePixelLength(MeasureSettings& settings) {
    if (!(settings.pixelLength > 0.0)) {
        settings.pixelLength = 1.0;
    }
}

Lengths MeasureLengths(int x1, int y1, int x2, int y2, double s) {
    if (!(s > 0.0)) {
        s = 1.0;
    }
    Lengths l;
    l.horizontal = (std::llabs(static_cast<long long>(x2) - x1) + 1) * s;
    l.vertical = (std::llabs(static_cast<long long>(y2) - y1) + 1) * s;
    l.cartesian = std::sqrt(l.horizontal * l.horizontal + l.vertical * l.vertical);
    return l;
}

LengthTexts FormatLengths(int x1, int y1, int x2, int y2, const Lengths& l) {
    char buf[64];
    LengthTexts t;
    std::snprintf(buf, sizeof buf, "(%d,%d)", x1, y1);
    t.start = buf;
    std::snprintf(buf, sizeof buf, "(%d,%d)", x2, y2);
    t.stop = buf;
    std::snprintf(buf, sizeof buf, "%.2f", l.horizontal);
    t.horizontal = buf;
    std::snprintf(buf, sizeof buf, "%.2f", l.vertical);
    t.vertical = buf;
    std::snprintf(buf, sizeof buf, "%.2f", l.cartesian);
    t.cartesian = buf;
    return t;
}

}  // namespace lumetra
