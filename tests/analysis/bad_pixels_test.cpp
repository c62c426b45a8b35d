#include "analysis/bad_pixels.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "analysis_test_support.h"
#include "bad_pixel_map_reference.h"

namespace lumetra::test {
namespace {

TEST(RangeModes, EdgesOfEachMode) {
    const struct {
        int mode;
        int64_t low, high, v;
        bool bad;
    } cases[] = {{kInRange, 10, 20, 10, false},
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
                 {-1, 0, 255, 5, false}};
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
                SCOPED_TRACE(testing::Message() << mode << " " << low << ".." << high);
                const RangeTest t8 = RangeTest::For(mode, low, high, 255);
                for (uint32_t v = 0; v < 256; ++v) {
                    ASSERT_EQ(t8.bad(v), IsBadSample(mode, v, low, high)) << v;
                }
                const RangeTest t16 = RangeTest::For(mode, low, high, 65535);
                for (uint32_t v : {0u, 1u, 9u, 10u, 11u, 255u, 256u, 65534u, 65535u}) {
                    ASSERT_EQ(t16.bad(v), IsBadSample(mode, v, low, high)) << v;
                }
            }
        }
    }
}

uint64_t Key(int high, int low) {
    return uint64_t(high) * 65536 + low;
}

constexpr uint16_t kNo = 65535;  // the value of a channel a record does not have

TEST(BadPixelWalk, SameListsAsTheOrderedMapWalk) {
    const struct {
        int type, bits, mode;
        int64_t low, high;
        int h, v;
        PixelArea area;
    } cases[] = {
        {CV_8UC1, 8, kOutOfRange, 20, 235, 2, 2, {0, 0, 61, 40}},
        {CV_8UC1, 8, kInRangeEqual, 100, 160, 3, 1, {5, 3, 50, 31}},
        {CV_8UC1, 8, kInRange, 0, 255, 0, 4, {0, 0, 61, 40}},  // nearly all bad: runs cross rows
        {CV_8UC1, 8, kOutOfRange, 40, 215, 1, 0, {0, 0, 61, 40}},
        {CV_16UC1, 12, kOutOfRangeEqual, 200, 3900, 2, 2, {0, 0, 61, 40}},
        {CV_8UC3, 24, kOutOfRange, 30, 225, 2, 2, {1, 1, 60, 39}},
        {CV_16UC4, 64, kInRange, 1000, 60000, 5, 3, {0, 0, 61, 40}},
    };
    unsigned seed = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.type << " mode " << c.mode);
        const int high = c.bits == 12 ? 4096 : -1;
        auto frame = MakeFrameCopy(RandomMat(40, 61, c.type, seed++, high), c.bits);
        const BadPixelSettings s = Settings(c.mode, c.low, c.high, c.h, c.v);
        BadPixelSearch search(s, c.area, 1, 61, 40);
        ASSERT_TRUE(search.AddFrame(*frame));
        const BadPixelLists got = search.Finish();
        const BadPixelLists want = MapReference(*frame, s, c.area, 61 * 40);
        EXPECT_FALSE(want.single.empty());
        EXPECT_EQ(got.single, want.single);
        EXPECT_EQ(got.horizontal, want.horizontal);
        EXPECT_EQ(got.vertical, want.vertical);
        EXPECT_FALSE(got.capped);
    }
}

TEST(BadPixelWalk, MoreThanAMillionListsExactlyAMillion) {
    auto search = [](int rows, int cols) {
        BadPixelSearch s(Settings(kInRangeEqual, 77, 77, 1, 1), {0, 0, cols, rows}, 1, cols, rows);
        EXPECT_TRUE(s.AddFrame(*MakeFrameCopy(cv::Mat(rows, cols, CV_8UC1, cv::Scalar(77)), 8)));
        return s.Finish();
    };
    const BadPixelLists l = search(1000, 1200);
    ASSERT_EQ(l.single.size(), kBadPixelCap);
    EXPECT_TRUE(l.capped);
    EXPECT_EQ(l.single.front().key, Key(0, 0));
    EXPECT_EQ(l.single.back().key, Key(833, 399));  // the 1000000th pixel in row order
    EXPECT_EQ(l.horizontal.size(), 1000u);          // one run per row
    EXPECT_EQ(l.vertical.size(), 1200u);
    EXPECT_EQ(kTooMuchBadDataText, "There's too much bad data, just the first 1000000 shows!");
    // Below the cap nothing is dropped and nothing is reported.
    EXPECT_FALSE(search(100, 100).capped);
}

