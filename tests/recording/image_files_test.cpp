// Still images: what each format keeps, TIFF tags as libtiff reads them, round trips, raw layout,
// and what bad files and failed saves do.
#include "recording/image_files.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <map>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <tuple>

#include "recording/recording_settings.h"
#include "test_support.h"

namespace lumetra {
namespace {

using test::ReadTags;
using test::TempDir;
using test::TiffTags;

cv::Mat Pattern(int rows, int cols, int type, int seed = 1) {
    cv::Mat m(rows, cols, type);
    cv::RNG rng(seed);
    rng.fill(m, cv::RNG::UNIFORM, 0, CV_MAT_DEPTH(type) == CV_16U ? 4096 : 256);
    return m;
}

bool Same(const cv::Mat& a, const cv::Mat& b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// Saves, loads back and expects the very same samples.
void ExpectRoundTrip(const cv::Mat& image, const std::string& path,
                     const ImageSaveOptions& options = {}) {
    SCOPED_TRACE(path);
    std::string error;
    ASSERT_TRUE(SaveImageFile(image, path, options, error)) << error;
    cv::Mat back;
    ASSERT_TRUE(LoadImageFile(path, back, error)) << error;
    EXPECT_TRUE(Same(image, back)) << "type " << image.type();
}

TEST(ImageFileTypes, OnlyTheLastNameCountsInAnyCase) {
    EXPECT_EQ(ImageFileTypeOf("/x/a.JPG"), ImageFileType::kJpeg);
    EXPECT_EQ(ImageFileTypeOf("a.tar.TIFF"), ImageFileType::kTiff);
    EXPECT_EQ(ImageFileTypeOf("dir.png/name"), ImageFileType::kUnknown);
    EXPECT_EQ(ImageFileTypeOf("a.gif"), ImageFileType::kUnknown);
}

TEST(TiffFiles, TagsFollowTheSettings) {
    TempDir dir;
    std::string error;
    MemorySettings settings;
    const ImageSaveOptions defaults = ReadImageSaveOptions(settings);
    EXPECT_EQ(std::tie(defaults.lzw, defaults.dpiX, defaults.dpiY), std::tuple(false, 96, 96));
    ASSERT_TRUE(SaveImageFile(Pattern(30, 40, CV_8UC1), dir / "a.tif", defaults, error)) << error;
    TiffTags t = ReadTags(dir / "a.tif");
    EXPECT_EQ(std::tie(t.width, t.height, t.bits, t.samples, t.extraCount),
              std::tuple(40u, 30u, 8, 1, 0));
    EXPECT_EQ(std::tie(t.compression, t.photometric, t.unit),
              std::tuple(COMPRESSION_NONE, PHOTOMETRIC_MINISBLACK, RESUNIT_INCH));
    EXPECT_EQ(std::tie(t.dpiX, t.dpiY), std::tuple(96.0f, 96.0f));

    settings.writeInt("StatusInfo", "TifCompression", 1);
    settings.writeInt("StatusInfo", "TifDpiX", 300);
    settings.writeInt("StatusInfo", "TifDpiY", 150);
    ASSERT_TRUE(SaveImageFile(Pattern(30, 40, CV_16UC3), dir / "b.tif",
                              ReadImageSaveOptions(settings), error))
        << error;
    t = ReadTags(dir / "b.tif");
    EXPECT_EQ(std::tie(t.bits, t.samples, t.compression, t.photometric),
              std::tuple(16, 3, COMPRESSION_LZW, PHOTOMETRIC_RGB));
    EXPECT_EQ(std::tie(t.dpiX, t.dpiY), std::tuple(300.0f, 150.0f));
}

TEST(TiffFiles, ColourIsWrittenRedFirstAndTheFourthSampleAsAnExtraSample) {
    TempDir dir;
    std::string error;
    cv::Mat bgr(2, 2, CV_8UC3, cv::Scalar(10, 20, 30));
    ASSERT_TRUE(SaveImageFile(bgr, dir / "c.tif", {}, error)) << error;
    EXPECT_EQ(ReadTags(dir / "c.tif").firstRow, (std::vector<uint8_t>{30, 20, 10, 30, 20, 10}));

    cv::Mat bgrc(2, 2, CV_16UC4, cv::Scalar(1000, 2000, 3000, 4000));
    ASSERT_TRUE(SaveImageFile(bgrc, dir / "d.tif", {.lzw = true}, error)) << error;
    const TiffTags t = ReadTags(dir / "d.tif");
    EXPECT_EQ(std::tie(t.samples, t.bits, t.extraCount, t.extraType),
              std::tuple(4, 16, 1, EXTRASAMPLE_UNSPECIFIED));
    ASSERT_EQ(t.firstRow.size(), 16u);
    std::vector<uint16_t> words(8);
    std::memcpy(words.data(), t.firstRow.data(), 16);
    EXPECT_EQ(words, (std::vector<uint16_t>{3000, 2000, 1000, 4000, 3000, 2000, 1000, 4000}));
    // And the source image was not touched by the swap or the predictor.
    EXPECT_EQ(bgrc.at<cv::Vec4w>(0, 0), cv::Vec4w(1000, 2000, 3000, 4000));
}

TEST(ImageRoundTrips, PngAndTiffKeepEverySample) {
    TempDir dir;
    for (int type : {CV_16UC1, CV_16UC3, CV_8UC1, CV_8UC3}) {
        const cv::Mat image = Pattern(37, 53, type, type);
        ExpectRoundTrip(image, dir / "r.png");
        ExpectRoundTrip(image, dir / "r.tif");
        ExpectRoundTrip(image, dir / "l.tif", {.lzw = true});
    }
    // TIFF keeps a fourth sample too.
    ExpectRoundTrip(Pattern(16, 24, CV_16UC4, 7), dir / "c.tif");
}

TEST(ImageRoundTrips, BmpAndJpegKeepTheTopEightSignificantBits) {
    TempDir dir;
    std::string error;
    cv::Mat twelve(8, 8, CV_16UC1, cv::Scalar(0x0A5F));
    ImageSaveOptions o;
    o.significantBits = 12;
    ASSERT_TRUE(SaveImageFile(twelve, dir / "t.bmp", o, error)) << error;
    cv::Mat back;
    ASSERT_TRUE(LoadImageFile(dir / "t.bmp", back, error)) << error;
    ASSERT_EQ(back.type(), CV_8UC1);
    EXPECT_EQ(back.at<uint8_t>(3, 3), 0xA5);
    ASSERT_TRUE(SaveImageFile(twelve, dir / "t.jpg", o, error)) << error;
    ASSERT_TRUE(LoadImageFile(dir / "t.jpg", back, error)) << error;
    EXPECT_NEAR(back.at<uint8_t>(3, 3), 0xA5, 1);
    // Colour with a fourth sample: BMP keeps the colour, in order.
    cv::Mat bgrc(4, 4, CV_8UC4, cv::Scalar(10, 20, 30, 250));
    ASSERT_TRUE(SaveImageFile(bgrc, dir / "c.bmp", {}, error)) << error;
    ASSERT_TRUE(LoadImageFile(dir / "c.bmp", back, error)) << error;
    ASSERT_EQ(back.type(), CV_8UC3);
    EXPECT_EQ(back.at<cv::Vec3b>(1, 1), cv::Vec3b(10, 20, 30));
}

TEST(ImageRoundTrips, ConvertKeepsSamplesAndTakesTheTiffOptions) {
    TempDir dir;
    std::string error;
    const cv::Mat image = Pattern(12, 20, CV_16UC3, 9);
    ASSERT_TRUE(SaveImageFile(image, dir / "in.png", {}, error)) << error;
    const ImageSaveOptions o{.lzw = true, .dpiX = 200, .dpiY = 100};
    ASSERT_TRUE(ConvertImageFile(dir / "in.png", dir / "out.tif", o, error)) << error;
    const TiffTags t = ReadTags(dir / "out.tif");
    EXPECT_EQ(std::tie(t.compression, t.dpiX), std::tuple(COMPRESSION_LZW, 200.0f));
    cv::Mat back;
    ASSERT_TRUE(LoadImageFile(dir / "out.tif", back, error)) << error;
    EXPECT_TRUE(Same(image, back));
    EXPECT_FALSE(ConvertImageFile(dir / "none.png", dir / "x.tif", o, error));
    EXPECT_EQ(error.rfind(dir / "none.png", 0), 0u) << error;
    EXPECT_FALSE(ConvertImageFile(dir / "in.png", dir / "x.gif", o, error));
    EXPECT_EQ(error.rfind(dir / "x.gif", 0), 0u) << error;
}

TEST(RawFiles, SamplesAsHeldLittleEndianWithoutHeaderAndSizesChecked) {
    TempDir dir;
    std::string error;
    cv::Mat image(2, 3, CV_16UC3);
    for (int i = 0; i < 18; ++i) {
        image.ptr<uint16_t>()[i] = static_cast<uint16_t>(0x0100 * i + 0x0A);
    }
    ASSERT_TRUE(SaveImageFile(image, dir / "a.raw", {}, error)) << error;
    const std::string bytes = ReadFile(dir / "a.raw");
    ASSERT_EQ(bytes.size(), 2u * 3 * 3 * 2);
    EXPECT_EQ(bytes.substr(0, 4), std::string("\x0A\x00\x0A\x01", 4));  // low byte first
    EXPECT_EQ(uint8_t(bytes[35]), 0x11);
    cv::Mat back;
    ASSERT_TRUE(LoadRawImageFile(dir / "a.raw", {3, 2, 12, 3}, back, error)) << error;
    EXPECT_TRUE(Same(image, back));

    // A size mismatch is refused with both sizes.
    WriteFile(dir / "b.raw", std::string(999, 'x'));
    cv::Mat none;
    EXPECT_FALSE(LoadRawImageFile(dir / "b.raw", {20, 25, 16, 1}, none, error));
    EXPECT_NE(error.find("1000 bytes"), std::string::npos) << error;
    EXPECT_NE(error.find("999 bytes"), std::string::npos) << error;
    EXPECT_NE(error.find("20 x 25 x 1 channel of 16 bits"), std::string::npos) << error;
    EXPECT_TRUE(none.empty());
    EXPECT_FALSE(LoadRawImageFile(dir / "b.raw", {20, 25, 7, 1}, none, error));
    EXPECT_EQ(error, "bits per sample must be 8 to 16");
    EXPECT_FALSE(LoadRawImageFile(dir / "b.raw", {20, 25, 8, 2}, none, error));
    EXPECT_EQ(error, "channels must be 1, 3 or 4");
}

// Damaged, truncated, empty and missing files are refused with a reason, and opening one leaves
// the frame image as it was.
TEST(BadFiles, AreRefusedWithAReasonAndLeaveTheFrameImageAsItWas) {
    TempDir dir;
    const cv::Mat image = Pattern(64, 64, CV_8UC3);
    std::string error;
    SaveImageFile(image, dir / "good.tif", {}, error);
    auto encoded = [&](const char* ext) {
        std::vector<uint8_t> b;
        cv::imencode(ext, image, b);
        return std::string(b.begin(), b.end());
    };
    auto half = [](const std::string& b) { return b.substr(0, b.size() / 2); };
    std::string damaged = encoded(".png");
    for (size_t i = 100; i < 400; ++i) {
        damaged[i] = static_cast<char>(damaged[i] ^ 0x5A);
    }
    // Each file with the words its message must hold; the last one is never written.
    const std::tuple<std::string, std::string, std::string> bad[] = {
        {"trunc.png", half(encoded(".png")), "damaged"},
        {"trunc.jpg", half(encoded(".jpg")), "damaged or truncated"},
        {"trunc.bmp", half(encoded(".bmp")), "damaged"},
        {"trunc.tif", half(ReadFile(dir / "good.tif")), "damaged"},
        {"text.png", "this is not an image at all", "unsupported"},
        {"empty.bmp", "", "empty"},
        {"damaged.png", damaged, "damaged"},
        {"missing.png", "", "No such file"}};

    FrameImage frame;
    frame.setFormat({32, 16, 16, 1, false});
    BayerSettings bayer;
    NullMessageLog quiet;
    ASSERT_TRUE(frame.Allocate(16, bayer, quiet));
    const cv::Mat before = Pattern(16, 32, CV_16UC1, 3);
    before.copyTo(frame.raw().mat());
    test::RecordingLog log;
    test::RecordingSink sink;
    for (const auto& [name, bytes, words] : bad) {
        if (name != "missing.png") {
            WriteFile(dir / name, bytes);
        }
        cv::Mat loaded;
        EXPECT_FALSE(LoadImageFile(dir / name, loaded, error)) << name;
        EXPECT_NE(error.find(words), std::string::npos) << name << ": " << error;
        EXPECT_FALSE(OpenImageIntoFrame(frame, dir / name, log, &sink)) << name;
    }
    EXPECT_EQ(frame.format().width, 32);
    EXPECT_EQ(frame.format().bitsPerPixel, 16);
    EXPECT_TRUE(Same(frame.raw().mat(), before));
    EXPECT_TRUE(sink.posted().empty());
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[0].rfind("Open image fail: " + (dir / "trunc.png") + ": ", 0), 0u) << lines[0];
    EXPECT_EQ(lines[0].back(), '\n');

    // A raw import of the wrong size is refused the same way.
    WriteFile(dir / "small.raw", std::string(100, 'x'));
    EXPECT_FALSE(ImportRawIntoFrame(frame, dir / "small.raw", {10, 10, 12, 1}, log, &sink));
    EXPECT_NE(log.lines().back().find("needs 200 bytes, the file has 100 bytes"),
              std::string::npos);
    EXPECT_TRUE(Same(frame.raw().mat(), before));
}

TEST(OpenImage, TheFrameImageAdoptsTheFilesShape) {
    TempDir dir;
    std::string error;
    const cv::Mat image = Pattern(21, 34, CV_16UC3, 5);
    ASSERT_TRUE(SaveImageFile(image, dir / "a.png", {}, error)) << error;
    FrameImage frame;
    test::RecordingLog log;
    test::RecordingSink sink;
    ASSERT_TRUE(OpenImageIntoFrame(frame, dir / "a.png", log, &sink));
    const FrameFormat& f = frame.format();
    EXPECT_EQ(std::tie(f.width, f.height, f.channels, f.bitsPerPixel), std::tuple(34, 21, 3, 48));
    EXPECT_EQ(frame.raw().depth(), 16);
    EXPECT_TRUE(Same(frame.raw().mat(), image));
    EXPECT_EQ(sink.posted(),
              (std::vector<test::Posted>{{msg::kFrameSize, 0, 0}, {msg::kPaint, 0, 0}}));
    EXPECT_TRUE(log.lines().empty());

    // A 12-bit raw import: 16-bit words, 12 bits per sample, the high-bit display flag.
    const cv::Mat mono = Pattern(10, 12, CV_16UC1, 6);
    ASSERT_TRUE(SaveImageFile(mono, dir / "m.raw", {}, error)) << error;
    ASSERT_TRUE(ImportRawIntoFrame(frame, dir / "m.raw", {12, 10, 12, 1}, log, &sink));
    EXPECT_EQ(std::tie(f.bitsPerPixel, f.channels), std::tuple(12, 1));
    EXPECT_TRUE(frame.highBit());
    EXPECT_TRUE(Same(frame.raw().mat(), mono));

    FrameSnapshot snapshot;
    ASSERT_TRUE(SnapshotFrame(frame, snapshot));
    EXPECT_EQ(snapshot.bitsPerSample, 12);
    EXPECT_TRUE(Same(snapshot.pixels, mono));
}

TEST(FailedSaves, FullDiskGivesTheReasonAndLeavesTheDeviceAlone) {
    TempDir dir;
    // Names that lead to /dev/full: a device is written in place, never replaced by a file.
    for (const char* name : {"full.png", "full.tif", "full.raw", "full.jpg"}) {
        std::filesystem::create_symlink("/dev/full", dir / name);
        std::string error;
        EXPECT_FALSE(SaveImageFile(Pattern(256, 256, CV_16UC1), dir / name, {}, error)) << name;
        EXPECT_NE(error.find("No space left on device"), std::string::npos)
            << name << ": " << error;
        EXPECT_TRUE(std::filesystem::is_symlink(dir / name));
    }
    struct stat st {};
    ASSERT_EQ(stat("/dev/full", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    std::string error;
    EXPECT_FALSE(SaveImageFile(Pattern(4, 4, CV_8UC1), "/dev/full", {}, error));
    EXPECT_NE(error.find("unknown image file extension"), std::string::npos);
}

TEST(FailedSaves, AnEarlierFileSurvivesAWriteThatRunsOutOfRoom) {
    TempDir dir;
    std::map<std::string, std::string> before;
    for (const char* name : {"keep.tif", "keep.png", "keep.raw", "keep.bmp"}) {
        std::string error;
        ASSERT_TRUE(SaveImageFile(Pattern(8, 8, CV_8UC1, 1), dir / name, {}, error)) << error;
        before[name] = ReadFile(dir / name);
    }
    // Files may grow to 64 KiB only: the large image's write fails part-way.
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, SIG_IGN);
    rlimit small64k = old;
    small64k.rlim_cur = 64 << 10;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small64k), 0);
    const cv::Mat large = Pattern(512, 512, CV_16UC3, 2);
    std::map<std::string, std::string> errors;
    for (const auto& [name, bytes] : before) {
        EXPECT_FALSE(SaveImageFile(large, dir / name, {}, errors[name])) << name;
    }
    setrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, SIG_DFL);

