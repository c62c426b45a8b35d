// lumetra-cli convert end to end: PGM and PPM files written byte by byte here, the real tool, and
// OpenCV to read back what it wrote.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>
#include "support/tool_run.h"

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace {

using lumetra::test::ToolRun;

class ConvertTool : public testing::Test {
  protected:
    std::filesystem::path dir;

    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              ("lumetra-convert-" + std::to_string(getpid()) + "-" +
               testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }

    std::string path(const std::string& name) const { return (dir / name).string(); }

    // Binary PGM (one channel) or PPM (three, R G B in the file), 16-bit samples big-endian.
    std::string writeNetpbm(const std::string& name, const cv::Mat& image, int maxValue) {
        std::ofstream f(path(name), std::ios::binary);
        f << (image.channels() == 1 ? "P5" : "P6") << "\n"
          << image.cols << " " << image.rows << "\n"
          << maxValue << "\n";
        for (int r = 0; r < image.rows; ++r) {
            for (int c = 0; c < image.cols; ++c) {
                for (int k = 0; k < image.channels(); ++k) {
                    const int channel = image.channels() == 1 ? 0 : 2 - k;  // RGB in the file
                    if (image.depth() == CV_8U) {
                        f.put(static_cast<char>(
                            image.ptr<uint8_t>(r)[c * image.channels() + channel]));
                    } else {
                        const uint16_t v = image.ptr<uint16_t>(r)[c * image.channels() + channel];
                        f.put(static_cast<char>(v >> 8));
                        f.put(static_cast<char>(v & 0xFF));
                    }
                }
            }
        }
        return path(name);
    }

    ToolRun run(const std::string& args) { return lumetra::test::RunTool(LUMETRA_CLI, dir, args); }

    cv::Mat read(const std::string& name) const {
        return cv::imread(path(name), cv::IMREAD_UNCHANGED);
    }
};

cv::Mat Random(int rows, int cols, int type, int limit, int seed) {
    cv::Mat m(rows, cols, type);
    cv::RNG(seed).fill(m, cv::RNG::UNIFORM, 0, limit);
    return m;
}

bool Same(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

TEST_F(ConvertTool, BayerPatternsDemosaicByTheirNames) {
    const cv::Mat raw = Random(7, 9, CV_8UC1, 256, 1);
    const std::string in = writeNetpbm("raw.pgm", raw, 255);
    // The sensor order the user names, and OpenCV's name for it.
    const std::pair<const char*, int> patterns[] = {{"BGGR", cv::COLOR_BayerRG2BGR},
                                                    {"RGGB", cv::COLOR_BayerBG2BGR},
                                                    {"gbrg", cv::COLOR_BayerGR2BGR},
                                                    {"4", cv::COLOR_BayerGB2BGR}};
    for (const auto& [name, code] : patterns) {
        const ToolRun r =
            run("convert " + in + " " + path("colour.ppm") + " --mode 0 --bayer " + name);
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, path("colour.ppm") + ": 9 x 7, 3 channels of 8 bits\n");
        cv::Mat expected;
        cv::cvtColor(raw, expected, code);
        EXPECT_TRUE(Same(read("colour.ppm"), expected)) << name;
    }
    const ToolRun green = run("convert " + in + " " + path("green.pgm") + " --mode 2 --bayer GRBG");
    ASSERT_EQ(green.status, 0) << green.err;
    cv::Mat colour;
    cv::cvtColor(raw, colour, cv::COLOR_BayerGB2BGR);
    cv::Mat plane;
    cv::extractChannel(colour, plane, 1);
    EXPECT_TRUE(Same(read("green.pgm"), plane));
}

TEST_F(ConvertTool, SixteenBitPhasePlaneBySampleMapping) {
    const cv::Mat raw = Random(5, 6, CV_16UC1, 4096, 2);  // 12-bit data
    const std::string in = writeNetpbm("raw.pgm", raw, 4095);
    auto plane = [&](int shiftLeft) {
        cv::Mat p(2, 3, CV_16UC1);
        for (int r = 0; r < 2; ++r) {
            for (int c = 0; c < 3; ++c) {
                p.at<uint16_t>(r, c) =
                    static_cast<uint16_t>(raw.at<uint16_t>(2 * r + 1, 2 * c) << shiftLeft);
            }
        }
        return p;
    };

    ToolRun r = run("convert " + in + " " + path("as-is.pgm") + " --mode 7");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(Same(read("as-is.pgm"), plane(0)));

    r = run("convert " + in + " " + path("adaptive.pgm") + " --mode 7 --bits 12 --adaptive");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(Same(read("adaptive.pgm"), plane(4)));

    r = run("convert " + in + " " + path("eight.pgm") + " --mode 7 --bits 12 --shift 4");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, path("eight.pgm") + ": 3 x 2, 1 channel of 8 bits\n");
    cv::Mat truncated(2, 3, CV_8UC1);
    for (int i = 0; i < 6; ++i) {
        truncated.at<uint8_t>(i / 3, i % 3) =
            static_cast<uint8_t>(plane(0).at<uint16_t>(i / 3, i % 3) >> 4);
    }
    EXPECT_TRUE(Same(read("eight.pgm"), truncated));

    // 12-bit data offer the shifts 0 to 4 only.
    r = run("convert " + in + " " + path("bad.pgm") + " --mode 7 --bits 12 --shift 5");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "lumetra-cli convert: shift 5 is out of range (0 to 4)\n");
    EXPECT_FALSE(std::filesystem::exists(path("bad.pgm")));
}

