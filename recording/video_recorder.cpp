#include "recording/video_recorder.h"

#include <cmath>
#include <cstring>
#include <new>
#include <system_error>

#include "recording/video_encoder_params.h"

namespace lumetra {

using std::chrono::milliseconds;

int VideoChannels(int imageType) {
    switch (imageType) {
        case 1:
        case 3:
            return 3;
        case 2:
        case 4:
            return 4;
        default:
            // Mono, and the luma plane of any other layout.
            return 1;
    }
}

void ShiftTo8Bits(const uint16_t* src, uint8_t* dst, size_t count, int shift) {
    for (size_t i = 0; i < count; ++i) {
        dst[i] = static_cast<uint8_t>(src[i] >> shift);
    }
}

struct VideoRecorder::Encoder {
    x264_param_t param{};
    x264_picture_t input{};
    x264_picture_t output{};
    bool pictureAllocated = false;
    uint8_t* ownPlane0 = nullptr;  // restored before the picture is freed
    x264_t* handle = nullptr;
    x264_nal_t* nals = nullptr;
    int nalCount = 0;
    int64_t pts = 0;

    ~Encoder() {
        if (handle != nullptr) {
            x264_encoder_close(handle);
        }
        if (pictureAllocated) {
            input.img.plane[0] = ownPlane0;
            x264_picture_clean(&input);
        }
    }
};

VideoRecorder::VideoRecorder(const RecorderLinks& links)
    : links_(links),
      clock_(links.clock != nullptr ? *links.clock : SystemClock()),
      system_(links.system != nullptr ? *links.system : HostSystem()) {}

VideoRecorder::~VideoRecorder() {
    EndWorker(false);
    Close();
}

void VideoRecorder::post(intptr_t code) {
    if (links_.sink != nullptr) {
        links_.sink->post(msg::kVideoResult, 0, code);
    }
}

size_t VideoRecorder::FrameBytes() const {
    const size_t bytesPerSample = bitsPerSample_ > 8 ? 2 : 1;
    return size_t(width_) * size_t(height_) * size_t(VideoChannels(imageType_)) * bytesPerSample;
}

size_t VideoRecorder::queueCount() const {
    std::lock_guard lock(queueMutex_);
    return queueCount_;
}

void VideoRecorder::EndWorker(bool report) {
    if (!worker_.joinable()) {
        return;
    }
    reportOnExit_ = report;
    {
        // No push is half-way once the flag is down, so the worker's last drain sees every frame.
        std::lock_guard lock(pushMutex_);
        running_ = false;
    }
    wake_.set();
    worker_.join();
}

bool VideoRecorder::OpenEncoder(const std::string& path, int width, int height, int imageType,
                                int bitsPerSample, double rate) {
    // A worker still running belongs to the file being replaced: its result is not wanted.
    EndWorker(false);
    Close();
    {
        std::lock_guard lock(queueMutex_);
        queue_.clear();
        queueCount_ = 0;
        spare_.clear();  // the next file's frames may differ in size
    }
    if (width <= 0 || height <= 0 || bitsPerSample < 8 || bitsPerSample > 16 || !(rate > 0)) {
        return false;
    }

    const std::optional<uint64_t> free = system_.availableBytes(DirectoryOf(path));
    if (!free || *free <= video::kMinFreeBytes) {
        return false;
    }
    std::error_code ec;
    const bool existed = std::filesystem::exists(path, ec);
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        return false;
    }
    auto fail = [&] {
        std::fclose(file);
        // Only an empty file of our own making goes; never a device such as /dev/full.
        if (!existed && std::filesystem::is_regular_file(path, ec)) {
            std::filesystem::remove(path, ec);
        }
        encoder_.reset();
        return false;
    };

