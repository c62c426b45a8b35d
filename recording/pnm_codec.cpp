// PGM and PPM by hand (the format is a short text header and the samples), and the BMP size check
// that keeps truncated bitmaps away from OpenCV's decoder, which would report on the terminal.
#include <cctype>
#include <cstring>
#include <string_view>

#include "recording/image_codecs.h"

namespace lumetra::codecs {
namespace {

// Reads the header's numbers: whitespace and "#" comments between them.
class HeaderReader {
  public:
    HeaderReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool Number(uint64_t& value, uint64_t limit) {
        SkipSpace();
        if (at_ >= size_ || !std::isdigit(data_[at_])) {
            return false;
        }
        value = 0;
        while (at_ < size_ && std::isdigit(data_[at_])) {
            value = value * 10 + (data_[at_++] - '0');
            if (value > limit) {
                return false;
            }
        }
        return true;
    }
    // The single whitespace character that ends a binary header.
    bool EndOfHeader() {
        if (at_ >= size_ || !std::isspace(data_[at_])) {
            return false;
        }
        ++at_;
        return true;
    }
    void Skip(size_t n) { at_ += n; }
    size_t at() const { return at_; }

  private:
    void SkipSpace() {
        while (at_ < size_) {
            if (data_[at_] == '#') {
                while (at_ < size_ && data_[at_] != '\n' && data_[at_] != '\r') {
                    ++at_;
                }
            } else if (std::isspace(data_[at_])) {
                ++at_;
            } else {
                break;
            }
        }
    }

    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
};

uint32_t Le32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

uint16_t Le16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

}  // namespace

bool IsPnm(const uint8_t* data, size_t size) {
    return size >= 3 && data[0] == 'P' &&
           (data[1] == '2' || data[1] == '3' || data[1] == '5' || data[1] == '6') &&
           std::isspace(data[2]);
}

bool DecodePnm(const uint8_t* data, size_t size, cv::Mat& image, std::string& error) {
    if (!IsPnm(data, size)) {
        error = "unsupported image format";
        return false;
    }
    const bool colour = data[1] == '3' || data[1] == '6';
    const bool binary = data[1] == '5' || data[1] == '6';
    const char* kind = colour ? "PPM" : "PGM";
    HeaderReader in(data, size);
    in.Skip(2);
    uint64_t width = 0;
    uint64_t height = 0;
    uint64_t maxval = 0;
    if (!in.Number(width, 1u << 20) || !in.Number(height, 1u << 20) || !in.Number(maxval, 65535) ||
        width == 0 || height == 0 || maxval == 0 || (binary && !in.EndOfHeader())) {
        error = std::string("the file is damaged (not a ") + kind + " header)";
        return false;
    }
    const int channels = colour ? 3 : 1;
    const bool wide = maxval > 255;
    const size_t samples = size_t(width) * size_t(height) * size_t(channels);
    // The file must hold every sample (as text, at least a digit and a separator each) before
    // memory is taken for them: a dozen bytes may claim gigabytes.
    const size_t need = binary ? samples * (wide ? 2 : 1) : samples * 2 - 1;
    const size_t have = size - in.at();
    if (have < need) {
        error = binary ? "the file is damaged or truncated (" + std::to_string(have) + " of " +
                             std::to_string(need) + " bytes of samples)"
                       : "the file is damaged or truncated (too little text for " +
                             std::to_string(samples) + " samples)";
        return false;
    }
    cv::Mat pixels;
    try {
        pixels.create(int(height), int(width), CV_MAKETYPE(wide ? CV_16U : CV_8U, channels));
    } catch (const cv::Exception&) {
        error = "not enough memory for a " + std::to_string(width) + " x " +
                std::to_string(height) + " image";
        return false;
    }
    if (binary) {
        const uint8_t* p = data + in.at();
        if (wide) {
            auto* out = pixels.ptr<uint16_t>();
            for (size_t i = 0; i < samples; ++i, p += 2) {
                out[i] = static_cast<uint16_t>(p[0] << 8 | p[1]);
            }
        } else {
            std::memcpy(pixels.data, p, samples);
        }
    } else {
        for (size_t i = 0; i < samples; ++i) {
            uint64_t v = 0;
            if (!in.Number(v, maxval)) {
                error = "the file is damaged or truncated (sample " + std::to_string(i + 1) +
                        " of " + std::to_string(samples) + ")";
                return false;
            }
            if (wide) {
                pixels.ptr<uint16_t>()[i] = static_cast<uint16_t>(v);
            } else {
                pixels.ptr<uint8_t>()[i] = static_cast<uint8_t>(v);
            }
        }
    }
    if (colour) {
        // The file holds R, G, B.
        const int pairs[] = {0, 2, 1, 1, 2, 0};
        cv::Mat bgr(pixels.size(), pixels.type());
        cv::mixChannels(&pixels, 1, &bgr, 1, pairs, 3);
        pixels = bgr;
    }
    image = pixels;
    return true;
}

bool EncodePnm(const cv::Mat& image, bool colour, std::vector<uint8_t>& out, std::string& error) {
    const int channels = image.channels();
    if (colour == (channels == 1)) {
        error = colour ? "a PPM file holds colour; this image has 1 channel"
                       : "a PGM file holds one channel; this image has " + std::to_string(channels);
        return false;
    }
    const bool wide = image.depth() == CV_16U;
    const std::string header = std::string(colour ? "P6" : "P5") + "\n" +
                               std::to_string(image.cols) + " " + std::to_string(image.rows) +
                               "\n" + (wide ? "65535" : "255") + "\n";
    const int outChannels = colour ? 3 : 1;
    const size_t rowSamples = size_t(image.cols) * size_t(outChannels);
    out.assign(header.begin(), header.end());
    out.resize(header.size() + rowSamples * size_t(image.rows) * (wide ? 2 : 1));
    uint8_t* p = out.data() + header.size();
    for (int y = 0; y < image.rows; ++y) {
        for (int x = 0; x < image.cols; ++x) {
            for (int c = 0; c < outChannels; ++c) {
                // R, G, B from B, G, R (, C).
                const int from = x * channels + (colour ? 2 - c : 0);
                if (wide) {
                    const uint16_t v = image.ptr<uint16_t>(y)[from];
                    *p++ = static_cast<uint8_t>(v >> 8);
                    *p++ = static_cast<uint8_t>(v & 0xFF);
                } else {
                    *p++ = image.ptr<uint8_t>(y)[from];
                }
            }
        }
    }
    return true;
}

bool BmpComplete(const uint8_t* data, size_t size, std::string& error) {
    constexpr size_t kFileHeader = 14;
    if (size < kFileHeader + 12) {
        error = "the file is damaged or truncated (no BMP header)";
        return false;
    }
    const uint32_t offset = Le32(data + 10);
    const uint32_t infoSize = Le32(data + 14);
    int64_t width = 0;
    int64_t height = 0;
    uint32_t bits = 0;
    uint32_t compression = 0;
    if (infoSize == 12) {
        width = Le16(data + 18);
        height = Le16(data + 20);
        bits = Le16(data + 24);
    } else if (infoSize >= 40 && size >= kFileHeader + 40) {
        width = static_cast<int32_t>(Le32(data + 18));
        height = static_cast<int32_t>(Le32(data + 22));
        bits = Le16(data + 28);
        compression = Le32(data + 30);
    } else {
        error = "the file is damaged or truncated (short BMP header)";
        return false;
    }
    // 0: plain rows; 3 and 6: rows with bit fields. Run-length data have no fixed size.
    if (compression != 0 && compression != 3 && compression != 6) {
        return true;
    }
    const int64_t rows = height < 0 ? -height : height;
    const uint64_t rowBytes = (uint64_t(width < 0 ? 0 : width) * bits + 31) / 32 * 4;
    const uint64_t need = uint64_t(offset) + rowBytes * uint64_t(rows);
    if (width <= 0 || rows == 0 || need > size) {
        error = "the file is damaged or truncated (" + std::to_string(size) + " of " +
                std::to_string(need) + " bytes)";
        return false;
    }
    return true;
}

}  // namespace lumetra::codecs
