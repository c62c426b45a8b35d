#include "acquisition/board_library.h"

#include <gtest/gtest.h>

namespace lumetra::test {
namespace {

TEST(BoardLibraryLoader, FailuresNameTheLibraryOrItsFirstMissingSymbol) {
    const struct {
        std::string path, error;  // the error up to the system's reason
    } cases[] = {
        {"", "No board library given"},
        {"/nonexistent/libNoBoard.so", "Cannot load board library /nonexistent/libNoBoard.so"},
        {PARTIAL_LIBRARY,
         std::string("Board library ") + PARTIAL_LIBRARY + " lacks the symbol OrvixGetBoardName"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        const BoardLibraryLoad load = LoadBoardLibrary(c.path);
        EXPECT_EQ(load.library, nullptr);
        EXPECT_EQ(load.error.substr(0, load.error.find(": ")), c.error);
    }
}

TEST(BoardLibraryLoader, LoadsTheSimulatedBoardWithItsVersion) {
    BoardLibraryLoad load = LoadBoardLibrary(SIM_LIBRARY);
    ASSERT_NE(load.library, nullptr) << load.error;
    auto version = load.library->Version();
    ASSERT_TRUE(version.has_value());
    EXPECT_EQ(*version, (std::array<int, 4>{1, 8, 0, 0}));
    EXPECT_EQ(load.library->FileName(), "libOrvixBoard.so.1.8.0");
}

TEST(BoardLibraryLoader, VersionFromFileName) {
    EXPECT_EQ(VersionFromFileName("libOrvixBoard.so.1.7.29"), (std::array<int, 4>{1, 7, 29, 0}));
    EXPECT_EQ(VersionFromFileName("libX.so.2"), (std::array<int, 4>{2, 0, 0, 0}));
    EXPECT_EQ(VersionFromFileName("libX.so"), std::nullopt);
    EXPECT_EQ(VersionFromFileName("libX.so.1.x"), std::nullopt);
    EXPECT_EQ(VersionFromFileName("libX.so.1..2"), std::nullopt);
}

TEST(BoardLibraryChoice, CommandLineThenEnvironmentThenSettingsThenDefault) {
    EXPECT_EQ(ChooseBoardLibrary("/a.so", "/b.so", "/c.so", "/d.so").path, "/a.so");
    EXPECT_EQ(ChooseBoardLibrary("", "/b.so", "/c.so", "/d.so").source, "environment");
    EXPECT_EQ(ChooseBoardLibrary("", "", "/c.so", "/d.so").path, "/c.so");
    EXPECT_EQ(ChooseBoardLibrary("", nullptr, "", "/d.so").source, "default");
}

}  // namespace
}  // namespace lumetra::test
