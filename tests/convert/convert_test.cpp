// lumetra-cli convert end to end: PGM and PPM files written byte by byte here, the real tool, and
// OpenCV to read back what it wrote.
#include <gtest/gtest.h>
#include <unistd.h>

#include <tiffio.h>
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>

#include "support/tool_run.h"

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
        cv::Mat samples = image.clone();
        if (image.channels() == 3) {
            cv::cvtColor(image, samples, cv::COLOR_BGR2RGB);
        }
        if (samples.depth() == CV_16U) {
            for (uint16_t& v : cv::Mat_<uint16_t>(samples.reshape(1))) {
                v = static_cast<uint16_t>(v << 8 | v >> 8);
            }
        }
        std::ofstream f(path(name), std::ios::binary);
        f << (image.channels() == 1 ? "P5" : "P6") << "\n"
          << image.cols << " " << image.rows << "\n"
          << maxValue << "\n";
        f.write(reinterpret_cast<const char*>(samples.data),
                long(samples.total() * samples.elemSize()));
        return path(name);
    }

    ToolRun run(const std::string& args) { return lumetra::test::RunTool(LUMETRA_CLI, dir, args); }
    // Runs a command that must succeed; returns what it printed.
    std::string ok(const std::string& args) {
        const ToolRun r = run(args);
        EXPECT_EQ(r.status, 0) << args << ": " << r.err;
        return r.out;
    }

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

// Every second sample of every second row from (row, col) on: one Bayer phase plane.
cv::Mat PhasePlane(const cv::Mat& m, int row, int col) {
    cv::Mat p(m.rows / 2, m.cols / 2, m.type());
    for (int r = 0; r < p.rows; ++r) {
        for (int c = 0; c < p.cols; ++c) {
            std::memcpy(p.ptr(r, c), m.ptr(2 * r + row, 2 * c + col), m.elemSize());
        }
    }
    return p;
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
        EXPECT_EQ(ok("convert " + in + " " + path("colour.ppm") + " --mode 0 --bayer " + name),
                  path("colour.ppm") + ": 9 x 7, 3 channels of 8 bits\n");
        cv::Mat expected;
        cv::cvtColor(raw, expected, code);
        EXPECT_TRUE(Same(read("colour.ppm"), expected)) << name;
    }
    ok("convert " + in + " " + path("green.pgm") + " --mode 2 --bayer GRBG");
    cv::Mat colour;
    cv::cvtColor(raw, colour, cv::COLOR_BayerGB2BGR);
    cv::Mat plane;
    cv::extractChannel(colour, plane, 1);
    EXPECT_TRUE(Same(read("green.pgm"), plane));
}

TEST_F(ConvertTool, SixteenBitPhasePlaneBySampleMapping) {
    const cv::Mat raw = Random(5, 6, CV_16UC1, 4096, 2);  // 12-bit data
    const std::string in = writeNetpbm("raw.pgm", raw, 4095);
    const cv::Mat plane = PhasePlane(raw, 1, 0);

    ok("convert " + in + " " + path("as-is.pgm") + " --mode 7");
    EXPECT_TRUE(Same(read("as-is.pgm"), plane));
    ok("convert " + in + " " + path("adaptive.pgm") + " --mode 7 --bits 12 --adaptive");
    EXPECT_TRUE(Same(read("adaptive.pgm"), cv::Mat(plane * 16)));
    EXPECT_EQ(ok("convert " + in + " " + path("eight.pgm") + " --mode 7 --bits 12 --shift 4"),
              path("eight.pgm") + ": 3 x 2, 1 channel of 8 bits\n");
    cv::Mat truncated;  // the low four bits dropped, not rounded
    cv::bitwise_and(plane, cv::Scalar(0xFFF0), truncated);
    truncated.convertTo(truncated, CV_8U, 1.0 / 16);
    EXPECT_TRUE(Same(read("eight.pgm"), truncated));
}

TEST_F(ConvertTool, ColourFilesAndJson) {
    const cv::Mat bgr = Random(4, 5, CV_8UC3, 256, 3);
    const std::string in = writeNetpbm("colour.ppm", bgr, 255);
    const std::string out = ok("--json convert " + in + " " + path("ycrcb.ppm") + " --mode 9");
    EXPECT_NE(out.find("\"ok\": true"), std::string::npos) << out;
    EXPECT_NE(out.find("\"channels\": 3"), std::string::npos) << out;
    EXPECT_NE(out.find("\"mode\": 9"), std::string::npos) << out;
    cv::Mat expected;
    cv::cvtColor(bgr, expected, cv::COLOR_BGR2YCrCb);
    EXPECT_TRUE(Same(read("ycrcb.ppm"), expected));

    // Without a mode the image is written as read, here as PNG.
    ok("convert " + in + " " + path("copy.png"));
    EXPECT_TRUE(Same(read("copy.png"), bgr));
}

