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

// With the rate capped a failed write goes on in a new file; the frames lost with the first
// still make the command fail.
TEST_F(RecordingCli, ARecordingThatWentOnAfterAFailureStillFails) {
    std::filesystem::create_directories(dir / "config/KELM-Lumetra");
    std::ofstream(dir / "config/KELM-Lumetra/Lumetra.conf") << "[Video]\nFrameRateLimit=1\n";
    const std::string full = dir / "v.h264";
    std::filesystem::create_symlink("/dev/full", full);
    const ToolRun r = run("grab --seconds 3 --record '" + full + "' --json");
    EXPECT_EQ(r.status, 1) << r.err << r.out;
    EXPECT_NE(r.err.find("Failed to write data,  Let's save it next time"), std::string::npos)
        << r.err;
    EXPECT_EQ(test::JsonField(r.out, "failures"), "1") << r.out;
    EXPECT_TRUE(std::filesystem::is_symlink(full));
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

// Every compression by name, with the resolution: the tags say so and the samples are the
// frame's (board 1: 12-bit samples in 16-bit words).
TEST_F(RecordingCli, SequencesTakeTheCompressionAndResolutionByName) {
    const std::pair<const char*, uint16_t> choices[] = {{"none", COMPRESSION_NONE},
                                                        {"lzw", COMPRESSION_LZW},
                                                        {"deflate", COMPRESSION_ADOBE_DEFLATE},
                                                        {"zstd", COMPRESSION_ZSTD}};
    for (const auto& [name, tag] : choices) {
        SCOPED_TRACE(name);
        const std::string base = dir / (std::string(name) + "/f");
        const ToolRun r = run("--board 1 grab --save '" + base + ".tif' --count 2 --dpi 300,1000 " +
                              "--tiff-compression " + name + " --json");
        ASSERT_EQ(r.status, 0) << r.err << r.out;
        const test::TiffTags t = test::ReadTags(base + "-0002.tif");
        EXPECT_EQ(std::tie(t.width, t.bits, t.compression), std::tuple(2560u, 16, tag));
        EXPECT_EQ(std::tie(t.dpiX, t.dpiY), std::tuple(300.0f, 1000.0f));
        const cv::Mat image = cv::imread(base + "-0002.tif", cv::IMREAD_UNCHANGED);
        ASSERT_EQ(image.type(), CV_16UC1);
        double highest = 0;
        cv::minMaxLoc(image, nullptr, &highest);
        EXPECT_LE(highest, 4095);
        EXPECT_GT(highest, 0);
        EXPECT_FALSE(std::filesystem::exists(base + "-0003.tif"));
    }
}

// A file of the sequence leads to /dev/full: the sequence ends there with one line naming it and
// the frames saved, the command fails, and nothing else on the disk changes.
TEST_F(RecordingCli, AFullDiskPartWayEndsTheSequenceAndTheCommandFails) {
    std::filesystem::create_directories(dir / "seq");
    std::filesystem::create_symlink("/dev/full", dir / "seq/f-0003.tif");
    std::ofstream(dir / "seq/f-0005.tif") << "kept";
    const ToolRun r = run("grab --save '" + (dir / "seq/f.tif") + "' --count 6 --lzw --json");
    EXPECT_EQ(r.status, 1) << r.err << r.out;
    const std::string line = "Save image fail: " + (dir / "seq/f-0003.tif") +
                             ": cannot write the file (No space left on device); the sequence "
                             "ends with 2 of 6 frames saved, 0 missed\n";
    EXPECT_NE(r.err.find(line), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("Image sequence:"), std::string::npos) << "one line, not two";
    EXPECT_EQ(test::JsonField(r.out, "saved"), "2") << r.out;
    EXPECT_EQ(test::JsonField(r.out, "failed"), "1") << r.out;
    EXPECT_FALSE(cv::imread(dir / "seq/f-0002.tif", cv::IMREAD_UNCHANGED).empty());
    EXPECT_TRUE(std::filesystem::is_symlink(dir / "seq/f-0003.tif"));
    EXPECT_FALSE(std::filesystem::exists(dir / "seq/f-0004.tif"));
    std::ifstream kept(dir / "seq/f-0005.tif");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), "kept");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir / "seq"), {}), 4);
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
    EXPECT_FALSE(std::filesystem::exists(dir / "a.h264"));

    // One line each, and nothing grabbed or written.
    const std::string save = "grab --save '" + (dir / "s/f.tif") + "' --count 2 ";
    const std::pair<std::string, std::string> refused[] = {
        {save + "--tiff-compression jpeg",
         "lumetra-cli grab: --tiff-compression must be none, lzw, deflate or zstd, not 'jpeg'\n"},
        {save + "--lzw --tiff-compression zstd",
         "lumetra-cli grab: --lzw and --tiff-compression zstd contradict each other\n"},
        {save + "--dpi 95,300",
         "lumetra-cli grab: --dpi needs X,Y with whole numbers from 96 to 1000, not '95,300'\n"},
        {save + "--dpi 300,1001",
         "lumetra-cli grab: --dpi needs X,Y with whole numbers from 96 to 1000, not "
         "'300,1001'\n"},
        {"grab --once --snapshot a.png --dpi 300",
         "lumetra-cli grab: --dpi needs X,Y with whole numbers from 96 to 1000, not '300'\n"},
    };
    for (const auto& [args, text] : refused) {
        const ToolRun r = run(args);
        EXPECT_EQ(r.status, 2) << args;
        EXPECT_EQ(r.err, text) << args;
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "s"));

    // A folder no file can be made in, whoever runs the test.
    const ToolRun r = run("grab --save /proc/self/f.tif --count 2");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("Save image sequence fail: /proc/self/f.tif: the folder /proc/self "
                         "cannot be written ("),
              std::string::npos)
        << r.err;
    EXPECT_EQ(r.err.find("Start Grab"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace lumetra
