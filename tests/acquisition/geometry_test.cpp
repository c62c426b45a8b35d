#include "acquisition/geometry.h"

#include <gtest/gtest.h>

#include "fake_board.h"

namespace lumetra::test {
namespace {

GeometryInput input(uint32_t width, uint8_t model, bool jpeg, bool rgbd, uint32_t taps = 8,
                    uint32_t imageType = 0) {
    GeometryInput in;
    in.width = width;
    in.height = 1000;
    in.modelCode = model;
    in.jpegCompression = jpeg;
    in.rgbdExtended = rgbd;
    in.taps = taps;
    in.imageType = imageType;
    return in;
}

TEST(WidthRule, EveryRowOfTheTable) {
    const struct {
        GeometryInput in;
        uint32_t expected;
    } cases[] = {
        // JPEG on, model 3: 80 for colour, 48 for mono, rounded down.
        {input(1000, 3, true, false, 8, 1), 960},
        {input(1000, 3, true, false, 8, 0), 960},
        {input(1001, 3, true, false, 8, 0), 960},
        {input(100, 3, true, false, 8, 0), 96},
        // JPEG on, model 10: 80, rounded up.
        {input(1000, 10, true, false), 1040},
        {input(1040, 10, true, false), 1040},
        // JPEG on, other models: the tap number, down.
        {input(1001, 5, true, false, 8), 1000},
        // JPEG off, model 10: 640 with rgbd, else 10, up.
        {input(1001, 10, false, true), 1280},
        {input(1001, 10, false, false), 1010},
        // JPEG off, other models: 128 with rgbd, else taps, down.
        {input(1001, 5, false, true), 896},
        {input(1001, 5, false, false, 10), 1000},
        {input(1001, 5, false, false, 1), 1001},
        // JPEG off, model 3: 384 with rgbd, else taps, down.
        {input(1001, 3, false, true), 768},
        {input(1001, 3, false, false, 10), 1000},
        // Below the unit becomes the unit.
        {input(5, 5, false, false, 8), 8},
        {input(100, 10, false, true), 640},
        {input(0, 5, false, true), 128},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << "width " << c.in.width << " model " << int(c.in.modelCode) << " jpeg "
                     << c.in.jpegCompression << " rgbd " << c.in.rgbdExtended);
        RecordingLog log;
        EXPECT_EQ(ValidateWidth(c.in, log), c.expected);
        EXPECT_EQ(log.lines().size(), c.expected != c.in.width ? 1u : 0u);
    }
}

TEST(HeightRule, CutRoundedAndReported) {
    const struct {
        uint32_t in, out;
    } cases[] = {{70000, 65528}, {65535, 65528}, {65528, 65528}, {1001, 1000},
                 {1000, 1000},   {7, 8},         {0, 8},         {15, 8}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.in);
        RecordingLog log;
        EXPECT_EQ(ValidateHeight(c.in, log), c.out);
        if (c.in == c.out) {
            EXPECT_TRUE(log.lines().empty());
        } else {
            ASSERT_EQ(log.lines().size(), 1u);
            EXPECT_EQ(log.lines()[0],
                      "Image height must be divided by 8 and less than 65535.Reset the image "
                      "height as " +
                          std::to_string(c.out) + "\n");
        }
    }
}

TEST(RecommendedHeight, SearchesForWholeKernelBlocks) {
    GeometryInput in;
    in.width = 4096;
    in.channels = 1;
    in.dataFormat = 8;
    in.kernelBlockSize = 1;  // 4 MiB
    in.height = 1000;        // 4096000 bytes: below one block, left alone
    RecordingLog log;
    EXPECT_EQ(RecommendHeight(in, log), 1000u);
    EXPECT_TRUE(log.lines().empty());

    in.height = 1032;  // 4227072 bytes >= 4 MiB; 2048 rows make two blocks
    EXPECT_EQ(RecommendHeight(in, log), 1032u) << "nothing whole within 512 rows";
    in.height = 1024;
    EXPECT_EQ(RecommendHeight(in, log), 1024u) << "already whole";
    EXPECT_TRUE(log.lines().empty());

    in.height = 1600;  // next whole: 2048 rows, within +512
    EXPECT_EQ(RecommendHeight(in, log), 2048u);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"The recommended high value is 2048\n"});

    // 16-bit samples count two bytes.
    log.clear();
    in.dataFormat = 12;
    in.height = 600;  // 4915200 bytes; 1024 rows make two blocks
    EXPECT_EQ(RecommendHeight(in, log), 1024u);

    // No block size: no search.
    in.kernelBlockSize = 0;
    EXPECT_EQ(RecommendHeight(in, log), 600u);

    in.width = 8;
    in.dataFormat = 8;
    in.kernelBlockSize = 1;
    in.height = 524288;  // one whole block already, but far above the limit
    EXPECT_EQ(RecommendHeight(in, log), 65528u);
}

}  // namespace
}  // namespace lumetra::test
