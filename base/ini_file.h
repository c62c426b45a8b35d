// Profile files (BoardConfig.ini, ROIConfig.ini): sections of key=value lines. Reading is
// forgiving the way profile files have always been: a malformed line is skipped, a missing key
// takes its default.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace lumetra {

class IniFile {
  public:
    // Empty when the file cannot be read.
    static std::optional<IniFile> Load(const std::string& path);
    static IniFile Parse(std::string_view text);

    std::string value(std::string_view section, std::string_view key,
                      std::string_view fallback = {}) const;
    int intValue(std::string_view section, std::string_view key, int fallback) const;
    bool has(std::string_view section, std::string_view key) const;

    void set(std::string_view section, std::string_view key, std::string_view value);
    std::string text() const;
    // Written through a temporary file and a rename, so a failure leaves the old file whole.
    bool Save(const std::string& path) const;

  private:
    // Section and key names compare without regard to case, as profile files do: each map is
    // keyed by the folded name and keeps the name as first written. Hashed, because a
    // ROIConfig.ini may hold tens of thousands of keys; text() puts them in folded order.
    struct Key {
        std::string name;
        std::string value;
    };
    struct Section {
        std::string name;
        std::unordered_map<std::string, Key> keys;
    };
    std::unordered_map<std::string, Section> sections_;
};

}  // namespace lumetra
