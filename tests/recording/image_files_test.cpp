// Still images: what each format keeps, TIFF tags as libtiff reads them, round trips, raw layout,
// and what bad files and failed saves do.
#include "recording/image_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
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
    EXPECT_EQ(std::tie(defaults.tiffCompression, defaults.dpiX, defaults.dpiY),
              std::tuple(TiffCompression::kNone, 96, 96));
    ASSERT_TRUE(SaveImageFile(Pattern(30, 40, CV_8UC1), dir / "a.tif", defaults, error)) << error;
    TiffTags t = ReadTags(dir / "a.tif");
    EXPECT_EQ(std::tie(t.width, t.height, t.bits, t.samples, t.extraCount),
              std::tuple(40u, 30u, 8, 1, 0));
    EXPECT_EQ(std::tie(t.compression, t.photometric, t.unit),
              std::tuple(COMPRESSION_NONE, PHOTOMETRIC_MINISBLACK, RESUNIT_INCH));
    EXPECT_EQ(std::tie(t.dpiX, t.dpiY), std::tuple(96.0f, 96.0f));

    // "TifCompression" 0 is none, anything else compresses with "TifCompressionType", which
    // falls back to LZW for a name it does not know.
    const struct {
        int compression;
        const char* type;
        uint16_t tag;
    } cases[] = {{0, "zstd", COMPRESSION_NONE}, {1, nullptr, COMPRESSION_LZW},
                 {2, "lzw", COMPRESSION_LZW},   {1, "deflate", COMPRESSION_ADOBE_DEFLATE},
                 {1, "ZSTD", COMPRESSION_ZSTD}, {1, "jpeg", COMPRESSION_LZW}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.compression) + " " + (c.type ? c.type : "(none)"));
        MemorySettings s;
        s.writeInt("StatusInfo", "TifCompression", c.compression);
        if (c.type != nullptr) {
            s.writeString("StatusInfo", "TifCompressionType", c.type);
        }
        s.writeInt("StatusInfo", "TifDpiX", 300);
        s.writeInt("StatusInfo", "TifDpiY", 150);
        ASSERT_TRUE(
            SaveImageFile(Pattern(30, 40, CV_16UC3), dir / "b.tif", ReadImageSaveOptions(s), error))
            << error;
        t = ReadTags(dir / "b.tif");
        EXPECT_EQ(std::tie(t.bits, t.samples, t.compression, t.photometric),
                  std::tuple(16, 3, c.tag, PHOTOMETRIC_RGB));
        EXPECT_EQ(t.predictor, c.tag == COMPRESSION_NONE ? PREDICTOR_NONE : PREDICTOR_HORIZONTAL);
        EXPECT_EQ(std::tie(t.dpiX, t.dpiY), std::tuple(300.0f, 150.0f));
    }
}

TEST(TiffFiles, CompressionNames) {
    const std::pair<const char*, std::optional<TiffCompression>> names[] = {
        {"none", TiffCompression::kNone},
        {"LZW", TiffCompression::kLzw},
        {"deflate", TiffCompression::kDeflate},
        {"Zstd", TiffCompression::kZstd},
        {"zip", std::nullopt},
        {"", std::nullopt}};
    for (const auto& [name, compression] : names) {
        EXPECT_EQ(TiffCompressionOf(name), compression) << name;
        if (compression) {
            EXPECT_TRUE(TiffCompressionAvailable(*compression)) << name;
            EXPECT_EQ(TiffCompressionOf(TiffCompressionName(*compression)), compression);
        }
    }
}

