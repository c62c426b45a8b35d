// The two questions the recorder asks the system: room on the disk and how full memory is. Tests
// swap in their own answers.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace lumetra {

struct MemoryStatus {
    uint64_t totalPhysical = 0;  // bytes
    int loadPercent = 0;         // used / total physical, 0 to 100
};

class SystemStatus {
  public:
    virtual ~SystemStatus() = default;
    // Bytes the caller may still write on the file system that holds dir; empty when unknown.
    // Thread: any.
    virtual std::optional<uint64_t> availableBytes(const std::filesystem::path& dir) const = 0;
    // Thread: any.
    virtual MemoryStatus memory() const = 0;
};

// std::filesystem::space and /proc/meminfo.
class HostSystemStatus final : public SystemStatus {
  public:
    std::optional<uint64_t> availableBytes(const std::filesystem::path& dir) const override;
    MemoryStatus memory() const override;
};

SystemStatus& HostSystem();

// The folder whose free space counts for a file: its parent, or "." for a bare name.
std::filesystem::path DirectoryOf(const std::filesystem::path& file);

// Load from /proc/meminfo text: (MemTotal - MemAvailable) / MemTotal in whole percent. Falls back
// to MemFree when the kernel gives no MemAvailable.
MemoryStatus ParseMemInfo(const std::string& text);

}  // namespace lumetra
