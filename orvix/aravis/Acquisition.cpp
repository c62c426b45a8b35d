#include "Acquisition.h"

#include <algorithm>
#include <cstring>

#include "PixelFormats.h"

namespace orvix::aravis {
namespace {

thread_local const Acquisition* tDelivering = nullptr;

// A burst of lost frames beyond this is counted but not announced one by one.
constexpr uint64_t kMaxLostEvents = 4096;

void swapRedBlue(void* data, uint64_t bytes) {
    auto* p = static_cast<uint8_t*>(data);
    for (uint64_t i = 0; i + 2 < bytes; i += 3) {
        std::swap(p[i], p[i + 2]);
    }
}

bool carriesFrame(ArvBufferStatus status) {
    switch (status) {
        case ARV_BUFFER_STATUS_SUCCESS:
        case ARV_BUFFER_STATUS_TIMEOUT:
        case ARV_BUFFER_STATUS_MISSING_PACKETS:
        case ARV_BUFFER_STATUS_WRONG_PACKET_ID:
        case ARV_BUFFER_STATUS_SIZE_MISMATCH:
            return true;
        default:
            return false;  // cleared, aborted at a stop, still filling: no frame to hand out
    }
}

const char* statusText(ArvBufferStatus status) {
    switch (status) {
        case ARV_BUFFER_STATUS_TIMEOUT:
            return "the frame timed out";
        case ARV_BUFFER_STATUS_MISSING_PACKETS:
            return "the frame came with packets missing";
        case ARV_BUFFER_STATUS_WRONG_PACKET_ID:
            return "the frame came with a wrong packet";
        case ARV_BUFFER_STATUS_SIZE_MISMATCH:
            return "the frame did not fit its buffer";
        default:
            return "the frame is incomplete";
    }
}

}  // namespace

// ---- Ring ----

Ring::~Ring() {
    for (ArvBuffer* b : pool_) {
        g_object_unref(b);
    }
}

void Ring::allocate(uint32_t count, size_t bytes) {
    std::lock_guard lock(mutex_);
    if (slots_.size() != count || bytes_ != bytes) {
        for (ArvBuffer* b : pool_) {
            g_object_unref(b);
        }
        pool_.clear();
        slots_.assign(count, Slot{});
        for (uint32_t i = 0; i < 2 * count; ++i) {
            pool_.push_back(arv_buffer_new_allocate(bytes));
        }
        for (uint32_t i = 0; i < count; ++i) {
            slots_[i].buffer = pool_[i];
        }
        bytes_ = bytes;
    }
    for (Slot& s : slots_) {
        s.status = OrvixBufferStatus{};
    }
}

uint32_t Ring::count() const {
    std::lock_guard lock(mutex_);
    return static_cast<uint32_t>(slots_.size());
}

size_t Ring::bufferBytes() const {
    std::lock_guard lock(mutex_);
    return bytes_;
}

std::vector<ArvBuffer*> Ring::spares() const {
    std::lock_guard lock(mutex_);
    std::vector<ArvBuffer*> out;
    for (ArvBuffer* b : pool_) {
        const bool held =
            std::any_of(slots_.begin(), slots_.end(), [&](const Slot& s) { return s.buffer == b; });
        if (!held) {
            out.push_back(b);
        }
    }
    return out;
}

Status Ring::address(uint32_t index, void*& address) const {
    std::lock_guard lock(mutex_);
    if (index >= slots_.size()) {
        return Status::fail(ORVIX_ERR_OUT_OF_RANGE, "Get buffer address: buffer " +
                                                        std::to_string(index) +
                                                        " does not exist (the ring has " +
                                                        std::to_string(slots_.size()) + ")");
    }
    size_t size = 0;
    address = const_cast<void*>(arv_buffer_get_data(slots_[index].buffer, &size));
    return Status::success();
}

Status Ring::status(uint32_t index, OrvixBufferStatus& status) const {
    std::lock_guard lock(mutex_);
    if (index >= slots_.size()) {
        return Status::fail(ORVIX_ERR_OUT_OF_RANGE, "Get buffer status: buffer " +
                                                        std::to_string(index) +
                                                        " does not exist (the ring has " +
                                                        std::to_string(slots_.size()) + ")");
    }
    status = slots_[index].status;
    return Status::success();
}

ArvBuffer* Ring::place(uint32_t index, ArvBuffer* buffer, const OrvixBufferStatus& status) {
    std::lock_guard lock(mutex_);
    ArvBuffer* old = slots_[index].buffer;
    slots_[index].buffer = buffer;
    slots_[index].status = status;
    return old;
}

// ---- Acquisition ----

Acquisition::Acquisition(Ring& ring, CallbackRegistry& callbacks, const GrabSetup& setup)
    : ring_(ring), callbacks_(callbacks), setup_(setup) {}

Acquisition::~Acquisition() {
    requestStop();
    join();
}

void Acquisition::onStream(void* self, ArvStreamCallbackType type, ArvBuffer*) {
    auto* a = static_cast<Acquisition*>(self);
    if (type != ARV_STREAM_CALLBACK_TYPE_START_BUFFER &&
        type != ARV_STREAM_CALLBACK_TYPE_BUFFER_DONE) {
        return;
    }
    {
        // Taking the lock here also orders the stream thread's writes to a buffer after the
        // delivery thread gave it back, and its reads after the stream wrote it.
        std::lock_guard lock(a->mutex_);
        if (a->stop_) {
            return;
        }
        a->notes_.push_back(type == ARV_STREAM_CALLBACK_TYPE_START_BUFFER ? Note::kStart
                                                                          : Note::kDone);
    }
    a->cv_.notify_all();
}

void Acquisition::start(ArvStream* stream) {
    std::lock_guard lock(mutex_);
    stream_ = stream;
    for (ArvBuffer* b : ring_.spares()) {
        g_object_ref(b);
        arv_stream_push_buffer(stream_, b);
    }
    startedAt_ = std::chrono::steady_clock::now();
    startRealTimeUs_ = g_get_real_time();
    thread_ = std::thread([this] { run(); });
}

void Acquisition::requestStop() {
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    cv_.notify_all();
}

void Acquisition::join() {
    if (thread_.joinable() && !onDeliveryThread()) {
        thread_.join();
    }
}

bool Acquisition::onDeliveryThread() const {
    return tDelivering == this;
}

void Acquisition::abort() {
    {
        std::lock_guard lock(mutex_);
        aborted_ = true;
    }
    cv_.notify_all();
}

Acquisition::Outcome Acquisition::awaitFirst(SteadyTime deadline,
                                             const std::atomic<bool>& linkLost) {
    std::unique_lock lock(mutex_);
    while (outcome_ == Outcome::kPending) {
        if (aborted_) {
            outcome_ = Outcome::kAborted;
            break;
        }
        if (linkLost) {
            outcome_ = Outcome::kFailed;
            failure_ = "the camera stopped answering";
            break;
        }
        const SteadyTime now = std::chrono::steady_clock::now();
        if (now >= deadline) {
            outcome_ = Outcome::kFailed;
            failure_ = "no frame came in time";
            break;
        }
        // The lost-link flag has no way to wake us: look again now and then.
        cv_.wait_until(lock, std::min(deadline, now + std::chrono::milliseconds(100)));
    }
    return outcome_;
}

std::string Acquisition::failure() const {
    std::lock_guard lock(mutex_);
    return failure_;
}

uint32_t Acquisition::lost() const {
    std::lock_guard lock(mutex_);
    return static_cast<uint32_t>(sequence_.lostTotal());
}

double Acquisition::rate() const {
    std::lock_guard lock(mutex_);
    return sequence_.rate();
}

std::chrono::nanoseconds Acquisition::silentFor() const {
    std::lock_guard lock(mutex_);
    const SteadyTime since = delivered_ == 0 ? startedAt_ : lastFrameAt_;
    return std::chrono::steady_clock::now() - since;
}

void Acquisition::giveBack(ArvBuffer* buffer) {
    g_object_ref(buffer);
    arv_stream_push_buffer(stream_, buffer);
}

void Acquisition::run() {
    tDelivering = this;
    std::unique_lock lock(mutex_);
    while (true) {
        cv_.wait(lock, [&] { return stop_ || !notes_.empty(); });
        if (stop_) {
            break;
        }
        const Note note = notes_.front();
        notes_.pop_front();
        if (note == Note::kStart) {
            if (setup_.single && outcome_ != Outcome::kPending) {
                continue;
            }
            lock.unlock();
            callbacks_.fire(ORVIX_EVENT_FRAME_START);
            lock.lock();
            continue;
        }
        lock.unlock();
        // The stream queues the buffer around the time it says it is done.
        ArvBuffer* buffer = arv_stream_timeout_pop_buffer(stream_, 2000000);
        lock.lock();
        if (buffer != nullptr) {
            deliver(lock, buffer);
        }
    }
    tDelivering = nullptr;
}

void Acquisition::deliver(std::unique_lock<std::mutex>& lock, ArvBuffer* buffer) {
    const ArvBufferStatus arvStatus = arv_buffer_get_status(buffer);
    if (!carriesFrame(arvStatus) || stop_ || (setup_.single && outcome_ != Outcome::kPending)) {
        arv_stream_push_buffer(stream_, buffer);  // hands our reference back
        return;
    }
    const FrameSequence::Step step = sequence_.arrive(arv_buffer_get_frame_id(buffer));
    OrvixBufferStatus status{};
    status.ready = 1;
    status.frameNumber = step.number;
    status.overflow = arvStatus == ARV_BUFFER_STATUS_SIZE_MISMATCH ? 1 : 0;
    status.incomplete =
        arvStatus != ARV_BUFFER_STATUS_SUCCESS && arvStatus != ARV_BUFFER_STATUS_SIZE_MISMATCH;
    std::string failure = statusText(arvStatus);
    if (arvStatus == ARV_BUFFER_STATUS_SUCCESS) {
        size_t size = 0;
        const void* data = arv_buffer_get_image_data(buffer, &size);
        const bool fits =
            data != nullptr && size >= setup_.frameBytes &&
            static_cast<uint32_t>(arv_buffer_get_image_width(buffer)) == setup_.width &&
            static_cast<uint32_t>(arv_buffer_get_image_height(buffer)) == setup_.height &&
            arv_buffer_get_image_pixel_format(buffer) == setup_.pfnc;
        if (!fits) {
            status.incomplete = 1;
            failure = "the frame is not the " + std::to_string(setup_.width) + " x " +
                      std::to_string(setup_.height) + " " + pixelFormatName(setup_.pfnc) +
                      " image that was set up";
        }
    }
    const int64_t stampUs = static_cast<int64_t>(arv_buffer_get_system_timestamp(buffer) / 1000);
    status.time = std::max<double>(0.0, static_cast<double>(stampUs - startRealTimeUs_) / 1e6);
    const bool good = status.incomplete == 0 && status.overflow == 0;
    if (good) {
        // A frame whose leader was lost keeps its buffer's old stamp: only whole frames count.
        sequence_.stamp(arv_buffer_get_timestamp(buffer));
    }
    lastFrameAt_ = std::chrono::steady_clock::now();
    lock.unlock();

    if (good && setup_.swapRedBlue) {
        size_t size = 0;
        swapRedBlue(const_cast<void*>(arv_buffer_get_image_data(buffer, &size)), setup_.frameBytes);
    }
    for (uint64_t i = 0; i < std::min(step.lost, kMaxLostEvents); ++i) {
        callbacks_.fire(ORVIX_EVENT_FRAME_LOST);
    }
    if (arvStatus == ARV_BUFFER_STATUS_TIMEOUT) {
        callbacks_.fire(ORVIX_EVENT_FRAME_TIMEOUT);
    }

    lock.lock();
    if (stop_) {
        arv_stream_push_buffer(stream_, buffer);
        return;
    }
    const uint32_t slot = static_cast<uint32_t>(delivered_ % ring_.count());
    ArvBuffer* old = ring_.place(slot, buffer, status);
    g_object_unref(buffer);  // the ring holds its own reference
    giveBack(old);
    ++delivered_;
    if (setup_.single) {
        outcome_ = good ? Outcome::kDone : Outcome::kFailed;
        failure_ = good ? std::string() : failure;
        cv_.notify_all();
    }
    lock.unlock();
    callbacks_.fire(ORVIX_EVENT_FRAME_READY);
    lock.lock();
}

}  // namespace orvix::aravis
