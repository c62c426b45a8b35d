// The process-wide last-error record of the board library: the last failing call's function,
// parameter, code and text, until a reader clears it.
// Thread: any; an internal mutex guards the record.
#pragma once

#include <mutex>

#include "OrvixBoard.h"
#include "Status.h"

namespace orvix {

class ErrorRecord {
  public:
    ErrorRecord() { clearLocked(); }

    void record(int32_t function, const Status& status);
    // clear: reset to ORVIX_ERR_NONE after the copy was taken.
    OrvixErrorInfo read(bool clear);

  private:
    void clearLocked();

    std::mutex mutex_;
    OrvixErrorInfo info_{};
};

}  // namespace orvix
