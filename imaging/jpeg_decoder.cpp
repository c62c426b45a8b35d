#include "imaging/jpeg_decoder.h"

#include <csetjmp>
#include <cstdio>

// jpeglib.h needs FILE and size_t declared before it.
#include <jpeglib.h>

namespace lumetra {
namespace {

// libjpeg reports through longjmp; any warning (a truncated or corrupt stream) counts as failure,
// so a damaged file is never shown half grey.
struct JpegErrors {
    jpeg_error_mgr manager;
    std::jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
    bool warned;
};

void JpegErrorExit(j_common_ptr info) {
    auto* errors = reinterpret_cast<JpegErrors*>(info->err);
    (*info->err->format_message)(info, errors->message);
    std::longjmp(errors->jump, 1);
}

void JpegEmitMessage(j_common_ptr info, int level) {
    auto* errors = reinterpret_cast<JpegErrors*>(info->err);
    if (level < 0 && !errors->warned) {
        errors->warned = true;
        (*info->err->format_message)(info, errors->message);
    }
}

// No object with a destructor may live in this frame: longjmp skips destructors.
bool DecodeJpegInto(const uint8_t* data, size_t size, cv::Mat* image, char* reason,
                    size_t reasonSize) {
    jpeg_decompress_struct info;
    JpegErrors errors;
    info.err = jpeg_std_error(&errors.manager);
    errors.manager.error_exit = JpegErrorExit;
    errors.manager.emit_message = JpegEmitMessage;
    errors.warned = false;
    errors.message[0] = '\0';
    if (setjmp(errors.jump) != 0) {
        jpeg_destroy_decompress(&info);
        std::snprintf(reason, reasonSize, "%s", errors.message);
        return false;
    }
    jpeg_create_decompress(&info);
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
    jpeg_start_decompress(&info);
    image->create(int(info.output_height), int(info.output_width), CV_MAKETYPE(CV_8U, channels));
    while (info.output_scanline < info.output_height) {
        JSAMPROW row = image->ptr(int(info.output_scanline));
        jpeg_read_scanlines(&info, &row, 1);
    }
    jpeg_finish_decompress(&info);
    const bool warned = errors.warned;
    if (warned) {
        std::snprintf(reason, reasonSize, "%s", errors.message);
    }
    jpeg_destroy_decompress(&info);
    return !warned;
}

}  // namespace

bool DecodeJpeg(const uint8_t* data, size_t size, cv::Mat& image, std::string& error) {
    char reason[JMSG_LENGTH_MAX + 64] = {};
    cv::Mat decoded;
    if (!DecodeJpegInto(data, size, &decoded, reason, sizeof reason)) {
        error = std::string("the JPEG data are damaged or truncated (") + reason + ")";
        return false;
    }
    image = decoded;
    return true;
}

}  // namespace lumetra
