// Helpers shared by the simulator tests: temporary files, ORVIX_SIM_CONFIG switching and a
// thread-safe recorder of callback events.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BoardConfig.h"

namespace orvix::sim::test {

// A fresh directory, removed with its contents at the end of the scope.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::vector<std::string> entries() const;

  private:
    std::string path_;
};

void writeFile(const std::string& path, const std::string& text);
std::string readFile(const std::string& path);

// Sets (or, with nullopt, unsets) ORVIX_SIM_CONFIG for the scope.
class ScopedConfigEnv {
  public:
    explicit ScopedConfigEnv(const std::optional<std::string>& value);
    ~ScopedConfigEnv();

  private:
    std::optional<std::string> previous_;
};

// A board configuration with small frames, so that streaming tests stay cheap.
BoardConfig smallBoard(uint32_t width = 64, uint32_t height = 48);

struct RecordedEvent {
    uint32_t event;
    std::thread::id thread;
};

class EventRecorder {
  public:
    static void callback(uint32_t event, void* context);
    std::vector<uint32_t> events() const;
    size_t count(uint32_t event) const;
    std::vector<RecordedEvent> all() const;
    void clear();

  private:
    mutable std::mutex mutex_;
    std::vector<RecordedEvent> events_;
};

}  // namespace orvix::sim::test
