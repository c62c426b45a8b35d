#include "analysis/roi.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "base/ini_file.h"

namespace lumetra::test {
namespace {

TEST(RoiEdits, ViewRoiBecomesInclusiveStops) {
    EXPECT_EQ(RoiFromView(10, 20, 30, 40), (RoiRect{10, 20, 29, 39}));
    EXPECT_EQ(RoiFromView(5, 5, 5, 9), RoiRect{});  // no width
    EXPECT_EQ(RoiFromView(5, 5, 8, 5), RoiRect{});  // no height
    EXPECT_EQ(RoiFromView(0, 0, 1, 1), (RoiRect{0, 0, 0, 0}));
}

TEST(RoiEdits, SetChecksSettingsThenTheFrame) {
    EXPECT_EQ(CheckRoiEdit({-1, 0, 10, 10}, 100, 100), kCheckSettingsText);
    EXPECT_EQ(CheckRoiEdit({0, -1, 10, 10}, 100, 100), kCheckSettingsText);
    EXPECT_EQ(CheckRoiEdit({11, 0, 10, 10}, 100, 100), kCheckSettingsText);
    EXPECT_EQ(CheckRoiEdit({0, 11, 10, 10}, 100, 100), kCheckSettingsText);
    EXPECT_EQ(CheckRoiEdit({10, 10, 10, 10}, 100, 100), "");  // stop equal to start passes
    EXPECT_EQ(CheckRoiEdit({0, 0, 99, 99}, 100, 100), "");
    EXPECT_EQ(CheckRoiEdit({0, 0, 100, 99}, 100, 100), kRoiOutOfFrameText);
    EXPECT_EQ(CheckRoiEdit({0, 0, 99, 100}, 100, 100), kRoiOutOfFrameText);
    EXPECT_EQ(kCheckSettingsText, "Please check if the Settings are correct !");
    EXPECT_EQ(kRoiOutOfFrameText, "Setting out of range, please reset !");
}

TEST(RoiEdits, RowEditInsideTheRoi) {
    // At or beyond the stop it becomes stop - 1; below the start, the start.
    EXPECT_EQ(ClampToRoi(40, 10, 40, false).value, 39);
    EXPECT_TRUE(ClampToRoi(40, 10, 40, false).changed);
    EXPECT_EQ(ClampToRoi(90, 10, 40, false).value, 39);
    EXPECT_EQ(ClampToRoi(9, 10, 40, false).value, 10);
    EXPECT_TRUE(ClampToRoi(9, 10, 40, false).changed);
    EXPECT_EQ(ClampToRoi(39, 10, 40, false).value, 39);
    EXPECT_FALSE(ClampToRoi(39, 10, 40, false).changed);
    EXPECT_EQ(ClampToRoi(500, 0, 0, true).value, 500);  // empty ROI: not checked
    EXPECT_FALSE(ClampToRoi(500, 0, 0, true).changed);
    EXPECT_EQ(kOutOfRoiRangeText, "Set value is out of ROI range");
}

TEST(RoiEdits, AreaIsInclusiveAndEmptyMeansTheWholeFrame) {
    EXPECT_EQ((RoiRect{2, 3, 5, 7}.area(100, 100)), (PixelArea{2, 3, 6, 8}));
    EXPECT_EQ(RoiRect{}.area(64, 48), (PixelArea{0, 0, 64, 48}));
    EXPECT_EQ((RoiRect{4, 4, 4, 9}.area(64, 48)), (PixelArea{0, 0, 64, 48}));
    EXPECT_EQ((RoiRect{10, 10, 200, 200}.area(64, 48)), (PixelArea{10, 10, 64, 48}));
    EXPECT_EQ((RoiRect{0, 0, INT32_MAX, 5}.area(64, 48)), (PixelArea{0, 0, 64, 6}));
}

class RoiConfigTest : public ::testing::Test {
  protected:
    std::filesystem::path dir;
    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              ("lumetra-roi-" + std::to_string(getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
    std::string path() const { return RoiConfigPath(dir.string()); }
    void write(const std::string& text) { std::ofstream(path()) << text; }
};

TEST_F(RoiConfigTest, MissingFileKeysAndCountTakeTheirDefaults) {
    EXPECT_EQ(LoadRoiSet(path()), (std::vector<RoiRect>{{0, 0, 100, 100}}));
    write(
        "[Config]\nROICount=3\nROI0StartX=5\nROI0StartY=abc\nROI0StopX=12x\nROI0StopY=\n"
        "ROI1StopX= 70 \nROI2StartY=-4\n");
    EXPECT_EQ(LoadRoiSet(path()),
              (std::vector<RoiRect>{{5, 0, 100, 100}, {0, 0, 70, 100}, {0, -4, 100, 100}}));
    for (const char* count : {"x", "-3", "99999999", "2.5"}) {
        write(std::string("[Config]\nROICount=") + count + "\nROI0StartX=7\n");
        EXPECT_EQ(LoadRoiSet(path()), (std::vector<RoiRect>{{7, 0, 100, 100}})) << count;
    }
    write("[Config]\nROICount=0\n");
    EXPECT_TRUE(LoadRoiSet(path()).empty());
    write("[Other]\nROICount=4\n");
    EXPECT_EQ(LoadRoiSet(path()).size(), 1u);
}

TEST_F(RoiConfigTest, SaveRoundTripsAndKeepsWhatItDoesNotWrite) {
    EXPECT_EQ(RoiConfigPath("/home/u/.config/KELM-Lumetra"),
              "/home/u/.config/KELM-Lumetra/ROIConfig.ini");
    EXPECT_EQ(RoiConfigPath("/x/"), "/x/ROIConfig.ini");
    write("[Viewer]\nZoom=3\n[Config]\nROICount=1\nComment=kept\n");
    const std::vector<RoiRect> three = {{1, 2, 30, 40}, {5, 6, 70, 80}, {9, 10, 11, 12}};
    ASSERT_TRUE(SaveRoiSet(path(), three));
    EXPECT_EQ(LoadRoiSet(path()), three);

    const std::vector<RoiRect> one = {{100, 200, 300, 400}};
    ASSERT_TRUE(SaveRoiSet(path(), one));
    EXPECT_EQ(LoadRoiSet(path()), one);
    const auto ini = IniFile::Load(path());
    ASSERT_TRUE(ini);
    EXPECT_EQ(ini->value("Config", "ROICount"), "1");
    EXPECT_EQ(ini->value("Config", "ROI0StartX"), "100");
    // The keys of ROIs 1 and 2 are still in the file as they were, and so are other keys.
    EXPECT_EQ(ini->value("Config", "ROI1StopY"), "80");
    EXPECT_EQ(ini->value("Config", "ROI2StartX"), "9");
    EXPECT_EQ(ini->value("Config", "Comment"), "kept");
    EXPECT_EQ(ini->value("Viewer", "Zoom"), "3");

    EXPECT_FALSE(SaveRoiSet((dir / "missing" / "ROIConfig.ini").string(), one));
}

// Names match without regard to ASCII case; a name keeps the spelling it was first written with,
// and the text lists sections and keys in folded order.
TEST(IniFileNames, CaseFoldsAndTheFirstSpellingStays) {
    IniFile ini = IniFile::Parse("[Config]\nRoiCount=2\n[viewer]\nZoom=3\n[CONFIG]\nroicount=5\n");
    const struct {
        const char* section;
        const char* key;
        const char* value;
    } reads[] = {{"config", "ROICOUNT", "5"}, {"VIEWER", "zoom", "3"}, {"Config", "Zoom", ""}};
    for (const auto& r : reads) {
        EXPECT_EQ(ini.value(r.section, r.key), r.value) << r.section << "/" << r.key;
        EXPECT_EQ(ini.has(r.section, r.key), *r.value != '\0') << r.section << "/" << r.key;
    }
    ini.set("VIEWER", "ZOOM", "4");
    ini.set("config", "B_key", "x");
    ini.set("Config", "a_KEY", "y");
    EXPECT_EQ(ini.text(), "[Config]\na_KEY=y\nB_key=x\nRoiCount=5\n[viewer]\nZoom=4\n");
    // Only ASCII letters fold: bytes above 127 compare as they are.
    ini.set("Config", "\xC4", "upper");
    ini.set("Config", "\xE4", "lower");
    EXPECT_EQ(ini.value("Config", "\xC4"), "upper");
    EXPECT_EQ(ini.value("Config", "\xE4"), "lower");
}

TEST(RoiSet, FirstUnreasonableRowIsNamed) {
    const int w = 640, h = 480;
    EXPECT_EQ(FirstUnreasonableRoi({{0, 0, 639, 479}}, w, h), std::nullopt);
    EXPECT_EQ(FirstUnreasonableRoi({{0, 0, 640, 479}}, w, h), 0u);  // Stop X = width
    EXPECT_EQ(FirstUnreasonableRoi({{0, 0, 639, 480}}, w, h), 0u);
    EXPECT_EQ(FirstUnreasonableRoi({{0, 0, 10, 10}, {5, 5, 5, 20}, {0, 0, 1, 1}}, w, h), 1u);
    EXPECT_EQ(FirstUnreasonableRoi({{0, 0, 10, 10}, {1, 1, 20, 20}, {0, 9, 1, 9}}, w, h), 2u);
    EXPECT_EQ(FirstUnreasonableRoi({{-1, 0, 10, 10}}, w, h), 0u);
    EXPECT_EQ(UnreasonableRoiText(3), "The size setting of ROI3 is not reasonable, please reset");
    EXPECT_EQ(kSelectRowToDeleteText, "Select the row that you want to delete");
}

}  // namespace
}  // namespace lumetra::test
