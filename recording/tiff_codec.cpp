// TIFF with libtiff: every message goes to the debug output through the per-file handlers, so
// that nothing reaches the terminal and the first error becomes the reason.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <system_error>

#include <tiffio.h>

#include "base/debug_output.h"
#include "recording/image_codecs.h"

namespace lumetra::codecs {
namespace {

// Fast levels: a sequence has to keep up with the camera; the predictor does most of the work.
constexpr int kDeflateLevel = 1;
constexpr int kZstdLevel = 1;

std::string ErrnoText(int error) {
    return std::error_code(error, std::generic_category()).message();
}

struct TiffMessages {
    std::string error;  // the first error
    int systemError = 0;
};

std::string Format(const char* module, const char* format, va_list ap) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, ap);
    return module != nullptr && *module != '\0' ? std::string(module) + ": " + text : text;
}

int OnTiffError(TIFF*, void* user, const char* module, const char* format, va_list ap) {
    auto& messages = *static_cast<TiffMessages*>(user);
    const int systemError = errno;
    std::string text = Format(module, format, ap);
    DebugOutput("libtiff error: " + text);
    if (messages.error.empty()) {
        messages.error = std::move(text);
        messages.systemError = systemError;
    }
    return 1;  // handled: nothing goes to standard error
}

// The CCITT and JPEG decoders only warn when the data end early ("Premature EOF at line",
// "Premature end of JPEG data") and pad the missing rows; that is a truncated file, not a picture.
int OnTiffWarning(TIFF*, void* user, const char* module, const char* format, va_list ap) {
    auto& messages = *static_cast<TiffMessages*>(user);
    std::string text = Format(module, format, ap);
    DebugOutput("libtiff warning: " + text);
    if (messages.error.empty() && text.find("Premature") != std::string::npos) {
        messages.error = std::move(text);
    }
    return 1;
}

TIFFOpenOptions* QuietOptions(TiffMessages& messages) {
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    TIFFOpenOptionsSetErrorHandlerExtR(options, OnTiffError, &messages);
    TIFFOpenOptionsSetWarningHandlerExtR(options, OnTiffWarning, &messages);
    return options;
}

uint16_t CodecOf(TiffCompression c) {
    switch (c) {
        case TiffCompression::kLzw:
            return COMPRESSION_LZW;
        case TiffCompression::kDeflate:
            return COMPRESSION_ADOBE_DEFLATE;
        case TiffCompression::kZstd:
            return COMPRESSION_ZSTD;
        case TiffCompression::kNone:
            break;
    }
    return COMPRESSION_NONE;
}

// ---- reading from memory ----

struct MemoryFile {
    const uint8_t* data;
    toff_t size;
    toff_t at;
};

tmsize_t ReadProc(thandle_t h, void* buffer, tmsize_t n) {
    auto& f = *static_cast<MemoryFile*>(h);
    const toff_t left = f.at < f.size ? f.size - f.at : 0;
    const toff_t take = std::min<toff_t>(left, static_cast<toff_t>(std::max<tmsize_t>(n, 0)));
    std::memcpy(buffer, f.data + f.at, take);
    f.at += take;
    return static_cast<tmsize_t>(take);
}

tmsize_t WriteProc(thandle_t, void*, tmsize_t) {
    return -1;
}

toff_t SeekProc(thandle_t h, toff_t offset, int whence) {
    auto& f = *static_cast<MemoryFile*>(h);
    switch (whence) {
        case SEEK_SET:
            f.at = offset;
            break;
        case SEEK_CUR:
            f.at += offset;
            break;
        case SEEK_END:
            f.at = f.size + offset;
            break;
        default:
            return static_cast<toff_t>(-1);
    }
    return f.at;
}

int CloseProc(thandle_t) {
    return 0;
}

toff_t SizeProc(thandle_t h) {
    return static_cast<MemoryFile*>(h)->size;
}

int MapProc(thandle_t h, void** base, toff_t* size) {
    auto& f = *static_cast<MemoryFile*>(h);
    *base = const_cast<uint8_t*>(f.data);
    *size = f.size;
    return 1;
}

void UnmapProc(thandle_t, void*, toff_t) {}

struct Layout {
    uint32_t width = 0;
    uint32_t height = 0;
    uint16_t bits = 0;
    uint16_t samples = 0;
    uint16_t planar = PLANARCONFIG_CONTIG;
    uint16_t photometric = PHOTOMETRIC_MINISBLACK;
    uint16_t format = SAMPLEFORMAT_UINT;
};

