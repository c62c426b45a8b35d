// Application settings as the core sees them. Both front ends implement this over QSettings, so
// the workbench and lumetra-cli read and write the same values.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace lumetra {

class Settings {
  public:
    virtual ~Settings() = default;

    // Per-user values: a section and a value name, as the registry layout had them.
    virtual int readInt(std::string_view section, std::string_view name, int fallback) = 0;
    virtual void writeInt(std::string_view section, std::string_view name, int value) = 0;
    virtual std::string readString(std::string_view section, std::string_view name,
                                   std::string_view fallback) = 0;
    virtual void writeString(std::string_view section, std::string_view name,
                             std::string_view value) = 0;

    // System-scope values under a key path such as "SOFTWARE\KELM\Lumetra\PCIE0"; empty when
    // the key or the value is missing.
    virtual std::optional<uint32_t> readSystemInt(std::string_view key, std::string_view name) = 0;
    virtual std::optional<std::string> readSystemString(std::string_view key,
                                                        std::string_view name) = 0;
};

// Settings kept in memory only: for tests and for running without a settings back end.
class MemorySettings final : public Settings {
  public:
    int readInt(std::string_view section, std::string_view name, int fallback) override;
    void writeInt(std::string_view section, std::string_view name, int value) override;
    std::string readString(std::string_view section, std::string_view name,
                           std::string_view fallback) override;
    void writeString(std::string_view section, std::string_view name,
                     std::string_view value) override;
    std::optional<uint32_t> readSystemInt(std::string_view key, std::string_view name) override;
    std::optional<std::string> readSystemString(std::string_view key,
                                                std::string_view name) override;

    void setSystemInt(std::string_view key, std::string_view name, uint32_t value);
    void setSystemString(std::string_view key, std::string_view name, std::string_view value);

  private:
    // "u/section/name" for per-user values, "s/key/name" for system-scope ones.
    std::map<std::string, std::string, std::less<>> values_;
};

}  // namespace lumetra
