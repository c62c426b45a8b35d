#include "recording/image_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <tiffio.h>

#include "imaging/jpeg_decoder.h"

namespace lumetra {
namespace {

static_assert(std::endian::native == std::endian::little,
              "raw files and 16-bit frames are little-endian words");

std::string ErrnoText(int error) {
    return std::error_code(error, std::generic_category()).message();
}

std::string LowerExtension(std::string_view path) {
    const size_t slash = path.find_last_of('/');
    const size_t dot = path.find_last_of('.');
    if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash)) {
        return {};
    }
    std::string ext(path.substr(dot + 1));
    for (char& c : ext) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return ext;
}

// Where a save goes: a temporary file beside the target, renamed over it once complete. A target
// that exists and is not a regular file (a device, a pipe) is written in place, never replaced.
class OutputFile {
  public:
    ~OutputFile() { Abandon(); }

    bool Open(const std::string& path, std::string& error) {
        path_ = path;
        struct stat st {};
        if (::stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
            if (S_ISDIR(st.st_mode)) {
                error = "it is a folder";
                return false;
            }
            fd_ = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
            if (fd_ < 0) {
                error = "cannot open the file (" + ErrnoText(errno) + ")";
                return false;
            }
            return true;
        }
        static std::atomic<unsigned> counter{0};
        const std::filesystem::path target(path);
        // Built by appending: GCC 12 warns falsely about "literal" + std::string at -O3.
        std::string name(".");
        name += target.filename().string();
        name += ".tmp-";
        name += std::to_string(::getpid());
        name += '-';
        name += std::to_string(counter++);
        temp_ = (target.parent_path() / name).string();
        fd_ = ::open(temp_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd_ < 0) {
            error = "cannot create the file (" + ErrnoText(errno) + ")";
            temp_.clear();
            return false;
        }
        return true;
    }

    int fd() const { return fd_; }

    bool Write(const void* data, size_t size, std::string& error) {
        const auto* p = static_cast<const uint8_t*>(data);
        while (size > 0) {
            const ssize_t n = ::write(fd_, p, size);
            if (n < 0) {
                if (errno == EINTR) {
                    continue;
                }
                error = "cannot write the file (" + ErrnoText(errno) + ")";
                return false;
            }
            p += n;
            size -= size_t(n);
        }
        return true;
    }

    bool Commit(std::string& error) {
        const int fd = fd_;
        fd_ = -1;
        if (::close(fd) != 0) {
            error = "cannot write the file (" + ErrnoText(errno) + ")";
            return false;
        }
        if (!temp_.empty()) {
            if (::rename(temp_.c_str(), path_.c_str()) != 0) {
                error = "cannot replace the file (" + ErrnoText(errno) + ")";
                return false;
            }
            temp_.clear();
        }
        return true;
    }

    void Abandon() {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
        if (!temp_.empty()) {
            ::unlink(temp_.c_str());
            temp_.clear();
        }
    }

  private:
    std::string path_;
    std::string temp_;
    int fd_ = -1;
};

bool CheckShape(const cv::Mat& image, std::string& error) {
    if (image.empty() || image.dims != 2) {
        error = "there is no image";
        return false;
    }
    if (image.depth() != CV_8U && image.depth() != CV_16U) {
        error = "samples must have 8 or 16 bits";
        return false;
    }
    if (image.channels() != 1 && image.channels() != 3 && image.channels() != 4) {
        error = "images must have 1, 3 or 4 channels";
        return false;
    }
    return true;
}

// BMP, JPEG and PNG know no fourth colour sample; 4-channel frames go out as their colour.
cv::Mat DropFourthChannel(const cv::Mat& image) {
    if (image.channels() != 4) {
        return image;
    }
    cv::Mat colour;
    cv::cvtColor(image, colour, cv::COLOR_BGRA2BGR);
    return colour;
}

