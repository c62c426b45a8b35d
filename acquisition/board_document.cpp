#include "acquisition/board_document.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <opencv2/imgcodecs.hpp>

#include "acquisition/geometry.h"
#include "acquisition/resource_config.h"
#include "base/process_flags.h"

namespace lumetra {
namespace {

constexpr uint64_t kFallbackPixelBytes = 134217728;  // 128 MiB of pixel data

std::string readBoardName(BoardLibrary& lib, int index) {
    char name[ORVIX_BOARD_NAME_MAX] = {};
    uint32_t size = sizeof name;
    if (lib.GetBoardName(ORVIX_BOARD_TYPE_PCIE, index, name, &size) != ORVIX_SUCCESS) {
        return {};
    }
    name[sizeof name - 1] = '\0';
    return name;
}

bool contains(const std::string& s, const char* part) {
    return s.find(part) != std::string::npos;
}

}  // namespace

CKELM_PCIE_VexCardDoc::CKELM_PCIE_VexCardDoc(const DocumentServices& s)
    : lib_(s.library),
      settings_(s.settings),
      log_(s.log),
      sink_(s.sink),
      prompt_(s.prompt),
      allocator_(s.allocator != nullptr ? s.allocator : &DefaultBlockAllocator()),
      clock_(s.clock != nullptr ? s.clock : &SystemClock()),
      wantedIndex_(s.boardIndex) {
    // 1. The Frame image at its start-up geometry, and the background image.
    frame_ = std::make_unique<FrameImage>(*allocator_);
    const std::string rcPath =
        s.resourceConfigPath.empty() ? ResourceConfigPath(*settings_) : s.resourceConfigPath;
    const ResourceConfig rc = LoadResourceConfig(rcPath);
    if (!rc.softwareBackground.empty()) {
        std::error_code ec;
        // imread warns on stderr about a missing file; ask the file system first.
        if (std::filesystem::is_regular_file(rc.softwareBackground, ec)) {
            background_ = cv::imread(rc.softwareBackground, cv::IMREAD_UNCHANGED);
        }
        if (background_.empty()) {
            Log("Load Background Image Fail!");
        }
    }

    // 2. No board yet.
    processFlags().modelCode = 0;
    processFlags().documentConstructed = true;

    // 3-5. The first board that opens.
    FindAndOpenBoard();

    // 6. The records and the read-back.
    if (hasBoard()) {
        ReadBackParameters();
    }

    // 7. The frame store holds the Frame image's initial pixels.
    store_ = std::make_unique<FrameStore>(*allocator_);
    const ImageBuffer& raw = frame_->raw();
    if (raw.hasImage() && store_->Resize(raw.size())) {
        store_->Put(raw.data(), raw.size(), false);
    }
    grab_ = std::make_unique<GrabEngine>(
        GrabLinks{lib_, log_, sink_, clock_, frame_.get(), store_.get()});
}

CKELM_PCIE_VexCardDoc::~CKELM_PCIE_VexCardDoc() {
    // No callback or worker may outlive the board.
    grab_.reset();
    if (lib_ != nullptr && hasBoard()) {
        lib_->Close(handle_);
    }
}

void CKELM_PCIE_VexCardDoc::FindAndOpenBoard() {
    processFlags().boardPresent = false;
    processFlags().coaxpress = false;
    processFlags().onePort = false;
    if (lib_ == nullptr) {
        return;
    }
    int32_t count = 0;
    if (lib_->GetBoardCount(ORVIX_BOARD_TYPE_PCIE, &count) != ORVIX_SUCCESS) {
        count = 0;
    }
    for (int32_t index = 0; index < count; ++index) {
        if (wantedIndex_ >= 0 && index != wantedIndex_) {
            continue;
        }
        OrvixHandle h = lib_->Open(ORVIX_BOARD_TYPE_PCIE, index);
        if (h != ORVIX_INVALID_HANDLE) {
            handle_ = h;
            boardIndex_ = index;
            break;
        }
        OrvixErrorInfo err{};
        lib_->GetLastError(&err, 1);
    }
    if (!hasBoard()) {
        return;
    }
    processFlags().boardPresent = true;
    boardName_ = readBoardName(*lib_, boardIndex_);
    boardType_ = ORVIX_BOARD_TYPE_PCIE;
    processFlags().coaxpress = contains(boardName_, "CXP") || contains(boardName_, "CoaXPress");
    uint32_t version = 0;
    if (lib_->GetInfo(handle_, ORVIX_BOARD_VERSION, &version) == ORVIX_SUCCESS) {
        processFlags().modelCode = static_cast<uint8_t>(version >> 16);
    }
    // The name is read again for the port flag, as the board software always has.
    processFlags().onePort = contains(readBoardName(*lib_, boardIndex_), "Port1");
    OrvixErrorInfo err{};
    lib_->GetLastError(&err, 1);
}

BoardIdentity CKELM_PCIE_VexCardDoc::identity() const {
    return {processFlags().coaxpress.load(), processFlags().modelCode.load()};
}

void CKELM_PCIE_VexCardDoc::ApplyParameters() {
    if (lib_ == nullptr || !hasBoard()) {
        return;
    }
    lumetra::ApplyParameters(*lib_, handle_, params_, identity(), *log_);
}

void CKELM_PCIE_VexCardDoc::ReadBackParameters() {
    if (lib_ == nullptr || !hasBoard()) {
        return;
    }
    lumetra::ReadBackParameters(*lib_, handle_, identity(), params_, format_);
}

void CKELM_PCIE_VexCardDoc::ValidateGeometry() {
    GeometryInput in;
    in.width = params_.width();
    in.height = params_.height();
    in.taps = params_.taps();
    in.imageType = params_.imageType();
    in.dataFormat = params_.dataFormat();
    in.channels = std::max<uint32_t>(ChannelsOfImageType(params_.imageType()), 1);
    in.kernelBlockSize = params_.get(ORVIX_PCIE_KERNEL_BLOCK_SIZE);
    in.modelCode = identity().modelCode;
    in.jpegCompression = format_.jpegCompression;
    in.rgbdExtended = format_.rgbdExtended;
    const GeometryInput out = lumetra::ValidateGeometry(in, *log_);
    params_.set(ORVIX_IMAGE_WIDTH, out.width);
    params_.set(ORVIX_IMAGE_HEIGHT, out.height);
    format_.width = out.width;
    format_.height = out.height;
}

FrameFormat CKELM_PCIE_VexCardDoc::CurrentFrameFormat() const {
    FrameFormat f;
    f.width = static_cast<int>(format_.width);
    f.height = static_cast<int>(format_.height);
    f.bitsPerPixel = static_cast<int>(format_.bitsPerPixel);
    f.channels = static_cast<int>(format_.channels);
    f.rgbc = format_.rgbdExtended;
    return f;
}

size_t CKELM_PCIE_VexCardDoc::FrameBytes() const {
    const FrameFormat f = CurrentFrameFormat();
    const FrameLayout layout = LayoutOf(f);
    return static_cast<size_t>(
        ImageBuffer::ByteSize(layout.depth, layout.channels, f.width, f.height));
}

bool CKELM_PCIE_VexCardDoc::AllocateFrameImages() {
    frame_->setFormat(CurrentFrameFormat());
    if (!frame_->Allocate(static_cast<int>(format_.bitsPerPixel), bayer_, *log_)) {
        return false;
    }
    // Child windows re-read the frame size.
    post(msg::kFrameSize, 0, 0);
    const int rawChannels = frame_->raw().channels();
    if (displayMode == 4 && rawChannels == 3) {
        displayMode = 0;
    }
    if (rawChannels == 1 && monochromeDisplay) {
        displayMode = 0;
    }
    post(msg::kPaint, 0, 0);
    return true;
}

bool CKELM_PCIE_VexCardDoc::TryAllocateFrameMemory(bool reportFailures) {
    if (!store_->Resize(FrameBytes())) {
        if (reportFailures) {
            Log("Image Data Fail!");
        }
        return false;
    }
    if (!AllocateFrameImages()) {
        if (reportFailures) {
            Log("Create Image Fail:Insufficient Virtual Memory!");
        }
        return false;
    }
    return true;
}

bool CKELM_PCIE_VexCardDoc::AllocateFrameMemory() {
    const FrameFormat f = CurrentFrameFormat();
    const bool layoutKnown = (f.channels == 1 || f.channels == 3 || f.channels == 4) &&
                             f.bitsPerPixel >= 8 * f.channels && f.bitsPerPixel <= 16 * f.channels;
    if (!layoutKnown || f.width <= 0 || f.height <= 0) {
        Log("Failed to load image : The software does not support this image format!");
        return false;
    }
    if (TryAllocateFrameMemory(false)) {
        return true;
    }
    const uint64_t rowBytes = FrameBytes() / format_.height;
    const uint32_t height = static_cast<uint32_t>(
        std::max<uint64_t>(1, kFallbackPixelBytes / std::max<uint64_t>(rowBytes, 1)));
    char line[96];
    std::snprintf(line, sizeof line, "Allocate Virtual Memory Fail.Reset the image height as %d\n",
                  static_cast<int>(height));
    Log(line);
    format_.height = height;
    params_.set(ORVIX_IMAGE_HEIGHT, height);
    if (TryAllocateFrameMemory(true)) {
        return true;
    }
    if (prompt_ != nullptr) {
        prompt_->information(
            "Image memory application failed, unable to operate, please reapply for memory.");
    }
    return false;
}

uint32_t CKELM_PCIE_VexCardDoc::ReadComUserNumber(int boardNumber) {
    char key[96];
    std::snprintf(key, sizeof key,
                  boardType_ == ORVIX_BOARD_TYPE_PCIE ? "%s\\PCIE%d" : "%s\\USB30%d", kInstallKey,
                  boardNumber);
    return settings_->readSystemInt(key, "ComUserNumber").value_or(0);
}

void CKELM_PCIE_VexCardDoc::post(uint32_t message, intptr_t w, intptr_t l) {
    if (sink_ != nullptr) {
        sink_->post(message, w, l);
    }
}

ViewSources CKELM_PCIE_VexCardDoc::viewSources() {
    return {*frame_, displayMode, bayer_, background_, [this] { return grabEngine().idle(); }};
}

}  // namespace lumetra
