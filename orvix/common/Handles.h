// Handles of our board libraries: the board's (or camera's) index + 1, so that 0 stays invalid.
// Thread: the caller holds the lock that guards `open`.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "OrvixBoard.h"
#include "Status.h"

namespace orvix {

// What `handle` opened, or null with "No board has been selected" in status.
template <typename T>
std::shared_ptr<T> OpenedBy(const std::vector<std::shared_ptr<T>>& open, int32_t handle,
                            Status& status) {
    if (handle >= 1 && static_cast<size_t>(handle) <= open.size() &&
        open[static_cast<size_t>(handle) - 1]) {
        status = Status::success();
        return open[static_cast<size_t>(handle) - 1];
    }
    status = Status::fail(ORVIX_ERR_NO_BOARD_SELECTED,
                          "No board has been selected (handle " + std::to_string(handle) + ")");
    return nullptr;
}

}  // namespace orvix
