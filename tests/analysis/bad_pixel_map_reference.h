// The bad-pixel lists built the slow, literal way: every bad pixel into two ordered maps, then a
// walk of each map. The tests and the benchmark hold the fast search to it.
#pragma once

#include <map>

#include "analysis/bad_pixels.h"

namespace lumetra::test {

inline BadPixelLists MapReference(const FrameCopy& f, const BadPixelSettings& s, PixelArea area,
                                  std::size_t capacity) {
    using Values = std::array<uint16_t, 4>;
    std::map<uint64_t, Values> byRow, byColumn;
    area = ClipArea(area, f.width(), f.height());
    for (int y = area.top; y < area.bottom; ++y) {
        for (int x = area.left; x < area.right; ++x) {
            bool bad = false;
            Values values{65535, 65535, 65535, 65535};
            for (int c = 0; c < f.channels(); ++c) {
                values[c] = static_cast<uint16_t>(f.sample(x, y, c));
                bad = bad || IsBadSample(s.mode, values[c], s.low, s.high);
            }
            if (bad) {
                byRow.emplace(uint64_t(y) * 65536 + x, values);
                byColumn.emplace(uint64_t(x) * 65536 + y, values);
            }
        }
    }
    BadPixelLists out;
    out.channels = f.channels();
    for (const auto& [key, values] : byRow) {
        if (out.single.size() < capacity) {
            out.single.push_back({key, 1, values});
        } else {
            out.capped = true;
        }
    }
    // A run enters its list when its length reaches the count (0 counts as 1) and grows there.
    auto walk = [&](const std::map<uint64_t, Values>& map, int count,
                    std::vector<BadPixelRecord>& clusters) {
        const uint64_t need = std::max(count, 1);
        uint64_t previous = 0, start = 0, length = 0;
        std::size_t listed = SIZE_MAX;
        for (const auto& [key, values] : map) {
            if (length > 0 && key == previous + 1) {
                ++length;
            } else {
                start = key;
                length = 1;
                listed = SIZE_MAX;
            }
            previous = key;
            if (length == need && clusters.size() < capacity) {
                listed = clusters.size();
                clusters.push_back({start, length, {65535, 65535, 65535, 65535}});
            } else if (length == need) {
                out.capped = true;
            } else if (length > need && listed != SIZE_MAX) {
                clusters[listed].count = length;
            }
        }
    };
    walk(byRow, s.horizontalCount, out.horizontal);
    walk(byColumn, s.verticalCount, out.vertical);
    return out;
}

}  // namespace lumetra::test
