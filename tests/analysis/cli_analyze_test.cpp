// lumetra-cli analyze and signals end to end: the real tool on files written here and on the
// simulated board.
#include <gtest/gtest.h>

#include <unistd.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <string>

#include "support/tool_json.h"

namespace {

using lumetra::test::jsonOf;
using lumetra::test::logOf;
using lumetra::test::ToolRun;

std::string Text(const QJsonValue& v) {
    return QJsonDocument(QJsonArray{v}).toJson(QJsonDocument::Compact).toStdString();
}

// Every key of want holds the same value in got, nested objects and arrays alike (an array's
// length must match).
void ExpectSubset(const QJsonValue& got, const QJsonValue& want, const std::string& where) {
    if (want.isArray()) {
        const QJsonArray g = got.toArray(), w = want.toArray();
        ASSERT_EQ(g.size(), w.size()) << where << " is " << Text(got);
        for (int i = 0; i < w.size(); ++i) {
            ExpectSubset(g[i], w[i], where + "." + std::to_string(i));
        }
        return;
    }
    if (!want.isObject()) {
        EXPECT_TRUE(got == want) << where << " is " << Text(got) << ", not " << Text(want);
        return;
    }
    const QJsonObject w = want.toObject();
    for (auto it = w.begin(); it != w.end(); ++it) {
        ExpectSubset(got.toObject()[it.key()], it.value(), where + "." + it.key().toStdString());
    }
}

void ExpectJson(const ToolRun& r, const char* want) {
    QJsonParseError error;
    const QJsonDocument w = QJsonDocument::fromJson(want, &error);
    ASSERT_EQ(error.error, QJsonParseError::NoError) << want;
    ExpectSubset(jsonOf(r), w.object(), "");
}

class AnalyzeCliTest : public ::testing::Test {
  protected:
    std::filesystem::path dir;
    std::string gray;  // 8 x 6, written by Gray()

    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              ("lumetra-analyze-" + std::to_string(getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(dir);
        gray = writePnm("gray.pgm", 8, 6, 1, 255, Gray);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }

    std::string path(const std::string& name) const { return (dir / name).string(); }

    std::string writeBytes(const std::string& name, const std::string& bytes) {
        std::ofstream(path(name), std::ios::binary) << bytes;
        return path(name);
    }

    // A binary PGM (P5) or PPM (P6); samples above 255 take two bytes, most significant first.
    std::string writePnm(const std::string& name, int width, int height, int channels, int maxval,
                         const std::function<int(int x, int y, int c)>& value) {
        std::string bytes = (channels == 1 ? "P5\n" : "P6\n") + std::to_string(width) + " " +
                            std::to_string(height) + "\n" + std::to_string(maxval) + "\n";
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                for (int c = 0; c < channels; ++c) {
                    const int v = value(x, y, c);
                    if (maxval > 255) {
                        bytes.push_back(static_cast<char>(v >> 8));
                    }
                    bytes.push_back(static_cast<char>(v & 0xFF));
                }
            }
        }
        return writeBytes(name, bytes);
    }

    std::string read(const std::string& name) const {
        std::ifstream in(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    ToolRun run(const std::string& args) { return lumetra::test::RunTool(LUMETRA_CLI, dir, args); }
    ToolRun analyze(const std::string& args) { return run("analyze '" + gray + "' " + args); }

    // Value 10 x + y, with three bright pixels at the bottom right.
    static int Gray(int x, int y, int) {
        return x == 7 && y == 4 ? 222 : y == 5 && x >= 6 ? 250 + (7 - x) : 10 * x + y;
    }
};

TEST_F(AnalyzeCliTest, GrayPgmEveryFigureAsJson) {
    const ToolRun r = analyze("--json --row 2 --col 3 --roi 1,1,4,3 --profile-row 1");
    ASSERT_EQ(r.status, 0) << r.err << r.out;
    EXPECT_FALSE(jsonOf(r)["histograms"].toObject().contains("Red"));
    // The mean is 2309 / 48.
    ExpectJson(r, R"({"ok": true, "width": 8, "height": 6, "channels": 1, "bitsPerPixel": 8,
        "bins": 256, "histograms": {"Gray": {"total": 48, "lowest": 0, "highest": 251}},
        "means": {"Gray": 48},
        "row": {"index": 2, "minimum": 2, "maximum": 72, "range": 70, "count": 8,
                "shown": {"Average Value:": "37"}},
        "column": {"minimum": 30, "maximum": 35},
        "roi": {"rect": [1, 1, 4, 3],
                "row": {"index": 2, "minimum": 12, "maximum": 42, "verdict": "fail",
                        "shown": {"Max / Min:": "3.500"}},
                "column": {"minimum": 31, "maximum": 33, "verdict": "pass"},
                "sets": {"Frame": {"Gray": {"total": 12}},
                         "X Odd": {"Gray": {"total": 6, "lowest": 11}},
                         "X Even": {"Gray": {"lowest": 21}}}},
        "profile": {"samples": [[0, 1], [1, 11], [2, 21], [3, 31], [4, 41], [5, 51], [6, 61],
                                [7, 71]]}})");
}

TEST_F(AnalyzeCliTest, BadPixelListsAndTheirCsvFiles) {
    ToolRun r = analyze("--json --bad 1,200,255,2,2 --csv '" + path("single.csv") +
                        "' --csv-vertical '" + path("vertical.csv") + "'");
    ASSERT_EQ(r.status, 0) << r.err;
    ExpectJson(r, R"({"badPixels": {"single": 3, "horizontal": 1, "vertical": 1, "capped": false,
        "singleList": [[7, 4], [6, 5], [7, 5]], "horizontalList": [[5, 6, 2]],
        "verticalList": [[7, 4, 2]]}})");
    EXPECT_EQ(read("single.csv"), "Col,Row\r\n7,4\r\n6,5\r\n7,5\r\n");
    EXPECT_EQ(read("vertical.csv"), "Col,Row(Start),Row(End),Size\r\n7,4,5,2\r\n");

    // With a ROI the search covers the ROI only: columns 4 to 7 of rows 4 and 5 here.
    r = analyze("--json --roi 4,4,7,5 --bad 1,200,255,1,1");
    ASSERT_EQ(r.status, 0) << r.err;
    ExpectJson(r, R"({"badPixels": {"single": 3}})");
    r = analyze("--json --roi 0,0,6,4 --bad 1,200,255,1,1");
    ASSERT_EQ(r.status, 0) << r.err;
    ExpectJson(r, R"({"badPixels": {"single": 0}})");
}