TEST(TiffFiles, ColourIsWrittenRedFirstAndTheFourthSampleAsAnExtraSample) {
    TempDir dir;
    std::string error;
    cv::Mat bgr(2, 2, CV_8UC3, cv::Scalar(10, 20, 30));
    ASSERT_TRUE(SaveImageFile(bgr, dir / "c.tif", {}, error)) << error;
    EXPECT_EQ(ReadTags(dir / "c.tif").firstRow, (std::vector<uint8_t>{30, 20, 10, 30, 20, 10}));

    cv::Mat bgrc(2, 2, CV_16UC4, cv::Scalar(1000, 2000, 3000, 4000));
    ASSERT_TRUE(
        SaveImageFile(bgrc, dir / "d.tif", {.tiffCompression = TiffCompression::kLzw}, error))
        << error;
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

// Every lossless format and compression, 8- and 16-bit, mono and colour: the samples come back
// exactly through this reader and through OpenCV's (libtiff and libpng underneath).
TEST(ImageRoundTrips, EveryLosslessFormatAndCompressionKeepsEverySample) {
    TempDir dir;
    const struct {
        const char* name;
        TiffCompression compression;
    } formats[] = {{"n.tif", TiffCompression::kNone},    {"l.tif", TiffCompression::kLzw},
                   {"d.tif", TiffCompression::kDeflate}, {"z.tif", TiffCompression::kZstd},
                   {"p.png", TiffCompression::kNone},    {"m.pgm", TiffCompression::kNone},
                   {"c.ppm", TiffCompression::kNone}};
    for (int type : {CV_8UC1, CV_16UC1, CV_8UC3, CV_16UC3}) {
        const cv::Mat image = Pattern(37, 53, type, type);
        for (const auto& f : formats) {
            const bool colourFile = std::string(f.name) == "c.ppm";
            const bool monoFile = std::string(f.name) == "m.pgm";
            if ((colourFile && CV_MAT_CN(type) == 1) || (monoFile && CV_MAT_CN(type) == 3)) {
                continue;
            }
            SCOPED_TRACE(std::string(f.name) + " type " + std::to_string(type));
            ExpectRoundTrip(image, dir / f.name, {.tiffCompression = f.compression});
            EXPECT_TRUE(Same(cv::imread(dir / f.name, cv::IMREAD_UNCHANGED), image));
        }
    }
    // TIFF keeps a fourth sample too.
    for (TiffCompression c : {TiffCompression::kNone, TiffCompression::kZstd}) {
        ExpectRoundTrip(Pattern(16, 24, CV_16UC4, 7), dir / "c.tif", {.tiffCompression = c});
    }
    // And raw files, with their layout.
    for (int type : {CV_8UC1, CV_16UC3}) {
        const cv::Mat image = Pattern(9, 11, type, 4);
        std::string error;
        ASSERT_TRUE(SaveImageFile(image, dir / "r.raw", {}, error)) << error;
        cv::Mat back;
        ASSERT_TRUE(LoadRawImageFile(
            dir / "r.raw", {11, 9, CV_MAT_DEPTH(type) == CV_16U ? 16 : 8, CV_MAT_CN(type)}, back,
            error))
            << error;
        EXPECT_TRUE(Same(back, image));
    }
}

// Files other programs write, here OpenCV, with their own layouts: read with the same samples.
TEST(ImageRoundTrips, FilesOpenCvWritesAreReadSampleForSample) {
    TempDir dir;
    for (int type : {CV_8UC1, CV_16UC1, CV_8UC3, CV_16UC3}) {
        const cv::Mat image = Pattern(33, 47, type, 11);
        for (const char* name : {"o.png", "o.tif", "o.pgm", "o.ppm", "o.bmp"}) {
            const std::string n = name;
            if ((n == "o.pgm" && CV_MAT_CN(type) != 1) || (n == "o.ppm" && CV_MAT_CN(type) != 3) ||
                (n == "o.bmp" && CV_MAT_DEPTH(type) != CV_8U)) {
                continue;
            }
            SCOPED_TRACE(n + " type " + std::to_string(type));
            ASSERT_TRUE(cv::imwrite(dir / name, image));
            cv::Mat back;
            std::string error;
            ASSERT_TRUE(LoadImageFile(dir / name, back, error)) << error;
            EXPECT_TRUE(Same(back, image));
        }
    }
}

// TIFF layouts this writer never makes: tiles, separate planes, white as zero, a palette.
TEST(ImageRoundTrips, TiffLayoutsOfOtherWriters) {
    TempDir dir;
    auto write = [&](const std::string& name, int width, int height, uint16_t bits,
                     uint16_t samples, uint16_t planar, uint16_t photometric, bool tiled,
                     const std::function<uint32_t(int x, int y, int s)>& value) {
        TIFF* tif = TIFFOpen((dir / name).c_str(), "w");
        ASSERT_NE(tif, nullptr);
        TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, uint32_t(width));
        TIFFSetField(tif, TIFFTAG_IMAGELENGTH, uint32_t(height));
        TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, bits);
        TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, samples);
        TIFFSetField(tif, TIFFTAG_PLANARCONFIG, planar);
        TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, photometric);
        TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
        if (photometric == PHOTOMETRIC_PALETTE) {
            std::vector<uint16_t> r(256), g(256), b(256);
            for (int i = 0; i < 256; ++i) {
                r[size_t(i)] = uint16_t(i * 257);
                g[size_t(i)] = uint16_t((255 - i) * 257);
                b[size_t(i)] = uint16_t((i / 2) * 257);
            }
            TIFFSetField(tif, TIFFTAG_COLORMAP, r.data(), g.data(), b.data());
        }
        const int planes = planar == PLANARCONFIG_SEPARATE ? samples : 1;
        const int perPixel = planes == 1 ? samples : 1;
        const size_t bytes = bits / 8;
        auto fill = [&](std::vector<uint8_t>& buffer, int x0, int y0, int w, int h, int plane) {
            buffer.assign(size_t(w) * h * perPixel * bytes, 0);
            for (int y = 0; y < h && y0 + y < height; ++y) {
                for (int x = 0; x < w && x0 + x < width; ++x) {
                    for (int k = 0; k < perPixel; ++k) {
                        const uint32_t v = value(x0 + x, y0 + y, planes == 1 ? k : plane);
                        const size_t at = ((size_t(y) * w + x) * perPixel + k) * bytes;
                        if (bytes == 2) {
                            const uint16_t word = uint16_t(v);
                            std::memcpy(&buffer[at], &word, 2);
                        } else {
                            buffer[at] = uint8_t(v);
                        }
                    }
                }
            }
        };
        std::vector<uint8_t> buffer;
        if (tiled) {
            TIFFSetField(tif, TIFFTAG_TILEWIDTH, 16u);
            TIFFSetField(tif, TIFFTAG_TILELENGTH, 16u);
            for (int p = 0; p < planes; ++p) {
                for (int y = 0; y < height; y += 16) {
                    for (int x = 0; x < width; x += 16) {
                        fill(buffer, x, y, 16, 16, p);
                        TIFFWriteTile(tif, buffer.data(), uint32_t(x), uint32_t(y), 0, uint16_t(p));
                    }
                }
            }
        } else {
            TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 7u);
            for (int p = 0; p < planes; ++p) {
                for (int y = 0; y < height; y += 7) {
                    const int rows = std::min(7, height - y);
                    fill(buffer, 0, y, width, rows, p);
                    TIFFWriteEncodedStrip(tif, TIFFComputeStrip(tif, uint32_t(y), uint16_t(p)),
                                          buffer.data(), tmsize_t(buffer.size()));
                }
            }
        }
        TIFFClose(tif);
    };
    auto expect = [&](const std::string& name, int type,
                      const std::function<uint32_t(int x, int y, int c)>& held) {
        SCOPED_TRACE(name);
        cv::Mat back;
        std::string error;
        ASSERT_TRUE(LoadImageFile(dir / name, back, error)) << error;
        ASSERT_EQ(back.type(), type);
        ASSERT_EQ(back.size(), cv::Size(37, 21));
        for (int y = 0; y < back.rows; ++y) {
            for (int x = 0; x < back.cols; ++x) {
                for (int c = 0; c < back.channels(); ++c) {
                    const uint32_t v = back.depth() == CV_16U
                                           ? back.ptr<uint16_t>(y)[x * back.channels() + c]
                                           : back.ptr<uint8_t>(y)[x * back.channels() + c];
                    ASSERT_EQ(v, held(x, y, c)) << x << "," << y << " channel " << c;
                }
            }
        }
    };
    auto rgb = [](int x, int y, int s) { return uint32_t((x * 1000 + y * 37 + s * 9000) % 65536); };
    // Files hold R, G, B; the image B, G, R.
    auto bgr = [&](int x, int y, int c) { return rgb(x, y, 2 - c); };
    write("tiled.tif", 37, 21, 16, 3, PLANARCONFIG_CONTIG, PHOTOMETRIC_RGB, true, rgb);
    expect("tiled.tif", CV_16UC3, bgr);
    auto rgb8 = [&](int x, int y, int s) { return rgb(x, y, s) & 0xFF; };
    write("planes.tif", 37, 21, 8, 3, PLANARCONFIG_SEPARATE, PHOTOMETRIC_RGB, false, rgb8);
    expect("planes.tif", CV_8UC3, [&](int x, int y, int c) { return rgb8(x, y, 2 - c); });
    write("tiledplanes.tif", 37, 21, 8, 3, PLANARCONFIG_SEPARATE, PHOTOMETRIC_RGB, true, rgb8);
    expect("tiledplanes.tif", CV_8UC3, [&](int x, int y, int c) { return rgb8(x, y, 2 - c); });
    auto grey = [](int x, int y, int) { return uint32_t((x * 7 + y * 3) % 256); };
    write("white.tif", 37, 21, 8, 1, PLANARCONFIG_CONTIG, PHOTOMETRIC_MINISWHITE, false, grey);
    expect("white.tif", CV_8UC1, [&](int x, int y, int c) { return 255 - grey(x, y, c); });
    write("palette.tif", 37, 21, 8, 1, PLANARCONFIG_CONTIG, PHOTOMETRIC_PALETTE, false, grey);
    expect("palette.tif", CV_8UC3, [&](int x, int y, int c) {
        const uint32_t i = grey(x, y, 0);
        return c == 2 ? i : c == 1 ? 255 - i : i / 2;  // B, G, R from the colour map
    });
    write("two.tif", 37, 21, 8, 2, PLANARCONFIG_CONTIG, PHOTOMETRIC_MINISBLACK, false, grey);
    cv::Mat none;
    std::string error;
    EXPECT_FALSE(LoadImageFile(dir / "two.tif", none, error));
    EXPECT_EQ(error, "unsupported channel count (2)");
}

