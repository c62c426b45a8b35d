// Still images: what each format keeps, TIFF tags as libtiff reads them, round trips, raw layout,
// and what bad files and failed saves do.
#include "recording/image_files.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <tiffio.h>

#include <cstring>
#include <fstream>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "recording/recording_settings.h"
#include "test_support.h"

namespace lumetra {
namespace {

using test::TempDir;

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

struct TiffTags {
    uint32_t width = 0, height = 0;
    uint16_t bits = 0, samples = 0, compression = 0, photometric = 0, unit = 0;
    float dpiX = 0, dpiY = 0;
    uint16_t extraCount = 0, extraType = 99;
    std::vector<uint8_t> firstRow;
};

TiffTags ReadTags(const std::string& path) {
    TiffTags t;
    TIFF* tif = TIFFOpen(path.c_str(), "r");
    if (tif == nullptr) {
        ADD_FAILURE() << "libtiff cannot open " << path;
        return t;
    }
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &t.width);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &t.height);
    TIFFGetField(tif, TIFFTAG_BITSPERSAMPLE, &t.bits);
    TIFFGetField(tif, TIFFTAG_SAMPLESPERPIXEL, &t.samples);
    TIFFGetField(tif, TIFFTAG_COMPRESSION, &t.compression);
    TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &t.photometric);
    TIFFGetField(tif, TIFFTAG_XRESOLUTION, &t.dpiX);
    TIFFGetField(tif, TIFFTAG_YRESOLUTION, &t.dpiY);
    TIFFGetField(tif, TIFFTAG_RESOLUTIONUNIT, &t.unit);
    uint16_t* extra = nullptr;
    if (TIFFGetField(tif, TIFFTAG_EXTRASAMPLES, &t.extraCount, &extra) == 1 && t.extraCount > 0) {
        t.extraType = extra[0];
    }
    t.firstRow.resize(TIFFScanlineSize(tif));
    TIFFReadScanline(tif, t.firstRow.data(), 0);
    TIFFClose(tif);
    return t;
}

TEST(ImageFileTypes, OnlyTheLastNameCountsInAnyCase) {
    EXPECT_EQ(ImageFileTypeOf("/x/a.JPG"), ImageFileType::kJpeg);
    EXPECT_EQ(ImageFileTypeOf("a.tar.TIFF"), ImageFileType::kTiff);
    EXPECT_EQ(ImageFileTypeOf("dir.png/name"), ImageFileType::kUnknown);
    EXPECT_EQ(ImageFileTypeOf("a.gif"), ImageFileType::kUnknown);
}

TEST(TiffFiles, TagsFollowTheOptions) {
    TempDir dir;
    std::string error;
    ImageSaveOptions plain;
    ASSERT_TRUE(SaveImageFile(Pattern(30, 40, CV_8UC1), dir / "a.tif", plain, error)) << error;
    TiffTags t = ReadTags(dir / "a.tif");
    EXPECT_EQ(t.width, 40u);
    EXPECT_EQ(t.height, 30u);
    EXPECT_EQ(t.bits, 8);
    EXPECT_EQ(t.samples, 1);
    EXPECT_EQ(t.compression, COMPRESSION_NONE);
    EXPECT_EQ(t.photometric, PHOTOMETRIC_MINISBLACK);
    EXPECT_FLOAT_EQ(t.dpiX, 96);
    EXPECT_FLOAT_EQ(t.dpiY, 96);
    EXPECT_EQ(t.unit, RESUNIT_INCH);
    EXPECT_EQ(t.extraCount, 0);

    ImageSaveOptions lzw;
    lzw.lzw = true;
    lzw.dpiX = 300;
    lzw.dpiY = 150;
    ASSERT_TRUE(SaveImageFile(Pattern(30, 40, CV_16UC3), dir / "b.tif", lzw, error)) << error;
    t = ReadTags(dir / "b.tif");
    EXPECT_EQ(t.bits, 16);
    EXPECT_EQ(t.samples, 3);
    EXPECT_EQ(t.compression, COMPRESSION_LZW);
    EXPECT_EQ(t.photometric, PHOTOMETRIC_RGB);
    EXPECT_FLOAT_EQ(t.dpiX, 300);
    EXPECT_FLOAT_EQ(t.dpiY, 150);
}

