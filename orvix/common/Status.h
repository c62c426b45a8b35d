// Outcome of an operation of a board library of ours (the simulator, the Aravis cameras): a
// board-library error code, the parameter or register it concerns, and an English text. The ABI
// layer copies a failed Status into the last-error record.
// Thread: a plain value; use from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "OrvixBoard.h"

namespace orvix {

struct Status {
    int32_t code = ORVIX_ERR_NONE;
    uint32_t subject = 0;  // parameter id or register address, 0 if none
    std::string text;

    bool ok() const { return code == ORVIX_ERR_NONE; }

    static Status success() { return {}; }
    static Status fail(int32_t code, std::string text, uint32_t subject = 0) {
        return Status{code, subject, std::move(text)};
    }
};

}  // namespace orvix
