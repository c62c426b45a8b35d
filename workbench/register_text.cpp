#include "workbench/register_text.h"

#include <cstdio>

namespace lumetra {

std::optional<uint32_t> ParseRegisterHex(std::string_view text, size_t* badPosition) {
    uint32_t value = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        uint32_t digit = 0;
        if (c >= '0' && c <= '9') {
            digit = static_cast<uint32_t>(c - '0');
        } else if (c >= 'A' && c <= 'F') {
            digit = static_cast<uint32_t>(c - 'A' + 10);
        } else if (c >= 'a' && c <= 'f') {
            digit = static_cast<uint32_t>(c - 'a' + 10);
        } else {
            if (badPosition != nullptr) {
                *badPosition = i;
            }
            return std::nullopt;
        }
        // Shifting in from the right is the sum of digit x 16^place, wrapped to 32 bits.
        value = (value << 4) | digit;
    }
    return value;
}

std::string RegisterValueText(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "%x", value);
    return text;
}

}  // namespace lumetra
