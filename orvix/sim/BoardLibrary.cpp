#include "BoardLibrary.h"

#include <cstdio>
#include <cstring>

#include "Handles.h"

namespace orvix::sim {

BoardLibrary::~BoardLibrary() {
    for (auto& board : open_) {
        if (board) {
            board->streamer().shutdown();
        }
    }
}

BoardLibrary& BoardLibrary::instance() {
    static BoardLibrary library;
    return library;
}

void BoardLibrary::loadLocked() {
    catalog_ = loadBoardCatalog();
    loaded_ = true;
    open_.clear();
    open_.resize(catalog_.boards.size());
    if (catalog_.error) {
        std::string message = catalog_.error->message();
        if (message != lastReported_) {
            std::fprintf(stderr, "OrvixBoard: %s\n", message.c_str());
            lastReported_ = message;
        }
    } else {
        lastReported_.clear();
    }
}

Status BoardLibrary::boardCount(int32_t boardType, int32_t& count) {
    std::lock_guard lock(mutex_);
    bool anyOpen = false;
    for (const auto& board : open_) {
        anyOpen = anyOpen || board != nullptr;
    }
    if (!anyOpen) {
        loadLocked();
    }
    count = boardType == ORVIX_BOARD_TYPE_PCIE ? static_cast<int32_t>(catalog_.boards.size()) : 0;
    if (catalog_.error) {
        return Status::fail(
            catalog_.error->line == 0 ? ORVIX_ERR_FILE_IO : ORVIX_ERR_INVALID_ARGUMENT,
            catalog_.error->message());
    }
    return Status::success();
}

Status BoardLibrary::checkIndexLocked(int32_t boardType, int32_t index, const char* op) const {
    if (boardType != ORVIX_BOARD_TYPE_PCIE || index < 0 ||
        static_cast<size_t>(index) >= catalog_.boards.size()) {
        std::string text = std::string(op) + ": no board " + std::to_string(index) + " of type " +
                           std::to_string(boardType);
        if (catalog_.error) {
            text += " (" + catalog_.error->message() + ")";
        }
        return Status::fail(ORVIX_ERR_NO_SUCH_BOARD, text);
    }
    return Status::success();
}

Status BoardLibrary::open(int32_t boardType, int32_t index, int32_t& handle) {
    handle = ORVIX_INVALID_HANDLE;
    std::lock_guard lock(mutex_);
    if (!loaded_) {
        loadLocked();
    }
    Status s = checkIndexLocked(boardType, index, "Open");
    if (!s.ok()) {
        return s;
    }
    const BoardConfig& config = catalog_.boards[static_cast<size_t>(index)];
    if (config.openFails) {
        return Status::fail(ORVIX_ERR_OPEN_FAILED, "Open: board " + std::to_string(index) + " (" +
                                                       config.name + ") does not respond");
    }
    if (open_[static_cast<size_t>(index)]) {
        return Status::fail(ORVIX_ERR_OPEN_FAILED,
                            "Open: board " + std::to_string(index) + " is already open");
    }
    open_[static_cast<size_t>(index)] = std::make_shared<Board>(config);
    handle = index + 1;
    return Status::success();
}

Status BoardLibrary::boardName(int32_t boardType, int32_t index, char* name, uint32_t* size) {
    if (name == nullptr || size == nullptr) {
        return Status::fail(ORVIX_ERR_INVALID_ARGUMENT, "Get board name: no buffer");
    }
    std::lock_guard lock(mutex_);
    if (!loaded_) {
        loadLocked();
    }
    Status s = checkIndexLocked(boardType, index, "Get board name");
    if (!s.ok()) {
        return s;
    }
    const std::string& text = catalog_.boards[static_cast<size_t>(index)].name;
    const uint32_t needed = static_cast<uint32_t>(text.size()) + 1;
    const uint32_t capacity = *size;
    if (capacity == 0) {
        return Status::fail(ORVIX_ERR_INVALID_ARGUMENT, "Get board name: the buffer needs " +
                                                            std::to_string(needed) + " bytes");
    }
    const uint32_t copied = std::min(needed, capacity) - 1;
    std::memcpy(name, text.data(), copied);
    name[copied] = '\0';
    *size = copied + 1;
    if (capacity < needed) {
        return Status::fail(ORVIX_ERR_INVALID_ARGUMENT, "Get board name: the buffer needs " +
                                                            std::to_string(needed) + " bytes");
    }
    return Status::success();
}

std::shared_ptr<Board> BoardLibrary::board(int32_t handle, Status& status) {
    std::lock_guard lock(mutex_);
    return OpenedBy(open_, handle, status);
}

Status BoardLibrary::close(int32_t handle) {
    Status s;
    std::shared_ptr<Board> board = this->board(handle, s);
    if (!board) {
        return s;
    }
    if (board->streamer().isBoardThread()) {
        return Status::fail(ORVIX_ERR_REFUSED, "Close: not possible from inside a callback");
    }
    {
        std::lock_guard lock(mutex_);
        auto& slot = open_[static_cast<size_t>(handle) - 1];
        if (slot != board) {
            return Status::fail(ORVIX_ERR_NO_BOARD_SELECTED, "Close: the board is already closed");
        }
        slot.reset();
    }
    // Join the board thread here, so the board never ends on its own thread.
    board->streamer().shutdown();
    return Status::success();
}

}  // namespace orvix::sim
