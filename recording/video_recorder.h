// The H.264 recorder: frames copied out of the grab callback into a queue, encoded by a worker
// with x264 and written straight to a raw elementary stream file. One per board document.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "acquisition/grab_engine.h"
#include "base/auto_reset_event.h"
#include "base/clock.h"
#include "base/messages.h"
#include "recording/system_status.h"

namespace lumetra {

// Result codes, posted with message 0x496.
namespace video {
inline constexpr int kSuccess = 0;
inline constexpr int kOutOfMemory = 1;
inline constexpr int kWriteFailed = 2;
inline constexpr int kFileTooLarge = 3;

// A file may hold at most this many bytes; the start check wants more free space than this.
inline constexpr int64_t kFileLimit = 0x7FFFFFFF;
inline constexpr uint64_t kMinFreeBytes = 0x7FFFFFFF;
// Memory load in percent above which frames are refused.
inline constexpr int kMemoryLoadLimit = 90;
}  // namespace video

// Samples per pixel of the frames of an image type as the recorder reads them.
int VideoChannels(int imageType);

// Shifts 16-bit little-endian samples right by shift into 8-bit samples.
void ShiftTo8Bits(const uint16_t* src, uint8_t* dst, size_t count, int shift);

struct RecorderLinks {
    MessageSink* sink = nullptr;     // the main frame; may be null
    Clock* clock = nullptr;          // null: the steady clock
    SystemStatus* system = nullptr;  // null: the host's
};

// Thread: OpenEncoder, Stop and NextFileName on the user-interface thread; PushFrame (and push)
// on the board library's callback thread; the worker on its own. The worker's last act is posting
// 0x496: whoever handles it finds the file closed and every figure final. running() drops
// earlier, as soon as frames are refused.
class VideoRecorder final : public FrameConsumer {
  public:
    explicit VideoRecorder(const RecorderLinks& links = {});
    ~VideoRecorder() override;
    VideoRecorder(const VideoRecorder&) = delete;
    VideoRecorder& operator=(const VideoRecorder&) = delete;

    // Ends any previous file, checks the disk, opens the file and the encoder and starts the
    // worker. False (nothing running) on any failure.
    bool OpenEncoder(const std::string& path, int width, int height, int imageType,
                     int bitsPerSample, double rate);
    // Queues a copy of the frame; false when refused or dropped by pacing.
    bool PushFrame(const void* frame, size_t size);
    // Ends recording: no frame is taken any more, the frames already queued are encoded, the
    // file is flushed and closed. Waits for the worker without a time limit.
    void Stop();

    // The first call after setBasePath returns the path itself; later ones "NAME_%d.h264" with
    // the first number whose file does not exist yet.
    std::string NextFileName(const std::string& path);
    void resetFileCounter() { fileCounter_ = 0; }
    int fileCounter() const { return fileCounter_; }

    // FrameConsumer.
    bool wantsFrames() const override { return running_; }
    void push(const void* address, size_t size, bool jpeg) override;
    void stop() override { Stop(); }

    // Set at each continuous grab start from the board's frame compression parameter.
    void setBoardCompresses(bool compresses) { boardCompresses_ = compresses; }
    bool boardCompresses() const { return boardCompresses_; }
    // Set when frame-rate capping is off: errors then end the recording and frames are not paced.
    void setStopOnError(bool stop) { stopOnError_ = stop; }
    bool stopOnError() const { return stopOnError_; }

    bool running() const { return running_; }
    int result() const { return result_; }
    double rate() const { return rate_; }
    int width() const { return width_; }
    int height() const { return height_; }
    int imageType() const { return imageType_; }
    int bitsPerSample() const { return bitsPerSample_; }
    const std::string& path() const { return path_; }

    // Figures of the current file. Thread: any.
    uint64_t framesQueued() const { return framesQueued_; }
    uint64_t framesEncoded() const { return framesEncoded_; }
    int64_t bytesWritten() const { return bytesWritten_; }
    size_t queueCount() const;

    // Seam for tests: the most a file may hold before result 3.
    void setFileLimit(int64_t limit) { fileLimit_ = limit; }

  private:
    struct Encoder;
    struct Node {
        std::unique_ptr<uint8_t[]> bytes;
        size_t size = 0;
    };

    size_t FrameBytes() const;
    void EndWorker(bool report);
    void WorkerLoop();
    bool EncodeFrame(const uint8_t* frame);
    bool WritePayload(const uint8_t* data, int size);
    void Close();
    bool PopFront(Node& node);
    void Recycle(Node& node);
    void post(intptr_t code);

    RecorderLinks links_;
    Clock& clock_;
    SystemStatus& system_;

    std::atomic<bool> running_{false};
    std::atomic<bool> boardCompresses_{false};
    std::atomic<bool> stopOnError_{false};
    std::atomic<int> result_{video::kSuccess};
    std::atomic<bool> reportOnExit_{true};

    // Written by OpenEncoder with pushMutex_ held, read by PushFrame under the same lock and by
    // the worker, which only exists while they stay put.
    std::mutex pushMutex_;
    double rate_ = 0.0;
    int width_ = 0;
    int height_ = 0;
    int imageType_ = 0;
    int bitsPerSample_ = 8;
    int acceptedFrames_ = 0;
    Clock::time_point startTime_{};

    std::string path_;
    int fileCounter_ = 0;
    std::atomic<int64_t> fileLimit_{video::kFileLimit};

    // The worker's: encoder state, output file, scratch plane, bytes written.
    std::unique_ptr<Encoder> encoder_;
    FILE* file_ = nullptr;
    std::vector<char> fileBuffer_;
    std::vector<uint8_t> scratch_;
    std::atomic<int64_t> bytesWritten_{0};
    std::atomic<uint64_t> framesQueued_{0};
    std::atomic<uint64_t> framesEncoded_{0};

    mutable std::mutex queueMutex_;
    std::deque<Node> queue_;
    size_t queueCount_ = 0;
    // Frame blocks the worker is done with, kept for the next pushes: a steady stream then
    // allocates (and faults in) no memory per frame.
    std::vector<std::unique_ptr<uint8_t[]>> spare_;
    AutoResetEvent wake_;
    std::thread worker_;
};

}  // namespace lumetra
