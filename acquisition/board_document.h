// The board document: finds and opens the board, owns its handle, the parameter cache, the Frame
// image and its lock, and checks geometry before parameters are applied.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include <opencv2/core/mat.hpp>

#include "acquisition/board_library.h"
#include "acquisition/board_parameters.h"
#include "acquisition/frame_store.h"
#include "acquisition/grab_engine.h"
#include "base/messages.h"
#include "base/settings.h"
#include "imaging/frame_image.h"
#include "imaging/view_sources.h"

namespace lumetra {

// What the document works with; all borrowed, all outliving the document. library may be null
// (no board library could be loaded): the document then runs without a board.
struct DocumentServices {
    BoardLibrary* library = nullptr;
    Settings* settings = nullptr;
    MessageLog* log = nullptr;
    MessageSink* sink = nullptr;          // may be null: nothing is posted
    Prompt* prompt = nullptr;             // may be null: boxes are dropped
    BlockAllocator* allocator = nullptr;  // null: the process heap
    std::string resourceConfigPath;       // BoardConfig.ini; empty: the installation's
    int boardIndex = -1;     // >= 0: open only this board instead of the first that opens
    Clock* clock = nullptr;  // null: the steady clock
};

// Thread: the user-interface thread, except where a member says otherwise.
class CKELM_PCIE_VexCardDoc {
  public:
    explicit CKELM_PCIE_VexCardDoc(const DocumentServices& services);
    ~CKELM_PCIE_VexCardDoc();
    CKELM_PCIE_VexCardDoc(const CKELM_PCIE_VexCardDoc&) = delete;
    CKELM_PCIE_VexCardDoc& operator=(const CKELM_PCIE_VexCardDoc&) = delete;

    bool hasBoard() const { return handle_ != ORVIX_INVALID_HANDLE; }
    OrvixHandle handle() const { return handle_; }
    int boardIndex() const { return boardIndex_; }
    int boardType() const { return boardType_; }
    const std::string& boardName() const { return boardName_; }
    BoardIdentity identity() const;
    BoardLibrary* library() const { return lib_; }

    BoardParameters& parameters() { return params_; }
    const BoardParameters& parameters() const { return params_; }
    ImageFormatRecord& imageFormat() { return format_; }
    const ImageFormatRecord& imageFormat() const { return format_; }

    // Writes the cache to the board; failures are logged and the sequence goes on.
    void ApplyParameters();
    // Reads the board back into the cache with every derived value.
    void ReadBackParameters();
    // Corrects width and height in the cache by the board's rules, logging each correction.
    void ValidateGeometry();
    // Makes the Frame image and the frame store fit the current geometry, reducing the height
    // when memory is short. False when no memory could be had.
    bool AllocateFrameMemory();
    // (Re)creates the Frame image's buffers for the current format and tells the views.
    bool AllocateFrameImages();

    // The serial port that belongs to a board ("ComUserNumber"), 0 when not configured.
    uint32_t ReadComUserNumber(int boardNumber);

    FrameImage& frameImage() { return *frame_; }
    FrameStore& frameStore() { return *store_; }
    GrabEngine& grabEngine() { return *grab_; }
    const GrabEngine& grabEngine() const { return *grab_; }
    BayerSettings& bayer() { return bayer_; }
    // Display mode of the main view (0 RGB ... 13) and the monochrome-display option that
    // forces mode 0 for one-channel images.
    int displayMode = 0;
    bool monochromeDisplay = false;

    const cv::Mat& backgroundImage() const { return background_; }
    // What the main image view draws from.
    ViewSources viewSources();

    // One line to the message window. Thread: any.
    void Log(std::string_view text) { log_->log(text); }

  private:
    void FindAndOpenBoard();
    bool TryAllocateFrameMemory(bool reportFailures);
    FrameFormat CurrentFrameFormat() const;
    size_t FrameBytes() const;
    void post(uint32_t message, intptr_t w, intptr_t l);

    BoardLibrary* lib_;
    Settings* settings_;
    MessageLog* log_;
    MessageSink* sink_;
    Prompt* prompt_;
    BlockAllocator* allocator_;
    Clock* clock_;
    int wantedIndex_;

    std::unique_ptr<FrameImage> frame_;
    cv::Mat background_;
    OrvixHandle handle_ = ORVIX_INVALID_HANDLE;
    int boardIndex_ = -1;
    int boardType_ = -1;
    std::string boardName_;
    BoardParameters params_;
    ImageFormatRecord format_;
    BayerSettings bayer_;
    std::unique_ptr<FrameStore> store_;
    std::unique_ptr<GrabEngine> grab_;
};

}  // namespace lumetra
