#include "BoardConfig.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

#include "OrvixBoard.h"
#include "ParameterTable.h"

namespace orvix::sim {
namespace {

constexpr size_t kMaxBoards = 16;
constexpr uint32_t kDefaultSignalRates[kSignalCount] = {1000, 100, 50, 2000, 2000, 60, 60, 30};

std::string_view trim(std::string_view s) {
    const char* ws = " \t\r\n";
    size_t b = s.find_first_not_of(ws);
    if (b == std::string_view::npos) {
        return {};
    }
    size_t e = s.find_last_not_of(ws);
    return s.substr(b, e - b + 1);
}

std::vector<std::string_view> split(std::string_view s, char sep) {
    std::vector<std::string_view> parts;
    size_t start = 0;
    while (true) {
        size_t pos = s.find(sep, start);
        parts.push_back(trim(s.substr(start, pos == std::string_view::npos ? pos : pos - start)));
        if (pos == std::string_view::npos) {
            break;
        }
        start = pos + 1;
    }
    return parts;
}

// A key's parser: false with `why` filled when the value is not acceptable.
using KeyParser = std::function<bool(std::string_view, BoardConfig&, std::string& why)>;

bool number(std::string_view v, uint32_t& out, std::string& why) {
    if (!parseNumber(v, out)) {
        // Appended piecewise: GCC 12 warns falsely on operator+ of a literal at -O3.
        why.assign(1, '\'');
        why.append(v).append("' is not a number");
        return false;
    }
    return true;
}

KeyParser numberKey(uint32_t BoardConfig::*field, uint32_t min, uint32_t max) {
    return [=](std::string_view v, BoardConfig& b, std::string& why) {
        uint32_t n = 0;
        if (!number(v, n, why)) {
            return false;
        }
        if (n < min || n > max) {
            why = std::to_string(n) + " is outside " + std::to_string(min) + ".." +
                  std::to_string(max);
            return false;
        }
        b.*field = n;
        return true;
    };
}

// Keys that are board parameters take the parameter's own legal values.
KeyParser parameterKey(uint32_t BoardConfig::*field, uint32_t id) {
    return [=](std::string_view v, BoardConfig& b, std::string& why) {
        uint32_t n = 0;
        if (!number(v, n, why)) {
            return false;
        }
        const ParameterInfo* info = findParameter(id);
        if (info != nullptr && !info->accepts(n)) {
            why = std::to_string(n) + " is not one of " + info->legalValues();
            return false;
        }
        b.*field = n;
        return true;
    };
}

bool parseIdList(std::string_view v, std::vector<uint32_t>& out, std::string& why) {
    out.clear();
    if (v.empty()) {
        return true;
    }
    for (std::string_view item : split(v, ',')) {
        uint32_t id = 0;
        if (!number(item, id, why)) {
            return false;
        }
        if (findParameter(id) == nullptr) {
            why = "unknown parameter id " + std::string(item);
            return false;
        }
        out.push_back(id);
    }
    return true;
}

bool parseDefects(std::string_view v, std::vector<Defect>& out, std::string& why) {
    out.clear();
    if (v.empty()) {
        return true;
    }
    for (std::string_view item : split(v, ';')) {
        if (item.empty()) {
            continue;  // a trailing ';' is harmless
        }
        std::vector<std::string_view> f = split(item, ':');
        Defect d;
        if (f.size() != 3 || !parseNumber(f[0], d.x) || !parseNumber(f[1], d.y) ||
            !parseNumber(f[2], d.value)) {
            why = "defect '" + std::string(item) + "' is not x:y:value";
            return false;
        }
        if (d.x > 65534 || d.y > 65534 || d.value > 65535) {
            why = "defect '" + std::string(item) + "' is out of range";
            return false;
        }
        out.push_back(d);
    }
    return true;
}

bool parseSignalRates(std::string_view v, std::array<uint32_t, kSignalCount>& rates,
                      std::string& why) {
    if (v.empty()) {
        return true;
    }
    for (std::string_view item : split(v, ';')) {
        if (item.empty()) {
            continue;
        }
        std::vector<std::string_view> f = split(item, ':');
        uint32_t base = 0;
        uint32_t hz = 0;
        if (f.size() != 2 || !parseNumber(f[0], base) || !parseNumber(f[1], hz)) {
            why = "signal rate '" + std::string(item) + "' is not base:hz";
            return false;
        }
        int row = -1;
        for (int r = 0; r < kSignalCount; ++r) {
            if (base == (1u << r)) {
                row = r;
            }
        }
        if (row < 0) {
            why = "signal base " + std::to_string(base) + " is not one of 1, 2, 4, ... 128";
            return false;
        }
        if (hz > 1000000) {
            why = "signal rate " + std::to_string(hz) + " Hz is above 1000000";
            return false;
        }
        rates[row] = hz;
    }
    return true;
}

const std::map<std::string, KeyParser, std::less<>>& keyParsers() {
    static const std::map<std::string, KeyParser, std::less<>> parsers = {
        {"name",
         [](std::string_view v, BoardConfig& b, std::string& why) {
             if (v.size() >= 2 && v.front() == '"' && v.back() == '"') {
                 v = v.substr(1, v.size() - 2);
             }
             if (v.empty() || v.size() >= ORVIX_BOARD_NAME_MAX) {
                 why = "the name must have 1 to " + std::to_string(ORVIX_BOARD_NAME_MAX - 1) +
                       " characters";
                 return false;
             }
             b.name = std::string(v);
             return true;
         }},
        {"version", numberKey(&BoardConfig::version, 0, 0xFFFFFFFFu)},
        {"serial", numberKey(&BoardConfig::serial, 0, 0xFFFFFFFFu)},
        {"open_fails",
         [](std::string_view v, BoardConfig& b, std::string& why) {
             uint32_t n = 0;
             if (!number(v, n, why) || n > 1) {
                 why = why.empty() ? "open_fails must be 0 or 1" : why;
                 return false;
             }
             b.openFails = n == 1;
             return true;
         }},
        {"fail_set", [](std::string_view v, BoardConfig& b,
                        std::string& why) { return parseIdList(v, b.failSet, why); }},
        {"fail_get", [](std::string_view v, BoardConfig& b,
                        std::string& why) { return parseIdList(v, b.failGet, why); }},
        {"width", parameterKey(&BoardConfig::width, ORVIX_IMAGE_WIDTH)},
        {"height", parameterKey(&BoardConfig::height, ORVIX_IMAGE_HEIGHT)},
        {"image_type", parameterKey(&BoardConfig::imageType, ORVIX_IMAGE_TYPE)},
        {"data_format", parameterKey(&BoardConfig::dataFormat, ORVIX_DATA_FORMAT)},
        {"taps", parameterKey(&BoardConfig::taps, ORVIX_TAP_NUMBER)},
        {"bayer", parameterKey(&BoardConfig::bayer, ORVIX_BAYER_PATTERN)},
        {"scan_type", parameterKey(&BoardConfig::scanType, ORVIX_SCAN_TYPE)},
        {"buffers", parameterKey(&BoardConfig::buffers, ORVIX_BUFFER_COUNT)},
        {"fps", numberKey(&BoardConfig::fps, 1, 100000)},
        {"line_rate", numberKey(&BoardConfig::lineRate, 1, 10000000)},
        {"pattern",
         [](std::string_view v, BoardConfig& b, std::string& why) {
             if (!parsePattern(v, b.pattern)) {
                 why = "unknown pattern '" + std::string(v) +
                       "' (gradient, bars, checker, noise, scene, flat or static)";
                 return false;
             }
             return true;
         }},
        {"level",
         [](std::string_view v, BoardConfig& b, std::string& why) {
             uint32_t n = 0;
             if (!number(v, n, why)) {
                 return false;
             }
             if (n > 65535) {
                 why = "level " + std::to_string(n) + " is above 65535";
                 return false;
             }
             b.level = n;
             return true;
         }},
        {"defects", [](std::string_view v, BoardConfig& b,
                       std::string& why) { return parseDefects(v, b.defects, why); }},
        {"pcie_link", numberKey(&BoardConfig::pcieLink, 0, 0xFFFFFFFFu)},
        {"cxp_speed", numberKey(&BoardConfig::cxpSpeed, 0, 15)},
        {"signal_loss_after_ms", numberKey(&BoardConfig::signalLossAfterMs, 0, 0xFFFFFFFFu)},
        {"stop_failures", numberKey(&BoardConfig::stopFailures, 0, 1000)},
        {"single_shot_error",
         [](std::string_view v, BoardConfig& b, std::string& why) {
             uint32_t n = 0;
             if (!number(v, n, why)) {
                 return false;
             }
             if (n == ORVIX_ERR_NONE) {
                 why = "error code 1 means success; use 0 for no error";
                 return false;
             }
             b.singleShotError = n;
             return true;
         }},
        {"timeout_every", numberKey(&BoardConfig::timeoutEvery, 0, 0xFFFFFFFFu)},
        {"clock",
         [](std::string_view v, BoardConfig& b, std::string& why) {
             if (v != "steady" && v != "virtual") {
                 why = "unknown clock '" + std::string(v) + "' (steady or virtual)";
                 return false;
             }
             b.virtualClock = v == "virtual";
             return true;
         }},
        {"signal_rates", [](std::string_view v, BoardConfig& b,
                            std::string& why) { return parseSignalRates(v, b.signalRates, why); }},
    };
    return parsers;
}

bool parseSectionIndex(std::string_view section, size_t& index) {
    constexpr std::string_view kPrefix = "board";
    if (section.substr(0, kPrefix.size()) != kPrefix || section.size() == kPrefix.size()) {
        return false;
    }
    index = 0;
    for (char c : section.substr(kPrefix.size())) {
        if (c < '0' || c > '9' || index > kMaxBoards) {
            return false;
        }
        index = index * 10 + static_cast<size_t>(c - '0');
    }
    return true;
}

BoardCatalog failure(const std::string& file, int line, std::string reason) {
    BoardCatalog c;
    c.error = ConfigError{file, line, std::move(reason)};
    return c;
}

}  // namespace

bool BoardConfig::isCoaXPress() const {
    return name.find("CXP") != std::string::npos || name.find("CoaXPress") != std::string::npos;
}

std::string ConfigError::message() const {
    return file + ":" + std::to_string(line) + ": " + reason;
}

BoardConfig defaultBoard(size_t index) {
    BoardConfig b;
    std::copy(std::begin(kDefaultSignalRates), std::end(kDefaultSignalRates),
              b.signalRates.begin());
    b.buffers = 8;
    b.pattern = Pattern::Bars;
    b.pcieLink = 0x83;
    if (index == 1) {
        b.name = "PCIe-CXP4 Simulator";
        b.version = 0x000A0100;
        b.serial = 0x18030043;
        b.width = 2560;
        b.height = 2048;
        b.imageType = 0;
        b.dataFormat = 12;
        b.taps = 1;
        b.bayer = 0;
        b.fps = 30;
        return b;
    }
    b.name = index == 0 ? "PCIe-CL Full Simulator" : "PCIe-CL Simulator " + std::to_string(index);
    b.version = 0x00051302;
    b.serial = 0x18030042 + static_cast<uint32_t>(index);
    b.width = 1920;
    b.height = 1200;
    b.imageType = 0;
    b.dataFormat = 8;
    b.taps = 8;
    b.bayer = 2;
    b.fps = 60;
    return b;
}

std::vector<BoardConfig> defaultBoards() {
    return {defaultBoard(0), defaultBoard(1)};
}

BoardCatalog parseBoardIni(std::string_view text, const std::string& fileName) {
    BoardCatalog catalog;
    std::vector<std::map<std::string, int, std::less<>>> seenKeys;
    int lineNo = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        std::string_view raw = text.substr(pos, end == std::string_view::npos ? end : end - pos);
        pos = end == std::string_view::npos ? text.size() : end + 1;
        ++lineNo;
        std::string_view line = trim(raw);
        if (line.empty() || line.front() == ';' || line.front() == '#') {
            continue;
        }
        if (line.front() == '[') {
            if (line.back() != ']') {
                return failure(fileName, lineNo, "section header without ']'");
            }
            std::string_view section = trim(line.substr(1, line.size() - 2));
            size_t index = 0;
            if (!parseSectionIndex(section, index)) {
                return failure(fileName, lineNo,
                               "unknown section [" + std::string(section) +
                                   "] (expected [board0], [board1], ...)");
            }
            if (index != catalog.boards.size()) {
                return failure(fileName, lineNo,
                               "section [" + std::string(section) +
                                   "] out of order: expected [board" +
                                   std::to_string(catalog.boards.size()) + "]");
            }
            if (index >= kMaxBoards) {
                return failure(fileName, lineNo,
                               "at most " + std::to_string(kMaxBoards) + " boards");
            }
            catalog.boards.push_back(defaultBoard(index));
            seenKeys.emplace_back();
            continue;
        }
        size_t eq = line.find('=');
        if (eq == std::string_view::npos) {
            return failure(fileName, lineNo,
                           "expected 'key = value' or a section, got '" + std::string(line) + "'");
        }
        if (catalog.boards.empty()) {
            return failure(fileName, lineNo, "key outside of a [boardN] section");
        }
        std::string_view key = trim(line.substr(0, eq));
        std::string_view value = trim(line.substr(eq + 1));
        auto parser = keyParsers().find(key);
        if (parser == keyParsers().end()) {
            return failure(fileName, lineNo, "unknown key '" + std::string(key) + "'");
        }
        auto [previous, inserted] = seenKeys.back().emplace(std::string(key), lineNo);
        if (!inserted) {
            return failure(fileName, lineNo,
                           "key '" + std::string(key) + "' already given on line " +
                               std::to_string(previous->second));
        }
        std::string why;
        if (!parser->second(value, catalog.boards.back(), why)) {
            return failure(fileName, lineNo, std::string(key) + ": " + why);
        }
    }
    return catalog;
}

