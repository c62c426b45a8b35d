// Reading the INI file and the environment variable goes through BoardLibraryTest, which loads
// every catalogue from ORVIX_SIM_CONFIG (or the built-in pair when it is unset).
#include <gtest/gtest.h>

#include "BoardConfig.h"

namespace orvix::sim {
namespace {

// version, serial, width, height, image type, data format, taps, bayer, fps, buffers, PCIe link
std::vector<uint32_t> numbers(const BoardConfig& b) {
    return {b.version, b.serial, b.width, b.height,  b.imageType, b.dataFormat,
            b.taps,    b.bayer,  b.fps,   b.buffers, b.pcieLink};
}

TEST(BoardIniTest, BuiltInBoardsMatchTheDocumentedDefaults) {
    std::vector<BoardConfig> boards = defaultBoards();
    ASSERT_EQ(boards.size(), 2u);
    const BoardConfig& cl = boards[0];
    EXPECT_EQ(cl.name, "PCIe-CL Full Simulator");
    EXPECT_EQ(numbers(cl),
              (std::vector<uint32_t>{0x00051302, 0x18030042, 1920, 1200, 0, 8, 8, 2, 60, 8, 0x83}));
    EXPECT_EQ(cl.pattern, Pattern::Bars);
    EXPECT_FALSE(cl.isCoaXPress());
    EXPECT_EQ(cl.modelCode(), 5u);

    const BoardConfig& cxp = boards[1];
    EXPECT_EQ(cxp.name, "PCIe-CXP4 Simulator");
    EXPECT_EQ(numbers(cxp), (std::vector<uint32_t>{0x000A0100, 0x18030043, 2560, 2048, 0, 12, 1, 0,
                                                   30, 8, 0x83}));
    EXPECT_TRUE(cxp.isCoaXPress());
    EXPECT_EQ(cxp.modelCode(), 10u);
}

TEST(BoardIniTest, NumbersAreDecimalOrHex) {
    const std::pair<const char*, uint32_t> good[] = {{"0", 0},
                                                     {"42", 42},
                                                     {"0x1F", 31},
                                                     {"0X1f", 31},
                                                     {"4294967295", 0xFFFFFFFFu},
                                                     {"0xFFFFFFFF", 0xFFFFFFFFu}};
    for (const auto& [text, value] : good) {
        uint32_t v = 12345;
        EXPECT_TRUE(parseNumber(text, v)) << '"' << text << '"';
        EXPECT_EQ(v, value) << text;
    }
    for (const char* text :
         {"4294967296", "0x100000000", "0x", "", "-1", "12a", "1.5", " 7", "0xg"}) {
        uint32_t v = 12345;
        EXPECT_FALSE(parseNumber(text, v)) << '"' << text << '"';
    }
}

TEST(BoardIniTest, EveryKeyIsRead) {
    struct Key {
        const char* line;
        uint32_t BoardConfig::*field;
        uint32_t value;
    };
    const Key keys[] = {
        {"version = 0x000A0001", &BoardConfig::version, 0x000A0001},
        {"serial = 305419896", &BoardConfig::serial, 305419896},
        {"width = 0x400", &BoardConfig::width, 1024},
        {"height = 643", &BoardConfig::height, 643},
        {"image_type = 3", &BoardConfig::imageType, 3},
        {"data_format = 10", &BoardConfig::dataFormat, 10},
        {"taps = 10", &BoardConfig::taps, 10},
        {"bayer = 4", &BoardConfig::bayer, 4},
        {"scan_type = 1", &BoardConfig::scanType, 1},
        {"fps = 25", &BoardConfig::fps, 25},
        {"line_rate = 72000", &BoardConfig::lineRate, 72000},
        {"buffers = 0x20", &BoardConfig::buffers, 32},
        {"pcie_link = 0x44", &BoardConfig::pcieLink, 0x44},
        {"cxp_speed = 3", &BoardConfig::cxpSpeed, 3},
        {"signal_loss_after_ms = 1500", &BoardConfig::signalLossAfterMs, 1500},
        {"stop_failures = 2", &BoardConfig::stopFailures, 2},
        {"single_shot_error = 42", &BoardConfig::singleShotError, 42},
        {"timeout_every = 7", &BoardConfig::timeoutEvery, 7},
    };
    std::string ini =
        "; a comment\r\n# another\n\n[board0]\n"
        "name = \"Line Cam CoaXPress\"\n"
        "open_fails = 1\n"
        "fail_set = 0x10000001, 0x10000002\n"
        "fail_get = 0x10000003\n"
        "pattern = static\n"
        "level = 100\n"
        "defects = 1:2:255; 3:4:0;\n"
        "signal_rates = 2:10; 128:500\n";
    for (const Key& k : keys) {
        ini += std::string(k.line) + "\n";
    }
    BoardCatalog c = parseBoardIni(ini, "t.ini");
    ASSERT_FALSE(c.error) << c.error->message();
    ASSERT_EQ(c.boards.size(), 1u);
    const BoardConfig& b = c.boards[0];
    for (const Key& k : keys) {
        EXPECT_EQ(b.*k.field, k.value) << k.line;
    }
    EXPECT_EQ(b.name, "Line Cam CoaXPress");
    EXPECT_TRUE(b.isCoaXPress());
    EXPECT_TRUE(b.openFails);
    EXPECT_EQ(b.failSet, (std::vector<uint32_t>{0x10000001, 0x10000002}));
    EXPECT_EQ(b.failGet, (std::vector<uint32_t>{0x10000003}));
    EXPECT_EQ(b.pattern, Pattern::Static);
    EXPECT_EQ(b.level, 100u);
    EXPECT_EQ(b.defects, (std::vector<Defect>{{1, 2, 255}, {3, 4, 0}}));
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

    c = parseBoardIni("; nothing here\n", "t.ini");
    EXPECT_FALSE(c.error) << "an empty file offers no board without error";
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
        SCOPED_TRACE(c.text);
        BoardCatalog catalog = parseBoardIni(c.text, "/etc/sim.ini");
        ASSERT_TRUE(catalog.error);
        EXPECT_EQ(catalog.error->line, c.line);
        EXPECT_NE(catalog.error->reason.find(c.reason), std::string::npos)
            << "gave: " << catalog.error->reason;
        EXPECT_EQ(catalog.error->message(),
                  "/etc/sim.ini:" + std::to_string(c.line) + ": " + catalog.error->reason);
        EXPECT_TRUE(catalog.boards.empty());
    }
}

TEST(BoardIniTest, CoaXPressIsRecognisedByName) {
    const std::pair<const char*, bool> cases[] = {{"X CXP", true},           {"CoaXPress 12", true},
                                                  {"CXP6-4", true},          {"PCIe-CL", false},
                                                  {"cxp lower case", false}, {"Coaxpress", false}};
    for (const auto& [name, coaXPress] : cases) {
        BoardConfig b;
        b.name = name;
        EXPECT_EQ(b.isCoaXPress(), coaXPress) << name;
    }
}

}  // namespace
}  // namespace orvix::sim
