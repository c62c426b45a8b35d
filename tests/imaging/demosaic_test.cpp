// Our own bilinear demosaicing against OpenCV's, sample for sample: every code, both depths, odd
// and even sizes down to one pixel, chunk seams and the seams between threads. The buffers are
// exact blocks from malloc, so that the sanitizer build sees a read one sample past a row.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "imaging/image_buffer.h"
#include "imaging/large_demosaic.h"
#include "test_support.h"

namespace lumetra {
namespace {

using test::Filled;
using test::Randomise;
using test::SameMat;
using test::TestAllocator;

cv::Mat Expected(const cv::Mat& raw, int code) {
    cv::Mat expected;
    cv::cvtColor(raw, expected, code);
    return expected;
}

class OwnDemosaic : public testing::TestWithParam<std::tuple<int, int>> {
  protected:
    int depth() const { return std::get<0>(GetParam()); }
    int code() const { return std::get<1>(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(DepthAndCode, OwnDemosaic,
                         testing::Combine(testing::Values(8, 16), testing::Range(46, 50)),
                         [](const auto& info) {
                             return "Depth" + std::to_string(std::get<0>(info.param)) + "Code" +
                                    std::to_string(std::get<1>(info.param));
                         });

// Through the large-buffer seam of ImageBuffer, on images small enough to compare.
TEST_P(OwnDemosaic, MatchesCvtColorAtEverySmallSize) {
    int seed = 1;
    for (int height = 1; height <= 7; ++height) {
        for (int width : {1, 2, 3, 4, 5, 6, 7, 8, 11}) {
            ImageBuffer raw, colour;
            raw.Create(depth(), 1, width, height);
            colour.Create(depth(), 3, width, height);
            Randomise(raw, seed++);
            ImageBuffer::ConvertColourLarge(raw, colour, code());
            EXPECT_TRUE(SameMat(colour.mat(), Expected(raw.mat(), code())))
                << width << " x " << height;
        }
    }
}

// Where the processor allows, hand-written code works rows 32 (8-bit) or 16 (16-bit) pixels a step
// and the portable loops the rest, in chunks of 512: widths around those steps, through both.
TEST_P(OwnDemosaic, BothKernelsMatchAcrossSteps) {
    for (int width :
         {17, 18, 19, 20, 33, 34, 35, 36, 37, 65, 66, 67, 68, 513, 514, 515, 516, 1029}) {
        ImageBuffer raw, colour;
        raw.Create(depth(), 1, width, 5);
        colour.Create(depth(), 3, width, 5);
        Randomise(raw, width);
        const cv::Mat expected = Expected(raw.mat(), code());
        for (DemosaicKernel kernel : {DemosaicKernel::Best, DemosaicKernel::Portable}) {
            cv::Mat out = colour.mat();
            out.setTo(cv::Scalar::all(0));
            DemosaicBilinear(raw.mat(), out, code(), 1, kernel);
            EXPECT_TRUE(SameMat(colour.mat(), expected))
                << width << (kernel == DemosaicKernel::Best ? " best" : " portable");
        }
    }
}

// Threads take runs of rows in turn; runs of one row, uneven runs and more threads than rows must
// all meet without a seam.
TEST_P(OwnDemosaic, ThreadsMeetWithoutSeams) {
    ImageBuffer raw, colour;
    raw.Create(depth(), 1, 71, 23);
    colour.Create(depth(), 3, 71, 23);
    Randomise(raw, 77);
    const cv::Mat expected = Expected(raw.mat(), code());
    for (int threads : {1, 2, 3, 4, 7, 21, 40}) {
        cv::Mat out = colour.mat();
        out.setTo(cv::Scalar::all(0));
        DemosaicBilinear(raw.mat(), out, code(), threads,
                         threads % 2 != 0 ? DemosaicKernel::Best : DemosaicKernel::Portable);
        EXPECT_TRUE(SameMat(colour.mat(), expected)) << threads << " threads";
    }
}

// A region keeps the pattern's phase of its own top-left pixel, as OpenCV's does, and nothing
// outside either region is read or written.
TEST_P(OwnDemosaic, RegionsAtOddOffsets) {
    ImageBuffer raw, colour;
    raw.Create(depth(), 1, 20, 15);
    colour.Create(depth(), 3, 20, 15);
    Randomise(raw, 5);
    const cv::Rect region(3, 5, 13, 9);
    raw.SetRegion(region.x, region.y, region.width, region.height);
    colour.SetRegion(region.x, region.y, region.width, region.height);
    ImageBuffer::ConvertColourLarge(raw, colour, code());
    cv::Mat expected = Filled(colour);
    cv::Mat target = expected(region);
    cv::cvtColor(raw.mat()(region), target, code());
    EXPECT_TRUE(SameMat(colour.mat(), expected));
}

TEST(OwnDemosaicMisfits, LeaveTheDestinationAlone) {
    TestAllocator allocator;
    ImageBuffer raw8(allocator), raw16(allocator), colour8(allocator), colour16(allocator),
        narrow(allocator);
    raw8.Create(8, 1, 6, 6);
    raw16.Create(16, 1, 6, 6);
    colour8.Create(8, 3, 6, 6);
    colour16.Create(16, 3, 6, 6);
    narrow.Create(8, 3, 5, 6);
    Randomise(raw8, 1);
    Randomise(raw16, 2);

    cv::Mat c8 = colour8.mat();
    cv::Mat c16 = colour16.mat();
    cv::Mat n = narrow.mat();
    DemosaicLarge8(raw16.mat(), c16, cv::COLOR_BayerBG2BGR);  // 16-bit data to the 8-bit form
    DemosaicLarge16(raw8.mat(), c8, cv::COLOR_BayerBG2BGR);
    DemosaicLarge8(raw8.mat(), c16, cv::COLOR_BayerBG2BGR);     // depths differ
    DemosaicLarge8(raw8.mat(), n, cv::COLOR_BayerBG2BGR);       // sizes differ
    DemosaicLarge8(raw8.mat(), c8, cv::COLOR_BGR2RGB);          // not a Bayer code
    DemosaicLarge8(raw8.mat(), c8, cv::COLOR_BayerBG2BGR_VNG);  // not the bilinear variant
    EXPECT_TRUE(SameMat(colour8.mat(), Filled(colour8)));
    EXPECT_TRUE(SameMat(colour16.mat(), Filled(colour16)));
    EXPECT_TRUE(SameMat(narrow.mat(), Filled(narrow)));

    DemosaicLarge16(raw16.mat(), c16, cv::COLOR_BayerGR2BGR);
    EXPECT_TRUE(SameMat(colour16.mat(), Expected(raw16.mat(), cv::COLOR_BayerGR2BGR)));
}

}  // namespace
}  // namespace lumetra