// A picture of one strip; `raw` bytes are written as they are, as a damaged file would hold them.
void WriteOneStrip(const std::string& path, uint32_t width, uint32_t height, uint16_t bits,
                   uint16_t compression, const std::string& bytes, bool raw) {
    TIFF* tif = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(tif, nullptr);
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, bits);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, uint16_t(1));
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC,
                 bits == 1 ? PHOTOMETRIC_MINISWHITE : PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, compression);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, height);
    if (compression == COMPRESSION_JPEG) {
        TIFFSetField(tif, TIFFTAG_JPEGTABLESMODE, 0);  // the strip is a whole JPEG stream
    }
    const auto size = tmsize_t(bytes.size());
    void* data = const_cast<char*>(bytes.data());
    ASSERT_GE(
        raw ? TIFFWriteRawStrip(tif, 0, data, size) : TIFFWriteEncodedStrip(tif, 0, data, size), 0);
    TIFFClose(tif);
}

std::string RawStrip(const std::string& path) {
    TIFF* tif = TIFFOpen(path.c_str(), "r");
    std::string bytes(size_t(TIFFGetStrileByteCount(tif, 0)), '\0');
    TIFFReadRawStrip(tif, 0, bytes.data(), tmsize_t(bytes.size()));
    TIFFClose(tif);
    return bytes;
}

