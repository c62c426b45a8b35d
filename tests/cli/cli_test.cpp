// lumetra-cli end to end: the real tool on the real simulated board.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/tool_json.h"

namespace {

using lumetra::test::jsonOf;
using lumetra::test::logOf;
using lumetra::test::ToolRun;

class CliTest : public ::testing::Test {
  protected:
    std::filesystem::path dir;

    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              ("lumetra-cli-" + std::to_string(getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }

    std::string write(const std::string& name, const std::string& text) {
        const auto path = dir / name;
        std::ofstream(path) << text;
        return path.string();
    }

    ToolRun run(const std::string& args, const std::string& simConfig = {}) {
        return lumetra::test::RunTool(LUMETRA_CLI, dir, args, simConfig);
    }
    // Grabs from the simulated board on its virtual clock: frames come back to back, none late,
    // so counts, losses and the faults' timing do not depend on the machine's speed.
    ToolRun grab(const std::string& args, const std::string& board0Keys = {}) {
        const std::string ini =
            write("sim.ini", "[board0]\nclock=virtual\n" + board0Keys + "\n[board1]\n");
        return run("grab " + args + " --json", ini);
    }
};

TEST_F(CliTest, BoardsListsTheTwoDefaultBoards) {
    const ToolRun r = run("boards --json");
    ASSERT_EQ(r.status, 0) << r.err;
    const auto expected = QJsonDocument::fromJson(R"({"boards": [
        {"index": 0, "name": "PCIe-CL Full Simulator", "coaxpress": false, "model": 5,
         "version": "5.19.2", "opens": true},
        {"index": 1, "name": "PCIe-CXP4 Simulator", "coaxpress": true, "model": 10,
         "version": "10.1.0", "opens": true}]})");
    EXPECT_EQ(jsonOf(r), expected.object()) << r.out;
}

TEST_F(CliTest, InfoUsesTheSecondBoardWhenTheFirstDoesNotOpen) {
    const std::string ini = write("sim.ini", "[board0]\nopen_fails=1\n[board1]\n");
    const ToolRun r = run("info --json", ini);
    ASSERT_EQ(r.status, 0) << r.err;
    const QJsonObject o = jsonOf(r);
    EXPECT_EQ(o["board"].toInt(), 1);
    EXPECT_TRUE(o["coaxpress"].toBool());
    EXPECT_EQ(o["model"].toInt(), 10);
    EXPECT_EQ(o["width"].toInt(), 2560);
    EXPECT_EQ(o["height"].toInt(), 2048);
    EXPECT_EQ(o["bitsPerPixel"].toInt(), 12);
    EXPECT_EQ(o["channels"].toInt(), 1);

    const ToolRun boards = run("boards --json", ini);
    EXPECT_FALSE(jsonOf(boards)["boards"].toArray()[0].toObject()["opens"].toBool());
}

TEST_F(CliTest, InfoOfTheDefaultBoardAsText) {
    const ToolRun r = run("info");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("width         1920\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("taps          8\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("bayerPattern  2\n"), std::string::npos) << r.out;
}

TEST_F(CliTest, SetCorrectsGeometryAndReportsIt) {
    const ToolRun r = run("--board 1 set width=1000 height=1001 --jpeg 1 --json");
    ASSERT_EQ(r.status, 0) << r.err;
    const QJsonObject o = jsonOf(r);
    EXPECT_EQ(o["width"].toInt(), 1040);
    EXPECT_EQ(o["height"].toInt(), 1000);
    const QStringList log = logOf(r);
    ASSERT_GE(log.size(), 2);
    EXPECT_EQ(log[0], "Image width must be divided by 80.Reset the image width as 1040\n");
    EXPECT_EQ(log[1],
              "Image height must be divided by 8 and less than 65535.Reset the image height as "
              "1000\n");
    // The log lines reach standard error with the message window's 26-character prefix.
    const auto at = r.err.find("Image width must be divided by 80");
    ASSERT_NE(at, std::string::npos) << r.err;
    ASSERT_GE(at, 26u);
    EXPECT_EQ(r.err.substr(at - 7, 7), "       ");
    EXPECT_EQ(r.err[at - 26 + 4], '-');
}

