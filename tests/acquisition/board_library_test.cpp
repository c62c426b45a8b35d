#include "acquisition/board_library.h"

#include <gtest/gtest.h>

namespace lumetra::test {
namespace {

TEST(BoardLibraryLoader, NamesALibraryThatCannotBeLoaded) {
    BoardLibraryLoad load = LoadBoardLibrary("/nonexistent/libNoBoard.so");
    EXPECT_EQ(load.library, nullptr);
    EXPECT_NE(load.error.find("Cannot load board library /nonexistent/libNoBoard.so"),
              std::string::npos)
        << load.error;
}

TEST(BoardLibraryLoader, RefusesAnEmptyPath) {
    BoardLibraryLoad load = LoadBoardLibrary("");
    EXPECT_EQ(load.library, nullptr);
    EXPECT_EQ(load.error, "No board library given");
}

TEST(BoardLibraryLoader, NamesTheFirstMissingSymbol) {
    BoardLibraryLoad load = LoadBoardLibrary(PARTIAL_LIBRARY);
    EXPECT_EQ(load.library, nullptr);
    EXPECT_NE(load.error.find("lacks the symbol OrvixGetBoardName"), std::string::npos)
        << load.error;
    EXPECT_NE(load.error.find(PARTIAL_LIBRARY), std::string::npos);
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
