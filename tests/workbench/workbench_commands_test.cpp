// The main frame's commands on the workbench: their texts, refusals, enable rules, configuration
// files, versions and the start-up check.
#include <fstream>

#include "workbench/version_info.h"
#include "workbench_support.h"

namespace lumetra::test {
namespace {

using WorkbenchCommands = SimWorkbench;

constexpr const char* kSmallBoards = "[board0]\nwidth=64\nheight=48\n[board1]\n";
constexpr const char* kNoBoards = "[board0]\nopen_fails=1\n[board1]\nopen_fails=1\n";

TEST_F(WorkbenchCommands, GrabCommandsRefuseWithTheSystemsTexts) {
    Open(kSmallBoards);
    ASSERT_TRUE(workbench->GrabContinuous());
    workbench->GrabOnce();
    EXPECT_FALSE(workbench->GrabContinuous());
    EXPECT_EQ(prompt.boxes,
              (std::vector<std::string>{"Grab(continuous) process is running.Please wait...",
                                        "Grab(continuouse) process is running.Please wait..."}));
    EXPECT_TRUE(workbench->engine().continuousRunning()) << "the grab runs on";
    workbench->GrabStop();

    // While a single shot is under way.
    prompt.boxes.clear();
    watched->duringSingleShot = [this] {
        watched->duringSingleShot = nullptr;
        workbench->GrabOnce();
        EXPECT_FALSE(workbench->GrabContinuous());
    };
    workbench->GrabOnce();
    EXPECT_EQ(prompt.boxes,
              std::vector<std::string>(2, "Grab(once) process is running.Please wait..."));
    EXPECT_EQ(Lines().back(), "Grab (1 Shot) completed\n");

    // Without a board the log says so; nothing is grabbed and the counters read 0.
    workbench.reset();
    log.clear();
    Open(kNoBoards);
    EXPECT_FALSE(workbench->GrabContinuous());
    workbench->GrabOnce();
    workbench->GrabStop();
    EXPECT_EQ(Lines(), (std::vector<std::string>{"Board has not been opened.\n",
                                                 "Board has not been selected.\n",
                                                 "Board has not been selected.\n"}));
    EXPECT_EQ(workbench->engine().context().frameCounter, 0u);
}

// The enable rules in the three grab states.
TEST_F(WorkbenchCommands, EnableRulesFollowTheGrabState) {
    Open(kSmallBoards);
    auto states = [this] {
        std::vector<int> enabled;
        for (int id :
             {cmd::kGrabOnce, cmd::kGrabContinuous, cmd::kGrabStop, cmd::kOpenImage,
              cmd::kOpenConfiguration, cmd::kSaveConfiguration, cmd::kSaveImageSequence,
              cmd::kStartSaveVideo, cmd::kStopSaveVideo, cmd::kExit, cmd::kCalibration,
              cmd::kVersion, cmd::kBoardConfiguration, cmd::kSoftwareTrigger, cmd::kSaveImage}) {
            enabled.push_back(workbench->CommandEnabled(id) ? 1 : 0);
        }
        return enabled;
    };
    //                                once cont stop oImg oCfg sCfg seq  sVid xVid exit cal  ver
    //                                bCfg trig sImg
    const std::vector<int> idle = {1, 1, 1, 1, 1, 1, 0, 1, 0, 1, 1, 1, 1, 0, 1};
    const std::vector<int> running = {0, 0, 1, 0, 0, 1, 1, 1, 0, 0, 0, 0, 0, 0, 1};
    const std::vector<int> recording = {0, 0, 1, 0, 0, 1, 1, 0, 1, 0, 0, 0, 0, 0, 1};
    const std::vector<int> oneShot = {0, 0, 1, 0, 0, 1, 0, 1, 0, 1, 0, 0, 0, 0, 1};
    EXPECT_EQ(states(), idle);
    ASSERT_TRUE(workbench->GrabContinuous());
    EXPECT_EQ(states(), running);
    Frames(3);
    ASSERT_TRUE(workbench->StartVideoTo((dir / "v.h264").string()));
    EXPECT_EQ(states(), recording);
    workbench->GrabStop();
    EXPECT_EQ(states(), idle);
    std::vector<int> during;
    watched->duringSingleShot = [&] { during = states(); };
    workbench->GrabOnce();
    EXPECT_EQ(during, oneShot);

    // The software trigger needs a source set to it and a grab; calibration is never offered
    // on a CoaXPress board.
    workbench->document().parameters().set(ORVIX_BOARD_TRIGGER_SOURCE, kSoftwareTriggerSource);
    EXPECT_FALSE(workbench->CommandEnabled(cmd::kSoftwareTrigger));
    ASSERT_TRUE(workbench->GrabContinuous());
    EXPECT_TRUE(workbench->CommandEnabled(cmd::kSoftwareTrigger));
    workbench->GrabStop();
    workbench.reset();
    Open("[board0]\nopen_fails=1\n[board1]\n");
    EXPECT_TRUE(workbench->engine().idle());
    EXPECT_FALSE(workbench->CommandEnabled(cmd::kCalibration)) << "board 1 is CoaXPress";
}

TEST_F(WorkbenchCommands, ConfigurationFilesSaveAndLoadWithTheirTexts) {
    EXPECT_EQ(DefaultConfigurationName(0, 1, 1024, 643), "cl0_tap1_w1024_h643");
    Open(kSmallBoards);
    const CKELM_PCIE_VexCardDoc& doc = workbench->document();
    const std::string proposed = DefaultConfigurationName(
        doc.parameters().clConfigIndex, static_cast<int>(doc.parameters().taps()), 64, 48);
    EXPECT_EQ(workbench->DefaultConfigurationName(), proposed);

    const std::string good = (dir / "good.vlcf").string();
    prompt.chosen = good;
    workbench->SaveConfiguration();
    ASSERT_EQ(prompt.dialogs.size(), 1u);
    EXPECT_EQ(prompt.dialogs[0].title, "Save Configuration File");
    EXPECT_EQ(prompt.dialogs[0].filter, "Config File (*.vlcf)|*.vlcf||");
    EXPECT_EQ(prompt.dialogs[0].defaultExtension, "vlcf");
    EXPECT_EQ(prompt.dialogs[0].defaultName, proposed);
    prompt.chosen = (dir / "missing/a.vlcf").string();
    workbench->SaveConfiguration();
    prompt.chosen.reset();
    workbench->SaveConfiguration();  // cancelled: nothing happens
    EXPECT_EQ(Lines(), (std::vector<std::string>{"Save configuration successful!",
                                                 "Save configuration file fail.Error "
                                                 "Code:00000006\n"}));

    log.clear();
    const std::string damaged = (dir / "damaged.vlcf").string();
    std::ofstream(damaged) << "OrvixBoardConfiguration 1\n0x10000001=64\ncrc32=0x0\n";
    prompt.chosen = good;
    workbench->OpenConfiguration();
    EXPECT_EQ(prompt.dialogs.back().title, "Open Configuration File");
    EXPECT_FALSE(workbench->LoadConfiguration(damaged));
    EXPECT_TRUE(workbench->OpenFile(good));
    EXPECT_FALSE(workbench->OpenFile(damaged));
    EXPECT_FALSE(workbench->OpenFile((dir / "notes.doc").string()));
    EXPECT_EQ(Lines(),
              (std::vector<std::string>{
                  "The configuration file was loaded successfully.\n",
                  "The selected configuration file is not the latest version or the "
                  "configuration parameter is invalid.Please select other configuration file.\n",
                  "The configuration file was loaded successfully.\n",
                  "The selected configuration file is not the latest version.Please select other "
                  "file.\n",
                  "This software does not support opening this type of file.\n"}));

    // Without a board (or without a library) the library's 38 has its own texts.
    for (bool withLibrary : {true, false}) {
        SCOPED_TRACE(withLibrary);
        workbench.reset();
        log.clear();
        Open(kNoBoards, withLibrary);
        EXPECT_FALSE(workbench->SaveConfigurationTo(good));
        EXPECT_FALSE(workbench->LoadConfiguration(good));
        EXPECT_EQ(Lines(), (std::vector<std::string>{
                               "No Board has been selected.Save configuration file fail.\n",
                               "No Board has been selected.Open configuration file fail.\n"}));
    }
}

TEST_F(WorkbenchCommands, OfferToSaveAsksOnlyWhenTheBoardWasChanged) {
    Open(kSmallBoards);
    EXPECT_EQ(workbench->OfferToSaveConfiguration(), PromptAnswer::kYes);
    EXPECT_TRUE(prompt.questions.empty()) << "nothing changed: no question";

    const std::string file = (dir / "offered.vlcf").string();
    const struct {
        PromptAnswer answer;
        std::optional<std::string> chosen;
        PromptAnswer result;
        bool saved;
    } cases[] = {{PromptAnswer::kNo, file, PromptAnswer::kNo, false},
                 {PromptAnswer::kCancel, file, PromptAnswer::kCancel, false},
                 {PromptAnswer::kYes, std::nullopt, PromptAnswer::kCancel, false},
                 {PromptAnswer::kYes, file, PromptAnswer::kYes, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.answer));
        workbench->setConfigurationModified(true);
        prompt.questions.clear();
        prompt.answer = c.answer;
        prompt.chosen = c.chosen;
        EXPECT_EQ(workbench->OfferToSaveConfiguration(), c.result);
        EXPECT_EQ(prompt.questions,
                  std::vector<std::string>{"Do you want to save the configuration file ?|Lumetra"});
        EXPECT_EQ(std::filesystem::exists(file), c.saved);
        EXPECT_EQ(workbench->configurationModified(), !c.saved);
    }
}

TEST_F(WorkbenchCommands, VersionTextAndTheStartUpCheck) {
    Open(kSmallBoards);
    const std::string library = "\nlibOrvixBoard.so.1.8.0 Version:1.8.0.0";
    EXPECT_EQ(workbench->VersionText(),
              "CameraLink Frame Grabber\nVersion: 5.19.2\nSerial Number: FG24030066" + library);
    workbench->ShowVersion();
    EXPECT_EQ(prompt.boxes.back(), workbench->VersionText());
    EXPECT_EQ(BoardVersionText(0x000A0100, 0x18030043, true),
              "CoaXPress Frame Grabber\nVersion: 10.1.0\nSerial Number: FG24030067");

    // The start prompt: shown while the setting says so; its box sets the setting; OK opens
    // the help folder. Firmware 5.19.2 and library 1.8.0 are current: no update line.
    prompt.keepShowing = false;
    prompt.startAnswer = PromptAnswer::kOk;
    workbench->StartUp(false);
    EXPECT_EQ(prompt.startPrompts, 1);
    EXPECT_EQ(settings.readInt("StatusInfo", "StartupInfo", 1), 0);
    EXPECT_EQ(opened, std::vector<std::string>{(dir / "help").string()});
    workbench->StartUp(false);
    EXPECT_EQ(prompt.startPrompts, 1) << "the setting is off now";
    EXPECT_TRUE(Lines().empty());

    workbench.reset();
    Open("[board0]\nversion=0x00051301\n[board1]\n");
    workbench->StartUp(true);
    EXPECT_EQ(Lines(), std::vector<std::string>{kUpdateText});
    workbench.reset();
    log.clear();
    Open(kNoBoards);
    EXPECT_EQ(workbench->VersionText(), "\nNo Board Connected!" + library);
}

TEST(VersionCheck, OutdatedFirmwareAndLibraries) {
    const struct {
        uint32_t firmware;
        bool outdated;
    } firmware[] = {{0x051301, true},  {0x051302, false}, {0x051299, true},  {0x050000, true},
                    {0x060000, false}, {0x0A0100, false}, {0x051400, false}, {0x041300, false}};
    for (const auto& f : firmware) {
        EXPECT_EQ(FirmwareOutdated(f.firmware), f.outdated) << std::hex << f.firmware;
    }
    const struct {
        std::array<int, 4> version;
        bool outdated;
    } libraries[] = {{{1, 7, 28, 0}, true}, {{1, 7, 29, 0}, false}, {{1, 6, 99, 9}, true},
                     {{1, 8, 0, 0}, false}, {{2, 0, 0, 0}, false},  {{0, 1, 0, 0}, false}};
    for (const auto& l : libraries) {
        EXPECT_EQ(LibraryOutdated(l.version), l.outdated) << l.version[1] << "." << l.version[2];
    }
}

}  // namespace
}  // namespace lumetra::test
