// The library as a whole: the named (or, when asked for, discovered) cameras, the open cameras
// by handle, the last-error record and the background reaper. The exported C functions use one
// process-wide instance.
// Thread: every method from any thread. Open cameras are shared with the calls that use them,
// so a close racing with another call on the same camera stays safe. No lock of the library is
// held while a camera is contacted.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Camera.h"
#include "ErrorRecord.h"
#include "Reaper.h"
#include "Status.h"

namespace orvix::aravis {

class Library {
  public:
    Library() = default;
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    static Library& instance();

    ErrorRecord& errors() { return errors_; }

    // Reads the camera list again when no camera is open. A malformed INI file gives count 0
    // and fails with its file and line.
    Status boardCount(int32_t boardType, int32_t& count);
    Status open(int32_t boardType, int32_t index, int32_t& handle);
    // The camera's vendor and model; a camera that does not answer fails with 11 and leaves
    // its address (or id) in the buffer.
    Status boardName(int32_t boardType, int32_t index, char* name, uint32_t* size);
    Status close(int32_t handle);
    std::shared_ptr<Camera> camera(int32_t handle, Status& status);

  private:
    struct Entry {
        std::string id;
        std::string name;  // known once the camera answered (or discovery named it)
    };

    void loadLocked();
    Status checkIndexLocked(int32_t boardType, int32_t index, const char* op) const;
    bool anyOpenLocked() const;

    Reaper reaper_;  // first: it outlives the cameras that post to it
    ErrorRecord errors_;
    std::mutex mutex_;
    bool loaded_ = false;
    std::vector<Entry> entries_;
    std::optional<std::string> listError_;
    std::string lastReported_;
    std::vector<std::shared_ptr<Camera>> open_;  // by index; handle = index + 1
    std::vector<bool> opening_;
};

// The folder of this library's file, for the INI file next to it.
std::string libraryDirectory();

}  // namespace orvix::aravis
