// The library as a whole: the catalogue of simulated boards, the open boards by handle and the
// last-error record. The exported C functions use one process-wide instance; tests may make
// their own.
// Thread: every method from any thread. Open boards are shared with the calls that use them, so
// a close racing with another call on the same board stays safe.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Board.h"
#include "BoardConfig.h"
#include "ErrorRecord.h"
#include "Status.h"

namespace orvix::sim {

class BoardLibrary {
  public:
    BoardLibrary() = default;
    ~BoardLibrary();
    BoardLibrary(const BoardLibrary&) = delete;
    BoardLibrary& operator=(const BoardLibrary&) = delete;

    static BoardLibrary& instance();

    ErrorRecord& errors() { return errors_; }

    // Re-reads the configuration when no board is open. A broken configuration gives count 0 and
    // fails with its file and line; it goes to stderr once.
    Status boardCount(int32_t boardType, int32_t& count);
    Status open(int32_t boardType, int32_t index, int32_t& handle);
    // size: in, the capacity of name; out, the bytes written including the NUL. A name that does
    // not fit is cut (still NUL-terminated) and the call fails.
    Status boardName(int32_t boardType, int32_t index, char* name, uint32_t* size);
    Status close(int32_t handle);

    // The open board behind a handle, or a failure with code 38.
    std::shared_ptr<Board> board(int32_t handle, Status& status);

  private:
    void loadLocked();
    Status checkIndexLocked(int32_t boardType, int32_t index, const char* op) const;

    std::mutex mutex_;
    ErrorRecord errors_;
    bool loaded_ = false;
    BoardCatalog catalog_;
    std::string lastReported_;
    std::vector<std::shared_ptr<Board>> open_;  // by board index; handle = index + 1
};

}  // namespace orvix::sim
