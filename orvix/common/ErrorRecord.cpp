#include "ErrorRecord.h"

#include <algorithm>
#include <cstring>

namespace orvix {

void ErrorRecord::clearLocked() {
    info_ = OrvixErrorInfo{};
    info_.function = ORVIX_FN_NONE;
    info_.code = ORVIX_ERR_NONE;
    std::strcpy(info_.text, "No error");
}

void ErrorRecord::record(int32_t function, const Status& status) {
    std::lock_guard lock(mutex_);
    info_.function = function;
    info_.parameter = static_cast<int32_t>(status.subject);
    info_.code = status.code;
    const size_t n = std::min(status.text.size(), sizeof info_.text - 1);
    std::memcpy(info_.text, status.text.data(), n);
    info_.text[n] = '\0';
}

OrvixErrorInfo ErrorRecord::read(bool clear) {
    std::lock_guard lock(mutex_);
    OrvixErrorInfo copy = info_;
    if (clear) {
        clearLocked();
    }
    return copy;
}

}  // namespace orvix
