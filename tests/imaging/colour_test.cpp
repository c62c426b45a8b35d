#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

#include <opencv2/imgproc.hpp>

#include "imaging/image_buffer.h"
#include "test_support.h"

namespace lumetra {
namespace {

using test::Filled;
using test::Randomise;
using test::SameMat;
using test::TestAllocator;

class BgrToRgb : public testing::TestWithParam<int> {
  protected:
    TestAllocator allocator_;  // its guard bytes catch a write before or past a block
};

INSTANTIATE_TEST_SUITE_P(Depths, BgrToRgb, testing::Values(8, 16));

TEST_P(BgrToRgb, LargeLoopMatchesOpenCvAndIgnoresRegions) {
    ImageBuffer src(allocator_), dst(allocator_);
    src.Create(GetParam(), 3, 7, 5);
    dst.Create(GetParam(), 3, 7, 5);
    Randomise(src, 11);
    const cv::Mat before = src.mat().clone();
    src.SetRegion(1, 1, 2, 2);
    dst.SetRegion(4, 2, 2, 2);
    ImageBuffer::ConvertColourLarge(src, dst, cv::COLOR_BGR2RGB);
    cv::Mat expected;
    cv::cvtColor(before, expected, cv::COLOR_BGR2RGB);
    EXPECT_TRUE(SameMat(dst.mat(), expected));
    EXPECT_TRUE(SameMat(src.mat(), before));

    ImageBuffer::ConvertColourLarge(dst, dst, cv::COLOR_BGR2RGB);  // in place
    EXPECT_TRUE(SameMat(dst.mat(), before));
}

TEST_P(BgrToRgb, LargeLoopRefusesOtherLayouts) {
    ImageBuffer src(allocator_), dst(allocator_);
    src.Create(GetParam(), 3, 4, 4);
    Randomise(src, 13);
    for (const auto& [channels, width] : {std::pair{3, 3}, std::pair{4, 3}}) {
        dst.Create(GetParam(), channels, width, 4);  // smaller block; same bytes in 4 channels
        ImageBuffer::ConvertColourLarge(src, dst, cv::COLOR_BGR2RGB);
        EXPECT_TRUE(SameMat(dst.mat(), Filled(dst))) << channels;
    }
}

TEST_P(BgrToRgb, OpenCvPathHonoursRegions) {
    ImageBuffer src(allocator_), dst(allocator_);
    src.Create(GetParam(), 3, 8, 6);
    dst.Create(GetParam(), 3, 5, 5);
    Randomise(src, 14);
    src.SetRegion(4, 3, 4, 3);
    dst.SetRegion(0, 2, 4, 3);
    ImageBuffer::ConvertColour(src, dst, cv::COLOR_BGR2RGB);
    cv::Mat expected = Filled(dst);
    cv::Mat target = expected(cv::Rect(0, 2, 4, 3));
    cv::cvtColor(src.mat()(cv::Rect(4, 3, 4, 3)), target, cv::COLOR_BGR2RGB);
    EXPECT_TRUE(SameMat(dst.mat(), expected));
}

TEST(ConvertColour, UnservedCodesAndMisfitsLeaveTheDestination) {
    ImageBuffer src, grey, dst, empty;
    src.Create(8, 3, 6, 4);
    grey.Create(8, 1, 6, 4);
    Randomise(src, 15);
    ImageBuffer::ConvertColourLarge(src, grey, cv::COLOR_BGR2GRAY);
    EXPECT_TRUE(SameMat(grey.mat(), Filled(grey)));
    ImageBuffer::ConvertColour(src, grey, cv::COLOR_BGR2GRAY);  // served when not large
    cv::Mat expected;
    cv::cvtColor(src.mat(), expected, cv::COLOR_BGR2GRAY);
    EXPECT_TRUE(SameMat(grey.mat(), expected));

    dst.Create(8, 3, 6, 5);
    ImageBuffer::ConvertColour(src, dst, cv::COLOR_BGR2RGB);  // other size
    ImageBuffer::ConvertColour(src, dst, 9999);
    ImageBuffer::ConvertColour(src, dst, cv::COLOR_GRAY2BGR);
    ImageBuffer::ConvertColour(empty, dst, cv::COLOR_BGR2RGB);
    ImageBuffer::ConvertColour(src, empty, cv::COLOR_BGR2RGB);
    EXPECT_TRUE(SameMat(dst.mat(), Filled(dst)));
    EXPECT_EQ(dst.mat().data, dst.block());
    EXPECT_FALSE(empty.hasImage());
}

// The large path's demosaicing, region to region as the partial demosaicing uses it.
class LargeBayer : public testing::TestWithParam<std::tuple<int, int>> {};

INSTANTIATE_TEST_SUITE_P(DepthAndCode, LargeBayer,
                         testing::Combine(testing::Values(8, 16), testing::Range(46, 50)),
                         [](const auto& info) {
                             return "Depth" + std::to_string(std::get<0>(info.param)) + "Code" +
                                    std::to_string(std::get<1>(info.param));
                         });

TEST_P(LargeBayer, MatchesCvtColorOnTheRegions) {
    const auto [depth, code] = GetParam();
    TestAllocator allocator;
    ImageBuffer raw(allocator), colour(allocator);
    raw.Create(depth, 1, 16, 12);
    colour.Create(depth, 3, 16, 12);
    Randomise(raw, code);
    raw.SetRegion(2, 4, 10, 8);
    colour.SetRegion(2, 4, 10, 8);
    ImageBuffer::ConvertColourLarge(raw, colour, code);
    cv::Mat expected = Filled(colour);
    cv::Mat target = expected(cv::Rect(2, 4, 10, 8));
    cv::cvtColor(raw.mat()(cv::Rect(2, 4, 10, 8)), target, code);
    EXPECT_TRUE(SameMat(colour.mat(), expected));
}

}  // namespace
}  // namespace lumetra
