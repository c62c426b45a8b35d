// Numbered image sequences: while enabled, the grab engine hands every frame to the saver, which
// copies it into a queue bounded in bytes; encoder workers (one per core by default) write the
// files "BASE-NNNN.EXT", numbered from 1 in the order the frames came, until the requested count
// is saved. Frames that arrive while the queue is full are counted as missed, never waited for:
// the callback thread must not stall.
//
// Each file is written beside its name and put in place only after every file before it, so
// that the saved files are always 1 to saved(), however the workers finish. A file that cannot be
// written ends the sequence: the files before it stay, none after it appears, and one line names
// the file, the reason and how many were saved.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
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

// What the queue may hold when the request does not say: an eighth of the physical memory,
// between 256 MiB and 2 GiB.
uint64_t DefaultSequenceQueueBytes(uint64_t totalPhysicalBytes);

struct SequenceRequest {
    std::string base;       // folder and name without number or extension
    std::string extension;  // bmp, jpg, png, tif, raw, pgm or ppm
    int count = 0;
    // The frames as the board delivers them.
    int width = 0;
    int height = 0;
    int channels = 1;
    int depth = 8;          // 8 or 16 bits per held sample
    int bitsPerSample = 8;  // bits a sample carries
    ImageSaveOptions options;
    // Bytes the frames waiting for the disk (and those being written) may take; 0: the default
    // for this machine's memory.
    uint64_t queueBytes = 0;
    // Encoder workers; 0: one per core.
    int workers = 0;

    // Geometry from the Frame image's format.
    void setGeometry(const FrameFormat& format);
    uint64_t frameBytes() const;
};

// Splits "DIR/NAME.EXT" into a base "DIR/NAME" and the extension "EXT".
bool SplitSequencePath(const std::string& path, std::string& base, std::string& extension);

// Thread: Start and Stop on the user-interface thread; wantsFrames and push on the board
// library's callback threads; the encoding on the saver's workers; the counters anywhere.
class SequenceSaver final : public FrameConsumer {
  public:
    explicit SequenceSaver(MessageLog& log) : log_(log) {}
    ~SequenceSaver() override { Stop(); }
    SequenceSaver(const SequenceSaver&) = delete;
    SequenceSaver& operator=(const SequenceSaver&) = delete;

    // Ends any sequence under way, checks the request and the folder and starts the workers.
    // False with the reason in error.
    bool Start(const SequenceRequest& request, std::string& error);
    // Takes no more frames, writes those queued and waits for the workers.
    void Stop();

    // FrameConsumer.
    bool wantsFrames() const override;
    void push(const void* address, size_t size, bool jpeg) override;
    void stop() override { Stop(); }

    bool enabled() const { return enabled_; }
    // Whether the workers have ended: the count is saved, a write failed, or Stop ran. The last
    // worker's last act: whoever reads true sees the final counters and the summary line already
    // logged.
    bool finished() const { return finished_.load(std::memory_order_acquire); }
    int requested() const { return requested_; }
    int accepted() const { return accepted_; }
    // Files in place: always the numbers 1 to saved().
    int saved() const { return saved_; }
    // Frames offered that the saver could not take: its queue was full, or the frame was
    // incomplete.
    int missed() const { return missed_; }
    int missedQueueFull() const { return missedQueueFull_; }
    int failed() const { return failed_; }
    int workers() const { return workerCount_; }
    uint64_t queueBytes() const { return queueBytes_; }
    // Frames waiting for a worker, and the memory the saver holds for frames.
    size_t queued() const;
    uint64_t heldBytes() const;

    // Seam for tests: what writes one file beside its name (StageImageFile by default). Set
    // before Start; called on the workers.
    using Writer = std::function<bool(const cv::Mat& image, const std::string& path,
                                      const ImageSaveOptions& options, StagedImageFile& staged,
                                      std::string& error)>;
    void setWriter(Writer writer) { writer_ = std::move(writer); }

  private:
    struct Release {
        void operator()(uint8_t* block) const;
    };
    struct Buffer {
        std::unique_ptr<uint8_t[], Release> bytes;
        size_t capacity = 0;
    };
    // A frame's block: in huge pages where it is large enough, so that filling a fresh one does
    // not take thousands of page faults. Null when there is no memory.
    static Buffer Allocate(size_t bytes);
    struct Slot {
        Buffer buffer;
        size_t size = 0;
        bool jpeg = false;
        int number = 0;
    };

    void WorkerLoop();
    bool Write(const Slot& slot, StagedImageFile& staged, std::string& error);
    // After a worker is done with frame `number`: keeps its file for the commit, or records the
    // failure; files that can no longer be put in place go to discard (removed after the lock).
    void Finish(int number, bool ok, StagedImageFile staged, const std::string& error,
                Buffer buffer);
    void Fail(int number, const std::string& error, std::vector<StagedImageFile>& discard);
    // Puts the waiting files in place in their order; one worker at a time renames, outside the
    // lock.
    void CommitInOrder(std::unique_lock<std::mutex>& lock, std::vector<StagedImageFile>& discard);
    void ReportMissesOnce();

    MessageLog& log_;
    Writer writer_ = StageImageFile;
    SequenceRequest request_;
    size_t frameBytes_ = 0;
    uint64_t queueBytes_ = 0;
    int workerCount_ = 0;

    std::atomic<bool> enabled_{false};
    std::atomic<bool> finished_{true};
    std::atomic<bool> missReported_{false};
    std::atomic<int> requested_{0};
    std::atomic<int> accepted_{0};
    std::atomic<int> saved_{0};
    std::atomic<int> missed_{0};
    std::atomic<int> missedQueueFull_{0};
    std::atomic<int> failed_{0};

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    int inFlight_ = 0;  // frames taken by push but not queued yet
    int running_ = 0;   // workers that have not ended
    uint64_t held_ = 0;
    std::vector<Buffer> free_;
    std::deque<Slot> queue_;
    std::map<int, StagedImageFile> staged_;  // written, waiting for the files before them
    int nextToCommit_ = 1;
    bool committing_ = false;
    int failedAt_ = 0;  // the lowest number that could not be written; 0: none
    std::string failedPath_;
    std::string failedReason_;
    std::vector<std::thread> threads_;
};

}  // namespace lumetra
