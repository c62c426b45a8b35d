#include "base/messages.h"

#include <chrono>
#include <cstdio>
#include <thread>

namespace lumetra {

std::string TimeStampPrefix(const std::tm& t) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d       ", t.tm_year + 1900,
                  t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
    return buf;
}

void MessageSink::waitUntil(const std::function<bool()>& done) {
    while (!done()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

std::string TimeStampPrefixNow() {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return TimeStampPrefix(local);
}

}  // namespace lumetra
