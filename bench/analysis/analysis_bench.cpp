// Histogram workers against cv::calcHist, and the bad-pixel search against the ordered-map walk,
// on 4096 x 3072 frames. Each pair runs side by side; a summary with the ratios and the goals
// (histograms at least 2x calcHist, bad pixels at least 20x the map walk) ends the run. Each
// benchmark is repeated five times and the summary takes the medians. Results are compared before
// timing: a pair whose answers differ is reported as an error, not timed.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <opencv2/imgproc.hpp>
#include <random>

#include "analysis/bad_pixels.h"
#include "analysis/histogram_analytics.h"
#include "bad_pixel_map_reference.h"

namespace lumetra {
namespace {

constexpr int kWidth = 4096;
constexpr int kHeight = 3072;

// A camera-like frame: a slow gradient with noise.
cv::Mat Frame(int type) {
    cv::Mat m(kHeight, kWidth, type);
    std::mt19937 rng(12345);
    const int channels = CV_MAT_CN(type);
    const bool wide = CV_MAT_DEPTH(type) == CV_16U;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            for (int c = 0; c < channels; ++c) {
                const int noise = static_cast<int>(rng() % 17) - 8;
                if (wide) {
                    const int v = (x + y) * 9 + c * 1000 + noise * 40;
                    m.ptr<uint16_t>(y)[x * channels + c] =
                        static_cast<uint16_t>(std::clamp(v, 0, 65535));
                } else {
                    const int v = (x + y) / 28 + c * 20 + noise;
                    m.ptr<uint8_t>(y)[x * channels + c] =
                        static_cast<uint8_t>(std::clamp(v, 0, 255));
                }
            }
        }
    }
    return m;
}

const cv::Mat& Bgr8() {
    static const cv::Mat m = Frame(CV_8UC3);
    return m;
}
const cv::Mat& Mono16() {
    static const cv::Mat m = Frame(CV_16UC1);
    return m;
}

// The dialog's end of the engine: waits for the histogram of a given frame.
class BenchSink final : public MessageSink {
  public:
    void post(uint32_t message, intptr_t, intptr_t l) override {
        if (message != analysis_msg::kHistogramReady) {
            return;
        }
        {
            std::lock_guard lock(mutex_);
            ready_ = static_cast<uint64_t>(l);
        }
        cv_.notify_all();
    }
    void WaitFor(uint64_t sequence) {
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [&] { return ready_ >= sequence; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    uint64_t ready_ = 0;
};

class SilentPrompt final : public Prompt {
  public:
    void information(std::string_view) override {}
};

// calcHist, one call per channel, as counts per bin.
std::vector<std::vector<uint64_t>> CalcHist(const cv::Mat& m, int bins) {
    std::vector<std::vector<uint64_t>> out;
    for (int c = 0; c < m.channels(); ++c) {
        cv::Mat hist;
        const int channel[] = {c};
        const int size[] = {bins};
        const float range[] = {0.0f, static_cast<float>(bins)};
        const float* ranges[] = {range};
        cv::calcHist(&m, 1, channel, cv::Mat(), hist, 1, size, ranges);
        std::vector<uint64_t> counts(static_cast<std::size_t>(bins));
        for (int b = 0; b < bins; ++b) {
            counts[static_cast<std::size_t>(b)] = static_cast<uint64_t>(hist.at<float>(b));
        }
        out.push_back(std::move(counts));
    }
    return out;
}

void RunCalcHist(benchmark::State& state, const cv::Mat& m, int bins) {
    for (auto _ : state) {
        for (int c = 0; c < m.channels(); ++c) {
            cv::Mat hist;
            const int channel[] = {c};
            const int size[] = {bins};
            const float range[] = {0.0f, static_cast<float>(bins)};
            const float* ranges[] = {range};
            cv::calcHist(&m, 1, channel, cv::Mat(), hist, 1, size, ranges);
            benchmark::DoNotOptimize(hist.data);
        }
    }
}

// The engine's histogram workers from wake to posted result, on a frame already copied.
void RunWorkers(benchmark::State& state, const cv::Mat& m, int bitsPerPixel) {
    const std::shared_ptr<const FrameCopy> frame = MakeFrameCopy(m, bitsPerPixel);
    BenchSink sink;
    SilentPrompt prompt;
    HistogramAnalytics engine(AnalyticsKind::kBasic, sink, prompt);
    uint64_t sequence = 0;

    // Same counts as calcHist before anything is timed.
    engine.Submit(frame);
    sink.WaitFor(++sequence);
    const HistogramResult r = engine.histograms();
    const auto want = CalcHist(m, m.depth() == CV_8U ? 256 : 65536);
    const int order[4][4] = {{kGray}, {}, {kBlue, kGreen, kRed}, {kBlue, kGreen, kRed, kClear}};
    for (int c = 0; c < m.channels(); ++c) {
        const int channel = order[m.channels() - 1][c];
        for (std::size_t b = 0; b < want[static_cast<std::size_t>(c)].size(); ++b) {
            if (r.sets[kAllColumns].at(channel, static_cast<int>(b)) !=
                want[static_cast<std::size_t>(c)][b]) {
                state.SkipWithError("histogram differs from calcHist");
                return;
            }
        }
    }
    for (auto _ : state) {
        engine.Submit(frame);
        sink.WaitFor(++sequence);
    }
}

void BM_HistogramWorkers_Bgr8(benchmark::State& s) {
    RunWorkers(s, Bgr8(), 24);
}
void BM_CalcHist_Bgr8(benchmark::State& s) {
    RunCalcHist(s, Bgr8(), 256);
}
void BM_HistogramWorkers_Mono16(benchmark::State& s) {
    RunWorkers(s, Mono16(), 16);
}
void BM_CalcHist_Mono16(benchmark::State& s) {
    RunCalcHist(s, Mono16(), 65536);
}

// One worker's counting alone, for reference: the engine splits this over two threads.
void BM_CountOneThread_Bgr8(benchmark::State& state) {
    const auto frame = MakeFrameCopy(Bgr8(), 24);
    HistogramScratch scratch;
    HistogramSet set;
    for (auto _ : state) {
        set.Clear(256);
        CountHistograms(*frame, {0, 0, kWidth, kHeight}, false, &set, scratch);
        benchmark::DoNotOptimize(set.channel(kGray));
    }
}

// 1 % of the pixels far outside a normal frame's range, some of them next to each other.
struct BadFrame {
    std::shared_ptr<const FrameCopy> frame;
    BadPixelSettings settings;
    BadFrame() {
        cv::Mat m(kHeight, kWidth, CV_8UC1);
        std::mt19937 rng(777);
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                m.ptr<uint8_t>(y)[x] = static_cast<uint8_t>(60 + (x + y) / 64 + rng() % 9);
            }
        }
        const std::size_t bad = std::size_t{kWidth} * kHeight / 100;
        for (std::size_t i = 0; i < bad; ++i) {
            const int x = static_cast<int>(rng() % kWidth);
            const int y = static_cast<int>(rng() % kHeight);
            m.ptr<uint8_t>(y)[x] = (rng() & 1) != 0 ? 255 : 2;
        }
        frame = MakeFrameCopy(m, 8);
        settings.mode = kOutOfRange;
        settings.low = 10;
        settings.high = 250;
        settings.horizontalCount = 2;
        settings.verticalCount = 2;
    }
};

