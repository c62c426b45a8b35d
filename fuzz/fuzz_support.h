// What the fuzz targets share: a file in memory for the entry points that take a path, and a
// check that stops the run with the input kept when a property of the code under test breaks.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace lumetra::fuzz {

// A property that must hold for every input; a breach aborts, so libFuzzer keeps the input.
#define FUZZ_CHECK(cond)                                                                     \
    do {                                                                                     \
        if (!(cond)) {                                                                       \
            std::fprintf(stderr, "%s:%d: property broken: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                    \
        }                                                                                    \
    } while (0)

// The same, with what the code under test said.
#define FUZZ_CHECK_SAID(cond, said)                                                              \
    do {                                                                                         \
        if (!(cond)) {                                                                           \
            std::fprintf(stderr, "%s:%d: property broken: %s (%s)\n", __FILE__, __LINE__, #cond, \
                         std::string(said).c_str());                                             \
            std::abort();                                                                        \
        }                                                                                        \
    } while (0)

// One anonymous in-memory file for the whole run, reached through /proc/self/fd: the readers
// open it by name as they open any file, and nothing touches the disk.
class MemoryFile {
  public:
    MemoryFile() {
        fd_ = ::memfd_create("lumetra-fuzz", MFD_CLOEXEC);
        if (fd_ < 0) {
            std::perror("memfd_create");
            std::abort();
        }
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    ~MemoryFile() { ::close(fd_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    // Replaces the content; returns the path to open.
    const std::string& Write(const uint8_t* data, size_t size) {
        if (::ftruncate(fd_, 0) != 0) {
            std::abort();
        }
        size_t done = 0;
        while (done < size) {
            const ssize_t n = ::pwrite(fd_, data + done, size - done, static_cast<off_t>(done));
            if (n <= 0) {
                std::abort();
            }
            done += static_cast<size_t>(n);
        }
        return path_;
    }
    const std::string& Write(std::string_view text) {
        return Write(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    }
    const std::string& path() const { return path_; }

  private:
    int fd_ = -1;
    std::string path_;
};

// Reads the fields a target takes from the front of its input.
class InputReader {
  public:
    InputReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    uint8_t Byte() { return size_ > 0 ? (--size_, *data_++) : 0; }
    uint32_t Word() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) {
            v = (v << 8) | Byte();
        }
        return v;
    }
    const uint8_t* data() const { return data_; }
    size_t size() const { return size_; }

  private:
    const uint8_t* data_;
    size_t size_;
};

}  // namespace lumetra::fuzz