TEST_F(ConvertTool, ColourFilesAndJson) {
    const cv::Mat bgr = Random(4, 5, CV_8UC3, 256, 3);
    const std::string in = writeNetpbm("colour.ppm", bgr, 255);
    const ToolRun r = run("--json convert " + in + " " + path("ycrcb.ppm") + " --mode 9");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("\"ok\": true"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"channels\": 3"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"mode\": 9"), std::string::npos) << r.out;
    cv::Mat expected;
    cv::cvtColor(bgr, expected, cv::COLOR_BGR2YCrCb);
    EXPECT_TRUE(Same(read("ycrcb.ppm"), expected));

    // Without a mode the image is written as read, here as PNG.
    const ToolRun plain = run("convert " + in + " " + path("copy.png"));
    ASSERT_EQ(plain.status, 0) << plain.err;
    EXPECT_TRUE(Same(read("copy.png"), bgr));
}

TEST_F(ConvertTool, BadInputIsRefusedWithAReason) {
    const std::string grey = writeNetpbm("grey.pgm", Random(4, 4, CV_8UC1, 256, 4), 255);
    const std::string colour = writeNetpbm("colour.ppm", Random(4, 4, CV_8UC3, 256, 5), 255);
    { std::ofstream(path("text.pgm")) << "not an image\n"; }
    const std::string out = path("out.pgm");
    const struct {
        std::string args;
        int status;
        std::string error;
    } cases[] = {
        {"convert " + path("missing.pgm") + " " + out, 1,
         "cannot read " + path("missing.pgm") + ": no such file"},
        {"convert " + path("text.pgm") + " " + out + " --mode 0", 1,
         "cannot read " + path("text.pgm") +
             ": not an image file this tool reads (PGM, PPM, PNG, ...)"},
        {"convert " + grey + " " + out + " --mode 14", 2,
         "--mode must be a display mode from 0 to 13, not 14"},
        {"convert " + colour + " " + out + " --mode 5", 1,
         "mode 5 (Channel0) is a Bayer phase plane: it needs a one-channel image; this one has 3 "
         "channels"},
        {"convert " + colour + " " + out + " --mode 0 --bayer RGGB", 1,
         "a Bayer pattern needs a one-channel image; this one has 3 channels"},
        {"convert " + grey + " " + out + " --mode 0 --bayer RGBG", 2,
         "--bayer must be BGGR, RGGB, GBRG, GRBG or 0 to 4, not 'RGBG'"},
        {"convert " + grey + " " + out + " --mode 0 --shift 1 --adaptive", 2,
         "give --shift S or --adaptive, not both"},
        {"convert " + grey + " " + out + " --bayer RGGB", 2,
         "--bayer, --shift and --adaptive need --mode"},
        {"convert " + grey, 2, "give the input and the output file: convert IN OUT"},
        {"convert " + grey + " " + out + " --mode 0 --bits 12", 1,
         grey + " holds 8-bit samples: --bits must be 8"},
        {"convert " + grey + " " + path("out.unknown") + " --mode 0", 1,
         "cannot write " + path("out.unknown") + ": no image format has that extension"},
    };
    for (const auto& c : cases) {
        const ToolRun r = run(c.args);
        EXPECT_EQ(r.status, c.status) << c.args;
        EXPECT_EQ(r.err.substr(0, r.err.find('\n')), "lumetra-cli convert: " + c.error) << c.args;
        EXPECT_TRUE(r.out.empty()) << c.args;
    }
    EXPECT_FALSE(std::filesystem::exists(out));
}