TEST(TiffFiles, SettingsChooseCompressionAndResolution) {
    MemorySettings settings;
    ImageSaveOptions o = ReadImageSaveOptions(settings);
    EXPECT_FALSE(o.lzw);
    EXPECT_EQ(o.dpiX, 96);
    EXPECT_EQ(o.dpiY, 96);
    settings.writeInt("StatusInfo", "TifCompression", 1);
    settings.writeInt("StatusInfo", "TifDpiX", 72);
    settings.writeInt("StatusInfo", "TifDpiY", 600);
    o = ReadImageSaveOptions(settings);
    EXPECT_TRUE(o.lzw);
    EXPECT_EQ(o.dpiX, 72);
    EXPECT_EQ(o.dpiY, 600);
}

TEST(TiffFiles, ColourIsWrittenRedFirstAndTheFourthSampleAsAnExtraSample) {
    TempDir dir;
    std::string error;
    cv::Mat bgr(2, 2, CV_8UC3, cv::Scalar(10, 20, 30));
    ASSERT_TRUE(SaveImageFile(bgr, dir / "c.tif", {}, error)) << error;
    TiffTags t = ReadTags(dir / "c.tif");
    ASSERT_EQ(t.firstRow.size(), 6u);
    EXPECT_EQ(t.firstRow, (std::vector<uint8_t>{30, 20, 10, 30, 20, 10}));

    cv::Mat bgrc(2, 2, CV_16UC4, cv::Scalar(1000, 2000, 3000, 4000));
    ImageSaveOptions lzw;
    lzw.lzw = true;
    ASSERT_TRUE(SaveImageFile(bgrc, dir / "d.tif", lzw, error)) << error;
    t = ReadTags(dir / "d.tif");
    EXPECT_EQ(t.samples, 4);
    EXPECT_EQ(t.bits, 16);
    EXPECT_EQ(t.extraCount, 1);
    EXPECT_EQ(t.extraType, EXTRASAMPLE_UNSPECIFIED);
    ASSERT_EQ(t.firstRow.size(), 16u);
    std::vector<uint16_t> words(8);
    std::memcpy(words.data(), t.firstRow.data(), 16);
    EXPECT_EQ(words, (std::vector<uint16_t>{3000, 2000, 1000, 4000, 3000, 2000, 1000, 4000}));
    // And the source image was not touched by the swap or the predictor.
    EXPECT_EQ(bgrc.at<cv::Vec4w>(0, 0), cv::Vec4w(1000, 2000, 3000, 4000));
}

TEST(ImageRoundTrips, SixteenBitSamplesStaySixteenBit) {
    TempDir dir;
    std::string error;
    ImageSaveOptions lzw;
    lzw.lzw = true;
    for (int type : {CV_16UC1, CV_16UC3, CV_8UC1, CV_8UC3}) {
        const cv::Mat image = Pattern(37, 53, type, type);
        for (const char* name : {"r.png", "r.tif", "l.tif"}) {
            const std::string path = dir / name;
            ASSERT_TRUE(
                SaveImageFile(image, path, name[0] == 'l' ? lzw : ImageSaveOptions{}, error))
                << error;
            cv::Mat back;
            ASSERT_TRUE(LoadImageFile(path, back, error)) << name << ": " << error;
            EXPECT_TRUE(Same(image, back)) << name << " type " << type;
        }
    }
}

TEST(ImageRoundTrips, FourChannelTiffComesBackWithItsFourthSample) {
    TempDir dir;
    std::string error;
    const cv::Mat image = Pattern(16, 24, CV_16UC4, 7);
    ASSERT_TRUE(SaveImageFile(image, dir / "c.tif", {}, error)) << error;
    cv::Mat back;
    ASSERT_TRUE(LoadImageFile(dir / "c.tif", back, error)) << error;
    EXPECT_TRUE(Same(image, back));
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
    ImageSaveOptions o;
    o.lzw = true;
    o.dpiX = 200;
    o.dpiY = 100;
    ASSERT_TRUE(ConvertImageFile(dir / "in.png", dir / "out.tif", o, error)) << error;
    const TiffTags t = ReadTags(dir / "out.tif");
    EXPECT_EQ(t.compression, COMPRESSION_LZW);
    EXPECT_FLOAT_EQ(t.dpiX, 200);
    cv::Mat back;
    ASSERT_TRUE(LoadImageFile(dir / "out.tif", back, error)) << error;
    EXPECT_TRUE(Same(image, back));
    EXPECT_FALSE(ConvertImageFile(dir / "none.png", dir / "x.tif", o, error));
    EXPECT_EQ(error.rfind(dir / "none.png", 0), 0u) << error;
    EXPECT_FALSE(ConvertImageFile(dir / "in.png", dir / "x.gif", o, error));
    EXPECT_EQ(error.rfind(dir / "x.gif", 0), 0u) << error;
}

