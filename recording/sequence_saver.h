// Numbered image sequences: while enabled, the grab engine hands every frame to the saver, which
// copies it into a bounded queue; its own worker writes the files "BASE-NNNN.EXT", numbered from
// 1, until the requested count is saved. Frames that arrive while the queue is full are counted
// as missed, never waited for: the callback thread must not stall.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "acquisition/grab_engine.h"
#include "base/messages.h"
#include "imaging/frame_image.h"
#include "recording/image_files.h"

namespace lumetra {

// "%s-%04d.%s": base (folder and name), number, extension.
std::string SequenceFileName(const std::string& base, int number, const std::string& extension);

struct SequenceRequest {
    std::string base;       // folder and name without number or extension
    std::string extension;  // bmp, jpg, png, tif or raw
    int count = 0;
    // The frames as the board delivers them.
    int width = 0;
    int height = 0;
    int channels = 1;
    int depth = 8;          // 8 or 16 bits per held sample
    int bitsPerSample = 8;  // bits a sample carries
    ImageSaveOptions options;
    // Frames that may wait for the disk; 0: as many as fit in 256 MiB, 2 to 64.
    size_t queueFrames = 0;

    // Geometry from the Frame image's format.
    void setGeometry(const FrameFormat& format);
    uint64_t frameBytes() const;
};

// Splits "DIR/NAME.EXT" into a base "DIR/NAME" and the extension "EXT".
bool SplitSequencePath(const std::string& path, std::string& base, std::string& extension);

// Thread: Start and Stop on the user-interface thread; wantsFrames and push on the board
// library's callback thread; the writing on the saver's worker.
class SequenceSaver final : public FrameConsumer {
  public:
    explicit SequenceSaver(MessageLog& log) : log_(log) {}
    ~SequenceSaver() override { Stop(); }
    SequenceSaver(const SequenceSaver&) = delete;
    SequenceSaver& operator=(const SequenceSaver&) = delete;

    // Ends any sequence under way, takes the queue memory and starts the worker. False with the
    // reason in error.
    bool Start(const SequenceRequest& request, std::string& error);
    // Takes no more frames, writes those queued and waits for the worker.
    void Stop();

    // FrameConsumer.
    bool wantsFrames() const override;
    void push(const void* address, size_t size, bool jpeg) override;
    void stop() override { Stop(); }

    bool enabled() const { return enabled_; }
    // Whether the worker has ended: the count is saved, a write failed, or Stop ran. Its last
    // act: whoever reads true sees the final counters and the summary line already logged.
    bool finished() const { return finished_.load(std::memory_order_acquire); }
    int requested() const { return requested_; }
    int accepted() const { return accepted_; }
    int saved() const { return saved_; }
    // Frames offered while the queue was full (or unusable): the saver could not keep up.
    int missed() const { return missed_; }
    int failed() const { return failed_; }
    size_t queueCapacity() const { return capacity_; }
    size_t queued() const;

    // Seam for tests: what writes one file (SaveImageFile by default). Set before Start.
    using Writer = std::function<bool(const cv::Mat& image, const std::string& path,
                                      const ImageSaveOptions& options, std::string& error)>;
    void setWriter(Writer writer) { writer_ = std::move(writer); }

  private:
    struct Buffer {
        std::unique_ptr<uint8_t[]> bytes;
        size_t capacity = 0;
    };
    struct Slot {
        Buffer buffer;
        size_t size = 0;
        bool jpeg = false;
        int number = 0;
    };

    void WorkerLoop();
    bool Write(const Slot& slot);

    MessageLog& log_;
    Writer writer_ = SaveImageFile;
    SequenceRequest request_;
    size_t frameBytes_ = 0;
    size_t capacity_ = 0;

    std::atomic<bool> enabled_{false};
    std::atomic<bool> finished_{true};
    std::atomic<int> requested_{0};
    std::atomic<int> accepted_{0};
    std::atomic<int> saved_{0};
    std::atomic<int> missed_{0};
    std::atomic<int> failed_{0};

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    int inFlight_ = 0;  // frames taken by push but not queued yet
    std::vector<Buffer> free_;
    std::deque<Slot> queue_;
    std::thread worker_;
};

}  // namespace lumetra
