#include "analysis/histogram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <vector>

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
    // The 48-bit rows are crossed and the fallback limit is 256. A shift of -1 is not checked.
    const struct {
        int bits, channels, limit, shift;
    } scales[] = {{24, 3, 255, -1},   {10, 1, 1023, -1}, {36, 3, 4095, -1}, {56, 4, 16383, -1},
                  {64, 4, 65535, -1}, {48, 3, 65535, 4}, {48, 4, 4095, 6},  {7, 1, 256, 0}};
    for (const auto& s : scales) {
        EXPECT_EQ(ProfileScale(s.bits, s.channels).limit, s.limit) << s.bits << "/" << s.channels;
        if (s.shift >= 0) {
            EXPECT_EQ(ProfileScale(s.bits, s.channels).shift, s.shift) << s.bits;
        }
    }
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

void ExpectSameCounts(const HistogramSet& a, const HistogramSet& b) {
    for (int c = 0; c < kHistogramChannels; ++c) {
        for (int bin = 0; bin < kHistogramBins; ++bin) {
            ASSERT_EQ(a.at(c, bin), b.at(c, bin)) << "channel " << c << " bin " << bin;
        }
    }
}

// Mono layouts must leave the colour channels empty: the reference counts them into Gray only.
TEST(CountHistograms, MatchesAPixelByPixelCountForEveryLayout) {
    const std::pair<int, int> cases[] = {{CV_8UC1, 8},   {CV_8UC3, 24},  {CV_8UC4, 32},
                                         {CV_16UC1, 12}, {CV_16UC3, 48}, {CV_16UC4, 64}};
    HistogramScratch scratch;
    for (auto [type, bits] : cases) {
        // Odd sizes leave tails after the unrolled loops.
        auto frame = MakeFrameCopy(RandomMat(13, 37, type, 7u + type), bits);
        ASSERT_TRUE(frame);
        for (const PixelArea& area : {PixelArea{0, 0, 37, 13}, {3, 2, 30, 11}, {4, 1, 5, 13}}) {
            for (bool parity : {false, true}) {
                SCOPED_TRACE(testing::Message()
                             << "type " << type << " area " << area.left << " parity " << parity);
                HistogramSet got[2], want[2];
                for (int s = 0; s < 2; ++s) {
                    got[s].Clear(BinsFor(*frame));
                    want[s].Clear(BinsFor(*frame));
                }
                ASSERT_TRUE(CountHistograms(*frame, area, parity, got, scratch));
                ReferenceCount(*frame, area, parity, want);
                ExpectSameCounts(got[0], want[0]);
                ExpectSameCounts(got[1], want[1]);
            }
        }
    }
    // Rows longer than the 64-pixel chunks the colour counting computes Gray in.
    for (auto [type, bits] : {std::pair{CV_8UC3, 24}, std::pair{CV_8UC4, 32}}) {
        auto frame = MakeFrameCopy(RandomMat(5, 150, type, 11u + type), bits);
        ASSERT_TRUE(frame);
        for (const PixelArea& area : {PixelArea{0, 0, 150, 5}, {3, 1, 147, 5}, {63, 0, 129, 2}}) {
            for (bool parity : {false, true}) {
                SCOPED_TRACE(testing::Message() << "type " << type << " wide area " << area.left
                                                << " parity " << parity);
                HistogramSet got[2], want[2];
                for (int s = 0; s < 2; ++s) {
                    got[s].Clear(256);
                    want[s].Clear(256);
                }
                ASSERT_TRUE(CountHistograms(*frame, area, parity, got, scratch));
                ReferenceCount(*frame, area, parity, want);
                ExpectSameCounts(got[0], want[0]);
                ExpectSameCounts(got[1], want[1]);
            }
        }
    }
    // A pure grey pixel puts Gray into its channels' bin: the weights sum to one.
    for (uint32_t v = 0; v < 65536; ++v) {
        ASSERT_EQ(GrayValue(v, v, v), v);
    }
}

