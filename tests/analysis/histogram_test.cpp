#include "analysis/histogram.h"

#include <gtest/gtest.h>

#include <atomic>

#include "analysis/analysis_messages.h"
#include "analysis_test_support.h"

namespace lumetra::test {
namespace {

TEST(BitDepthTables, ShiftAndProfileScaleFollowTheBitsPerPixel) {
    const std::pair<int, int> shifts[] = {{8, 0},  {24, 0}, {32, 0}, {10, 2}, {30, 2},
                                          {40, 2}, {12, 4}, {36, 4}, {14, 6}, {42, 6},
                                          {56, 6}, {16, 8}, {64, 8}, {20, 0}, {0, 0}};
    for (auto [bits, shift] : shifts) {
        EXPECT_EQ(HistogramShift(bits, 3), shift) << bits;
    }
    EXPECT_EQ(HistogramShift(48, 1), 8);
    EXPECT_EQ(HistogramShift(48, 3), 8);
    EXPECT_EQ(HistogramShift(48, 4), 4);

    EXPECT_EQ(ProfileScale(24, 3).limit, 255);
    EXPECT_EQ(ProfileScale(10, 1).limit, 1023);
    EXPECT_EQ(ProfileScale(36, 3).limit, 4095);
    EXPECT_EQ(ProfileScale(56, 4).limit, 16383);
    EXPECT_EQ(ProfileScale(64, 4).limit, 65535);
    // The 48-bit rows are crossed and the fallback limit is 256.
    EXPECT_EQ(ProfileScale(48, 3).limit, 65535);
    EXPECT_EQ(ProfileScale(48, 3).shift, 4);
    EXPECT_EQ(ProfileScale(48, 4).limit, 4095);
    EXPECT_EQ(ProfileScale(48, 4).shift, 6);
    EXPECT_EQ(ProfileScale(7, 1).limit, 256);
    EXPECT_EQ(ProfileScale(7, 1).shift, 0);
}

// Counts the way the dialog describes it, pixel by pixel.
void ReferenceCount(const FrameCopy& f, PixelArea a, bool parity, HistogramSet* sets) {
    for (int y = a.top; y < a.bottom; ++y) {
        for (int x = a.left; x < a.right; ++x) {
            HistogramSet& s = sets[parity ? (x & 1) : 0];
            if (f.channels() == 1) {
                ++s.channel(kGray)[f.sample(x, y, 0)];
                continue;
            }
            const uint32_t b = f.sample(x, y, 0), g = f.sample(x, y, 1), r = f.sample(x, y, 2);
            ++s.channel(kBlue)[b];
            ++s.channel(kGreen)[g];
            ++s.channel(kRed)[r];
            if (f.channels() == 4) {
                ++s.channel(kClear)[f.sample(x, y, 3)];
            }
            ++s.channel(kGray)[GrayValue(r, g, b)];
        }
    }
}

void ExpectSameCounts(const HistogramSet& a, const HistogramSet& b, const std::string& what) {
    for (int c = 0; c < kHistogramChannels; ++c) {
        for (int bin = 0; bin < kHistogramBins; ++bin) {
            ASSERT_EQ(a.at(c, bin), b.at(c, bin)) << what << " channel " << c << " bin " << bin;
        }
    }
}

struct CountCase {
    int type;
    int bits;
};

TEST(CountHistograms, MatchesAPixelByPixelCountForEveryLayout) {
    // Odd sizes leave tails after the unrolled loops.
    const CountCase cases[] = {{CV_8UC1, 8},   {CV_8UC3, 24},  {CV_8UC4, 32},
                               {CV_16UC1, 12}, {CV_16UC3, 48}, {CV_16UC4, 64}};
    HistogramScratch scratch;
    for (const CountCase& c : cases) {
        auto frame = MakeFrameCopy(RandomMat(13, 37, c.type, 7u + c.type), c.bits);
        ASSERT_TRUE(frame);
        const PixelArea areas[] = {{0, 0, 37, 13}, {3, 2, 30, 11}, {4, 1, 5, 13}};
        for (const PixelArea& area : areas) {
            for (bool parity : {false, true}) {
                HistogramSet got[2], want[2];
                for (int s = 0; s < 2; ++s) {
                    got[s].Clear(BinsFor(*frame));
                    want[s].Clear(BinsFor(*frame));
                }
                ASSERT_TRUE(CountHistograms(*frame, area, parity, got, scratch));
                ReferenceCount(*frame, area, parity, want);
                const std::string what = "type " + std::to_string(c.type) + " area " +
                                         std::to_string(area.left) + " parity " +
                                         std::to_string(parity);
                ExpectSameCounts(got[0], want[0], what);
                if (parity) {
                    ExpectSameCounts(got[1], want[1], what + " odd");
                }
            }
        }
    }
}

TEST(CountHistograms, PureGreyColourPutsGrayIntoTheChannelsBins) {
    cv::Mat m(4, 9, CV_8UC3);
    for (int x = 0; x < 9; ++x) {
        m.col(x).setTo(cv::Scalar::all(x * 31));
    }
    auto frame = MakeFrameCopy(m, 24);
    HistogramScratch scratch;
    HistogramSet set;
    set.Clear(256);
    ASSERT_TRUE(CountHistograms(*frame, {0, 0, 9, 4}, false, &set, scratch));
    for (int bin = 0; bin < 256; ++bin) {
        EXPECT_EQ(set.at(kGray, bin), set.at(kRed, bin)) << bin;
        EXPECT_EQ(set.at(kGray, bin), set.at(kBlue, bin)) << bin;
    }
    EXPECT_EQ(set.at(kGray, 248), 4u);
}

TEST(CountHistograms, MonoCountsIntoGrayOnly) {
    cv::Mat m(2, 3, CV_8UC1, cv::Scalar(9));
    auto frame = MakeFrameCopy(m, 8);
    HistogramScratch scratch;
    HistogramSet set;
    set.Clear(256);
    ASSERT_TRUE(CountHistograms(*frame, {0, 0, 3, 2}, false, &set, scratch));
    EXPECT_EQ(set.at(kGray, 9), 6u);
    EXPECT_EQ(set.Total(kRed) + set.Total(kGreen) + set.Total(kBlue) + set.Total(kClear), 0u);
}

TEST(CountHistograms, AnAbandonedCountLeavesNothingForTheNextFrame) {
    auto frame = MakeFrameCopy(RandomMat(20, 16, CV_8UC3, 3), 24);
    HistogramScratch scratch;
    std::atomic<bool> running{true};
    int rows = 0;
    RowObserver stopAtRow5 = [&](int y) {
        ++rows;
        if (y == 5) {
            running = false;
        }
    };
    HistogramSet abandoned;
    abandoned.Clear(256);
    EXPECT_FALSE(
        CountHistograms(*frame, {0, 0, 16, 20}, false, &abandoned, scratch, &running, &stopAtRow5));
    EXPECT_EQ(rows, 6);  // rows 0..5 begun, row 6 never

    HistogramSet got, want;
    got.Clear(256);
    want.Clear(256);
    ASSERT_TRUE(CountHistograms(*frame, {0, 0, 16, 20}, false, &got, scratch));
    ReferenceCount(*frame, {0, 0, 16, 20}, false, &want);
    ExpectSameCounts(got, want, "after an abandoned count");
}

TEST(HistogramSet, ClearingToFewerBinsDropsTheCountsAboveThem) {
    HistogramSet set;
    set.Clear(kHistogramBins);
    set.channel(kGray)[1000] = 5;
    set.Clear(256);
    EXPECT_EQ(set.at(kGray, 1000), 0u);
    EXPECT_EQ(set.bins(), 256);

    HistogramSet wide;
    wide.Clear(kHistogramBins);
    wide.channel(kRed)[40000] = 2;
    set.Add(wide);
    EXPECT_EQ(set.bins(), kHistogramBins);
    EXPECT_EQ(set.at(kRed, 40000), 2u);
    HistogramSet copy;
    copy.CopyFrom(set);
    EXPECT_EQ(copy.at(kRed, 40000), 2u);
    EXPECT_EQ(copy.Sum(kRed), 80000u);
}

TEST(ChannelMeans, IntegerDivisionWithMonoInTheFirstSlot) {
    HistogramSet set;
    set.Clear(256);
    set.channel(kGray)[1] = 1;
    set.channel(kGray)[2] = 1;
    EXPECT_EQ(ChannelMeans(set, 1, 2)[kRed], 1u);  // 3 / 2
    set.channel(kRed)[10] = 3;
    set.channel(kGreen)[4] = 3;
    set.channel(kBlue)[255] = 3;
    set.channel(kClear)[7] = 3;
    const auto colour = ChannelMeans(set, 3, 3);
    EXPECT_EQ(colour[kRed], 10u);
    EXPECT_EQ(colour[kGreen], 4u);
    EXPECT_EQ(colour[kBlue], 255u);
    EXPECT_EQ(colour[kClear], 0u);  // three channels have no clear mean
    EXPECT_EQ(ChannelMeans(set, 4, 3)[kClear], 7u);
    EXPECT_EQ(ChannelMeans(set, 4, 0)[kRed], 0u);
}

TEST(LineStatistics, RowAndColumnOfAKnownFrame) {
    cv::Mat m = (cv::Mat_<uint8_t>(3, 4) << 1, 2, 3, 5,  //
                 10, 20, 30, 40,                         //
                 0, 7, 7, 7);
    auto frame = MakeFrameCopy(m, 8);
    LineStatistics row;
    ASSERT_TRUE(RowStatistics(*frame, 0, 0, 0, 4, row));
    EXPECT_EQ(row.minimum, 1u);
    EXPECT_EQ(row.maximum, 5u);
    EXPECT_EQ(row.range, 4);
    EXPECT_EQ(row.count, 4u);
    EXPECT_DOUBLE_EQ(row.average, 2.75);
    EXPECT_NEAR(row.deviation, std::sqrt(39.0 / 4 - 2.75 * 2.75), 1e-12);
    const StatisticsTexts t = FormatStatistics(row);
    EXPECT_EQ(t.minimum, "1");
    EXPECT_EQ(t.maximum, "5");
    EXPECT_EQ(t.range, "4");
    EXPECT_EQ(t.average, "2");  // "%d" of the average
    EXPECT_EQ(t.deviation, "1.48");

    LineStatistics column;
    ASSERT_TRUE(ColumnStatistics(*frame, 3, 0, 1, 3, column));  // rows 1 and 2 only
    EXPECT_EQ(column.minimum, 7u);
    EXPECT_EQ(column.maximum, 40u);
    EXPECT_EQ(column.sum, 47u);

    LineStatistics part;
    ASSERT_TRUE(RowStatistics(*frame, 1, 0, 1, 3, part));  // columns 1 and 2
    EXPECT_EQ(part.sum, 50u);
    EXPECT_EQ(part.count, 2u);
}

TEST(LineStatistics, NothingCountedAndAStoppedWalk) {
    auto frame = MakeFrameCopy(cv::Mat(2, 2, CV_8UC1, cv::Scalar(4)), 8);
    LineStatistics s;
    ASSERT_TRUE(RowStatistics(*frame, 5, 0, 0, 2, s));  // no such row
    EXPECT_EQ(s.count, 0u);
    EXPECT_EQ(s.range, -65536);
    EXPECT_EQ(s.average, 0.0);
    std::atomic<bool> stopped{false};
    EXPECT_FALSE(RowStatistics(*frame, 0, 0, 0, 2, s, &stopped));
    EXPECT_FALSE(ColumnStatistics(*frame, 0, 0, 0, 2, s, &stopped));
}

TEST(LineStatistics, SixteenBitSamplesKeepTheirValue) {
    cv::Mat m(1, 2, CV_16UC3);
    m.at<cv::Vec<uint16_t, 3>>(0, 0) = {1, 65535, 3};
    m.at<cv::Vec<uint16_t, 3>>(0, 1) = {1, 65534, 3};
    auto frame = MakeFrameCopy(m, 48);
    LineStatistics s;
    ASSERT_TRUE(RowStatistics(*frame, 0, 1, 0, 2, s));
    EXPECT_EQ(s.minimum, 65534u);
    EXPECT_EQ(s.maximum, 65535u);
    EXPECT_EQ(s.sumSquares, 65535ull * 65535 + 65534ull * 65534);
}

TEST(Clamps, RowAndColumnAgainstTheFrame) {
    EXPECT_EQ(ClampToFrame(480, 480).value, 479);
    EXPECT_TRUE(ClampToFrame(480, 480).changed);
    EXPECT_EQ(ClampToFrame(-1, 480).value, 0);
    EXPECT_TRUE(ClampToFrame(-1, 480).changed);
    EXPECT_EQ(ClampToFrame(479, 480).value, 479);
    EXPECT_FALSE(ClampToFrame(479, 480).changed);
    EXPECT_FALSE(ClampToFrame(0, 480).changed);
    EXPECT_EQ(kOutOfRangeText, "Set value is out of range");
}

TEST(Ratio, MinimumZeroExactThresholdAndJustAbove) {
    EXPECT_EQ(RatioOf(0, 50).ratio, 0.0);
    EXPECT_EQ(RatioOf(0, 50).verdict, Verdict::kNone);
    EXPECT_EQ(RatioOf(100, 167).verdict, Verdict::kPass);  // exactly 1.67
    EXPECT_EQ(RatioOf(1000, 1671).verdict, Verdict::kFail);
    EXPECT_EQ(RatioOf(1000, 1669).verdict, Verdict::kPass);
    EXPECT_EQ(RatioOf(7, 7).verdict, Verdict::kPass);
    EXPECT_EQ(FormatRatio(RatioOf(100, 167).ratio), "1.670");
    EXPECT_EQ(FormatRatio(RatioOf(3, 10).ratio), "3.333");
    LineStatistics empty;
    empty.Finish();
    EXPECT_EQ(RatioOf(empty).verdict, Verdict::kNone);
}

}  // namespace
}  // namespace lumetra::test
