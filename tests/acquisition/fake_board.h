// A recording stand-in for the board library: boards with parameter stores, and a log of every
// call in order, so tests can check what the core did and in which order.
#pragma once

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "acquisition/board_library.h"
#include "base/clock.h"
#include "support/recording_log.h"

namespace lumetra::test {

struct FakeCall {
    std::string fn;
    uint32_t id = 0;
    uint32_t value = 0;
    bool operator==(const FakeCall&) const = default;
};

// How GoogleTest shows a call in a failed comparison.
inline void PrintTo(const FakeCall& c, std::ostream* os) {
    *os << c.fn << "(0x" << std::hex << c.id << std::dec << ", " << c.value << ")";
}

struct FakeBoard {
    std::string name = "Fake CL Board";
    bool opens = true;
    std::map<uint32_t, uint32_t> values;
    std::set<uint32_t> failSet;
    std::set<uint32_t> failGet;
    std::set<uint32_t> failSetOnce;  // fails the first write only
};

class FakeBoardLibrary final : public BoardLibrary {
  public:
    std::vector<FakeBoard> boards;
    std::vector<FakeCall> calls;
    int openHandle = -1;  // index of the open board

    int GetBoardCount(int32_t, int32_t* count) override {
        *count = static_cast<int32_t>(boards.size());
        return record("GetBoardCount");
    }
    OrvixHandle Open(int32_t, int32_t index) override {
        record("Open", static_cast<uint32_t>(index));
        if (index < 0 || index >= static_cast<int>(boards.size()) || !boards[index].opens) {
            return ORVIX_INVALID_HANDLE;
        }
        openHandle = index;
        return 100 + index;
    }
    int GetBoardName(int32_t, int32_t index, char* name, uint32_t* size) override {
        std::strncpy(name, boards.at(index).name.c_str(), *size - 1);
        name[*size - 1] = '\0';
        return record("GetBoardName", static_cast<uint32_t>(index));
    }
    int Close(OrvixHandle h) override { return record("Close", static_cast<uint32_t>(h)); }
    int GetLastError(OrvixErrorInfo* e, int32_t clear) override {
        *e = OrvixErrorInfo{};
        e->code = lastError;
        if (clear == 1) {
            lastError = ORVIX_ERR_NONE;
        }
        return record("GetLastError", 0, static_cast<uint32_t>(clear));
    }
    int GetInfo(OrvixHandle h, uint32_t id, uint32_t* v) override {
        record("GetInfo", id);
        FakeBoard& b = board(h);
        if (b.failGet.count(id) != 0 || b.values.count(id) == 0) {
            return 0;
        }
        *v = b.values[id];
        return 1;
    }
    int SetInfo(OrvixHandle h, uint32_t id, uint32_t v) override {
        record("SetInfo", id, v);
        FakeBoard& b = board(h);
        if (b.failSet.count(id) != 0 || b.failSetOnce.erase(id) != 0) {
            return 0;
        }
        b.values[id] = v;
        return 1;
    }
    int RegisterCallback(OrvixHandle, uint32_t event, OrvixCallback fn, void* ctx) override {
        callbacks[event] = {fn, ctx};
        return record("RegisterCallback", event);
    }
    int UnRegisterCallback(OrvixHandle, uint32_t event) override {
        callbacks.erase(event);
        return record("UnRegisterCallback", event);
    }
    int StartGrab(OrvixHandle, uint32_t count) override {
        record("StartGrab", 0, count);
        return startGrabError != 0 ? fail(startGrabError) : 1;
    }
    int StopGrab(OrvixHandle) override {
        record("StopGrab");
        return stopFailures > 0 ? (--stopFailures, fail(ORVIX_ERR_STOP_FAILED)) : 1;
    }
    int GetBufferAddress(OrvixHandle, uint32_t index, void** address) override {
        record("GetBufferAddress", index);
        if (index >= ring.size()) {
            return 0;
        }
        *address = ring[index].data();
        return 1;
    }
    int GetBufferStatusEx(OrvixHandle, uint32_t index, OrvixBufferStatus* status) override {
        record("GetBufferStatusEx", index);
        if (index >= statuses.size()) {
            return 0;
        }
        *status = statuses[index];
        return 1;
    }
    int GetCameraStatus(OrvixHandle, int32_t* s) override {
        record("GetCameraStatus");
        *s = cameraStatus;
        return cameraStatusError != 0 ? fail(cameraStatusError) : 1;
    }
    int GetFrameRate(OrvixHandle, double* r) override {
        *r = 0;
        return 1;
    }
    int LoadConfigurationFromFile(OrvixHandle, const char*) override { return 0; }
    int SaveConfigurationToFile(OrvixHandle, const char*) override { return 0; }
    int ReadRegister(OrvixHandle, uint32_t, uint32_t*) override { return 0; }
    int WriteRegister(OrvixHandle, uint32_t, uint32_t) override { return 0; }
    std::optional<std::array<int, 4>> Version() override { return std::array<int, 4>{1, 8, 0, 0}; }
    std::string FileName() const override { return "libFake.so"; }