BoardCatalog loadBoardIni(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return failure(path, 0, std::string("cannot open the file: ") + std::strerror(errno));
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        return failure(path, 0, "cannot read the file");
    }
    return parseBoardIni(text.str(), path);
}

BoardCatalog loadBoardCatalog() {
    const char* path = std::getenv("ORVIX_SIM_CONFIG");
    if (path == nullptr || *path == '\0') {
        return BoardCatalog{defaultBoards(), std::nullopt};
    }
    return loadBoardIni(path);
}

bool parseNumber(std::string_view text, uint32_t& value) {
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty()) {
        return false;
    }
    uint64_t v = 0;
    for (char c : text) {
        int digit = 0;
        if (c >= '0' && c <= '9') {
            digit = c - '0';
        } else if (base == 16 && c >= 'a' && c <= 'f') {
            digit = c - 'a' + 10;
        } else if (base == 16 && c >= 'A' && c <= 'F') {
            digit = c - 'A' + 10;
        } else {
            return false;
        }
        v = v * static_cast<uint64_t>(base) + static_cast<uint64_t>(digit);
        if (v > 0xFFFFFFFFull) {
            return false;
        }
    }
    value = static_cast<uint32_t>(v);
    return true;
}

namespace {
constexpr std::pair<Pattern, const char*> kPatternNames[] = {
    {Pattern::Gradient, "gradient"}, {Pattern::Bars, "bars"},   {Pattern::Checker, "checker"},
    {Pattern::Noise, "noise"},       {Pattern::Scene, "scene"}, {Pattern::Flat, "flat"},
    {Pattern::Static, "static"},
};
}  // namespace

bool parsePattern(std::string_view text, Pattern& pattern) {
    for (const auto& [p, name] : kPatternNames) {
        if (text == name) {
            pattern = p;
            return true;
        }
    }
    return false;
}

const char* patternName(Pattern pattern) {
    for (const auto& [p, name] : kPatternNames) {
        if (p == pattern) {
            return name;
        }
    }
    return "?";
}

}  // namespace orvix::sim
