#include "analysis/roi.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>

#include "base/ini_file.h"

namespace lumetra {

PixelArea RoiRect::area(int width, int height) const {
    if (empty()) {
        return {0, 0, width, height};
    }
    // Stops are inclusive; computed in 64 bits so that a stop of INT_MAX cannot wrap.
    const auto right = static_cast<int>(std::min<int64_t>(int64_t{stopX} + 1, width));
    const auto bottom = static_cast<int>(std::min<int64_t>(int64_t{stopY} + 1, height));
    return ClipArea({startX, startY, right, bottom}, width, height);
}

RoiRect RoiFromView(int left, int top, int right, int bottom) {
    if (right - left == 0 || bottom - top == 0) {
        return {};
    }
    return {left, top, right - 1, bottom - 1};
}

std::string_view CheckRoiEdit(const RoiRect& r, int width, int height) {
    if (r.startX < 0 || r.startY < 0 || r.stopX < r.startX || r.stopY < r.startY) {
        return kCheckSettingsText;
    }
    if (r.stopX >= width || r.stopY >= height) {
        return kRoiOutOfFrameText;
    }
    return {};
}

Clamped ClampToRoi(int value, int start, int stop, bool roiEmpty) {
    if (roiEmpty) {
        return {value, false};
    }
    if (value >= stop) {
        return {stop - 1, true};
    }
    if (value < start) {
        return {start, true};
    }
    return {value, false};
}

std::string RoiConfigPath(const std::string& configFolder) {
    if (configFolder.empty()) {
        return "ROIConfig.ini";
    }
    return configFolder.back() == '/' ? configFolder + "ROIConfig.ini"
                                      : configFolder + "/ROIConfig.ini";
}

namespace {

constexpr std::string_view kSection = "Config";

// A whole number with nothing else but blanks around it; anything else is malformed.
std::optional<int> wholeNumber(const IniFile& ini, const std::string& key) {
    if (!ini.has(kSection, key)) {
        return std::nullopt;
    }
    const std::string text = ini.value(kSection, key);
    std::string_view v = text;
    while (!v.empty() && (v.front() == ' ' || v.front() == '\t')) {
        v.remove_prefix(1);
    }
    while (!v.empty() && (v.back() == ' ' || v.back() == '\t' || v.back() == '\r')) {
        v.remove_suffix(1);
    }
    if (!v.empty() && v.front() == '+') {
        v.remove_prefix(1);
    }
    int out = 0;
    auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), out);
    if (v.empty() || ec != std::errc() || end != v.data() + v.size()) {
        return std::nullopt;
    }
    return out;
}

std::string key(int index, const char* field) {
    return "ROI" + std::to_string(index) + field;
}

}  // namespace

std::vector<RoiRect> LoadRoiSet(const std::string& path) {
    const std::optional<IniFile> ini = IniFile::Load(path);
    if (!ini) {
        return {kDefaultRoi};
    }
    int count = wholeNumber(*ini, "ROICount").value_or(1);
    if (count < 0 || count > kMaxRoiCount) {
        count = 1;
    }
    std::vector<RoiRect> rois(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        RoiRect& r = rois[static_cast<std::size_t>(i)];
        r.startX = wholeNumber(*ini, key(i, "StartX")).value_or(kDefaultRoi.startX);
        r.startY = wholeNumber(*ini, key(i, "StartY")).value_or(kDefaultRoi.startY);
        r.stopX = wholeNumber(*ini, key(i, "StopX")).value_or(kDefaultRoi.stopX);
        r.stopY = wholeNumber(*ini, key(i, "StopY")).value_or(kDefaultRoi.stopY);
    }
    return rois;
}

bool SaveRoiSet(const std::string& path, const std::vector<RoiRect>& rois) {
    IniFile ini = IniFile::Load(path).value_or(IniFile{});
    ini.set(kSection, "ROICount", std::to_string(rois.size()));
    for (std::size_t i = 0; i < rois.size(); ++i) {
        const int n = static_cast<int>(i);
        ini.set(kSection, key(n, "StartX"), std::to_string(rois[i].startX));
        ini.set(kSection, key(n, "StartY"), std::to_string(rois[i].startY));
        ini.set(kSection, key(n, "StopX"), std::to_string(rois[i].stopX));
        ini.set(kSection, key(n, "StopY"), std::to_string(rois[i].stopY));
    }
    return ini.Save(path);
}

std::optional<std::size_t> FirstUnreasonableRoi(const std::vector<RoiRect>& rois, int width,
                                                int height) {
    auto inside = [&](int x, int y) { return x >= 0 && x < width && y >= 0 && y < height; };
    for (std::size_t i = 0; i < rois.size(); ++i) {
        const RoiRect& r = rois[i];
        if (r.stopX <= r.startX || r.stopY <= r.startY || !inside(r.startX, r.startY) ||
            !inside(r.stopX, r.stopY)) {
            return i;
        }
    }
    return std::nullopt;
}

std::string UnreasonableRoiText(std::size_t index) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "The size setting of ROI%d is not reasonable, please reset",
                  static_cast<int>(index));
    return buf;
}

}  // namespace lumetra