// Keeps the top eight of the significant bits, as the recorder does.
cv::Mat To8Bits(const cv::Mat& image, int significantBits) {
    if (image.depth() == CV_8U) {
        return image;
    }
    const int shift = std::clamp(significantBits, 8, 16) - 8;
    cv::Mat out(image.rows, image.cols, CV_MAKETYPE(CV_8U, image.channels()));
    const size_t samples = size_t(image.cols) * size_t(image.channels());
    for (int y = 0; y < image.rows; ++y) {
        const auto* src = image.ptr<uint16_t>(y);
        auto* dst = out.ptr<uint8_t>(y);
        for (size_t i = 0; i < samples; ++i) {
            dst[i] = static_cast<uint8_t>(std::min(src[i] >> shift, 255));
        }
    }
    return out;
}

bool EncodeWithCodec(const cv::Mat& image, ImageFileType type, const ImageSaveOptions& options,
                     std::vector<uint8_t>& bytes, std::string& error) {
    cv::Mat pixels = DropFourthChannel(image);
    std::vector<int> params;
    const char* ext = ".png";
    if (type == ImageFileType::kBmp) {
        ext = ".bmp";
        pixels = To8Bits(pixels, options.significantBits);
    } else if (type == ImageFileType::kJpeg) {
        ext = ".jpg";
        pixels = To8Bits(pixels, options.significantBits);
        params = {cv::IMWRITE_JPEG_QUALITY, std::clamp(options.jpegQuality, 0, 100)};
    }
    try {
        if (!cv::imencode(ext, pixels, bytes, params)) {
            error = "the image cannot be encoded";
            return false;
        }
    } catch (const cv::Exception& e) {
        error = "the image cannot be encoded (" + std::string(e.what()) + ")";
        return false;
    }
    return true;
}

struct TiffErrors {
    std::string text;
    int error = 0;  // errno at the first failure, when the system gave one
};

int TiffMessage(TIFF*, void* user, const char*, const char* format, va_list ap) {
    auto& errors = *static_cast<TiffErrors*>(user);
    if (errors.text.empty()) {
        errors.error = errno;
        char buffer[512];
        std::vsnprintf(buffer, sizeof buffer, format, ap);
        errors.text = buffer;
    }
    return 1;  // handled: nothing goes to standard error
}

int TiffWarning(TIFF*, void*, const char*, const char*, va_list) {
    return 1;
}

