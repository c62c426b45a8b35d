#include "CameraList.h"

#include <fstream>
#include <iterator>

namespace orvix::aravis {
namespace {

std::string_view trim(std::string_view s) {
    const auto first = s.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = s.find_last_not_of(" \t\r");
    return s.substr(first, last - first + 1);
}

}  // namespace

std::vector<std::string> splitCameraIds(std::string_view text) {
    std::vector<std::string> ids;
    while (!text.empty()) {
        const size_t comma = text.find(',');
        const std::string_view item = trim(text.substr(0, comma));
        if (!item.empty()) {
            ids.emplace_back(item);
        }
        if (comma == std::string_view::npos) {
            break;
        }
        text.remove_prefix(comma + 1);
    }
    return ids;
}

CameraList parseCameraIni(std::string_view text, const std::string& path) {
    CameraList list;
    list.origin = path;
    int lineNo = 0;
    bool seen = false;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const std::string_view line = trim(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        ++lineNo;
        auto fail = [&](const std::string& why) {
            list.ids.clear();
            list.error = path + ":" + std::to_string(lineNo) + ": " + why;
            return list;
        };
        if (line.empty() || line.front() == '#' || line.front() == ';') {
            continue;
        }
        if (line.front() == '[') {
            if (line != "[cameras]") {
                return fail("unknown section " + std::string(line));
            }
            continue;
        }
        const size_t eq = line.find('=');
        if (eq == std::string_view::npos) {
            return fail("not 'key = value'");
        }
        const std::string_view key = trim(line.substr(0, eq));
        if (key != "cameras") {
            return fail("unknown key '" + std::string(key) + "'");
        }
        if (seen) {
            return fail("'cameras' given twice");
        }
        seen = true;
        list.ids = splitCameraIds(line.substr(eq + 1));
    }
    return list;
}

CameraList loadCameraList(const char* variable, const std::string& iniPath) {
    if (variable != nullptr && *variable != '\0') {
        CameraList list;
        list.origin = kCamerasVariable;
        list.ids = splitCameraIds(variable);
        return list;
    }
    std::ifstream in(iniPath, std::ios::binary);
    if (!in) {
        return {};
    }
    const std::string text(std::istreambuf_iterator<char>(in), {});
    return parseCameraIni(text, iniPath);
}

}  // namespace orvix::aravis
