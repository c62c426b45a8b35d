// The workbench: what the main frame does, without windows. It owns the board document and the
// recording paths the grab engine feeds (the sequence saver and the video recorder), the image
// save worker and the controllers of the grab and video commands; it runs the main frame's
// commands with their texts, answers their enable rules, and handles every message the engine
// and the workers post. Both front ends are thin adapters over it: the GUI adds the windows, the
// command-line tool its options and output.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "acquisition/board_document.h"
#include "recording/image_files.h"
#include "recording/image_save_worker.h"
#include "recording/sequence_saver.h"
#include "recording/system_status.h"
#include "recording/video_controller.h"
#include "recording/video_recorder.h"
#include "workbench/app_settings.h"
#include "workbench/commands.h"
#include "workbench/grab_controller.h"

namespace lumetra {

// What the workbench works with; all borrowed, all outliving it. library may be null: the
// workbench then runs without a board.
struct WorkbenchServices {
    BoardLibrary* library = nullptr;
    Settings* settings = nullptr;
    MessageLog* log = nullptr;
    MessageSink* sink = nullptr;
    Prompt* prompt = nullptr;
    Clock* clock = nullptr;               // null: the steady clock
    SystemStatus* system = nullptr;       // null: the host's
    BlockAllocator* allocator = nullptr;  // null: the process heap
    std::string resourceConfigPath;       // BoardConfig.ini; empty: the installation's
    int boardIndex = -1;  // >= 0: open only this board instead of the first that opens
    // "Document" and "Show Log" open these folders through openFolder (the desktop's file
    // manager); without one they do nothing.
    std::string helpFolder;
    std::string logFolder;
    std::function<void(const std::string& folder)> openFolder;
    // The settings the application holds while it runs (written back at exit); null: the start
    // prompt's flag is read from and written to `settings` at once.
    AppSettings* appSettings = nullptr;
};

// The main frame's timers: ids and periods.
namespace timer {
inline constexpr int kDataGrid = 0x40002;       // 35 ms
inline constexpr int kCameraStatus = 0x4000A;   // 200 ms
inline constexpr int kPcieLink = 0x4000B;       // 1200 ms, once
inline constexpr int kFramesGrabbed = 0x4000C;  // 80 ms
inline constexpr int kFrameLostPane = 0x4000D;  // 500 ms
}  // namespace timer

// The dialog forms of the configuration, image and video commands.
FileRequest ConfigurationFileRequest(bool save, const std::string& defaultName = {});
FileRequest VideoFileRequest(const std::string& defaultName);
FileRequest ImageFileRequest(bool save, int imageTypeIndex, const std::string& folder);

// The configuration file name the save dialog proposes: "cl%d_tap%d_w%d_h%d".
std::string DefaultConfigurationName(int clConfiguration, int taps, int width, int height);

// The value of a trigger-source parameter that selects the software trigger.
inline constexpr uint32_t kSoftwareTriggerSource = 1;

// Thread: the user-interface thread.
class Workbench {
  public:
    explicit Workbench(const WorkbenchServices& services);
    // Ends whatever runs, in the main frame's destroy order (Shutdown).
    ~Workbench();
    Workbench(const Workbench&) = delete;
    Workbench& operator=(const Workbench&) = delete;

    CKELM_PCIE_VexCardDoc& document() { return *document_; }
    const CKELM_PCIE_VexCardDoc& document() const { return *document_; }
    GrabEngine& engine() { return document_->grabEngine(); }
    const GrabEngine& engine() const { return document_->grabEngine(); }
    SequenceSaver& sequenceSaver() { return *saver_; }
    VideoRecorder& videoRecorder() { return *recorder_; }
    ImageSaveWorker& imageSaver() { return *imageSaver_; }
    GrabController& grab() { return *grab_; }
    VideoController& video() { return *video_; }
    const WorkbenchServices& services() const { return services_; }

    // ---- Commands (the main frame's command table). ----
    void GrabOnce();           // 32797
    bool GrabContinuous();     // 32798; true when the grab runs
    void GrabStop();           // 32799
    void SoftwareTrigger();    // 32973
    void Calibration();        // 32800
    void OpenConfiguration();  // 32772: asks for the file, then LoadConfiguration
    void SaveConfiguration();  // 32773: asks for the file, then SaveConfigurationTo
    bool LoadConfiguration(const std::string& path);
    bool SaveConfigurationTo(const std::string& path);
    // Before the application closes or the board changes: yes (6) when nothing needs saving or
    // it was saved, no (7), or cancel (2) to stay.
    PromptAnswer OfferToSaveConfiguration();
    std::string DefaultConfigurationName() const;
    // Set by the configuration pages when they change the board.
    void setConfigurationModified(bool modified) { configurationModified_ = modified; }
    bool configurationModified() const { return configurationModified_; }

