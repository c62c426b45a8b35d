#include "recording/sequence_saver.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <system_error>

#include "imaging/jpeg_decoder.h"
#include "recording/system_status.h"

namespace lumetra {
namespace {

// Raised niceness of the encoder workers (Linux sets it per thread).
constexpr int kWorkerNice = 5;

std::string SizeText(uint64_t bytes) {
    if (bytes >= (uint64_t{1} << 20)) {
        return std::to_string((bytes + (uint64_t{1} << 19)) >> 20) + " MiB";
    }
    if (bytes >= 1024) {
        return std::to_string((bytes + 512) >> 10) + " KiB";
    }
    return std::to_string(bytes) + " bytes";
}

// Whether a file can be made in folder: tried, not guessed from permissions.
bool FolderWritable(const std::filesystem::path& folder, std::string& reason) {
    const std::filesystem::path probe = (folder.empty() ? std::filesystem::path(".") : folder) /
                                        (".lumetra-probe-" + std::to_string(::getpid()));
    const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        reason = std::error_code(errno, std::generic_category()).message();
        return false;
    }
    ::close(fd);
    ::unlink(probe.c_str());
    return true;
}

}  // namespace

std::string SequenceFileName(const std::string& base, int number, const std::string& extension) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "%04d", number);
    return base + "-" + digits + "." + extension;
}

uint64_t DefaultSequenceQueueBytes(uint64_t totalPhysicalBytes) {
    return std::clamp<uint64_t>(totalPhysicalBytes / 8, uint64_t{256} << 20, uint64_t{2} << 30);
}

bool SplitSequencePath(const std::string& path, std::string& base, std::string& extension) {
    const size_t slash = path.find_last_of('/');
    const size_t dot = path.find_last_of('.');
    const size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    if (dot == std::string::npos || dot <= nameStart || dot + 1 >= path.size()) {
        return false;
    }
    base = path.substr(0, dot);
    extension = path.substr(dot + 1);
    return true;
}

void SequenceRequest::setGeometry(const FrameFormat& format) {
    const FrameLayout layout = LayoutOf(format);
    width = format.width;
    height = format.height;
    channels = layout.channels;
    depth = layout.depth;
    bitsPerSample = layout.channels > 0 ? format.bitsPerPixel / layout.channels : 8;
    if (depth == 8) {
        bitsPerSample = 8;
    }
}

uint64_t SequenceRequest::frameBytes() const {
    if (width <= 0 || height <= 0 || channels <= 0) {
        return 0;
    }
    return uint64_t(width) * uint64_t(height) * uint64_t(channels) * uint64_t(depth / 8);
}

void SequenceSaver::Release::operator()(uint8_t* block) const {
    std::free(block);
}

SequenceSaver::Buffer SequenceSaver::Allocate(size_t bytes) {
    constexpr size_t kHugePage = size_t{2} << 20;
    Buffer b;
    if (bytes >= kHugePage) {
        const size_t rounded = (bytes + kHugePage - 1) / kHugePage * kHugePage;
        b.bytes.reset(static_cast<uint8_t*>(std::aligned_alloc(kHugePage, rounded)));
        if (b.bytes) {
            // Only advice: without transparent huge pages the block is used as it is.
            ::madvise(b.bytes.get(), rounded, MADV_HUGEPAGE);
        }
    } else {
        b.bytes.reset(static_cast<uint8_t*>(std::malloc(std::max<size_t>(bytes, 1))));
    }
    b.capacity = b.bytes ? bytes : 0;
    return b;
}

size_t SequenceSaver::queued() const {
    std::lock_guard lock(mutex_);
    return queue_.size();
}

uint64_t SequenceSaver::heldBytes() const {
    std::lock_guard lock(mutex_);
    return held_;
}

bool SequenceSaver::wantsFrames() const {
    return enabled_ && requested_ >= 1 && accepted_ < requested_;
}

