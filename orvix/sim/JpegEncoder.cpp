#include "JpegEncoder.h"

#include <csetjmp>
#include <cstdio>

#include <jpeglib.h>

namespace orvix::sim {
namespace {

struct ErrorManager {
    jpeg_error_mgr base;
    std::jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

void onError(j_common_ptr cinfo) {
    auto* err = reinterpret_cast<ErrorManager*>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, err->message);
    std::longjmp(err->jump, 1);
}

void onMessage(j_common_ptr) {}  // warnings stay inside the board

// Writes into the caller's buffer; on overflow it notes it and keeps compressing into a scratch
// area so the encoder finishes cleanly.
struct Destination {
    jpeg_destination_mgr base;
    uint8_t* out;
    size_t capacity;
    bool overflow;
    JOCTET scratch[4096];
};

void initDestination(j_compress_ptr) {}

boolean emptyBuffer(j_compress_ptr cinfo) {
    auto* dest = reinterpret_cast<Destination*>(cinfo->dest);
    dest->overflow = true;
    dest->base.next_output_byte = dest->scratch;
    dest->base.free_in_buffer = sizeof dest->scratch;
    return TRUE;
}

void termDestination(j_compress_ptr) {}

}  // namespace

namespace {

struct Job {
    const uint8_t* frame;
    FrameFormat format;
    int quality;
    uint8_t* out;
    size_t capacity;
    uint8_t* row;  // one row of width x channels bytes, for samples cut to 8 bits
    bool overflow;
    size_t size;
    char error[JMSG_LENGTH_MAX];
};

// Everything the error jump needs lives in `job` or in objects whose address libjpeg holds, so
// nothing in registers can be clobbered by the longjmp.
bool compress(Job* job) {
    jpeg_compress_struct cinfo{};
    ErrorManager err{};
    Destination dest{};
    cinfo.err = jpeg_std_error(&err.base);
    err.base.error_exit = onError;
    err.base.output_message = onMessage;
    if (setjmp(err.jump) != 0) {
        jpeg_destroy_compress(&cinfo);
        std::snprintf(job->error, sizeof job->error, "%s", err.message);
        return false;
    }
    jpeg_create_compress(&cinfo);
    dest.out = job->out;
    dest.capacity = job->capacity;
    dest.base.next_output_byte = job->out;
    dest.base.free_in_buffer = job->capacity;
    dest.base.init_destination = initDestination;
    dest.base.empty_output_buffer = emptyBuffer;
    dest.base.term_destination = termDestination;
    cinfo.dest = &dest.base;

    cinfo.image_width = job->format.width;
    cinfo.image_height = job->format.height;
    cinfo.input_components = static_cast<int>(job->format.channels());
    cinfo.in_color_space = job->format.channels() == 1   ? JCS_GRAYSCALE
                           : job->format.channels() == 3 ? JCS_EXT_BGR
                                                         : JCS_EXT_BGRX;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, job->quality, TRUE);
    jpeg_start_compress(&cinfo, TRUE);
    while (cinfo.next_scanline < cinfo.image_height) {
        const uint8_t* src = job->frame + cinfo.next_scanline * job->format.rowBytes();
        JSAMPROW row = const_cast<JSAMPROW>(src);
        if (job->format.bytesPerSample() == 2) {
            const size_t n = size_t{job->format.width} * job->format.channels();
            const uint32_t drop = job->format.bits - 8;
            for (size_t i = 0; i < n; ++i) {
                auto v = static_cast<uint16_t>(src[2 * i] | (src[2 * i + 1] << 8));
                job->row[i] = static_cast<uint8_t>(v >> drop);
            }
            row = job->row;
        }
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    job->overflow = dest.overflow;
    job->size = job->capacity - dest.base.free_in_buffer;
    jpeg_destroy_compress(&cinfo);
    return true;
}

}  // namespace

JpegResult JpegEncoder::encode(const uint8_t* frame, const FrameFormat& format, int quality,
                               uint8_t* out, size_t capacity) {
    row_.resize(size_t{format.width} * format.channels());
    Job job{frame, format, quality, out, capacity, row_.data(), false, 0, {}};
    JpegResult result;
    if (!compress(&job)) {
        result.error = job.error;
        return result;
    }
    result.overflow = job.overflow;
    result.ok = !job.overflow;
    result.size = job.overflow ? 0 : job.size;
    if (job.overflow) {
        result.error = "the compressed frame does not fit the buffer";
    }
    return result;
}

}  // namespace orvix::sim
