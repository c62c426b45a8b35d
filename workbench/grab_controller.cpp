#include "workbench/grab_controller.h"

#include "acquisition/grab_engine.h"
#include "base/process_flags.h"

namespace lumetra {

bool GrabController::Refuse(bool continuousCommand) {
    GrabEngine& engine = doc_.grabEngine();
    engine.context().frameCounter = 0;
    engine.context().framesDisplayed = 0;
    engine.context().framesSkipped = 0;
    engine.context().lostEvents = 0;
    frameLost_ = false;
    switch (engine.state()) {
        case GrabState::kIdle:
            break;
        case GrabState::kSingleShot:
            prompt_.information("Grab(once) process is running.Please wait...");
            return true;
        case GrabState::kStarting:
        case GrabState::kRunning:
        case GrabState::kStopping:
            prompt_.information(continuousCommand
                                    ? "Grab(continuouse) process is running.Please wait..."
                                    : "Grab(continuous) process is running.Please wait...");
            return true;
    }
    if (!doc_.hasBoard()) {
        doc_.Log(continuousCommand ? "Board has not been opened.\n"
                                   : "Board has not been selected.\n");
        return true;
    }
    return false;
}

void GrabController::SingleShot() {
    if (Refuse(false)) {
        return;
    }
    GrabEngine& engine = doc_.grabEngine();
    engine.context().clock().sleepFor(std::chrono::milliseconds(30));
    if (!doc_.AllocateFrameMemory()) {
        doc_.Log("Grab (1 shot) fail.Please check the paramter and camera signal.\n");
        return;
    }
    engine.GrabOnce(doc_.handle());
}

bool GrabController::StartContinuous() {
    if (Refuse(true)) {
        return false;
    }
    GrabEngine& engine = doc_.grabEngine();
    if (!doc_.AllocateFrameMemory()) {
        doc_.Log("Allocate Virtual Memory Fail.");
        return false;
    }
    switch (engine.StartContinuous(doc_.handle(), processFlags().coaxpress)) {
        case GrabEngine::StartResult::kStarted:
            break;
        case GrabEngine::StartResult::kNotIdle:
            return false;  // Refuse() has just seen it idle: nothing else runs commands
        case GrabEngine::StartResult::kBoardRefused: {
            OrvixErrorInfo error{};
            doc_.library()->GetLastError(&error, 1);
            doc_.Log(error.code == ORVIX_ERR_GRAB_RUNNING
                         ? "Grab(continuous) process is running.\n"
                         : "Grab(continuous) fail.Please check the parameter and camera signal.\n");
            return false;
        }
    }
    doc_.Log("Start Grab");
    engine.StartWatchDog();
    return true;
}

void GrabController::Stop() {
    if (!doc_.hasBoard()) {
        doc_.Log("Board has not been selected.\n");
        return;
    }
    switch (doc_.grabEngine().StopGrab()) {
        case GrabEngine::StopResult::kStopped:
        case GrabEngine::StopResult::kBoardRefused:  // the engine has said so
            break;
        case GrabEngine::StopResult::kAlreadyStopping:
            doc_.Log("The Grab Stop process is running.\n");
            break;
        case GrabEngine::StopResult::kBusy:
            doc_.Log("Stop Grab(continuous) fail.Please click 'Grab Stop' button manually\n");
            break;
    }
}

void GrabController::Handle(uint32_t message, intptr_t wParam, intptr_t) {
    GrabEngine& engine = doc_.grabEngine();
    switch (message) {
        case msg::kGrabTimeout:
            if (!engine.continuousRunning()) {
                return;  // a late notice of a grab that has ended
            }
            doc_.Log("Grab(continuouse) time out!\n");
            if (engine.StopGrab() == GrabEngine::StopResult::kAlreadyStopping) {
                doc_.Log(
                    "Stop Grab(continuouse) fail.Please click the 'Grab Stop' button manually.\n");
            }
            return;
        case msg::kSignalLost:
            engine.StopForSignalLoss(static_cast<uint64_t>(wParam));
            return;
        case msg::kFrameLost: {
            if (wParam != 1 || !doc_.hasBoard()) {
                return;
            }
            uint32_t lost = 0;
            if (doc_.library()->GetInfo(doc_.handle(), ORVIX_FRAME_LOST, &lost) == ORVIX_SUCCESS &&
                lost != 0) {
                frameLost_ = true;
                doc_.Log("OrvixBoard lost frame for thread context change.\n");
            }
            return;
        }
        case msg::kStopGrab:
            Stop();
            return;
        default:
            return;
    }
}

}  // namespace lumetra
