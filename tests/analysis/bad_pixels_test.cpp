#include "analysis/bad_pixels.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "analysis_test_support.h"
#include "bad_pixel_map_reference.h"

namespace lumetra::test {
namespace {

TEST(RangeModes, EdgesOfEachMode) {
    // mode, low, high, value, bad
    const struct {
        int mode;
        int64_t low, high, v;
        bool bad;
    } cases[] = {
        {kInRange, 10, 20, 10, false},
        {kInRange, 10, 20, 11, true},
        {kInRange, 10, 20, 19, true},
        {kInRange, 10, 20, 20, false},
        {kInRange, 10, 10, 10, false},
        {kInRangeEqual, 10, 20, 9, false},
        {kInRangeEqual, 10, 20, 10, true},
        {kInRangeEqual, 10, 20, 20, true},
        {kInRangeEqual, 10, 20, 21, false},
        {kInRangeEqual, 10, 10, 10, true},
        {kInRangeEqual, 10, 10, 11, false},
        {kOutOfRange, 10, 20, 9, true},
        {kOutOfRange, 10, 20, 10, false},
        {kOutOfRange, 10, 20, 20, false},
        {kOutOfRange, 10, 20, 21, true},
        {kOutOfRangeEqual, 10, 20, 10, true},
        {kOutOfRangeEqual, 10, 20, 11, false},
        {kOutOfRangeEqual, 10, 20, 19, false},
        {kOutOfRangeEqual, 10, 20, 20, true},
        {4, 0, 255, 5, false},
        {-1, 0, 255, 5, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(IsBadSample(c.mode, c.v, c.low, c.high), c.bad)
            << "mode " << c.mode << " " << c.low << ".." << c.high << " v " << c.v;
    }
}

TEST(RangeModes, IntervalFormAgreesWithTheTableEverywhere) {
    const int64_t bounds[] = {-5, 0, 1, 10, 254, 255, 256, 300, 65534, 65535, 70000};
    for (int mode = -1; mode <= 4; ++mode) {
        for (int64_t low : bounds) {
            for (int64_t high : bounds) {
                const RangeTest t8 = RangeTest::For(mode, low, high, 255);
                for (uint32_t v = 0; v < 256; ++v) {
                    ASSERT_EQ(t8.bad(v), IsBadSample(mode, v, low, high))
                        << mode << " " << low << ".." << high << " v " << v;
                }
                const RangeTest t16 = RangeTest::For(mode, low, high, 65535);
                for (uint32_t v : {0u, 1u, 9u, 10u, 11u, 255u, 256u, 65534u, 65535u}) {
                    ASSERT_EQ(t16.bad(v), IsBadSample(mode, v, low, high))
                        << mode << " " << low << ".." << high << " v " << v;
                }
            }
        }
    }
}

// Runs the search on one frame with settings over its whole area.
BadPixelLists Search(const cv::Mat& m, int bits, BadPixelSettings s) {
    auto frame = MakeFrameCopy(m, bits);
    const PixelArea area = s.useRoi ? s.roi : PixelArea{0, 0, m.cols, m.rows};
    BadPixelSearch search(s, area, 1, m.cols, m.rows);
    EXPECT_TRUE(search.AddFrame(*frame));
    return search.Finish();
}

BadPixelSettings Equal(int value, int h, int v) {
    BadPixelSettings s;
    s.mode = kInRangeEqual;
    s.low = s.high = value;
    s.horizontalCount = h;
    s.verticalCount = v;
    return s;
}

uint64_t Key(int high, int low) {
    return uint64_t(high) * 65536 + low;
}

TEST(BadPixelWalk, RunEndingAtARowsEndDoesNotContinueOnTheNext) {
    cv::Mat m(3, 4, CV_8UC1, cv::Scalar(0));
    m.at<uint8_t>(0, 2) = m.at<uint8_t>(0, 3) = 9;  // end of row 0
    m.at<uint8_t>(1, 0) = m.at<uint8_t>(1, 1) = 9;  // start of row 1
    EXPECT_TRUE(Search(m, 8, Equal(9, 3, 3)).horizontal.empty());
    const BadPixelLists l = Search(m, 8, Equal(9, 2, 3));
    ASSERT_EQ(l.horizontal.size(), 2u);
    EXPECT_EQ(l.horizontal[0].key, Key(0, 2));
    EXPECT_EQ(l.horizontal[0].count, 2u);
    EXPECT_EQ(l.horizontal[1].key, Key(1, 0));
    EXPECT_EQ(l.single.size(), 4u);
}

TEST(BadPixelWalk, ClusterIsKeyedAtTheRunsStartWithItsLength) {
    cv::Mat m(2, 8, CV_8UC1, cv::Scalar(0));
    m.colRange(3, 6).row(1).setTo(200);  // columns 3, 4, 5 of row 1
    const BadPixelLists l = Search(m, 8, Equal(200, 2, 2));
    ASSERT_EQ(l.horizontal.size(), 1u);
    EXPECT_EQ(l.horizontal[0].key, Key(1, 3));
    EXPECT_EQ(l.horizontal[0].count, 3u);
    EXPECT_EQ(l.horizontal[0].values, (std::array<uint16_t, 4>{65535, 65535, 65535, 65535}));
    EXPECT_TRUE(l.vertical.empty());
    ASSERT_EQ(l.single.size(), 3u);
    EXPECT_EQ(l.single[0].key, Key(1, 3));
    EXPECT_EQ(l.single[0].values, (std::array<uint16_t, 4>{200, 65535, 65535, 65535}));
}

TEST(BadPixelWalk, VerticalClustersAreInColumnKeyOrder) {
    cv::Mat m(8, 6, CV_8UC1, cv::Scalar(0));
    m.rowRange(0, 3).col(4).setTo(1);  // column 4, rows 0-2: ends first in row order
    m.rowRange(4, 8).col(1).setTo(1);  // column 1, rows 4-7
    m.at<uint8_t>(6, 4) = 1;           // column 4 again, a run of one
    const BadPixelLists l = Search(m, 8, Equal(1, 5, 2));
    ASSERT_EQ(l.vertical.size(), 2u);
    EXPECT_EQ(l.vertical[0].key, Key(1, 4));
    EXPECT_EQ(l.vertical[0].count, 4u);
    EXPECT_EQ(l.vertical[1].key, Key(4, 0));
    EXPECT_EQ(l.vertical[1].count, 3u);
    // A count of 0 lists every run, single pixels too, like 1.
    EXPECT_EQ(Search(m, 8, Equal(1, 0, 0)).vertical.size(), 3u);
    EXPECT_EQ(Search(m, 8, Equal(1, 1, 1)).vertical.size(), 3u);
    EXPECT_EQ(Search(m, 8, Equal(1, 0, 0)).horizontal.size(), 8u);
}

TEST(BadPixelWalk, ColourPixelIsBadWhenAnyChannelIs) {
    cv::Mat m(1, 3, CV_8UC3, cv::Scalar(5, 5, 5));
    m.at<cv::Vec3b>(0, 1) = {5, 250, 5};
    m.at<cv::Vec3b>(0, 2) = {5, 5, 251};
    BadPixelSettings s;
    s.mode = kOutOfRange;
    s.low = 0;
    s.high = 200;
    const BadPixelLists l = Search(m, 24, s);
    ASSERT_EQ(l.single.size(), 2u);
    EXPECT_EQ(l.single[0].values, (std::array<uint16_t, 4>{5, 250, 5, 65535}));
    EXPECT_EQ(l.channels, 3);
    EXPECT_EQ(PixelText(l.single[0], 3), "5,250,5");
}

TEST(BadPixelWalk, OnlyTheSearchAreaIsVisited) {
    cv::Mat m(6, 6, CV_8UC1, cv::Scalar(1));
    BadPixelSettings s = Equal(1, 2, 2);
    s.useRoi = true;
    s.roi = {1, 2, 4, 5};
    const BadPixelLists l = Search(m, 8, s);
    EXPECT_EQ(l.single.size(), 9u);
    EXPECT_EQ(l.single.front().key, Key(2, 1));
    EXPECT_EQ(l.single.back().key, Key(4, 3));
    ASSERT_EQ(l.vertical.size(), 3u);
    EXPECT_EQ(l.vertical[0].key, Key(1, 2));
    EXPECT_EQ(l.vertical[0].count, 3u);
}

TEST(BadPixelWalk, SameListsAsTheOrderedMapWalk) {
    const struct {
        int type, bits, mode;
        int64_t low, high;
        int h, v;
        PixelArea area;
    } cases[] = {
        {CV_8UC1, 8, kOutOfRange, 20, 235, 2, 2, {0, 0, 61, 40}},
        {CV_8UC1, 8, kInRangeEqual, 100, 160, 3, 1, {5, 3, 50, 31}},
        {CV_8UC1, 8, kInRange, 0, 255, 0, 4, {0, 0, 61, 40}},
        {CV_16UC1, 12, kOutOfRangeEqual, 200, 3900, 2, 2, {0, 0, 61, 40}},
        {CV_8UC3, 24, kOutOfRange, 30, 225, 2, 2, {1, 1, 60, 39}},
        {CV_16UC4, 64, kInRange, 1000, 60000, 5, 3, {0, 0, 61, 40}},
    };
    unsigned seed = 1;
    for (const auto& c : cases) {
        const int high = CV_MAT_DEPTH(c.type) == CV_16U && c.bits == 12 ? 4096 : -1;
        auto frame = MakeFrameCopy(RandomMat(40, 61, c.type, seed++, high), c.bits);
        BadPixelSettings s;
        s.mode = c.mode;
        s.low = c.low;
        s.high = c.high;
        s.horizontalCount = c.h;
        s.verticalCount = c.v;
        BadPixelSearch search(s, c.area, 1, 61, 40);
        ASSERT_TRUE(search.AddFrame(*frame));
        const BadPixelLists got = search.Finish();
        const BadPixelLists want = MapReference(*frame, s, c.area, 61 * 40);
        EXPECT_FALSE(want.single.empty());
        EXPECT_EQ(got.single, want.single) << c.type << " mode " << c.mode;
        EXPECT_EQ(got.horizontal, want.horizontal) << c.type << " mode " << c.mode;
        EXPECT_EQ(got.vertical, want.vertical) << c.type << " mode " << c.mode;
        EXPECT_FALSE(got.capped);
    }
}

TEST(BadPixelWalk, MoreThanAMillionListsExactlyAMillion) {
    cv::Mat m(1000, 1200, CV_8UC1, cv::Scalar(77));
    const BadPixelLists l = Search(m, 8, Equal(77, 1, 1));
    ASSERT_EQ(l.single.size(), kBadPixelCap);
    EXPECT_TRUE(l.capped);
    EXPECT_EQ(l.single.front().key, Key(0, 0));
    EXPECT_EQ(l.single.back().key, Key(833, 399));  // the 1000000th pixel in row order
    EXPECT_EQ(l.horizontal.size(), 1000u);          // one run per row
    EXPECT_EQ(l.vertical.size(), 1200u);
    EXPECT_EQ(kTooMuchBadDataText, "There's too much bad data, just the first 1000000 shows!");

    // Below the cap nothing is dropped and nothing is reported.
    cv::Mat small(100, 100, CV_8UC1, cv::Scalar(77));
    EXPECT_FALSE(Search(small, 8, Equal(77, 1, 1)).capped);
}

TEST(BadPixelWalk, FramesMergeRepeatedPositions) {
    cv::Mat a(3, 6, CV_8UC1, cv::Scalar(0));
    cv::Mat b(3, 6, CV_8UC1, cv::Scalar(0));
    a.at<uint8_t>(1, 1) = 201;
    a.at<uint8_t>(1, 2) = 202;
    b.at<uint8_t>(1, 2) = 250;  // seen again, other value
    b.at<uint8_t>(1, 3) = 203;
    b.at<uint8_t>(0, 0) = 204;
    BadPixelSettings s;
    s.mode = kOutOfRange;
    s.low = 0;
    s.high = 200;
    s.horizontalCount = 3;
    s.verticalCount = 2;
    s.frames = 2;
    BadPixelSearch search(s, {0, 0, 6, 3}, 2, 6, 3);
    ASSERT_TRUE(search.AddFrame(*MakeFrameCopy(a, 8)));
    ASSERT_TRUE(search.AddFrame(*MakeFrameCopy(b, 8)));
    EXPECT_FALSE(search.AddFrame(*MakeFrameCopy(b, 8)));  // a third frame is not taken
    const BadPixelLists l = search.Finish();
    ASSERT_EQ(l.single.size(), 4u);
    EXPECT_EQ(l.single[0], (BadPixelRecord{Key(0, 0), 1, {204, 65535, 65535, 65535}}));
    EXPECT_EQ(l.single[1], (BadPixelRecord{Key(1, 1), 1, {201, 65535, 65535, 65535}}));
    EXPECT_EQ(l.single[2], (BadPixelRecord{Key(1, 2), 2, {202, 65535, 65535, 65535}}));
    EXPECT_EQ(l.single[3], (BadPixelRecord{Key(1, 3), 1, {203, 65535, 65535, 65535}}));
    ASSERT_EQ(l.horizontal.size(), 1u);  // the merged run 1..3
    EXPECT_EQ(l.horizontal[0].key, Key(1, 1));
    EXPECT_EQ(l.horizontal[0].count, 3u);
}

TEST(BadPixelSettingsCheck, ClusterCountsAndAreaEdges) {
    BadPixelSettings s;
    s.horizontalCount = 640;
    s.verticalCount = 480;
    AreaCheck c = CheckBadPixelSettings(s, 640, 480);
    EXPECT_TRUE(c.error.empty());
    EXPECT_EQ(c.area, (PixelArea{0, 0, 640, 480}));
    s.horizontalCount = 641;
    EXPECT_EQ(CheckBadPixelSettings(s, 640, 480).error, "Please reset the cluster count range!");
    s.horizontalCount = -1;
    EXPECT_EQ(CheckBadPixelSettings(s, 640, 480).error, kClusterRangeText);
    s.horizontalCount = 2;
    s.verticalCount = 481;
    EXPECT_EQ(CheckBadPixelSettings(s, 640, 480).error, kClusterRangeText);
    s.verticalCount = 2;
    s.useRoi = true;
    s.roi = {10, 10, 640, 480};
    c = CheckBadPixelSettings(s, 640, 480);
    EXPECT_TRUE(c.error.empty());
    EXPECT_EQ(c.area, s.roi);
    s.roi = {10, 10, 641, 480};
    EXPECT_EQ(CheckBadPixelSettings(s, 640, 480).error, kClusterRangeText);
    s.roi = {-1, 10, 20, 20};
    EXPECT_EQ(CheckBadPixelSettings(s, 640, 480).error, kClusterRangeText);
    s.roi = {0, 0, 20, 481};
    EXPECT_EQ(CheckBadPixelSettings(s, 640, 480).error, kClusterRangeText);
    EXPECT_EQ(RangeLimit(8, 24, 3), 255);
    EXPECT_EQ(RangeLimit(16, 12, 1), 4095);
    EXPECT_EQ(RangeLimit(16, 16, 1), 65535);
}

TEST(BadPixelExport, CsvLinesPerList) {
    const std::vector<BadPixelRecord> singles = {{Key(3, 5), 1, {}}, {Key(70, 1024), 1, {}}};
    EXPECT_EQ(BadPixelCsv(singles, BadPixelList::kSingle), "Col,Row\r\n5,3\r\n1024,70\r\n");
    const std::vector<BadPixelRecord> runs = {{Key(3, 5), 3, {}}};
    EXPECT_EQ(BadPixelCsv(runs, BadPixelList::kHorizontal),
              "Row,Col(Start),Col(End),Size\r\n3,5,7,3\r\n");
    // Vertical keys hold the column high.
    EXPECT_EQ(BadPixelCsv({{Key(9, 2), 4, {}}}, BadPixelList::kVertical),
              "Col,Row(Start),Row(End),Size\r\n9,2,5,4\r\n");
    EXPECT_EQ(ExportFilter(BadPixelList::kSingle), "CSV File(*.csv)|*.csv||");
    EXPECT_EQ(ExportFilter(BadPixelList::kVertical), "Lut(*.csv)|*.csv||");
}

TEST(BadPixelExport, FileIsWrittenAndAnEmptyListIsRefused) {
    const auto dir =
        std::filesystem::temp_directory_path() / ("lumetra-csv-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    const std::string path = (dir / "bad.csv").string();
    EXPECT_EQ(ExportBadPixelCsv(path, {}, BadPixelList::kSingle), "No Bad Pixel Data.");
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(ExportBadPixelCsv(path, {{Key(1, 2), 1, {}}}, BadPixelList::kSingle), "");
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(text.str(), "Col,Row\r\n2,1\r\n");
    EXPECT_NE(ExportBadPixelCsv((dir / "no" / "x.csv").string(), {{Key(1, 2), 1, {}}},
                                BadPixelList::kSingle),
              "");
    std::filesystem::remove_all(dir);
}

TEST(BadPixelResultList, ColumnsAndCells) {
    EXPECT_EQ(ResultColumns(BadPixelList::kSingle),
              (std::vector<std::string>{"ID", "Col", "Row", "Pixel"}));
    EXPECT_EQ(ResultColumns(BadPixelList::kHorizontal),
              (std::vector<std::string>{"ID", "Row", "Col(Start)", "Col(End)", "Size"}));
    EXPECT_EQ(ResultColumns(BadPixelList::kVertical),
              (std::vector<std::string>{"ID", "Col", "Row(Start)", "Row(End)", "Size"}));
    const BadPixelRecord pixel{Key(3, 5), 1, {17, 65535, 65535, 65535}};
    EXPECT_EQ(ResultCells(pixel, 0, BadPixelList::kSingle, 1),
              (std::vector<std::string>{"1", "5", "3", "17"}));
    const BadPixelRecord colour{Key(3, 5), 1, {1, 2, 3, 4}};
    EXPECT_EQ(ResultCells(colour, 41, BadPixelList::kSingle, 4)[3], "1,2,3,4");
    EXPECT_EQ(ResultCells(colour, 41, BadPixelList::kSingle, 4)[0], "42");
    const BadPixelRecord run{Key(3, 5), 4, {}};
    EXPECT_EQ(ResultCells(run, 1, BadPixelList::kHorizontal, 1),
              (std::vector<std::string>{"2", "3", "5", "8", "4"}));
}

}  // namespace
}  // namespace lumetra::test
