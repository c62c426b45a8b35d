#include "recording/video_encoder_params.h"

namespace lumetra {

int VideoBitRate(int width, double rate) {
    // Integers first, then double; the height is left out on purpose.
    const int64_t widthUnits = int64_t{width} * 4000;
    const auto perSecond = static_cast<int64_t>(static_cast<double>(widthUnits) * rate / 30.0);
    return static_cast<int>(perSecond / 1000);
}

int VideoColourSpace(int imageType) {
    switch (imageType) {
        case 0:
            return X264_CSP_I400;
        case 1:
            return X264_CSP_BGR;
        case 2:
        case 4:
            return X264_CSP_BGRA;
        case 3:
            return X264_CSP_RGB;
        default:
            return -1;
    }
}

bool SetVideoEncoderParams(x264_param_t& p, int width, int height, int imageType, double rate) {
    if (x264_param_default_preset(&p, "ultrafast", "zerolatency") < 0) {
        return false;
    }
    p.i_width = width;
    p.i_height = height;
    p.i_bitdepth = 8;
    p.i_threads = X264_THREADS_AUTO;
    p.i_bframe_pyramid = 2;
    p.rc.i_rc_method = X264_RC_ABR;
    p.rc.i_qp_constant = 18;
    const int bitRate = VideoBitRate(width, rate);
    p.rc.i_bitrate = bitRate;
    p.rc.i_vbv_max_bitrate = 2 * bitRate;
    p.rc.i_vbv_buffer_size = bitRate;
    p.b_repeat_headers = 1;
    p.b_vfr_input = 0;
    p.i_fps_num = static_cast<uint32_t>(rate);
    const int csp = VideoColourSpace(imageType);
    if (csp >= 0) {
        p.i_csp = csp;
    }
    // Grey frames carry every level 0 to 255; a limited-range flag would make players stretch them.
    if (p.i_csp == X264_CSP_I400) {
        p.vui.b_fullrange = 1;
    }
    p.i_log_level = X264_LOG_ERROR;
    return x264_param_apply_profile(&p, "high444") >= 0;
}

}  // namespace lumetra
