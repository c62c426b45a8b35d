// Which cameras the library offers. They are named, never searched for by default: the
// environment variable LUMETRA_ARAVIS_CAMERAS (comma-separated IP addresses or device ids) or,
// without it, the file OrvixAravis.ini next to the library. Discovery, which broadcasts on every
// network, runs only when ORVIX_DISCOVER=1 asks for it.
// Thread: pure functions; safe from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvix::aravis {

inline constexpr const char* kCamerasVariable = "LUMETRA_ARAVIS_CAMERAS";
inline constexpr const char* kDiscoverVariable = "ORVIX_DISCOVER";
inline constexpr const char* kIniFileName = "OrvixAravis.ini";

struct CameraList {
    std::vector<std::string> ids;
    std::string origin;                // "LUMETRA_ARAVIS_CAMERAS", the INI path, or empty
    std::optional<std::string> error;  // "file:line: reason" of a malformed INI file
};

// "a, b ,,c" gives a, b, c.
std::vector<std::string> splitCameraIds(std::string_view text);

// The INI file's text: `#` or `;` comments, an optional [cameras] section, and the one key
// `cameras = id, id, ...`. Anything else is an error naming the file and line.
CameraList parseCameraIni(std::string_view text, const std::string& path);

// The variable when set and not empty, else the INI file when it exists, else no camera.
CameraList loadCameraList(const char* variable, const std::string& iniPath);

}  // namespace orvix::aravis
