#include <gtest/gtest.h>

#include <set>

#include "OrvixBoard.h"
#include "ParameterStore.h"
#include "ParameterTable.h"
#include "TestSupport.h"

namespace orvix::sim {
namespace {

TEST(ParameterTableTest, IdsAreUniqueAndDefaultsAreLegal) {
    std::set<uint32_t> ids;
    for (const ParameterInfo& p : parameterTable()) {
        EXPECT_TRUE(ids.insert(p.id).second) << std::hex << p.id;
        EXPECT_TRUE(p.accepts(p.defaultValue)) << p.name;
        EXPECT_NE(std::string(p.name), "");
    }
}

TEST(ParameterTableTest, EveryIdTheApplicationUsesIsKnown) {
    // Ids the application writes in its parameter apply, reads back, or polls.
    const uint32_t used[] = {
        0x10000001, 0x10000002, 0x10000003, 0x10000006, 0x10000007, 0x10000009, 0x1000000A,
        0x1000000B, 0x1000000C, 0x1000000E, 0x10000013, 0x10000014, 0x10000015, 0x10000016,
        0x10000017, 0x10000018, 0x10000019, 0x1000001A, 0x1000001B, 0x1000001C, 0x1000001D,
        0x1000001E, 0x1000001F, 0x10000021, 0x10000022, 0x10000024, 0x10000025, 0x10000026,
        0x10000027, 0x10000028, 0x10000029, 0x1000002A, 0x1000002B, 0x1000002C, 0x1000002D,
        0x1000002E, 0x1000002F, 0x10000030, 0x10000031, 0x10000032, 0x10000033, 0x10000034,
        0x10000035, 0x10000036, 0x10000037, 0x10000038, 0x10000039, 0x1000003A, 0x1000003B,
        0x1000003C, 0x1000003D, 0x1000003E, 0x1000003F, 0x10000040, 0x10000041, 0x10000042,
        0x10000043, 0x10000044, 0x10000046, 0x10000049, 0x10000050, 0x10000051, 0x10000052,
        0x10000053, 0x10000054, 0x10000056, 0x10000057, 0x10000058, 0x10000059, 0x10000060,
        0x10000061, 0x10000062, 0x10000064, 0x10000066, 0x10000067, 0x10000068, 0x10000069,
        0x10000070, 0x10000071, 0x10000072, 0x10000073, 0x10000074, 0x10000075, 0x10000076,
        0x1000007D, 0x1000007F, 0x20000001, 0x20000002, 0x20000003, 0x20000005, 0x20000006,
        0x20000007, 0x20000009, 0x2000000A, 0x2000000B, 0x2000000C, 0x2000000D, 0x2000000E,
        0x2000000F, 0x20000010, 0x20000011, 0x20000013, 0x20000014, 0x20000015, 0x20000016,
        0x20000017, 0x20000020, 0x30000002, 0x3000002E, 0x3000002F, 0x30000030};
    for (uint32_t id : used) {
        EXPECT_NE(findParameter(id), nullptr) << std::hex << id;
    }
}

class ParameterStoreTest : public ::testing::Test {
  protected:
    BoardConfig config_ = defaultBoard(0);
};

using test::got;

TEST_F(ParameterStoreTest, StartsFromTheBoardConfiguration) {
    config_.width = 640;
    config_.buffers = 3;
    ParameterStore store(config_);
    const std::pair<uint32_t, uint32_t> expected[] = {{ORVIX_IMAGE_WIDTH, 640},
                                                      {ORVIX_BUFFER_COUNT, 3},
                                                      {ORVIX_TAP_NUMBER, 8},
                                                      {ORVIX_BAYER_PATTERN, 2},
                                                      {ORVIX_BOARD_VERSION, 0x00051302},
                                                      {ORVIX_BOARD_SERIAL, 0x18030042},
                                                      {ORVIX_PCIE_LINK, 0x83}};
    for (const auto& [id, value] : expected) {
        EXPECT_EQ(got(store, id), value) << std::hex << id;
    }
    EXPECT_EQ(store.modelCode(), 5u);
}

TEST_F(ParameterStoreTest, RangeChecksAcceptTheEdgesAndRefuseBeyond) {
    struct Case {
        uint32_t id;
        std::vector<uint32_t> good;
        std::vector<uint32_t> bad;
    };
    const Case cases[] = {
        {ORVIX_DATA_FORMAT, {8, 10, 12, 14, 16}, {0, 7, 9, 11, 13, 15, 17, 32}},
        {ORVIX_IMAGE_TYPE, {0, 1, 2, 3, 4}, {5, 0xFFFFFFFF}},
        {ORVIX_TAP_NUMBER, {1, 2, 3, 4, 8, 10}, {0, 5, 6, 7, 9, 11, 16}},
        {ORVIX_BAYER_PATTERN, {0, 4}, {5}},
        {ORVIX_IMAGE_WIDTH, {1, 65535}, {0, 65536}},
        {ORVIX_IMAGE_HEIGHT, {1, 65535}, {0, 65536}},
        {ORVIX_BUFFER_COUNT, {1, 256}, {0, 257}},
        {ORVIX_JPEG_COMPRESS_QUALITY, {1, 100}, {0, 101}},
        {ORVIX_SCAN_TYPE, {0, 1}, {2}},
    };
    for (const Case& c : cases) {
        ParameterStore store(config_);
        for (uint32_t v : c.good) {
            EXPECT_TRUE(store.set(c.id, v).ok()) << std::hex << c.id << std::dec << " = " << v;
            EXPECT_EQ(got(store, c.id), v);
        }
        uint32_t before = store.value(c.id);
        for (uint32_t v : c.bad) {
            Status s = store.set(c.id, v);
            EXPECT_EQ(s.code, ORVIX_ERR_OUT_OF_RANGE) << std::hex << c.id << std::dec << " = " << v;
            EXPECT_EQ(s.subject, c.id);
            EXPECT_EQ(store.value(c.id), before) << "value must stay unchanged";
        }
    }
    // Failure texts name the parameter and its range.
    ParameterStore store(config_);
    Status s = store.set(ORVIX_DATA_FORMAT, 9);
    EXPECT_EQ(s.text, "Set data format (0x10000003): 9 is out of range (8, 10, 12, 14 or 16)");
    s = store.set(ORVIX_IMAGE_WIDTH, 0);
    EXPECT_EQ(s.text, "Set image width (0x10000001): 0 is out of range (1..65535)");
}

TEST_F(ParameterStoreTest, ReadOnlyIdsRefuseEveryWrite) {
    ParameterStore store(config_);
    for (uint32_t id : {ORVIX_BOARD_VERSION, ORVIX_BOARD_SERIAL, ORVIX_FRAME_SIZE,
                        ORVIX_FRAME_SIZE_HIGH, ORVIX_FRAME_SIZE_LOW, ORVIX_PCIE_LINK}) {
        const uint32_t before = got(store, id);
        Status s = store.set(id, before + 1);
        EXPECT_EQ(s.code, ORVIX_ERR_REFUSED) << std::hex << id;
        EXPECT_NE(s.text.find("read-only"), std::string::npos) << s.text;
        EXPECT_EQ(s.subject, id);
        EXPECT_EQ(got(store, id), before);
    }
}

TEST_F(ParameterStoreTest, UnknownIdsFailBothWays) {
    ParameterStore store(config_);
    uint32_t v = 0;
    Status s = store.get(0x10000004, v);
    EXPECT_EQ(s.code, ORVIX_ERR_INVALID_PARAMETER);
    EXPECT_NE(s.text.find("parameter 0x10000004"), std::string::npos) << s.text;
    EXPECT_EQ(store.set(0x40000000, 1).code, ORVIX_ERR_INVALID_PARAMETER);
}

TEST_F(ParameterStoreTest, ListedIdsFailTheirSetOrGetOnly) {
    config_.failSet = {ORVIX_IMAGE_HEIGHT};
    config_.failGet = {ORVIX_FRAME_SIZE_HIGH};
    ParameterStore store(config_);

    Status s = store.set(ORVIX_IMAGE_HEIGHT, 1000);
    EXPECT_EQ(s.code, ORVIX_ERR_REFUSED);
    EXPECT_EQ(s.subject, static_cast<uint32_t>(ORVIX_IMAGE_HEIGHT));
    EXPECT_NE(s.text.find("image height"), std::string::npos);
    EXPECT_EQ(got(store, ORVIX_IMAGE_HEIGHT), 1200u);
    EXPECT_TRUE(store.set(ORVIX_IMAGE_WIDTH, 1000).ok());

    uint32_t v = 0;
    EXPECT_EQ(store.get(ORVIX_FRAME_SIZE_HIGH, v).code, ORVIX_ERR_REFUSED);
    EXPECT_EQ(got(store, ORVIX_FRAME_SIZE), 1000u * 1200u) << "the fall-back size stays readable";
}

TEST_F(ParameterStoreTest, GeometryAndFormatGiveTheFrameSize) {
    struct Case {
        uint32_t width, height, type, format;
        uint64_t bytes;
    };
    const Case cases[] = {
        {1920, 1200, 0, 8, 1920ull * 1200},
        {1920, 1200, 1, 8, 1920ull * 1200 * 3},
        {1920, 1200, 3, 10, 1920ull * 1200 * 3 * 2},
        {1024, 643, 2, 8, 1024ull * 643 * 4},
        {1024, 643, 4, 12, 1024ull * 643 * 4 * 2},
        {2560, 2048, 0, 16, 2560ull * 2048 * 2},
        {1, 1, 0, 14, 2},
        {65535, 65535, 4, 16, 65535ull * 65535 * 8},  // past 32 bits
        {65535, 65535, 0, 8, 65535ull * 65535},
    };
    for (const Case& c : cases) {
        ParameterStore store(config_);
        ASSERT_TRUE(store.set(ORVIX_IMAGE_WIDTH, c.width).ok());
        ASSERT_TRUE(store.set(ORVIX_IMAGE_HEIGHT, c.height).ok());
        ASSERT_TRUE(store.set(ORVIX_IMAGE_TYPE, c.type).ok());
        ASSERT_TRUE(store.set(ORVIX_DATA_FORMAT, c.format).ok());
        const uint64_t high = got(store, ORVIX_FRAME_SIZE_HIGH);
        EXPECT_EQ((high << 32) | got(store, ORVIX_FRAME_SIZE_LOW), c.bytes)
            << c.width << "x" << c.height;
        EXPECT_EQ(got(store, ORVIX_FRAME_SIZE), static_cast<uint32_t>(c.bytes));
        EXPECT_EQ(store.frameBytes(), c.bytes);
    }
}

TEST_F(ParameterStoreTest, OnlyModelTenBoardsCompress) {
    ParameterStore cl(config_);
    EXPECT_EQ(cl.set(ORVIX_JPEG_COMPRESS_ENABLE, 1).code, ORVIX_ERR_REFUSED);
    EXPECT_TRUE(cl.set(ORVIX_JPEG_COMPRESS_ENABLE, 0).ok());
    const BoardConfig cxp = defaultBoard(1);  // the store keeps a reference to its configuration
    ParameterStore model10(cxp);
    EXPECT_TRUE(model10.set(ORVIX_JPEG_COMPRESS_ENABLE, 1).ok());
}

TEST_F(ParameterStoreTest, ApplyAllChangesNothingWhenOneValueIsBad) {
    ParameterStore store(config_);
    ParameterValues values = {{ORVIX_IMAGE_WIDTH, 800},
                              {ORVIX_IMAGE_HEIGHT, 600},
                              {ORVIX_DATA_FORMAT, 9},
                              {ORVIX_TAP_NUMBER, 2}};
    Status s = store.applyAll(values);
    EXPECT_EQ(s.code, ORVIX_ERR_OUT_OF_RANGE);
    EXPECT_EQ(store.value(ORVIX_IMAGE_WIDTH), 1920u);
    EXPECT_EQ(store.value(ORVIX_IMAGE_HEIGHT), 1200u);
    EXPECT_EQ(store.value(ORVIX_TAP_NUMBER), 8u);

    values[2].second = 12;
    ASSERT_TRUE(store.applyAll(values).ok());
    EXPECT_EQ(store.value(ORVIX_IMAGE_WIDTH), 800u);
    EXPECT_EQ(store.value(ORVIX_DATA_FORMAT), 12u);
}

TEST_F(ParameterStoreTest, PersistentValuesLeaveOutReadOnlyAndRunTimeIds) {
    ParameterStore store(config_);
    std::set<uint32_t> ids;
    for (const auto& entry : store.persistentValues()) {
        ids.insert(entry.first);
    }
    EXPECT_TRUE(ids.count(ORVIX_IMAGE_WIDTH));
    EXPECT_TRUE(ids.count(ORVIX_JPEG_COMPRESS_QUALITY));
    for (uint32_t id : std::initializer_list<uint32_t>{
             ORVIX_BOARD_VERSION, ORVIX_FRAME_SIZE, ORVIX_FRAME_SIZE_LOW, ORVIX_BOARD_SERIAL,
             ORVIX_FRAME_LOST, ORVIX_SOFTWARE_TRIGGER_FIRE, ORVIX_SIGNAL_COUNTER_CONTROL,
             ORVIX_SIGNAL_COUNTER_BASE + 1, ORVIX_BOARD_STATE}) {
        EXPECT_FALSE(ids.count(id)) << std::hex << id;
    }
}

}  // namespace
}  // namespace orvix::sim
