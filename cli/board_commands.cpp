// lumetra-cli boards / info / set.
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/process_flags.h"
#include "cli/arguments.h"
#include "cli/cli_output.h"

namespace lumetra::cli {
namespace {}  // namespace

int RunBoards(Session& s) {
    Arguments args("boards", s.options.args);
    const bool discover = args.Flag("--discover");
    if (!args.Finish()) {
        return 2;
    }
    if (discover) {
        // Board libraries that find cameras on a network (libOrvixAravis) search only when asked:
        // discovery broadcasts on every interface.
        ::setenv("ORVIX_DISCOVER", "1", 1);
    }
    if (!s.LoadLibrary()) {
        return 1;
    }
    BoardLibrary& lib = *s.library;
    int32_t count = 0;
    if (lib.GetBoardCount(ORVIX_BOARD_TYPE_PCIE, &count) != ORVIX_SUCCESS) {
        count = 0;
    }
    QJsonArray boards;
    for (int32_t i = 0; i < count; ++i) {
        char name[ORVIX_BOARD_NAME_MAX] = {};
        uint32_t size = sizeof name;
        lib.GetBoardName(ORVIX_BOARD_TYPE_PCIE, i, name, &size);
        name[sizeof name - 1] = '\0';
        const std::string n = name;
        QJsonObject b;
        b["index"] = i;
        b["name"] = QString::fromStdString(n);
        b["coaxpress"] =
            n.find("CXP") != std::string::npos || n.find("CoaXPress") != std::string::npos;
        const OrvixHandle h = lib.Open(ORVIX_BOARD_TYPE_PCIE, i);
        b["opens"] = h != ORVIX_INVALID_HANDLE;
        uint32_t version = 0;
        if (h != ORVIX_INVALID_HANDLE) {
            lib.GetInfo(h, ORVIX_BOARD_VERSION, &version);
            lib.Close(h);
        } else {
            OrvixErrorInfo err{};
            lib.GetLastError(&err, 1);
        }
        b["model"] = static_cast<int>((version >> 16) & 0xFF);
        char v[32];
        std::snprintf(v, sizeof v, "%u.%u.%u", (version >> 16) & 0xFF, (version >> 8) & 0xFF,
                      version & 0xFF);
        b["version"] = h != ORVIX_INVALID_HANDLE ? QString(v) : QString();
        boards.append(b);
    }
    if (s.options.json) {
        QJsonObject o;
        o["boards"] = boards;
        PrintJson(o);
    } else {
        std::printf("%-5s %-32s %-9s %-5s %-8s %s\n", "index", "name", "coaxpress", "model",
                    "version", "opens");
        for (const QJsonValue& v : boards) {
            const QJsonObject b = v.toObject();
            std::printf("%-5d %-32s %-9s %-5d %-8s %s\n", b["index"].toInt(),
                        b["name"].toString().toStdString().c_str(),
                        b["coaxpress"].toBool() ? "yes" : "no", b["model"].toInt(),
                        b["version"].toString().toStdString().c_str(),
                        b["opens"].toBool() ? "yes" : "no");
        }
    }
    return 0;
}

int RunInfo(Session& s) {
    if (!s.OpenDocument()) {
        return NoBoard(s);
    }
    PrintCache(s);
    return 0;
}

int RunSet(Session& s) {
    Arguments args("set", s.options.args);
    const auto jpeg = args.Integer("--jpeg");
    const auto rgbd = args.Integer("--rgbd");
    const std::vector<std::string> pairs = args.Positional();
    if (!args.Finish()) {
        return 2;
    }
    if (pairs.empty()) {
        std::fputs("lumetra-cli set: give at least one KEY=VALUE\n", stderr);
        return 2;
    }
    // Check every pair before the board is touched.
    std::vector<std::pair<uint32_t, uint32_t>> writes;
    for (const std::string& arg : pairs) {
        const auto eq = arg.find('=');
        if (eq == std::string::npos) {
            std::fprintf(stderr, "lumetra-cli set: '%s' is not KEY=VALUE\n", arg.c_str());
            return 2;
        }
        const std::string key = arg.substr(0, eq);
        uint32_t id = ParameterIdOfShortName(key);
        const auto number = ParseInteger(key);
        if (id == 0 && number && *number > 0 && *number <= 0xFFFFFFFF) {
            id = static_cast<uint32_t>(*number);
            // Only ids of the parameter record: anything else would reach the board unchecked.
            static const BoardParameters kKnown;
            if (!kKnown.has(id)) {
                std::fprintf(stderr, "lumetra-cli set: unknown parameter id 0x%08X\n", id);
                return 2;
            }
        }
        const auto value = ParseInteger(std::string_view(arg).substr(eq + 1));
        if (id == 0) {
            std::fprintf(stderr, "lumetra-cli set: unknown parameter '%s'\n", key.c_str());
            return 2;
        }
        if (!value || *value < 0 || *value > 0xFFFFFFFF) {
            std::fprintf(stderr, "lumetra-cli set: '%s' is not a number\n",
                         arg.substr(eq + 1).c_str());
            return 2;
        }
        writes.emplace_back(id, static_cast<uint32_t>(*value));
    }
    if (!s.OpenDocument()) {
        return NoBoard(s);
    }
    CKELM_PCIE_VexCardDoc& doc = *s.document;
    for (auto [id, value] : writes) {
        doc.parameters().set(id, value);
    }
    if (jpeg) {
        doc.imageFormat().jpegCompression = *jpeg != 0;
        doc.parameters().set(ORVIX_JPEG_COMPRESS_ENABLE, *jpeg != 0 ? 1 : 0);
    }
    if (rgbd) {
        doc.imageFormat().rgbdExtended = *rgbd != 0;
    }
    doc.ValidateGeometry();
    doc.ApplyParameters();
    doc.ReadBackParameters();
    const bool allocated = doc.AllocateFrameMemory();

    PrintCache(s);
    return allocated ? 0 : 1;
}

}  // namespace lumetra::cli

namespace lumetra::cli {

int RunConfig(Session& s) {
    Arguments args("config", s.options.args);
    const std::vector<std::string> words = args.Positional();
    if (!args.Finish()) {
        return 2;
    }
    if (words.size() != 2 || (words[0] != "save" && words[0] != "load")) {
        std::fputs("lumetra-cli config: give 'save FILE' or 'load FILE'\n", stderr);
        return 2;
    }
    // Without a board the workbench says so in the system's words.
    s.OpenDocument();
    Workbench& wb = *s.workbench;
    const bool ok =
        words[0] == "save" ? wb.SaveConfigurationTo(words[1]) : wb.LoadConfiguration(words[1]);
    PrintCache(s);
    return ok ? 0 : 1;
}

}  // namespace lumetra::cli
