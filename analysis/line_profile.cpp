#include "analysis/line_profile.h"

#include <algorithm>
#include <cstdio>

namespace lumetra {

std::array<ProfileMenuItem, 4> ProfileMenu(int imageType, const ProfileFlags& flags) {
    std::array<ProfileMenuItem, 4> items;
    for (int i = kProfileRed; i <= kProfileBlue; ++i) {
        items[i].enabled = imageType != 1;
        items[i].checked = flags[i] && imageType != 1;
    }
    items[kProfileClear].enabled = imageType == 4;
    items[kProfileClear].checked = flags[kProfileClear] && imageType == 4;
    return items;
}

ValueScale ProfileAxis(int bitsPerPixel, int channels, bool adaptive, bool automaticWindow,
                       int userShift) {
    ValueScale table = ProfileScale(bitsPerPixel, channels);
    ValueScale axis;
    axis.limit = adaptive ? 255 : table.limit;
    axis.shift = automaticWindow ? table.shift : userShift;
    return axis;
}

Profile BuildProfile(const ImageBuffer& image, bool horizontal, int length, int labelWidth,
                     const PaneToImage& toImage, bool adaptive, int shift) {
    Profile profile;
    if (!image.hasImage() || length <= 0) {
        return profile;
    }
    profile.samples.reserve(static_cast<std::size_t>(length));
    bool first = true;
    for (int p = 0; p < length; ++p) {
        if (p <= labelWidth + 5) {
            continue;
        }
        const std::optional<std::pair<int, int>> at = toImage(p);
        if (!at) {
            continue;
        }
        const auto [x, y] = *at;
        if (x < 0 || x >= image.width() || y < 0 || y >= image.height()) {
            continue;
        }
        const std::array<double, 4> v = image.ReadPixel(y, x);
        ProfileSample s;
        s.position = p;
        for (int c = 0; c < 4; ++c) {
            const int value = static_cast<int>(v[c]);
            s.values[c] = adaptive ? (value >> shift) & 255 : value;
        }
        profile.samples.push_back(s);
        const int coordinate = horizontal ? x : y;
        if (first) {
            profile.axisStart = coordinate;
            profile.axisEnd = coordinate;
            first = false;
        }
        profile.axisEnd = std::max(profile.axisEnd, coordinate);
    }
    return profile;
}

std::vector<ProfileSample> RowProfile(const FrameCopy& frame, int row) {
    std::vector<ProfileSample> samples;
    if (row < 0 || row >= frame.height()) {
        return samples;
    }
    samples.resize(static_cast<std::size_t>(frame.width()));
    for (int x = 0; x < frame.width(); ++x) {
        ProfileSample& s = samples[static_cast<std::size_t>(x)];
        s.position = x;
        for (int c = 0; c < frame.channels(); ++c) {
            s.values[c] = static_cast<int>(frame.sample(x, row, c));
        }
    }
    return samples;
}

std::string ValueLabel(int i, int limit) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%d", static_cast<int>((4 - i) * (int64_t{limit} + 1) / 4));
    return buf;
}

std::string PositionLabel(int i, int start, int end) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%d", static_cast<int>(start + i * (int64_t{end} - start) / 4));
    return buf;
}

int ValueToY(int value, int top, int bottom, int limit) {
    if (limit == 0) {
        return bottom;
    }
    return static_cast<int>(bottom - (int64_t{bottom - top} * value) / limit);
}

std::vector<std::pair<int, Rgb>> ProfileLines(int imageType, const ProfileFlags& flags) {
    if (imageType == 1) {
        return {{0, kProfileRedColour}};
    }
    std::vector<std::pair<int, Rgb>> lines;
    if (flags[kProfileBlue]) {
        lines.emplace_back(0, kProfileBlueColour);
    }
    if (flags[kProfileGreen]) {
        lines.emplace_back(1, kProfileGreenColour);
    }
    if (flags[kProfileRed]) {
        lines.emplace_back(2, kProfileRedColour);
    }
    if (imageType == 4 && flags[kProfileClear]) {
        lines.emplace_back(3, kProfileBlackColour);
    }
    return lines;
}

Rgb ProfileBackground(int imageType) {
    return imageType == 1 ? kProfileBlueColour : kProfileBlackColour;
}

std::vector<BarSpan> ProfileBar(int imageType, const ProfileFlags& flags,
                                const std::array<int, 4>& values) {
    std::vector<BarSpan> spans;
    auto add = [&](int from, int to, Rgb colour) {
        if (to > from) {
            spans.push_back({from, to, colour});
        }
    };
    if (imageType == 1) {
        add(0, values[0], kProfileRedColour);
        return spans;
    }
    // The three channels with their colour masks, highest level first.
    struct Level {
        int level;
        Rgb colour;
    };
    std::array<Level, 3> levels = {Level{flags[kProfileRed] ? values[2] : 0, kProfileRedColour},
                                   Level{flags[kProfileGreen] ? values[1] : 0, kProfileGreenColour},
                                   Level{flags[kProfileBlue] ? values[0] : 0, kProfileBlueColour}};
    std::stable_sort(levels.begin(), levels.end(),
                     [](const Level& a, const Level& b) { return a.level > b.level; });
    const Rgb mix{static_cast<uint8_t>(levels[0].colour.r | levels[1].colour.r),
                  static_cast<uint8_t>(levels[0].colour.g | levels[1].colour.g),
                  static_cast<uint8_t>(levels[0].colour.b | levels[1].colour.b)};
    add(0, levels[2].level, kProfileWhiteColour);
    add(std::max(levels[2].level, 0), levels[1].level, mix);
    add(std::max(levels[1].level, 0), levels[0].level, levels[0].colour);
    if (imageType == 4 && flags[kProfileClear]) {
        add(0, values[3], kProfileWhiteColour);
    }
    return spans;
}

}  // namespace lumetra
