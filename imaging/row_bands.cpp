#include "imaging/row_bands.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

namespace lumetra {

namespace {

constexpr int64_t kMinSamplesPerThread = int64_t{1} << 16;
// Runs per thread: enough for the fast threads to take over from a slow one.
constexpr int kRunsPerThread = 8;

int CoreCount() {
    return std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
}

}  // namespace

int AutoThreadCount(int rows, int64_t samplesPerRow) {
    if (rows <= 0) {
        return 1;
    }
    const int64_t total = int64_t{rows} * std::max<int64_t>(samplesPerRow, 1);
    const int64_t bySize = std::max<int64_t>(1, total / kMinSamplesPerThread);
    return static_cast<int>(std::min<int64_t>({CoreCount(), bySize, rows}));
}

void ForEachRowBand(int rows, int threads, const std::function<void(int, int)>& work) {
    if (rows <= 0) {
        return;
    }
    if (threads <= 0) {
        threads = CoreCount();
    }
    threads = std::min(threads, rows);
    if (threads == 1) {
        work(0, rows);
        return;
    }
    const int run = std::max(1, rows / (kRunsPerThread * threads));
    std::atomic<int> next{0};
    auto take = [&] {
        for (;;) {
            const int begin = next.fetch_add(run, std::memory_order_relaxed);
            if (begin >= rows) {
                return;
            }
            work(begin, std::min(rows, begin + run));
        }
    };
    std::vector<std::thread> helpers;
    helpers.reserve(static_cast<std::size_t>(threads - 1));
    for (int i = 1; i < threads; ++i) {
        try {
            helpers.emplace_back(take);
        } catch (const std::system_error&) {
            break;
        }
    }
    take();
    for (std::thread& t : helpers) {
        t.join();
    }
}

}  // namespace lumetra
