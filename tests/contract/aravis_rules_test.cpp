// The camera library's rules that need no camera: pixel formats against the board's format
// parameters (both ways), the camera list, the configuration text and lost-frame counting.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "CameraList.h"
#include "ConfigurationDump.h"
#include "FrameSequence.h"
#include "OrvixBoard.h"
#include "PixelFormats.h"

namespace orvix::aravis {
namespace {

// ---- pixel formats ----

struct Mapping {
    const char* name;
    uint32_t pfnc;
    uint32_t colourType;  // the colour order asked for
    FrameLayout layout;
    bool swapped;
    uint32_t bytesPerPixel;
};

const Mapping kMappings[] = {
    {"Mono8", 0x01080001, 1, {0, 8, 0}, false, 1},
    {"Mono10", 0x01100003, 1, {0, 10, 0}, false, 2},
    {"Mono12", 0x01100005, 1, {0, 12, 0}, false, 2},
    {"Mono14", 0x01100025, 1, {0, 14, 0}, false, 2},
    {"Mono16", 0x01100007, 1, {0, 16, 0}, false, 2},
    {"BayerBG8", 0x0108000B, 1, {0, 8, 1}, false, 1},
    {"BayerRG8", 0x01080009, 1, {0, 8, 2}, false, 1},
    {"BayerGB8", 0x0108000A, 1, {0, 8, 3}, false, 1},
    {"BayerGR8", 0x01080008, 1, {0, 8, 4}, false, 1},
    {"BayerBG10", 0x0110000F, 1, {0, 10, 1}, false, 2},
    {"BayerRG12", 0x01100011, 1, {0, 12, 2}, false, 2},
    {"BayerBG16", 0x01100031, 1, {0, 16, 1}, false, 2},
    {"BayerRG16", 0x0110002F, 1, {0, 16, 2}, false, 2},
    {"BayerGB16", 0x01100030, 1, {0, 16, 3}, false, 2},
    {"BayerGR16", 0x0110002E, 1, {0, 16, 4}, false, 2},
    {"RGB8", 0x02180014, 1, {1, 8, 0}, true, 3},
    {"RGB8", 0x02180014, 3, {3, 8, 0}, false, 3},
    {"BGR8", 0x02180015, 1, {1, 8, 0}, false, 3},
    {"BGR8", 0x02180015, 3, {3, 8, 0}, true, 3},
};

TEST(PixelFormats, CameraFormatsGiveTheBoardsImageTypeDataFormatAndPattern) {
    for (const Mapping& m : kMappings) {
        SCOPED_TRACE(std::string(m.name) + " as type " + std::to_string(m.colourType));
        const std::optional<FrameLayout> layout = layoutOf(m.pfnc, m.colourType);
        ASSERT_TRUE(layout);
        EXPECT_EQ(*layout, m.layout);
        EXPECT_EQ(swapsRedBlue(m.pfnc, m.colourType), m.swapped);
        ASSERT_NE(findPixelFormat(m.pfnc), nullptr);
        EXPECT_EQ(findPixelFormat(m.pfnc)->bytesPerPixel, m.bytesPerPixel);
        EXPECT_EQ(pixelFormatName(m.pfnc), m.name);
    }
    // Packed and YUV formats are not handed out.
    for (uint32_t packed : {0x010C0006u, 0x010C002Bu, 0x02100032u}) {
        EXPECT_FALSE(layoutOf(packed, 1));
        EXPECT_EQ(pixelFormatName(packed).substr(0, 2), "0x");
    }
}

TEST(PixelFormats, WritingTheBoardsParametersPicksTheCameraFormat) {
    const std::vector<int64_t> all = [] {
        std::vector<int64_t> v;
        for (const PixelFormatInfo& f : pixelFormatTable()) {
            v.push_back(f.pfnc);
        }
        return v;
    }();
    // What Aravis's fake camera offers.
    const std::vector<int64_t> fake = {0x0108000B, 0x0108000A, 0x01080008, 0x01080009,
                                       0x01080001, 0x02180014, 0x01100007};
    const std::vector<int64_t> onlyBgr = {0x01080001, 0x02180015};
    struct Case {
        const char* what;
        const std::vector<int64_t>* available;
        uint32_t current;
        uint32_t colour;
        uint32_t id;
        uint32_t value;
        uint32_t pfnc;        // chosen; 0: refused with 3
        uint32_t colourType;  // afterwards
    };
    const Case cases[] = {
        {"Mono8 to 12 bits", &all, 0x01080001, 1, ORVIX_DATA_FORMAT, 12, 0x01100005, 1},
        {"Mono8 to 12 bits, not on the camera", &fake, 0x01080001, 1, ORVIX_DATA_FORMAT, 12, 0, 1},
        {"Mono8 to RGGB keeps 8 bits", &all, 0x01080001, 1, ORVIX_BAYER_PATTERN, 2, 0x01080009, 1},
        {"Mono16 to RGGB keeps 16 bits", &all, 0x01100007, 1, ORVIX_BAYER_PATTERN, 2, 0x0110002F,
         1},
        {"Mono16 to RGGB: the nearest depth", &fake, 0x01100007, 1, ORVIX_BAYER_PATTERN, 2,
         0x01080009, 1},
        {"BayerRG12 to 16 bits", &all, 0x01100011, 1, ORVIX_DATA_FORMAT, 16, 0x0110002F, 1},
        {"BayerRG8 pattern cleared", &all, 0x01080009, 1, ORVIX_BAYER_PATTERN, 0, 0x01080001, 1},
        {"Mono12 to colour", &all, 0x01100005, 1, ORVIX_IMAGE_TYPE, 1, 0x02180015, 1},
        {"Mono8 to B, G, R from an RGB camera", &fake, 0x01080001, 1, ORVIX_IMAGE_TYPE, 1,
         0x02180014, 1},
        {"Mono8 to R, G, B", &all, 0x01080001, 1, ORVIX_IMAGE_TYPE, 3, 0x02180014, 3},
        {"R, G, B from a BGR camera", &onlyBgr, 0x01080001, 1, ORVIX_IMAGE_TYPE, 3, 0x02180015, 3},
        {"RGB8 to type 1 swaps in place", &fake, 0x02180014, 3, ORVIX_IMAGE_TYPE, 1, 0x02180014, 1},
        {"colour to mono", &all, 0x02180014, 1, ORVIX_IMAGE_TYPE, 0, 0x01080001, 1},
        {"colour has no pattern to clear", &all, 0x02180014, 1, ORVIX_BAYER_PATTERN, 0, 0x02180014,
         1},
        {"colour to BGGR", &all, 0x02180014, 1, ORVIX_BAYER_PATTERN, 1, 0x0108000B, 1},
        {"colour with 12 bits", &all, 0x02180014, 1, ORVIX_DATA_FORMAT, 12, 0, 1},
        {"four channels", &all, 0x01080001, 1, ORVIX_IMAGE_TYPE, 2, 0, 1},
        {"pattern 5", &all, 0x01080001, 1, ORVIX_BAYER_PATTERN, 5, 0, 1},
        {"9 bits", &all, 0x01080001, 1, ORVIX_DATA_FORMAT, 9, 0, 1},
        {"unchanged", &fake, 0x0108000B, 1, ORVIX_BAYER_PATTERN, 1, 0x0108000B, 1},
        {"from a packed format", &all, 0x010C0006, 1, ORVIX_DATA_FORMAT, 8, 0x01080001, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        FormatChoice out;
        const Status s = chooseFormat(c.current, c.colour, c.id, c.value, *c.available, out);
        if (c.pfnc == 0) {
            EXPECT_EQ(s.code, ORVIX_ERR_OUT_OF_RANGE) << s.text;
            EXPECT_EQ(s.subject, c.id);
            continue;
        }
        ASSERT_TRUE(s.ok()) << s.text;
        EXPECT_EQ(pixelFormatName(out.pfnc), pixelFormatName(c.pfnc));
        EXPECT_EQ(out.colourType, c.colourType);
        // Read back, the written value is what the board reports.
        const FrameLayout l = *layoutOf(out.pfnc, out.colourType);
        const uint32_t read = c.id == ORVIX_IMAGE_TYPE    ? l.imageType
                              : c.id == ORVIX_DATA_FORMAT ? l.dataFormat
                                                          : l.bayer;
        EXPECT_EQ(read, c.value);
    }
}

TEST(PixelFormats, RefusalNamesTheParameterAndWhatTheCameraLacks) {
    FormatChoice out;
    const std::vector<int64_t> mono8 = {0x01080001};
    const Status s = chooseFormat(0x01080001, 1, ORVIX_DATA_FORMAT, 12, mono8, out);
    EXPECT_EQ(s.text,
              "Set data format (0x10000003): 12 is out of range: the camera has no image type 0 "
              "with 12 bits format");
}

// ---- camera list ----

TEST(CameraList, NamesComeFromTheVariableOrTheIniFile) {
    EXPECT_EQ(splitCameraIds(" 192.168.1.20 ,, GV01,"),
              (std::vector<std::string>{"192.168.1.20", "GV01"}));
    EXPECT_TRUE(splitCameraIds("").empty());

    const CameraList fromVariable = loadCameraList("127.0.0.1", "/nonexistent/OrvixAravis.ini");
    EXPECT_EQ(fromVariable.ids, std::vector<std::string>{"127.0.0.1"});
    EXPECT_EQ(fromVariable.origin, "LUMETRA_ARAVIS_CAMERAS");
    const CameraList none = loadCameraList("", "/nonexistent/OrvixAravis.ini");
    EXPECT_TRUE(none.ids.empty());
    EXPECT_FALSE(none.error);

    struct Case {
        const char* text;
        std::vector<std::string> ids;
        const char* error;
    };
    const Case cases[] = {
        {"cameras = 10.0.0.2, cam-7\n", {"10.0.0.2", "cam-7"}, nullptr},
        {"# lab\n[cameras]\n; two\ncameras=a,b\r\n", {"a", "b"}, nullptr},
        {"\n\n", {}, nullptr},
        {"cameras 10.0.0.2\n", {}, "x.ini:1: not 'key = value'"},
        {"[camera]\ncameras=a\n", {}, "x.ini:1: unknown section [camera]"},
        {"cameras=a\ncamera=b\n", {}, "x.ini:2: unknown key 'camera'"},
        {"cameras=a\ncameras=b\n", {}, "x.ini:2: 'cameras' given twice"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        const CameraList list = parseCameraIni(c.text, "x.ini");
        EXPECT_EQ(list.ids, c.ids);
        if (c.error == nullptr) {
            EXPECT_FALSE(list.error);
        } else {
            ASSERT_TRUE(list.error);
            EXPECT_EQ(*list.error, c.error);
        }
    }
}

// ---- configuration text ----

CameraDump SampleDump() {
    CameraDump d;
    d.vendor = "Aravis";
    d.model = "Fake";
    d.buffers = 12;
    d.colour = 3;
    d.features = {{"Width", {}, "512", 0},
                  {"TriggerMode", {{"TriggerSelector", "FrameStart"}}, "On", 0},
                  {"DeviceUserText", {}, "a\\b\nc=d[e]", 0},
                  {"ExposureTimeAbs", {}, "12345.678", 0}};
    return d;
}

TEST(ConfigurationDump, WritesAndReadsBackEveryValue) {
    const std::string text = serializeDump(SampleDump());
    EXPECT_EQ(text.rfind("OrvixAravisConfiguration 1\n@vendor=Aravis\n@model=Fake\n", 0), 0u);
    EXPECT_NE(text.find("\nTriggerMode[TriggerSelector=FrameStart]=On\n"), std::string::npos);
    EXPECT_NE(text.find("\nDeviceUserText=a\\\\b\\nc=d[e]\n"), std::string::npos);
    CameraDump back;
    ASSERT_TRUE(parseDump(text, back).ok());
    const CameraDump want = SampleDump();
    EXPECT_EQ(back.vendor, want.vendor);
    EXPECT_EQ(back.model, want.model);
    EXPECT_EQ(back.buffers, 12u);
    EXPECT_EQ(back.colour, 3u);
    ASSERT_EQ(back.features.size(), want.features.size());
    for (size_t i = 0; i < want.features.size(); ++i) {
        EXPECT_EQ(back.features[i].feature, want.features[i].feature);
        EXPECT_EQ(back.features[i].selectors, want.features[i].selectors);
        EXPECT_EQ(back.features[i].value, want.features[i].value);
        EXPECT_EQ(back.features[i].line, static_cast<int>(6 + i));
    }
}

// The body with a fresh checksum, so that only the content is wrong.
std::string Sealed(const std::string& body) {
    char line[32];
    std::snprintf(line, sizeof line, "crc32=0x%08X\n", crc32Of(body));
    return body + line;
}

TEST(ConfigurationDump, RefusesDamagedForeignAndOtherVersionsWhole) {
    const std::string good = serializeDump(SampleDump());
    const std::string body = good.substr(0, good.rfind("crc32="));
    std::string flipped = good;
    flipped[good.find("512")] = '6';
    struct Case {
        const char* what;
        std::string text;
        int32_t code;
        const char* reason;
    };
    const Case cases[] = {
        {"a changed value", flipped, ORVIX_ERR_FILE_DAMAGED, "checksum mismatch"},
        {"cut short", good.substr(0, good.size() - 3), ORVIX_ERR_FILE_DAMAGED, "truncated"},
        {"without its checksum", body, ORVIX_ERR_FILE_DAMAGED, "no checksum line"},
        {"empty", "", ORVIX_ERR_FILE_DAMAGED, "not a camera configuration file"},
        {"the simulator's", Sealed("OrvixBoardConfiguration 1\n0x10000001=64\n"),
         ORVIX_ERR_FILE_DAMAGED, "not a camera configuration file"},
        {"version 2, whatever its checksum", "OrvixAravisConfiguration 2\nWidth=1\ncrc32=0x1\n",
         ORVIX_ERR_FILE_VERSION, "version 2 is not supported"},
        {"a line without value", Sealed(body + "Height\n"), ORVIX_ERR_FILE_DAMAGED,
         "line 10 is not 'Feature=value'"},
        {"a bad selector", Sealed(body + "Gain[Sel]=1\n"), ORVIX_ERR_FILE_DAMAGED, "line 10"},
        {"a bad escape", Sealed(body + "Name=a\\x\n"), ORVIX_ERR_FILE_DAMAGED, "line 10"},
        {"a ring of 0",
         Sealed("OrvixAravisConfiguration 1\n@vendor=A\n@model=B\n@buffers=0\n"
                "@colour=1\n"),
         ORVIX_ERR_FILE_DAMAGED, "line 4 is not a valid setting"},
        {"no colour order",
         Sealed("OrvixAravisConfiguration 1\n@vendor=A\n@model=B\n"
                "@buffers=2\n"),
         ORVIX_ERR_FILE_DAMAGED, "identity or settings are missing"},
        {"a setting twice", Sealed(body + "@model=C\n"), ORVIX_ERR_FILE_DAMAGED, "line 10"},
        {"an empty line", Sealed(body + "\n"), ORVIX_ERR_FILE_DAMAGED, "line 10 is empty"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        CameraDump d;
        const Status s = parseDump(c.text, d);
        EXPECT_EQ(s.code, c.code) << s.text;
        EXPECT_NE(s.text.find(c.reason), std::string::npos) << s.text;
        EXPECT_TRUE(d.features.empty()) << "nothing of a refused file is taken";
    }
}

// ---- lost frames ----

TEST(FrameSequence, LostFramesComeFromGapsInTheCamerasFrameIds) {
    struct Case {
        uint64_t last, next, lost;
    };
    const Case cases[] = {
        {1, 2, 0},       {1, 4, 2},        {65534, 65535, 0}, {65535, 1, 0},
        {65534, 2, 2},   {65535, 3, 2},    {7, 7, 0},         {9, 8, 0},
        {100, 50000, 0}, {65000, 10, 544}, {0, 1, 0},         {5000000000, 5000000003, 2},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(framesLostBetween(c.last, c.next), c.lost) << c.last << " -> " << c.next;
    }

    FrameSequence seq;
    const uint64_t ids[] = {65533, 65534, 1, 4, 5};
    const uint32_t numbers[] = {0, 1, 3, 6, 7};
    const uint64_t lost[] = {0, 0, 1, 2, 0};
    for (size_t i = 0; i < std::size(ids); ++i) {
        const FrameSequence::Step s = seq.arrive(ids[i]);
        EXPECT_EQ(s.number, numbers[i]) << i;
        EXPECT_EQ(s.lost, lost[i]) << i;
    }
    EXPECT_EQ(seq.lostTotal(), 3u);

    // A late frame, or one whose leader was lost and so shows its buffer's old id, neither counts
    // losses nor moves the reference; an id far behind is a camera that started again.
    struct Arrival {
        uint64_t id;
        uint32_t number;
        uint64_t lost;
    };
    const std::vector<Arrival> stale = {{10, 0, 0}, {11, 1, 0}, {3, 2, 0}, {12, 3, 0}, {14, 5, 1}};
    const std::vector<Arrival> restart = {
        {5000000, 0, 0}, {5000001, 1, 0}, {3, 2, 0}, {4, 3, 0}, {6, 5, 1}};
    for (const auto* arrivals : {&stale, &restart}) {
        FrameSequence s;
        for (const Arrival& a : *arrivals) {
            const FrameSequence::Step step = s.arrive(a.id);
            EXPECT_EQ(step.number, a.number) << a.id;
            EXPECT_EQ(step.lost, a.lost) << a.id;
        }
    }

    EXPECT_EQ(seq.rate(), 0.0);
    for (uint64_t t = 0; t <= 10; ++t) {
        seq.stamp(1'000'000'000 + t * 40'000'000);  // 25 frames per second
    }
    EXPECT_DOUBLE_EQ(seq.rate(), 25.0);
}

}  // namespace
}  // namespace orvix::aravis
