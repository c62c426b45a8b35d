#include "recording/image_save_worker.h"

#include <system_error>

namespace lumetra {

bool ImageSaveWorker::SaveFrame(FrameImage& frame, const std::string& path,
                                ImageSaveOptions options) {
    if (busy_) {
        return false;
    }
    FrameSnapshot snapshot;
    if (!SnapshotFrame(frame, snapshot)) {
        log_.log(SaveFailedText(path, "there is no image"));
        return false;
    }
    options.significantBits = snapshot.bitsPerSample;
    return Save(std::move(snapshot.pixels), path, options);
}

bool ImageSaveWorker::Save(cv::Mat image, const std::string& path,
                           const ImageSaveOptions& options) {
    if (busy_.exchange(true)) {
        return false;
    }
    if (worker_.joinable()) {
        worker_.join();  // the previous save has finished: busy was clear
    }
    try {
        worker_ = std::thread([this, image = std::move(image), path, options]() mutable {
            Run(std::move(image), std::move(path), options);
        });
    } catch (const std::system_error& e) {
        busy_ = false;
        log_.log(SaveFailedText(path, std::string("no worker thread (") + e.what() + ")"));
        return false;
    }
    return true;
}

void ImageSaveWorker::Run(cv::Mat image, std::string path, ImageSaveOptions options) {
    std::string error;
    const bool ok = SaveImageFile(image, path, options, error);
    lastSucceeded_ = ok;
    if (!ok) {
        log_.log(SaveFailedText(path, error));
    } else if (sink_ != nullptr) {
        sink_->post(msg::kImageSaved, 0, 0);
    }
    // Last: whoever sees the worker idle sees its report too.
    busy_.store(false, std::memory_order_release);
}

void ImageSaveWorker::Wait() {
    if (worker_.joinable()) {
        worker_.join();
    }
}

}  // namespace lumetra
