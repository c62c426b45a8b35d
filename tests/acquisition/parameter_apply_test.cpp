#include <gtest/gtest.h>

#include <algorithm>

#include "acquisition/board_parameters.h"
#include "fake_board.h"

namespace lumetra::test {
namespace {

// Rows 1-69 of the apply order without the conditional ones (width retry, model-10 JPEG rows).
const std::vector<uint32_t> kCommonHead = {
    0x10000002, 0x10000050, 0x10000069, 0x20000016, 0x20000017, 0x10000056, 0x1000000A, 0x10000015,
    0x1000007F, 0x10000003, 0x10000006, 0x10000013, 0x10000014, 0x10000015, 0x10000016, 0x10000017,
    0x10000064, 0x10000046, 0x20000020, 0x10000049, 0x1000001D, 0x1000001C, 0x10000075, 0x3000002E,
    0x20000010, 0x20000005, 0x20000006, 0x20000007, 0x10000067, 0x10000068, 0x1000007D, 0x1000001E,
    0x1000001F, 0x10000021, 0x10000022, 0x1000003F, 0x10000040, 0x10000051, 0x10000052, 0x10000053,
    0x10000054, 0x10000025, 0x10000024, 0x10000070, 0x10000026, 0x10000043, 0x10000076, 0x10000044,
    0x10000071, 0x10000072, 0x20000013, 0x20000014, 0x20000015, 0x1000002A, 0x1000002B, 0x10000041,
    0x10000042, 0x1000002C, 0x1000003B, 0x1000003C, 0x1000002D, 0x1000003D, 0x1000003E, 0x10000027,
    0x10000028, 0x10000029};
const std::vector<uint32_t> kStrobe = {0x10000035, 0x1000003A, 0x10000036,
                                       0x10000037, 0x10000038, 0x10000039};

struct ApplyFixture : ::testing::Test {
    FakeBoardLibrary lib;
    RecordingLog log;
    BoardParameters cache;
    OrvixHandle h = 0;