    for (const auto& [name, bytes] : before) {
        EXPECT_EQ(ReadFile(dir / name), bytes) << name;
    }
    EXPECT_NE(errors["keep.raw"].find("cannot write the file (File too large)"), std::string::npos)
        << errors["keep.raw"];
    EXPECT_EQ(dir.entries(), 4);  // no temporary file is left behind
}

TEST(FailedSaves, BadInputIsRefusedBeforeAnyFileIsMade) {
    TempDir dir;
    std::string error;
    EXPECT_FALSE(SaveImageFile(cv::Mat(), dir / "a.png", {}, error));
    EXPECT_EQ(error, "there is no image");
    EXPECT_FALSE(SaveImageFile(cv::Mat(4, 4, CV_32FC1), dir / "a.png", {}, error));
    EXPECT_EQ(error, "samples must have 8 or 16 bits");
    EXPECT_FALSE(SaveImageFile(cv::Mat(4, 4, CV_8UC2), dir / "a.png", {}, error));
    EXPECT_FALSE(SaveImageFile(Pattern(4, 4, CV_8UC1), dir / "a.gif", {}, error));
    EXPECT_FALSE(SaveImageFile(Pattern(4, 4, CV_8UC1), dir / "none/a.png", {}, error));
    EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

}  // namespace
}  // namespace lumetra