// Raw files: samples only, 16-bit little-endian; the reader is told the layout.
TEST_F(ConvertTool, RawFilesBothWays) {
    const cv::Mat raw = Random(4, 6, CV_16UC1, 4096, 6);
    {
        std::ofstream f(path("in.raw"), std::ios::binary);
        for (int r = 0; r < raw.rows; ++r) {
            for (int c = 0; c < raw.cols; ++c) {
                const uint16_t v = raw.at<uint16_t>(r, c);
                f.put(static_cast<char>(v & 0xFF));
                f.put(static_cast<char>(v >> 8));
            }
        }
    }
    ToolRun r = run("convert " + path("in.raw") + " " + path("out.pgm") +
                    " --size 6x4 --bits 12 --mode 0 --adaptive");
    ASSERT_EQ(r.status, 0) << r.err;
    cv::Mat shifted = raw * 16;
    EXPECT_TRUE(Same(read("out.pgm"), shifted));

    r = run("convert " + path("out.pgm") + " " + path("back.raw") + " --mode 6");
    ASSERT_EQ(r.status, 0) << r.err;
    std::ifstream back(path("back.raw"), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(back), {}};
    ASSERT_EQ(bytes.size(), 3u * 2 * 2);
    const uint16_t first = shifted.at<uint16_t>(0, 1);  // Channel1: even row, odd column
    EXPECT_EQ(static_cast<unsigned char>(bytes[0]), first & 0xFF);
    EXPECT_EQ(static_cast<unsigned char>(bytes[1]), first >> 8);

    r = run("convert " + path("in.raw") + " " + path("x.pgm") + " --mode 0");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "lumetra-cli convert: a raw input file needs --size WIDTHxHEIGHT\n");
    r = run("convert " + path("in.raw") + " " + path("x.pgm") + " --size 6x4 --mode 0");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "lumetra-cli convert: " + path("in.raw") +
                         ": the size does not match: 6 x 4 x 1 channel of 8 bits needs 24 "
                         "bytes, the file has 48 bytes\n");
    r = run("convert " + path("out.pgm") + " " + path("x.pgm") + " --size 6x4");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "lumetra-cli convert: --size and --channels are for a raw input file\n");
}

// The default simulated board 0: 1920 x 1200, 8-bit mono, Bayer pattern 2 ("RGGB"). Its first
// frame after opening is the same on every run, so the raw frame of one run stands for the frame
// of the next.
TEST_F(ConvertTool, GrabbedFrameTakesTheBoardsPattern) {
    const ToolRun raw = run("convert --grab " + path("raw.pgm"));
    ASSERT_EQ(raw.status, 0) << raw.err;
    const cv::Mat frame = read("raw.pgm");
    ASSERT_EQ(frame.size(), cv::Size(1920, 1200));
    ASSERT_EQ(frame.type(), CV_8UC1);

    const ToolRun colour = run("convert --grab " + path("colour.ppm") + " --mode 0");
    ASSERT_EQ(colour.status, 0) << colour.err;
    cv::Mat expected;
    cv::cvtColor(frame, expected, cv::COLOR_BayerBG2BGR);
    EXPECT_TRUE(Same(read("colour.ppm"), expected));

    const ToolRun plane = run("convert --grab " + path("plane.pgm") + " --mode 8");
    ASSERT_EQ(plane.status, 0) << plane.err;
    cv::Mat odd(600, 960, CV_8UC1);
    for (int r = 0; r < 600; ++r) {
        for (int c = 0; c < 960; ++c) {
            odd.at<uint8_t>(r, c) = frame.at<uint8_t>(2 * r + 1, 2 * c + 1);
        }
    }
    EXPECT_TRUE(Same(read("plane.pgm"), odd));

    const ToolRun bad = run("convert --grab " + path("y.pgm") + " --mode 10");
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("mode 10 (Y) needs a colour image of three or four channels"),
              std::string::npos)
        << bad.err;
}

// Board 1 delivers 12-bit mono: drawn "Adaptive" unless told otherwise, as the view would.
TEST_F(ConvertTool, GrabbedTwelveBitFrameIsDrawnAdaptive) {
    const ToolRun r = run("--board 1 convert --grab " + path("adaptive.pgm") + " --mode 0");
    ASSERT_EQ(r.status, 0) << r.err;
    const cv::Mat image = read("adaptive.pgm");
    ASSERT_EQ(image.size(), cv::Size(2560, 2048));
    ASSERT_EQ(image.type(), CV_16UC1);
    cv::Mat low;
    cv::bitwise_and(image, cv::Scalar::all(0x000F), low);
    EXPECT_EQ(cv::countNonZero(low), 0);  // shifted left by 4
    double highest = 0;
    cv::minMaxLoc(image, nullptr, &highest);
    EXPECT_GT(highest, 4095);

    const ToolRun eight =
        run("--board 1 convert --grab " + path("eight.pgm") + " --mode 0 --shift 4");
    ASSERT_EQ(eight.status, 0) << eight.err;
    EXPECT_EQ(read("eight.pgm").type(), CV_8UC1);
    const ToolRun bad = run("--board 1 convert --grab " + path("x.pgm") + " --mode 0 --shift 5");
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("\nlumetra-cli convert: shift 5 is out of range (0 to 4)\n"),
              std::string::npos)
        << bad.err;
}

}  // namespace