    void SetUp() override {
        lib.boards.push_back(FakeBoard{});
        h = lib.Open(2, 0);
        lib.calls.clear();
    }
    std::vector<uint32_t> apply(const BoardIdentity& id) {
        lib.calls.clear();
        ApplyParameters(lib, h, cache, id, log);
        return lib.idsOf("SetInfo");
    }
    static std::vector<uint32_t> concat(std::initializer_list<std::vector<uint32_t>> parts) {
        std::vector<uint32_t> out;
        for (const auto& p : parts) {
            out.insert(out.end(), p.begin(), p.end());
        }
        return out;
    }
};

TEST_F(ApplyFixture, CameraLinkBoardWritesTheFullOrder) {
    cache.set(ORVIX_INTEGRATION_METHOD, 0);
    const auto ids = apply({false, 5});
    const auto expected =
        concat({{0x10000013, 0x10000001},
                kCommonHead,
                {0x10000018, 0x10000019, 0x1000001A, 0x1000001B},  // cc1..cc4
                {0x1000002E, 0x1000002F, 0x10000030},              // method 0: param1, param2
                {0x10000062, 0x10000066, 0x10000058, 0x10000057, 0x10000061, 0x10000059},
                kStrobe});
    EXPECT_EQ(ids, expected);
    EXPECT_TRUE(log.lines().empty());
    // The opening tap write is always 1, whatever the cache holds.
    cache.set(ORVIX_TAP_NUMBER, 8);
    apply({false, 5});
    EXPECT_EQ(lib.callsNamed("SetInfo").at(0), (FakeCall{"SetInfo", ORVIX_TAP_NUMBER, 1}));
}

TEST_F(ApplyFixture, CoaXPressBoardWritesCxpTriggerAndReusesIntegrationIds) {
    cache.set(ORVIX_INTEGRATION_METHOD, 7);  // above 4: no integration writes
    cache.set(ORVIX_SOFTWARE_TRIGGER_PERIOD, 1111);
    cache.set(ORVIX_SOFTWARE_TRIGGER_WIDTH, 2222);
    cache.set(ORVIX_SOFTWARE_TRIGGER_DELAY, 3333);
    cache.set(ORVIX_SOFTWARE_TRIGGER_COUNT, 4444);
    cache.set(ORVIX_INTEGRATION_PARAM1, 9);
    const auto ids = apply({true, 5});
    const auto expected = concat(
        {{0x10000013, 0x10000001},
         kCommonHead,
         {0x30000002, 0x1000002E},
         {0x1000002E, 0x10000062, 0x10000066, 0x1000002F, 0x10000030, 0x10000031, 0x10000032},
         kStrobe});
    EXPECT_EQ(ids, expected);
    // The trigger group sends the software-trigger values through the integration ids.
    const auto writes = lib.callsNamed("SetInfo");
    const size_t group = 2 + kCommonHead.size() + 2;
    for (uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(writes.at(group + 3 + i).value, 1111u * (i + 1));
    }
}

TEST_F(ApplyFixture, Model10AddsTheJpegRowsAfterTheBayerPattern) {
    cache.set(ORVIX_INTEGRATION_METHOD, 5);
    const auto ids = apply({false, 10});
    const auto bayer = std::find(ids.begin(), ids.end(), 0x10000015u) - ids.begin();
    ASSERT_LT(bayer + 3, std::ssize(ids));
    EXPECT_EQ(std::vector<uint32_t>(ids.begin() + bayer + 1, ids.begin() + bayer + 4),
              (std::vector<uint32_t>{0x3000002F, 0x30000030, 0x1000007F}));
    const auto model3 = apply({false, 3});
    EXPECT_EQ(std::count(model3.begin(), model3.end(), 0x3000002Fu), 0);
}

TEST_F(ApplyFixture, IntegrationMethodsWriteTheirParameters) {
    const std::vector<std::vector<uint32_t>> byMethod = {
        {0x1000002F, 0x10000030},
        {0x10000033, 0x1000002F, 0x10000030},
        {0x10000033, 0x10000034},
        {0x10000033, 0x1000002F, 0x10000030},
        {0x10000033, 0x10000034, 0x1000002F, 0x10000030, 0x10000031, 0x10000032},
        {},
        {}};
    for (uint32_t method = 0; method < byMethod.size(); ++method) {
        SCOPED_TRACE(method);
        cache.set(ORVIX_INTEGRATION_METHOD, method);
        const auto ids = apply({false, 5});
        auto at = std::find(ids.begin(), ids.end(), 0x1000002Eu);
        ASSERT_NE(at, ids.end());
        std::vector<uint32_t> after(at + 1, at + 1 + byMethod[method].size());
        EXPECT_EQ(after, byMethod[method]);
        // The CameraLink trigger group follows at once.
        EXPECT_EQ(*(at + 1 + byMethod[method].size()), 0x10000062u);
    }
}

TEST_F(ApplyFixture, FailedFirstWidthWriteIsRetriedAfterTheBayerPattern) {
    cache.set(ORVIX_IMAGE_WIDTH, 1000);
    lib.board(h).failSetOnce.insert(ORVIX_IMAGE_WIDTH);
    const auto ids = apply({false, 5});
    ASSERT_GE(ids.size(), 11u);
    EXPECT_EQ(ids[1], 0x10000001u);
    EXPECT_EQ(ids[9], 0x10000015u);   // row 8, the bayer pattern
    EXPECT_EQ(ids[10], 0x10000001u);  // row 9, the retry
    EXPECT_EQ(std::count(ids.begin(), ids.end(), 0x10000001u), 2);
    EXPECT_EQ(lib.board(h).values[ORVIX_IMAGE_WIDTH], 1000u);
    EXPECT_TRUE(log.lines().empty()) << "the opening width write is silent";

    // A width that fails twice is reported once, by its retry.
    lib.board(h).failSet.insert(ORVIX_IMAGE_WIDTH);
    apply({false, 5});
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Set image width failed"});
}

TEST_F(ApplyFixture, FailedWritesAreReportedInOrderAndTheSequenceGoesOn) {
    FakeBoard& b = lib.board(h);
    b.failSet = {0x10000002, 0x10000049, 0x10000033, 0x10000058, 0x10000039, 0x20000017};
    cache.set(ORVIX_INTEGRATION_METHOD, 1);
    const auto ids = apply({false, 5});
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "Set image height failed", "Set cl signal enhance mode failed",
                  "Set FPGA ecternal trigger timeout failed", "Set integration polarity1 failed",
                  "Set software trigger period failed", "Set strobe param4 failed"}));
    EXPECT_EQ(ids.back(), 0x10000039u);
    // A refused tap-number opening write is not reported.
    log.clear();
    b.failSet = {ORVIX_TAP_NUMBER};
    apply({false, 5});
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Set tap number failed"});
}

// ---- read-back ----

struct ReadBackFixture : ApplyFixture {
    ImageFormatRecord format;
    void readBack(bool coaxpress = false) {
        ReadBackParameters(lib, h, {coaxpress, 5}, cache, format);
    }
    FakeBoard& board() { return lib.board(h); }
};