bool SequenceSaver::Start(const SequenceRequest& request, std::string& error) {
    Stop();
    if (request.count < 1) {
        error = "the count must be at least 1";
        return false;
    }
    const ImageFileType type = ImageFileTypeOf("." + request.extension);
    if (type == ImageFileType::kUnknown) {
        error = "unknown image file extension '" + request.extension +
                "' (use bmp, jpg, png, tif, raw, pgm or ppm)";
        return false;
    }
    if (type == ImageFileType::kTiff &&
        !TiffCompressionAvailable(request.options.tiffCompression)) {
        error = "this libtiff cannot write " +
                std::string(TiffCompressionName(request.options.tiffCompression)) + " compression";
        return false;
    }
    if (request.width <= 0 || request.height <= 0 ||
        (request.channels != 1 && request.channels != 3 && request.channels != 4) ||
        (request.depth != 8 && request.depth != 16)) {
        error = "the frame format cannot be saved";
        return false;
    }
    const std::filesystem::path folder = std::filesystem::path(request.base).parent_path();
    std::error_code ec;
    if (!folder.empty() && !std::filesystem::is_directory(folder, ec)) {
        error = "the folder " + folder.string() + " does not exist";
        return false;
    }
    std::string reason;
    if (!FolderWritable(folder, reason)) {
        error = "the folder " + (folder.empty() ? std::string(".") : folder.string()) +
                " cannot be written (" + reason + ")";
        return false;
    }
    const uint64_t frameBytes = request.frameBytes();
    const uint64_t queueBytes =
        request.queueBytes != 0 ? request.queueBytes
                                : DefaultSequenceQueueBytes(HostSystem().memory().totalPhysical);
    if (queueBytes < frameBytes) {
        error = "a queue of " + SizeText(queueBytes) + " cannot hold one frame of " +
                SizeText(frameBytes);
        return false;
    }
    const int cores = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    const int workers = std::min(request.workers > 0 ? request.workers : cores, request.count);
    // A buffer for each worker and one for the callback to fill, made and touched now so that
    // the callback thread rarely waits for fresh pages; more are made on demand up to the limit.
    const uint64_t ready = std::min<uint64_t>(queueBytes / frameBytes, uint64_t(workers) + 1);
    std::vector<Buffer> buffers;
    for (uint64_t i = 0; i < ready; ++i) {
        Buffer b = Allocate(static_cast<size_t>(frameBytes));
        if (!b.bytes) {
            error = "not enough memory for the frame queue";
            return false;
        }
        std::memset(b.bytes.get(), 0, b.capacity);
        buffers.push_back(std::move(b));
    }

    request_ = request;
    {
        std::lock_guard lock(mutex_);
        frameBytes_ = static_cast<size_t>(frameBytes);
        queueBytes_ = queueBytes;
        free_ = std::move(buffers);
        held_ = ready * frameBytes;
        queue_.clear();
        staged_.clear();
        stopping_ = false;
        inFlight_ = 0;
        nextToCommit_ = 1;
        committing_ = false;
        failedAt_ = 0;
        failedPath_.clear();
        failedReason_.clear();
        running_ = workers;
    }
    accepted_ = 0;
    saved_ = 0;
    missed_ = 0;
    missedQueueFull_ = 0;
    failed_ = 0;
    missReported_ = false;
    requested_ = request.count;
    finished_ = false;
    int started = 0;
    try {
        for (; started < workers; ++started) {
            threads_.emplace_back([this] { WorkerLoop(); });
        }
    } catch (const std::system_error& e) {
        {
            std::lock_guard lock(mutex_);
            running_ -= workers - started;
        }
        if (started == 0) {
            finished_ = true;
            error = std::string("no worker thread (") + e.what() + ")";
            return false;
        }
    }
    workerCount_ = started;
    enabled_ = true;
    return true;
}

void SequenceSaver::Stop() {
    enabled_ = false;
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    for (std::thread& t : threads_) {
        t.join();
    }
    threads_.clear();
}