TEST_F(CliTest, SetReportsARefusedParameterAndGoesOn) {
    const std::string ini = write("sim.ini", "[board0]\nfail_set=0x10000049,0x10000002\n");
    const ToolRun r = run("set 0x10000002=1000 triggerMode=1 --json", ini);
    ASSERT_EQ(r.status, 0) << r.err;
    const QStringList lines = logOf(r);
    const auto height = lines.indexOf("Set image height failed");
    EXPECT_GE(height, 0) << r.err;
    EXPECT_GT(lines.indexOf("Set FPGA ecternal trigger timeout failed"), height) << r.err;
    // The board kept its height; the read-back shows it.
    EXPECT_EQ(jsonOf(r)["height"].toInt(), 1200);
}

TEST_F(CliTest, BadInputIsRefusedWithAMessage) {
    ToolRun r = run("set nonsense=1");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("unknown parameter 'nonsense'"), std::string::npos) << r.err;
    r = run("set width=abc");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("'abc' is not a number"), std::string::npos) << r.err;
    EXPECT_EQ(run("frobnicate").status, 2);
}

// An id the parameter record does not hold is refused by its id before the board is touched,
// whatever else the command line sets.
TEST_F(CliTest, SetRefusesAnUnknownParameterIdAndSetsNothing) {
    for (const char* args : {"set 0x10999999=5", "set width=1000 0x10999999=5 --json",
                             "set 0x10999999=5 0x10000002=1000"}) {
        const ToolRun r = run(args);
        EXPECT_EQ(r.status, 2) << args;
        EXPECT_EQ(r.err, "lumetra-cli set: unknown parameter id 0x10999999\n") << args;
        EXPECT_TRUE(r.out.empty()) << args << r.out;
    }
    // Known ids still go through, the board's compression switch among them.
    const ToolRun r = run("--board 1 set 0x3000002F=1 0x10000002=1000 --json");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(jsonOf(r)["height"].toInt(), 1000);
}

TEST_F(CliTest, UnloadableLibraryIsNamedAndNoBoardIsReported) {
    ToolRun r = run("--board-library /nonexistent/libNone.so info --json");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("Cannot load board library /nonexistent/libNone.so"), std::string::npos)
        << r.err;
    r = run(std::string("--board-library ") + PARTIAL_LIBRARY + " boards");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("lacks the symbol OrvixGetBoardName"), std::string::npos) << r.err;
}

TEST_F(CliTest, MalformedSimulatorConfigurationOffersNoBoard) {
    const std::string ini = write("bad.ini", "[board0]\nwidth=12x\n");
    const ToolRun r = run("boards --json", ini);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(jsonOf(r)["boards"].toArray().size(), 0);
    EXPECT_NE(r.err.find("bad.ini:2"), std::string::npos) << r.err;
    EXPECT_EQ(run("info", ini).status, 1);
}

