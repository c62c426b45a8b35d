// "Save Image": the Frame image is copied under its lock and written by a worker, so that the
// user-interface thread never waits for the disk. The busy flag greys the command meanwhile.
#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <thread>

#include <opencv2/core/mat.hpp>

#include "base/messages.h"
#include "imaging/frame_image.h"
#include "recording/image_files.h"

namespace lumetra {

// What the main frame logs on message 0x4A0.
inline constexpr std::string_view kImageSavedText = "Image saved successfully";

class ImageSaveWorker {
  public:
    // log gets the failures (with path and reason); sink gets 0x4A0 after each success.
    ImageSaveWorker(MessageLog& log, MessageSink* sink) : log_(log), sink_(sink) {}
    ~ImageSaveWorker() { Wait(); }
    ImageSaveWorker(const ImageSaveWorker&) = delete;
    ImageSaveWorker& operator=(const ImageSaveWorker&) = delete;

    // Copies the Frame image and starts the save. False (nothing started) while a save is under
    // way or when there is no frame. Thread: the user-interface thread.
    bool SaveFrame(FrameImage& frame, const std::string& path, ImageSaveOptions options);
    // The same for an image already copied.
    bool Save(cv::Mat image, const std::string& path, const ImageSaveOptions& options);

    // False again as the worker's last act, after its log line or 0x4A0.
    bool busy() const { return busy_.load(std::memory_order_acquire); }
    // Waits for the save under way, if any. Thread: the user-interface thread.
    void Wait();
    // Whether the last finished save succeeded.
    bool lastSucceeded() const { return lastSucceeded_; }

  private:
    void Run(cv::Mat image, std::string path, ImageSaveOptions options);

    MessageLog& log_;
    MessageSink* sink_;
    std::atomic<bool> busy_{false};
    std::atomic<bool> lastSucceeded_{false};
    std::thread worker_;
};

}  // namespace lumetra
