#include "acquisition/frame_store.h"

#include <gtest/gtest.h>

#include <mutex>
#include <numeric>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <thread>

#include "imaging/jpeg_decoder.h"

namespace lumetra::test {
namespace {

cv::Mat pattern(int width, int height, int type) {
    cv::Mat m(height, width, type);
    cv::randu(m, 0, 255);
    cv::GaussianBlur(m, m, cv::Size(5, 5), 0);  // JPEG-friendly, so the check can be tight
    return m;
}

TEST(FrameStore, PutCopiesAtMostTheCapacityAndHoldKeepsTheFrame) {
    FrameStore store;
    ASSERT_TRUE(store.Resize(8));
    const uint8_t a[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    store.Put(a, sizeof a, false);
    EXPECT_EQ(store.size(), 8u);
    EXPECT_TRUE(store.full());
    store.setHold(true);
    const uint8_t b[8] = {};
    store.Put(b, sizeof b, true);
    store.WithFrame([](const uint8_t* p, size_t n, bool jpeg) {
        EXPECT_EQ(n, 8u);
        EXPECT_FALSE(jpeg);
        EXPECT_EQ(p[7], 8);
    });
    store.setHold(false);
    store.Put(b, 0, false);  // a size of 0 copies nothing
    EXPECT_EQ(store.size(), 0u);
}

TEST(FrameStore, ConvertCopiesPlainFramesIntoTheRawImage) {
    std::mutex frameLock;
    FrameStore store;
    ImageBuffer raw;
    raw.Create(16, 1, 4, 2);
    EXPECT_FALSE(store.Deliver(raw, frameLock)) << "nothing held yet";
    ASSERT_TRUE(store.Resize(raw.size()));
    std::vector<uint16_t> frame(8);
    std::iota(frame.begin(), frame.end(), uint16_t{4000});
    store.Put(frame.data(), frame.size() * 2, false);
    ASSERT_TRUE(store.Deliver(raw, frameLock));
    EXPECT_EQ(raw.ReadPixel(1, 3)[0], 4007.0);
}

TEST(FrameStore, JpegFramesAreDecodedIntoTheRawImage) {
    for (int type : {CV_8UC1, CV_8UC3}) {
        SCOPED_TRACE(type);
        const cv::Mat picture = pattern(64, 16, type);
        std::vector<uint8_t> jpeg;
        ASSERT_TRUE(cv::imencode(".jpg", picture, jpeg, {cv::IMWRITE_JPEG_QUALITY, 95}));
        const cv::Mat expected = cv::imdecode(jpeg, cv::IMREAD_UNCHANGED);

        std::mutex frameLock;
        FrameStore store;
        ASSERT_TRUE(store.Resize(picture.total() * picture.elemSize()));
        store.Put(jpeg.data(), jpeg.size(), true);
        ImageBuffer raw;
        raw.Create(8, picture.channels(), 64, 16);
        ASSERT_TRUE(store.Deliver(raw, frameLock));
        // The same decoder family: allow a step of rounding between the two paths.
        EXPECT_LE(cv::norm(raw.mat(), expected, cv::NORM_INF), 2.0);
    }
}

TEST(FrameStore, UndecodableJpegLeavesTheImageAndSaysNothing) {
    const cv::Mat picture = pattern(64, 16, CV_8UC1);
    std::vector<uint8_t> jpeg;
    ASSERT_TRUE(cv::imencode(".jpg", picture, jpeg));
    std::mutex frameLock;
    FrameStore store;
    ASSERT_TRUE(store.Resize(4096));
    ImageBuffer raw;
    raw.Create(8, 1, 64, 16);

    store.Put(jpeg.data(), 20, true);  // cut inside the header
    EXPECT_FALSE(store.Deliver(raw, frameLock));
    const uint8_t junk[64] = {0xFF, 0xD8, 0x00, 0x13};
    store.Put(junk, sizeof junk, true);
    EXPECT_FALSE(store.Deliver(raw, frameLock));
    EXPECT_EQ(raw.data()[0], ImageBuffer::kFillByte);

    // A picture of another size does not fit the raw image.
    ImageBuffer other;
    other.Create(8, 1, 32, 16);
    store.Put(jpeg.data(), jpeg.size(), true);
    EXPECT_FALSE(store.Deliver(other, frameLock));
}

// A progressive 16 x 16 colour picture, its frame header (SOF2) claiming side x side pixels.
std::vector<uint8_t> ProgressiveClaiming(int side) {
    std::vector<uint8_t> jpeg;
    EXPECT_TRUE(
        cv::imencode(".jpg", pattern(16, 16, CV_8UC3), jpeg, {cv::IMWRITE_JPEG_PROGRESSIVE, 1}));
    for (size_t i = 0; i + 9 < jpeg.size(); ++i) {
        if (jpeg[i] == 0xFF && jpeg[i + 1] == 0xC2) {
            for (size_t field : {i + 5, i + 7}) {  // height, then width, most significant first
                jpeg[field] = static_cast<uint8_t>(side >> 8);
                jpeg[field + 1] = static_cast<uint8_t>(side & 0xFF);
            }
            return jpeg;
        }
    }
    ADD_FAILURE() << "no SOF2 marker";
    return jpeg;
}

// A board's frame has a known shape: a header claiming another one is refused before the decoder
// allocates for it. 26000 x 26000 progressive would take some 2 GB of coefficients.
TEST(FrameStore, JpegClaimingAnotherShapeIsRefusedBeforeDecoding) {
    struct Case {
        int side;
        JpegShape expected;
        const char* error;  // empty: decodes
    } cases[] = {
        {16, {16, 16, 3}, ""},
        {16,
         {16, 16, 1},
         "the JPEG data are damaged or truncated (the picture is 16 x 16 with 3 channel(s), the "
         "frame 16 x 16 with 1)"},
        {16,
         {17, 16, 3},
         "the JPEG data are damaged or truncated (the picture is 16 x 16 with 3 channel(s), the "
         "frame 17 x 16 with 3)"},
        {26000,
         {16, 16, 3},
         "the JPEG data are damaged or truncated (the picture is 26000 x 26000 with 3 channel(s), "
         "the frame 16 x 16 with 3)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.side);
        const std::vector<uint8_t> jpeg = ProgressiveClaiming(c.side);
        cv::Mat image;
        std::string error;
        EXPECT_EQ(DecodeJpeg(jpeg.data(), jpeg.size(), image, error, &c.expected), !*c.error);
        EXPECT_EQ(error, c.error);
    }

    // The store asks for the raw image's shape.
    const std::vector<uint8_t> huge = ProgressiveClaiming(26000);
    std::mutex frameLock;
    FrameStore store;
    ASSERT_TRUE(store.Resize(4096));
    ImageBuffer raw;
    raw.Create(8, 3, 16, 16);
    store.Put(huge.data(), huge.size(), true);
    EXPECT_FALSE(store.Deliver(raw, frameLock));
    EXPECT_EQ(raw.data()[0], ImageBuffer::kFillByte);
    const std::vector<uint8_t> good = ProgressiveClaiming(16);
    store.Put(good.data(), good.size(), true);
    EXPECT_TRUE(store.Deliver(raw, frameLock));
}

// The reader's check runs under the frame lock with the store's lock free, for plain and JPEG
// frames alike: the board's callback can put the next frame meanwhile.
TEST(FrameStore, DeliverRunsTheCheckUnderTheFrameLockWithTheStoreFree) {
    const cv::Mat picture = pattern(64, 16, CV_8UC1);
    std::vector<uint8_t> jpeg;
    ASSERT_TRUE(cv::imencode(".jpg", picture, jpeg));
    std::mutex frameLock;
    FrameStore store;
    ASSERT_TRUE(store.Resize(picture.total()));
    ImageBuffer raw;
    raw.Create(8, 1, 64, 16);
    for (bool compressed : {false, true}) {
        SCOPED_TRACE(compressed);
        if (compressed) {
            store.Put(jpeg.data(), jpeg.size(), true);
        } else {
            store.Put(picture.data, picture.total(), false);
        }
        bool ran = false;
        ASSERT_TRUE(store.Deliver(raw, frameLock, [&] {
            EXPECT_FALSE(frameLock.try_lock()) << "the frame lock is held";
            std::thread callback([&] { store.Put(picture.data, 8, false); });
            callback.join();  // would never return if the store's lock were held here
            ran = true;
        }));
        EXPECT_TRUE(ran);
        EXPECT_EQ(store.size(), 8u);
    }
}

}  // namespace
}  // namespace lumetra::test