    encoder_ = std::make_unique<Encoder>();
    x264_param_t& p = encoder_->param;
    if (!SetVideoEncoderParams(p, width, height, imageType, rate)) {
        return fail();
    }
    if (x264_picture_alloc(&encoder_->input, p.i_csp, p.i_width, p.i_height) < 0) {
        return fail();
    }
    encoder_->pictureAllocated = true;
    encoder_->ownPlane0 = encoder_->input.img.plane[0];
    // Layouts other than the board's get neutral chroma rather than whatever the block held.
    for (int i = 1; i < encoder_->input.img.i_plane; ++i) {
        const int rows = (p.i_csp & X264_CSP_MASK) == X264_CSP_I420 ? height / 2 : height;
        std::memset(encoder_->input.img.plane[i], 128,
                    size_t(encoder_->input.img.i_stride[i]) * size_t(rows));
    }
    encoder_->handle = x264_encoder_open(&p);
    if (encoder_->handle == nullptr) {
        return fail();
    }

    file_ = file;
    // Small enough that a full disk shows within a few frames, not only when the file closes.
    fileBuffer_.resize(size_t{64} << 10);
    std::setvbuf(file_, fileBuffer_.data(), _IOFBF, fileBuffer_.size());
    {
        std::lock_guard lock(pushMutex_);
        width_ = width;
        height_ = height;
        imageType_ = imageType;
        bitsPerSample_ = bitsPerSample;
        rate_ = rate;
        acceptedFrames_ = 0;
        startTime_ = clock_.now();
    }
    path_ = path;
    scratch_.assign(bitsPerSample != 8 ? FrameBytes() / 2 : 0, 0);
    result_ = video::kSuccess;
    bytesWritten_ = 0;
    framesQueued_ = 0;
    framesEncoded_ = 0;
    reportOnExit_ = true;

    running_ = true;
    try {
        worker_ = std::thread([this] { WorkerLoop(); });
    } catch (const std::system_error&) {
        running_ = false;
    }
    return true;
}

void VideoRecorder::push(const void* address, size_t size, bool jpeg) {
    // Compressed frames cannot be encoded; the board flag covers it, the frame's own flag too.
    if (!jpeg) {
        PushFrame(address, size);
    }
}

bool VideoRecorder::PushFrame(const void* frame, size_t size) {
    std::lock_guard lock(pushMutex_);
    if (boardCompresses_ || !running_ || result_ != video::kSuccess) {
        return false;
    }
    const size_t bytes = FrameBytes();
    if (frame == nullptr || size < bytes) {
        return false;  // not a whole frame of the recorded geometry
    }
    const MemoryStatus memory = system_.memory();
    if (memory.totalPhysical > 0) {
        const auto load = static_cast<int64_t>(static_cast<double>(size) * 100.0 /
                                                   static_cast<double>(memory.totalPhysical) +
                                               memory.loadPercent);
        if (load > video::kMemoryLoadLimit) {
            int expected = video::kSuccess;
            if (result_.compare_exchange_strong(expected, video::kOutOfMemory)) {
                post(video::kOutOfMemory);
            }
            return false;
        }
    }
    if (!stopOnError_) {
        // The divisor is the rate itself, not its period: one frame about every `rate` ms.
        const auto elapsed = static_cast<int64_t>(ElapsedMs(startTime_, clock_.now()));
        const auto due = static_cast<int64_t>(static_cast<double>(elapsed) / rate_);
        if (due < acceptedFrames_) {
            return false;
        }
        ++acceptedFrames_;
    }
    Node node;
    {
        std::lock_guard queueLock(queueMutex_);
        if (!spare_.empty()) {
            node.bytes = std::move(spare_.back());
            spare_.pop_back();
        }
    }
    if (!node.bytes) {
        node.bytes.reset(new (std::nothrow) uint8_t[bytes]);
    }
    if (!node.bytes) {
        int expected = video::kSuccess;
        if (result_.compare_exchange_strong(expected, video::kOutOfMemory)) {
            post(video::kOutOfMemory);
        }
        return false;
    }
    std::memcpy(node.bytes.get(), frame, bytes);
    node.size = bytes;
    {
        std::lock_guard queueLock(queueMutex_);
        queue_.push_back(std::move(node));
        ++queueCount_;
    }
    ++framesQueued_;
    wake_.set();
    return true;
}

bool VideoRecorder::PopFront(Node& node) {
    std::lock_guard lock(queueMutex_);
    if (queueCount_ == 0) {
        return false;
    }
    node = std::move(queue_.front());
    queue_.pop_front();
    --queueCount_;
    return true;
}

