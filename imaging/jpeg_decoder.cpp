#include "imaging/jpeg_decoder.h"

#include <csetjmp>
#include <cstdio>

// jpeglib.h needs FILE and size_t declared before it.
#include <jpeglib.h>
// After jpeglib.h, which it needs.
#include <jerror.h>

#include "base/debug_output.h"

namespace lumetra {
namespace {

// libjpeg reports through longjmp; any warning (a truncated or corrupt stream) counts as failure,
// so a damaged file is never shown half grey. Its messages go to the debug output, never to the
// terminal.
struct JpegErrors {
    jpeg_error_mgr manager;
    std::jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
    bool warned;
};

void Debug(const char* kind, const char* text) {
    char line[JMSG_LENGTH_MAX + 32];
    std::snprintf(line, sizeof line, "libjpeg %s: %s", kind, text);
    DebugOutput(line);
}

void JpegErrorExit(j_common_ptr info) {
    auto* errors = reinterpret_cast<JpegErrors*>(info->err);
    (*info->err->format_message)(info, errors->message);
    Debug("error", errors->message);
    std::longjmp(errors->jump, 1);
}

void JpegEmitMessage(j_common_ptr info, int level) {
    auto* errors = reinterpret_cast<JpegErrors*>(info->err);
    if (level >= 0) {
        return;  // trace messages
    }
    char text[JMSG_LENGTH_MAX];
    (*info->err->format_message)(info, text);
    Debug("warning", text);
    if (!errors->warned) {
        errors->warned = true;
        std::snprintf(errors->message, sizeof errors->message, "%s", text);
    }
}

// No object with a destructor may live in this frame: longjmp skips destructors.
bool DecodeJpegInto(const uint8_t* data, size_t size, const JpegShape* expected, cv::Mat* image,
                    char* reason, size_t reasonSize) {
    jpeg_decompress_struct info;
    JpegErrors errors;
    info.err = jpeg_std_error(&errors.manager);
    errors.manager.error_exit = JpegErrorExit;
    errors.manager.emit_message = JpegEmitMessage;
    errors.warned = false;
    errors.message[0] = '\0';
    if (setjmp(errors.jump) != 0) {
        if (errors.manager.msg_code == JERR_NO_BACKING_STORE) {
            std::snprintf(reason, reasonSize, "a %u x %u picture is too large", info.image_width,
                          info.image_height);
        } else {
            std::snprintf(reason, reasonSize, "%s", errors.message);
        }
        jpeg_destroy_decompress(&info);
        return false;
    }
    jpeg_create_decompress(&info);
    // A progressive picture is gathered whole before its first row comes out: it may take this
    // much (some 350 megapixels), and a larger claim fails at once instead of filling memory.
    info.mem->max_memory_to_use = 2L << 30;
    jpeg_mem_src(&info, data, static_cast<unsigned long>(size));
    jpeg_read_header(&info, TRUE);
    int channels = 0;
    if (info.num_components == 1) {
        info.out_color_space = JCS_GRAYSCALE;
        channels = 1;
    } else if (info.num_components == 3) {
        info.out_color_space = JCS_EXT_BGR;
        channels = 3;
    } else {
        jpeg_destroy_decompress(&info);
        std::snprintf(reason, reasonSize, "unsupported JPEG colour layout (%d components)",
                      info.num_components);
        return false;
    }
    if (expected != nullptr && (info.image_width != static_cast<JDIMENSION>(expected->width) ||
                                info.image_height != static_cast<JDIMENSION>(expected->height) ||
                                channels != expected->channels)) {
        jpeg_destroy_decompress(&info);
        std::snprintf(reason, reasonSize,
                      "the picture is %u x %u with %d channel(s), the frame %d x %d with %d",
                      info.image_width, info.image_height, channels, expected->width,
                      expected->height, expected->channels);
        return false;
    }
    // A few hundred bytes may claim 65500 x 65500 pixels. Huffman-coded sequential data spend at
    // least two bits on every 8 x 8 block (a DC code and an end of block), so such a claim is
    // refused before anything is allocated; otherwise the picture may not be had, and decoding
    // stops at the first sign that the data have run out rather than fill gigabytes with
    // nothing.
    if (!info.progressive_mode && !info.arith_code) {
        const uint64_t blocks =
            uint64_t((info.image_width + 7) / 8) * uint64_t((info.image_height + 7) / 8);
        if (blocks / 4 > size) {
            jpeg_destroy_decompress(&info);
            std::snprintf(reason, reasonSize, "too little data for a %u x %u picture",
                          info.image_width, info.image_height);
            return false;
        }
    }
    jpeg_start_decompress(&info);
    try {
        image->create(int(info.output_height), int(info.output_width),
                      CV_MAKETYPE(CV_8U, channels));
    } catch (...) {
        jpeg_destroy_decompress(&info);
        std::snprintf(reason, reasonSize, "no memory for a %u x %u picture", info.output_width,
                      info.output_height);
        return false;
    }
    while (info.output_scanline < info.output_height && !errors.warned) {
        JSAMPROW row = image->ptr(int(info.output_scanline));
        jpeg_read_scanlines(&info, &row, 1);
    }
    if (!errors.warned) {
        jpeg_finish_decompress(&info);
    }
    const bool warned = errors.warned;
    if (warned) {
        std::snprintf(reason, reasonSize, "%s", errors.message);
    }
    jpeg_destroy_decompress(&info);
    return !warned;
}

}  // namespace

bool DecodeJpeg(const uint8_t* data, size_t size, cv::Mat& image, std::string& error,
                const JpegShape* expected) {
    char reason[JMSG_LENGTH_MAX + 96] = {};
    cv::Mat decoded;
    if (!DecodeJpegInto(data, size, expected, &decoded, reason, sizeof reason)) {
        error = std::string("the JPEG data are damaged or truncated (") + reason + ")";
        return false;
    }
    image = decoded;
    return true;
}

}  // namespace lumetra
