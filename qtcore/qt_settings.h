// Settings over QSettings, shared by the workbench and lumetra-cli so both see the same values.
#pragma once

#include <memory>

#include "base/settings.h"

class QSettings;

namespace lumetra {

class QtSettings final : public Settings {
  public:
    // Per-user values: organisation "KELM-Lumetra", application "Lumetra". System-scope values:
    // the file named by LUMETRA_SYSTEM_SETTINGS when set, else the system-wide KELM/Lumetra file.
    QtSettings();
    ~QtSettings() override;

    int readInt(std::string_view section, std::string_view name, int fallback) override;
    void writeInt(std::string_view section, std::string_view name, int value) override;
    std::string readString(std::string_view section, std::string_view name,
                           std::string_view fallback) override;
    void writeString(std::string_view section, std::string_view name,
                     std::string_view value) override;
    std::optional<uint32_t> readSystemInt(std::string_view key, std::string_view name) override;
    std::optional<std::string> readSystemString(std::string_view key,
                                                std::string_view name) override;

  private:
    std::unique_ptr<QSettings> user_;
    std::unique_ptr<QSettings> system_;
};

}  // namespace lumetra
