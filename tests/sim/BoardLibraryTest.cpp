#include <gtest/gtest.h>

#include <cstring>

#include "BoardLibrary.h"
#include "OrvixBoard.h"
#include "TestSupport.h"

namespace orvix::sim {
namespace {

class BoardLibraryTest : public ::testing::Test {
  protected:
    void useIni(const std::string& text) {
        test::writeFile(dir_.file("sim.ini"), text);
        useEnv(dir_.file("sim.ini"));
    }
    // The old scope must restore the variable before the new one sets it.
    void useEnv(const std::string& value) {
        env_.reset();
        env_ = std::make_unique<test::ScopedConfigEnv>(value);
    }

    test::TempDir dir_;
    std::unique_ptr<test::ScopedConfigEnv> env_ =
        std::make_unique<test::ScopedConfigEnv>(std::nullopt);
    BoardLibrary library_;
};

TEST_F(BoardLibraryTest, OffersTheBuiltInBoardsByDefault) {
    int32_t count = -1;
    ASSERT_TRUE(library_.boardCount(ORVIX_BOARD_TYPE_PCIE, count).ok());
    EXPECT_EQ(count, 2);
    ASSERT_TRUE(library_.boardCount(3, count).ok());
    EXPECT_EQ(count, 0) << "only PCIe boards exist";

    char name[ORVIX_BOARD_NAME_MAX];
    uint32_t size = sizeof name;
    ASSERT_TRUE(library_.boardName(ORVIX_BOARD_TYPE_PCIE, 1, name, &size).ok());
    EXPECT_STREQ(name, "PCIe-CXP4 Simulator");
    EXPECT_EQ(size, std::strlen("PCIe-CXP4 Simulator") + 1);
}

TEST_F(BoardLibraryTest, BoardNamesAreCutSafely) {
    const std::string full = "PCIe-CL Full Simulator";
    char name[64];
    std::memset(name, '#', sizeof name);
    uint32_t size = 5;
    Status s = library_.boardName(ORVIX_BOARD_TYPE_PCIE, 0, name, &size);
    EXPECT_EQ(s.code, ORVIX_ERR_INVALID_ARGUMENT);
    EXPECT_STREQ(name, "PCIe");
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(name[5], '#') << "nothing written past the given size";

    size = static_cast<uint32_t>(full.size());  // one short: no room for the NUL
    s = library_.boardName(ORVIX_BOARD_TYPE_PCIE, 0, name, &size);
    EXPECT_FALSE(s.ok());
    EXPECT_EQ(std::string(name), full.substr(0, full.size() - 1));

    size = static_cast<uint32_t>(full.size() + 1);  // exactly enough
    ASSERT_TRUE(library_.boardName(ORVIX_BOARD_TYPE_PCIE, 0, name, &size).ok());
    EXPECT_EQ(std::string(name), full);
    EXPECT_EQ(size, full.size() + 1);

    size = 0;
    EXPECT_FALSE(library_.boardName(ORVIX_BOARD_TYPE_PCIE, 0, name, &size).ok());
    EXPECT_FALSE(library_.boardName(ORVIX_BOARD_TYPE_PCIE, 0, nullptr, &size).ok());
    EXPECT_EQ(library_.boardName(ORVIX_BOARD_TYPE_PCIE, 2, name, &size).code,
              ORVIX_ERR_NO_SUCH_BOARD);
    EXPECT_EQ(library_.boardName(ORVIX_BOARD_TYPE_PCIE, -1, name, &size).code,
              ORVIX_ERR_NO_SUCH_BOARD);
}

TEST_F(BoardLibraryTest, HandlesAreIndexPlusOneAndOpenOnce) {
    int32_t h0 = 0, h1 = 0;
    ASSERT_TRUE(library_.open(ORVIX_BOARD_TYPE_PCIE, 1, h1).ok());
    ASSERT_TRUE(library_.open(ORVIX_BOARD_TYPE_PCIE, 0, h0).ok());
    EXPECT_EQ(h0, 1);
    EXPECT_EQ(h1, 2);

    int32_t again = 0;
    Status s = library_.open(ORVIX_BOARD_TYPE_PCIE, 0, again);
    EXPECT_EQ(s.code, ORVIX_ERR_OPEN_FAILED);
    EXPECT_EQ(again, ORVIX_INVALID_HANDLE);
    EXPECT_EQ(library_.open(ORVIX_BOARD_TYPE_PCIE, 2, again).code, ORVIX_ERR_NO_SUCH_BOARD);
    EXPECT_EQ(library_.open(1, 0, again).code, ORVIX_ERR_NO_SUCH_BOARD);

    Status lookup;
    EXPECT_EQ(library_.board(h1, lookup)->config().name, "PCIe-CXP4 Simulator");
    ASSERT_TRUE(library_.close(h1).ok());
    // Handle 2 is now closed; the others never named a board.
    for (int32_t bad : {0, -1, 2, 3, 1000, INT32_MIN}) {
        Status s;
        EXPECT_EQ(library_.board(bad, s), nullptr) << bad;
        EXPECT_EQ(s.code, ORVIX_ERR_NO_BOARD_SELECTED) << bad;
    }
    EXPECT_EQ(library_.close(h1).code, ORVIX_ERR_NO_BOARD_SELECTED);
    ASSERT_TRUE(library_.open(ORVIX_BOARD_TYPE_PCIE, 1, h1).ok()) << "a closed board opens again";
}

TEST_F(BoardLibraryTest, OpenFailsWhereConfiguredSoTheNextBoardIsUsed) {
    useIni("[board0]\nopen_fails = 1\n[board1]\n");
    int32_t count = 0;
    ASSERT_TRUE(library_.boardCount(ORVIX_BOARD_TYPE_PCIE, count).ok());
    ASSERT_EQ(count, 2);
    int32_t h = 0;
    Status s = library_.open(ORVIX_BOARD_TYPE_PCIE, 0, h);
    EXPECT_EQ(s.code, ORVIX_ERR_OPEN_FAILED);
    EXPECT_EQ(h, ORVIX_INVALID_HANDLE);
    ASSERT_TRUE(library_.open(ORVIX_BOARD_TYPE_PCIE, 1, h).ok());
    EXPECT_EQ(h, 2);
}

TEST_F(BoardLibraryTest, TheConfigurationIsReReadOnlyWhileNoBoardIsOpen) {
    useIni("[board0]\n[board1]\n[board2]\n");
    int32_t count = 0;
    ASSERT_TRUE(library_.boardCount(ORVIX_BOARD_TYPE_PCIE, count).ok());
    EXPECT_EQ(count, 3);
    int32_t h = 0;
    ASSERT_TRUE(library_.open(ORVIX_BOARD_TYPE_PCIE, 2, h).ok());

    useIni("[board0]\n");
    ASSERT_TRUE(library_.boardCount(ORVIX_BOARD_TYPE_PCIE, count).ok());
    EXPECT_EQ(count, 3) << "an open board keeps its catalogue";
    ASSERT_TRUE(library_.close(h).ok());
    ASSERT_TRUE(library_.boardCount(ORVIX_BOARD_TYPE_PCIE, count).ok());
    EXPECT_EQ(count, 1);
}

TEST_F(BoardLibraryTest, ABrokenConfigurationOffersNoBoardAndSaysWhereOnce) {
    useIni("[board0]\nwidth = 640\nheight = lots\n");
    const std::string where = dir_.file("sim.ini") + ":3: height: 'lots' is not a number";
    testing::internal::CaptureStderr();
    int32_t count = 5;
    Status s = library_.boardCount(ORVIX_BOARD_TYPE_PCIE, count);
    Status again = library_.boardCount(ORVIX_BOARD_TYPE_PCIE, count);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(count, 0);
    EXPECT_FALSE(s.ok());
    EXPECT_NE(s.code, ORVIX_ERR_NONE);
    EXPECT_EQ(s.text, where);
    EXPECT_EQ(err, "OrvixBoard: " + where + "\n") << "reported once, not per call";

    int32_t h = 0;
    Status open = library_.open(ORVIX_BOARD_TYPE_PCIE, 0, h);
    EXPECT_EQ(open.code, ORVIX_ERR_NO_SUCH_BOARD);
    EXPECT_NE(open.text.find(where), std::string::npos);

    useIni("[board0]\n");
    ASSERT_TRUE(library_.boardCount(ORVIX_BOARD_TYPE_PCIE, count).ok());
    EXPECT_EQ(count, 1) << "a repaired file is picked up";
}

TEST_F(BoardLibraryTest, AMissingConfigurationFileIsNamed) {
    useEnv(dir_.file("gone.ini"));
    testing::internal::CaptureStderr();
    int32_t count = 5;
    Status s = library_.boardCount(ORVIX_BOARD_TYPE_PCIE, count);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(count, 0);
    EXPECT_EQ(s.code, ORVIX_ERR_FILE_IO);
    EXPECT_EQ(s.text.rfind(dir_.file("gone.ini") + ":0: cannot open the file", 0), 0u) << s.text;
    EXPECT_EQ(err.rfind("OrvixBoard: " + dir_.file("gone.ini") + ":0:", 0), 0u) << err;
}

}  // namespace
}  // namespace orvix::sim
