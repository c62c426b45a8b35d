// lumetra-cli grab with the recording options, end to end on the simulated board.
#include <gtest/gtest.h>

#include <fstream>
#include <opencv2/imgcodecs.hpp>

#include "support/tool_run.h"
#include "test_support.h"

namespace lumetra {
namespace {

using test::ToolRun;

class RecordingCli : public ::testing::Test {
  protected:
    // Both default boards on the virtual clock: frames back to back and none late, so what is
    // recorded does not depend on the machine's speed.
    ToolRun run(const std::string& args) {
        const std::string ini = dir / "sim.ini";
        std::ofstream(ini) << "[board0]\nclock=virtual\n[board1]\nclock=virtual\n";
        return test::RunTool(LUMETRA_CLI, dir.path(), args, ini);
    }
    test::TempDir dir;
};

TEST_F(RecordingCli, RecordsTheStreamAsGreyH264) {
    // Board 0: 8-bit frames at 60 per second; board 1: 12-bit CoaXPress frames. With --record,
    // --frames counts the recorded frames, so the file's length does not depend on the machine.
    const struct {
        std::string args;
        int width, height, frames;
    } cases[] = {{"grab --frames 90", 1920, 1200, 90},
                 {"--board 1 grab --frames 8", 2560, 2048, 8}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        const std::string file = dir / "out.h264";
        const ToolRun r = run(c.args + " --record '" + file + "' --json");
        ASSERT_EQ(r.status, 0) << r.err << r.out;
        EXPECT_NE(r.err.find("Video saved successfully"), std::string::npos) << r.err;
        const auto probed = test::Probe(file);
        EXPECT_EQ(probed.width, c.width);
        EXPECT_EQ(probed.height, c.height);
        EXPECT_TRUE(test::IsGreyPixFmt(probed.pixFmt)) << probed.pixFmt;
        EXPECT_EQ(test::SpsValue(file, "chroma_format_idc"), 0);
        // Every frame the recorder took is in the file: at least the frames asked for (one or
        // two more may arrive while the recording ends), never more than were grabbed.
        const int encoded = std::stoi(test::JsonField(r.out, "framesEncoded"));
        EXPECT_EQ(probed.frames, encoded);
        EXPECT_GE(encoded, c.frames);
        EXPECT_LE(encoded, std::stoi(test::JsonField(r.out, "framesGrabbed")));
        EXPECT_EQ(test::JsonField(r.out, "result"), "0");
        // The board's measured rate, capping being off by default: above 0, never above the
        // camera's.
        const double rate = std::stod(test::JsonField(r.out, "rate"));
        EXPECT_GT(rate, 0.0);
        EXPECT_LT(rate, 61.0);
    }
}

TEST_F(RecordingCli, FullDiskEndsTheRecordingWithItsText) {
    const ToolRun r = run("grab --frames 30 --record /dev/full");
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("Failed to write data, Exit saving"), std::string::npos) << r.err;
}

TEST_F(RecordingCli, SavesANumberedSequenceUntilTheCountMakingItsFolder) {
    const ToolRun r = run("grab --save '" + (dir / "shots/img.png") + "' --count 4 --json");
    ASSERT_EQ(r.status, 0) << r.err << r.out;
    for (int i = 1; i <= 4; ++i) {
        const std::string name = dir / ("shots/img-000" + std::to_string(i) + ".png");
        const cv::Mat image = cv::imread(name, cv::IMREAD_UNCHANGED);
        ASSERT_FALSE(image.empty()) << name;
        EXPECT_EQ(image.cols, 1920);
        EXPECT_EQ(image.rows, 1200);
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "shots/img-0005.png"));
    EXPECT_NE(r.out.find("\"saved\": 4"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"requested\": 4"), std::string::npos) << r.out;
}

TEST_F(RecordingCli, SnapshotGoesThroughTheStillImagePath) {
    const std::string file = dir / "shot.tif";
    const ToolRun r = run("--board 1 grab --once --snapshot '" + file + "' --lzw --dpi 300,200");
    ASSERT_EQ(r.status, 0) << r.err << r.out;
    EXPECT_NE(r.err.find("Image saved successfully"), std::string::npos) << r.err;
    const cv::Mat image = cv::imread(file, cv::IMREAD_UNCHANGED);
    ASSERT_FALSE(image.empty());
    EXPECT_EQ(image.type(), CV_16UC1);
    EXPECT_EQ(image.cols, 2560);
}

TEST_F(RecordingCli, BadOptionsAreRefused) {
    EXPECT_EQ(run("grab --once --record '" + (dir / "a.h264") + "'").status, 2);
    EXPECT_EQ(run("grab --frames 3 --save '" + (dir / "a.png") + "'").status, 2);
    EXPECT_EQ(run("grab --frames 3 --count 3").status, 2);
    EXPECT_EQ(run("grab --save '" + (dir / "noext") + "' --count 2").status, 2);
    EXPECT_EQ(run("grab --once --snapshot '" + (dir / "a.gif") + "'").status, 2);
    EXPECT_EQ(run("grab --once --snapshot a.png --dpi 300").status, 2);
    EXPECT_FALSE(std::filesystem::exists(dir / "a.h264"));
}

}  // namespace
}  // namespace lumetra
