#include "imaging/image_buffer.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "test_support.h"

namespace lumetra {
namespace {

using test::Filled, test::Image, test::Randomise, test::SameMat, test::TestAllocator;
using Events = std::vector<std::string>;

void ExpectEmpty(const ImageBuffer& b) {
    EXPECT_FALSE(b.hasImage());
    EXPECT_EQ(b.data(), nullptr);
    EXPECT_TRUE(b.mat().empty());
    EXPECT_EQ(b.size(), 0u);
    EXPECT_EQ(b.width() | b.height() | b.depth() | b.channels() | b.widthStep(), 0);
    EXPECT_FALSE(b.large());
}

// A new shape of the same byte size keeps the block, refills it and drops region and channel of
// interest.
TEST(ImageBufferCreate, HeaderIsBoundToAFilledBlockKeptForTheSameByteSize) {
    for (const bool boolean : {false, true}) {
        SCOPED_TRACE(boolean);
        TestAllocator allocator;
        ImageBuffer b(allocator);
        b.Create(16, 3, 5, 4);
        EXPECT_EQ(b.size(), 120u);
        EXPECT_EQ(b.widthStep(), 30);
        EXPECT_EQ(b.data(), b.block());
        EXPECT_FALSE(b.large());
        const cv::Mat m = b.mat();
        EXPECT_EQ(m.data, b.data());
        EXPECT_EQ(m.type(), CV_16UC3);
        EXPECT_EQ(m.step[0], 30u);
        EXPECT_TRUE(SameMat(m, Filled(b)));
        const void* block = b.block();
        std::memset(b.data(), 0, b.size());
        b.SetRegion(1, 1, 2, 2);
        b.SetChannelOfInterest(1);
        if (boolean) {
            ASSERT_TRUE(b.TryCreate(8, 3, 2, 20));
        } else {
            b.Create(8, 3, 2, 20);
        }
        EXPECT_EQ(b.block(), block);
        EXPECT_EQ(b.widthStep(), 6);
        EXPECT_TRUE(SameMat(b.mat(), Filled(b)));
        EXPECT_EQ(b.region(), cv::Rect(0, 0, 2, 20));
        EXPECT_EQ(b.channelOfInterest(), 0);
        EXPECT_EQ(allocator.events, Events{"allocate 120"});
    }
}

// The void form frees before it asks and ends empty when refused; the boolean form asks first and
// keeps the old buffer when refused. A block of the same byte size needs no request.
TEST(ImageBufferCreate, VoidFormFreesFirstBooleanFormAllocatesFirst) {
    TestAllocator allocator;
    allocator.failAbove = 100;
    ImageBuffer b(allocator);
    b.Create(8, 1, 6, 4);
    b.Create(16, 1, 6, 4);
    ASSERT_TRUE(b.TryCreate(8, 3, 4, 2));
    Randomise(b, 7);
    const cv::Mat before = b.mat().clone();
    b.SetRegion(1, 1, 2, 1);
    EXPECT_FALSE(b.TryCreate(16, 3, 10, 10));
    EXPECT_EQ(b.depth(), 8);
    EXPECT_EQ(b.region(), cv::Rect(1, 1, 2, 1));
    EXPECT_TRUE(SameMat(b.mat(), before));
    EXPECT_TRUE(b.TryCreate(8, 1, 12, 2));
    b.Create(8, 3, 10, 10);
    ExpectEmpty(b);
    b.Create(8, 1, 2, 2);
    EXPECT_TRUE(b.hasImage());
    EXPECT_EQ(allocator.events,
              (Events{"allocate 24", "free 24", "allocate 48", "allocate 24", "free 48",
                      "refuse 600", "free 24", "refuse 300", "allocate 4"}));
}

TEST(ImageBufferCreate, ShapesNoHeaderDescribesReleaseTheBuffer) {
    const std::array<int, 4> shapes[] = {{12, 1, 4, 4}, {8, 5, 4, 4},   {8, 0, 4, 4},
                                         {8, 1, 0, 4},  {8, 1, -4, -4}, {16, 4, 1 << 28, 1}};
    for (const auto& [depth, channels, width, height] : shapes) {
        TestAllocator allocator;
        ImageBuffer b(allocator);
        ASSERT_TRUE(b.TryCreate(8, 1, 4, 4));
        EXPECT_FALSE(b.TryCreate(depth, channels, width, height)) << depth << " " << channels;
        ExpectEmpty(b);
        b.Create(8, 1, 4, 4);
        b.Create(depth, channels, width, height);
        ExpectEmpty(b);
    }
}

TEST(ImageBufferCreate, BlockIsFreedByTheAllocatorThatMadeIt) {
    TestAllocator first;
    TestAllocator second;
    {
        ImageBuffer b(first);
        b.Create(8, 1, 4, 4);
        b.setAllocator(second);
        b.Create(8, 1, 8, 8);
        EXPECT_EQ(first.events, (Events{"allocate 16", "free 16"}));
        b.setAllocator(first);
    }  // the destructor frees with second
    EXPECT_EQ(second.events, (Events{"allocate 64", "free 64"}));
}

TEST(ImageBufferCreate, MoveHandsOverTheBlockOnce) {
    TestAllocator allocator;
    ImageBuffer a(allocator);
    a.Create(8, 3, 4, 2);
    const void* block = a.block();
    ImageBuffer b(std::move(a));
    ImageBuffer c(allocator);
    c.Create(8, 1, 2, 2);
    c = std::move(b);  // frees c's own block
    EXPECT_EQ(c.block(), block);
    EXPECT_EQ(allocator.liveBlocks(), 1u);
    a = std::move(c);  // NOLINT(bugprone-use-after-move): a moved-from buffer is empty and usable
    EXPECT_EQ(a.block(), block);
}

TEST(ImageBufferCreate, LargeFromExactlyTwoGiB) {
    EXPECT_FALSE(ImageBuffer::IsLargeSize(0x7FFFFFFFu));
    EXPECT_TRUE(ImageBuffer::IsLargeSize(0x80000000u));
    EXPECT_EQ(ImageBuffer::ByteSize(8, 1, 65536, 32768), 0x80000000u);
    EXPECT_EQ(ImageBuffer::ByteSize(16, 4, 65535, 65535), 2ull * 4 * 65535 * 65535);
    // The request reaches the allocator in 64 bits.
    TestAllocator allocator;
    allocator.failAbove = 0;
    ImageBuffer b(allocator);
    EXPECT_FALSE(b.TryCreate(16, 4, 65535, 65535));
    b.Create(8, 1, 65536, 32768);
    EXPECT_EQ(allocator.events, (Events{"refuse 34358689800", "refuse 2147483648"}));
}

TEST(ImageBufferRegion, ClippedIgnoredOutsideAndReset) {
    ImageBuffer b;
    b.SetRegion(0, 0, 2, 2);
    b.SetChannelOfInterest(1);
    EXPECT_EQ(b.region(), cv::Rect());
    EXPECT_EQ(b.channelOfInterest(), 0);
    b.Create(8, 3, 10, 8);
    b.SetRegion(2, 3, 4, 2);
    EXPECT_EQ(b.view().data, b.data() + 3 * 30 + 2 * 3);
    b.SetRegion(-2, -1, 5, 5);
    EXPECT_EQ(b.region(), cv::Rect(0, 0, 3, 4));
    b.SetRegion(7, 6, 100, 100);
    EXPECT_EQ(b.region(), cv::Rect(7, 6, 3, 2));
    for (const cv::Rect r : {cv::Rect(10, 0, 1, 1), cv::Rect(0, 8, 1, 1), cv::Rect(-5, 0, 5, 1),
                             cv::Rect(0, 0, -1, 1)}) {
        b.SetRegion(r.x, r.y, r.width, r.height);
    }
    EXPECT_EQ(b.region(), cv::Rect(7, 6, 3, 2));
    b.ResetRegion();
    EXPECT_EQ(b.region(), cv::Rect(0, 0, 10, 8));
    b.SetChannelOfInterest(3);
    b.SetChannelOfInterest(4);
    EXPECT_EQ(b.channelOfInterest(), 3);
}

TEST(ImageBufferReadPixel, RowThenColumnZerosElsewhere) {
    using Samples = std::array<double, 4>;
    // 7 x 3, so that a swapped row and column reads another pixel or none.
    ImageBuffer none, mono = Image(8, 1, 7, 3), bgr = Image(8, 3, 7, 3), bgrc = Image(16, 4, 7, 3);
    ImageBuffer two = Image(8, 2, 7, 3);  // filled with 3, yet two channels read as nothing
    mono.mat().at<uint8_t>(2, 6) = 201;
    bgr.mat().at<cv::Vec3b>(2, 5) = {10, 20, 30};
    bgr.mat().at<cv::Vec3b>(2, 6) = {40, 50, 60};
    bgrc.mat().at<cv::Vec4w>(2, 6) = {1000, 4095, 65535, 258};
    bgr.SetRegion(2, 1, 3, 2);  // does not move the origin
    EXPECT_EQ(mono.ReadPixel(2, 6), (Samples{201, 0, 0, 0}));
    EXPECT_EQ(mono.ReadPixel(2, 5), (Samples{3, 0, 0, 0}));
    EXPECT_EQ(bgr.ReadPixel(2, 5), (Samples{10, 20, 30, 0}));
    EXPECT_EQ(bgr.ReadPixel(2, 6), (Samples{40, 50, 60, 0}));
    EXPECT_EQ(bgrc.ReadPixel(2, 6), (Samples{1000, 4095, 65535, 258}));
    for (const auto& [buffer, row, column] :
         {std::tuple{&none, 0, 0}, {&two, 1, 1}, {&mono, 3, 0}, {&mono, 0, 7}, {&mono, 0, -1}}) {
        EXPECT_EQ(buffer->ReadPixel(row, column), Samples{}) << row << ", " << column;
    }
}

// Copy through OpenCV and by hand: both must give what OpenCV gives on the same views.
using CopyFn = void (*)(const ImageBuffer&, ImageBuffer&);

class ImageBufferCopy : public testing::TestWithParam<CopyFn> {
  protected:
    TestAllocator allocator_;
};

INSTANTIATE_TEST_SUITE_P(Paths, ImageBufferCopy,
                         testing::Values(&ImageBuffer::Copy, &ImageBuffer::CopyLarge),
                         [](const auto& info) { return info.index ? "ByHand" : "OpenCv"; });

TEST_P(ImageBufferCopy, RegionsAndChannelsOfInterest) {
    struct Case {
        int srcChannels, srcCoi, dstChannels, dstCoi;
        cv::Size srcSize, dstSize;
        cv::Rect from, to;
    };
    const Case cases[] = {
        {3, 0, 3, 0, {9, 5}, {9, 5}, {0, 0, 9, 5}, {0, 0, 9, 5}},
        {3, 0, 3, 0, {11, 7}, {4, 3}, {6, 4, 4, 3}, {0, 0, 4, 3}},
        {4, 0, 4, 0, {4, 3}, {10, 6}, {0, 0, 4, 3}, {6, 3, 4, 3}},
        {1, 0, 1, 0, {12, 9}, {8, 8}, {1, 5, 5, 4}, {3, 0, 5, 4}},
        {3, 2, 1, 0, {9, 6}, {7, 4}, {5, 3, 4, 3}, {0, 0, 4, 3}},
        {1, 0, 4, 4, {9, 6}, {7, 4}, {0, 0, 4, 3}, {0, 0, 4, 3}},
        {3, 3, 4, 1, {9, 6}, {7, 4}, {0, 2, 3, 3}, {4, 1, 3, 3}},
    };
    for (const int depth : {8, 16}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(testing::Message() << depth << " bits, " << c.from << " to " << c.to);
            ImageBuffer src = Image(depth, c.srcChannels, c.srcSize.width, c.srcSize.height,
                                    depth + c.srcCoi, allocator_);
            ImageBuffer dst =
                Image(depth, c.dstChannels, c.dstSize.width, c.dstSize.height, -1, allocator_);
            src.SetRegion(c.from.x, c.from.y, c.from.width, c.from.height);
            dst.SetRegion(c.to.x, c.to.y, c.to.width, c.to.height);
            src.SetChannelOfInterest(c.srcCoi);
            dst.SetChannelOfInterest(c.dstCoi);
            GetParam()(src, dst);
            cv::Mat expected = Filled(dst);
            cv::Mat target = expected(c.to);
            const cv::Mat source = src.mat()(c.from);
            if (c.srcCoi + c.dstCoi == 0) {
                source.copyTo(target);
            } else {
                const int pair[] = {std::max(c.srcCoi - 1, 0), std::max(c.dstCoi - 1, 0)};
                cv::mixChannels(&source, 1, &target, 1, pair, 1);
            }
            EXPECT_TRUE(SameMat(dst.mat(), expected));
        }
    }
}

TEST_P(ImageBufferCopy, MismatchesChangeNothing) {
    ImageBuffer src = Image(8, 3, 6, 4, 8, allocator_), dst(allocator_), empty(allocator_);
    const std::array<int, 3> shapes[] = {{8, 3, 5}, {16, 3, 4}, {8, 4, 4}};  // depth, ch, height
    for (const auto& [depth, channels, height] : shapes) {
        dst.Create(depth, channels, 6, height);
        GetParam()(src, dst);
        EXPECT_TRUE(SameMat(dst.mat(), Filled(dst))) << depth << " " << channels << " " << height;
    }
    src.SetChannelOfInterest(1);  // into three channels without a channel of interest
    dst.Create(8, 3, 6, 4);
    GetParam()(src, dst);
    GetParam()(empty, dst);
    EXPECT_TRUE(SameMat(dst.mat(), Filled(dst)));
    GetParam()(src, empty);
    EXPECT_FALSE(empty.hasImage());
}

}  // namespace
}  // namespace lumetra
