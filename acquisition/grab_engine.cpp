#include "acquisition/grab_engine.h"

#include <algorithm>
#include <cmath>
#include <system_error>

namespace lumetra {
namespace {

using std::chrono::milliseconds;

constexpr double kDisplayThrottleMs = 30.0;
constexpr double kLostNoticeMs = 100.0;
constexpr double kStatusTickMs = 500.0;
constexpr double kWatchDogPeriodMs = 200.0;

GrabContext& grabOf(void* context) {
    return *static_cast<CallbackContext*>(context)->grab;
}

}  // namespace

std::string_view GrabStateName(GrabState state) {
    switch (state) {
        case GrabState::kIdle:
            return "idle";
        case GrabState::kSingleShot:
            return "single shot";
        case GrabState::kStarting:
            return "starting";
        case GrabState::kRunning:
            return "running";
        case GrabState::kStopping:
            return "stopping";
    }
    return "?";
}

void GrabContext::setCapture(std::shared_ptr<const PixelCaptureHooks> hooks) {
    MutexLock lock(captureMutex_);
    capture_ = std::move(hooks);
}

std::shared_ptr<const PixelCaptureHooks> GrabContext::capture() const {
    MutexLock lock(captureMutex_);
    return capture_;
}

bool CameraSignalPresent(int32_t status, bool coaxpress) {
    if (status == -1) {
        return false;
    }
    const auto s = static_cast<uint32_t>(status);
    if (coaxpress) {
        return (s & ORVIX_CXP_LINK_UP) != 0;
    }
    const uint32_t all = ORVIX_CL_PIXEL_CLOCK | ORVIX_CL_FRAME_VALID | ORVIX_CL_LINE_VALID;
    return (s & all) == all;
}

uint64_t ReadFrameSize(BoardLibrary& lib, OrvixHandle handle) {
    uint32_t high = 0;
    uint32_t low = 0;
    if (lib.GetInfo(handle, ORVIX_FRAME_SIZE_HIGH, &high) == ORVIX_SUCCESS) {
        lib.GetInfo(handle, ORVIX_FRAME_SIZE_LOW, &low);
        return (uint64_t{high} << 32) | low;
    }
    uint32_t size = 0;
    if (lib.GetInfo(handle, ORVIX_FRAME_SIZE, &size) != ORVIX_SUCCESS) {
        return 0;
    }
    const auto signedSize = static_cast<int32_t>(size);
    return signedSize > 0 ? static_cast<uint64_t>(signedSize) : 0;
}

// ---- callbacks ----

void OnFrameReady(uint32_t, void* context) {
    auto& cc = *static_cast<CallbackContext*>(context);
    GrabContext& g = *cc.grab;
    BoardLibrary& lib = *g.links.library;
    const OrvixHandle h = cc.handle;

    const bool saverWants = g.saver != nullptr && g.saver->wantsFrames();
    const bool recorderWants = g.recorder != nullptr && g.recorder->wantsFrames();
    const bool deliver = saverWants || recorderWants;

    uint64_t frameSize = 0;
    if (g.coaxpress) {
        // CoaXPress boards report the plain 32-bit size and never compress.
        uint32_t size = 0;
        if (lib.GetInfo(h, ORVIX_FRAME_SIZE, &size) == ORVIX_SUCCESS &&
            static_cast<int32_t>(size) > 0) {
            frameSize = size;
        }
    } else {
        frameSize = ReadFrameSize(lib, h);
    }
    uint32_t bufferCount = 0;
    lib.GetInfo(h, ORVIX_BUFFER_COUNT, &bufferCount);

    // The display gets at most one copy per 30 ms; the recording paths get every frame. The
    // display's clock runs on its own, so recording never starves the view.
    const Clock::time_point now = g.clock().now();
    const bool displayDue = ElapsedMs(g.lastDelivered, now) > kDisplayThrottleMs;
    bool offered = false;
    if (displayDue || deliver) {
        OrvixBufferStatus status{};
        if (lib.GetBufferStatusEx(h, cc.nextBuffer, &status) == ORVIX_SUCCESS) {
            g.lastFrameTime = status.time;
            if (status.ready == 1 && status.overflow != 1 && status.incomplete != 1) {
                bool jpeg = false;
                uint64_t size = frameSize;
                uint32_t compress = 0;
                if (!g.coaxpress &&
                    lib.GetInfo(h, ORVIX_JPEG_COMPRESS_ENABLE, &compress) == ORVIX_SUCCESS &&
                    compress == 1) {
                    jpeg = true;
                    size = status.compressedSize;
                }
                void* address = nullptr;
                lib.GetBufferAddress(h, cc.nextBuffer, &address);
                if (address != nullptr) {
                    if (saverWants) {
                        g.saver->push(address, size, jpeg);
                    }
                    if (recorderWants) {
                        g.recorder->push(address, size, jpeg);
                    }
                    if (displayDue) {
                        g.links.store->Put(address, size, jpeg);
                        offered = true;
                        // A frame the display had not taken yet is replaced.
                        if (g.newFrame.exchange(true)) {
                            ++g.framesSkipped;
                        }
                    }
                }
            }
        }
        if (displayDue) {
            g.lastDelivered = now;
        }
    }
    if (!offered) {
        ++g.framesSkipped;
    }
    ++g.frameCounter;
    cc.nextBuffer = bufferCount != 0 ? (cc.nextBuffer + 1) % bufferCount : 0;
}

void OnFrameStart(uint32_t, void* context) {
    grabOf(context).frameStartSeen = true;
}

void OnFrameTimeout(uint32_t, void* context) {
    GrabContext& g = grabOf(context);
    if (g.frameStartSeen.exchange(false)) {
        g.post(msg::kGrabTimeout);
    }
}

void OnFrameLost(uint32_t, void* context) {
    GrabContext& g = grabOf(context);
    const Clock::time_point now = g.clock().now();
    if (!g.lostNoticed || ElapsedMs(g.lastLostNotice, now) > kLostNoticeMs) {
        g.post(msg::kFrameLost, 1, 0);
        g.lastLostNotice = now;
        g.lostNoticed = true;
    }
    ++g.lostEvents;
}

// ---- display thread ----

void DisplayLoop::Begin() {
    lastProcessed_ = lastStatusTick_ = grab_.clock().now();
}

bool DisplayLoop::Turn() {
    GrabContext& g = grab_;
    Clock& clock = g.clock();
    if (ElapsedMs(lastStatusTick_, clock.now()) > kStatusTickMs) {
        g.post(msg::kRate, 0, 0);
        lastStatusTick_ = clock.now();
    }
    if (!g.newFrame.exchange(false)) {
        clock.sleepFor(milliseconds(10));
        return g.running;
    }

    const int paint = g.lastPaintMs != nullptr ? g.lastPaintMs->load() : 0;
    const int sleepMs = std::clamp(static_cast<int>(paint * 1.25), 35, 1500);
    clock.sleepFor(milliseconds(sleepMs));
    const double sinceLast = ElapsedMs(lastProcessed_, clock.now());
    if (!g.running) {
        ++g.framesSkipped;  // taken, never shown
        return false;
    }
    if (++g.displayCounter >= 1000) {
        g.displayCounter = 0;
    }
    // A slow stream refreshes everything on every frame.
    if (sinceLast > 300.0 && sleepMs <= 300) {
        g.displayCounter = 0;
    }

    const std::shared_ptr<const PixelCaptureHooks> capture = g.capture();
    if (capture && capture->conditionMet && capture->conditionMet()) {
        ++g.framesSkipped;
        g.post(msg::kStopGrab);
        return false;
    }

    // The check runs under the frame lock, on the frame just converted.
    const bool converted = g.links.store->Deliver(*g.links.frame, [&capture] {
        if (capture && capture->check) {
            capture->check();
        }
    });
    overlayDrawn_ = converted;
    if (converted) {
        ++g.framesDisplayed;
    } else {
        ++g.framesSkipped;
    }

    g.divisorProfiles = 4;
    g.divisorRoi = 2;
    g.divisorStatus = 2;
    const double rate = g.rate.load();
    const int paced = std::max(static_cast<int>(paint * 1.5), 35);
    g.analysisDivisor = std::max(static_cast<int>(rate * 1000.0 / paced + 2.0), 1);

    if (!g.viewFrozen) {
        g.post(msg::kPaint);
    }
    if (g.displayCounter % g.analysisDivisor == 0) {
        g.post(msg::kFrameArrived);
    }
    if (g.displayCounter % g.divisorProfiles == 0) {
        g.post(msg::kProfiles);
    }
    if (g.displayCounter % g.divisorRoi == 0) {
        g.post(msg::kRoiRefresh);
    }
    if (g.displayCounter % g.divisorStatus == 0) {
        g.post(msg::kRate, 0, 1);
        g.post(msg::kMarker);
        g.post(msg::kFrameLost, 0, 0);
        if (overlayDrawn_) {
            g.overlayAlpha = 255;
            g.post(msg::kCameraStatus, 0, 2);
        }
    }
    lastProcessed_ = clock.now();
    return g.running;
}

void DisplayLoop::End() {
    GrabContext& g = grab_;
    g.post(msg::kPaint);
    g.post(msg::kFrameArrived);
    g.post(msg::kProfiles);
    g.post(msg::kRoiRefresh);
    g.post(msg::kRate, 0, 2);
    g.post(msg::kMarker);
    g.post(msg::kFrameLost);
    g.threadFinished = true;
}

// ---- engine ----

GrabEngine::GrabEngine(const GrabLinks& links) {
    grab_.links = links;
}

GrabEngine::~GrabEngine() {
    StopWatchDog();
    StopDisplayThread();
    if (prepared_) {
        Unregister();
    }
}

GrabState GrabEngine::state() const {
    MutexLock lock(stateMutex_);
    return state_;
}

uint64_t GrabEngine::session() const {
    MutexLock lock(stateMutex_);
    return session_;
}

bool GrabEngine::Transition(GrabState from, GrabState to) {
    MutexLock lock(stateMutex_);
    if (state_ != from) {
        return false;
    }
    state_ = to;
    return true;
}

void GrabEngine::SetState(GrabState to) {
    MutexLock lock(stateMutex_);
    state_ = to;
}

bool GrabEngine::setConsumers(FrameConsumer* saver, FrameConsumer* recorder) {
    if (!idle()) {
        return false;
    }
    grab_.saver = saver;
    grab_.recorder = recorder;
    return true;
}

bool GrabEngine::setLastPaint(const std::atomic<int>* lastPaintMs) {
    if (!idle()) {
        return false;
    }
    grab_.lastPaintMs = lastPaintMs;
    return true;
}

bool GrabEngine::Prepare(OrvixHandle handle, bool coaxpress) {
    BoardLibrary& lib = *grab_.links.library;
    grab_.handle = handle;
    boardHandle_ = handle;
    grab_.coaxpress = coaxpress;
    grab_.rate = 0.0;
    grab_.lastDelivered = {};
    grab_.lostNoticed = false;
    grab_.frameStartSeen = false;
    grab_.newFrame = false;
    if (!frameContext_) {
        frameContext_ = std::make_unique<CallbackContext>();
        startContext_ = std::make_unique<CallbackContext>();
        spareContext_ = std::make_unique<CallbackContext>();
    }
    for (CallbackContext* cc : {frameContext_.get(), startContext_.get(), spareContext_.get()}) {
        *cc = CallbackContext{&grab_, handle, 0};
    }
    bool ok = lib.RegisterCallback(handle, ORVIX_EVENT_FRAME_READY, OnFrameReady,
                                   frameContext_.get()) == ORVIX_SUCCESS;
    ok &= lib.RegisterCallback(handle, ORVIX_EVENT_FRAME_START, OnFrameStart,
                               startContext_.get()) == ORVIX_SUCCESS;
    ok &= lib.RegisterCallback(handle, ORVIX_EVENT_FRAME_TIMEOUT, OnFrameTimeout,
                               startContext_.get()) == ORVIX_SUCCESS;
    ok &= lib.RegisterCallback(handle, ORVIX_EVENT_FRAME_LOST, OnFrameLost, frameContext_.get()) ==
          ORVIX_SUCCESS;
    prepared_ = true;
    return ok;
}

void GrabEngine::Unregister() {
    BoardLibrary& lib = *grab_.links.library;
    const OrvixHandle h = grab_.handle;
    if (h != ORVIX_INVALID_HANDLE) {
        // The ABI promises that a callback neither runs nor is running once its unregistration
        // has returned: the contexts may go right after.
        for (uint32_t event : {ORVIX_EVENT_FRAME_READY, ORVIX_EVENT_FRAME_START,
                               ORVIX_EVENT_FRAME_TIMEOUT, ORVIX_EVENT_FRAME_LOST}) {
            lib.UnRegisterCallback(h, event);
        }
    }
    frameContext_.reset();
    startContext_.reset();
    spareContext_.reset();
    // No callback runs any more and the display thread has ended: a frame still waiting for
    // the display is never shown.
    if (grab_.newFrame.exchange(false)) {
        ++grab_.framesSkipped;
    }
    grab_.handle = ORVIX_INVALID_HANDLE;
    prepared_ = false;
    grab_.post(msg::kStatusTimer);
}

bool GrabEngine::GrabOnce(OrvixHandle handle) {
    if (!Transition(GrabState::kIdle, GrabState::kSingleShot)) {
        return false;
    }
    BoardLibrary& lib = *grab_.links.library;
    MessageLog& log = *grab_.links.log;
    grab_.lastDelivered = {};
    OrvixErrorInfo error{};
    lib.GetLastError(&error, 1);
    log.log("Start Grab");

    lib.SetInfo(handle, ORVIX_GRAB_CONTINUOUS, 0);
    uint32_t compress = 0;
    if (lib.GetInfo(handle, ORVIX_JPEG_COMPRESS_ENABLE, &compress) == ORVIX_SUCCESS) {
        jpegFlag = compress != 0;
    }

    std::string message;
    if (lib.StartGrab(handle, 1) != ORVIX_SUCCESS) {
        lib.GetLastError(&error, 1);
        int32_t status = 0;
        lib.GetCameraStatus(handle, &status);
        cameraStatus = status;
        // The indicators show the status just read; the front end refreshes them on this post.
        grab_.post(msg::kCameraStatus, 0, 1);
        switch (error.code) {
            case ORVIX_ERR_SINGLE_SHOT_RUNNING:
                message = "Grab(once) process is running.Please wait...";
                break;
            case ORVIX_ERR_GRAB_ABORTED:
                message = "Grab Abort!";
                break;
            default:
                message = "Grab (1 Shot) fail. Please check the paramter and board signal\n";
                break;
        }
    } else {
        uint64_t size = ReadFrameSize(lib, handle);
        OrvixBufferStatus status{};
        lib.GetBufferStatusEx(handle, 0, &status);
        grab_.lastFrameTime = status.time;
        void* address = nullptr;
        lib.GetBufferAddress(handle, 0, &address);
        if (address != nullptr && size != 0) {
            size = std::min<uint64_t>(size, grab_.links.frame->raw().size());
            if (compress == 1) {
                size = status.compressedSize;
            }
            grab_.links.store->Put(address, size, compress == 1);
            if (grab_.links.store->Deliver(*grab_.links.frame)) {
                ++grab_.framesDisplayed;
            } else {
                ++grab_.framesSkipped;
            }
        } else {
            ++grab_.framesSkipped;
        }
        ++grab_.frameCounter;
        grab_.post(msg::kPaint);
        grab_.post(msg::kProfiles);
        grab_.post(msg::kFrameArrived);
        grab_.post(msg::kRoiRefresh);
        grab_.post(msg::kMarker);
        grab_.post(msg::kFramesGrabbed);
        grab_.post(msg::kRate, 0, 2);
        message = "Grab (1 Shot) completed\n";
    }
    SetState(GrabState::kIdle);
    grab_.post(msg::kStatusTimer);
    log.log(message);
    return true;
}

GrabEngine::StartResult GrabEngine::StartContinuous(OrvixHandle handle, bool coaxpress) {
    if (!Transition(GrabState::kIdle, GrabState::kStarting)) {
        return StartResult::kNotIdle;
    }
    BoardLibrary& lib = *grab_.links.library;
    grab_.clock().sleepFor(milliseconds(30));
    lib.SetInfo(handle, ORVIX_ACQUISITION_MODE, 2);
    Prepare(handle, coaxpress);
    lib.SetInfo(handle, ORVIX_GRAB_CONTINUOUS, 1);
    uint32_t compress = 0;
    if (lib.GetInfo(handle, ORVIX_JPEG_COMPRESS_ENABLE, &compress) == ORVIX_SUCCESS) {
        jpegFlag = compress != 0;
    }
    if (lib.StartGrab(handle, 0) != ORVIX_SUCCESS) {
        Unregister();
        SetState(GrabState::kIdle);
        return StartResult::kBoardRefused;
    }
    {
        MutexLock lock(stateMutex_);
        ++session_;
        state_ = GrabState::kRunning;
    }
    StartDisplayThread();
    return StartResult::kStarted;
}

void GrabEngine::StartDisplayThread() {
    if (displayThread_.joinable()) {
        return;
    }
    grab_.running = true;
    grab_.threadFinished = false;
    displayThread_ = std::thread([this] {
        DisplayLoop loop(grab_);
        loop.Begin();
        while (grab_.running && loop.Turn()) {
        }
        loop.End();
    });
}

void GrabEngine::StopDisplayThread() {
    if (!displayThread_.joinable()) {
        return;
    }
    // The display thread only posts: joining it cannot wait on this thread.
    grab_.running = false;
    displayThread_.join();
    grab_.lastDelivered = {};
    grab_.post(msg::kRate, 1, 0);
}

bool GrabEngine::StopBoard() {
    BoardLibrary& lib = *grab_.links.library;
    for (int attempt = 0; attempt < 5; ++attempt) {
        const bool stopped = lib.StopGrab(boardHandle_) == ORVIX_SUCCESS;
        grab_.clock().sleepFor(milliseconds(10));
        if (stopped) {
            return true;
        }
    }
    return false;
}

void GrabEngine::StopConsumers() {
    if (grab_.saver != nullptr) {
        grab_.saver->stop();
    }
    if (grab_.recorder != nullptr) {
        grab_.recorder->stop();
    }
}

GrabEngine::StopResult GrabEngine::StopGrab() {
    {
        MutexLock lock(stateMutex_);
        if (state_ == GrabState::kStopping) {
            return StopResult::kAlreadyStopping;
        }
        if (state_ != GrabState::kIdle && state_ != GrabState::kRunning) {
            return StopResult::kBusy;
        }
        state_ = GrabState::kStopping;
    }
    StopWatchDog();
    grab_.clock().sleepFor(milliseconds(300));
    const bool stopped = StopBoard();
    lastStopFailed_ = !stopped;
    grab_.links.log->log(stopped ? "Grab Stop\n"
                                 : "Grab Stop fail.Please click the 'Grab Stop' Button again\n");
    StopDisplayThread();
    if (prepared_) {
        Unregister();
    }
    StopConsumers();
    // Idle only once everything has ended: a command run meanwhile finds the stop under way.
    SetState(GrabState::kIdle);
    return stopped ? StopResult::kStopped : StopResult::kBoardRefused;
}

bool GrabEngine::StopForSignalLoss(uint64_t session) {
    {
        MutexLock lock(stateMutex_);
        if (state_ != GrabState::kRunning || session_ != session) {
            return false;  // the user stopped it, or a later grab runs
        }
        state_ = GrabState::kStopping;
    }
    // The watch-dog cleared its flag before it posted: it has ended or is about to.
    StopWatchDog();
    StopBoard();
    StopDisplayThread();
    StopConsumers();
    if (prepared_) {
        Unregister();
    }
    grab_.links.log->log("Board signal abnormal.Grab Stop\n");
    signalFault = false;
    OrvixErrorInfo error{};
    grab_.links.library->GetLastError(&error, 1);
    SetState(GrabState::kIdle);
    return true;
}

void GrabEngine::Shutdown() {
    StopWatchDog();
    StopDisplayThread();
    if (prepared_) {
        Unregister();
    }
    StopConsumers();
    SetState(GrabState::kIdle);
}

void GrabEngine::StartWatchDog() {
    if (watchDogThread_.joinable()) {
        return;
    }
    watchDogFlag = true;
    try {
        watchDogThread_ = std::thread([this] { WatchDogLoop(); });
    } catch (const std::system_error&) {
        watchDogFlag = false;
        grab_.links.log->log("Create Watch Dog Thread Fail\n");
    }
}

void GrabEngine::StopWatchDog() {
    watchDogFlag = false;
    if (watchDogThread_.joinable()) {
        // The watch-dog only posts: joining it cannot wait on this thread.
        watchDogThread_.join();
    }
}

void GrabEngine::WatchDogLoop() {
    while (watchDogFlag) {
        for (int i = 0; i < 5 && watchDogFlag; ++i) {
            grab_.clock().sleepFor(milliseconds(10));
        }
        if (!watchDogFlag) {
            break;
        }
        WatchDogCheck();
    }
}

void GrabEngine::WatchDogCheck() {
    const Clock::time_point now = grab_.clock().now();
    if (ElapsedMs(lastWatchDogCheck_, now) <= kWatchDogPeriodMs) {
        checking = false;
        return;
    }
    lastWatchDogCheck_ = now;
    checking = true;
    BoardLibrary& lib = *grab_.links.library;
    int32_t status = 0;
    lib.GetCameraStatus(grab_.handle, &status);
    cameraStatus = status;
    OrvixErrorInfo error{};
    lib.GetLastError(&error, 0);
    if (error.code != ORVIX_ERR_NONE) {
        lib.GetLastError(&error, 1);
        return;
    }
    if (status == -1) {
        return;
    }
    // The main frame refreshes its indicators on 1129; its answer (are the signals there?) is
    // computed here from the same status, so this thread never waits for it.
    grab_.post(msg::kCameraStatus, 0, 1);
    if (CameraSignalPresent(status, grab_.coaxpress)) {
        lastStatus = status;
        signalFault = false;
        return;
    }
    // The owner runs the stop when this arrives; the loop ends here.
    watchDogFlag = false;
    grab_.post(msg::kSignalLost, static_cast<intptr_t>(session()), 0);
}

}  // namespace lumetra