void VideoRecorder::Recycle(Node& node) {
    static constexpr size_t kSpareBlocks = 4;
    std::lock_guard lock(queueMutex_);
    if (spare_.size() < kSpareBlocks && node.bytes) {
        spare_.push_back(std::move(node.bytes));
    }
    node = Node{};
}

void VideoRecorder::WorkerLoop() {
    bool failed = false;
    Node node;
    while (running_) {
        wake_.waitFor(milliseconds(100));
        while (running_ && PopFront(node)) {
            if (!EncodeFrame(node.bytes.get())) {
                running_ = false;
                failed = true;
            }
            Recycle(node);
        }
    }
    // Frames taken before the stop belong in the file; after a failure they are dropped.
    while (!failed && PopFront(node)) {
        failed = !EncodeFrame(node.bytes.get());
        Recycle(node);
    }
    {
        std::lock_guard lock(queueMutex_);
        queue_.clear();
        queueCount_ = 0;
    }
    Close();
    running_ = false;
    if (reportOnExit_) {
        post(result_);
    }
}

bool VideoRecorder::WritePayload(const uint8_t* data, int size) {
    if (bytesWritten_ + size > fileLimit_) {
        result_ = video::kFileTooLarge;
        return false;
    }
    if (std::fwrite(data, size_t(size), 1, file_) != 1) {
        result_ = video::kWriteFailed;
        return false;
    }
    bytesWritten_ += size;
    return true;
}

bool VideoRecorder::EncodeFrame(const uint8_t* frame) {
    Encoder& e = *encoder_;
    if (bitsPerSample_ != 8) {
        ShiftTo8Bits(reinterpret_cast<const uint16_t*>(frame), scratch_.data(), scratch_.size(),
                     bitsPerSample_ - 8);
        e.input.img.plane[0] = scratch_.data();
    } else {
        // x264 only reads the input planes.
        e.input.img.plane[0] = const_cast<uint8_t*>(frame);
    }
    e.input.i_pts = e.pts++;
    const int size = x264_encoder_encode(e.handle, &e.nals, &e.nalCount, &e.input, &e.output);
    e.input.img.plane[0] = e.ownPlane0;
    if (size < 0) {
        result_ = video::kWriteFailed;
        return false;
    }
    // The NAL payloads lie back to back: one write covers them all.
    if (size > 0 && !WritePayload(e.nals[0].p_payload, size)) {
        return false;
    }
    ++framesEncoded_;
    return true;
}

void VideoRecorder::Close() {
    if (encoder_ && encoder_->handle != nullptr && file_ != nullptr && result_ == video::kSuccess) {
        Encoder& e = *encoder_;
        while (x264_encoder_delayed_frames(e.handle) > 0) {
            const int size =
                x264_encoder_encode(e.handle, &e.nals, &e.nalCount, nullptr, &e.output);
            if (size < 0 || (size > 0 && !WritePayload(e.nals[0].p_payload, size))) {
                break;
            }
        }
    }
    encoder_.reset();
    if (file_ != nullptr) {
        // A full disk may only show when the stream buffer goes out.
        if (std::fclose(file_) != 0 && result_ == video::kSuccess) {
            result_ = video::kWriteFailed;
        }
        file_ = nullptr;
    }
}

void VideoRecorder::Stop() {
    EndWorker(true);
    Close();
}

std::string VideoRecorder::NextFileName(const std::string& path) {
    if (fileCounter_ == 0) {
        fileCounter_ = 1;
        return path;
    }
    static constexpr std::string_view kExtension = ".h264";
    std::string stem = path;
    if (stem.size() >= kExtension.size() &&
        stem.compare(stem.size() - kExtension.size(), kExtension.size(), kExtension) == 0) {
        stem.resize(stem.size() - kExtension.size());
    }
    for (;;) {
        std::string candidate = stem + "_" + std::to_string(fileCounter_) + ".h264";
        std::error_code ec;
        if (!std::filesystem::exists(candidate, ec)) {
            return candidate;
        }
        ++fileCounter_;
    }
}

}  // namespace lumetra
