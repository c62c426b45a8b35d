// lumetra-cli analyze and signals end to end: the real tool on files written here and on the
// simulated board.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>
#include "support/tool_run.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

namespace {

using lumetra::test::ToolRun;

QJsonObject jsonOf(const ToolRun& r) {
    return QJsonDocument::fromJson(QByteArray::fromStdString(r.out)).object();
}

QStringList logOf(const ToolRun& r) {
    QStringList lines;
    for (const QJsonValue& v : jsonOf(r)["log"].toArray()) {
        lines << v.toString();
    }
    return lines;
}

class AnalyzeCliTest : public ::testing::Test {
  protected:
    std::filesystem::path dir;

    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              ("lumetra-analyze-" + std::to_string(getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(dir);
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
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    ToolRun run(const std::string& args) { return lumetra::test::RunTool(LUMETRA_CLI, dir, args); }

    // 8 x 6, value 10 x + y, with three bright pixels at the bottom right.
    static int Gray(int x, int y, int) {
        if ((x == 7 && y == 4)) {
            return 222;
        }
        if (y == 5 && x >= 6) {
            return 250 + (7 - x);
        }
        return 10 * x + y;
    }
};

TEST_F(AnalyzeCliTest, GrayPgmEveryFigureAsJson) {
    const std::string file = writePnm("gray.pgm", 8, 6, 1, 255, Gray);
    const ToolRun r =
        run("analyze '" + file + "' --json --row 2 --col 3 --roi 1,1,4,3 --profile-row 1");
    ASSERT_EQ(r.status, 0) << r.err << r.out;
    const QJsonObject o = jsonOf(r);
    EXPECT_TRUE(o["ok"].toBool());
    EXPECT_EQ(o["width"].toInt(), 8);
    EXPECT_EQ(o["height"].toInt(), 6);
    EXPECT_EQ(o["channels"].toInt(), 1);
    EXPECT_EQ(o["bitsPerPixel"].toInt(), 8);
    EXPECT_EQ(o["bins"].toInt(), 256);

    int sum = 0;
    for (int y = 0; y < 6; ++y) {
        for (int x = 0; x < 8; ++x) {
            sum += Gray(x, y, 0);
        }
    }
    const QJsonObject gray = o["histograms"].toObject()["Gray"].toObject();
    EXPECT_EQ(gray["total"].toInt(), 48);
    EXPECT_EQ(gray["lowest"].toInt(), 0);
    EXPECT_EQ(gray["highest"].toInt(), 251);
    EXPECT_FALSE(o["histograms"].toObject().contains("Red"));
    EXPECT_EQ(o["means"].toObject()["Gray"].toInt(), sum / 48);

    const QJsonObject row = o["row"].toObject();
    EXPECT_EQ(row["index"].toInt(), 2);
    EXPECT_EQ(row["minimum"].toInt(), 2);
    EXPECT_EQ(row["maximum"].toInt(), 72);
    EXPECT_EQ(row["range"].toInt(), 70);
    EXPECT_EQ(row["count"].toInt(), 8);
    EXPECT_EQ(row["shown"].toObject()["Average Value:"].toString(), "37");
    const QJsonObject column = o["column"].toObject();
    EXPECT_EQ(column["minimum"].toInt(), 30);
    EXPECT_EQ(column["maximum"].toInt(), 35);

    const QJsonObject roi = o["roi"].toObject();
    EXPECT_EQ(roi["rect"].toArray(), (QJsonArray{1, 1, 4, 3}));
    const QJsonObject roiRow = roi["row"].toObject();
    EXPECT_EQ(roiRow["index"].toInt(), 2);
    EXPECT_EQ(roiRow["minimum"].toInt(), 12);
    EXPECT_EQ(roiRow["maximum"].toInt(), 42);
    EXPECT_EQ(roiRow["verdict"].toString(), "fail");
    EXPECT_EQ(roiRow["shown"].toObject()["Max / Min:"].toString(), "3.500");
    const QJsonObject roiColumn = roi["column"].toObject();
    EXPECT_EQ(roiColumn["minimum"].toInt(), 31);
    EXPECT_EQ(roiColumn["maximum"].toInt(), 33);
    EXPECT_EQ(roiColumn["verdict"].toString(), "pass");
    const QJsonObject sets = roi["sets"].toObject();
    EXPECT_EQ(sets["Frame"].toObject()["Gray"].toObject()["total"].toInt(), 12);
    EXPECT_EQ(sets["X Odd"].toObject()["Gray"].toObject()["total"].toInt(), 6);
    EXPECT_EQ(sets["X Odd"].toObject()["Gray"].toObject()["lowest"].toInt(), 11);
    EXPECT_EQ(sets["X Even"].toObject()["Gray"].toObject()["lowest"].toInt(), 21);

    const QJsonArray samples = o["profile"].toObject()["samples"].toArray();
    ASSERT_EQ(samples.size(), 8);
    EXPECT_EQ(samples[0].toArray(), (QJsonArray{0, 1}));
    EXPECT_EQ(samples[7].toArray(), (QJsonArray{7, 71}));
}

TEST_F(AnalyzeCliTest, BadPixelListsAndTheirCsvFiles) {
    const std::string file = writePnm("gray.pgm", 8, 6, 1, 255, Gray);
    ToolRun r = run("analyze '" + file + "' --json --bad 1,200,255,2,2 --csv '" +
                    path("single.csv") + "' --csv-vertical '" + path("vertical.csv") + "'");
    ASSERT_EQ(r.status, 0) << r.err;
    const QJsonObject bad = jsonOf(r)["badPixels"].toObject();
    EXPECT_EQ(bad["single"].toInt(), 3);
    EXPECT_EQ(bad["horizontal"].toInt(), 1);
    EXPECT_EQ(bad["vertical"].toInt(), 1);
    EXPECT_FALSE(bad["capped"].toBool());
    EXPECT_EQ(bad["singleList"].toArray(),
              (QJsonArray{QJsonArray{7, 4}, QJsonArray{6, 5}, QJsonArray{7, 5}}));
    EXPECT_EQ(bad["horizontalList"].toArray(), (QJsonArray{QJsonArray{5, 6, 2}}));
    EXPECT_EQ(bad["verticalList"].toArray(), (QJsonArray{QJsonArray{7, 4, 2}}));
    EXPECT_EQ(read("single.csv"), "Col,Row\r\n7,4\r\n6,5\r\n7,5\r\n");
    EXPECT_EQ(read("vertical.csv"), "Col,Row(Start),Row(End),Size\r\n7,4,5,2\r\n");

    // With a ROI the search covers the ROI only: columns 4 to 7 of rows 4 and 5 here.
    r = run("analyze '" + file + "' --json --roi 4,4,7,5 --bad 1,200,255,1,1");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(jsonOf(r)["badPixels"].toObject()["single"].toInt(), 3);
    r = run("analyze '" + file + "' --json --roi 0,0,6,4 --bad 1,200,255,1,1");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(jsonOf(r)["badPixels"].toObject()["single"].toInt(), 0);
}

TEST_F(AnalyzeCliTest, TextOutputNamesTheFigures) {
    const std::string file = writePnm("gray.pgm", 8, 6, 1, 255, Gray);
    const ToolRun r = run("analyze '" + file + "' --row 2 --roi 1,1,4,3");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("size          8 x 6, 1 channel, 8 bits per pixel\n"), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("Gray          total 48, bins 0..251"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("min 2 max 72 range 70 average 37 deviation"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("ratio 3.500 fail"), std::string::npos) << r.out;
}

TEST_F(AnalyzeCliTest, SixteenBitPgmKeepsItsSamples) {
    const std::string file = writePnm(
        "deep.pgm", 5, 4, 1, 4095, [](int x, int y, int) { return x == 4 && y == 3 ? 4000 : 123; });
    ToolRun r = run("analyze '" + file + "' --bits 12 --json");
    ASSERT_EQ(r.status, 0) << r.err;
    QJsonObject o = jsonOf(r);
    EXPECT_EQ(o["bitsPerPixel"].toInt(), 12);
    EXPECT_EQ(o["shift"].toInt(), 4);
    EXPECT_EQ(o["bins"].toInt(), 65536);
    const QJsonObject gray = o["histograms"].toObject()["Gray"].toObject();
    EXPECT_EQ(gray["highest"].toInt(), 4000);
    EXPECT_EQ(gray["peak"].toInt(), 123);
    EXPECT_EQ(gray["peakCount"].toInt(), 19);

    r = run("analyze '" + file + "' --json");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(jsonOf(r)["bitsPerPixel"].toInt(), 16);
    EXPECT_EQ(jsonOf(r)["shift"].toInt(), 8);
}

TEST_F(AnalyzeCliTest, ColourPpmMeansPerChannel) {
    // PPM samples are R, G, B.
    const std::string file = writePnm("colour.ppm", 3, 2, 3, 255, [](int x, int, int c) {
        return c == 0 ? 200 : c == 1 ? 100 + x : 10;
    });
    const ToolRun r = run("analyze '" + file + "' --json --row 1 --channel 2");
    ASSERT_EQ(r.status, 0) << r.err;
    const QJsonObject o = jsonOf(r);
    const QJsonObject means = o["means"].toObject();
    EXPECT_EQ(means["Red"].toInt(), 200);
    EXPECT_EQ(means["Green"].toInt(), 101);
    EXPECT_EQ(means["Blue"].toInt(), 10);
    EXPECT_FALSE(means.contains("Clear"));
    const QJsonObject histograms = o["histograms"].toObject();
    EXPECT_TRUE(histograms.contains("Gray"));
    EXPECT_FALSE(histograms.contains("Clear"));
    EXPECT_EQ(histograms["Red"].toObject()["peak"].toInt(), 200);
    // Channel 2 is red in the frame's blue, green, red order.
    EXPECT_EQ(o["row"].toObject()["minimum"].toInt(), 200);
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
    EXPECT_NE(r.err.find("cannot read " + junk + ": not an image format"), std::string::npos)
        << r.err;
}

TEST_F(AnalyzeCliTest, ValidationTextsRefuseOrClamp) {
    const std::string file = writePnm("gray.pgm", 8, 6, 1, 255, Gray);
    ToolRun r = run("analyze '" + file + "' --json --roi 0,0,8,5");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(logOf(r).contains("Setting out of range, please reset !")) << r.err;
    r = run("analyze '" + file + "' --json --roi 3,0,2,5");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(logOf(r).contains("Please check if the Settings are correct !")) << r.err;
    r = run("analyze '" + file + "' --json --bad 1,0,255,9,1");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(logOf(r).contains("Please reset the cluster count range!")) << r.err;

    r = run("analyze '" + file + "' --json --row 6 --roi 1,1,4,3");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(jsonOf(r)["row"].toObject()["index"].toInt(), 5);
    EXPECT_TRUE(logOf(r).contains("Set value is out of range")) << r.err;
    EXPECT_TRUE(logOf(r).contains("Set value is out of ROI range")) << r.err;
    EXPECT_EQ(jsonOf(r)["roi"].toObject()["row"].toObject()["index"].toInt(), 2);

    r = run("analyze '" + file + "' --json --bad 0,0,0,1,1 --csv '" + path("none.csv") + "'");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(logOf(r).contains("No Bad Pixel Data.")) << r.err;
    EXPECT_FALSE(std::filesystem::exists(path("none.csv")));
}

TEST_F(AnalyzeCliTest, MalformedArgumentsAreRefused) {
    const std::string file = writePnm("gray.pgm", 8, 6, 1, 255, Gray);
    EXPECT_EQ(run("analyze '" + file + "' --roi 1,2,3").status, 2);
    EXPECT_EQ(run("analyze '" + file + "' --bad 1,2,3,4").status, 2);
    EXPECT_EQ(run("analyze '" + file + "' --csv x.csv").status, 2);
    EXPECT_EQ(run("analyze '" + file + "' --channel 4").status, 2);
    EXPECT_EQ(run("analyze").status, 2);
    const ToolRun r = run("analyze '" + file + "' --bad 1,0,255,1,1 --frames 2");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("--frames N (1 to 100000) goes with --bad and --grab"), std::string::npos)
        << r.err;
}

TEST_F(AnalyzeCliTest, GrabbedFrameFromTheSimulatedBoard) {
    const ToolRun r = run("analyze --grab --json --row 10 --bad 2,1,254,2,2");
    ASSERT_EQ(r.status, 0) << r.err;
    const QJsonObject o = jsonOf(r);
    EXPECT_EQ(o["source"].toString(), "grab");
    const int pixels = o["width"].toInt() * o["height"].toInt();
    EXPECT_GT(pixels, 0);
    int total = 0;
    for (const QJsonValue& v : o["histograms"].toObject()) {
        total = std::max(total, v.toObject()["total"].toInt());
    }
    EXPECT_EQ(total, pixels);
    EXPECT_EQ(o["row"].toObject()["index"].toInt(), 10);
    EXPECT_TRUE(o["badPixels"].toObject().contains("single"));
}

TEST_F(AnalyzeCliTest, SignalsCountsTheCheckedInputsButNeverInternalTrigger) {
    const ToolRun r = run("signals --seconds 0.7 --inputs 0,1,2 --json");
    ASSERT_EQ(r.status, 0) << r.err;
    const QJsonObject o = jsonOf(r);
    EXPECT_TRUE(o["ok"].toBool());
    EXPECT_EQ(o["method"].toString(), "Statistical");
    const QJsonArray rows = o["signals"].toArray();
    ASSERT_EQ(rows.size(), 8);
    EXPECT_EQ(rows[0].toObject()["name"].toString(), "Internal Trigger");
    EXPECT_TRUE(rows[0].toObject()["checked"].toBool());
    EXPECT_EQ(rows[0].toObject()["count"].toInt(), 0);
    EXPECT_GT(rows[1].toObject()["count"].toInt(), 0);
    EXPECT_GT(rows[2].toObject()["count"].toInt(), 0);
    EXPECT_EQ(rows[1].toObject()["event"].toInt(), 0x800002);
    for (int row = 3; row < 8; ++row) {
        EXPECT_FALSE(rows[row].toObject()["checked"].toBool());
        EXPECT_EQ(rows[row].toObject()["count"].toInt(), 0) << row;
    }
}

TEST_F(AnalyzeCliTest, SignalsRecordStatisticalReadsTheBoardCounters) {
    const ToolRun r = run("signals --seconds 0.7 --inputs 3 --record-statistical --falling --json");
    ASSERT_EQ(r.status, 0) << r.err;
    const QJsonObject o = jsonOf(r);
    EXPECT_EQ(o["method"].toString(), "Record Statistical");
    const QJsonObject encoder = o["signals"].toArray()[3].toObject();
    EXPECT_EQ(encoder["event"].toInt(), 0x400008);
    EXPECT_GT(encoder["count"].toInt(), 0);
}

TEST_F(AnalyzeCliTest, SignalsWithOnlyInternalTriggerIsRefused) {
    const ToolRun r = run("signals --seconds 0.3 --inputs 0 --json");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(logOf(r).contains("Select the signal you want to check !")) << r.err;
    EXPECT_EQ(run("signals --inputs 1").status, 2);
    EXPECT_EQ(run("signals --seconds 1 --inputs 8").status, 2);
}

}  // namespace