TEST_F(AnalyzeCliTest, TextOutputNamesTheFigures) {
    const ToolRun r = analyze("--row 2 --roi 1,1,4,3");
    ASSERT_EQ(r.status, 0) << r.err;
    for (const char* line : {"size          8 x 6, 1 channel, 8 bits per pixel\n",
                             "Gray          total 48, bins 0..251",
                             "min 2 max 72 range 70 average 37 deviation", "ratio 3.500 fail"}) {
        EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;
    }
}

TEST_F(AnalyzeCliTest, SixteenBitPgmKeepsItsSamples) {
    const std::string file = writePnm(
        "deep.pgm", 5, 4, 1, 4095, [](int x, int y, int) { return x == 4 && y == 3 ? 4000 : 123; });
    ToolRun r = run("analyze '" + file + "' --bits 12 --json");
    ASSERT_EQ(r.status, 0) << r.err;
    ExpectJson(r, R"({"bitsPerPixel": 12, "shift": 4, "bins": 65536,
        "histograms": {"Gray": {"highest": 4000, "peak": 123, "peakCount": 19}}})");
    r = run("analyze '" + file + "' --json");
    ASSERT_EQ(r.status, 0) << r.err;
    ExpectJson(r, R"({"bitsPerPixel": 16, "shift": 8})");
}

TEST_F(AnalyzeCliTest, ColourPpmMeansPerChannel) {
    // PPM samples are R, G, B.
    const std::string file = writePnm("colour.ppm", 3, 2, 3, 255, [](int x, int, int c) {
        return c == 0 ? 200 : c == 1 ? 100 + x : 10;
    });
    const ToolRun r = run("analyze '" + file + "' --json --row 1 --channel 2");
    ASSERT_EQ(r.status, 0) << r.err;
    const QJsonObject o = jsonOf(r);
    EXPECT_FALSE(o["means"].toObject().contains("Clear"));
    EXPECT_TRUE(o["histograms"].toObject().contains("Gray"));
    EXPECT_FALSE(o["histograms"].toObject().contains("Clear"));
    // Channel 2 is red in the frame's blue, green, red order.
    ExpectJson(r, R"({"means": {"Red": 200, "Green": 101, "Blue": 10},
        "histograms": {"Red": {"peak": 200}}, "row": {"minimum": 200}})");
}

TEST_F(AnalyzeCliTest, AnImageThatCannotBeReadIsNamedWithTheReason) {
    ToolRun r = run("analyze '" + path("missing.pgm") + "' --json");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("cannot read " + path("missing.pgm") + ": no such file"),
              std::string::npos)
        << r.err;
    EXPECT_FALSE(jsonOf(r)["ok"].toBool());
    EXPECT_TRUE(jsonOf(r)["error"].toString().startsWith("cannot read"));

    const std::string junk = writeBytes("junk.pgm", "P5\nthis is not a picture");
    r = run("analyze '" + junk + "'");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("cannot read " + junk + ": the file is damaged (not a PGM header)"),
              std::string::npos)
        << r.err;

    // A cut JPEG is refused, not analysed with a grey tail; libjpeg's own words stay off the
    // terminal: the one line is the tool's.
    cv::Mat scene(300, 400, CV_8UC3);
    cv::randu(scene, 0, 256);
    std::vector<uint8_t> encoded;
    ASSERT_TRUE(cv::imencode(".jpg", scene, encoded));
    const std::string jpeg(encoded.begin(), encoded.end());
    const std::string cut = writeBytes("cut.jpg", jpeg.substr(0, jpeg.size() / 2));
    r = run("analyze '" + cut + "' --json");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(jsonOf(r)["error"].toString().toStdString(),
              "cannot read " + cut +
                  ": the JPEG data are damaged or truncated (Premature end of JPEG file)");
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.err.find("Premature end of JPEG file\n"), std::string::npos) << r.err;
}

