#include "Streamer.h"

#include <algorithm>

namespace orvix::sim {
namespace {

// The streamer whose thread this is, so that calls from inside callbacks are recognised.
thread_local const Streamer* tBoardThread = nullptr;

constexpr size_t kRateWindow = 32;

}  // namespace

Streamer::Streamer(BufferRing& ring, CallbackRegistry& callbacks,
                   const std::array<uint32_t, kSignalCount>& signalRates)
    : ring_(ring), callbacks_(callbacks), signals_(signalRates) {}

Streamer::~Streamer() {
    shutdown();
}

void Streamer::shutdown() {
    {
        std::lock_guard lock(mutex_);
        quit_ = true;
        if (grab_.active) {
            endGrab(Outcome::Failed, Status::fail(ORVIX_ERR_GRAB_ABORTED, "The board was closed"));
        }
    }
    cv_.notify_all();
    if (thread_.joinable() && !onBoardThread()) {
        thread_.join();
    }
}

bool Streamer::isBoardThread() const {
    return onBoardThread();
}

bool Streamer::onBoardThread() const {
    return tBoardThread == this;
}

void Streamer::ensureThread() {
    if (!thread_.joinable() && !quit_) {
        thread_ = std::thread([this] { run(); });
    }
}

Nanos Streamer::now() const {
    std::lock_guard lock(mutex_);
    return clock_->now();
}

void Streamer::quiesce() {
    if (onBoardThread()) {
        return;
    }
    std::unique_lock lock(mutex_);
    cv_.wait(lock, [&] { return grab_.active || busyGrab_ == 0; });
}

Status Streamer::prepareRing(uint32_t count, uint64_t bytes) {
    std::unique_lock lock(mutex_);
    if (grab_.active) {
        return Status::fail(ORVIX_ERR_GRAB_RUNNING, "The buffer ring is in use by a grab");
    }
    if (busyGrab_ != 0) {
        return Status::fail(ORVIX_ERR_REFUSED, "The buffer ring is still being written");
    }
    return ring_.allocate(count, bytes);
}

Status Streamer::begin(const GrabSetup& setup, uint32_t frames) {
    if (onBoardThread()) {
        return Status::fail(ORVIX_ERR_REFUSED, "Start grab: not possible from inside a callback");
    }
    // Drawing the master image can take a while: do it before taking the lock.
    auto producer = std::make_unique<FrameProducer>(setup.producer, setup.bufferCount);
    std::unique_lock lock(mutex_);
    if (quit_) {
        return Status::fail(ORVIX_ERR_NO_BOARD_SELECTED, "Start grab: the board is closed");
    }
    if (grab_.active) {
        return grab_.single
                   ? Status::fail(ORVIX_ERR_SINGLE_SHOT_RUNNING,
                                  "Start grab: a single shot is running")
                   : Status::fail(ORVIX_ERR_GRAB_RUNNING, "Start grab: a grab is already running");
    }
    if (busyGrab_ != 0) {
        return Status::fail(ORVIX_ERR_REFUSED,
                            "Start grab: the last grab is still writing a frame");
    }
    Status s = ring_.allocate(setup.bufferCount, setup.producer.format.frameBytes());
    if (!s.ok()) {
        return s;
    }
    ring_.resetStatuses();

    const Nanos start = clock_->now();
    Grab grab;
    grab.id = ++lastGrabId_;
    grab.active = true;
    grab.single = frames == 1;
    grab.limit = frames;
    grab.setup = setup;
    grab.start = start;
    grab.schedule = setup.triggered ? FrameSchedule::triggered(setup.period)
                                    : FrameSchedule::freeRun(start, setup.period, frames);
    grab.producer = std::move(producer);
    grab.stopFailuresLeft = setup.stopFailures;
    if (!grab.single && setup.signalLossAfter > Nanos{0}) {
        grab.lossAt = start + setup.signalLossAfter;
    }
    grab_ = std::move(grab);
    lost_ = 0;
    frameTimes_.clear();
    ensureThread();
    if (grab_.single && !setup.triggered && clock_->isManual()) {
        // Nobody else moves a manual clock during a blocking single shot: go to the frame.
        manual_.set(std::max(start, *grab_.schedule.due(0)));
    }
    ++requestEpoch_;
    cv_.notify_all();
    return Status::success();
}

Status Streamer::awaitSingleShot() {
    std::unique_lock lock(mutex_);
    const uint64_t id = grab_.id;
    std::optional<Nanos> deadline;
    if (grab_.setup.triggered && grab_.setup.triggerTimeout > Nanos{0}) {
        deadline = grab_.start + grab_.setup.triggerTimeout;
    }
    while (true) {
        if (grab_.id != id) {
            return Status::fail(ORVIX_ERR_GRAB_ABORTED, "Single shot: the grab was replaced");
        }
        if (grab_.outcome != Outcome::Pending && busyGrab_ != id) {
            break;
        }
        if (grab_.outcome == Outcome::Pending && deadline && clock_->now() >= *deadline) {
            endGrab(Outcome::Failed,
                    Status::fail(ORVIX_ERR_TIMEOUT, "Single shot: no trigger within the timeout"));
            continue;
        }
        clock_->waitUntil(lock, cv_, deadline.value_or(Nanos::max()));
    }
    return grab_.outcome == Outcome::Done ? Status::success() : grab_.failure;
}

void Streamer::endGrab(Outcome outcome, Status failure) {
    grab_.active = false;
    grab_.outcome = outcome;
    grab_.failure = std::move(failure);
    cv_.notify_all();
}

Status Streamer::stop() {
    std::unique_lock lock(mutex_);
    if (!grab_.active) {
        return Status::success();
    }
    if (grab_.single) {
        endGrab(Outcome::Failed,
                Status::fail(ORVIX_ERR_GRAB_ABORTED, "Single shot aborted by a stop"));
    } else if (grab_.stopFailuresLeft > 0) {
        --grab_.stopFailuresLeft;
        return Status::fail(ORVIX_ERR_STOP_FAILED, "Stop grab: the board did not stop");
    } else {
        endGrab(Outcome::Done, Status::success());
    }
    // After a stop from outside no frame callback of this grab is running or will run.
    const uint64_t id = grab_.id;
    if (!onBoardThread()) {
        cv_.wait(lock, [&] { return busyGrab_ != id; });
    }
    frameTimes_.clear();
    return Status::success();
}

void Streamer::softwareTrigger() {
    std::lock_guard lock(mutex_);
    if (grab_.active && grab_.setup.triggered) {
        grab_.schedule.trigger(clock_->now(), std::max<uint32_t>(1, grab_.setup.framesPerTrigger));
        cv_.notify_all();
    }
}

bool Streamer::grabbing() const {
    std::lock_guard lock(mutex_);
    return grab_.active;
}

bool Streamer::delivering() const {
    std::lock_guard lock(mutex_);
    return busyGrab_ != 0;
}

uint32_t Streamer::lostFrames() const {
    std::lock_guard lock(mutex_);
    return lost_;
}

bool Streamer::cameraSignalPresent() const {
    std::lock_guard lock(mutex_);
    return !(grab_.active && grab_.lossAt && clock_->now() >= *grab_.lossAt);
}

double Streamer::frameRate() const {
    std::lock_guard lock(mutex_);
    if (!grab_.active || frameTimes_.size() < 2) {
        return 0.0;
    }
    const double span = static_cast<double>((frameTimes_.back() - frameTimes_.front()).count());
    const double perFrame = span / static_cast<double>(frameTimes_.size() - 1);
    // A stream that stopped delivering shows no rate once it is clearly overdue.
    const double silent = static_cast<double>((clock_->now() - frameTimes_.back()).count());
    if (span <= 0 || silent > std::max(1e9, 4 * perFrame)) {
        return 0.0;
    }
    double fps = 1e9 / perFrame;
    return grab_.setup.linesPerFrame != 0 ? fps * grab_.setup.linesPerFrame : fps;
}

void Streamer::callbacksChanged() {
    uint32_t watched = callbacks_.watchedSignals();
    std::lock_guard lock(mutex_);
    signals_.watch(watched, clock_->now());
    if (watched != 0) {
        ensureThread();
    }
    cv_.notify_all();
}

uint32_t Streamer::signalCounter(int row) const {
    std::lock_guard lock(mutex_);
    return signals_.counter(row);
}

uint32_t Streamer::counterControl() const {
    std::lock_guard lock(mutex_);
    return signals_.control();
}

void Streamer::setCounterControl(uint32_t control) {
    std::lock_guard lock(mutex_);
    signals_.setControl(control);
}

Status Streamer::setManualClock(bool on) {
    std::lock_guard lock(mutex_);
    if (grab_.active) {
        return Status::fail(ORVIX_ERR_GRAB_RUNNING, "The clock cannot change during a grab");
    }
    if (on) {
        manual_.set(Nanos{0});
    }
    return useClock(on ? static_cast<const Clock*>(&manual_) : &steady_);
}

Status Streamer::setVirtualClock(bool on) {
    std::lock_guard lock(mutex_);
    if (grab_.active) {
        return Status::fail(ORVIX_ERR_GRAB_RUNNING, "The clock cannot change during a grab");
    }
    return useClock(on ? static_cast<const Clock*>(&virtual_) : &steady_);
}

Status Streamer::useClock(const Clock* clock) {
    clock_ = clock;
    // Running signal waves restart on the new clock.
    uint32_t watched = signals_.watched();
    signals_.watch(0, clock_->now());
    signals_.watch(watched, clock_->now());
    cv_.notify_all();
    return Status::success();
}

bool Streamer::manualClock() const {
    std::lock_guard lock(mutex_);
    return clock_->isManual();
}

void Streamer::settle(std::unique_lock<std::mutex>& lock) {
    ensureThread();
    const uint64_t epoch = ++requestEpoch_;
    cv_.notify_all();
    cv_.wait(lock, [&] { return idleEpoch_ >= epoch || quit_; });
}

Status Streamer::advanceFrames(uint32_t n) {
    std::unique_lock lock(mutex_);
    if (!clock_->isManual()) {
        return Status::fail(ORVIX_ERR_REFUSED, "Advance frames: the manual clock is off");
    }
    if (onBoardThread()) {
        return Status::fail(ORVIX_ERR_REFUSED,
                            "Advance frames: not possible from inside a callback");
    }
    for (uint32_t i = 0; i < n; ++i) {
        if (!grab_.active) {
            return Status::fail(
                ORVIX_ERR_NOT_GRABBING,
                "Advance frames: no grab is running (" + std::to_string(i) + " frames produced)");
        }
        std::optional<Nanos> due = grab_.schedule.due(grab_.nextFrame);
        if (!due || (grab_.lossAt && *due >= *grab_.lossAt)) {
            return Status::fail(ORVIX_ERR_REFUSED,
                                "Advance frames: no further frame is scheduled (" +
                                    std::to_string(i) + " frames produced)");
        }
        if (*due > manual_.now()) {
            manual_.set(*due);
        }
        settle(lock);
    }
    return Status::success();
}

Status Streamer::advanceTime(Nanos step) {
    std::unique_lock lock(mutex_);
    if (!clock_->isManual()) {
        return Status::fail(ORVIX_ERR_REFUSED, "Advance time: the manual clock is off");
    }
    if (onBoardThread()) {
        return Status::fail(ORVIX_ERR_REFUSED, "Advance time: not possible from inside a callback");
    }
    manual_.advance(step);
    settle(lock);
    return Status::success();
}

Streamer::Work Streamer::nextWork() const {
    Work work;
    if (grab_.active) {
        std::optional<Nanos> due = grab_.schedule.due(grab_.nextFrame);
        if (due && !(grab_.lossAt && *due >= *grab_.lossAt)) {
            work = Work{Work::Frame, *due, {}};
        }
    }
    if (std::optional<SignalEdge> edge = signals_.next()) {
        if (work.kind == Work::None || edge->at < work.at) {
            work = Work{Work::Edge, edge->at, *edge};
        }
    }
    return work;
}

void Streamer::run() {
    tBoardThread = this;
    std::unique_lock lock(mutex_);
    while (!quit_) {
        const Work work = nextWork();
        if (work.kind != Work::None && work.at <= clock_->now()) {
            if (work.kind == Work::Frame) {
                deliverFrame(lock);
            } else {
                deliverEdge(lock, work.edge);
            }
            continue;
        }
        idleEpoch_ = requestEpoch_;
        cv_.notify_all();
        Nanos deadline = work.kind == Work::None ? Nanos::max() : work.at;
        // The camera's signal loss is an event of its own: a clock that jumps must reach it too.
        if (grab_.active && grab_.lossAt && *grab_.lossAt > clock_->now()) {
            deadline = std::min(deadline, *grab_.lossAt);
        }
        clock_->waitUntil(lock, cv_, deadline);
    }
    idleEpoch_ = requestEpoch_;
    cv_.notify_all();
}

void Streamer::deliverFrame(std::unique_lock<std::mutex>& lock) {
    Grab& g = grab_;
    const uint64_t id = g.id;
    const uint32_t slots = ring_.count();

    // The ring holds `slots` frames: when more are due than that, the oldest are overwritten
    // before anyone saw them.
    Nanos horizon = clock_->now();
    if (g.lossAt) {
        horizon = std::min(horizon, *g.lossAt - Nanos{1});
    }
    const uint64_t due = g.schedule.dueCount(horizon);
    if (!g.single && due > g.nextFrame + slots) {
        uint64_t lost = due - g.nextFrame - slots;
        if (g.limit != 0) {
            lost = std::min(lost, g.limit - g.nextFrame);
        }
        g.nextFrame += lost;
        g.schedule.forget(g.nextFrame);
        lost_ += static_cast<uint32_t>(lost);
        busyGrab_ = id;
        lock.unlock();
        for (uint64_t i = 0; i < lost; ++i) {
            callbacks_.fire(ORVIX_EVENT_FRAME_LOST);
        }
        lock.lock();
        busyGrab_ = 0;
        if (g.limit != 0 && g.nextFrame >= g.limit && g.id == id && g.active) {
            endGrab(Outcome::Done, Status::success());
        }
        cv_.notify_all();
        return;
    }

    const uint64_t k = g.nextFrame++;
    const Nanos at = *g.schedule.due(k);
    g.schedule.forget(g.nextFrame);
    const bool timedOut = g.setup.timeoutEvery != 0 && (k + 1) % g.setup.timeoutEvery == 0;
    const uint32_t slot = static_cast<uint32_t>(g.delivered % slots);
    const double seconds = static_cast<double>((at - g.start).count()) / 1e9;
    FrameProducer* producer = g.producer.get();
    busyGrab_ = id;
    lock.unlock();

    callbacks_.fire(ORVIX_EVENT_FRAME_START);
    if (timedOut) {
        callbacks_.fire(ORVIX_EVENT_FRAME_TIMEOUT);
    } else {
        ring_.markWriting(slot);
        OrvixBufferStatus status =
            producer->produce(k, slot, ring_.data(slot), ring_.bufferBytes());
        status.frameNumber = static_cast<uint32_t>(k);
        status.time = seconds;
        ring_.publish(slot, status);
    }

    lock.lock();
    if (!timedOut) {
        ++g.delivered;
        frameTimes_.push_back(at);
        if (frameTimes_.size() > kRateWindow) {
            frameTimes_.pop_front();
        }
    }
    lock.unlock();
    if (!timedOut) {
        callbacks_.fire(ORVIX_EVENT_FRAME_READY);
    }
    lock.lock();
    busyGrab_ = 0;
    if (g.id == id && g.active) {
        if (g.single) {
            endGrab(timedOut ? Outcome::Failed : Outcome::Done,
                    timedOut ? Status::fail(ORVIX_ERR_TIMEOUT, "Single shot: the frame timed out")
                             : Status::success());
        } else if (g.limit != 0 && g.nextFrame >= g.limit) {
            endGrab(Outcome::Done, Status::success());
        }
    }
    cv_.notify_all();
}

void Streamer::deliverEdge(std::unique_lock<std::mutex>& lock, const SignalEdge& edge) {
    signals_.pass(edge);
    lock.unlock();
    bool delivered = callbacks_.fire(edge.event());
    lock.lock();
    // The counters count what the callbacks saw, so both ways of checking agree.
    if (delivered) {
        signals_.count(edge.row);
    }
}

}  // namespace orvix::sim
