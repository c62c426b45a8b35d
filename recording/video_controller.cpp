#include "recording/video_controller.h"

#include <algorithm>

#include "recording/recording_settings.h"

namespace lumetra {

std::string_view VideoResultText(int code, bool stopOnError) {
    switch (code) {
        case video::kSuccess:
            return "Video saved successfully";
        case video::kOutOfMemory:
            return "Out of memory, waiting for the image to save ...";
        case video::kWriteFailed:
            return stopOnError ? "Failed to write data, Exit saving"
                               : "Failed to write data,  Let's save it next time";
        case video::kFileTooLarge:
            return stopOnError ? "Save video file is too large, Exit save"
                               : "Save video file is too large, Let's save it next time";
        default:
            return {};
    }
}

std::string DefaultVideoFileName(const std::tm& localTime) {
    char name[64];
    std::strftime(name, sizeof name, "Video_%Y%m%d_%H%M%S.h264", &localTime);
    return name;
}

double DocumentVideoHost::frameRate() {
    if (!doc_.hasBoard() || doc_.library() == nullptr) {
        return 0.0;
    }
    double rate = 0.0;
    if (doc_.library()->GetFrameRate(doc_.handle(), &rate) != ORVIX_SUCCESS) {
        return 0.0;
    }
    // A line-scan board measures lines.
    if (doc_.parameters().get(ORVIX_SCAN_TYPE) == 1) {
        const uint32_t height = doc_.imageFormat().height;
        rate = height != 0 ? rate / height : 0.0;
    }
    return rate;
}

VideoGeometry DocumentVideoHost::geometry() {
    const ImageFormatRecord& f = doc_.imageFormat();
    VideoGeometry g;
    g.width = static_cast<int>(f.width);
    g.height = static_cast<int>(f.height);
    g.imageType = static_cast<int>(doc_.parameters().imageType());
    g.bitsPerSample = f.channels != 0 ? static_cast<int>(f.bitsPerPixel / f.channels) : 8;
    return g;
}

bool DocumentVideoHost::continuousGrabRunning() {
    return doc_.grabEngine().continuousRunning();
}

bool DocumentVideoHost::boardCompresses() {
    return doc_.grabEngine().jpegFlag;
}

void VideoController::OnContinuousGrabStarted() {
    recorder_.setBoardCompresses(host_.boardCompresses());
}

bool VideoController::Open(const std::string& path, double rate) {
    const VideoGeometry g = host_.geometry();
    return recorder_.OpenEncoder(path, g.width, g.height, g.imageType, g.bitsPerSample, rate);
}

bool VideoController::Start(const std::string& path) {
    double rate = host_.frameRate();
    const VideoRateSettings caps = ReadVideoRateSettings(settings_);
    if (!caps.limit) {
        recorder_.setStopOnError(true);
    } else {
        recorder_.setStopOnError(false);
        rate = std::min(rate, caps.cap);
    }
    if (!(rate > 0)) {
        prompt_.information(kVideoRateZeroText);
        return false;
    }
    basePath_ = path;
    failures_ = 0;
    recorder_.resetFileCounter();
    if (!Open(recorder_.NextFileName(basePath_), rate)) {
        prompt_.information(kVideoCreateFailedText);
        return false;
    }
    return true;
}

void VideoController::HandleResult(intptr_t code) {
    const bool stopOnError = recorder_.stopOnError();
    const std::string_view text = VideoResultText(static_cast<int>(code), stopOnError);
    if (text.empty()) {
        return;  // not a code the recorder posts
    }
    log_.log(text);
    if (code != video::kSuccess) {
        ++failures_;
    }
    if (code == video::kSuccess || stopOnError || !host_.continuousGrabRunning()) {
        return;
    }
    const std::string next = recorder_.NextFileName(basePath_);
    const double rate = std::max(recorder_.rate() * 0.5, 1.0);
    if (!Open(next, rate)) {
        log_.log(kVideoCreateFailedText);
    }
}

}  // namespace lumetra
