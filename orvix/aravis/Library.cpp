#include "Library.h"

#include <arv.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "CameraList.h"
#include "Handles.h"

namespace orvix::aravis {
namespace {

Status copyName(const std::string& text, char* name, uint32_t* size) {
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

bool discoveryAsked() {
    const char* v = std::getenv(kDiscoverVariable);
    return v != nullptr && std::strcmp(v, "1") == 0;
}

}  // namespace

std::string libraryDirectory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<const void*>(&libraryDirectory), &info) == 0 ||
        info.dli_fname == nullptr) {
        return ".";
    }
    return std::filesystem::path(info.dli_fname).parent_path().string();
}

Library::~Library() {
    for (auto& camera : open_) {
        if (camera) {
            camera->shutdown();
        }
    }
    open_.clear();
}

Library& Library::instance() {
    static Library library;
    return library;
}

bool Library::anyOpenLocked() const {
    for (size_t i = 0; i < open_.size(); ++i) {
        if (open_[i] || opening_[i]) {
            return true;
        }
    }
    return false;
}

void Library::loadLocked() {
    entries_.clear();
    listError_.reset();
    if (discoveryAsked()) {
        // Only when asked: discovery broadcasts on every network interface.
        arv_update_device_list();
        const unsigned n = arv_get_n_devices();
        for (unsigned i = 0; i < n; ++i) {
            const char* address = arv_get_device_address(i);
            const char* id = arv_get_device_id(i);
            const char* vendor = arv_get_device_vendor(i);
            const char* model = arv_get_device_model(i);
            Entry e;
            e.id = address != nullptr && *address != '\0' ? address : (id != nullptr ? id : "");
            e.name = std::string(vendor != nullptr ? vendor : "") + " " +
                     (model != nullptr ? model : "") + " (" + e.id + ")";
            if (!e.id.empty()) {
                entries_.push_back(std::move(e));
            }
        }
    } else {
        const CameraList list =
            loadCameraList(std::getenv(kCamerasVariable), libraryDirectory() + "/" + kIniFileName);
        for (const std::string& id : list.ids) {
            entries_.push_back(Entry{id, {}});
        }
        listError_ = list.error;
    }
    loaded_ = true;
    open_.assign(entries_.size(), nullptr);
    opening_.assign(entries_.size(), false);
    if (listError_ && *listError_ != lastReported_) {
        std::fprintf(stderr, "OrvixAravis: %s\n", listError_->c_str());
        lastReported_ = *listError_;
    } else if (!listError_) {
        lastReported_.clear();
    }
}

Status Library::boardCount(int32_t boardType, int32_t& count) {
    std::lock_guard lock(mutex_);
    if (!anyOpenLocked()) {
        loadLocked();
    }
    count = boardType == ORVIX_BOARD_TYPE_PCIE ? static_cast<int32_t>(entries_.size()) : 0;
    if (listError_) {
        return Status::fail(ORVIX_ERR_INVALID_ARGUMENT, *listError_);
    }
    return Status::success();
}

Status Library::checkIndexLocked(int32_t boardType, int32_t index, const char* op) const {
    if (boardType != ORVIX_BOARD_TYPE_PCIE || index < 0 ||
        static_cast<size_t>(index) >= entries_.size()) {
        std::string text = std::string(op) + ": no camera " + std::to_string(index) + " of type " +
                           std::to_string(boardType);
        if (entries_.empty()) {
            text += listError_ ? " (" + *listError_ + ")"
                               : std::string(" (name cameras in ") + kCamerasVariable + ")";
        }
        return Status::fail(ORVIX_ERR_NO_SUCH_BOARD, text);
    }
    return Status::success();
}

Status Library::open(int32_t boardType, int32_t index, int32_t& handle) {
    handle = ORVIX_INVALID_HANDLE;
    std::string id;
    {
        std::lock_guard lock(mutex_);
        if (!loaded_) {
            loadLocked();
        }
        Status s = checkIndexLocked(boardType, index, "Open");
        if (!s.ok()) {
            return s;
        }
        const auto i = static_cast<size_t>(index);
        if (open_[i] || opening_[i]) {
            return Status::fail(ORVIX_ERR_OPEN_FAILED,
                                "Open: camera " + std::to_string(index) + " is already open");
        }
        opening_[i] = true;
        id = entries_[i].id;
    }
    std::unique_ptr<Connection> connection;
    Status s = Connection::open(id, connection);
    std::lock_guard lock(mutex_);
    const auto i = static_cast<size_t>(index);
    opening_[i] = false;
    if (!s.ok()) {
        return s;
    }
    if (entries_[i].name.empty()) {
        entries_[i].name = connection->identity().name();
    }
    open_[i] = std::make_shared<Camera>(id, std::move(connection), reaper_);
    handle = index + 1;
    return Status::success();
}

Status Library::boardName(int32_t boardType, int32_t index, char* name, uint32_t* size) {
    if (name == nullptr || size == nullptr) {
        return Status::fail(ORVIX_ERR_INVALID_ARGUMENT, "Get board name: no buffer");
    }
    std::string id;
    {
        std::lock_guard lock(mutex_);
        if (!loaded_) {
            loadLocked();
        }
        Status s = checkIndexLocked(boardType, index, "Get board name");
        if (!s.ok()) {
            return s;
        }
        const Entry& e = entries_[static_cast<size_t>(index)];
        if (!e.name.empty()) {
            return copyName(e.name, name, size);
        }
        id = e.id;
    }
    // The name comes from the camera itself: ask it, without holding the library's lock.
    std::unique_ptr<Connection> connection;
    Status s = Connection::open(id, connection);
    if (!s.ok()) {
        copyName(id, name, size);
        return Status::fail(ORVIX_ERR_NO_SUCH_BOARD,
                            "Get board name: camera " + id + " does not answer");
    }
    const std::string text = connection->identity().name();
    connection.reset();
    {
        std::lock_guard lock(mutex_);
        if (static_cast<size_t>(index) < entries_.size() &&
            entries_[static_cast<size_t>(index)].id == id) {
            entries_[static_cast<size_t>(index)].name = text;
        }
    }
    return copyName(text, name, size);
}

std::shared_ptr<Camera> Library::camera(int32_t handle, Status& status) {
    std::lock_guard lock(mutex_);
    return OpenedBy(open_, handle, status);
}

Status Library::close(int32_t handle) {
    Status s;
    std::shared_ptr<Camera> camera = this->camera(handle, s);
    if (!camera) {
        return s;
    }
    if (camera->onDeliveryThread()) {
        return Status::fail(ORVIX_ERR_REFUSED, "Close: not possible from inside a callback");
    }
    {
        std::lock_guard lock(mutex_);
        auto& slot = open_[static_cast<size_t>(handle) - 1];
        if (slot != camera) {
            return Status::fail(ORVIX_ERR_NO_BOARD_SELECTED, "Close: the camera is already closed");
        }
        slot.reset();
    }
    // Ends the grab here, so that the camera never ends on its own delivery thread.
    camera->shutdown();
    return Status::success();
}

}  // namespace orvix::aravis