bool WriteTiff(int fd, const std::string& name, const cv::Mat& image,
               const ImageSaveOptions& options, std::string& error) {
    // libtiff closes the descriptor it is given; the output file keeps its own.
    const int tiffFd = ::dup(fd);
    if (tiffFd < 0) {
        error = "cannot write the file (" + ErrnoText(errno) + ")";
        return false;
    }
    TiffErrors tiffError;
    errno = 0;
    TIFFOpenOptions* openOptions = TIFFOpenOptionsAlloc();
    TIFFOpenOptionsSetErrorHandlerExtR(openOptions, TiffMessage, &tiffError);
    TIFFOpenOptionsSetWarningHandlerExtR(openOptions, TiffWarning, nullptr);
    TIFF* tif = TIFFFdOpenExt(tiffFd, name.c_str(), "w", openOptions);
    TIFFOpenOptionsFree(openOptions);
    // The system's reason says more than libtiff's ("Error writing TIFF header").
    auto reason = [&tiffError] {
        if (tiffError.error != 0) {
            return ErrnoText(tiffError.error);
        }
        return tiffError.text.empty() ? std::string("TIFF write failed") : tiffError.text;
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
    TIFFSetField(tif, TIFFTAG_COMPRESSION, options.lzw ? COMPRESSION_LZW : COMPRESSION_NONE);
    if (options.lzw) {
        TIFFSetField(tif, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
    }
    // A resolution must be positive; a bad setting falls back to the usual 96.
    TIFFSetField(tif, TIFFTAG_XRESOLUTION,
                 static_cast<float>(options.dpiX > 0 ? options.dpiX : 96));
    TIFFSetField(tif, TIFFTAG_YRESOLUTION,
                 static_cast<float>(options.dpiY > 0 ? options.dpiY : 96));
    TIFFSetField(tif, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, rowsPerStrip);

    // The encoder works in place (the predictor), so every strip goes through a copy.
    std::vector<uint8_t> strip(rowBytes * rowsPerStrip);
    bool ok = true;
    for (int top = 0, index = 0; ok && top < image.rows; top += int(rowsPerStrip), ++index) {
        const int rows = std::min<int>(int(rowsPerStrip), image.rows - top);
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
        ok = TIFFWriteEncodedStrip(tif, uint32_t(index), strip.data(),
                                   static_cast<tmsize_t>(size_t(rows) * rowBytes)) >= 0;
    }
    ok = ok && TIFFFlush(tif) == 1;
    if (!ok && tiffError.error == 0) {
        tiffError.error = errno;
    }
    TIFFClose(tif);
    if (!ok) {
        error = "cannot write the file (" + reason() + ")";
    }
    return ok;
}

bool WriteRaw(OutputFile& out, const cv::Mat& image, std::string& error) {
    const size_t rowBytes = size_t(image.cols) * image.elemSize();
    if (image.isContinuous()) {
        return out.Write(image.data, rowBytes * size_t(image.rows), error);
    }
    for (int y = 0; y < image.rows; ++y) {
        if (!out.Write(image.ptr(y), rowBytes, error)) {
            return false;
        }
    }
    return true;
}

bool ReadWholeFile(const std::string& path, std::vector<uint8_t>& bytes, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = "cannot open the file (" + ErrnoText(errno) + ")";
        return false;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        error = "not a regular file";
        return false;
    }
    bytes.resize(size_t(st.st_size));
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            const int e = n < 0 ? errno : EIO;
            ::close(fd);
            error = "cannot read the file (" + ErrnoText(e) + ")";
            return false;
        }
        done += size_t(n);
    }
    ::close(fd);
    return true;
}

enum class Signature { kUnknown, kBmp, kJpeg, kPng, kTiff };

Signature SignatureOf(const std::vector<uint8_t>& b) {
    auto starts = [&](std::initializer_list<uint8_t> magic) {
        return b.size() >= magic.size() && std::equal(magic.begin(), magic.end(), b.begin());
    };
    if (starts({'B', 'M'})) {
        return Signature::kBmp;
    }
    if (starts({0xFF, 0xD8, 0xFF})) {
        return Signature::kJpeg;
    }
    if (starts({0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A})) {
        return Signature::kPng;
    }
    if (starts({'I', 'I', 42, 0}) || starts({'M', 'M', 0, 42}) || starts({'I', 'I', 43, 0}) ||
        starts({'M', 'M', 0, 43})) {
        return Signature::kTiff;
    }
    return Signature::kUnknown;
}

std::string Plural(int n, const char* word) {
    return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

}  // namespace

ImageFileType ImageFileTypeOf(std::string_view path) {
    const std::string ext = LowerExtension(path);
    if (ext == "bmp") {
        return ImageFileType::kBmp;
    }
    if (ext == "jpg" || ext == "jpeg") {
        return ImageFileType::kJpeg;
    }
    if (ext == "png") {
        return ImageFileType::kPng;
    }
    if (ext == "tif" || ext == "tiff") {
        return ImageFileType::kTiff;
    }
    if (ext == "raw") {
        return ImageFileType::kRaw;
    }
    return ImageFileType::kUnknown;
}

std::string_view ImageTypeExtension(int index) {
    switch (index) {
        case 1:
            return "jpg";
        case 2:
            return "png";
        case 3:
            return "tif";
        case 4:
            return "raw";
        default:
            return "bmp";
    }
}

