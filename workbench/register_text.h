// The "Send Command" dialog's fields: register addresses and values typed and shown as
// hexadecimal text without a prefix.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lumetra {

inline constexpr std::string_view kWriteRegisterFailedText = "Failed to write register";
inline constexpr std::string_view kReadRegisterFailedText = "Failed to read register";

// Each of 0-9, A-F and a-f adds its digit times 16 to the power of its place counted from the
// last character, in 32 bits: digits left of the eighth from the right fall out, as they always
// did. Empty text is 0. Any other character (a sign, a blank, "0x") refuses the whole text;
// badPosition, when given, then receives the index of the first such character.
std::optional<uint32_t> ParseRegisterHex(std::string_view text, size_t* badPosition = nullptr);

// What the result field shows: "%x".
std::string RegisterValueText(uint32_t value);

}  // namespace lumetra
