// What every exported function of a board library of ours does around its work: a failure, and
// any C++ exception, becomes the last-error record and the return value 0; nothing is thrown
// through the C boundary.
// Thread: any.
#pragma once

#include <exception>
#include <new>
#include <string>

#include "ErrorRecord.h"
#include "OrvixBoard.h"
#include "Status.h"

namespace orvix {

inline int Finish(ErrorRecord& errors, int32_t function, const Status& status) {
    if (status.ok()) {
        return ORVIX_SUCCESS;
    }
    errors.record(function, status);
    return 0;
}

// Runs body() (returning a Status) for the exported function `function`.
template <typename Body>
int Guarded(ErrorRecord& errors, int32_t function, Body&& body) {
    try {
        return Finish(errors, function, body());
    } catch (const std::bad_alloc&) {
        return Finish(errors, function, Status::fail(ORVIX_ERR_REFUSED, "Out of memory"));
    } catch (const std::exception& e) {
        return Finish(errors, function, Status::fail(ORVIX_ERR_REFUSED, e.what()));
    }
}

inline Status NoPointer(const char* what) {
    return Status::fail(ORVIX_ERR_INVALID_ARGUMENT, std::string(what) + ": null pointer");
}

}  // namespace orvix
