// The bad-pixel lists built the slow, literal way: every bad pixel into two ordered maps, then a
// walk of each map. The tests and the benchmark hold the fast search to it.
#pragma once

#include <map>

#include "analysis/bad_pixels.h"

namespace lumetra::test {

inline BadPixelLists MapReference(const FrameCopy& f, const BadPixelSettings& s, PixelArea area,
                                  std::size_t capacity) {
    struct Entry {
        uint64_t count;
        std::array<uint16_t, 4> values;
    };
    std::map<uint64_t, Entry> byRow;
    std::map<uint64_t, Entry> byColumn;
    area = ClipArea(area, f.width(), f.height());
    for (int y = area.top; y < area.bottom; ++y) {
        for (int x = area.left; x < area.right; ++x) {
            bool bad = false;
            std::array<uint16_t, 4> values{65535, 65535, 65535, 65535};
            for (int c = 0; c < f.channels(); ++c) {
                const uint32_t v = f.sample(x, y, c);
                values[c] = static_cast<uint16_t>(v);
                bad = bad || IsBadSample(s.mode, v, s.low, s.high);
            }
            if (bad) {
                byRow.emplace(uint64_t(y) * 65536 + x, Entry{1, values});
                byColumn.emplace(uint64_t(x) * 65536 + y, Entry{1, values});
            }
        }
    }
    BadPixelLists out;
    out.channels = f.channels();
    const std::array<uint16_t, 4> none{65535, 65535, 65535, 65535};
    // A run enters its list when its length reaches the count (0 counts as 1) and grows there.
    auto walk = [&](const std::map<uint64_t, Entry>& map, uint64_t count,
                    std::vector<BadPixelRecord>& clusters, bool singles) {
        count = std::max<uint64_t>(count, 1);
        uint64_t previous = 0, start = 0, length = 0;
        std::size_t listed = SIZE_MAX;
        for (const auto& [key, e] : map) {
            if (singles) {
                if (out.single.size() < capacity) {
                    out.single.push_back({key, e.count, e.values});
                } else {
                    out.capped = true;
                }
            }
            if (length > 0 && key == previous + 1) {
                ++length;
            } else {
                start = key;
                length = 1;
                listed = SIZE_MAX;
            }
            previous = key;
            if (length == count) {
                if (clusters.size() < capacity) {
                    listed = clusters.size();
                    clusters.push_back({start, length, none});
                } else {
                    out.capped = true;
                }
            } else if (length > count && listed != SIZE_MAX) {
                clusters[listed].count = length;
            }
        }
    };
    walk(byRow, static_cast<uint64_t>(std::max(s.horizontalCount, 0)), out.horizontal, true);
    walk(byColumn, static_cast<uint64_t>(std::max(s.verticalCount, 0)), out.vertical, false);
    return out;
}

}  // namespace lumetra::test
