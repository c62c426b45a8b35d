#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "imaging/raw_image_file.h"
#include "test_support.h"

namespace lumetra {
namespace {

using test::Filled;
using test::Randomise;
using test::SameMat;

class RawImageFile : public testing::Test {
  protected:
    std::filesystem::path dir;

    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              ("lumetra-raw-" + std::to_string(getpid()) + "-" +
               testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }

    std::string path(const std::string& name) const { return (dir / name).string(); }

    std::vector<unsigned char> bytes(const std::string& name) const {
        std::ifstream in(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
};

TEST_F(RawImageFile, SixteenBitSamplesAreLittleEndianRowsUnpadded) {
    ImageBuffer image;
    image.Create(16, 3, 3, 2);
    Randomise(image, 1);
    image.mat().at<cv::Vec<uint16_t, 3>>(0, 0) = {0x0102, 0x0304, 0x0FFF};
    std::string error;
    ASSERT_TRUE(WriteRawImage(path("a.raw"), image.mat(), error)) << error;
    const auto data = bytes("a.raw");
    ASSERT_EQ(data.size(), 3u * 2 * 3 * 2);
    EXPECT_EQ(data[0], 0x02);
    EXPECT_EQ(data[1], 0x01);
    EXPECT_EQ(data[2], 0x04);
    EXPECT_EQ(data[5], 0x0F);

    ImageBuffer back;
    ASSERT_TRUE(ReadRawImage(path("a.raw"), RawLayout{3, 2, 3, 12}, back, error)) << error;
    EXPECT_EQ(back.depth(), 16);
    EXPECT_TRUE(SameMat(back.mat(), image.mat()));
}

TEST_F(RawImageFile, EightBitRegionsAreWrittenRowByRow) {
    ImageBuffer image;
    image.Create(8, 1, 7, 5);
    Randomise(image, 2);
    const cv::Mat region = image.mat()(cv::Rect(2, 1, 4, 3));  // rows with a gap between them
    std::string error;
    ASSERT_TRUE(WriteRawImage(path("b.raw"), region, error)) << error;
    const auto data = bytes("b.raw");
    ASSERT_EQ(data.size(), 12u);
    EXPECT_EQ(data[4], region.at<uint8_t>(1, 0));
    EXPECT_EQ(data[11], region.at<uint8_t>(2, 3));

    ImageBuffer back;
    ASSERT_TRUE(ReadRawImage(path("b.raw"), RawLayout{4, 3, 1, 8}, back, error)) << error;
    EXPECT_TRUE(SameMat(back.mat(), region));
}

TEST_F(RawImageFile, LayoutsThatDoNotFitAreRefused) {
    { std::ofstream(path("c.raw"), std::ios::binary) << std::string(24, 'x'); }
    ImageBuffer image;
    image.Create(8, 1, 2, 2);
    const struct {
        RawLayout layout;
        std::string error;
    } cases[] = {
        {{4, 3, 1, 8}, path("c.raw") + " holds 24 bytes; 4 x 3 x 1 samples of 8 bits take 12"},
        {{4, 3, 3, 10}, path("c.raw") + " holds 24 bytes; 4 x 3 x 3 samples of 10 bits take 72"},
        {{0, 3, 1, 8}, "a raw image needs its size"},
        {{4, 3, 2, 8}, "a raw image has 1, 3 or 4 channels, not 2"},
        {{4, 3, 1, 17}, "raw samples have 8 to 16 bits, not 17"},
    };
    for (const auto& c : cases) {
        std::string error;
        EXPECT_FALSE(ReadRawImage(path("c.raw"), c.layout, image, error));
        EXPECT_EQ(error, c.error);
    }
    std::string error;
    EXPECT_TRUE(ReadRawImage(path("c.raw"), RawLayout{4, 3, 1, 16}, image, error)) << error;
    EXPECT_FALSE(ReadRawImage(path("missing.raw"), RawLayout{4, 3, 1, 16}, image, error));
    EXPECT_EQ(error, "cannot read " + path("missing.raw"));
    EXPECT_EQ(image.width(), 4);  // the failed read left the image alone

    cv::Mat floats(2, 2, CV_32FC1);
    EXPECT_FALSE(WriteRawImage(path("d.raw"), floats, error));
    EXPECT_FALSE(WriteRawImage(path("no/such/dir/e.raw"), cv::Mat(2, 2, CV_8UC1), error));
}

TEST(RawImagePath, ByExtension) {
    EXPECT_TRUE(IsRawImagePath("frame.raw"));
    EXPECT_TRUE(IsRawImagePath("/a/b/FRAME.RAW"));
    EXPECT_FALSE(IsRawImagePath(".raw"));
    EXPECT_FALSE(IsRawImagePath("frame.raw.png"));
    EXPECT_FALSE(IsRawImagePath("raw"));
}

}  // namespace
}  // namespace lumetra