TEST_F(AnalyzeCliTest, ValidationTextsRefuseOrClamp) {
    const std::pair<const char*, const char*> refused[] = {
        {"--roi 0,0,8,5", "Setting out of range, please reset !"},
        {"--roi 3,0,2,5", "Please check if the Settings are correct !"},
        {"--bad 1,0,255,9,1", "Please reset the cluster count range!"}};
    for (auto [args, text] : refused) {
        const ToolRun r = analyze(std::string("--json ") + args);
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_TRUE(logOf(r).contains(text)) << args << r.err;
    }

    ToolRun r = analyze("--json --row 6 --roi 1,1,4,3");
    ASSERT_EQ(r.status, 0) << r.err;
    ExpectJson(r, R"({"row": {"index": 5}, "roi": {"row": {"index": 2}}})");
    EXPECT_TRUE(logOf(r).contains("Set value is out of range")) << r.err;
    EXPECT_TRUE(logOf(r).contains("Set value is out of ROI range")) << r.err;

    r = analyze("--json --bad 0,0,0,1,1 --csv '" + path("none.csv") + "'");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(logOf(r).contains("No Bad Pixel Data.")) << r.err;
    EXPECT_FALSE(std::filesystem::exists(path("none.csv")));
}

TEST_F(AnalyzeCliTest, MalformedArgumentsAreRefused) {
    for (const char* args : {"--roi 1,2,3", "--bad 1,2,3,4", "--csv x.csv", "--channel 4"}) {
        EXPECT_EQ(analyze(args).status, 2) << args;
    }
    EXPECT_EQ(run("analyze").status, 2);
    const ToolRun r = analyze("--bad 1,0,255,1,1 --frames 2");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("--frames N (1 to 100000) goes with --bad and --grab"), std::string::npos)
        << r.err;
}

TEST_F(AnalyzeCliTest, GrabbedFrameFromTheSimulatedBoard) {
    const ToolRun r = run("analyze --grab --json --row 10 --bad 2,1,254,2,2");
    ASSERT_EQ(r.status, 0) << r.err;
    ExpectJson(r, R"({"source": "grab", "row": {"index": 10}})");
    const QJsonObject o = jsonOf(r);
    const int pixels = o["width"].toInt() * o["height"].toInt();
    EXPECT_GT(pixels, 0);
    int total = 0;
    for (const QJsonValue& v : o["histograms"].toObject()) {
        total = std::max(total, v.toObject()["total"].toInt());
    }
    EXPECT_EQ(total, pixels);
    EXPECT_TRUE(o["badPixels"].toObject().contains("single"));
}

TEST_F(AnalyzeCliTest, SignalsCountsTheCheckedInputsButNeverInternalTrigger) {
    const ToolRun r = run("signals --seconds 0.7 --inputs 0,1,2 --json");
    ASSERT_EQ(r.status, 0) << r.err;
    // 8388610 is the event 0x800002.
    ExpectJson(r, R"({"ok": true, "method": "Statistical", "signals": [
        {"name": "Internal Trigger", "checked": true, "count": 0}, {"event": 8388610}, {},
        {"checked": false, "count": 0}, {"checked": false, "count": 0},
        {"checked": false, "count": 0}, {"checked": false, "count": 0},
        {"checked": false, "count": 0}]})");
    const QJsonArray rows = jsonOf(r)["signals"].toArray();
    EXPECT_GT(rows[1].toObject()["count"].toInt(), 0);
    EXPECT_GT(rows[2].toObject()["count"].toInt(), 0);
}

TEST_F(AnalyzeCliTest, SignalsRecordStatisticalReadsTheBoardCounters) {
    const ToolRun r = run("signals --seconds 0.7 --inputs 3 --record-statistical --falling --json");
    ASSERT_EQ(r.status, 0) << r.err;
    // 4194312 is the event 0x400008.
    ExpectJson(r,
               R"({"method": "Record Statistical", "signals": [{}, {}, {}, {"event": 4194312}, {},
        {}, {}, {}]})");
    EXPECT_GT(jsonOf(r)["signals"].toArray()[3].toObject()["count"].toInt(), 0);
}

TEST_F(AnalyzeCliTest, SignalsWithOnlyInternalTriggerIsRefused) {
    const ToolRun r = run("signals --seconds 0.3 --inputs 0 --json");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(logOf(r).contains("Select the signal you want to check !")) << r.err;
    EXPECT_EQ(run("signals --inputs 1").status, 2);
    EXPECT_EQ(run("signals --seconds 1 --inputs 8").status, 2);
}

}  // namespace