    // Calls the callback registered for an event, as the board's thread would.
    bool fire(uint32_t event) {
        auto it = callbacks.find(event);
        if (it == callbacks.end()) {
            return false;
        }
        it->second.first(event, it->second.second);
        return true;
    }

    // A ring of buffers, each filled with its index and marked ready.
    void makeRing(size_t buffers, size_t bytes) {
        ring.assign(buffers, std::vector<uint8_t>(bytes));
        statuses.assign(buffers, OrvixBufferStatus{});
        for (size_t i = 0; i < buffers; ++i) {
            std::fill(ring[i].begin(), ring[i].end(), static_cast<uint8_t>(i + 1));
            statuses[i].ready = 1;
            statuses[i].time = double(i);
        }
        board(100 + openHandle).values[ORVIX_BUFFER_COUNT] = static_cast<uint32_t>(buffers);
    }

    std::vector<FakeCall> callsNamed(const std::string& fn) const {
        std::vector<FakeCall> out;
        for (const FakeCall& c : calls) {
            if (c.fn == fn) {
                out.push_back(c);
            }
        }
        return out;
    }

    std::map<uint32_t, std::pair<OrvixCallback, void*>> callbacks;
    std::vector<std::vector<uint8_t>> ring;
    std::vector<OrvixBufferStatus> statuses;
    int32_t lastError = ORVIX_ERR_NONE;
    int32_t startGrabError = 0;
    int stopFailures = 0;
    int32_t cameraStatus = 7;
    int32_t cameraStatusError = 0;

    FakeBoard& board(OrvixHandle h) { return boards.at(static_cast<size_t>(h - 100)); }
    // Logs a call and answers success.
    int record(const char* fn, uint32_t id = 0, uint32_t value = 0) {
        calls.push_back({fn, id, value});
        return 1;
    }
    // Sets the error that GetLastError reports and answers failure.
    int fail(int32_t error) {
        lastError = error;
        return 0;
    }

    // The ids (parameter, event or buffer index) of the calls to one function, in order.
    std::vector<uint32_t> idsOf(const std::string& fn) const {
        std::vector<uint32_t> out;
        for (const FakeCall& c : callsNamed(fn)) {
            out.push_back(c.id);
        }
        return out;
    }
};

// A manual clock whose sleeps on the thread that made it go into the library's call log as
// {"sleep", 0, ms}: a test then sees every wait in order with the calls around it. Sleeps on
// other threads (the display thread's pacing) only move the time.
class SleepLoggingClock final : public Clock {
  public:
    explicit SleepLoggingClock(FakeBoardLibrary& lib)
        : lib_(lib), owner_(std::this_thread::get_id()) {}
    time_point now() const override { return clock_.now(); }
    void sleepFor(duration d) override {
        if (std::this_thread::get_id() == owner_) {
            lib_.record("sleep", 0,
                        static_cast<uint32_t>(
                            std::chrono::duration_cast<std::chrono::milliseconds>(d).count()));
        }
        clock_.sleepFor(d);
    }
    void advance(duration d) { clock_.advance(d); }

  private:
    FakeBoardLibrary& lib_;
    std::thread::id owner_;
    ManualClock clock_;
};

// Collects log lines.
class RecordingSink final : public MessageSink {
  public:
    struct Message {
        uint32_t msg;
        intptr_t w, l;
        bool operator==(const Message&) const = default;
    };
    void post(uint32_t m, intptr_t w, intptr_t l) override {
        std::lock_guard lock(mutex);
        posted.push_back({m, w, l});
    }
    std::vector<Message> messages() const {
        std::lock_guard lock(mutex);
        return posted;
    }
    size_t count(uint32_t m, intptr_t w = -1, intptr_t l = -1) const {
        std::lock_guard lock(mutex);
        return static_cast<size_t>(
            std::count_if(posted.begin(), posted.end(), [&](const Message& x) {
                return x.msg == m && (w < 0 || x.w == w) && (l < 0 || x.l == l);
            }));
    }
    void clear() {
        std::lock_guard lock(mutex);
        posted.clear();
    }

    mutable std::mutex mutex;
    std::vector<Message> posted;
};

class RecordingPrompt final : public Prompt {
  public:
    std::vector<std::string> texts;
    void information(std::string_view text) override { texts.emplace_back(text); }
};

}  // namespace lumetra::test
