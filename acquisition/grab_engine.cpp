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

// Waits for a worker to set its finished flag, letting the front end handle messages meanwhile.
void waitFor(const GrabContext& grab, const std::function<bool()>& done) {
    if (grab.links.sink != nullptr) {
        grab.links.sink->waitUntil(done);
    }
}

}  // namespace

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
                        g.newFrame = true;
                    }
                }
            }
        }
        if (displayDue) {
            g.lastDelivered = now;
        }
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
        return false;
    }
    if (++g.displayCounter >= 1000) {
        g.displayCounter = 0;
    }
    // A slow stream refreshes everything on every frame.
    if (sinceLast > 300.0 && sleepMs <= 300) {
        g.displayCounter = 0;
    }

    if (g.capture.conditionMet && g.capture.conditionMet()) {
        g.post(msg::kStopGrab);
        return false;
    }

    {
        std::lock_guard lock(g.links.frame->frameLock());
        if (!g.links.store->ConvertInto(g.links.frame->raw())) {
            overlayDrawn_ = false;
        } else {
            if (g.capture.check) {
                g.capture.check();
            }
            overlayDrawn_ = true;
            ++g.framesDisplayed;
        }
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

void GrabEngine::setConsumers(FrameConsumer* saver, FrameConsumer* recorder) {
    grab_.saver = saver;
    grab_.recorder = recorder;
}

bool GrabEngine::Prepare(OrvixHandle handle, bool coaxpress) {
    BoardLibrary& lib = *grab_.links.library;
    grab_.handle = handle;
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
        // The library returns from each only when that callback can no longer run.
        for (uint32_t event : {ORVIX_EVENT_FRAME_READY, ORVIX_EVENT_FRAME_START,
                               ORVIX_EVENT_FRAME_TIMEOUT, ORVIX_EVENT_FRAME_LOST}) {
            lib.UnRegisterCallback(h, event);
        }
    }
    frameContext_.reset();
    startContext_.reset();
    spareContext_.reset();
    grab_.handle = ORVIX_INVALID_HANDLE;
    prepared_ = false;
    grab_.post(msg::kStatusTimer);
}

int GrabEngine::GrabOnce(OrvixHandle handle) {
    std::lock_guard once(grabOnceMutex_);
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
        if (grab_.links.sink != nullptr) {
            grab_.links.sink->send(msg::kCameraStatus, 0, 1);
        }
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
            std::lock_guard lock(grab_.links.frame->frameLock());
            if (grab_.links.store->ConvertInto(grab_.links.frame->raw())) {
                ++grab_.framesDisplayed;
            }
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
    grabIdle = true;
    grab_.post(msg::kStatusTimer);
    log.log(message);
    return 1;
}

bool GrabEngine::StartContinuous(OrvixHandle handle, bool coaxpress) {
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
        return false;
    }
    grabbing = true;
    StartDisplayThread();
    return true;
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
    grab_.running = false;
    waitFor(grab_, [this] { return grab_.threadFinished.load(); });
    displayThread_.join();
    grab_.lastDelivered = {};
    grab_.post(msg::kRate, 1, 0);
}

bool GrabEngine::StopBoard() {
    BoardLibrary& lib = *grab_.links.library;
    for (int attempt = 0; attempt < 5; ++attempt) {
        const bool stopped = lib.StopGrab(grab_.handle) == ORVIX_SUCCESS;
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

int GrabEngine::StopGrab() {
    stopping_ = true;
    StopWatchDog();
    std::lock_guard stop(stopMutex_);
    grab_.clock().sleepFor(milliseconds(300));
    grabbing = false;
    const bool stopped = StopBoard();
    lastStopFailed_ = !stopped;
    grab_.links.log->log(stopped ? "Grab Stop\n"
                                 : "Grab Stop fail.Please click the 'Grab Stop' Button again\n");
    StopDisplayThread();
    grabIdle = true;
    if (prepared_) {
        Unregister();
    }
    StopConsumers();
    stopping_ = false;
    return 1;
}

void GrabEngine::StartWatchDog() {
    if (watchDogThread_.joinable()) {
        return;
    }
    watchDogFlag = true;
    watchDogFinished_ = false;
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
        // It may be waiting for the front end's answer to 1129.
        waitFor(grab_, [this] { return watchDogFinished_.load(); });
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
    watchDogFinished_ = true;
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
    const intptr_t answer =
        grab_.links.sink != nullptr ? grab_.links.sink->send(msg::kCameraStatus, 0, 1) : 1;
    if (answer == 1) {
        lastStatus = status;
        signalFault = false;
        return;
    }
    WatchDogStop();
}

void GrabEngine::WatchDogStop() {
    std::unique_lock stop(stopMutex_, std::try_to_lock);
    if (!stop.owns_lock()) {
        return;  // the user is stopping the grab already
    }
    stopping_ = true;
    grabbing = false;
    watchDogFlag = false;
    StopBoard();
    StopDisplayThread();
    StopConsumers();
    grabIdle = true;
    if (prepared_) {
        Unregister();
    }
    grab_.links.log->log("Board signal abnormal.Grab Stop\n");
    signalFault = false;
    OrvixErrorInfo error{};
    grab_.links.library->GetLastError(&error, 1);
    stopping_ = false;
}

}  // namespace lumetra
