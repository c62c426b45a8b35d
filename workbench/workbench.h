// The workbench: what the main frame does, without windows. It owns the board document and the
// recording paths that the grab engine feeds (the sequence saver and the video recorder), the
// image save worker, and the controllers of the grab and video commands. Both front ends are thin
// adapters over it.
#pragma once

#include <memory>
#include <string>

#include "acquisition/board_document.h"
#include "recording/image_save_worker.h"
#include "recording/sequence_saver.h"
#include "recording/system_status.h"
#include "recording/video_controller.h"
#include "recording/video_recorder.h"
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
};

// Thread: the user-interface thread.
class Workbench {
  public:
    explicit Workbench(const WorkbenchServices& services);
    ~Workbench();
    Workbench(const Workbench&) = delete;
    Workbench& operator=(const Workbench&) = delete;

    CKELM_PCIE_VexCardDoc& document() { return *document_; }
    const CKELM_PCIE_VexCardDoc& document() const { return *document_; }
    SequenceSaver& sequenceSaver() { return *saver_; }
    VideoRecorder& videoRecorder() { return *recorder_; }
    ImageSaveWorker& imageSaver() { return *imageSaver_; }
    GrabController& grab() { return *grab_; }
    VideoController& video() { return *video_; }

  private:
    WorkbenchServices services_;
    // Declared before the document: the document (and its grab engine, which feeds them) goes
    // first.
    std::unique_ptr<SequenceSaver> saver_;
    std::unique_ptr<VideoRecorder> recorder_;
    std::unique_ptr<ImageSaveWorker> imageSaver_;
    std::unique_ptr<CKELM_PCIE_VexCardDoc> document_;
    std::unique_ptr<GrabController> grab_;
    std::unique_ptr<DocumentVideoHost> videoHost_;
    std::unique_ptr<VideoController> video_;
};

}  // namespace lumetra