// Bilevel pages go through libtiff's RGBA reader. CCITT packs a blank row into a bit (G4) or a
// few bytes (RLE) and Deflate a run of zeros 1032 to 1, so a page is refused only when its strip
// cannot hold the picture at these bounds, or when the decoder finds it damaged and carries on.
TEST(TiffFiles, BilevelPagesAndStripsThatCannotHoldThePicture) {
    TempDir dir;
    // 2000 x 3000, white but for a black square at (100, 1000) .. (199, 1099).
    const int rowBytes = 250;
    std::string page(size_t(rowBytes) * 3000, '\0');
    for (int y = 1000; y < 1100; ++y) {
        for (int x = 100; x < 200; ++x) {
            page[size_t(y * rowBytes + x / 8)] |= char(0x80 >> (x % 8));
        }
    }
    for (uint16_t c : {COMPRESSION_CCITTFAX4, COMPRESSION_CCITTFAX3, COMPRESSION_CCITTRLE}) {
        SCOPED_TRACE(c);
        WriteOneStrip(dir / "page.tif", 2000, 3000, 1, c, page, false);
        cv::Mat back;
        std::string error;
        ASSERT_TRUE(LoadImageFile(dir / "page.tif", back, error)) << error;
        ASSERT_EQ(back.type(), CV_8UC1);
        ASSERT_EQ(back.size(), cv::Size(2000, 3000));
        EXPECT_EQ(back.total() - size_t(cv::countNonZero(back)), 100u * 100u);
        EXPECT_EQ(cv::countNonZero(back(cv::Rect(100, 1000, 100, 100))), 0);
        EXPECT_EQ(back.at<uint8_t>(999, 100), 255);
    }
    const cv::Mat zeros(4096, 4096, CV_8UC1, cv::Scalar(0));
    const std::string zeroBytes(zeros.total(), '\0');
    WriteOneStrip(dir / "zeros.tif", 4096, 4096, 8, COMPRESSION_ADOBE_DEFLATE, zeroBytes, false);
    const size_t packed = RawStrip(dir / "zeros.tif").size();
    EXPECT_LT(packed, zeroBytes.size() / 950);  // close to the bound, and still read
    cv::Mat back;
    std::string error;
    ASSERT_TRUE(LoadImageFile(dir / "zeros.tif", back, error)) << error;
    EXPECT_TRUE(Same(back, zeros));

    // Random bits: a G4 strip far longer than a bit a row, to damage in two ways.
    std::string noise(size_t(64) * 512, '\0');
    cv::Mat noiseView(512, 64, CV_8UC1, noise.data());
    cv::RNG(7).fill(noiseView, cv::RNG::UNIFORM, 0, 256);
    WriteOneStrip(dir / "noise.tif", 512, 512, 1, COMPRESSION_CCITTFAX4, noise, false);
    const std::string strip = RawStrip(dir / "noise.tif");
    ASSERT_GT(strip.size(), 2000u);
    WriteOneStrip(dir / "noise.tif", 512, 64, 8, COMPRESSION_JPEG, noise.substr(0, 512 * 64),
                  false);
    const std::string jpeg = RawStrip(dir / "noise.tif");
    std::string flipped = strip;
    for (size_t i = strip.size() / 2; i < strip.size() / 2 + 64; ++i) {
        flipped[i] = char(flipped[i] ^ 0x5A);
    }
    const struct {
        const char* name;
        uint32_t width, height;
        uint16_t bits, compression;
        std::string bytes;
        std::string reason;  // after "the file is damaged or truncated ("
    } bad[] = {
        // A 359-byte file claiming 23312 x 16391 (found by fuzzing: it was decoded, padded, in
        // 1.9 GB).
        {"rle.tif", 23312, 16391, 1, COMPRESSION_CCITTRLE, std::string(351, '\x5A'),
         "351 bytes of strips for a 23312 x 16391 picture)"},
        {"g4.tif", 512, 20000, 1, COMPRESSION_CCITTFAX4, std::string(2499, '\0'),
         "2499 bytes of strips for a 512 x 20000 picture)"},
        {"deflate.tif", 10000, 10000, 8, COMPRESSION_ADOBE_DEFLATE, std::string(96899, '\0'),
         "96899 bytes of strips for a 10000 x 10000 picture)"},
        {"lzw.tif", 4096, 4096, 16, COMPRESSION_LZW, std::string(8191, '\0'),
         "8191 bytes of strips for a 4096 x 4096 picture)"},
        // libtiff counts an uncompressed strip to the end of the file, the directory too.
        {"none.tif", 1000, 1000, 8, COMPRESSION_NONE, std::string(5000, '\0'),
         " bytes of strips for a 1000 x 1000 picture)"},
        {"cut.tif", 512, 512, 1, COMPRESSION_CCITTFAX4, strip.substr(0, strip.size() / 2),
         "Fax4Decode: "},  // libtiff's own words
        {"flipped.tif", 512, 512, 1, COMPRESSION_CCITTFAX4, flipped, "Fax4Decode: "},
        // libjpeg only warns, and pads the picture with grey.
        {"cut-jpeg.tif", 512, 64, 8, COMPRESSION_JPEG, jpeg.substr(0, jpeg.size() / 2),
         "Premature end of JPEG"},
    };
    for (const auto& b : bad) {
        WriteOneStrip(dir / b.name, b.width, b.height, b.bits, b.compression, b.bytes, true);
        cv::Mat none;
        EXPECT_FALSE(LoadImageFile(dir / b.name, none, error)) << b.name;
        EXPECT_EQ(error.rfind("the file is damaged or truncated (", 0), 0u)
            << b.name << ": " << error;
        EXPECT_NE(error.find(b.reason), std::string::npos) << b.name << ": " << error;
        EXPECT_TRUE(none.empty()) << b.name;
    }
    // One byte more than the bounds is enough to try: the uncompressed strip is read.
    WriteOneStrip(dir / "full.tif", 100, 100, 8, COMPRESSION_NONE, std::string(10000, '\7'), true);
    ASSERT_TRUE(LoadImageFile(dir / "full.tif", back, error)) << error;
    EXPECT_EQ(cv::countNonZero(back == 7), 100 * 100);
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
    const ImageSaveOptions o{.tiffCompression = TiffCompression::kLzw, .dpiX = 200, .dpiY = 100};
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
    std::vector<uint8_t> grey;
    cv::imencode(".pgm", Pattern(64, 64, CV_16UC1), grey);
    // Each file with the words its message must hold; the last one is never written.
    const std::tuple<std::string, std::string, std::string> bad[] = {
        {"trunc.png", half(encoded(".png")), "the file is damaged or truncated ("},
        {"trunc.jpg", half(encoded(".jpg")),
         "the JPEG data are damaged or truncated (Premature end of JPEG file)"},
        {"trunc.bmp", half(encoded(".bmp")), "the file is damaged or truncated ("},
        {"trunc.tif", half(ReadFile(dir / "good.tif")), "the file is damaged or truncated"},
        {"trunc.pgm", half(std::string(grey.begin(), grey.end())), " of 8192 bytes of samples)"},
        // A dozen bytes claiming 2.6 GB of text samples (found by fuzzing: it used to abort).
        {"claims.ppm", "P3\n 16614\r52614\r5\x0f", "(too little text for 2622386988 samples)"},
        {"header.pgm", "P5\nthis is not a picture", "the file is damaged (not a PGM header)"},
        {"text.png", "this is not an image at all", "unsupported image format"},
        {"empty.bmp", "", "the file is empty"},
        {"damaged.png", damaged, "the file is damaged or truncated ("},
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
    // The libraries' own messages go to the debug output: nothing reaches standard error.
    std::fflush(stderr);
    const int savedStderr = ::dup(STDERR_FILENO);
    const std::string chatter = dir / "stderr.txt";
    const int capture = ::open(chatter.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(capture, STDERR_FILENO);
    std::map<std::string, std::string> errors;
    for (const auto& [name, bytes, words] : bad) {
        if (name != "missing.png") {
            WriteFile(dir / name, bytes);
        }
        cv::Mat loaded;
        EXPECT_FALSE(LoadImageFile(dir / name, loaded, errors[name])) << name;
        EXPECT_FALSE(OpenImageIntoFrame(frame, dir / name, log, &sink)) << name;
    }
    std::fflush(stderr);
    ::dup2(savedStderr, STDERR_FILENO);
    ::close(savedStderr);
    ::close(capture);
    if (std::getenv("LUMETRA_DEBUG") == nullptr) {
        EXPECT_EQ(ReadFile(chatter), "");
    }
    for (const auto& [name, bytes, words] : bad) {
        EXPECT_NE(errors[name].find(words), std::string::npos) << name << ": " << errors[name];
    }
    EXPECT_EQ(frame.format().width, 32);
    EXPECT_EQ(frame.format().bitsPerPixel, 16);
    EXPECT_TRUE(Same(frame.raw().mat(), before));
    EXPECT_TRUE(sink.posted().empty());
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), std::size(bad));
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

// A staged file waits beside its name: the old file stays until Commit; dropped, it leaves
// nothing behind.
TEST(StagedFiles, TheTargetChangesOnlyOnCommit) {
    TempDir dir;
    WriteFile(dir / "a.png", "old");
    std::string error;
    {
        StagedImageFile staged;
        ASSERT_TRUE(StageImageFile(Pattern(4, 4, CV_8UC1), dir / "a.png", {}, staged, error));
        EXPECT_TRUE(staged.pending());
        EXPECT_EQ(ReadFile(dir / "a.png"), "old");
        EXPECT_EQ(dir.entries(), 2);
    }
    EXPECT_EQ(ReadFile(dir / "a.png"), "old");
    EXPECT_EQ(dir.entries(), 1);
    StagedImageFile staged;
    ASSERT_TRUE(StageImageFile(Pattern(4, 4, CV_8UC1), dir / "a.png", {}, staged, error));
    StagedImageFile moved = std::move(staged);
    EXPECT_FALSE(staged.pending());
    ASSERT_TRUE(moved.Commit(error)) << error;
    EXPECT_FALSE(moved.pending());
    cv::Mat back;
    ASSERT_TRUE(LoadImageFile(dir / "a.png", back, error)) << error;
    EXPECT_TRUE(Same(back, Pattern(4, 4, CV_8UC1)));
    EXPECT_EQ(dir.entries(), 1);
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
    EXPECT_FALSE(SaveImageFile(Pattern(4, 4, CV_8UC3), dir / "a.pgm", {}, error));
    EXPECT_EQ(error, "a PGM file holds one channel; this image has 3");
    EXPECT_FALSE(SaveImageFile(Pattern(4, 4, CV_8UC1), dir / "a.ppm", {}, error));
    EXPECT_EQ(error, "a PPM file holds colour; this image has 1 channel");
    EXPECT_FALSE(SaveImageFile(Pattern(4, 4, CV_8UC1), dir / "none/a.png", {}, error));
    EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

}  // namespace
}  // namespace lumetra