void SequenceSaver::push(const void* address, size_t size, bool jpeg) {
    if (!enabled_) {
        return;
    }
    Buffer buffer;
    bool allocate = false;
    int number = 0;
    size_t bytes = 0;
    size_t capacity = 0;
    {
        // Under the lock: a sequence started during the grab sets the frame size anew.
        std::lock_guard lock(mutex_);
        if (stopping_ || accepted_ >= requested_) {
            return;
        }
        const bool usable = address != nullptr && (jpeg ? size > 0 : size >= frameBytes_);
        bytes = jpeg ? size : frameBytes_;
        capacity = std::max(bytes, frameBytes_);
        if (!usable) {
            ++missed_;
            return;
        }
        if (bytes <= frameBytes_ && !free_.empty()) {
            buffer = std::move(free_.back());
            free_.pop_back();
            number = ++accepted_;
        } else if (held_ + capacity <= queueBytes_) {
            held_ += capacity;
            allocate = true;
        } else {
            ++missed_;
            ++missedQueueFull_;
            return;
        }
        ++inFlight_;
    }
    if (allocate) {
        // Outside the lock: fresh memory takes its time.
        buffer = Allocate(capacity);
        std::lock_guard lock(mutex_);
        --inFlight_;
        if (!buffer.bytes) {
            held_ -= capacity;
            ++missed_;
            ++missedQueueFull_;
        } else if (!stopping_ && accepted_ < requested_) {
            number = ++accepted_;
            ++inFlight_;
        } else {
            free_.push_back(std::move(buffer));
        }
    }
    if (number == 0) {
        wake_.notify_all();  // a worker may wait for inFlight_ to reach 0
        return;
    }
    // The copy runs outside the lock so that the workers are never held up by it.
    std::memcpy(buffer.bytes.get(), address, bytes);
    {
        std::lock_guard lock(mutex_);
        queue_.push_back(Slot{std::move(buffer), bytes, jpeg, number});
        --inFlight_;
    }
    wake_.notify_one();
}

bool SequenceSaver::Write(const Slot& slot, StagedImageFile& staged, std::string& error) {
    const std::string path = SequenceFileName(request_.base, slot.number, request_.extension);
    cv::Mat image;
    if (slot.jpeg) {
        const JpegShape shape{request_.width, request_.height, request_.channels};
        if (!DecodeJpeg(slot.buffer.bytes.get(), slot.size, image, error, &shape)) {
            return false;
        }
    } else {
        image = cv::Mat(request_.height, request_.width,
                        CV_MAKETYPE(request_.depth == 16 ? CV_16U : CV_8U, request_.channels),
                        slot.buffer.bytes.get());
    }
    ImageSaveOptions options = request_.options;
    options.significantBits = request_.bitsPerSample;
    return writer_(image, path, options, staged, error);
}

void SequenceSaver::Fail(int number, const std::string& error,
                         std::vector<StagedImageFile>& discard) {
    ++failed_;
    if (failedAt_ == 0 || number < failedAt_) {
        failedAt_ = number;
        failedPath_ = SequenceFileName(request_.base, number, request_.extension);
        failedReason_ = error;
    }
    // A disk that refused one file refuses the next: the sequence ends here.
    enabled_ = false;
    stopping_ = true;
    for (auto it = staged_.upper_bound(failedAt_); it != staged_.end();) {
        discard.push_back(std::move(it->second));
        it = staged_.erase(it);
    }
    for (auto it = queue_.begin(); it != queue_.end();) {
        if (it->number > failedAt_) {
            free_.push_back(std::move(it->buffer));
            it = queue_.erase(it);
        } else {
            ++it;
        }
    }
}

