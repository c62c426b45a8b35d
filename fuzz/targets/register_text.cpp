// The "Send Command" dialog's hexadecimal fields: only hexadecimal digits are taken, the value is
// the last eight of them, and what the result field shows reads back as the same value.
#include <string_view>

#include "fuzz_support.h"
#include "workbench/register_text.h"

using namespace lumetra;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    size_t bad = text.size();
    const std::optional<uint32_t> value = ParseRegisterHex(text, &bad);
    const size_t firstBad = text.find_first_not_of("0123456789abcdefABCDEF");
    FUZZ_CHECK(value.has_value() == (firstBad == std::string_view::npos));
    if (!value) {
        FUZZ_CHECK(bad == firstBad);
        return 0;
    }
    uint32_t expected = 0;
    const std::string_view low = text.size() > 8 ? text.substr(text.size() - 8) : text;
    for (char c : low) {
        expected = expected * 16 + static_cast<uint32_t>(c <= '9'   ? c - '0'
                                                         : c <= 'F' ? c - 'A' + 10
                                                                    : c - 'a' + 10);
    }
    FUZZ_CHECK(*value == expected);
    const std::string shown = RegisterValueText(*value);
    FUZZ_CHECK(shown.size() <= 8);
    FUZZ_CHECK(ParseRegisterHex(shown) == value);
    return 0;
}
