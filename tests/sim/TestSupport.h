// Helpers shared by the simulator tests: temporary files, ORVIX_SIM_CONFIG switching, checked
// reads, frames and a thread-safe recorder of callback events.
#pragma once

#include <gtest/gtest.h>
#include <jpeglib.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Board.h"
#include "FrameFormat.h"
#include "PatternGenerator.h"

namespace orvix::sim::test {

// A fresh directory, removed with its contents at the end of the scope.
class TempDir {
  public:
    TempDir() {
        path_ = (std::filesystem::temp_directory_path() / "orvix-sim-XXXXXX").string();
        if (::mkdtemp(path_.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::vector<std::string> entries() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path_)) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

  private:
    std::string path_;
};

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Sets (or, with nullopt, unsets) ORVIX_SIM_CONFIG for the scope.
class ScopedConfigEnv {
  public:
    explicit ScopedConfigEnv(const std::optional<std::string>& value) {
        if (const char* old = std::getenv("ORVIX_SIM_CONFIG")) {
            previous_ = old;
        }
        set(value);
    }
    ~ScopedConfigEnv() { set(previous_); }

  private:
    static void set(const std::optional<std::string>& value) {
        if (value) {
            ::setenv("ORVIX_SIM_CONFIG", value->c_str(), 1);
        } else {
            ::unsetenv("ORVIX_SIM_CONFIG");
        }
    }
    std::optional<std::string> previous_;
};

// A board configuration with small frames, so that streaming tests stay cheap.
inline BoardConfig smallBoard(uint32_t width = 64, uint32_t height = 48) {
    BoardConfig b = defaultBoard(0);
    b.width = width;
    b.height = height;
    b.bayer = 0;
    b.fps = 60;
    return b;
}

// The value a read gives; a failed read fails the test.
template <typename Read>
uint32_t checkedRead(uint32_t key, Read read) {
    uint32_t v = 0xBADBAD;
    EXPECT_TRUE(read(key, v).ok()) << std::hex << key;
    return v;
}
inline uint32_t got(const ParameterStore& store, uint32_t id) {
    return checkedRead(id, [&](uint32_t k, uint32_t& v) { return store.get(k, v); });
}
inline uint32_t got(const RegisterSpace& registers, uint32_t address) {
    return checkedRead(address, [&](uint32_t k, uint32_t& v) { return registers.read(k, v); });
}
inline uint32_t got(Board& board, uint32_t id) {
    return checkedRead(id, [&](uint32_t k, uint32_t& v) { return board.getInfo(k, v); });
}

inline FrameFormat fmt(uint32_t width, uint32_t height, uint32_t imageType, uint32_t bits,
                       uint32_t bayer = 0) {
    FrameFormat f;
    f.width = width;
    f.height = height;
    f.imageType = imageType;
    f.bits = bits;
    f.bayer = bayer;
    return f;
}

inline std::vector<uint8_t> renderFrame(const PatternGenerator& generator, uint64_t number) {
    std::vector<uint8_t> frame(generator.format().frameBytes());
    generator.render(number, frame.data());
    return frame;
}

struct DecodedJpeg {
    uint32_t width = 0;
    uint32_t height = 0;
    int components = 0;            // as stored in the file
    std::vector<uint8_t> samples;  // grey, or B, G, R
};

inline DecodedJpeg decodeJpeg(const uint8_t* data, size_t size, bool colour) {
    jpeg_decompress_struct cinfo{};
    jpeg_error_mgr err{};
    cinfo.err = jpeg_std_error(&err);
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, data, static_cast<unsigned long>(size));
    jpeg_read_header(&cinfo, TRUE);
    cinfo.out_color_space = colour ? JCS_EXT_BGR : JCS_GRAYSCALE;
    jpeg_start_decompress(&cinfo);
    DecodedJpeg d{cinfo.output_width, cinfo.output_height, cinfo.num_components, {}};
    const size_t rowBytes = size_t{d.width} * cinfo.output_components;
    d.samples.resize(rowBytes * d.height);
    while (cinfo.output_scanline < d.height) {
        JSAMPROW row = d.samples.data() + rowBytes * cinfo.output_scanline;
        jpeg_read_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    return d;
}

struct RecordedEvent {
    uint32_t event;
    std::thread::id thread;
};

class EventRecorder {
  public:
    static void callback(uint32_t event, void* context) {
        auto* self = static_cast<EventRecorder*>(context);
        std::lock_guard lock(self->mutex_);
        self->events_.push_back({event, std::this_thread::get_id()});
    }
    std::vector<uint32_t> events() const {
        std::lock_guard lock(mutex_);
        std::vector<uint32_t> out;
        for (const auto& e : events_) {
            out.push_back(e.event);
        }
        return out;
    }
    size_t count(uint32_t event) const {
        auto all = events();
        return static_cast<size_t>(std::count(all.begin(), all.end(), event));
    }
    std::vector<RecordedEvent> all() const {
        std::lock_guard lock(mutex_);
        return events_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<RecordedEvent> events_;
};

}  // namespace orvix::sim::test
