#include "recording/sequence_saver.h"

#include "imaging/jpeg_decoder.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>
#include <system_error>

namespace lumetra {

std::string SequenceFileName(const std::string& base, int number, const std::string& extension) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "%04d", number);
    return base + "-" + digits + "." + extension;
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

size_t SequenceSaver::queued() const {
    std::lock_guard lock(mutex_);
    return queue_.size();
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
    if (ImageFileTypeOf("." + request.extension) == ImageFileType::kUnknown) {
        error = "unknown image file extension '" + request.extension +
                "' (use bmp, jpg, png, tif or raw)";
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
    const uint64_t frameBytes = request.frameBytes();
    size_t capacity = request.queueFrames;
    if (capacity == 0) {
        capacity = static_cast<size_t>(
            std::clamp<uint64_t>((uint64_t{256} << 20) / std::max<uint64_t>(frameBytes, 1), 2, 64));
    }
    std::vector<Buffer> buffers;
    for (size_t i = 0; i < capacity; ++i) {
        Buffer b{std::unique_ptr<uint8_t[]>(new (std::nothrow) uint8_t[frameBytes]),
                 static_cast<size_t>(frameBytes)};
        if (!b.bytes) {
            error = "not enough memory for the frame queue";
            return false;
        }
        buffers.push_back(std::move(b));
    }

    request_ = request;
    frameBytes_ = static_cast<size_t>(frameBytes);
    capacity_ = capacity;
    {
        std::lock_guard lock(mutex_);
        free_ = std::move(buffers);
        queue_.clear();
        stopping_ = false;
        inFlight_ = 0;
    }
    accepted_ = 0;
    saved_ = 0;
    missed_ = 0;
    failed_ = 0;
    requested_ = request.count;
    finished_ = false;
    try {
        worker_ = std::thread([this] { WorkerLoop(); });
    } catch (const std::system_error& e) {
        finished_ = true;
        error = std::string("no worker thread (") + e.what() + ")";
        return false;
    }
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
    if (worker_.joinable()) {
        worker_.join();
    }
}

void SequenceSaver::push(const void* address, size_t size, bool jpeg) {
    if (!enabled_) {
        return;
    }
    const bool usable = address != nullptr && (jpeg ? size > 0 : size >= frameBytes_);
    const size_t bytes = jpeg ? size : frameBytes_;
    // A compressed frame can outgrow the raw size (noise, tiny frames): it gets its own block.
    Buffer larger;
    if (usable && bytes > frameBytes_) {
        larger.bytes.reset(new (std::nothrow) uint8_t[bytes]);
        larger.capacity = larger.bytes ? bytes : 0;
    }
    Buffer buffer;
    int number = 0;
    {
        std::lock_guard lock(mutex_);
        if (stopping_ || accepted_ >= requested_) {
            return;
        }
        if (!usable || free_.empty() || (bytes > frameBytes_ && !larger.bytes)) {
            ++missed_;
            return;
        }
        buffer = std::move(free_.back());
        free_.pop_back();
        number = ++accepted_;
        ++inFlight_;
    }
    if (larger.bytes) {
        buffer = std::move(larger);
    }
    // The copy runs outside the lock so that the worker is never held up by it.
    std::memcpy(buffer.bytes.get(), address, bytes);
    {
        std::lock_guard lock(mutex_);
        queue_.push_back(Slot{std::move(buffer), bytes, jpeg, number});
        --inFlight_;
    }
    wake_.notify_one();
}

bool SequenceSaver::Write(const Slot& slot) {
    const std::string path = SequenceFileName(request_.base, slot.number, request_.extension);
    std::string error;
    cv::Mat image;
    if (slot.jpeg) {
        if (!DecodeJpeg(slot.buffer.bytes.get(), slot.size, image, error)) {
            log_.log(SaveFailedText(path, error));
            return false;
        }
    } else {
        image = cv::Mat(request_.height, request_.width,
                        CV_MAKETYPE(request_.depth == 16 ? CV_16U : CV_8U, request_.channels),
                        slot.buffer.bytes.get());
    }
    ImageSaveOptions options = request_.options;
    options.significantBits = request_.bitsPerSample;
    if (!writer_(image, path, options, error)) {
        log_.log(SaveFailedText(path, error));
        return false;
    }
    return true;
}

void SequenceSaver::WorkerLoop() {
    bool abandoned = false;
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
        const bool ok = !abandoned && Write(slot);
        if (ok) {
            ++saved_;
        } else if (!abandoned) {
            // A disk that refused one file refuses the next: the sequence ends here.
            ++failed_;
            abandoned = true;
            enabled_ = false;
        }
        std::lock_guard lock(mutex_);
        free_.push_back(std::move(slot.buffer));
        if (abandoned) {
            stopping_ = true;
        }
    }
    // The end, in the order a reader of finished() relies on: no frame is taken any more, the
    // queue's memory is back, the counters are final and the summary is out; finished comes last.
    enabled_ = false;
    {
        std::lock_guard lock(mutex_);
        free_.clear();
        free_.shrink_to_fit();
        queue_.clear();
    }
    log_.log("Image sequence: " + std::to_string(saved_) + " of " + std::to_string(requested_) +
             " frames saved, " + std::to_string(missed_) + " missed\n");
    finished_.store(true, std::memory_order_release);
}

}  // namespace lumetra