// How many decoded bytes one byte of compressed data can stand for at most: PackBits 128 bytes in
// 2, Deflate 258 bytes in two 1-bit codes, LZW a string of under 4096 bytes in a 9- to 12-bit
// code. Zero where no such bound is simple (JPEG, Zstandard, LZMA ...) or the codec is CCITT,
// which is bounded by rows instead.
uint64_t MostBytesPerByte(uint16_t compression) {
    switch (compression) {
        case COMPRESSION_NONE:
            return 1;
        case COMPRESSION_PACKBITS:
            return 64;
        case COMPRESSION_ADOBE_DEFLATE:
        case COMPRESSION_DEFLATE:
            return 1032;
        case COMPRESSION_LZW:
            return 4096;
        default:
            return 0;
    }
}

// A few hundred bytes may claim a picture of hundreds of megabytes, and libtiff's decoders pad
// what is missing: what the strips or tiles cannot hold is refused before the picture is
// allocated. Returns the reason, or nothing when the data may be enough.
std::string Shortfall(TIFF* tif, const Layout& l, uint64_t fileSize) {
    uint16_t compression = COMPRESSION_NONE;
    TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression);
    const uint64_t planes = l.planar == PLANARCONFIG_SEPARATE && l.samples > 1 ? l.samples : 1;
    const uint64_t rowBits = uint64_t(l.width) * l.bits * (l.samples / planes);
    const uint64_t rows = uint64_t(l.height) * planes;
    double need = 0;  // compressed bytes at the least; a double, as the product may not fit
    if (compression == COMPRESSION_CCITTRLE || compression == COMPRESSION_CCITTRLEW) {
        need = double(rows);  // every row starts on a byte
    } else if (compression == COMPRESSION_CCITTFAX3 || compression == COMPRESSION_CCITTFAX4) {
        need = std::ceil(double(rows) / 8);  // a row repeating the one above is a single bit
    } else if (const uint64_t ratio = MostBytesPerByte(compression); ratio != 0) {
        need = std::ceil(double((rowBits + 7) / 8) * double(rows) / double(ratio));
    } else {
        return {};
    }
    const bool tiled = TIFFIsTiled(tif) != 0;
    const uint32_t chunks = tiled ? TIFFNumberOfTiles(tif) : TIFFNumberOfStrips(tif);
    uint64_t available = 0;
    for (uint32_t i = 0; i < chunks && double(available) < need; ++i) {
        const uint64_t offset = TIFFGetStrileOffset(tif, i);
        if (offset < fileSize) {
            available += std::min<uint64_t>(TIFFGetStrileByteCount(tif, i), fileSize - offset);
        }
    }
    if (double(available) >= need) {
        return {};
    }
    return std::to_string(available) + " bytes of " + (tiled ? "tiles" : "strips") + " for a " +
           std::to_string(l.width) + " x " + std::to_string(l.height) + " picture";
}

// Copies decoded chunk rows (a strip, or a tile's rows) into the image: all samples of a pixel
// (contiguous) or sample `plane` only (separate planes).
void Place(const uint8_t* chunk, size_t chunkRowBytes, int rows, int x0, int columns, int y0,
           int plane, bool separate, cv::Mat& image) {
    const size_t sampleBytes = image.elemSize1();
    const int channels = image.channels();
    for (int r = 0; r < rows; ++r) {
        const uint8_t* src = chunk + size_t(r) * chunkRowBytes;
        uint8_t* dst = image.ptr(y0 + r) + size_t(x0) * image.elemSize();
        if (!separate) {
            std::memcpy(dst, src, size_t(columns) * image.elemSize());
            continue;
        }
        for (int x = 0; x < columns; ++x) {
            std::memcpy(dst + (size_t(x) * channels + plane) * sampleBytes,
                        src + size_t(x) * sampleBytes, sampleBytes);
        }
    }
}

