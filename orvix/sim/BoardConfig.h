// What the simulator offers: one BoardConfig per simulated board, from the INI file named by
// ORVIX_SIM_CONFIG or from the built-in pair of boards.
// Thread: plain values and pure functions; safe from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvix::sim {

enum class Pattern { Gradient, Bars, Checker, Noise, Scene, Flat, Static };

struct Defect {
    uint32_t x = 0;
    uint32_t y = 0;
    uint32_t value = 0;
    bool operator==(const Defect&) const = default;
};

inline constexpr int kSignalCount = 8;  // rows 0..7, event base 1 << row

struct BoardConfig {
    std::string name;
    uint32_t version = 0;
    uint32_t serial = 0;
    bool openFails = false;
    std::vector<uint32_t> failSet;
    std::vector<uint32_t> failGet;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t imageType = 0;
    uint32_t dataFormat = 8;
    uint32_t taps = 1;
    uint32_t bayer = 0;
    uint32_t scanType = 0;  // 0 area scan (paced by fps), 1 line scan (paced by lineRate)
    uint32_t fps = 30;
    uint32_t lineRate = 50000;
    uint32_t buffers = 8;
    Pattern pattern = Pattern::Bars;
    std::optional<uint32_t> level;  // unset: half the sample range
    std::vector<Defect> defects;
    uint32_t pcieLink = 0x83;
    uint32_t cxpSpeed = 4;           // CoaXPress link speed code while the link is up
    uint32_t signalLossAfterMs = 0;  // 0: never
    uint32_t stopFailures = 0;
    uint32_t singleShotError = 0;                      // 0: single shots succeed
    uint32_t timeoutEvery = 0;                         // 0: no frame times out
    std::array<uint32_t, kSignalCount> signalRates{};  // pulses per second per signal row
    bool virtualClock = false;  // "clock = virtual": time jumps to each due event

    // Boards whose name says so are CoaXPress boards; the rest are CameraLink boards.
    bool isCoaXPress() const;
    uint32_t modelCode() const { return version >> 16; }
};

// Where a configuration went wrong; line 0 when the file as a whole is at fault.
struct ConfigError {
    std::string file;
    int line = 0;
    std::string reason;
    // "<file>:<line>: <reason>"
    std::string message() const;
};

struct BoardCatalog {
    std::vector<BoardConfig> boards;
    std::optional<ConfigError> error;  // set: the catalog offers no board
};

// The built-in defaults of board `index` (boards past the second repeat the first, renamed).
BoardConfig defaultBoard(size_t index);
std::vector<BoardConfig> defaultBoards();

BoardCatalog parseBoardIni(std::string_view text, const std::string& fileName);
BoardCatalog loadBoardIni(const std::string& path);
// ORVIX_SIM_CONFIG when set, else the built-in boards.
BoardCatalog loadBoardCatalog();

// Decimal or 0x-hex, no sign, no surrounding text, at most 0xFFFFFFFF.
bool parseNumber(std::string_view text, uint32_t& value);
bool parsePattern(std::string_view text, Pattern& pattern);
const char* patternName(Pattern pattern);

}  // namespace orvix::sim
