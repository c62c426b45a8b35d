#include "TestSupport.h"

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace orvix::sim::test {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "orvix-sim-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::vector<std::string> TempDir::entries() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

ScopedConfigEnv::ScopedConfigEnv(const std::optional<std::string>& value) {
    if (const char* old = std::getenv("ORVIX_SIM_CONFIG")) {
        previous_ = old;
    }
    if (value) {
        ::setenv("ORVIX_SIM_CONFIG", value->c_str(), 1);
    } else {
        ::unsetenv("ORVIX_SIM_CONFIG");
    }
}

ScopedConfigEnv::~ScopedConfigEnv() {
    if (previous_) {
        ::setenv("ORVIX_SIM_CONFIG", previous_->c_str(), 1);
    } else {
        ::unsetenv("ORVIX_SIM_CONFIG");
    }
}

BoardConfig smallBoard(uint32_t width, uint32_t height) {
    BoardConfig b = defaultBoard(0);
    b.width = width;
    b.height = height;
    b.bayer = 0;
    b.fps = 60;
    return b;
}

void EventRecorder::callback(uint32_t event, void* context) {
    auto* self = static_cast<EventRecorder*>(context);
    std::lock_guard lock(self->mutex_);
    self->events_.push_back({event, std::this_thread::get_id()});
}

std::vector<uint32_t> EventRecorder::events() const {
    std::lock_guard lock(mutex_);
    std::vector<uint32_t> out;
    for (const auto& e : events_) {
        out.push_back(e.event);
    }
    return out;
}

size_t EventRecorder::count(uint32_t event) const {
    std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::count_if(
        events_.begin(), events_.end(), [&](const RecordedEvent& e) { return e.event == event; }));
}

std::vector<RecordedEvent> EventRecorder::all() const {
    std::lock_guard lock(mutex_);
    return events_;
}

void EventRecorder::clear() {
    std::lock_guard lock(mutex_);
    events_.clear();
}

}  // namespace orvix::sim::test