bool ReadSamples(TIFF* tif, const Layout& l, cv::Mat& image, std::string& error) {
    const bool separate = l.planar == PLANARCONFIG_SEPARATE && l.samples > 1;
    const int planes = separate ? l.samples : 1;
    const size_t pixelBytes = size_t(separate ? 1 : l.samples) * (l.bits / 8);
    if (TIFFIsTiled(tif)) {
        uint32_t tileWidth = 0;
        uint32_t tileHeight = 0;
        TIFFGetField(tif, TIFFTAG_TILEWIDTH, &tileWidth);
        TIFFGetField(tif, TIFFTAG_TILELENGTH, &tileHeight);
        const tmsize_t tileSize = TIFFTileSize(tif);
        if (tileWidth == 0 || tileHeight == 0 || tileSize <= 0) {
            error = "bad tile layout";
            return false;
        }
        std::vector<uint8_t> tile(static_cast<size_t>(tileSize));
        for (int p = 0; p < planes; ++p) {
            for (uint32_t y = 0; y < l.height; y += tileHeight) {
                for (uint32_t x = 0; x < l.width; x += tileWidth) {
                    const uint32_t index = TIFFComputeTile(tif, x, y, 0, uint16_t(p));
                    if (TIFFReadEncodedTile(tif, index, tile.data(), tileSize) < 0) {
                        return false;
                    }
                    Place(tile.data(), tileWidth * pixelBytes,
                          int(std::min(tileHeight, l.height - y)), int(x),
                          int(std::min(tileWidth, l.width - x)), int(y), p, separate, image);
                }
            }
        }
        return true;
    }
    uint32_t rowsPerStrip = 0;
    TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &rowsPerStrip);
    rowsPerStrip = std::clamp<uint32_t>(rowsPerStrip, 1, l.height);
    const size_t rowBytes = size_t(l.width) * pixelBytes;
    std::vector<uint8_t> strip(rowBytes * rowsPerStrip);
    for (int p = 0; p < planes; ++p) {
        for (uint32_t y = 0; y < l.height; y += rowsPerStrip) {
            const uint32_t rows = std::min(rowsPerStrip, l.height - y);
            const uint32_t index = TIFFComputeStrip(tif, y, uint16_t(p));
            const tmsize_t got = TIFFReadEncodedStrip(tif, index, strip.data(),
                                                      static_cast<tmsize_t>(rows * rowBytes));
            if (got < 0) {
                return false;
            }
            if (size_t(got) < rows * rowBytes) {
                error = "strip " + std::to_string(index) + " is short";
                return false;
            }
            Place(strip.data(), rowBytes, int(rows), 0, int(l.width), int(y), p, separate, image);
        }
    }
    return true;
}

// Whatever libtiff's RGBA reader understands, as 8-bit grey or B, G, R.
bool ReadRgba(TIFF* tif, const Layout& l, cv::Mat& image) {
    cv::Mat rgba(int(l.height), int(l.width), CV_8UC4);
    if (TIFFReadRGBAImageOriented(tif, l.width, l.height, rgba.ptr<uint32_t>(), ORIENTATION_TOPLEFT,
                                  1) != 1) {
        return false;
    }
    // The raster holds R, G, B, A bytes in memory order.
    const bool grey =
        l.photometric == PHOTOMETRIC_MINISBLACK || l.photometric == PHOTOMETRIC_MINISWHITE;
    cv::Mat out(rgba.rows, rgba.cols, grey ? CV_8UC1 : CV_8UC3);
    for (int y = 0; y < rgba.rows; ++y) {
        const uint8_t* src = rgba.ptr<uint8_t>(y);
        uint8_t* dst = out.ptr<uint8_t>(y);
        for (int x = 0; x < rgba.cols; ++x, src += 4) {
            if (grey) {
                dst[x] = src[0];
            } else {
                dst[3 * x] = src[2];
                dst[3 * x + 1] = src[1];
                dst[3 * x + 2] = src[0];
            }
        }
    }
    image = out;
    return true;
}

void SwapRedBlue(cv::Mat& image) {
    const int channels = image.channels();
    for (int y = 0; y < image.rows; ++y) {
        if (image.depth() == CV_8U) {
            uint8_t* p = image.ptr<uint8_t>(y);
            for (int x = 0; x < image.cols; ++x, p += channels) {
                std::swap(p[0], p[2]);
            }
        } else {
            uint16_t* p = image.ptr<uint16_t>(y);
            for (int x = 0; x < image.cols; ++x, p += channels) {
                std::swap(p[0], p[2]);
            }
        }
    }
}

}  // namespace