// Every kernel the processor runs, against the formula for every 8-bit colour, in chunks whose
// lengths leave tails after the 64- and 16-pixel groups; the planes hold the samples as they were.
TEST(SplitRow8, EveryColourMatchesTheFormula) {
    int kernels = 0;
    for (SplitKernel kernel : {SplitKernel::kPortable, SplitKernel::kAvx512}) {
        if (!KernelAvailable(kernel)) {
            continue;
        }
        ++kernels;
        SCOPED_TRACE(static_cast<int>(kernel));
        uint8_t bgr[kSplitChunk * 3], bgrc[kSplitChunk * 4];
        uint8_t planes3[5][kSplitChunk], planes4[5][kSplitChunk];
        uint32_t v = 0;
        for (int call = 0; v < (1u << 24); ++call) {
            const uint32_t lengths[] = {kSplitChunk, kSplitChunk - 1, 33, 16, 1};
            const int n = static_cast<int>(std::min(lengths[call % 5], (1u << 24) - v));
            for (int i = 0; i < n; ++i) {
                const uint32_t c = v + static_cast<uint32_t>(i);
                for (int k = 0; k < 3; ++k) {
                    bgr[i * 3 + k] = bgrc[i * 4 + k] = static_cast<uint8_t>(c >> (8 * k));
                }
                bgrc[i * 4 + 3] = static_cast<uint8_t>(c * 7);
            }
            SplitRow8<3>(bgr, n, planes3, kernel);
            SplitRow8<4>(bgrc, n, planes4, kernel);
            for (int i = 0; i < n; ++i) {
                const uint32_t want = GrayValue(bgr[i * 3 + 2], bgr[i * 3 + 1], bgr[i * 3]);
                ASSERT_EQ(planes3[4][i], want) << "colour " << v + i;
                ASSERT_EQ(planes4[4][i], want) << "colour " << v + i;
                for (int k = 0; k < 4; ++k) {
                    if (k < 3) {
                        ASSERT_EQ(planes3[k][i], bgr[i * 3 + k]) << "colour " << v + i;
                    }
                    ASSERT_EQ(planes4[k][i], bgrc[i * 4 + k]) << "colour " << v + i;
                }
            }
            v += static_cast<uint32_t>(n);
        }
    }
    EXPECT_GE(kernels, 1);
}

TEST(CountHistograms, AnAbandonedCountLeavesNothingForTheNextFrame) {
    auto frame = MakeFrameCopy(RandomMat(20, 16, CV_8UC3, 3), 24);
    HistogramScratch scratch;
    std::atomic<bool> running{true};
    int rows = 0;
    RowObserver stopAtRow5 = [&](int y) {
        ++rows;
        running = y != 5;
    };
    HistogramSet abandoned, got, want;
    abandoned.Clear(256);
    EXPECT_FALSE(
        CountHistograms(*frame, {0, 0, 16, 20}, false, &abandoned, scratch, &running, &stopAtRow5));
    EXPECT_EQ(rows, 6);  // rows 0..5 begun, row 6 never

    got.Clear(256);
    want.Clear(256);
    ASSERT_TRUE(CountHistograms(*frame, {0, 0, 16, 20}, false, &got, scratch));
    ReferenceCount(*frame, {0, 0, 16, 20}, false, &want);
    ExpectSameCounts(got, want);
}

TEST(HistogramSet, ClearingToFewerBinsDropsTheCountsAboveThem) {
    HistogramSet set, wide, copy;
    set.Clear(kHistogramBins);
    set.channel(kGray)[1000] = 5;
    set.Clear(256);
    EXPECT_EQ(set.at(kGray, 1000), 0u);
    EXPECT_EQ(set.bins(), 256);

    wide.Clear(kHistogramBins);
    wide.channel(kRed)[40000] = 2;
    set.Add(wide);
    EXPECT_EQ(set.bins(), kHistogramBins);
    EXPECT_EQ(set.at(kRed, 40000), 2u);
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
    EXPECT_EQ(ChannelMeans(set, 3, 3), (std::array<uint64_t, 4>{10, 4, 255, 0}));  // no clear
    EXPECT_EQ(ChannelMeans(set, 4, 3)[kClear], 7u);
    EXPECT_EQ(ChannelMeans(set, 4, 0)[kRed], 0u);
}

