#include "base/messages.h"

#include <cstdio>

namespace lumetra {

std::string TimeStampPrefix(const std::tm& t) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d       ", t.tm_year + 1900,
                  t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
    return buf;
}

PromptAnswer Prompt::question(std::string_view, std::string_view) {
    return PromptAnswer::kCancel;
}

PromptAnswer Prompt::startPrompt(bool&) {
    return PromptAnswer::kCancel;
}

std::optional<std::string> Prompt::openFile(const FileRequest&) {
    return std::nullopt;
}

std::optional<std::string> Prompt::saveFile(const FileRequest&) {
    return std::nullopt;
}

std::string TimeStampPrefixNow() {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return TimeStampPrefix(local);
}

}  // namespace lumetra
