// The simulated board's own entry points for tests (OrvixSim.h): its manual clock, so that frames
// come when a test asks for them. The library is opened a second time by path, which gives the
// instance the board-library loader already holds.
#pragma once

#include <dlfcn.h>

#include <string>
#include <utility>

#include "OrvixBoard.h"

namespace lumetra::test {

class SimHooks {
  public:
    SimHooks() = default;
    SimHooks(SimHooks&& other) noexcept { *this = std::move(other); }
    SimHooks& operator=(SimHooks&& other) noexcept {
        std::swap(handle_, other.handle_);
        std::swap(setManualClock, other.setManualClock);
        std::swap(advanceFrames, other.advanceFrames);
        std::swap(advanceTime, other.advanceTime);
        return *this;
    }
    ~SimHooks() { Close(); }

    // Empty on success, else why not.
    std::string Open(const char* path) {
        Close();
        handle_ = dlopen(path, RTLD_NOW | RTLD_LOCAL);
        if (handle_ == nullptr) {
            return std::string("dlopen of the simulated board failed: ") + dlerror();
        }
        setManualClock =
            reinterpret_cast<decltype(setManualClock)>(dlsym(handle_, "OrvixSimSetManualClock"));
        advanceFrames =
            reinterpret_cast<decltype(advanceFrames)>(dlsym(handle_, "OrvixSimAdvanceFrames"));
        advanceTime =
            reinterpret_cast<decltype(advanceTime)>(dlsym(handle_, "OrvixSimAdvanceTime"));
        if (setManualClock == nullptr || advanceFrames == nullptr || advanceTime == nullptr) {
            return "the simulated board lacks its manual clock";
        }
        return {};
    }
    void Close() {
        if (handle_ != nullptr) {
            dlclose(handle_);
            handle_ = nullptr;
        }
    }

    int (*setManualClock)(OrvixHandle, int32_t) = nullptr;
    int (*advanceFrames)(OrvixHandle, uint32_t) = nullptr;
    int (*advanceTime)(OrvixHandle, uint64_t) = nullptr;

  private:
    void* handle_ = nullptr;
};

}  // namespace lumetra::test
