// The analysis workers: frame copies, publishing, posting, stopping. These start threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>

#include "analysis/bad_pixel_detector.h"
#include "analysis/histogram_analytics.h"
#include "analysis/roi_bad_pixels.h"
#include "analysis_test_support.h"
#include "bad_pixel_map_reference.h"
#include "fake_board.h"

namespace lumetra::test {
namespace {

using analysis_msg::kBadPixelDone;
using analysis_msg::kBadPixelProgress;
using analysis_msg::kHistogramReady;
using analysis_msg::kStatisticsReady;

TEST(FramePool, BlocksAreReusedAndReallocatedOnlyWhenTheSizeChanges) {
    CountingAllocator allocator;
    {
        FramePool pool(allocator);
        ImageBuffer image;
        image.Create(8, 1, 16, 4);
        std::unique_ptr<FrameCopy> copy = pool.Take();
        ASSERT_TRUE(FillFrameCopy(image, 8, *copy));
        const FrameCopy* first = copy.get();
        std::shared_ptr<const FrameCopy> shared = pool.Share(std::move(copy));
        EXPECT_EQ(pool.spareCount(), 0u);
        std::shared_ptr<const FrameCopy> reader = shared;
        shared.reset();
        EXPECT_EQ(pool.spareCount(), 0u);  // a reader still holds it
        reader.reset();
        EXPECT_EQ(pool.spareCount(), 1u);

        copy = pool.Take();
        EXPECT_EQ(copy.get(), first);
        ASSERT_TRUE(FillFrameCopy(image, 8, *copy));
        EXPECT_EQ(allocator.requests(), 1);  // same size: the block stays
        image.Create(8, 1, 17, 4);
        ASSERT_TRUE(FillFrameCopy(image, 8, *copy));
        EXPECT_EQ(allocator.requests(), 2);
        EXPECT_EQ(allocator.live(), 1u);
        allocator.refuse(true);
        image.Create(8, 1, 18, 4);
        EXPECT_FALSE(FillFrameCopy(image, 8, *copy));
        EXPECT_TRUE(copy->empty());
        EXPECT_EQ(allocator.live(), 0u);
    }
    EXPECT_EQ(allocator.live(), 0u);
}

cv::Mat Uniform(int value, int rows = 16, int cols = 24) {
    return cv::Mat(rows, cols, CV_8UC1, cv::Scalar(value));
}

// The suites below share this set-up; their names select the "thread" label in CMake.
struct Workers : ::testing::Test {
    WaitingSink sink;
    RecordingPrompt prompt;
    FrameImage frame;

