// Aravis's fake GigE Vision camera (arv-fake-gv-camera-0.8, package aravis-tools) for tests: on
// 127.0.0.1 only, started and stopped by the test. The tool has no port option, so the camera
// always answers on 127.0.0.1:3956: a lock file keeps test processes (also of other build trees)
// from running two at once.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <thread>

namespace lumetra::test {

inline constexpr const char* kFakeCameraTool = "arv-fake-gv-camera-0.8";
inline constexpr const char* kFakeCameraAddress = "127.0.0.1";
inline constexpr uint16_t kGvcpPort = 3956;

// The tool's path on PATH, or empty.
inline std::string FindFakeCameraTool() {
    const char* path = std::getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
    size_t start = 0;
    while (start <= dirs.size()) {
        const size_t end = dirs.find(':', start);
        const std::string dir = dirs.substr(start, end == std::string::npos ? end : end - start);
        const std::string candidate = (dir.empty() ? "." : dir) + "/" + kFakeCameraTool;
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    return {};
}

// Whether something already listens on the GigE Vision control port of 127.0.0.1.
inline bool GvcpPortTaken() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(kGvcpPort);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool taken =
        ::bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0 && errno == EADDRINUSE;
    ::close(fd);
    return taken;
}

// One GigE Vision read of the bootstrap register 0 from 127.0.0.1: whether a camera answers.
inline bool GvcpAnswers(std::chrono::milliseconds wait) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(kGvcpPort);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // Key 0x42, ack wanted, READREG (0x0080), 4 bytes of payload, request 1, address 0.
    const uint8_t request[12] = {0x42, 0x01, 0x00, 0x80, 0x00, 0x04, 0x00, 0x01, 0, 0, 0, 0};
    bool answered = false;
    if (::sendto(fd, request, sizeof request, 0, reinterpret_cast<const sockaddr*>(&a), sizeof a) ==
        static_cast<ssize_t>(sizeof request)) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(wait.count())) == 1) {
            uint8_t reply[64];
            const ssize_t n = ::recv(fd, reply, sizeof reply, 0);
            // READREG_ACK (0x0081) to request 1.
            answered = n >= 8 && reply[2] == 0x00 && reply[3] == 0x81 && reply[7] == 0x01;
        }
    }
    ::close(fd);
    return answered;
}

class FakeCamera {
  public:
    FakeCamera() = default;
    ~FakeCamera() {
        Stop();
        if (!log_.empty()) {
            std::error_code ignored;
            std::filesystem::remove(log_, ignored);  // read only when the camera failed to start
        }
        if (lock_ >= 0) {
            ::close(lock_);
        }
    }
    FakeCamera(const FakeCamera&) = delete;
    FakeCamera& operator=(const FakeCamera&) = delete;

    // Takes the machine-wide lock (waiting for other tests' cameras), then checks that nothing
    // else answers on 127.0.0.1. Empty on success, else why not.
    std::string Reserve() {
        tool_ = FindFakeCameraTool();
        if (tool_.empty()) {
            return std::string(kFakeCameraTool) +
                   " was not found on PATH: install the package aravis-tools (./scripts/setup "
                   "does)";
        }
        const std::string lockPath =
            (std::filesystem::temp_directory_path() / "lumetra-fake-gv-camera.lock").string();
        lock_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (lock_ < 0 || ::flock(lock_, LOCK_EX) != 0) {
            return "cannot lock " + lockPath + ": " + std::strerror(errno);
        }
        if (GvcpPortTaken()) {
            return "another program already answers on 127.0.0.1:3956 (a fake camera started by "
                   "hand?); stop it and run the test again";
        }
        return {};
    }

    // Starts the camera on 127.0.0.1 and waits until it answers. Empty on success.
    std::string Start() {
        if (lock_ < 0) {
            if (std::string why = Reserve(); !why.empty()) {
                return why;
            }
        }
        log_ = (std::filesystem::temp_directory_path() /
                ("lumetra-fake-gv-camera-" + std::to_string(::getpid()) + ".log"))
                   .string();
        pid_ = ::fork();
        if (pid_ == 0) {
            // The camera goes with the test, even when the test is killed.
            ::prctl(PR_SET_PDEATHSIG, SIGTERM);
            const int out = ::open(log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (out >= 0) {
                ::dup2(out, 1);
                ::dup2(out, 2);
            }
            ::execl(tool_.c_str(), tool_.c_str(), "-i", kFakeCameraAddress,
                    static_cast<char*>(nullptr));
            ::_exit(127);
        }
        if (pid_ < 0) {
            return std::string("fork failed: ") + std::strerror(errno);
        }
        // Generous: the camera only has to bind its sockets; the limit keeps a broken tool from
        // hanging the test.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (std::chrono::steady_clock::now() < deadline) {
            if (GvcpAnswers(std::chrono::milliseconds(200))) {
                return {};
            }
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                std::ifstream in(log_);
                return std::string(kFakeCameraTool) +
                       " ended at once: " + std::string(std::istreambuf_iterator<char>(in), {});
            }
        }
        Stop();
        return std::string(kFakeCameraTool) + " did not answer on 127.0.0.1 within 30 s";
    }

    void Stop() {
        if (pid_ <= 0) {
            return;
        }
        ::kill(pid_, SIGTERM);
        for (int i = 0; i < 500; ++i) {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

    bool running() const { return pid_ > 0; }

  private:
    std::string tool_;
    std::string log_;
    int lock_ = -1;
    pid_t pid_ = -1;
};

}  // namespace lumetra::test
