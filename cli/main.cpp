// lumetra-cli: the headless front end over the same core, for scripts, production lines and
// end-to-end tests.
#include <QCoreApplication>
#include <cstdio>
#include <cstring>
#include <string>

#include "cli/cli_session.h"

namespace {

const char kUsage[] =
    "usage: lumetra-cli [--board-library PATH] [--board N] [--json] [--verbose] COMMAND ...\n"
    "commands:\n"
    "  boards                      list the boards\n"
    "  info                        open a board and print its parameters\n"
    "  set KEY=VALUE ...           change parameters (ids such as 0x10000002=1000, or width,\n"
    "                              height, taps, imageType, dataFormat, bayer, offsetX,\n"
    "                              triggerMode, triggerSource); --jpeg 0/1, --rgbd 0/1\n"
    "  grab --once | --frames N | --seconds S [--snapshot FILE]\n"
    "                              grab frames and print framesGrabbed, framesDisplayed,\n"
    "                              framesLost and fps\n";

bool parseInt(const char* text, int& out) {
    char* end = nullptr;
    long v = std::strtol(text, &end, 0);
    if (end == text || *end != '\0') {
        return false;
    }
    out = static_cast<int>(v);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("KELM-Lumetra"));
    QCoreApplication::setApplicationName(QStringLiteral("Lumetra"));

    lumetra::cli::Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&](const char* name) -> const char* {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "lumetra-cli: %s needs a value\n", name);
                std::exit(2);
            }
            return argv[++i];
        };
        auto intValue = [&](const char* name) {
            int v = 0;
            if (!parseInt(value(name), v)) {
                std::fprintf(stderr, "lumetra-cli: %s needs a number\n", name);
                std::exit(2);
            }
            return v;
        };
        if (a == "--board-library") {
            options.boardLibrary = value("--board-library");
        } else if (a == "--board") {
            options.board = intValue("--board");
        } else if (a == "--json") {
            options.json = true;
        } else if (a == "--verbose") {
            options.verbose = true;
        } else if (a == "--jpeg") {
            options.jpeg = intValue("--jpeg");
        } else if (a == "--rgbd") {
            options.rgbd = intValue("--rgbd");
        } else if (a == "--once") {
            options.once = true;
        } else if (a == "--frames") {
            options.frames = intValue("--frames");
        } else if (a == "--seconds") {
            char* end = nullptr;
            const char* text = value("--seconds");
            const double v = std::strtod(text, &end);
            if (end == text || *end != '\0' || v <= 0) {
                std::fprintf(stderr, "lumetra-cli: --seconds needs a positive number\n");
                return 2;
            }
            options.seconds = v;
        } else if (a == "--snapshot") {
            options.snapshot = value("--snapshot");
        } else if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a.size() > 2 && a.compare(0, 2, "--") == 0) {
            std::fprintf(stderr, "lumetra-cli: unknown option %s\n%s", a.c_str(), kUsage);
            return 2;
        } else if (options.command.empty()) {
            options.command = a;
        } else {
            options.args.push_back(a);
        }
    }

    lumetra::cli::Session session(options);
    if (options.command == "boards") {
        return lumetra::cli::RunBoards(session);
    }
    if (options.command == "info") {
        return lumetra::cli::RunInfo(session);
    }
    if (options.command == "set") {
        return lumetra::cli::RunSet(session);
    }
    if (options.command == "grab") {
        return lumetra::cli::RunGrab(session);
    }
    std::fprintf(stderr, "lumetra-cli: %s\n%s",
                 options.command.empty() ? "no command given"
                                         : ("unknown command " + options.command).c_str(),
                 kUsage);
    return 2;
}
