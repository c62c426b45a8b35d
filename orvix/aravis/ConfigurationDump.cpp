#include "ConfigurationDump.h"

#include <zlib.h>

#include <charconv>
#include <cstdio>

#include "OrvixBoard.h"

namespace orvix::aravis {
namespace {

constexpr std::string_view kCrcKey = "crc32=";

Status damaged(const std::string& why) {
    return Status::fail(ORVIX_ERR_FILE_DAMAGED, "Configuration file damaged: " + why);
}

std::string escape(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    for (char c : value) {
        switch (c) {
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            default:
                out += c;
        }
    }
    return out;
}

bool unescape(std::string_view text, std::string& out) {
    out.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out += text[i];
            continue;
        }
        if (++i == text.size()) {
            return false;
        }
        switch (text[i]) {
            case '\\':
                out += '\\';
                break;
            case 'n':
                out += '\n';
                break;
            case 'r':
                out += '\r';
                break;
            default:
                return false;
        }
    }
    return true;
}

bool parseUnsigned(std::string_view text, uint32_t& value, int base = 10) {
    if (base == 16) {
        if (text.substr(0, 2) != "0x" && text.substr(0, 2) != "0X") {
            return false;
        }
        text.remove_prefix(2);
    }
    auto [p, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return ec == std::errc() && p == text.data() + text.size() && !text.empty();
}

// "Name[Sel=Val][Sel2=Val2]=value"
bool parseFeatureLine(std::string_view line, FeatureValue& f) {
    size_t i = 0;
    while (i < line.size() && line[i] != '[' && line[i] != '=') {
        ++i;
    }
    f.feature = std::string(line.substr(0, i));
    if (!isFeatureName(f.feature)) {
        return false;
    }
    f.selectors.clear();
    while (i < line.size() && line[i] == '[') {
        const size_t close = line.find(']', i);
        if (close == std::string_view::npos) {
            return false;
        }
        const std::string_view group = line.substr(i + 1, close - i - 1);
        const size_t eq = group.find('=');
        if (eq == std::string_view::npos || !isFeatureName(group.substr(0, eq)) ||
            eq + 1 == group.size()) {
            return false;
        }
        f.selectors.emplace_back(std::string(group.substr(0, eq)),
                                 std::string(group.substr(eq + 1)));
        i = close + 1;
    }
    if (i >= line.size() || line[i] != '=') {
        return false;
    }
    return unescape(line.substr(i + 1), f.value);
}

}  // namespace

bool isFeatureName(std::string_view name) {
    if (name.empty()) {
        return false;
    }
    for (char c : name) {
        const bool ok =
            (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
        if (!ok) {
            return false;
        }
    }
    return true;
}

uint32_t crc32Of(std::string_view bytes) {
    uLong crc = ::crc32(0L, Z_NULL, 0);
    while (!bytes.empty()) {
        const size_t piece = std::min<size_t>(bytes.size(), 1u << 30);
        crc = ::crc32(crc, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(piece));
        bytes.remove_prefix(piece);
    }
    return static_cast<uint32_t>(crc);
}

std::string serializeDump(const CameraDump& dump) {
    std::string body = std::string(kDumpMagic) + " " + std::to_string(kDumpVersion) + "\n";
    body += "@vendor=" + escape(dump.vendor) + "\n";
    body += "@model=" + escape(dump.model) + "\n";
    body += "@buffers=" + std::to_string(dump.buffers) + "\n";
    body += "@colour=" + std::to_string(dump.colour) + "\n";
    for (const FeatureValue& f : dump.features) {
        body += f.feature;
        for (const auto& [selector, value] : f.selectors) {
            body.append("[").append(selector).append("=").append(value).append("]");
        }
        body.append("=").append(escape(f.value)).append("\n");
    }
    char line[32];
    std::snprintf(line, sizeof line, "crc32=0x%08X\n", crc32Of(body));
    return body + line;
}

Status parseDump(std::string_view text, CameraDump& out) {
    out = CameraDump{};
    // Filled aside: nothing of a refused file reaches the caller.
    CameraDump dump;
    const size_t firstEnd = text.find('\n');
    const std::string_view first = text.substr(0, firstEnd);
    if (first.substr(0, kDumpMagic.size()) != kDumpMagic || first.size() <= kDumpMagic.size() + 1 ||
        first[kDumpMagic.size()] != ' ') {
        return damaged("not a camera configuration file");
    }
    uint32_t version = 0;
    if (!parseUnsigned(first.substr(kDumpMagic.size() + 1), version)) {
        return damaged("unreadable version on line 1");
    }
    if (version != kDumpVersion) {
        return Status::fail(ORVIX_ERR_FILE_VERSION,
                            "Configuration file version " + std::to_string(version) +
                                " is not supported (this library reads version " +
                                std::to_string(kDumpVersion) + ")");
    }
    if (text.back() != '\n') {
        return damaged("the file is truncated");
    }
    size_t lastStart = text.rfind('\n', text.size() - 2);
    lastStart = lastStart == std::string_view::npos ? 0 : lastStart + 1;
    const std::string_view last = text.substr(lastStart, text.size() - 1 - lastStart);
    uint32_t expected = 0;
    if (last.substr(0, kCrcKey.size()) != kCrcKey ||
        !parseUnsigned(last.substr(kCrcKey.size()), expected, 16)) {
        return damaged("the file is truncated (no checksum line)");
    }
    const std::string_view body = text.substr(0, lastStart);
    if (crc32Of(body) != expected) {
        return damaged("checksum mismatch");
    }

    bool vendor = false, model = false, buffers = false, colour = false;
    int lineNo = 1;
    size_t pos = firstEnd + 1;
    while (pos < body.size()) {
        const size_t end = body.find('\n', pos);
        const std::string_view line = body.substr(pos, end - pos);
        pos = end + 1;
        ++lineNo;
        const std::string where = "line " + std::to_string(lineNo);
        if (line.empty()) {
            return damaged(where + " is empty");
        }
        if (line.front() == '@') {
            const size_t eq = line.find('=');
            const std::string_view key = line.substr(1, eq == std::string_view::npos ? 0 : eq - 1);
            const std::string_view value =
                eq == std::string_view::npos ? std::string_view{} : line.substr(eq + 1);
            bool ok = eq != std::string_view::npos;
            bool* seen = nullptr;
            if (key == "vendor") {
                ok = ok && unescape(value, dump.vendor);
                seen = &vendor;
            } else if (key == "model") {
                ok = ok && unescape(value, dump.model);
                seen = &model;
            } else if (key == "buffers") {
                ok = ok && parseUnsigned(value, dump.buffers) && dump.buffers >= 1 &&
                     dump.buffers <= 256;
                seen = &buffers;
            } else if (key == "colour") {
                ok = ok && parseUnsigned(value, dump.colour) &&
                     (dump.colour == 1 || dump.colour == 3);
                seen = &colour;
            } else {
                ok = false;
            }
            if (!ok || seen == nullptr || *seen) {
                return damaged(where + " is not a valid setting");
            }
            *seen = true;
            continue;
        }
        FeatureValue f;
        if (!parseFeatureLine(line, f)) {
            return damaged(where + " is not 'Feature=value'");
        }
        f.line = lineNo;
        dump.features.push_back(std::move(f));
    }
    if (!vendor || !model || !buffers || !colour) {
        return damaged("the camera's identity or settings are missing");
    }
    out = std::move(dump);
    return Status::success();
}

}  // namespace orvix::aravis
