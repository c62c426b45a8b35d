// lumetra-cli grab with the recording options, end to end on the simulated board.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>
#include <opencv2/imgcodecs.hpp>

#include "test_support.h"

namespace lumetra {
namespace {

struct CliRun {
    int status = -1;
    std::string out;
    std::string err;
};

class RecordingCli : public ::testing::Test {
  protected:
    CliRun run(const std::string& args, const std::string& simConfig = {}) {
        // env takes its options before the assignments.
        std::string env = "env -u LUMETRA_BOARD_LIBRARY ";
        env += simConfig.empty() ? "-u ORVIX_SIM_CONFIG " : "ORVIX_SIM_CONFIG='" + simConfig + "' ";
        env += "XDG_CONFIG_HOME='" + dir.path().string() + "/config' LUMETRA_SYSTEM_SETTINGS='" +
               dir.path().string() + "/system.ini' ";
        const std::string err = dir / "stderr.txt";
        CliRun r;
        int status = 0;
        r.out = test::RunCommand(env + LUMETRA_CLI + " " + args + " 2>'" + err + "'", &status);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        std::ifstream in(err);
        r.err.assign(std::istreambuf_iterator<char>(in), {});
        return r;
    }
    std::string write(const std::string& name, const std::string& text) {
        std::ofstream(dir / name) << text;
        return dir / name;
    }
    test::TempDir dir;
};

TEST_F(RecordingCli, RecordsTwoSecondsOfTheStreamAsH264) {
    const std::string file = dir / "out.h264";
    const CliRun r = run("grab --seconds 2 --record '" + file + "' --json");
    ASSERT_EQ(r.status, 0) << r.err << r.out;
    EXPECT_NE(r.err.find("Video saved successfully"), std::string::npos) << r.err;
    const auto probed = test::Probe(file);
    EXPECT_EQ(probed.width, 1920);
    EXPECT_EQ(probed.height, 1200);
    EXPECT_TRUE(test::IsGreyPixFmt(probed.pixFmt)) << probed.pixFmt;
    EXPECT_EQ(test::SpsValue(file, "chroma_format_idc"), 0);
    // Every frame the recorder took is in the file; at 60 frames per second for two seconds
    // that is most of the stream (recording starts once the board has measured its rate).
    const int encoded = std::stoi(test::JsonField(r.out, "framesEncoded"));
    const int grabbed = std::stoi(test::JsonField(r.out, "framesGrabbed"));
    EXPECT_EQ(probed.frames, encoded);
    EXPECT_GT(encoded, 60);
    EXPECT_LE(encoded, grabbed);
    EXPECT_EQ(test::JsonField(r.out, "result"), "0");
    // The board's measured rate, capping being off by default: above 0, never above the camera's.
    const double rate = std::stod(test::JsonField(r.out, "rate"));
    EXPECT_GT(rate, 0.0);
    EXPECT_LT(rate, 61.0);
}

TEST_F(RecordingCli, TwelveBitCoaXPressFramesAreRecordedAsGrey) {
    const std::string file = dir / "cxp.h264";
    const CliRun r = run("--board 1 grab --seconds 1 --record '" + file + "' --json");
    ASSERT_EQ(r.status, 0) << r.err << r.out;
    const auto probed = test::Probe(file);
    EXPECT_EQ(probed.width, 2560);
    EXPECT_EQ(probed.height, 2048);
    EXPECT_TRUE(test::IsGreyPixFmt(probed.pixFmt)) << probed.pixFmt;
    EXPECT_EQ(probed.frames, std::stoi(test::JsonField(r.out, "framesEncoded")));
    EXPECT_GT(probed.frames, 5);
}

TEST_F(RecordingCli, FullDiskEndsTheRecordingWithItsText) {
    const CliRun r = run("grab --seconds 1 --record /dev/full");
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("Failed to write data, Exit saving"), std::string::npos) << r.err;
}

TEST_F(RecordingCli, SavesANumberedSequenceUntilTheCount) {
    const CliRun r = run("grab --save '" + (dir / "img.png") + "' --count 4 --json");
    ASSERT_EQ(r.status, 0) << r.err << r.out;
    for (int i = 1; i <= 4; ++i) {
        const std::string name = dir / ("img-000" + std::to_string(i) + ".png");
        const cv::Mat image = cv::imread(name, cv::IMREAD_UNCHANGED);
        ASSERT_FALSE(image.empty()) << name;
        EXPECT_EQ(image.cols, 1920);
        EXPECT_EQ(image.rows, 1200);
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "img-0005.png"));
    EXPECT_NE(r.out.find("\"saved\": 4"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"requested\": 4"), std::string::npos) << r.out;
}

TEST_F(RecordingCli, SnapshotGoesThroughTheStillImagePath) {
    const std::string file = dir / "shot.tif";
    const CliRun r = run("--board 1 grab --once --snapshot '" + file + "' --lzw --dpi 300,200");
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
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()) || !std::filesystem::exists(dir / "a.h264"));
}

}  // namespace
}  // namespace lumetra