void SequenceSaver::CommitInOrder(std::unique_lock<std::mutex>& lock,
                                  std::vector<StagedImageFile>& discard) {
    while (!committing_) {
        std::vector<std::pair<int, StagedImageFile>> batch;
        for (auto it = staged_.begin();
             it != staged_.end() && it->first == nextToCommit_ + int(batch.size());) {
            batch.emplace_back(it->first, std::move(it->second));
            it = staged_.erase(it);
        }
        if (batch.empty()) {
            return;
        }
        committing_ = true;
        lock.unlock();
        std::vector<std::string> errors(batch.size());
        size_t done = 0;
        for (; done < batch.size(); ++done) {
            if (!batch[done].second.Commit(errors[done])) {
                break;
            }
        }
        lock.lock();
        committing_ = false;
        nextToCommit_ += int(done);
        saved_ += int(done);
        if (done < batch.size()) {
            Fail(batch[done].first, errors[done], discard);
            for (size_t i = done + 1; i < batch.size(); ++i) {
                discard.push_back(std::move(batch[i].second));
            }
        }
    }
}

void SequenceSaver::Finish(int number, bool ok, StagedImageFile staged, const std::string& error,
                           Buffer buffer) {
    std::vector<StagedImageFile> discard;
    {
        std::unique_lock lock(mutex_);
        free_.push_back(std::move(buffer));
        if (!ok) {
            Fail(number, error, discard);
        } else if (failedAt_ != 0 && number > failedAt_) {
            discard.push_back(std::move(staged));
        } else {
            staged_.emplace(number, std::move(staged));
        }
        CommitInOrder(lock, discard);
    }
    discard.clear();  // removes the files that will never take their names
    wake_.notify_all();
}

void SequenceSaver::ReportMissesOnce() {
    if (missedQueueFull_ > 0 && !missReported_.exchange(true)) {
        log_.log(
            "Image sequence: the saver cannot keep up, frames are being missed (its queue of " +
            SizeText(queueBytes_) + " is full)\n");
    }
}

void SequenceSaver::WorkerLoop() {
    // Encoding yields to the acquisition: when both want the processor, frames the saver cannot
    // take are counted and said; frames the board loses are not.
    setpriority(PRIO_PROCESS, static_cast<id_t>(::syscall(SYS_gettid)), kWorkerNice);
    for (;;) {
        Slot slot;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] {
                return !queue_.empty() ||
                       (inFlight_ == 0 && (stopping_ || accepted_ >= requested_));
            });
            if (queue_.empty()) {
                break;
            }
            slot = std::move(queue_.front());
            queue_.pop_front();
        }
        StagedImageFile staged;
        std::string error;
        const bool ok = Write(slot, staged, error);
        ReportMissesOnce();
        Finish(slot.number, ok, std::move(staged), error, std::move(slot.buffer));
    }
    // The last worker out ends the sequence, in the order a reader of finished() relies on: no
    // frame is taken any more, the queue's memory is back, the counters are final and the summary
    // is out; finished comes last.
    std::vector<StagedImageFile> leftovers;
    std::string failedPath;
    std::string failedReason;
    {
        std::lock_guard lock(mutex_);
        if (--running_ > 0) {
            return;
        }
        for (auto& [number, file] : staged_) {
            leftovers.push_back(std::move(file));
        }
        staged_.clear();
        free_.clear();
        free_.shrink_to_fit();
        queue_.clear();
        held_ = 0;
        failedPath = failedPath_;
        failedReason = failedReason_;
    }
    leftovers.clear();
    enabled_ = false;
    const int missed = missed_;
    const int full = missedQueueFull_;
    std::string counts = std::to_string(saved_) + " of " + std::to_string(requested_) +
                         " frames saved, " + std::to_string(missed) + " missed";
    if (missed > 0) {
        std::string why;
        if (full > 0) {
            why = (full < missed ? std::to_string(full) + " with " : std::string()) +
                  "the queue of " + SizeText(queueBytes_) + " full: the saver could not keep up";
        }
        if (missed > full) {
            why += (why.empty() ? "" : "; ") + std::to_string(missed - full) + " incomplete";
        }
        counts += " (" + why + ")";
    }
    log_.log(failedPath.empty()
                 ? "Image sequence: " + counts + "\n"
                 : SaveFailedText(failedPath, failedReason + "; the sequence ends with " + counts));
    finished_.store(true, std::memory_order_release);
}

}  // namespace lumetra
