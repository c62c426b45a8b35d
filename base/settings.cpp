#include "base/settings.h"

#include <charconv>

namespace lumetra {
namespace {

std::string userKey(std::string_view section, std::string_view name) {
    std::string k = "u/";
    k.append(section).append("/").append(name);
    return k;
}

std::string systemKey(std::string_view key, std::string_view name) {
    std::string k = "s/";
    k.append(key).append("/").append(name);
    return k;
}

}  // namespace

int MemorySettings::readInt(std::string_view section, std::string_view name, int fallback) {
    auto it = values_.find(userKey(section, name));
    if (it == values_.end()) {
        return fallback;
    }
    int v = fallback;
    auto [p, ec] = std::from_chars(it->second.data(), it->second.data() + it->second.size(), v);
    return ec == std::errc() ? v : fallback;
}

void MemorySettings::writeInt(std::string_view section, std::string_view name, int value) {
    values_[userKey(section, name)] = std::to_string(value);
}

std::string MemorySettings::readString(std::string_view section, std::string_view name,
                                       std::string_view fallback) {
    auto it = values_.find(userKey(section, name));
    return it == values_.end() ? std::string(fallback) : it->second;
}

void MemorySettings::writeString(std::string_view section, std::string_view name,
                                 std::string_view value) {
    values_[userKey(section, name)] = std::string(value);
}

std::optional<uint32_t> MemorySettings::readSystemInt(std::string_view key, std::string_view name) {
    auto it = values_.find(systemKey(key, name));
    if (it == values_.end()) {
        return std::nullopt;
    }
    uint32_t v = 0;
    auto [p, ec] = std::from_chars(it->second.data(), it->second.data() + it->second.size(), v);
    if (ec != std::errc()) {
        return std::nullopt;
    }
    return v;
}

std::optional<std::string> MemorySettings::readSystemString(std::string_view key,
                                                            std::string_view name) {
    auto it = values_.find(systemKey(key, name));
    if (it == values_.end()) {
        return std::nullopt;
    }
    return it->second;
}

void MemorySettings::setSystemInt(std::string_view key, std::string_view name, uint32_t value) {
    values_[systemKey(key, name)] = std::to_string(value);
}

void MemorySettings::setSystemString(std::string_view key, std::string_view name,
                                     std::string_view value) {
    values_[systemKey(key, name)] = std::string(value);
}

}  // namespace lumetra