bool SaveImageFile(const cv::Mat& image, const std::string& path, const ImageSaveOptions& options,
                   std::string& error) {
    const ImageFileType type = ImageFileTypeOf(path);
    if (type == ImageFileType::kUnknown) {
        error = "unknown image file extension (use bmp, jpg, png, tif or raw)";
        return false;
    }
    if (!CheckShape(image, error)) {
        return false;
    }
    std::vector<uint8_t> encoded;
    if (type != ImageFileType::kTiff && type != ImageFileType::kRaw &&
        !EncodeWithCodec(image, type, options, encoded, error)) {
        return false;
    }
    OutputFile out;
    if (!out.Open(path, error)) {
        return false;
    }
    bool ok = false;
    switch (type) {
        case ImageFileType::kTiff:
            ok = WriteTiff(out.fd(), path, image, options, error);
            break;
        case ImageFileType::kRaw:
            ok = WriteRaw(out, image, error);
            break;
        default:
            ok = out.Write(encoded.data(), encoded.size(), error);
            break;
    }
    if (!ok) {
        out.Abandon();
        return false;
    }
    return out.Commit(error);
}

bool LoadImageFile(const std::string& path, cv::Mat& image, std::string& error) {
    std::vector<uint8_t> bytes;
    if (!ReadWholeFile(path, bytes, error)) {
        return false;
    }
    const Signature signature = SignatureOf(bytes);
    if (signature == Signature::kUnknown) {
        error = bytes.empty() ? "the file is empty" : "unsupported image format";
        return false;
    }
    cv::Mat decoded;
    if (signature == Signature::kJpeg) {
        if (!DecodeJpeg(bytes.data(), bytes.size(), decoded, error)) {
            return false;
        }
    } else {
        try {
            decoded = cv::imdecode(bytes, cv::IMREAD_UNCHANGED);
        } catch (const cv::Exception&) {
            decoded.release();
        }
        if (decoded.empty()) {
            error = "the file is damaged, truncated or of an unsupported kind";
            return false;
        }
    }
    if (decoded.depth() != CV_8U && decoded.depth() != CV_16U) {
        error = "unsupported sample type (only 8-bit and 16-bit integer samples)";
        return false;
    }
    if (decoded.channels() == 2) {
        error = "unsupported channel count (2)";
        return false;
    }
    if (!CheckShape(decoded, error)) {
        return false;
    }
    image = decoded;
    return true;
}

bool ConvertImageFile(const std::string& in, const std::string& out,
                      const ImageSaveOptions& options, std::string& error) {
    cv::Mat image;
    if (!LoadImageFile(in, image, error)) {
        error = in + ": " + error;
        return false;
    }
    if (!SaveImageFile(image, out, options, error)) {
        error = out + ": " + error;
        return false;
    }
    return true;
}

uint64_t RawLayout::bytes() const {
    if (width <= 0 || height <= 0 || channels <= 0) {
        return 0;
    }
    return uint64_t(width) * uint64_t(height) * uint64_t(channels) * (bitsPerSample > 8 ? 2 : 1);
}

bool LoadRawImageFile(const std::string& path, const RawLayout& layout, cv::Mat& image,
                      std::string& error) {
    if (layout.width <= 0 || layout.height <= 0) {
        error = "width and height must be above 0";
        return false;
    }
    if (layout.bitsPerSample < 8 || layout.bitsPerSample > 16) {
        error = "bits per sample must be 8 to 16";
        return false;
    }
    if (layout.channels != 1 && layout.channels != 3 && layout.channels != 4) {
        error = "channels must be 1, 3 or 4";
        return false;
    }
    std::error_code ec;
    const uintmax_t size = std::filesystem::file_size(path, ec);
    if (ec) {
        error = "cannot open the file (" + ec.message() + ")";
        return false;
    }
    const uint64_t expected = layout.bytes();
    if (size != expected) {
        error = "the size does not match: " + std::to_string(layout.width) + " x " +
                std::to_string(layout.height) + " x " + Plural(layout.channels, "channel") +
                " of " + std::to_string(layout.bitsPerSample) + " bits needs " +
                std::to_string(expected) + " bytes, the file has " + std::to_string(size) +
                " bytes";
        return false;
    }
    std::vector<uint8_t> bytes;
    if (!ReadWholeFile(path, bytes, error)) {
        return false;
    }
    if (bytes.size() != expected) {
        error = "the file changed while it was read";
        return false;
    }
    const int depth = layout.bitsPerSample > 8 ? CV_16U : CV_8U;
    cv::Mat pixels(layout.height, layout.width, CV_MAKETYPE(depth, layout.channels));
    std::memcpy(pixels.data, bytes.data(), bytes.size());
    image = pixels;
    return true;
}