TEST_F(ConvertTool, BadInputIsRefusedWithAReason) {
    const std::string grey = writeNetpbm("grey.pgm", Random(4, 4, CV_8UC1, 256, 4), 255);
    const std::string colour = writeNetpbm("colour.ppm", Random(4, 4, CV_8UC3, 256, 5), 255);
    const std::string twelve = writeNetpbm("twelve.pgm", Random(4, 4, CV_16UC1, 4096, 6), 4095);
    std::ofstream(path("text.pgm")) << "not an image\n";
    const std::string raw = path("in.raw");
    std::ofstream(raw) << std::string(48, 'x');
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
             ": unsupported image format (BMP, JPEG, PNG, TIFF, PGM and PPM are read)"},
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
        // 12-bit data offer the shifts 0 to 4 only.
        {"convert " + twelve + " " + out + " --mode 7 --bits 12 --shift 5", 1,
         "shift 5 is out of range (0 to 4)"},
        {"convert " + raw + " " + out + " --mode 0", 2,
         "a raw input file needs --size WIDTHxHEIGHT"},
        {"convert " + raw + " " + out + " --size 6x4 --mode 0", 1,
         raw + ": the size does not match: 6 x 4 x 1 channel of 8 bits needs 24 bytes, the file "
               "has 48 bytes"},
        {"convert " + twelve + " " + out + " --size 6x4", 2,
         "--size and --channels are for a raw input file"},
    };
    for (const auto& c : cases) {
        const ToolRun r = run(c.args);
        EXPECT_EQ(r.status, c.status) << c.args;
        EXPECT_EQ(r.err, "lumetra-cli convert: " + c.error + "\n") << c.args;
        EXPECT_TRUE(r.out.empty()) << c.args;
    }
    EXPECT_FALSE(std::filesystem::exists(out));
}

// The still-image paths' TIFF options, as grab takes them: the tags say so and the samples stay.
TEST_F(ConvertTool, TiffOutputTakesTheCompressionAndResolution) {
    const cv::Mat twelve = Random(20, 30, CV_16UC1, 4096, 8);
    const std::string in = writeNetpbm("twelve.pgm", twelve, 4095);
    const struct {
        std::string options;
        uint16_t compression;
        float dpiX, dpiY;
    } cases[] = {{"--lzw --dpi 300,200", COMPRESSION_LZW, 300, 200},
                 {"--tiff-compression deflate", COMPRESSION_ADOBE_DEFLATE, 96, 96},
                 {"--tiff-compression zstd --dpi 96,1000", COMPRESSION_ZSTD, 96, 1000},
                 {"--tiff-compression none", COMPRESSION_NONE, 96, 96},
                 {"", COMPRESSION_NONE, 96, 96}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.options);
        ok("convert " + in + " " + path("out.tif") + " " + c.options);
        TIFF* tif = TIFFOpen(path("out.tif").c_str(), "r");
        ASSERT_NE(tif, nullptr);
        uint16_t compression = 0;
        float dpiX = 0;
        float dpiY = 0;
        TIFFGetField(tif, TIFFTAG_COMPRESSION, &compression);
        TIFFGetField(tif, TIFFTAG_XRESOLUTION, &dpiX);
        TIFFGetField(tif, TIFFTAG_YRESOLUTION, &dpiY);
        TIFFClose(tif);
        EXPECT_EQ(compression, c.compression);
        EXPECT_EQ(dpiX, c.dpiX);
        EXPECT_EQ(dpiY, c.dpiY);
        EXPECT_TRUE(Same(read("out.tif"), twelve));
    }
    const std::pair<std::string, std::string> refused[] = {
        {"convert " + in + " " + path("out.png") + " --lzw",
         "--lzw, --tiff-compression and --dpi are for a TIFF output file (.tif)"},
        {"convert " + in + " " + path("x.tif") + " --dpi 1001,300",
         "--dpi needs X,Y with whole numbers from 96 to 1000, not '1001,300'"},
        {"convert " + in + " " + path("x.tif") + " --tiff-compression lzma",
         "--tiff-compression must be none, lzw, deflate or zstd, not 'lzma'"},
    };
    for (const auto& [args, error] : refused) {
        const ToolRun r = run(args);
        EXPECT_EQ(r.status, 2) << args;
        EXPECT_EQ(r.err, "lumetra-cli convert: " + error + "\n") << args;
    }
    EXPECT_FALSE(std::filesystem::exists(path("x.tif")));
}