    // Waits for frame n's histogram and its row and column statistics.
    void WaitForFrame(intptr_t n) {
        ASSERT_TRUE(sink.WaitForMessage(kHistogramReady, n));
        ASSERT_TRUE(sink.WaitForMessage(kStatisticsReady, n, kRowStatistics));
        ASSERT_TRUE(sink.WaitForMessage(kStatisticsReady, n, kColumnStatistics));
    }
};
using HistogramWorkers = Workers;
using RoiWorkers = Workers;
using AdvancedWorkers = Workers;
using BadPixelWorker = Workers;
using RoiBadPixelWorker = Workers;

TEST_F(HistogramWorkers, EachFrameIsPublishedAndPostedOnce) {
    HistogramAnalytics engine(AnalyticsKind::kBasic, sink, prompt);
    for (int i = 1; i <= 3; ++i) {
        LoadFrame(frame, Uniform(i * 10), 8);
        ASSERT_TRUE(engine.NewFrame(frame));
        WaitForFrame(i);
        const HistogramResult r = engine.histograms();
        EXPECT_EQ(r.sequence, static_cast<uint64_t>(i));
        EXPECT_EQ(r.sets[kAllColumns].at(kGray, i * 10), 16u * 24u);
        EXPECT_EQ(r.sets[kAllColumns].Total(kGray), 16u * 24u);
        EXPECT_EQ(r.means[kRed], static_cast<uint64_t>(i * 10));
        EXPECT_EQ(r.frame.width, 24);
    }
    // Then 12 bits in 16-bit samples: every bin is counted, the chart shows 4096.
    cv::Mat deep(6, 5, CV_16UC1, cv::Scalar(4000));
    deep.at<uint16_t>(2, 2) = 65535;
    LoadFrame(frame, deep, 12);
    ASSERT_TRUE(engine.NewFrame(frame));
    WaitForFrame(4);
    const HistogramResult r = engine.histograms();
    EXPECT_EQ(
        std::tuple(r.sets[kAllColumns].bins(), r.frame.shift, r.frame.limit, r.frame.shownBins()),
        std::tuple(65536, 4, 4095, 4096));
    EXPECT_EQ(r.sets[kAllColumns].at(kGray, 4000), 29u);
    EXPECT_EQ(r.sets[kAllColumns].at(kGray, 65535), 1u);
    EXPECT_EQ(r.means[kRed], (29u * 4000 + 65535) / 30);

    engine.Close();
    EXPECT_EQ(sink.count(kHistogramReady), 4u);
    for (int i = 1; i <= 4; ++i) {
        EXPECT_EQ(sink.count(kHistogramReady, i), 1u) << i;
    }
    EXPECT_TRUE(prompt.texts.empty());
}

TEST_F(HistogramWorkers, RowColumnAndChannelSelection) {
    cv::Mat m(10, 8, CV_8UC3, cv::Scalar(0, 0, 0));
    m.row(6).setTo(cv::Scalar(1, 2, 3));
    m.col(5).setTo(cv::Scalar(4, 5, 6));
    LoadFrame(frame, m, 24);
    HistogramAnalytics engine(AnalyticsKind::kBasic, sink, prompt);
    ASSERT_TRUE(engine.NewFrame(frame));
    engine.SetChannel(2);
    EXPECT_EQ(engine.SetRow(6), 6);
    EXPECT_EQ(engine.SetColumn(8), 7);  // the width: clamped, with the text
    EXPECT_EQ(prompt.texts, (std::vector<std::string>{"Set value is out of range"}));
    EXPECT_EQ(engine.SetColumn(5), 5);
    ASSERT_TRUE(sink.WaitFor([&](const auto&) {
        const LineResult r = engine.rowStatistics();
        const LineResult c = engine.columnStatistics();
        return r.index == 6 && r.channel == 2 && c.index == 5 && c.channel == 2;
    }));
    // Column 5 crosses row 6.
    EXPECT_EQ(CountMinMax(engine.rowStatistics().statistics), std::tuple(8u, 3u, 6u));
    EXPECT_EQ(CountMinMax(engine.columnStatistics().statistics), std::tuple(10u, 6u, 6u));

    // A mono frame puts the selector back on its first entry.
    LoadFrame(frame, Uniform(3, 4, 4), 8);
    ASSERT_TRUE(engine.NewFrame(frame));
    EXPECT_EQ(engine.channel(), 0);
    EXPECT_EQ(engine.SetRow(4), 3);  // the new height
}

TEST_F(HistogramWorkers, CloseStopsAWorkerMidFrame) {
    LoadFrame(frame, Uniform(5, 64, 32), 8);
    HistogramAnalytics engine(AnalyticsKind::kBasic, sink, prompt);
    std::atomic<int> rowsAfterStop{0};
    std::atomic<bool> stopped{false};
    AutoResetEvent closing;
    engine.setRowObserver([&](int row) {
        if (stopped) {
            ++rowsAfterStop;
        }
        if (row == 3) {  // one worker walks row 3
            stopped = true;
            engine.RequestClose();
            closing.set();
        }
    });
    ASSERT_TRUE(engine.NewFrame(frame));
    closing.wait();
    engine.Close();
    EXPECT_EQ(sink.count(kHistogramReady), 0u);
    EXPECT_EQ(engine.histograms().sequence, 0u);
    // Each worker may finish the row it is in, no more: at most one observed row per worker.
    EXPECT_LE(rowsAfterStop.load(), 3);
}

// Rows go out in blocks of 64 Ki pixels (16 rows of 4096): while the worker that took the first
// block is held inside it (at row 1: the row and column workers observe their index 0 too), the
// other takes all the rest, and the sum is published once both end.
TEST_F(HistogramWorkers, AWorkerHeldUpLeavesItsRowsToTheOther) {
    LoadFrame(frame, RandomMat(64, 4096, CV_8UC3, 11), 24);
    HistogramAnalytics engine(AnalyticsKind::kBasic, sink, prompt);
    std::mutex mutex;
    std::map<int, std::thread::id> walkers;  // row -> the first worker to observe it
    AutoResetEvent restWalked;
    std::atomic<bool> waited{false};
    engine.setRowObserver([&](int row) {
        std::unique_lock lock(mutex);
        if (!walkers.emplace(row, std::this_thread::get_id()).second) {
            return;
        }
        if (walkers.size() == 64 - 14) {  // every row but rows 2 to 15 of the held block
            restWalked.set();
        }
        if (row == 1) {
            lock.unlock();
            waited = restWalked.waitFor(std::chrono::seconds(20));
        }
    });
    ASSERT_TRUE(engine.NewFrame(frame));
    ASSERT_TRUE(sink.WaitForMessage(kHistogramReady, 1));
    EXPECT_TRUE(waited) << "the rows beyond the held block were left to the held worker";
    std::lock_guard lock(mutex);
    for (int row = 16; row < 64; ++row) {
        EXPECT_NE(walkers.at(row), walkers.at(1)) << row;
    }
    const HistogramResult r = engine.histograms();
    EXPECT_EQ(r.sets[kAllColumns].Total(kGray), 64u * 4096u);
    EXPECT_EQ(r.sets[kAllColumns].Total(kBlue), 64u * 4096u);
}

TEST_F(HistogramWorkers, FailedCopyComputesNothingForThatFrame) {
    CountingAllocator allocator;
    LoadFrame(frame, Uniform(9), 8);
    {
        HistogramAnalytics engine(AnalyticsKind::kBasic, sink, prompt, allocator);
        allocator.refuse(true);
        EXPECT_FALSE(engine.NewFrame(frame));
        EXPECT_EQ(prompt.texts, (std::vector<std::string>{"Allocate Virtual Memory Fail."}));
        allocator.refuse(false);
        ASSERT_TRUE(engine.NewFrame(frame));
        WaitForFrame(2);
        engine.Close();
        for (const WaitingSink::Message& m : sink.messages()) {
            EXPECT_EQ(m.l, 2) << "a result for the frame that was not copied";
        }
    }
    EXPECT_EQ(allocator.live(), 0u);
}

TEST_F(RoiWorkers, ParitySetsRatioAndRowEdits) {
    cv::Mat m(6, 8, CV_8UC1);
    for (int y = 0; y < 6; ++y) {
        for (int x = 0; x < 8; ++x) {
            m.at<uint8_t>(y, x) = static_cast<uint8_t>(100 + x * 10 + y);
        }
    }
    LoadFrame(frame, m, 8);
    HistogramAnalytics engine(AnalyticsKind::kRoi, sink, prompt);
    engine.SetRoi({1, 1, 4, 3});  // columns 1-4, rows 1-3
    ASSERT_TRUE(engine.NewFrame(frame));
    EXPECT_EQ(engine.SetRow(3), 2);  // at Y Stop: Y Stop - 1
    EXPECT_EQ(engine.SetColumn(0), 1);
    EXPECT_EQ(prompt.texts, (std::vector<std::string>{"Set value is out of ROI range",
                                                      "Set value is out of ROI range"}));
    ASSERT_TRUE(sink.WaitFor([&](const auto& all) {
        return WaitingSink::Count(all, kHistogramReady, -1, -1) > 0 &&
               engine.rowStatistics().index == 2 && engine.columnStatistics().index == 1;
    }));
    const HistogramResult r = engine.histograms();
    // Columns 1 and 3 are odd, 2 and 4 even.
    EXPECT_EQ(std::tuple(r.sets[kAllColumns].Total(kGray), r.sets[kOddColumns].Total(kGray),
                         r.sets[kEvenColumns].Total(kGray)),
              std::tuple(12u, 6u, 6u));
    EXPECT_EQ(r.sets[kOddColumns].at(kGray, 131), 1u);  // x 3, y 1
    EXPECT_EQ(r.sets[kEvenColumns].at(kGray, 131), 0u);
    EXPECT_EQ(r.sets[kAllColumns].at(kGray, 100), 0u);  // column 0 is outside
    EXPECT_EQ(r.means[kRed], (uint64_t{25} * 12 + 12 * 100 + 24) / 12);

    const LineResult row = engine.rowStatistics();
    EXPECT_EQ(CountMinMax(row.statistics), std::tuple(4u, 112u, 142u));  // columns 1..4 of row 2
    EXPECT_EQ(row.ratio.verdict, Verdict::kPass);
    EXPECT_DOUBLE_EQ(row.ratio.ratio, 142.0 / 112.0);
}

TEST_F(AdvancedWorkers, FiguresRunOnlyBetweenStartAndStop) {
    cv::Mat m = (cv::Mat_<uint8_t>(2, 3) << 1, 5, 9,  //
                 3, 5, 7);
    LoadFrame(frame, m, 8);
    HistogramAnalytics engine(AnalyticsKind::kAdvanced, sink, prompt);
    ASSERT_TRUE(engine.NewFrame(frame));
    ASSERT_TRUE(sink.WaitForMessage(kHistogramReady, 1));
    EXPECT_EQ(sink.count(kStatisticsReady, -1, kColumnFigures), 0u);

    engine.SetCompare(CompareMode::kLess, 5);
    engine.StartStatistics();
    ASSERT_TRUE(sink.WaitFor([&](const auto& all) {
        return WaitingSink::Count(all, kStatisticsReady, 1, kColumnFigures) > 0 &&
               WaitingSink::Count(all, kStatisticsReady, 1, kFrameFigures) > 0;
    }));
    const ColumnFigures columns = engine.columnFigures();
    ASSERT_EQ(columns.average.size(), 3u);
    EXPECT_DOUBLE_EQ(columns.average[0], 2.0);
    EXPECT_EQ(columns.rms, (std::vector<double>{1.0, 0.0, 1.0}));
    const FrameFigures figures = engine.frameFigures();
    EXPECT_EQ(CountMinMax(figures.statistics), std::tuple(6u, 1u, 9u));
    EXPECT_EQ(std::tuple(figures.less, figures.equal, figures.greater, figures.shown()),
              std::tuple(2u, 2u, 2u, 2u));

    engine.StopStatistics();
    ASSERT_TRUE(engine.NewFrame(frame));
    ASSERT_TRUE(sink.WaitForMessage(kHistogramReady, 2));
    engine.Close();
    EXPECT_EQ(sink.count(kStatisticsReady, 2, kColumnFigures), 0u);
    EXPECT_EQ(sink.count(kStatisticsReady, 2, kFrameFigures), 0u);
}

BadPixelSettings OutsideRange(int frames = 1) {
    return Settings(kOutOfRange, 10, 240, 2, 2, frames);
}

TEST_F(BadPixelWorker, OneFrameGivesTheMapWalksLists) {
    const cv::Mat m = RandomMat(40, 50, CV_8UC1, 11);
    LoadFrame(frame, m, 8);
    BadPixelDetector detector(sink, prompt);
    ASSERT_TRUE(detector.Calc(OutsideRange(), frame));
    ASSERT_TRUE(sink.WaitForMessage(kBadPixelDone));
    detector.Stop();
    EXPECT_EQ(sink.count(kBadPixelDone), 1u);
    EXPECT_EQ(sink.count(kBadPixelProgress), 0u);
    const BadPixelLists got = detector.results();
    const BadPixelLists want =
        MapReference(*MakeFrameCopy(m, 8), OutsideRange(), {0, 0, 50, 40}, 2000);
    EXPECT_EQ(got.single, want.single);
    EXPECT_EQ(got.horizontal, want.horizontal);
    EXPECT_EQ(got.vertical, want.vertical);
    EXPECT_TRUE(prompt.texts.empty());
}

TEST_F(BadPixelWorker, RefusedSettingsStartNothing) {
    LoadFrame(frame, Uniform(0, 4, 6), 8);
    BadPixelDetector detector(sink, prompt);
    BadPixelSettings s = OutsideRange();
    s.horizontalCount = 7;
    EXPECT_FALSE(detector.Calc(s, frame));
    EXPECT_FALSE(detector.running());
    EXPECT_EQ(prompt.texts, (std::vector<std::string>{"Please reset the cluster count range!"}));

    CountingAllocator refusing;
    refusing.refuse(true);
    BadPixelDetector starved(sink, prompt, refusing);
    EXPECT_FALSE(starved.Calc(OutsideRange(), frame));
    EXPECT_EQ(prompt.texts.back(), "Create Image Fail:Allocate Virtual Memory Fail!");
    EXPECT_EQ(sink.messages().size(), 0u);
}

TEST_F(BadPixelWorker, SeveralFramesAreTakenInTurnAndMerged) {
    LoadFrame(frame, Uniform(100, 4, 6), 8);
    BadPixelDetector detector(sink, prompt);
    ASSERT_TRUE(detector.Calc(OutsideRange(3), frame));
    EXPECT_EQ(detector.remainingFrames(), 3);
    for (int i = 0; i < 3; ++i) {
        cv::Mat m = Uniform(100, 4, 6);
        m.at<uint8_t>(1, i) = 250;  // a new bad pixel in every frame...
        m.at<uint8_t>(3, 5) = 5;    // ...and one that is always there
        LoadFrame(frame, m, 8);
        ASSERT_TRUE(detector.NewFrame(frame));
        ASSERT_TRUE(sink.WaitForMessage(kBadPixelProgress, -1, 2 - i));
    }
    ASSERT_TRUE(sink.WaitForMessage(kBadPixelDone));
    detector.Stop();
    EXPECT_FALSE(detector.NewFrame(frame));  // nothing waits for frames any more
    const BadPixelLists l = detector.results();
    ASSERT_EQ(l.single.size(), 4u);
    EXPECT_EQ(l.single[0].key, (1u << 16) + 0);
    EXPECT_EQ(l.single[3].key, (3u << 16) + 5);
    EXPECT_EQ(l.single[3].count, 3u);
    ASSERT_EQ(l.horizontal.size(), 1u);
    EXPECT_EQ(l.horizontal[0].count, 3u);
}

TEST_F(BadPixelWorker, StopMidFrameKeepsThePreviousLists) {
    LoadFrame(frame, Uniform(250, 32, 8), 8);
    BadPixelDetector detector(sink, prompt);
    ASSERT_TRUE(detector.Calc(OutsideRange(), frame));
    ASSERT_TRUE(sink.WaitForMessage(kBadPixelDone));
    EXPECT_EQ(detector.results().single.size(), 256u);

    AutoResetEvent atRow10, release;
    detector.setRowObserver([&](int row) {
        if (row == 10) {
            atRow10.set();
            release.wait();  // held here until the test has cleared the running flag
        }
    });
    LoadFrame(frame, Uniform(0, 32, 8), 8);
    ASSERT_TRUE(detector.Calc(OutsideRange(), frame));
    atRow10.wait();
    std::thread stopper([&] { detector.Stop(); });
    // Stop() clears the flag before it joins; once it is clear the worker may go on.
    while (detector.running()) {
        std::this_thread::yield();
    }
    release.set();
    stopper.join();
    EXPECT_EQ(sink.count(kBadPixelDone), 1u);
    EXPECT_EQ(detector.results().single.size(), 256u);
}

TEST_F(RoiBadPixelWorker, StartChecksTheRectangleAndPostsTheResult) {
    cv::Mat m = Uniform(50, 6, 7);
    m.at<uint8_t>(1, 4) = 200;
    m.at<uint8_t>(1, 6) = 200;  // the last column: quadrant B ends before it
    LoadFrame(frame, m, 8);
    RoiBadPixelDetector detector(sink, prompt);
    RoiBadPixelSettings s;
    s.ranges[0] = {0, 100, false};
    EXPECT_FALSE(detector.Start(s, frame));  // 1000 x 1000 from (0, 0) is beyond the frame
    EXPECT_EQ(prompt.texts, (std::vector<std::string>{"Set value is out of range"}));
    s.area = kQuadrantB;
    ASSERT_TRUE(detector.Start(s, frame));
    ASSERT_TRUE(sink.WaitForMessage(analysis_msg::kRoiBadPixelDone));
    detector.Stop();
    const RoiBadPixelResult r = detector.result();
    ASSERT_EQ(r.pixels.size(), 1u);
    EXPECT_EQ(r.pixels[0].key, (1u << 16) + 4);
    EXPECT_DOUBLE_EQ(r.average[0], (50.0 * 8 + 200) / 9);
}

}  // namespace
}  // namespace lumetra::test
