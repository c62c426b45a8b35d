#include "recording/image_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <tiffio.h>

#include "imaging/jpeg_decoder.h"
#include "recording/image_codecs.h"

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

// Where a save goes: a temporary file beside the target, put in place by StagedImageFile. A
// target that exists and is not a regular file (a device, a pipe) is written in place, never
// replaced.
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

    // Closes the file; temp is the file waiting for its name (empty for an in-place write).
    bool Close(std::string& temp, std::string& error) {
        const int fd = fd_;
        fd_ = -1;
        if (::close(fd) != 0) {
            error = "cannot write the file (" + ErrnoText(errno) + ")";
            Abandon();
            return false;
        }
        temp = std::move(temp_);
        temp_.clear();
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

// Every format but TIFF and raw is encoded in memory first.
bool Encode(const cv::Mat& image, ImageFileType type, const ImageSaveOptions& options,
            std::vector<uint8_t>& bytes, std::string& error) {
    switch (type) {
        case ImageFileType::kPng:
            return codecs::EncodePng(image, options.pngLevel, bytes, error);
        case ImageFileType::kPgm:
        case ImageFileType::kPpm:
            return codecs::EncodePnm(image, type == ImageFileType::kPpm, bytes, error);
        default:
            break;
    }
    const cv::Mat pixels = To8Bits(DropFourthChannel(image), options.significantBits);
    std::vector<int> params;
    const char* ext = ".bmp";
    if (type == ImageFileType::kJpeg) {
        ext = ".jpg";
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

enum class Signature { kUnknown, kBmp, kJpeg, kPng, kTiff, kPnm };

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
    if (codecs::IsPnm(b.data(), b.size())) {
        return Signature::kPnm;
    }
    return Signature::kUnknown;
}

bool Decode(const std::vector<uint8_t>& bytes, Signature signature, cv::Mat& image,
            std::string& error) {
    switch (signature) {
        case Signature::kJpeg:
            return DecodeJpeg(bytes.data(), bytes.size(), image, error);
        case Signature::kPng:
            return codecs::DecodePng(bytes.data(), bytes.size(), image, error);
        case Signature::kTiff:
            return codecs::DecodeTiff(bytes.data(), bytes.size(), image, error);
        case Signature::kPnm:
            return codecs::DecodePnm(bytes.data(), bytes.size(), image, error);
        case Signature::kBmp:
            break;
        case Signature::kUnknown:
            error = bytes.empty() ? "the file is empty"
                                  : "unsupported image format (BMP, JPEG, PNG, TIFF, PGM and PPM "
                                    "are read)";
            return false;
    }
    // OpenCV's own bitmap reader, once the rows are known to be there: a short file would make
    // it report on the terminal.
    if (!codecs::BmpComplete(bytes.data(), bytes.size(), error)) {
        return false;
    }
    try {
        image = cv::imdecode(bytes, cv::IMREAD_UNCHANGED);
    } catch (const cv::Exception&) {
        image.release();
    }
    if (image.empty()) {
        error = "the file is damaged or of an unsupported kind";
        return false;
    }
    return true;
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
    if (ext == "pgm") {
        return ImageFileType::kPgm;
    }
    if (ext == "ppm") {
        return ImageFileType::kPpm;
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

std::optional<TiffCompression> TiffCompressionOf(std::string_view name) {
    std::string lower(name);
    for (char& c : lower) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    for (TiffCompression c : {TiffCompression::kNone, TiffCompression::kLzw,
                              TiffCompression::kDeflate, TiffCompression::kZstd}) {
        if (lower == TiffCompressionName(c)) {
            return c;
        }
    }
    return std::nullopt;
}

std::string_view TiffCompressionName(TiffCompression compression) {
    switch (compression) {
        case TiffCompression::kLzw:
            return "lzw";
        case TiffCompression::kDeflate:
            return "deflate";
        case TiffCompression::kZstd:
            return "zstd";
        case TiffCompression::kNone:
            break;
    }
    return "none";
}

bool TiffCompressionAvailable(TiffCompression compression) {
    switch (compression) {
        case TiffCompression::kLzw:
            return TIFFIsCODECConfigured(COMPRESSION_LZW) == 1;
        case TiffCompression::kDeflate:
            return TIFFIsCODECConfigured(COMPRESSION_ADOBE_DEFLATE) == 1;
        case TiffCompression::kZstd:
            return TIFFIsCODECConfigured(COMPRESSION_ZSTD) == 1;
        case TiffCompression::kNone:
            break;
    }
    return true;
}

StagedImageFile::StagedImageFile(StagedImageFile&& other) noexcept
    : target_(std::move(other.target_)), temp_(std::move(other.temp_)) {
    other.temp_.clear();
}

StagedImageFile& StagedImageFile::operator=(StagedImageFile&& other) noexcept {
    if (this != &other) {
        Discard();
        target_ = std::move(other.target_);
        temp_ = std::move(other.temp_);
        other.temp_.clear();
    }
    return *this;
}

bool StagedImageFile::Commit(std::string& error) {
    if (temp_.empty()) {
        return true;
    }
    if (::rename(temp_.c_str(), target_.c_str()) != 0) {
        error = "cannot replace the file (" + ErrnoText(errno) + ")";
        Discard();
        return false;
    }
    temp_.clear();
    return true;
}

void StagedImageFile::Discard() {
    if (!temp_.empty()) {
        ::unlink(temp_.c_str());
        temp_.clear();
    }
}

bool StageImageFile(const cv::Mat& image, const std::string& path, const ImageSaveOptions& options,
                    StagedImageFile& staged, std::string& error) {
    staged.Discard();
    const ImageFileType type = ImageFileTypeOf(path);
    if (type == ImageFileType::kUnknown) {
        error = "unknown image file extension (use bmp, jpg, png, tif, raw, pgm or ppm)";
        return false;
    }
    if (!CheckShape(image, error)) {
        return false;
    }
    std::vector<uint8_t> encoded;
    if (type != ImageFileType::kTiff && type != ImageFileType::kRaw &&
        !Encode(image, type, options, encoded, error)) {
        return false;
    }
    OutputFile out;
    if (!out.Open(path, error)) {
        return false;
    }
    bool ok = false;
    switch (type) {
        case ImageFileType::kTiff:
            ok = codecs::WriteTiff(out.fd(), path, image, options, error);
            break;
        case ImageFileType::kRaw:
            ok = WriteRaw(out, image, error);
            break;
        default:
            ok = out.Write(encoded.data(), encoded.size(), error);
            break;
    }
    std::string temp;
    if (!ok || !out.Close(temp, error)) {
        return false;
    }
    staged.target_ = path;
    staged.temp_ = std::move(temp);
    return true;
}

bool SaveImageFile(const cv::Mat& image, const std::string& path, const ImageSaveOptions& options,
                   std::string& error) {
    StagedImageFile staged;
    return StageImageFile(image, path, options, staged, error) && staged.Commit(error);
}

bool LoadImageFile(const std::string& path, cv::Mat& image, std::string& error) {
    std::vector<uint8_t> bytes;
    if (!ReadWholeFile(path, bytes, error)) {
        return false;
    }
    cv::Mat decoded;
    if (!Decode(bytes, SignatureOf(bytes), decoded, error)) {
        return false;
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
        frame.countFrame();
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