TEST(RawFiles, SamplesAsHeldLittleEndianWithoutHeader) {
    TempDir dir;
    std::string error;
    cv::Mat image(2, 3, CV_16UC3);
    for (int i = 0; i < 18; ++i) {
        image.ptr<uint16_t>()[i] = static_cast<uint16_t>(0x0100 * i + 0x0A);
    }
    ASSERT_TRUE(SaveImageFile(image, dir / "a.raw", {}, error)) << error;
    const std::string bytes = ReadFile(dir / "a.raw");
    ASSERT_EQ(bytes.size(), 2u * 3 * 3 * 2);
    EXPECT_EQ(uint8_t(bytes[0]), 0x0A);  // low byte first
    EXPECT_EQ(uint8_t(bytes[1]), 0x00);
    EXPECT_EQ(uint8_t(bytes[2]), 0x0A);
    EXPECT_EQ(uint8_t(bytes[3]), 0x01);
    EXPECT_EQ(uint8_t(bytes[35]), 0x11);

    cv::Mat back;
    ASSERT_TRUE(LoadRawImageFile(dir / "a.raw", {3, 2, 12, 3}, back, error)) << error;
    EXPECT_TRUE(Same(image, back));
}

TEST(RawFiles, ASizeMismatchIsRefusedWithBothSizes) {
    TempDir dir;
    WriteFile(dir / "a.raw", std::string(999, 'x'));
    cv::Mat back;
    std::string error;
    EXPECT_FALSE(LoadRawImageFile(dir / "a.raw", {20, 25, 16, 1}, back, error));
    EXPECT_NE(error.find("1000 bytes"), std::string::npos) << error;
    EXPECT_NE(error.find("999 bytes"), std::string::npos) << error;
    EXPECT_NE(error.find("20 x 25 x 1 channel of 16 bits"), std::string::npos) << error;
    EXPECT_TRUE(back.empty());
    EXPECT_FALSE(LoadRawImageFile(dir / "a.raw", {20, 25, 7, 1}, back, error));
    EXPECT_EQ(error, "bits per sample must be 8 to 16");
    EXPECT_FALSE(LoadRawImageFile(dir / "a.raw", {20, 25, 8, 2}, back, error));
    EXPECT_EQ(error, "channels must be 1, 3 or 4");
}

class BadFiles : public ::testing::Test {
  protected:
    // Files that must be refused, each with the words its message must hold.
    std::vector<std::pair<std::string, std::string>> MakeBadFiles() {
        std::vector<uint8_t> png, jpg, bmp;
        const cv::Mat image = Pattern(64, 64, CV_8UC3);
        cv::imencode(".png", image, png);
        cv::imencode(".jpg", image, jpg);
        cv::imencode(".bmp", image, bmp);
        std::string error;
        SaveImageFile(image, dir / "good.tif", {}, error);
        const std::string tif = ReadFile(dir / "good.tif");
        auto half = [](const std::vector<uint8_t>& b) {
            return std::string(b.begin(), b.begin() + long(b.size() / 2));
        };
        WriteFile(dir / "trunc.png", half(png));
        WriteFile(dir / "trunc.jpg", half(jpg));
        WriteFile(dir / "trunc.bmp", half(bmp));
        WriteFile(dir / "trunc.tif", tif.substr(0, tif.size() / 2));
        WriteFile(dir / "text.png", "this is not an image at all");
        WriteFile(dir / "empty.bmp", "");
        std::string damaged(png.begin(), png.end());
        for (size_t i = 100; i < 400; ++i) {
            damaged[i] = static_cast<char>(damaged[i] ^ 0x5A);
        }
        WriteFile(dir / "damaged.png", damaged);
        return {{"trunc.png", "damaged"},    {"trunc.jpg", "damaged or truncated"},
                {"trunc.bmp", "damaged"},    {"trunc.tif", "damaged"},
                {"text.png", "unsupported"}, {"empty.bmp", "empty"},
                {"damaged.png", "damaged"},  {"missing.png", "No such file"}};
    }
    TempDir dir;
};

TEST_F(BadFiles, AreRefusedWithAReason) {
    for (const auto& [name, words] : MakeBadFiles()) {
        cv::Mat image;
        std::string error;
        EXPECT_FALSE(LoadImageFile(dir / name, image, error)) << name;
        EXPECT_NE(error.find(words), std::string::npos) << name << ": " << error;
    }
}

