#include <gtest/gtest.h>

#include "BoardConfig.h"
#include "TestSupport.h"

namespace orvix::sim {
namespace {

TEST(BoardIniTest, BuiltInBoardsMatchTheDocumentedDefaults) {
    std::vector<BoardConfig> boards = defaultBoards();
    ASSERT_EQ(boards.size(), 2u);
    const BoardConfig& cl = boards[0];
    EXPECT_EQ(cl.name, "PCIe-CL Full Simulator");
    EXPECT_EQ(cl.version, 0x00051302u);
    EXPECT_EQ(cl.serial, 0x18030042u);
    EXPECT_EQ(cl.width, 1920u);
    EXPECT_EQ(cl.height, 1200u);
    EXPECT_EQ(cl.imageType, 0u);
    EXPECT_EQ(cl.dataFormat, 8u);
    EXPECT_EQ(cl.taps, 8u);
    EXPECT_EQ(cl.bayer, 2u);
    EXPECT_EQ(cl.fps, 60u);
    EXPECT_EQ(cl.buffers, 8u);
    EXPECT_EQ(cl.pcieLink, 0x83u);
    EXPECT_EQ(cl.pattern, Pattern::Bars);
    EXPECT_FALSE(cl.isCoaXPress());
    EXPECT_EQ(cl.modelCode(), 5u);

    const BoardConfig& cxp = boards[1];
    EXPECT_EQ(cxp.name, "PCIe-CXP4 Simulator");
    EXPECT_EQ(cxp.version, 0x000A0100u);
    EXPECT_EQ(cxp.serial, 0x18030043u);
    EXPECT_EQ(cxp.width, 2560u);
    EXPECT_EQ(cxp.height, 2048u);
    EXPECT_EQ(cxp.dataFormat, 12u);
    EXPECT_EQ(cxp.taps, 1u);
    EXPECT_EQ(cxp.bayer, 0u);
    EXPECT_EQ(cxp.fps, 30u);
    EXPECT_EQ(cxp.buffers, 8u);
    EXPECT_EQ(cxp.pcieLink, 0x83u);
    EXPECT_TRUE(cxp.isCoaXPress());
    EXPECT_EQ(cxp.modelCode(), 10u);
}

TEST(BoardIniTest, WithoutTheVariableTheBuiltInBoardsAreOffered) {
    test::ScopedConfigEnv env(std::nullopt);
    BoardCatalog c = loadBoardCatalog();
    EXPECT_FALSE(c.error);
    ASSERT_EQ(c.boards.size(), 2u);
    EXPECT_EQ(c.boards[1].name, "PCIe-CXP4 Simulator");
}

TEST(BoardIniTest, NumbersAreDecimalOrHex) {
    struct Case {
        const char* text;
        bool ok;
        uint32_t value;
    };
    const Case cases[] = {
        {"0", true, 0},
        {"42", true, 42},
        {"0x1F", true, 31},
        {"0X1f", true, 31},
        {"4294967295", true, 0xFFFFFFFFu},
        {"0xFFFFFFFF", true, 0xFFFFFFFFu},
        {"4294967296", false, 0},
        {"0x100000000", false, 0},
        {"0x", false, 0},
        {"", false, 0},
        {"-1", false, 0},
        {"12a", false, 0},
        {"1.5", false, 0},
        {" 7", false, 0},
        {"0xg", false, 0},
    };
    for (const Case& c : cases) {
        uint32_t v = 12345;
        EXPECT_EQ(parseNumber(c.text, v), c.ok) << '"' << c.text << '"';
        if (c.ok) {
            EXPECT_EQ(v, c.value) << c.text;
        }
    }
}

TEST(BoardIniTest, EveryKeyIsRead) {
    const char* ini =
        "; a comment\r\n"
        "# another\n"
        "\n"
        "[board0]\n"
        "name = \"Line Cam CoaXPress\"\n"
        "version = 0x000A0001\n"
        "serial = 305419896\n"
        "open_fails = 1\n"
        "fail_set = 0x10000001, 0x10000002\n"
        "fail_get = 0x10000003\n"
        "width = 0x400\n"
        "height = 643\n"
        "image_type = 3\n"
        "data_format = 10\n"
        "taps = 10\n"
        "bayer = 4\n"
        "scan_type = 1\n"
        "fps = 25\n"
        "line_rate = 72000\n"
        "buffers = 0x20\n"
        "pattern = static\n"
        "level = 100\n"
        "defects = 1:2:255; 3:4:0;\n"
        "pcie_link = 0x44\n"
        "cxp_speed = 3\n"
        "signal_loss_after_ms = 1500\n"
        "stop_failures = 2\n"
        "single_shot_error = 42\n"
        "timeout_every = 7\n"
        "signal_rates = 2:10; 128:500\n";
    BoardCatalog c = parseBoardIni(ini, "t.ini");
    ASSERT_FALSE(c.error) << c.error->message();
    ASSERT_EQ(c.boards.size(), 1u);
    const BoardConfig& b = c.boards[0];
    EXPECT_EQ(b.name, "Line Cam CoaXPress");
    EXPECT_TRUE(b.isCoaXPress());
    EXPECT_EQ(b.version, 0x000A0001u);
    EXPECT_EQ(b.serial, 305419896u);
    EXPECT_TRUE(b.openFails);
    EXPECT_EQ(b.failSet, (std::vector<uint32_t>{0x10000001, 0x10000002}));
    EXPECT_EQ(b.failGet, (std::vector<uint32_t>{0x10000003}));
    EXPECT_EQ(b.width, 1024u);
    EXPECT_EQ(b.height, 643u);
    EXPECT_EQ(b.imageType, 3u);
    EXPECT_EQ(b.dataFormat, 10u);
    EXPECT_EQ(b.taps, 10u);
    EXPECT_EQ(b.bayer, 4u);
    EXPECT_EQ(b.scanType, 1u);
    EXPECT_EQ(b.fps, 25u);
    EXPECT_EQ(b.lineRate, 72000u);
    EXPECT_EQ(b.buffers, 32u);
    EXPECT_EQ(b.pattern, Pattern::Static);
    EXPECT_EQ(b.level, 100u);
    EXPECT_EQ(b.defects, (std::vector<Defect>{{1, 2, 255}, {3, 4, 0}}));
    EXPECT_EQ(b.pcieLink, 0x44u);
    EXPECT_EQ(b.cxpSpeed, 3u);
    EXPECT_EQ(b.signalLossAfterMs, 1500u);
    EXPECT_EQ(b.stopFailures, 2u);
    EXPECT_EQ(b.singleShotError, 42u);
    EXPECT_EQ(b.timeoutEvery, 7u);
    // Rates given are replaced; the others keep their defaults.
    EXPECT_EQ(b.signalRates[1], 10u);
    EXPECT_EQ(b.signalRates[7], 500u);
    EXPECT_EQ(b.signalRates[3], defaultBoard(0).signalRates[3]);
}

TEST(BoardIniTest, KeysNotGivenKeepTheDefaultsOfThatBoardIndex) {
    BoardCatalog c = parseBoardIni("[board0]\nwidth=640\n[board1]\n[board2]\n", "t.ini");
    ASSERT_FALSE(c.error);
    ASSERT_EQ(c.boards.size(), 3u);
    EXPECT_EQ(c.boards[0].width, 640u);
    EXPECT_EQ(c.boards[0].height, 1200u);
    EXPECT_EQ(c.boards[0].name, "PCIe-CL Full Simulator");
    EXPECT_EQ(c.boards[1].name, "PCIe-CXP4 Simulator");
    EXPECT_EQ(c.boards[1].dataFormat, 12u);
    // Later boards repeat the first one under a name and serial of their own.
    EXPECT_EQ(c.boards[2].width, 1920u);
    EXPECT_NE(c.boards[2].name, c.boards[0].name);
    EXPECT_NE(c.boards[2].serial, c.boards[0].serial);
    EXPECT_NE(c.boards[2].serial, c.boards[1].serial);
}

TEST(BoardIniTest, AnEmptyFileOffersNoBoardWithoutError) {
    BoardCatalog c = parseBoardIni("; nothing here\n", "t.ini");
    EXPECT_FALSE(c.error);
    EXPECT_TRUE(c.boards.empty());
}

TEST(BoardIniTest, MalformedLinesAreNamedByFileAndLine) {
    struct Case {
        const char* text;
        int line;
        const char* reason;
    };
    const Case cases[] = {
        {"[board0]\nwidth 640\n", 2, "expected 'key = value'"},
        {"[board0]\n\ncolour = red\n", 3, "unknown key 'colour'"},
        {"[board0]\nwidth = 64x\n", 2, "width: '64x' is not a number"},
        {"[board0]\nwidth = 0\n", 2, "width: 0 is not one of 1..65535"},
        {"[board0]\nheight = 65536\n", 2, "height: 65536 is not one of 1..65535"},
        {"[board0]\ndata_format = 9\n", 2, "data_format: 9 is not one of 8, 10, 12, 14 or 16"},
        {"[board0]\ntaps = 5\n", 2, "taps: 5 is not one of 1, 2, 3, 4, 8 or 10"},
        {"[board0]\nimage_type = 5\n", 2, "image_type: 5 is not one of 0..4"},
        {"[board0]\nbayer = 5\n", 2, "bayer: 5 is not one of 0..4"},
        {"[board0]\nbuffers = 0\n", 2, "buffers: 0 is not one of 1..256"},
        {"[board0]\nfps = 0\n", 2, "fps: 0 is outside 1..100000"},
        {"[board0]\npattern = stripes\n", 2, "unknown pattern 'stripes'"},
        {"[board0]\nopen_fails = 2\n", 2, "open_fails must be 0 or 1"},
        {"[board0]\nfail_set = 0x10000001,0x12345678\n", 2, "unknown parameter id 0x12345678"},
        {"[board0]\nfail_get = 0x10000001,x\n", 2, "'x' is not a number"},
        {"[board0]\ndefects = 1:2\n", 2, "defect '1:2' is not x:y:value"},
        {"[board0]\nsignal_rates = 3:10\n", 2, "signal base 3 is not one of"},
        {"[board0]\nsingle_shot_error = 1\n", 2, "error code 1 means success"},
        {"[board0]\nname = \"\"\n", 2, "the name must have 1 to 1023 characters"},
        {"width = 640\n", 1, "key outside of a [boardN] section"},
        {"[board1]\n", 1, "section [board1] out of order: expected [board0]"},
        {"[board0]\n[board0]\n", 2, "section [board0] out of order: expected [board1]"},
        {"[general]\n", 1, "unknown section [general]"},
        {"[board0\n", 1, "section header without ']'"},
        {"[board0]\nwidth=1\nheight=2\nwidth=3\n", 4, "key 'width' already given on line 2"},
    };
    for (const Case& c : cases) {
        BoardCatalog catalog = parseBoardIni(c.text, "/etc/sim.ini");
        ASSERT_TRUE(catalog.error) << c.text;
        EXPECT_EQ(catalog.error->line, c.line) << c.text;
        EXPECT_NE(catalog.error->reason.find(c.reason), std::string::npos)
            << c.text << " gave: " << catalog.error->reason;
        EXPECT_EQ(catalog.error->message(),
                  "/etc/sim.ini:" + std::to_string(c.line) + ": " + catalog.error->reason);
        EXPECT_TRUE(catalog.boards.empty()) << c.text;
    }
}

TEST(BoardIniTest, AMissingFileIsNamedWithLineZero) {
    test::TempDir dir;
    BoardCatalog c = loadBoardIni(dir.file("absent.ini"));
    ASSERT_TRUE(c.error);
    EXPECT_EQ(c.error->line, 0);
    EXPECT_EQ(c.error->file, dir.file("absent.ini"));
    EXPECT_NE(c.error->reason.find("cannot open"), std::string::npos);
    EXPECT_TRUE(c.boards.empty());
}

TEST(BoardIniTest, TheVariableNamesTheFileRead) {
    test::TempDir dir;
    test::writeFile(dir.file("sim.ini"), "[board0]\nname = Solo\n");
    test::ScopedConfigEnv env(dir.file("sim.ini"));
    BoardCatalog c = loadBoardCatalog();
    ASSERT_FALSE(c.error);
    ASSERT_EQ(c.boards.size(), 1u);
    EXPECT_EQ(c.boards[0].name, "Solo");
}

TEST(BoardIniTest, CoaXPressIsRecognisedByName) {
    BoardConfig b;
    for (const char* name : {"X CXP", "CoaXPress 12", "CXP6-4"}) {
        b.name = name;
        EXPECT_TRUE(b.isCoaXPress()) << name;
    }
    for (const char* name : {"PCIe-CL", "cxp lower case", "Coaxpress"}) {
        b.name = name;
        EXPECT_FALSE(b.isCoaXPress()) << name;
    }
}

}  // namespace
}  // namespace orvix::sim
