#include "ConfigurationFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include "OrvixBoard.h"
#include "ParameterTable.h"

namespace orvix::sim {
namespace {

constexpr std::string_view kCrcKey = "crc32=";

Status damaged(const std::string& why) {
    return Status::fail(ORVIX_ERR_FILE_DAMAGED, "Configuration file damaged: " + why);
}

Status ioError(const std::string& what, const std::string& path, int err) {
    return Status::fail(ORVIX_ERR_FILE_IO, what + " '" + path + "': " + std::strerror(err));
}

bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

}  // namespace

uint32_t crc32Of(std::string_view bytes) {
    uLong crc = ::crc32(0L, Z_NULL, 0);
    // zlib takes the length as uInt: feed large inputs in pieces.
    while (!bytes.empty()) {
        size_t piece = std::min<size_t>(bytes.size(), 1u << 30);
        crc = ::crc32(crc, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(piece));
        bytes.remove_prefix(piece);
    }
    return static_cast<uint32_t>(crc);
}

std::string serializeConfiguration(const ParameterStore& store, std::string_view boardName) {
    std::string body =
        std::string(kConfigurationMagic) + " " + std::to_string(kConfigurationVersion) + "\n";
    body += "# board: " + std::string(boardName) + "\n";
    char line[64];
    for (const auto& [id, value] : store.persistentValues()) {
        std::snprintf(line, sizeof line, "0x%08X=%u\n", id, value);
        body += line;
    }
    std::snprintf(line, sizeof line, "crc32=0x%08X\n", crc32Of(body));
    return body + line;
}

Status parseConfiguration(std::string_view text, const ParameterStore& store,
                          ParameterValues& values) {
    values.clear();
    // The first line decides whose file this is and which version; a file of another version
    // may well use another checksum, so the version is judged before the checksum.
    size_t firstEnd = text.find('\n');
    std::string_view first = text.substr(0, firstEnd);
    if (first.substr(0, kConfigurationMagic.size()) != kConfigurationMagic ||
        first.size() <= kConfigurationMagic.size() + 1 ||
        first[kConfigurationMagic.size()] != ' ') {
        return damaged("not a board configuration file");
    }
    uint32_t version = 0;
    if (!parseNumber(first.substr(kConfigurationMagic.size() + 1), version)) {
        return damaged("unreadable version on line 1");
    }
    if (version != kConfigurationVersion) {
        return Status::fail(ORVIX_ERR_FILE_VERSION,
                            "Configuration file version " + std::to_string(version) +
                                " is not supported (this board reads version " +
                                std::to_string(kConfigurationVersion) + ")");
    }

    // The checksum line closes the file: anything after it, or no such line, is damage.
    if (text.empty() || text.back() != '\n') {
        return damaged("the file is truncated");
    }
    size_t lastStart = text.rfind('\n', text.size() - 2);
    lastStart = lastStart == std::string_view::npos ? 0 : lastStart + 1;
    std::string_view last = text.substr(lastStart, text.size() - 1 - lastStart);
    uint32_t expected = 0;
    if (last.substr(0, kCrcKey.size()) != kCrcKey ||
        !parseNumber(last.substr(kCrcKey.size()), expected)) {
        return damaged("the file is truncated (no checksum line)");
    }
    std::string_view body = text.substr(0, lastStart);
    if (crc32Of(body) != expected) {
        return damaged("checksum mismatch");
    }

    std::set<uint32_t> seen;
    int lineNo = 1;
    size_t pos = firstEnd + 1;
    while (pos < body.size()) {
        size_t end = body.find('\n', pos);
        std::string_view line = body.substr(pos, end - pos);
        pos = end + 1;
        ++lineNo;
        if (line.empty() || line.front() == '#') {
            continue;
        }
        size_t eq = line.find('=');
        uint32_t id = 0;
        uint32_t value = 0;
        if (eq == std::string_view::npos || !parseNumber(line.substr(0, eq), id) ||
            !parseNumber(line.substr(eq + 1), value)) {
            return damaged("line " + std::to_string(lineNo) + " is not 'id=value'");
        }
        const ParameterInfo* info = findParameter(id);
        if (info == nullptr || !info->persistent()) {
            return Status::fail(ORVIX_ERR_INVALID_PARAMETER,
                                "Configuration file line " + std::to_string(lineNo) + ": " +
                                    describeParameter(id) + " cannot be configured",
                                id);
        }
        if (!seen.insert(id).second) {
            return damaged("line " + std::to_string(lineNo) + " repeats " + describeParameter(id));
        }
        values.emplace_back(id, value);
    }
    for (const auto& [id, current] : store.persistentValues()) {
        (void)current;
        if (seen.count(id) == 0) {
            return damaged(describeParameter(id) + " is missing");
        }
    }
    return Status::success();
}

Status saveConfiguration(const ParameterStore& store, std::string_view boardName,
                         const std::string& path) {
    if (path.empty()) {
        return Status::fail(ORVIX_ERR_INVALID_ARGUMENT, "Save configuration: empty path");
    }
    std::string text = serializeConfiguration(store, boardName);
    std::string temp = path + ".XXXXXX";
    int fd = ::mkstemp(temp.data());
    if (fd < 0) {
        return ioError("Cannot create a file beside", path, errno);
    }
    bool written = writeAll(fd, text) && ::fsync(fd) == 0;
    int err = errno;
    if (::close(fd) != 0 && written) {
        written = false;
        err = errno;
    }
    // mkstemp creates 0600; configuration files are ordinary user files.
    mode_t mask = ::umask(0);
    ::umask(mask);
    ::chmod(temp.c_str(), 0666 & ~mask);
    if (!written) {
        ::unlink(temp.c_str());
        return ioError("Cannot write", temp, err);
    }
    if (::rename(temp.c_str(), path.c_str()) != 0) {
        err = errno;
        ::unlink(temp.c_str());
        return ioError("Cannot replace", path, err);
    }
    return Status::success();
}

Status loadConfiguration(ParameterStore& store, const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return ioError("Cannot open", path, errno);
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        return ioError("Cannot read", path, errno);
    }
    ParameterValues values;
    Status s = parseConfiguration(text.str(), store, values);
    if (!s.ok()) {
        return s;
    }
    return store.applyAll(values);
}

}  // namespace orvix::sim