TEST_F(CliTest, ConfigSavesAndLoadsWithTheSystemsTexts) {
    const std::string file = (dir / "board.vlcf").string();
    const std::string damaged = write("damaged.vlcf", "OrvixBoardConfiguration 1\ncrc32=0x0\n");
    const std::string none = write("none.ini", "[board0]\nopen_fails=1\n[board1]\nopen_fails=1\n");
    const struct {
        std::string args;
        std::string ini;
        int status;
        QString line;
    } cases[] = {
        {"config save '" + file + "'", {}, 0, "Save configuration successful!"},
        {"config load '" + file + "'", {}, 0, "The configuration file was loaded successfully.\n"},
        {"config load '" + damaged + "'",
         {},
         1,
         "The selected configuration file is not the latest version or the configuration "
         "parameter is invalid.Please select other configuration file.\n"},
        {"config save '" + (dir / "missing/a.vlcf").string() + "'",
         {},
         1,
         "Save configuration file fail.Error Code:00000006\n"},
        {"config save '" + file + "'", none, 1,
         "No Board has been selected.Save configuration file fail.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        const ToolRun r = run(c.args + " --json", c.ini);
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_TRUE(logOf(r).contains(c.line)) << r.err;
    }
    EXPECT_EQ(run("config frobnicate x").status, 2);
}

using CliGrabTest = CliTest;

TEST_F(CliGrabTest, SingleShotCompletesAndWritesTheSnapshot) {
    const std::string snapshot = (dir / "frame.raw").string();
    const ToolRun r = grab("--once --snapshot " + snapshot);
    ASSERT_EQ(r.status, 0) << r.err;
    const QJsonObject o = jsonOf(r);
    EXPECT_EQ(o["framesGrabbed"].toInt(), 1);
    EXPECT_EQ(o["framesDisplayed"].toInt(), 1);
    const QStringList log = logOf(r);
    ASSERT_GE(log.size(), 2);
    EXPECT_EQ(log[0], "Start Grab");
    EXPECT_EQ(log[1], "Grab (1 Shot) completed\n");
    // 1920 x 1200 8-bit samples as held, nothing else.
    EXPECT_EQ(std::filesystem::file_size(snapshot), size_t{1920} * 1200);
}

TEST_F(CliGrabTest, ContinuousGrabCountsFramesWithoutLoss) {
    const ToolRun r = grab("--frames 30");
    ASSERT_EQ(r.status, 0) << r.err;
    const QJsonObject o = jsonOf(r);
    EXPECT_GE(o["framesGrabbed"].toInt(), 30);
    EXPECT_EQ(o["framesLost"].toInt(), 0);
    EXPECT_GE(o["framesDisplayed"].toInt(), 1);
    const QStringList log = logOf(r);
    ASSERT_FALSE(log.isEmpty());
    EXPECT_EQ(log.first(), "Start Grab");
    EXPECT_EQ(log.last(), "Grab Stop\n");
}

TEST_F(CliGrabTest, SimulatedFaultsGiveTheirTexts) {
    const struct {
        const char* keys;
        const char* args;
        const char* text;
    } cases[] = {
        {"single_shot_error=42", "--once", "Grab Abort!"},
        {"single_shot_error=40", "--once", "Grab(once) process is running.Please wait..."},
        {"signal_loss_after_ms=300", "--seconds 30", "Board signal abnormal.Grab Stop\n"},
        {"timeout_every=5", "--seconds 30", "Grab(continuouse) time out!\n"},
        {"stop_failures=5", "--frames 3",
         "Grab Stop fail.Please click the 'Grab Stop' Button again\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.keys);
        const ToolRun r = grab(c.args, c.keys);
        EXPECT_EQ(r.status, 1) << r.err;
        EXPECT_TRUE(logOf(r).contains(c.text)) << r.err;
    }
}

// Without a board the grab commands say what the main frame says.
TEST_F(CliGrabTest, GrabWithoutABoardSaysSoInTheSystemsWords) {
    const std::string ini = write("none.ini", "[board0]\nopen_fails=1\n");
    const std::pair<std::string, QString> cases[] = {
        {"grab --once --json", "Board has not been selected.\n"},
        {"grab --seconds 1 --json", "Board has not been opened.\n"},
        {"grab --save " + (dir / "seq/f.tif").string() + " --count 3 --json",
         "Board has not been opened.\n"},
    };
    for (const auto& [args, text] : cases) {
        const ToolRun r = run(args, ini);
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_EQ(logOf(r), QStringList{text}) << args << r.err;
        EXPECT_FALSE(jsonOf(r)["ok"].toBool()) << args;
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "seq"));
    EXPECT_EQ(run("grab", ini).status, 2) << "no --once, --frames or --seconds";
}

}  // namespace
