#include "base/debug_output.h"

#include <cstdio>
#include <cstdlib>

namespace lumetra {

void DebugOutput(std::string_view text) {
    static const bool enabled = std::getenv("LUMETRA_DEBUG") != nullptr;
    if (enabled) {
        std::fprintf(stderr, "%.*s\n", static_cast<int>(text.size()), text.data());
    }
}

}  // namespace lumetra
