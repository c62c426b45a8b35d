// Developer diagnostics that never reach the message window: written to standard error only when
// LUMETRA_DEBUG is set.
#pragma once

#include <string_view>

namespace lumetra {

void DebugOutput(std::string_view text);

}  // namespace lumetra
