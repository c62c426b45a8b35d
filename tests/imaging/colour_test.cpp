// Colour conversions of ImageBuffer, and our own bilinear demosaicing against OpenCV's, sample for
// sample: every code, both depths, odd and even sizes down to one pixel, chunk seams and the seams
// between threads. The buffers are exact blocks from malloc, so that the sanitizer build sees a
// read one sample past a row.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

#include <opencv2/imgproc.hpp>

#include "imaging/image_buffer.h"
#include "imaging/large_demosaic.h"
#include "test_support.h"

namespace lumetra {
namespace {

using test::CvtColor, test::Filled, test::FilledWith, test::Image, test::SameMat;

class BgrToRgb : public testing::TestWithParam<int> {
  protected:
    test::TestAllocator allocator_;  // its guard bytes catch a write before or past a block
};

INSTANTIATE_TEST_SUITE_P(Depths, BgrToRgb, testing::Values(8, 16));

// The large loop swaps the whole block whatever the regions, in place too, and refuses other
// layouts; OpenCV's path honours the regions.
TEST_P(BgrToRgb, LargeLoopIgnoresRegionsOpenCvPathHonoursThem) {
    const int depth = GetParam();
    ImageBuffer src = Image(depth, 3, 8, 5, 11, allocator_),
                dst = Image(depth, 3, 8, 5, -1, allocator_);
    const cv::Mat before = src.mat().clone();
    src.SetRegion(1, 1, 2, 2);
    dst.SetRegion(4, 2, 2, 2);
    ImageBuffer::ConvertColourLarge(src, dst, cv::COLOR_BGR2RGB);
    EXPECT_TRUE(SameMat(dst.mat(), CvtColor(before, cv::COLOR_BGR2RGB)));
    EXPECT_TRUE(SameMat(src.mat(), before));
    ImageBuffer::ConvertColourLarge(dst, dst, cv::COLOR_BGR2RGB);
    EXPECT_TRUE(SameMat(dst.mat(), before));

    // A smaller block; the same bytes in four channels.
    for (const auto& [channels, width] : {std::pair{3, 7}, std::pair{4, 6}}) {
        dst.Create(depth, channels, width, 5);
        ImageBuffer::ConvertColourLarge(src, dst, cv::COLOR_BGR2RGB);
        EXPECT_TRUE(SameMat(dst.mat(), Filled(dst))) << channels;
    }

    const cv::Rect from(4, 2, 4, 3), to(0, 2, 4, 3);
    dst.Create(depth, 3, 5, 5);
    src.SetRegion(from.x, from.y, from.width, from.height);
    dst.SetRegion(to.x, to.y, to.width, to.height);
    ImageBuffer::ConvertColour(src, dst, cv::COLOR_BGR2RGB);
    EXPECT_TRUE(SameMat(dst.mat(), FilledWith(dst, to, CvtColor(before(from), cv::COLOR_BGR2RGB))));
}

TEST(ConvertColour, UnservedCodesAndMisfitsLeaveTheDestination) {
    ImageBuffer src = Image(8, 3, 6, 4, 15), grey = Image(8, 1, 6, 4), dst = Image(8, 3, 6, 5),
                empty;
    ImageBuffer::ConvertColourLarge(src, grey, cv::COLOR_BGR2GRAY);
    EXPECT_TRUE(SameMat(grey.mat(), Filled(grey)));
    ImageBuffer::ConvertColour(src, grey, cv::COLOR_BGR2GRAY);  // served when not large
    EXPECT_TRUE(SameMat(grey.mat(), CvtColor(src.mat(), cv::COLOR_BGR2GRAY)));

    ImageBuffer::ConvertColour(src, dst, cv::COLOR_BGR2RGB);  // other size
    ImageBuffer::ConvertColour(src, dst, 9999);
    ImageBuffer::ConvertColour(src, dst, cv::COLOR_GRAY2BGR);
    ImageBuffer::ConvertColour(empty, dst, cv::COLOR_BGR2RGB);
    ImageBuffer::ConvertColour(src, empty, cv::COLOR_BGR2RGB);
    EXPECT_TRUE(SameMat(dst.mat(), Filled(dst)));
    EXPECT_EQ(dst.mat().data, dst.block());
    EXPECT_FALSE(empty.hasImage());
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

// Sizes down to one pixel, and widths around the steps of the hand-written code (rows 32 8-bit or
// 16 16-bit pixels a step) and of the portable loops (chunks of 512): through the large-buffer seam
// of ImageBuffer and through either kernel.
TEST_P(OwnDemosaic, MatchesCvtColorAtEverySize) {
    for (int height = 1; height <= 7; ++height) {
        for (int width : {1,  2,  3,  4,  5,  6,  7,  8,  11,  17,  18,  19,  20,  33,
                          34, 35, 36, 37, 65, 66, 67, 68, 513, 514, 515, 516, 1029}) {
            SCOPED_TRACE(testing::Message() << width << " x " << height);
            ImageBuffer raw = Image(depth(), 1, width, height, 8 * width + height);
            ImageBuffer colour = Image(depth(), 3, width, height);
            const cv::Mat expected = CvtColor(raw.mat(), code());
            ImageBuffer::ConvertColourLarge(raw, colour, code());
            EXPECT_TRUE(SameMat(colour.mat(), expected));
            for (DemosaicKernel kernel : {DemosaicKernel::Best, DemosaicKernel::Portable}) {
                cv::Mat out = colour.mat();
                out.setTo(cv::Scalar::all(0));
                DemosaicBilinear(raw.mat(), out, code(), 1, kernel);
                EXPECT_TRUE(SameMat(colour.mat(), expected)) << (kernel == DemosaicKernel::Best);
            }
        }
    }
}

// Threads take runs of rows in turn; runs of one row, uneven runs and more threads than rows must
// all meet without a seam.
TEST_P(OwnDemosaic, ThreadsMeetWithoutSeams) {
    ImageBuffer raw = Image(depth(), 1, 71, 23, 77), colour = Image(depth(), 3, 71, 23);
    const cv::Mat expected = CvtColor(raw.mat(), code());
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
    ImageBuffer raw = Image(depth(), 1, 20, 15, 5), colour = Image(depth(), 3, 20, 15);
    const cv::Rect region(3, 5, 13, 9);
    raw.SetRegion(region.x, region.y, region.width, region.height);
    colour.SetRegion(region.x, region.y, region.width, region.height);
    ImageBuffer::ConvertColourLarge(raw, colour, code());
    EXPECT_TRUE(
        SameMat(colour.mat(), FilledWith(colour, region, CvtColor(raw.mat()(region), code()))));
}

TEST(OwnDemosaicMisfits, LeaveTheDestinationAlone) {
    test::TestAllocator a;
    ImageBuffer raw8 = Image(8, 1, 6, 6, 1, a), raw16 = Image(16, 1, 6, 6, 2, a);
    ImageBuffer colour8 = Image(8, 3, 6, 6, -1, a), colour16 = Image(16, 3, 6, 6, -1, a),
                narrow = Image(8, 3, 5, 6, -1, a);
    cv::Mat c8 = colour8.mat(), c16 = colour16.mat(), n = narrow.mat();
    DemosaicLarge8(raw16.mat(), c16, cv::COLOR_BayerBG2BGR);  // 16-bit data to the 8-bit form
    DemosaicLarge16(raw8.mat(), c8, cv::COLOR_BayerBG2BGR);
    DemosaicLarge8(raw8.mat(), c16, cv::COLOR_BayerBG2BGR);     // depths differ
    DemosaicLarge8(raw8.mat(), n, cv::COLOR_BayerBG2BGR);       // sizes differ
    DemosaicLarge8(raw8.mat(), c8, cv::COLOR_BGR2RGB);          // not a Bayer code
    DemosaicLarge8(raw8.mat(), c8, cv::COLOR_BayerBG2BGR_VNG);  // not the bilinear variant
    for (const ImageBuffer* b : {&colour8, &colour16, &narrow}) {
        EXPECT_TRUE(SameMat(b->mat(), Filled(*b))) << b->depth() << " " << b->width();
    }
    DemosaicLarge16(raw16.mat(), c16, cv::COLOR_BayerGR2BGR);
    EXPECT_TRUE(SameMat(colour16.mat(), CvtColor(raw16.mat(), cv::COLOR_BayerGR2BGR)));
}

}  // namespace
}  // namespace lumetra
