// Stand-ins for the front end and the system, and helpers that read written files back: TIFF
// tags with libtiff, recorded video with ffprobe and ffmpeg.
#pragma once

#include <gtest/gtest.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/messages.h"
#include "recording/system_status.h"
#include "support/recording_log.h"

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
    // Waits until `count` messages of that number have arrived. The limit only keeps a broken
    // build from hanging; no test relies on it passing.
    bool waitFor(uint32_t message, size_t count = 1) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, std::chrono::seconds(120), [&] {
            return size_t(std::count_if(posted_.begin(), posted_.end(), [&](const Posted& p) {
                       return p.message == message;
                   })) >= count;
        });
    }
    std::vector<Posted> posted() const {
        std::lock_guard lock(mutex_);
        return posted_;
    }
    std::vector<Posted> of(uint32_t message) const {
        std::vector<Posted> out = posted();
        std::erase_if(out, [&](const Posted& p) { return p.message != message; });
        return out;
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<Posted> posted_;
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
    long entries() const { return std::distance(std::filesystem::directory_iterator(path_), {}); }

  private:
    std::filesystem::path path_;
};

// A mono frame with a bar that moves with the frame number over a textured background.
inline std::vector<uint8_t> MonoFrame(int width, int height, int number) {
    std::vector<uint8_t> f(size_t(width) * height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const bool bar = ((x + number * 3) % width) < width / 8;
            f[size_t(y) * width + x] = bar ? 230 : static_cast<uint8_t>((x * 7 + y * 13) % 97 + 20);
        }
    }
    return f;
}

struct TiffTags {
    uint32_t width = 0, height = 0;
    uint16_t bits = 0, samples = 0, compression = 0, photometric = 0, unit = 0, predictor = 0;
    float dpiX = 0, dpiY = 0;
    uint16_t extraCount = 0, extraType = 99;
    std::vector<uint8_t> firstRow;
};

inline TiffTags ReadTags(const std::string& path) {
    TiffTags t;
    TIFF* tif = TIFFOpen(path.c_str(), "r");
    if (tif == nullptr) {
        ADD_FAILURE() << "libtiff cannot open " << path;
        return t;
    }
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &t.width);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &t.height);
    TIFFGetField(tif, TIFFTAG_BITSPERSAMPLE, &t.bits);
    TIFFGetField(tif, TIFFTAG_SAMPLESPERPIXEL, &t.samples);
    TIFFGetField(tif, TIFFTAG_COMPRESSION, &t.compression);
    // Only a codec knows the predictor.
    t.predictor = PREDICTOR_NONE;
    if (t.compression != COMPRESSION_NONE) {
        TIFFGetFieldDefaulted(tif, TIFFTAG_PREDICTOR, &t.predictor);
    }
    TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &t.photometric);
    TIFFGetField(tif, TIFFTAG_XRESOLUTION, &t.dpiX);
    TIFFGetField(tif, TIFFTAG_YRESOLUTION, &t.dpiY);
    TIFFGetField(tif, TIFFTAG_RESOLUTIONUNIT, &t.unit);
    uint16_t* extra = nullptr;
    if (TIFFGetField(tif, TIFFTAG_EXTRASAMPLES, &t.extraCount, &extra) == 1 && t.extraCount > 0) {
        t.extraType = extra[0];
    }
    t.firstRow.resize(TIFFScanlineSize(tif));
    TIFFReadScanline(tif, t.firstRow.data(), 0);
    TIFFClose(tif);
    return t;
}

inline std::string RunCommand(const std::string& command) {
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
    pclose(p);
    return out;
}

// The value of the first "key": in JSON text, without quotes; empty when absent.
inline std::string JsonField(const std::string& json, const std::string& key) {
    // A plain scan: std::regex trips GCC 12's uninitialised-use warning under the sanitizers.
    const std::string quoted = "\"" + key + "\"";
    size_t at = json.find(quoted);
    at = at == std::string::npos ? at : json.find(':', at + quoted.size());
    if (at == std::string::npos) {
        return {};
    }
    at = json.find_first_not_of(" \"", at + 1);
    const size_t end = std::min(json.find_first_of("\",}\n", at), json.size());
    return at == std::string::npos ? std::string() : json.substr(at, end - at);
}

// What ffprobe reads from the first video stream of a file.
struct ProbedStream {
    int width = -1;
    int height = -1;
    std::string pixFmt;
    std::string colorRange;
    int frames = -1;
};

inline ProbedStream Probe(const std::string& file) {
    const std::string json = RunCommand(
        "ffprobe -v error -count_frames -show_entries "
        "stream=width,height,pix_fmt,nb_read_frames,color_range -of json '" +
        file + "' 2>/dev/null");
    auto number = [&](const char* key) {
        const std::string v = JsonField(json, key);
        return v.empty() ? -1 : std::stoi(v);
    };
    return {number("width"), number("height"), JsonField(json, "pix_fmt"),
            JsonField(json, "color_range"), number("nb_read_frames")};
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
