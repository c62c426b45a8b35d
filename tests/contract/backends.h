// The board libraries the contract cases run against, each loaded through the application's
// loader: the simulated board (always) and libOrvixAravis on Aravis's fake GigE Vision camera.
// A backend prepares what its library needs and says what it cannot do, and why.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "OrvixBoard.h"
#include "fake_camera.h"

namespace lumetra::test {

struct FormatCase {
    uint32_t imageType, dataFormat, bayer;
};

class Backend {
  public:
    virtual ~Backend() = default;
    virtual std::string library() const = 0;
    // Prepares the library's board; empty on success, else why not. `stopFailures`: how many
    // stops the board must refuse before one succeeds (a backend that cannot do it ignores it).
    virtual std::string SetUp(const std::filesystem::path& dir, uint32_t stopFailures) = 0;
    virtual void TearDown() {}

    // Register addresses: one free to write, one that refuses writes (empty with the reason).
    virtual uint32_t scratchRegister() const = 0;
    virtual std::optional<uint32_t> readOnlyRegister(std::string& why) const = 0;
    // How many stops the board refuses when asked to: 0 when it cannot be made to.
    virtual uint32_t injectableStopFailures() const = 0;
    // A geometry the board takes, and a second one.
    virtual std::pair<uint32_t, uint32_t> geometry() const = 0;
    virtual std::pair<uint32_t, uint32_t> otherGeometry() const = 0;
    // Format combinations the board has, and one it has not (empty when it takes them all).
    virtual std::vector<FormatCase> formats() const = 0;
    virtual std::optional<FormatCase> missingFormat() const = 0;
    // Whether frame-grabber parameters a camera lacks (CameraLink sources, ...) fail.
    virtual bool lacksFrameGrabberParameters() const = 0;
    // The first line of another library's configuration file.
    virtual std::string foreignConfigurationLine() const = 0;
    // The version number in the first line of its own configuration files, to change it.
    virtual std::string configurationMagic() const = 0;
};

class SimulatorBackend final : public Backend {
  public:
    std::string library() const override { return SIM_LIBRARY; }
    std::string SetUp(const std::filesystem::path& dir, uint32_t stopFailures) override {
        // The virtual clock: frames come back to back, each exactly on time, whatever the
        // machine's speed.
        const std::string ini = (dir / "sim.ini").string();
        std::ofstream(ini) << "[board0]\nwidth=64\nheight=48\nbuffers=4\npattern=static\n"
                           << "clock=virtual\nstop_failures=" << stopFailures << "\n";
        ::setenv("ORVIX_SIM_CONFIG", ini.c_str(), 1);
        return {};
    }
    void TearDown() override { ::unsetenv("ORVIX_SIM_CONFIG"); }
    uint32_t scratchRegister() const override { return 0x100; }
    std::optional<uint32_t> readOnlyRegister(std::string&) const override { return 0x0; }
    uint32_t injectableStopFailures() const override { return 2; }
    std::pair<uint32_t, uint32_t> geometry() const override { return {64, 48}; }
    std::pair<uint32_t, uint32_t> otherGeometry() const override { return {32, 16}; }
    std::vector<FormatCase> formats() const override {
        return {{0, 8, 0}, {0, 16, 0}, {0, 8, 1}, {0, 8, 2}, {0, 8, 3},
                {0, 8, 4}, {0, 16, 2}, {1, 8, 0}, {3, 8, 0}, {0, 12, 0}};
    }
    std::optional<FormatCase> missingFormat() const override { return std::nullopt; }
    bool lacksFrameGrabberParameters() const override { return false; }
    std::string foreignConfigurationLine() const override { return "OrvixAravisConfiguration 1"; }
    std::string configurationMagic() const override { return "OrvixBoardConfiguration"; }
};

class AravisBackend final : public Backend {
  public:
    std::string library() const override { return ARAVIS_LIBRARY; }
    std::string SetUp(const std::filesystem::path&, uint32_t) override {
        ::setenv("LUMETRA_ARAVIS_CAMERAS", kFakeCameraAddress, 1);
        ::unsetenv("ORVIX_DISCOVER");
        return camera.Start();
    }
    void TearDown() override {
        camera.Stop();
        ::unsetenv("LUMETRA_ARAVIS_CAMERAS");
    }
    // The fake camera's TestRegister.
    uint32_t scratchRegister() const override { return 0x1F0; }
    std::optional<uint32_t> readOnlyRegister(std::string& why) const override {
        why = "the fake camera accepts writes to every register";
        return std::nullopt;
    }
    uint32_t injectableStopFailures() const override { return 0; }
    std::pair<uint32_t, uint32_t> geometry() const override { return {640, 480}; }
    std::pair<uint32_t, uint32_t> otherGeometry() const override { return {320, 200}; }
    std::vector<FormatCase> formats() const override {
        // Mono8, Mono16, the four Bayer patterns, RGB8 as B, G, R (swapped) and as R, G, B.
        return {{0, 8, 0}, {0, 16, 0}, {0, 8, 1}, {0, 8, 2},
                {0, 8, 3}, {0, 8, 4},  {1, 8, 0}, {3, 8, 0}};
    }
    std::optional<FormatCase> missingFormat() const override { return FormatCase{0, 12, 0}; }
    bool lacksFrameGrabberParameters() const override { return true; }
    std::string foreignConfigurationLine() const override { return "OrvixBoardConfiguration 1"; }
    std::string configurationMagic() const override { return "OrvixAravisConfiguration"; }

    FakeCamera camera;
};

inline std::unique_ptr<Backend> MakeBackend(const std::string& name) {
    if (name == "Simulator") {
        return std::make_unique<SimulatorBackend>();
    }
    return std::make_unique<AravisBackend>();
}

}  // namespace lumetra::test