TEST(BadPixelWalk, FramesMergeRepeatedPositions) {
    cv::Mat a(3, 6, CV_8UC1, cv::Scalar(0)), b(3, 6, CV_8UC1, cv::Scalar(0));
    a.at<uint8_t>(1, 1) = 201;
    a.at<uint8_t>(1, 2) = 202;
    b.at<uint8_t>(1, 2) = 250;  // seen again, other value
    b.at<uint8_t>(1, 3) = 203;
    b.at<uint8_t>(0, 0) = 204;
    const BadPixelSettings s = Settings(kOutOfRange, 0, 200, 3, 2, 2);
    BadPixelSearch search(s, {0, 0, 6, 3}, 2, 6, 3);
    ASSERT_TRUE(search.AddFrame(*MakeFrameCopy(a, 8)));
    ASSERT_TRUE(search.AddFrame(*MakeFrameCopy(b, 8)));
    EXPECT_FALSE(search.AddFrame(*MakeFrameCopy(b, 8)));  // a third frame is not taken
    const BadPixelLists l = search.Finish();
    EXPECT_EQ(l.single, (std::vector<BadPixelRecord>{{Key(0, 0), 1, {204, kNo, kNo, kNo}},
                                                     {Key(1, 1), 1, {201, kNo, kNo, kNo}},
                                                     {Key(1, 2), 2, {202, kNo, kNo, kNo}},
                                                     {Key(1, 3), 1, {203, kNo, kNo, kNo}}}));
    // The merged run 1..3.
    EXPECT_EQ(l.horizontal, (std::vector<BadPixelRecord>{{Key(1, 1), 3, {kNo, kNo, kNo, kNo}}}));
}

TEST(BadPixelSettingsCheck, ClusterCountsAndAreaEdges) {
    const PixelArea all{0, 0, 640, 480};
    const struct {
        int h, v;
        bool useRoi;
        PixelArea roi;
        bool passes;
    } cases[] = {{640, 480, false, {}, true},
                 {641, 480, false, {}, false},
                 {-1, 480, false, {}, false},
                 {2, 481, false, {}, false},
                 {2, 2, true, {10, 10, 640, 480}, true},
                 {2, 2, true, {10, 10, 641, 480}, false},
                 {2, 2, true, {-1, 10, 20, 20}, false},
                 {2, 2, true, {0, 0, 20, 481}, false}};
    for (const auto& c : cases) {
        BadPixelSettings s = Settings(kInRange, 0, 0, c.h, c.v);
        s.useRoi = c.useRoi;
        s.roi = c.roi;
        const AreaCheck check = CheckBadPixelSettings(s, 640, 480);
        EXPECT_EQ(check.error, c.passes ? "" : kClusterRangeText) << c.h << " " << c.roi.right;
        if (c.passes) {
            EXPECT_EQ(check.area, c.useRoi ? c.roi : all);
        }
    }
    EXPECT_EQ(kClusterRangeText, "Please reset the cluster count range!");
    EXPECT_EQ(RangeLimit(8, 24, 3), 255);
    EXPECT_EQ(RangeLimit(16, 12, 1), 4095);
    EXPECT_EQ(RangeLimit(16, 16, 1), 65535);
}

TEST(BadPixelExport, CsvLinesPerList) {
    const std::vector<BadPixelRecord> singles = {{Key(3, 5), 1, {}}, {Key(70, 1024), 1, {}}};
    EXPECT_EQ(BadPixelCsv(singles, BadPixelList::kSingle), "Col,Row\r\n5,3\r\n1024,70\r\n");
    EXPECT_EQ(BadPixelCsv({{Key(3, 5), 3, {}}}, BadPixelList::kHorizontal),
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
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "Col,Row\r\n2,1\r\n");
    EXPECT_NE(ExportBadPixelCsv((dir / "no" / "x.csv").string(), {{Key(1, 2), 1, {}}},
                                BadPixelList::kSingle),
              "");
    std::filesystem::remove_all(dir);
}

TEST(BadPixelResultList, ColumnsAndCells) {
    using Row = std::vector<std::string>;
    EXPECT_EQ(ResultColumns(BadPixelList::kSingle), (Row{"ID", "Col", "Row", "Pixel"}));
    EXPECT_EQ(ResultColumns(BadPixelList::kHorizontal),
              (Row{"ID", "Row", "Col(Start)", "Col(End)", "Size"}));
    EXPECT_EQ(ResultColumns(BadPixelList::kVertical),
              (Row{"ID", "Col", "Row(Start)", "Row(End)", "Size"}));
    const BadPixelRecord pixel{Key(3, 5), 1, {17, kNo, kNo, kNo}};
    EXPECT_EQ(ResultCells(pixel, 0, BadPixelList::kSingle, 1), (Row{"1", "5", "3", "17"}));
    const BadPixelRecord colour{Key(3, 5), 1, {1, 2, 3, 4}};
    EXPECT_EQ(ResultCells(colour, 41, BadPixelList::kSingle, 4), (Row{"42", "5", "3", "1,2,3,4"}));
    EXPECT_EQ(PixelText({0, 1, {5, 250, 5, kNo}}, 3), "5,250,5");
    EXPECT_EQ(ResultCells({Key(3, 5), 4, {}}, 1, BadPixelList::kHorizontal, 1),
              (Row{"2", "3", "5", "8", "4"}));
}

}  // namespace
}  // namespace lumetra::test