    // TIFF compression and resolution from the settings, the rest at their defaults.
    ImageSaveOptions imageSaveOptions() const;
    void SaveImage();  // 32771: asks for the file, then SaveImageTo
    // Starts the save on the image save worker; false when it is busy or there is no frame.
    bool SaveImageTo(const std::string& path) { return SaveImageTo(path, imageSaveOptions()); }
    bool SaveImageTo(const std::string& path, const ImageSaveOptions& options);
    void OpenImage();  // 32933: asks for the file, then OpenFile
    // "Opening a file by name": an image file, or a board configuration (a name with "vlcf").
    // A raw image needs its layout: OpenRawImage.
    bool OpenFile(const std::string& path);
    bool OpenRawImage(const std::string& path, const RawLayout& layout);

    // The sequence-save page: "DIR/NAME.EXT" and a count; the frames come from the running grab.
    // False with the reason in error.
    bool StartSequence(const std::string& path, int count, const ImageSaveOptions& options,
                       std::string& error);

    void StartVideo();  // 32999: asks for the file, then StartVideoTo
    bool StartVideoTo(const std::string& path);
    void StopVideo();  // 33000
    // Starts the recording as soon as the board reports a frame rate (or after `patience`, when
    // the start then says why it cannot): what a script asks for right after the grab starts.
    void StartVideoWhenRated(const std::string& path,
                             std::chrono::milliseconds patience = std::chrono::seconds(2));
    bool videoPending() const { return pendingVideo_.has_value(); }

    std::string VersionText() const;  // 32874
    void ShowVersion();
    void ShowDocument();  // 57670
    void ShowLog();       // 32988

    // ---- Rules. ----
    // Whether a command is enabled now. Commands whose state is a window's (checked while
    // visible) are enabled here.
    bool CommandEnabled(int id) const;
    // Closing is refused while a continuous grab runs ("Exit" is disabled then).
    bool CanClose() const { return !engine().continuousRunning(); }

    // ---- Messages and timers. ----
    // The main frame's reaction to a posted message; messages that only concern windows
    // (repaints, panes, dialogs) are left to the front end.
    void Handle(uint32_t message, intptr_t wParam, intptr_t lParam);
    // Message 0x483, once after start-up: the start prompt (unless suppressed) and the firmware
    // and library version check.
    void StartUp(bool suppressPrompt);
    // The timers the workbench acts on: 0x4000A polls the camera status while no continuous grab
    // runs, 0x4000B reads the PCIe link once. False when the timer must be killed (0x4000B).
    bool OnTimer(int id);
    // The status word the last poll read (0x11FF before the first).
    int32_t polledStatus() const { return polledStatus_; }
    // Whether the last poll could read the status at all.
    bool polledStatusReadable() const { return polledStatusReadable_; }
    // The PCIe link word 0x20000002 read when 0x476 arrives (posted by timer 0x4000B); empty
    // before or without a board. An insufficient link is logged then, once.
    std::optional<uint32_t> pcieLink() const { return pcieLink_; }

    // The main frame's destroy order: the board stopped, the grab marked stopped, the engine's
    // workers and the recording paths ended, the buffers freed. Idempotent.
    void Shutdown();

  private:
    void StartPendingVideo(bool patienceOver);
    void ReadPcieLink();

    WorkbenchServices services_;
    Clock& clock_;
    // Declared before the document: the document (and its grab engine, which feeds them) goes
    // first.
    std::unique_ptr<SequenceSaver> saver_;
    std::unique_ptr<VideoRecorder> recorder_;
    std::unique_ptr<ImageSaveWorker> imageSaver_;
    std::unique_ptr<CKELM_PCIE_VexCardDoc> document_;
    std::unique_ptr<GrabController> grab_;
    std::unique_ptr<DocumentVideoHost> videoHost_;
    std::unique_ptr<VideoController> video_;

    bool configurationModified_ = false;
    int32_t polledStatus_ = 0x11FF;
    bool polledStatusReadable_ = true;
    std::optional<uint32_t> pcieLink_;
    struct PendingVideo {
        std::string path;
        Clock::time_point deadline;
    };
    std::optional<PendingVideo> pendingVideo_;
    bool shutDown_ = false;
};

}  // namespace lumetra
