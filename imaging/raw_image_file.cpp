#include "imaging/raw_image_file.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <vector>

namespace lumetra {

namespace {

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

}  // namespace

bool IsRawImagePath(const std::string& path) {
    return path.size() > 4 && Lower(path.substr(path.size() - 4)) == ".raw";
}

bool ReadRawImage(const std::string& path, const RawLayout& layout, ImageBuffer& image,
                  std::string& error) {
    if (layout.width <= 0 || layout.height <= 0) {
        error = "a raw image needs its size";
        return false;
    }
    if (layout.channels != 1 && layout.channels != 3 && layout.channels != 4) {
        error = "a raw image has 1, 3 or 4 channels, not " + std::to_string(layout.channels);
        return false;
    }
    if (layout.bitsPerSample < 8 || layout.bitsPerSample > 16) {
        error = "raw samples have 8 to 16 bits, not " + std::to_string(layout.bitsPerSample);
        return false;
    }
    const int depth = layout.bitsPerSample == 8 ? 8 : 16;
    const uint64_t expected =
        ImageBuffer::ByteSize(depth, layout.channels, layout.width, layout.height);
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    const auto actual = static_cast<uint64_t>(in.tellg());
    if (actual != expected) {
        error = path + " holds " + std::to_string(actual) + " bytes; " +
                std::to_string(layout.width) + " x " + std::to_string(layout.height) + " x " +
                std::to_string(layout.channels) + " samples of " +
                std::to_string(layout.bitsPerSample) + " bits take " + std::to_string(expected);
        return false;
    }
    ImageBuffer read(image.allocator());
    if (!read.TryCreate(depth, layout.channels, layout.width, layout.height)) {
        error = "not enough memory for " + path;
        return false;
    }
    in.seekg(0);
    if (!in.read(reinterpret_cast<char*>(read.data()), static_cast<std::streamsize>(expected))) {
        error = "cannot read " + path;
        return false;
    }
    if (depth == 16) {
        // Little-endian in the file, whatever the machine.
        auto* bytes = read.data();
        for (uint64_t i = 0; i < expected; i += 2) {
            const uint16_t sample = static_cast<uint16_t>(bytes[i] | (bytes[i + 1] << 8));
            std::memcpy(bytes + i, &sample, sizeof sample);
        }
    }
    image = std::move(read);
    return true;
}

bool WriteRawImage(const std::string& path, const cv::Mat& image, std::string& error) {
    if (image.empty() || (image.depth() != CV_8U && image.depth() != CV_16U)) {
        error = "only 8- and 16-bit images can be written raw";
        return false;
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) {
        error = "cannot write " + path + ": the file cannot be made";
        return false;
    }
    const std::size_t rowSamples = static_cast<std::size_t>(image.cols) * image.channels();
    std::vector<char> row(rowSamples * image.elemSize1());
    for (int y = 0; y < image.rows; ++y) {
        if (image.depth() == CV_8U) {
            const uint8_t* s = image.ptr<uint8_t>(y);
            std::copy(s, s + rowSamples, row.begin());
        } else {
            const uint16_t* s = image.ptr<uint16_t>(y);
            for (std::size_t i = 0; i < rowSamples; ++i) {
                row[2 * i] = static_cast<char>(s[i] & 0xFF);
                row[2 * i + 1] = static_cast<char>(s[i] >> 8);
            }
        }
        out.write(row.data(), static_cast<std::streamsize>(row.size()));
    }
    out.close();
    if (!out) {
        error = "cannot write " + path + ": writing failed";
        return false;
    }
    return true;
}

}  // namespace lumetra