// A damaged file is refused in one line naming it; the image libraries say more only to the
// debug output.
TEST_F(ConvertTool, ATruncatedFileIsRefusedInOneLine) {
    const cv::Mat bgr = Random(64, 64, CV_8UC3, 256, 9);
    const std::pair<const char*, std::string> files[] = {
        {".jpg", "the JPEG data are damaged or truncated (Premature end of JPEG file)"},
        {".png", "the file is damaged or truncated (the data end early)"},
        {".tif", "the file is damaged or truncated"}};
    for (const auto& [ext, reason] : files) {
        SCOPED_TRACE(ext);
        std::vector<uint8_t> bytes;
        ASSERT_TRUE(cv::imencode(ext, bgr, bytes));
        const std::string in = path(std::string("cut") + ext);
        std::ofstream(in, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), long(bytes.size() * 2 / 3));
        const ToolRun r = run("convert " + in + " " + path("out.png"));
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err.rfind("lumetra-cli convert: cannot read " + in + ": " + reason, 0), 0u)
            << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_FALSE(std::filesystem::exists(path("out.png")));
    }
    const ToolRun debug =
        lumetra::test::RunTool(std::string("LUMETRA_DEBUG=1 ") + LUMETRA_CLI, dir,
                               "convert " + path("cut.jpg") + " " + path("out.png"));
    EXPECT_NE(debug.err.find("libjpeg warning: Premature end of JPEG file"), std::string::npos)
        << debug.err;
}

// Raw files: samples only, 16-bit little-endian; the reader is told the layout.
TEST_F(ConvertTool, RawFilesBothWays) {
    static_assert(std::endian::native == std::endian::little, "raw files are written as held");
    const cv::Mat raw = Random(4, 6, CV_16UC1, 4096, 6);
    std::ofstream(path("in.raw"), std::ios::binary)
        .write(reinterpret_cast<const char*>(raw.data), long(raw.total() * 2));
    ok("convert " + path("in.raw") + " " + path("out.pgm") +
       " --size 6x4 --bits 12 --mode 0 --adaptive");
    const cv::Mat shifted = raw * 16;
    EXPECT_TRUE(Same(read("out.pgm"), shifted));

    ok("convert " + path("out.pgm") + " " + path("back.raw") + " --mode 6");
    std::ifstream back(path("back.raw"), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(back), {}};
    const cv::Mat channel1 = PhasePlane(shifted, 0, 1);  // even rows, odd columns
    ASSERT_EQ(bytes.size(), channel1.total() * 2);
    EXPECT_EQ(std::memcmp(bytes.data(), channel1.data, bytes.size()), 0);
}

// The default simulated board 0: 1920 x 1200, 8-bit mono, Bayer pattern 2 ("RGGB"). Its first
// frame after opening is the same on every run, so the raw frame of one run stands for the frame
// of the next.
TEST_F(ConvertTool, GrabbedFrameTakesTheBoardsPattern) {
    ok("convert --grab " + path("raw.pgm"));
    const cv::Mat frame = read("raw.pgm");
    ASSERT_EQ(frame.size(), cv::Size(1920, 1200));
    ASSERT_EQ(frame.type(), CV_8UC1);

    ok("convert --grab " + path("colour.ppm") + " --mode 0");
    cv::Mat expected;
    cv::cvtColor(frame, expected, cv::COLOR_BayerBG2BGR);
    EXPECT_TRUE(Same(read("colour.ppm"), expected));

    ok("convert --grab " + path("plane.pgm") + " --mode 8");
    EXPECT_TRUE(Same(read("plane.pgm"), PhasePlane(frame, 1, 1)));

    const ToolRun bad = run("convert --grab " + path("y.pgm") + " --mode 10");
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("mode 10 (Y) needs a colour image of three or four channels"),
              std::string::npos)
        << bad.err;
}

// Board 1 delivers 12-bit mono: drawn "Adaptive" unless told otherwise, as the view would.
TEST_F(ConvertTool, GrabbedTwelveBitFrameIsDrawnAdaptive) {
    ok("--board 1 convert --grab " + path("adaptive.pgm") + " --mode 0");
    const cv::Mat image = read("adaptive.pgm");
    ASSERT_EQ(image.size(), cv::Size(2560, 2048));
    ASSERT_EQ(image.type(), CV_16UC1);
    cv::Mat low;
    cv::bitwise_and(image, cv::Scalar::all(0x000F), low);
    EXPECT_EQ(cv::countNonZero(low), 0);  // shifted left by 4
    double highest = 0;
    cv::minMaxLoc(image, nullptr, &highest);
    EXPECT_GT(highest, 4095);

    ok("--board 1 convert --grab " + path("eight.pgm") + " --mode 0 --shift 4");
    EXPECT_EQ(read("eight.pgm").type(), CV_8UC1);
    const ToolRun bad = run("--board 1 convert --grab " + path("x.pgm") + " --mode 0 --shift 5");
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("\nlumetra-cli convert: shift 5 is out of range (0 to 4)\n"),
              std::string::npos)
        << bad.err;
}

}  // namespace