TEST_F(BadFiles, LeaveTheFrameImageAsItWas) {
    FrameImage frame;
    FrameFormat format{32, 16, 16, 1, false};
    frame.setFormat(format);
    BayerSettings bayer;
    NullMessageLog quiet;
    ASSERT_TRUE(frame.Allocate(16, bayer, quiet));
    cv::Mat before = Pattern(16, 32, CV_16UC1, 3);
    before.copyTo(frame.raw().mat());
    test::RecordingLog log;
    test::RecordingSink sink;
    for (const auto& [name, words] : MakeBadFiles()) {
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
    EXPECT_EQ(frame.format().width, 34);
    EXPECT_EQ(frame.format().height, 21);
    EXPECT_EQ(frame.format().channels, 3);
    EXPECT_EQ(frame.format().bitsPerPixel, 48);
    EXPECT_EQ(frame.raw().depth(), 16);
    EXPECT_TRUE(Same(frame.raw().mat(), image));
    EXPECT_EQ(sink.posted(),
              (std::vector<test::Posted>{{msg::kFrameSize, 0, 0}, {msg::kPaint, 0, 0}}));
    EXPECT_TRUE(log.lines().empty());

    // A 12-bit raw import: 16-bit words, 12 bits per sample, the high-bit display flag.
    const cv::Mat mono = Pattern(10, 12, CV_16UC1, 6);
    ASSERT_TRUE(SaveImageFile(mono, dir / "m.raw", {}, error)) << error;
    ASSERT_TRUE(ImportRawIntoFrame(frame, dir / "m.raw", {12, 10, 12, 1}, log, &sink));
    EXPECT_EQ(frame.format().bitsPerPixel, 12);
    EXPECT_EQ(frame.format().channels, 1);
    EXPECT_TRUE(frame.highBit());
    EXPECT_TRUE(Same(frame.raw().mat(), mono));

    FrameSnapshot snapshot;
    ASSERT_TRUE(SnapshotFrame(frame, snapshot));
    EXPECT_EQ(snapshot.bitsPerSample, 12);
    EXPECT_TRUE(Same(snapshot.pixels, mono));
}

class FailedSaves : public ::testing::Test {
  protected:
    TempDir dir;
};

TEST_F(FailedSaves, FullDiskGivesTheReasonAndLeavesTheDeviceAlone) {
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

TEST_F(FailedSaves, AnEarlierFileSurvivesAWriteThatRunsOutOfRoom) {
    std::string error;
    const cv::Mat small = Pattern(8, 8, CV_8UC1, 1);
    for (const char* name : {"keep.tif", "keep.png", "keep.raw", "keep.bmp"}) {
        ASSERT_TRUE(SaveImageFile(small, dir / name, {}, error)) << error;
    }
    const std::string tifBefore = ReadFile(dir / "keep.tif");
    const std::string pngBefore = ReadFile(dir / "keep.png");
    const std::string rawBefore = ReadFile(dir / "keep.raw");
    const std::string bmpBefore = ReadFile(dir / "keep.bmp");

    // Files may grow to 64 KiB only: the large image's write fails part-way.
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, SIG_IGN);
    rlimit small64k = old;
    small64k.rlim_cur = 64 << 10;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small64k), 0);
    const cv::Mat large = Pattern(512, 512, CV_16UC3, 2);
    std::vector<std::string> errors;
    for (const char* name : {"keep.tif", "keep.png", "keep.raw", "keep.bmp"}) {
        std::string e;
        EXPECT_FALSE(SaveImageFile(large, dir / name, {}, e)) << name;
        errors.push_back(e);
    }
    setrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, SIG_DFL);

    EXPECT_EQ(ReadFile(dir / "keep.tif"), tifBefore);
    EXPECT_EQ(ReadFile(dir / "keep.png"), pngBefore);
    EXPECT_EQ(ReadFile(dir / "keep.raw"), rawBefore);
    EXPECT_EQ(ReadFile(dir / "keep.bmp"), bmpBefore);
    EXPECT_NE(errors[2].find("cannot write the file (File too large)"), std::string::npos)
        << errors[2];
    // No temporary file is left behind.
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        (void)entry;
        ++files;
    }
    EXPECT_EQ(files, 4);
}

TEST_F(FailedSaves, BadInputIsRefusedBeforeAnyFileIsMade) {
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