const BadFrame& Bad() {
    static const BadFrame b;
    return b;
}

constexpr PixelArea kAll{0, 0, kWidth, kHeight};

BadPixelLists Search(const BadFrame& b) {
    BadPixelSearch search(b.settings, kAll, 1, kWidth, kHeight);
    search.AddFrame(*b.frame);
    return search.Finish();
}

void BM_BadPixelSearch(benchmark::State& state) {
    const BadFrame& b = Bad();
    const BadPixelLists got = Search(b);
    const BadPixelLists want = test::MapReference(*b.frame, b.settings, kAll, kBadPixelCap);
    if (got.single != want.single || got.horizontal != want.horizontal ||
        got.vertical != want.vertical) {
        state.SkipWithError("lists differ from the map walk");
        return;
    }
    state.counters["single"] = static_cast<double>(got.single.size());
    state.counters["horizontal"] = static_cast<double>(got.horizontal.size());
    state.counters["vertical"] = static_cast<double>(got.vertical.size());
    for (auto _ : state) {
        BadPixelLists lists = Search(b);
        benchmark::DoNotOptimize(lists.single.data());
    }
}

void BM_BadPixelMapWalk(benchmark::State& state) {
    const BadFrame& b = Bad();
    for (auto _ : state) {
        BadPixelLists lists = test::MapReference(*b.frame, b.settings, kAll, kBadPixelCap);
        benchmark::DoNotOptimize(lists.single.data());
    }
}

constexpr int kRepetitions = 5;
BENCHMARK(BM_HistogramWorkers_Bgr8)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(kRepetitions);
BENCHMARK(BM_CalcHist_Bgr8)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(kRepetitions);
BENCHMARK(BM_CountOneThread_Bgr8)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(kRepetitions);
BENCHMARK(BM_HistogramWorkers_Mono16)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(kRepetitions);
BENCHMARK(BM_CalcHist_Mono16)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(kRepetitions);
BENCHMARK(BM_BadPixelSearch)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(kRepetitions);
BENCHMARK(BM_BadPixelMapWalk)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5)
    ->Repetitions(kRepetitions);

// Keeps each benchmark's median time per iteration for the summary.
class SummaryReporter final : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (!r.error_occurred && r.run_type == Run::RT_Aggregate &&
                r.aggregate_name == "median") {
                times[r.run_name.str()] = r.GetAdjustedRealTime();
            }
        }
    }
    std::map<std::string, double> times;
};

void Compare(const SummaryReporter& r, const char* what, const std::string& ours,
             const std::string& theirs, double goal) {
    const auto a = r.times.find(ours);
    const auto b = r.times.find(theirs);
    if (a == r.times.end() || b == r.times.end()) {
        std::printf("%-28s not measured\n", what);
        return;
    }
    const double ratio = b->second / a->second;
    std::printf("%-28s %8.2f ms vs %8.2f ms: %6.2fx (goal %.0fx) %s\n", what, a->second, b->second,
                ratio, goal, ratio >= goal ? "met" : "NOT MET");
}

}  // namespace
}  // namespace lumetra

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    lumetra::SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n");
    lumetra::Compare(reporter, "histograms 8-bit BGR",
                     "BM_HistogramWorkers_Bgr8/repeats:5/real_time",
                     "BM_CalcHist_Bgr8/repeats:5/real_time", 2.0);
    // The same counting on one thread: twice this is what two otherwise idle cores can give.
    lumetra::Compare(reporter, "8-bit BGR on one thread",
                     "BM_CountOneThread_Bgr8/repeats:5/real_time",
                     "BM_CalcHist_Bgr8/repeats:5/real_time", 1.0);
    lumetra::Compare(reporter, "histograms 16-bit mono",
                     "BM_HistogramWorkers_Mono16/repeats:5/real_time",
                     "BM_CalcHist_Mono16/repeats:5/real_time", 2.0);
    lumetra::Compare(reporter, "bad pixels 1 %", "BM_BadPixelSearch/repeats:5/real_time",
                     "BM_BadPixelMapWalk/iterations:5/repeats:5/real_time", 20.0);
    benchmark::Shutdown();
    return 0;
}
