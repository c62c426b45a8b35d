// The marker read-out, the overlay's lines, the context-failure texts and the dialogs' models.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "imaging/view_dialogs.h"
#include "imaging/view_readout.h"

namespace lumetra {
namespace {

ImageBuffer Pixel16(int channels, std::array<uint16_t, 4> samples, int width = 5, int height = 4) {
    ImageBuffer b;
    b.Create(16, channels, width, height);
    auto* p = reinterpret_cast<uint16_t*>(b.data() + 2 * b.widthStep()) + 3 * channels;
    for (int i = 0; i < channels; ++i) {
        p[i] = samples[static_cast<size_t>(i)];
    }
    return b;
}

ImageBuffer Pixel8(int channels, std::array<uint8_t, 4> samples) {
    ImageBuffer b;
    b.Create(8, channels, 5, 4);
    uint8_t* p = b.data() + 2 * b.widthStep() + 3 * channels;
    for (int i = 0; i < channels; ++i) {
        p[i] = samples[static_cast<size_t>(i)];
    }
    return b;
}

TEST(MarkerReadout, OneThreeAndFourChannelsInBothFormats) {
    const ImageBuffer gray = Pixel16(1, {4095});
    const ImageBuffer rgb = Pixel8(3, {1, 2, 255});
    const ImageBuffer rgbc = Pixel16(4, {10, 200, 3000, 65535});
    const struct {
        const ImageBuffer* raw;
        int format;
        const char* text;
    } cases[] = {
        {&gray, 0, "Marker(x,y)=(3,2)  Value(Gray)= 4095"},
        {&gray, 1, "Marker(x,y)=(3,2)  Value(Gray)= FFF"},
        {&gray, 2, "Marker(x,y)=(3,2)  Value(Gray)= 4095"},
        {&rgb, 0, "Marker(x,y)=(3,2)  Value(RGB)= 1 2 255 "},
        {&rgb, 1, "Marker(x,y)=(3,2)  Value(RGB)= 1 2 FF "},
        {&rgbc, 0, "Marker(x,y)=(3,2)  Value(RGBC)= 10 200 3000 65535 "},
        {&rgbc, 1, "Marker(x,y)=(3,2)  Value(RGBC)= A C8 BB8 FFFF "},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(MarkerReadout(*c.raw, 3, 2, c.format), c.text);
    }
}

TEST(MarkerReadout, NothingOutsideTheImage) {
    const ImageBuffer gray = Pixel16(1, {7});
    EXPECT_EQ(MarkerReadout(gray, 5, 2, 0), "");  // x = width
    EXPECT_EQ(MarkerReadout(gray, 3, 4, 0), "");  // y = height
    EXPECT_EQ(MarkerReadout(gray, -1, 0, 0), "");
    // A new buffer is filled with the byte 3: 0x0303 in 16 bits.
    EXPECT_EQ(MarkerReadout(gray, 4, 3, 0), "Marker(x,y)=(4,3)  Value(Gray)= 771");
    EXPECT_EQ(MarkerReadout(ImageBuffer{}, 0, 0, 0), "");
    ImageBuffer two;
    two.Create(8, 2, 4, 4);
    EXPECT_EQ(MarkerReadout(two, 1, 1, 0), "");
}

TEST(OverlayTexts, LinesPerLabelsAndFormat) {
    const std::array<double, 4> s{1, 2, 255, 77};
    using V = std::vector<std::string>;
    EXPECT_EQ(PixelValueTexts(3, 4, s, ValueLabels::Colour, 1),
              (V{"(3, 4)", "R:  FF", "G:  2", "B:  1"}));
    EXPECT_EQ(PixelValueTexts(3, 4, s, ValueLabels::Colour, 0),
              (V{"(3, 4)", "R:  255", "G:  2", "B:  1"}));
    EXPECT_EQ(PixelValueTexts(3, 4, s, ValueLabels::ColourClear, 0),
              (V{"(3, 4)", "R:  255", "G:  2", "B:  1", "C:  77"}));
    EXPECT_EQ(PixelValueTexts(0, 0, {4095}, ValueLabels::Plain, 1), (V{"(0, 0)", "FFF"}));
    EXPECT_EQ(PixelValueTexts(0, 0, {4095}, ValueLabels::Plain, 0), (V{"(0, 0)", "4095"}));
    EXPECT_EQ(PixelValueTexts(9, 8, {76, 255, 85}, ValueLabels::LumaChroma, 0),
              (V{"(9, 8)", "Y:  76", "Cr:  255", "Cb:  85"}));
    const struct {
        ValueLabels labels;
        const char* line;
    } single[] = {{ValueLabels::Red, "R:  C"},  {ValueLabels::Green, "G:  C"},
                  {ValueLabels::Blue, "B:  C"}, {ValueLabels::Clear, "C:  C"},
                  {ValueLabels::Y, "Y:  C"},    {ValueLabels::Cr, "Cr:  C"},
                  {ValueLabels::Cb, "Cb:  C"}};
    for (const auto& c : single) {
        EXPECT_EQ(PixelValueTexts(1, 2, {12}, c.labels, 1), (V{"(1, 2)", c.line}));
    }
    EXPECT_TRUE(PixelValueTexts(1, 2, s, ValueLabels::Colour, 2).empty());  // "No"
}

TEST(ContextFailure, Texts) {
    EXPECT_EQ(ContextFailureText(ContextFailure::NoSurface), "Can't Get Client DC\n");
    EXPECT_EQ(ContextFailureText(ContextFailure::NoPixelFormat),
              "Can't Setup Pixel Format Description\n");
    EXPECT_EQ(ContextFailureText(ContextFailure::NoRenderingContext),
              "Can't Create Rendering Context\n");
    EXPECT_EQ(ContextFailureText(ContextFailure::NotCurrent), "Can't Make Current DC\n");
}

TEST(BayerSettingModel, OpeningAndOk) {
    EXPECT_EQ(kBayerSettingTitle, "Bayer Setting");
    const char* texts[] = {"BGGR", "RGGB", "GBRG", "GRBG"};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(kBayerPatternButtons[static_cast<size_t>(i)].text, texts[i]);
        EXPECT_EQ(kBayerPatternButtons[static_cast<size_t>(i)].pattern, i + 1);
    }
    EXPECT_EQ(BayerPatternOnOpening({false, 0}), std::nullopt);
    EXPECT_EQ(BayerPatternOnOpening({true, 3}), 3);
    EXPECT_EQ(BayerPatternOnOpening({false, 9}), std::nullopt);

    BayerSettings bayer{false, 0};
    ApplyBayerPattern(bayer, std::nullopt);
    EXPECT_FALSE(bayer.enabled);
    EXPECT_EQ(bayer.pattern, 0);
    ApplyBayerPattern(bayer, 4);
    EXPECT_TRUE(bayer.enabled);
    EXPECT_EQ(bayer.pattern, 4);
}

TEST(BitDiagram, ShownBitsOfTheSelectedShift) {
    const std::vector<BitCell> cells = BitDiagramCells(10, std::pair{2, 9});
    ASSERT_EQ(cells.size(), 10u);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(cells[static_cast<size_t>(i)].bit, 9 - i);
        EXPECT_EQ(cells[static_cast<size_t>(i)].shown, 9 - i >= 2) << i;
    }
    for (const BitCell& cell : BitDiagramCells(12, std::nullopt)) {
        EXPECT_FALSE(cell.shown);
    }
    EXPECT_TRUE(BitDiagramCells(0, std::pair{0, 7}).empty());
}

}  // namespace
}  // namespace lumetra