bool WriteTiff(int fd, const std::string& name, const cv::Mat& image,
               const ImageSaveOptions& options, std::string& error) {
    const uint16_t codec = CodecOf(options.tiffCompression);
    if (!TiffCompressionAvailable(options.tiffCompression)) {
        error = "this libtiff cannot write " +
                std::string(TiffCompressionName(options.tiffCompression)) + " compression";
        return false;
    }
    // libtiff closes the descriptor it is given; the caller keeps its own.
    const int tiffFd = ::dup(fd);
    if (tiffFd < 0) {
        error = "cannot write the file (" + ErrnoText(errno) + ")";
        return false;
    }
    TiffMessages messages;
    errno = 0;
    TIFFOpenOptions* openOptions = QuietOptions(messages);
    TIFF* tif = TIFFFdOpenExt(tiffFd, name.c_str(), "w", openOptions);
    TIFFOpenOptionsFree(openOptions);
    // The system's reason says more than libtiff's ("Error writing TIFF header").
    auto reason = [&messages] {
        if (messages.systemError != 0) {
            return ErrnoText(messages.systemError);
        }
        return messages.error.empty() ? std::string("TIFF write failed") : messages.error;
    };
    if (tif == nullptr) {
        ::close(tiffFd);
        error = "cannot write the file (" + reason() + ")";
        return false;
    }
    const int channels = image.channels();
    const int bits = image.depth() == CV_16U ? 16 : 8;
    const size_t rowBytes = size_t(image.cols) * size_t(channels) * size_t(bits / 8);
    const uint32_t rowsPerStrip =
        static_cast<uint32_t>(std::clamp<size_t>((size_t{256} << 10) / rowBytes, 1, image.rows));
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(image.cols));
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(image.rows));
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, static_cast<uint16_t>(bits));
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, static_cast<uint16_t>(channels));
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC,
                 channels == 1 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    if (channels == 4) {
        // The C sample is neither alpha nor colour.
        const uint16_t extra[] = {EXTRASAMPLE_UNSPECIFIED};
        TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, 1, extra);
    }
    TIFFSetField(tif, TIFFTAG_COMPRESSION, codec);
    if (codec != COMPRESSION_NONE) {
        TIFFSetField(tif, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
    }
    if (codec == COMPRESSION_ADOBE_DEFLATE) {
        TIFFSetField(tif, TIFFTAG_ZIPQUALITY, kDeflateLevel);
    } else if (codec == COMPRESSION_ZSTD) {
        TIFFSetField(tif, TIFFTAG_ZSTD_LEVEL, kZstdLevel);
    }
    // A resolution must be positive; a bad setting falls back to the usual 96.
    TIFFSetField(tif, TIFFTAG_XRESOLUTION,
                 static_cast<float>(options.dpiX > 0 ? options.dpiX : 96));
    TIFFSetField(tif, TIFFTAG_YRESOLUTION,
                 static_cast<float>(options.dpiY > 0 ? options.dpiY : 96));
    TIFFSetField(tif, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, rowsPerStrip);

    // The predictor works in place and colour needs its order swapped, so those strips go
    // through a copy; uncompressed mono rows are written as they are.
    const bool direct = codec == COMPRESSION_NONE && channels == 1;
    std::vector<uint8_t> strip(direct ? 0 : rowBytes * rowsPerStrip);
    bool ok = true;
    for (int top = 0, index = 0; ok && top < image.rows; top += int(rowsPerStrip), ++index) {
        const int rows = std::min<int>(int(rowsPerStrip), image.rows - top);
        const auto bytes = static_cast<tmsize_t>(size_t(rows) * rowBytes);
        if (direct && image.isContinuous()) {
            ok = TIFFWriteRawStrip(tif, uint32_t(index), const_cast<uint8_t*>(image.ptr(top)),
                                   bytes) == bytes;
            continue;
        }
        if (strip.empty()) {
            strip.resize(rowBytes * rowsPerStrip);
        }
        for (int r = 0; r < rows; ++r) {
            uint8_t* dst = strip.data() + size_t(r) * rowBytes;
            std::memcpy(dst, image.ptr(top + r), rowBytes);
            if (channels >= 3) {
                if (bits == 8) {
                    for (size_t i = 0; i < rowBytes; i += size_t(channels)) {
                        std::swap(dst[i], dst[i + 2]);
                    }
                } else {
                    auto* words = reinterpret_cast<uint16_t*>(dst);
                    for (size_t i = 0; i < rowBytes / 2; i += size_t(channels)) {
                        std::swap(words[i], words[i + 2]);
                    }
                }
            }
        }
        ok = TIFFWriteEncodedStrip(tif, uint32_t(index), strip.data(), bytes) >= 0;
    }
    ok = ok && TIFFFlush(tif) == 1;
    if (!ok && messages.systemError == 0) {
        messages.systemError = errno;
    }
    TIFFClose(tif);
    if (!ok) {
        error = "cannot write the file (" + reason() + ")";
    }
    return ok;
}