TEST_F(ReadBackFixture, DerivesFormatAndConfigurationIndexFromTypeDataFormatAndTaps) {
    const struct {
        uint32_t type, format, taps, channels, bpp;
        int index;
    } cases[] = {{0, 8, 1, 1, 8, 0},   {1, 8, 2, 3, 24, 1},  {0, 8, 2, 1, 8, 0},
                 {2, 8, 3, 4, 32, 2},  {3, 10, 8, 3, 30, 2}, {4, 16, 4, 4, 64, 1},
                 {0, 12, 10, 1, 12, 3}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "type " << c.type << " taps " << c.taps);
        board().values[ORVIX_IMAGE_TYPE] = c.type;
        board().values[ORVIX_DATA_FORMAT] = c.format;
        board().values[ORVIX_TAP_NUMBER] = c.taps;
        readBack();
        EXPECT_EQ(cache.channels, c.channels);
        EXPECT_EQ(cache.bitsPerPixel, c.bpp);
        EXPECT_EQ(format.bitsPerPixel, c.bpp);
        EXPECT_EQ(format.channels, c.channels);
        EXPECT_EQ(cache.clConfigIndex, c.index);
    }
    // Other tap numbers leave it as it was.
    board().values[ORVIX_TAP_NUMBER] = 6;
    readBack();
    EXPECT_EQ(cache.clConfigIndex, 3);
}

TEST_F(ReadBackFixture, FailedReadsKeepTheCachedValue) {
    cache.set(ORVIX_IMAGE_HEIGHT, 777);
    board().values[ORVIX_IMAGE_HEIGHT] = 1200;
    board().failGet.insert(ORVIX_IMAGE_HEIGHT);
    board().values[ORVIX_IMAGE_WIDTH] = 1920;
    board().values[ORVIX_RGBD_EXTENDED_MODE] = 1;
    readBack();
    EXPECT_EQ(cache.height(), 777u);
    EXPECT_EQ(cache.width(), 1920u);
    EXPECT_FALSE(format.rgbdExtended) << "a successful read leaves the flag alone";
    EXPECT_EQ(cache.get(ORVIX_RGBD_EXTENDED_MODE), 1u);
    board().failGet.insert(ORVIX_RGBD_EXTENDED_MODE);
    readBack();
    EXPECT_TRUE(format.rgbdExtended) << "a failed read takes the cached value";
}

TEST_F(ReadBackFixture, SignalEnhanceThreeIsStoredAsOneAndBayerSetsTheFlag) {
    board().values[ORVIX_CL_SIGNAL_ENHANCE_MODE] = 3;
    board().values[ORVIX_BAYER_PATTERN] = 2;
    readBack();
    EXPECT_EQ(cache.get(ORVIX_CL_SIGNAL_ENHANCE_MODE), 1u);
    EXPECT_TRUE(cache.bayerEnabled);
    board().values[ORVIX_CL_SIGNAL_ENHANCE_MODE] = 2;
    board().values[ORVIX_BAYER_PATTERN] = 0;
    readBack();
    EXPECT_EQ(cache.get(ORVIX_CL_SIGNAL_ENHANCE_MODE), 2u);
    EXPECT_FALSE(cache.bayerEnabled);
}

TEST_F(ReadBackFixture, MinimumIntervalIsReadOnlyWithoutProtection) {
    board().values[ORVIX_SHAFT_ENCODER1_MIN_INTERVAL] = 50;
    board().values[ORVIX_SHAFT_ENCODER1_PROTECT_MODE] = 1;
    readBack();
    EXPECT_EQ(cache.get(ORVIX_SHAFT_ENCODER1_MIN_INTERVAL), 0u);
    board().values[ORVIX_SHAFT_ENCODER1_PROTECT_MODE] = 0;
    readBack();
    EXPECT_EQ(cache.get(ORVIX_SHAFT_ENCODER1_MIN_INTERVAL), 50u);
}

TEST_F(ReadBackFixture, CoaXPressReadsTriggerValuesThroughIntegrationIds) {
    board().values[ORVIX_INTEGRATION_PARAM1] = 40;
    board().values[ORVIX_SOFTWARE_TRIGGER_PERIOD] = 99;
    readBack(true);
    EXPECT_EQ(cache.get(ORVIX_SOFTWARE_TRIGGER_PERIOD), 40u);
    readBack(false);
    EXPECT_EQ(cache.get(ORVIX_SOFTWARE_TRIGGER_PERIOD), 99u);
}

}  // namespace
}  // namespace lumetra::test
