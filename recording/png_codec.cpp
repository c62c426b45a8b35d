// PNG with libpng: its warnings and errors go to the debug output; an error ends the call through
// libpng's longjmp and becomes the reason.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include <png.h>

#include "base/debug_output.h"
#include "recording/image_codecs.h"

namespace lumetra::codecs {
namespace {

struct PngState {
    // Reading: the bytes and how far they have been read. Writing: where the bytes go.
    const uint8_t* data = nullptr;
    size_t size = 0;
    size_t at = 0;
    std::vector<uint8_t>* out = nullptr;
    char message[256] = {};
};

PngState& StateOf(png_structp png) {
    return *static_cast<PngState*>(png_get_error_ptr(png));
}

[[noreturn]] void OnPngError(png_structp png, png_const_charp text) {
    PngState& state = StateOf(png);
    std::snprintf(state.message, sizeof state.message, "%s", text);
    DebugOutput(std::string("libpng error: ") + text);
    png_longjmp(png, 1);
}

void OnPngWarning(png_structp, png_const_charp text) {
    DebugOutput(std::string("libpng warning: ") + text);
}

void ReadBytes(png_structp png, png_bytep to, size_t n) {
    auto& state = *static_cast<PngState*>(png_get_io_ptr(png));
    if (state.size - state.at < n) {
        png_error(png, "the data end early");
    }
    std::memcpy(to, state.data + state.at, n);
    state.at += n;
}

void WriteBytes(png_structp png, png_bytep from, size_t n) {
    auto& state = *static_cast<PngState*>(png_get_io_ptr(png));
    state.out->insert(state.out->end(), from, from + n);
}

void Flush(png_structp) {}

// No object with a destructor may live in these frames: longjmp skips destructors. The rows and
// the image belong to the caller.
bool EncodeInto(const cv::Mat* image, int level, PngState* state, std::vector<png_bytep>* rows) {
    png_structp png =
        png_create_write_struct(PNG_LIBPNG_VER_STRING, state, OnPngError, OnPngWarning);
    if (png == nullptr) {
        std::snprintf(state->message, sizeof state->message, "out of memory");
        return false;
    }
    png_infop info = png_create_info_struct(png);
    if (info == nullptr || setjmp(png_jmpbuf(png)) != 0) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_set_write_fn(png, state, WriteBytes, Flush);
    const int channels = image->channels();
    const int bits = image->depth() == CV_16U ? 16 : 8;
    png_set_IHDR(png, info, png_uint_32(image->cols), png_uint_32(image->rows), bits,
                 channels == 1 ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(png, std::clamp(level, 0, 9));
    // The sub filter alone: most of what the adaptive choice gains on camera frames, at a
    // fraction of its cost.
    png_set_filter(png, PNG_FILTER_TYPE_BASE, level <= 3 ? PNG_FILTER_SUB : PNG_ALL_FILTERS);
    png_write_info(png, info);
    if (bits == 16) {
        png_set_swap(png);  // the words are little-endian, PNG's big-endian
    }
    if (channels == 3) {
        png_set_bgr(png);
    }
    // libpng copies each row before it transforms it: the image is only read.
    png_write_image(png, rows->data());
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return true;
}

bool DecodeInto(PngState* state, cv::Mat* image, std::vector<png_bytep>* rows) {
    png_structp png =
        png_create_read_struct(PNG_LIBPNG_VER_STRING, state, OnPngError, OnPngWarning);
    if (png == nullptr) {
        std::snprintf(state->message, sizeof state->message, "out of memory");
        return false;
    }
    png_infop info = png_create_info_struct(png);
    if (info == nullptr || setjmp(png_jmpbuf(png)) != 0) {
        png_destroy_read_struct(&png, &info, nullptr);
        return false;
    }
    png_set_read_fn(png, state, ReadBytes);
    png_read_info(png, info);
    png_uint_32 width = 0;
    png_uint_32 height = 0;
    int bitDepth = 0;
    int colourType = 0;
    png_get_IHDR(png, info, &width, &height, &bitDepth, &colourType, nullptr, nullptr, nullptr);
    if (colourType == PNG_COLOR_TYPE_PALETTE) {
        png_set_palette_to_rgb(png);
    }
    if (colourType == PNG_COLOR_TYPE_GRAY && bitDepth < 8) {
        png_set_expand_gray_1_2_4_to_8(png);
    }
    const bool transparency = png_get_valid(png, info, PNG_INFO_tRNS) != 0;
    if (transparency) {
        png_set_tRNS_to_alpha(png);
    }
    // Grey with alpha comes out as colour with alpha, as OpenCV reads it.
    if (colourType == PNG_COLOR_TYPE_GRAY_ALPHA ||
        (colourType == PNG_COLOR_TYPE_GRAY && transparency)) {
        png_set_gray_to_rgb(png);
    }
    if (bitDepth == 16) {
        png_set_swap(png);
    }
    png_set_bgr(png);
    png_set_interlace_handling(png);
    png_read_update_info(png, info);
    const int channels = png_get_channels(png, info);
    const int depth = png_get_bit_depth(png, info);
    if ((depth != 8 && depth != 16) || channels < 1 || channels > 4 || channels == 2) {
        std::snprintf(state->message, sizeof state->message, "unsupported layout");
        png_destroy_read_struct(&png, &info, nullptr);
        return false;
    }
    // Deflate packs at most 1032 bytes into one: a file too short for its rows is refused before
    // the gigabytes a few hundred bytes may claim are asked for.
    const uint64_t rowBytes = uint64_t(png_get_rowbytes(png, info)) + 1;
    if (uint64_t(height) * rowBytes > (uint64_t(state->size) + 1024) * 1032) {
        std::snprintf(state->message, sizeof state->message,
                      "too little data for a %u x %u picture", unsigned(width), unsigned(height));
        png_destroy_read_struct(&png, &info, nullptr);
        return false;
    }
    try {
        image->create(int(height), int(width), CV_MAKETYPE(depth == 16 ? CV_16U : CV_8U, channels));
    } catch (...) {
        std::snprintf(state->message, sizeof state->message, "no memory for a %u x %u picture",
                      unsigned(width), unsigned(height));
        png_destroy_read_struct(&png, &info, nullptr);
        return false;
    }
    rows->resize(height);
    for (png_uint_32 y = 0; y < height; ++y) {
        (*rows)[y] = image->ptr(int(y));
    }
    png_read_image(png, rows->data());
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    return true;
}

}  // namespace

bool EncodePng(const cv::Mat& image, int level, std::vector<uint8_t>& out, std::string& error) {
    cv::Mat pixels = image;
    if (image.channels() == 4) {
        // PNG's fourth sample would be alpha; the C sample is not.
        const int pairs[] = {0, 0, 1, 1, 2, 2};
        pixels.create(image.rows, image.cols, CV_MAKETYPE(image.depth(), 3));
        cv::mixChannels(&image, 1, &pixels, 1, pairs, 3);
    }
    std::vector<png_bytep> rows(size_t(pixels.rows));
    for (int y = 0; y < pixels.rows; ++y) {
        rows[size_t(y)] = const_cast<png_bytep>(pixels.ptr(y));
    }
    out.clear();
    out.reserve(pixels.total() * pixels.elemSize() / 2 + 1024);
    PngState state;
    state.out = &out;
    if (!EncodeInto(&pixels, level, &state, &rows)) {
        error = std::string("the image cannot be encoded (") + state.message + ")";
        return false;
    }
    return true;
}

bool DecodePng(const uint8_t* data, size_t size, cv::Mat& image, std::string& error) {
    PngState state;
    state.data = data;
    state.size = size;
    cv::Mat decoded;
    std::vector<png_bytep> rows;
    if (!DecodeInto(&state, &decoded, &rows)) {
        const std::string reason = state.message;
        error = reason == "unsupported layout"
                    ? "unsupported PNG layout"
                    : "the file is damaged or truncated (" + reason + ")";
        return false;
    }
    image = decoded;
    return true;
}

}  // namespace lumetra::codecs
