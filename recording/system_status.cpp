#include "recording/system_status.h"

#include <fcntl.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <system_error>

namespace lumetra {

std::filesystem::path DirectoryOf(const std::filesystem::path& file) {
    const std::filesystem::path parent = file.parent_path();
    return parent.empty() ? std::filesystem::path(".") : parent;
}

std::optional<uint64_t> HostSystemStatus::availableBytes(const std::filesystem::path& dir) const {
    std::error_code ec;
    const std::filesystem::space_info info = std::filesystem::space(dir, ec);
    if (ec || info.available == static_cast<std::uintmax_t>(-1)) {
        return std::nullopt;
    }
    return static_cast<uint64_t>(info.available);
}

MemoryStatus ParseMemInfo(const std::string& text) {
    std::istringstream in(text);
    std::string key;
    uint64_t value = 0;
    std::string unit;
    uint64_t total = 0;
    std::optional<uint64_t> available;
    std::optional<uint64_t> free;
    while (in >> key >> value) {
        std::getline(in, unit);
        if (key == "MemTotal:") {
            total = value;
        } else if (key == "MemAvailable:") {
            available = value;
        } else if (key == "MemFree:") {
            free = value;
        }
    }
    MemoryStatus status;
    status.totalPhysical = total * 1024;
    const uint64_t unused = available ? *available : free.value_or(total);
    if (total > 0 && unused <= total) {
        status.loadPercent = static_cast<int>((total - unused) * 100 / total);
    }
    return status;
}

MemoryStatus HostSystemStatus::memory() const {
    // MemAvailable rather than sysinfo's free RAM: the recorder itself fills the page cache, and
    // counting that as used would trip the memory guard on a healthy machine. Read with plain
    // calls: this runs for every frame offered to the recorder.
    char buffer[4096];
    const int fd = ::open("/proc/meminfo", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return {};
    }
    const ssize_t n = ::read(fd, buffer, sizeof buffer - 1);
    ::close(fd);
    if (n <= 0) {
        return {};
    }
    return ParseMemInfo(std::string(buffer, size_t(n)));
}

SystemStatus& HostSystem() {
    static HostSystemStatus status;
    return status;
}

}  // namespace lumetra