bool SnapshotFrame(FrameImage& frame, FrameSnapshot& snapshot) {
    std::lock_guard lock(frame.frameLock());
    const ImageBuffer& raw = frame.raw();
    if (!raw.hasImage()) {
        return false;
    }
    snapshot.pixels = raw.mat().clone();
    const int channels = raw.channels();
    const int bits = channels > 0 ? frame.format().bitsPerPixel / channels : 8;
    snapshot.bitsPerSample = raw.depth() == 8 ? 8 : std::clamp(bits, 9, 16);
    return true;
}

bool AdoptImage(FrameImage& frame, const cv::Mat& image, int bitsPerSample, MessageSink* sink,
                std::string& error) {
    if (!CheckShape(image, error)) {
        return false;
    }
    const int depthBits = image.depth() == CV_16U ? 16 : 8;
    const int sampleBits = depthBits == 8 ? 8 : std::clamp(bitsPerSample, 9, 16);
    FrameFormat format;
    format.width = image.cols;
    format.height = image.rows;
    format.channels = image.channels();
    format.bitsPerPixel = sampleBits * image.channels();
    format.rgbc = false;
    {
        std::lock_guard lock(frame.frameLock());
        const FrameFormat previous = frame.format();
        frame.setFormat(format);
        // A file carries no mosaic: no colour image is made for it.
        BayerSettings noBayer;
        NullMessageLog quiet;
        if (!frame.Allocate(format.bitsPerPixel, noBayer, quiet)) {
            frame.setFormat(previous);
            error = "not enough memory for a " + std::to_string(image.cols) + " x " +
                    std::to_string(image.rows) + " image";
            return false;
        }
        cv::Mat target = frame.raw().mat();
        image.copyTo(target);
    }
    if (sink != nullptr) {
        sink->post(msg::kFrameSize, 0, 0);
        sink->post(msg::kPaint, 0, 0);
    }
    return true;
}

std::string OpenFailedText(const std::string& path, const std::string& reason) {
    return "Open image fail: " + path + ": " + reason + "\n";
}

std::string SaveFailedText(const std::string& path, const std::string& reason) {
    return "Save image fail: " + path + ": " + reason + "\n";
}

bool OpenImageIntoFrame(FrameImage& frame, const std::string& path, MessageLog& log,
                        MessageSink* sink) {
    cv::Mat image;
    std::string error;
    if (!LoadImageFile(path, image, error) ||
        !AdoptImage(frame, image, image.depth() == CV_16U ? 16 : 8, sink, error)) {
        log.log(OpenFailedText(path, error));
        return false;
    }
    return true;
}

bool ImportRawIntoFrame(FrameImage& frame, const std::string& path, const RawLayout& layout,
                        MessageLog& log, MessageSink* sink) {
    cv::Mat image;
    std::string error;
    if (!LoadRawImageFile(path, layout, image, error) ||
        !AdoptImage(frame, image, layout.bitsPerSample, sink, error)) {
        log.log(OpenFailedText(path, error));
        return false;
    }
    return true;
}

}  // namespace lumetra
