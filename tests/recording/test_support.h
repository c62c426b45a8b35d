// Stand-ins for the front end and the system, and helpers that read recorded files back with
// ffprobe and ffmpeg.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "acquisition/messages.h"
#include "recording/system_status.h"

namespace lumetra::test {

struct Posted {
    uint32_t message;
    intptr_t wParam;
    intptr_t lParam;
    bool operator==(const Posted&) const = default;
};

class RecordingSink final : public MessageSink {
  public:
    void post(uint32_t message, intptr_t wParam, intptr_t lParam) override {
        {
            std::lock_guard lock(mutex_);
            posted_.push_back({message, wParam, lParam});
        }
        cv_.notify_all();
    }
    intptr_t send(uint32_t message, intptr_t wParam, intptr_t lParam) override {
        post(message, wParam, lParam);
        return 0;
    }
    // Waits until `count` messages of that number have arrived. The limit only keeps a broken
    // build from hanging; no test relies on it passing.
    bool waitFor(uint32_t message, size_t count = 1) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, std::chrono::seconds(120),
                            [&] { return countLocked(message) >= count; });
    }
    std::vector<Posted> posted() const {
        std::lock_guard lock(mutex_);
        return posted_;
    }
    std::vector<Posted> of(uint32_t message) const {
        std::lock_guard lock(mutex_);
        std::vector<Posted> out;
        for (const Posted& p : posted_) {
            if (p.message == message) {
                out.push_back(p);
            }
        }
        return out;
    }

  private:
    size_t countLocked(uint32_t message) const {
        size_t n = 0;
        for (const Posted& p : posted_) {
            n += p.message == message ? 1 : 0;
        }
        return n;
    }
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<Posted> posted_;
};

class RecordingLog final : public MessageLog {
  public:
    void log(std::string_view text) override {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(text);
    }
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

class RecordingPrompt final : public Prompt {
  public:
    void information(std::string_view text) override { texts.emplace_back(text); }
    std::vector<std::string> texts;
};

class FakeSystem final : public SystemStatus {
  public:
    std::optional<uint64_t> availableBytes(const std::filesystem::path& dir) const override {
        lastDir = dir.string();
        return free.load();
    }
    MemoryStatus memory() const override { return {total.load(), load.load()}; }

    std::atomic<uint64_t> free{uint64_t{100} << 30};
    std::atomic<uint64_t> total{uint64_t{16} << 30};
    std::atomic<int> load{20};
    mutable std::string lastDir;
};

// A fresh folder per test, removed afterwards.
class TempDir {
  public:
    TempDir() {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        path_ = std::filesystem::temp_directory_path() /
                ("lumetra-rec-" + std::to_string(getpid()) + "-" + info->test_suite_name() + "-" +
                 info->name());
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

inline std::string RunCommand(const std::string& command, int* status = nullptr) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (p == nullptr) {
        return out;
    }
    char buffer[65536];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, p)) > 0) {
        out.append(buffer, n);
    }
    const int s = pclose(p);
    if (status != nullptr) {
        *status = s;
    }
    return out;
}

// What ffprobe reads from the first video stream of a file.
struct ProbedStream {
    int width = -1;
    int height = -1;
    std::string pixFmt;
    std::string colorRange;
    int frames = -1;
};

inline std::string JsonField(const std::string& json, const std::string& key) {
    const std::string quoted = "\"" + key + "\"";
    size_t at = json.find(quoted);
    if (at == std::string::npos) {
        return {};
    }
    at = json.find(':', at + quoted.size());
    if (at == std::string::npos) {
        return {};
    }
    ++at;
    while (at < json.size() && (json[at] == ' ' || json[at] == '"')) {
        ++at;
    }
    size_t end = at;
    while (end < json.size() && json[end] != '"' && json[end] != ',' && json[end] != '\n' &&
           json[end] != '}') {
        ++end;
    }
    return json.substr(at, end - at);
}

inline ProbedStream Probe(const std::string& file) {
    const std::string json = RunCommand(
        "ffprobe -v error -count_frames -show_entries "
        "stream=width,height,pix_fmt,nb_read_frames,color_range -of json '" +
        file + "' 2>/dev/null");
    ProbedStream s;
    auto number = [&](const std::string& key) {
        const std::string v = JsonField(json, key);
        return v.empty() ? -1 : std::stoi(v);
    };
    s.width = number("width");
    s.height = number("height");
    s.pixFmt = JsonField(json, "pix_fmt");
    s.colorRange = JsonField(json, "color_range");
    s.frames = number("nb_read_frames");
    return s;
}

// The first sequence parameter set's value of an H.264 syntax element, -1 when absent.
inline int SpsValue(const std::string& file, const std::string& element) {
    const std::string trace =
        RunCommand("ffmpeg -v trace -i '" + file +
                   "' -frames:v 1 -c copy -bsf:v trace_headers -f null - 2>&1");
    const size_t at = trace.find(" " + element + " ");
    if (at == std::string::npos) {
        return -1;
    }
    const size_t eq = trace.find(" = ", at);
    return eq == std::string::npos ? -1 : std::stoi(trace.substr(eq + 3, 12));
}

// A grey stream (4:0:0, full range) as this ffprobe names it: FFmpeg 5.1's H.264 decoder hands
// 4:0:0 pictures out as "yuvj420p" (the "j" being the full-range flag); later ones say "gray".
inline bool IsGreyPixFmt(const std::string& pixFmt) {
    return pixFmt == "gray" || pixFmt == "yuvj420p";
}

// Every decoded frame back to back in the given pixel format.
inline std::string DecodeVideo(const std::string& file, const std::string& pixFmt) {
    return RunCommand("ffmpeg -v error -i '" + file + "' -f rawvideo -pix_fmt " + pixFmt +
                      " - 2>/dev/null");
}

}  // namespace lumetra::test
