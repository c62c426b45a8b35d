// The few process-wide flags kept beside the board document: views, pages and the main frame
// read them without holding the document.
#pragma once

#include <atomic>
#include <cstdint>

namespace lumetra {

struct ProcessFlags {
    std::atomic<bool> coaxpress{false};
    std::atomic<uint8_t> modelCode{0};
    std::atomic<bool> onePort{false};
    std::atomic<bool> boardPresent{false};
    std::atomic<bool> documentConstructed{false};
};

ProcessFlags& processFlags();

}  // namespace lumetra