TEST(LineStatistics, RowAndColumnOfAKnownFrame) {
    cv::Mat m = (cv::Mat_<uint8_t>(3, 4) << 1, 2, 3, 5,  //
                 10, 20, 30, 40,                         //
                 0, 7, 7, 7);
    auto frame = MakeFrameCopy(m, 8);
    LineStatistics row, column, part;
    ASSERT_TRUE(RowStatistics(*frame, 0, 0, 0, 4, row));
    EXPECT_EQ(CountMinMax(row), std::tuple(4u, 1u, 5u));
    EXPECT_EQ(row.range, 4);
    EXPECT_DOUBLE_EQ(row.average, 2.75);
    EXPECT_NEAR(row.deviation, std::sqrt(39.0 / 4 - 2.75 * 2.75), 1e-12);
    const StatisticsTexts t = FormatStatistics(row);
    EXPECT_EQ(t.minimum, "1");
    EXPECT_EQ(t.maximum, "5");
    EXPECT_EQ(t.range, "4");
    EXPECT_EQ(t.average, "2");  // "%d" of the average
    EXPECT_EQ(t.deviation, "1.48");

    ASSERT_TRUE(ColumnStatistics(*frame, 3, 0, 1, 3, column));  // rows 1 and 2 only
    EXPECT_EQ(CountMinMax(column), std::tuple(2u, 7u, 40u));
    EXPECT_EQ(column.sum, 47u);
    ASSERT_TRUE(RowStatistics(*frame, 1, 0, 1, 3, part));  // columns 1 and 2
    EXPECT_EQ(std::tuple(part.count, part.sum), std::tuple(2u, 50u));
}

TEST(LineStatistics, NothingCountedStoppedAndSixteenBit) {
    auto frame = MakeFrameCopy(cv::Mat(2, 2, CV_8UC1, cv::Scalar(4)), 8);
    LineStatistics s;
    ASSERT_TRUE(RowStatistics(*frame, 5, 0, 0, 2, s));  // no such row
    EXPECT_EQ(s.count, 0u);
    EXPECT_EQ(s.range, -65536);
    EXPECT_EQ(s.average, 0.0);
    std::atomic<bool> stopped{false};
    EXPECT_FALSE(RowStatistics(*frame, 0, 0, 0, 2, s, &stopped));
    EXPECT_FALSE(ColumnStatistics(*frame, 0, 0, 0, 2, s, &stopped));

    cv::Mat m(1, 2, CV_16UC3);
    m.at<cv::Vec<uint16_t, 3>>(0, 0) = {1, 65535, 3};
    m.at<cv::Vec<uint16_t, 3>>(0, 1) = {1, 65534, 3};
    LineStatistics deep;
    ASSERT_TRUE(RowStatistics(*MakeFrameCopy(m, 48), 0, 1, 0, 2, deep));
    EXPECT_EQ(CountMinMax(deep), std::tuple(2u, 65534u, 65535u));
    EXPECT_EQ(deep.sumSquares, 65535ull * 65535 + 65534ull * 65534);
}

TEST(Clamps, RowAndColumnAgainstTheFrame) {
    const int cases[][3] = {{480, 479, 1}, {-1, 0, 1}, {479, 479, 0}, {0, 0, 0}};
    for (const auto& [in, out, changed] : cases) {
        EXPECT_EQ(ClampToFrame(in, 480).value, out) << in;
        EXPECT_EQ(ClampToFrame(in, 480).changed, changed != 0) << in;
    }
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
