// The "Send Command" dialog's hexadecimal fields: what is taken, what is refused, what is shown.
#include "workbench/register_text.h"

#include <gtest/gtest.h>

namespace lumetra {
namespace {

struct HexCase {
    const char* text;
    std::optional<uint32_t> value;
    size_t badPosition;  // where a refused text first goes wrong
};

TEST(RegisterText, OnlyHexadecimalDigitsAreTaken) {
    const HexCase cases[] = {
        {"1f", 0x1F, 0},
        {"1F", 0x1F, 0},
        {"", 0, 0},
        {"0", 0, 0},
        {"aBcDeF09", 0xABCDEF09, 0},
        {"FFFFFFFF", 0xFFFFFFFF, 0},
        {"00000000ff", 0xFF, 0},
        // Digits left of the eighth from the right fall out of the 32 bits.
        {"123456789", 0x23456789, 0},
        {"1FFFFFFFF", 0xFFFFFFFF, 0},
        {"0x10", std::nullopt, 1},
        {"12 34", std::nullopt, 2},
        {" 1f", std::nullopt, 0},
        {"1f ", std::nullopt, 2},
        {"-1", std::nullopt, 0},
        {"+1", std::nullopt, 0},
        {"1g", std::nullopt, 1},
        {"G", std::nullopt, 0},
        {"@", std::nullopt, 0},  // the characters either side of the digits' ranges
        {"`", std::nullopt, 0},
        {"/", std::nullopt, 0},
        {":", std::nullopt, 0},
        {"\xC3\xA9", std::nullopt, 0},
    };
    for (const HexCase& c : cases) {
        SCOPED_TRACE(std::string("\"") + c.text + "\"");
        size_t bad = 99;
        EXPECT_EQ(ParseRegisterHex(c.text, &bad), c.value);
        EXPECT_EQ(bad, c.value ? 99u : c.badPosition);
    }
    EXPECT_EQ(ParseRegisterHex(std::string_view("1\0f", 3)), std::nullopt);
}

TEST(RegisterText, TheResultFieldShowsLowerCaseWithoutPrefix) {
    const std::pair<uint32_t, const char*> cases[] = {
        {0, "0"}, {0x1F, "1f"}, {0xDEADBEEF, "deadbeef"}, {0x4F525658, "4f525658"}};
    for (const auto& [value, text] : cases) {
        EXPECT_EQ(RegisterValueText(value), text);
        EXPECT_EQ(ParseRegisterHex(RegisterValueText(value)), value);
    }
    EXPECT_EQ(kWriteRegisterFailedText, "Failed to write register");
    EXPECT_EQ(kReadRegisterFailedText, "Failed to read register");
}

}  // namespace
}  // namespace lumetra