bool DecodeTiff(const uint8_t* data, size_t size, cv::Mat& image, std::string& error) {
    MemoryFile file{data, static_cast<toff_t>(size), 0};
    error.clear();  // the reason is built up below
    TiffMessages messages;
    TIFFOpenOptions* openOptions = QuietOptions(messages);
    TIFF* tif = TIFFClientOpenExt("image", "r", &file, ReadProc, WriteProc, SeekProc, CloseProc,
                                  SizeProc, MapProc, UnmapProc, openOptions);
    TIFFOpenOptionsFree(openOptions);
    auto damaged = [&] {
        error = "the file is damaged or truncated" +
                (messages.error.empty() ? std::string() : " (" + messages.error + ")");
        return false;
    };
    if (tif == nullptr) {
        return damaged();
    }
    Layout l;
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &l.width);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &l.height);
    TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &l.bits);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &l.samples);
    TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &l.planar);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &l.format);
    if (TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &l.photometric) != 1) {
        l.photometric = l.samples >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
    }
    if (l.width == 0 || l.height == 0 || l.width > (1u << 20) || l.height > (1u << 20)) {
        TIFFClose(tif);
        error = "the file is damaged (an image of " + std::to_string(l.width) + " x " +
                std::to_string(l.height) + " pixels)";
        return false;
    }
    const bool grey =
        (l.photometric == PHOTOMETRIC_MINISBLACK || l.photometric == PHOTOMETRIC_MINISWHITE) &&
        l.samples == 1;
    const bool colour = l.photometric == PHOTOMETRIC_RGB && (l.samples == 3 || l.samples == 4);
    const bool asStored =
        (l.bits == 8 || l.bits == 16) && l.format == SAMPLEFORMAT_UINT && (grey || colour);
    if (std::string reason = Shortfall(tif, l, size); !reason.empty()) {
        TIFFClose(tif);
        error = "the file is damaged or truncated (" + reason + ")";
        return false;
    }
    // Only what goes wrong with the pixels counts from here; libtiff mends many header faults.
    messages.error.clear();
    cv::Mat decoded;
    bool ok = false;
    // A picture the data can hold may still be more than the memory can; that is refused, not
    // thrown at the caller.
    try {
        if (asStored) {
            cv::Mat pixels(int(l.height), int(l.width),
                           CV_MAKETYPE(l.bits == 16 ? CV_16U : CV_8U, l.samples));
            ok = ReadSamples(tif, l, pixels, error);
            if (ok) {
                if (l.photometric == PHOTOMETRIC_MINISWHITE) {
                    cv::bitwise_not(pixels, pixels);
                } else if (colour) {
                    SwapRedBlue(pixels);
                }
                decoded = pixels;
            }
        } else if (l.format != SAMPLEFORMAT_UINT || l.bits > 16) {
            TIFFClose(tif);
            error = "unsupported sample type (only 8-bit and 16-bit integer samples)";
            return false;
        } else if (l.samples == 2 && l.photometric != PHOTOMETRIC_PALETTE) {
            TIFFClose(tif);
            error = "unsupported channel count (2)";
            return false;
        } else {
            char reason[1024] = {};
            if (TIFFRGBAImageOK(tif, reason) != 1) {
                TIFFClose(tif);
                DebugOutput(std::string("libtiff: ") + reason);
                error = std::string("unsupported TIFF layout (") + reason + ")";
                return false;
            }
            ok = ReadRgba(tif, l, decoded);
        }
    } catch (const std::exception&) {
        TIFFClose(tif);
        error = "no memory for a " + std::to_string(l.width) + " x " + std::to_string(l.height) +
                " picture";
        return false;
    }
    TIFFClose(tif);
    // Some decoders report a damaged row and carry on (CCITT's "Bad code word").
    ok = ok && messages.error.empty();
    if (!ok) {
        if (error.empty()) {
            return damaged();
        }
        error = "the file is damaged or truncated (" + error + ")";
        return false;
    }
    image = decoded;
    return true;
}

}  // namespace lumetra::codecs
