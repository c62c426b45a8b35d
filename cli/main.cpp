// lumetra-cli: the headless front end over the same core, for scripts, production lines and
// end-to-end tests.
#include <QCoreApplication>
#include <cstdio>
#include <string>

#include "cli/arguments.h"
#include "cli/cli_session.h"

namespace {

void usage(FILE* out) {
    std::fputs(
        "usage: lumetra-cli [--board-library PATH] [--board N] [--json] [--verbose] COMMAND ...\n"
        "commands:\n",
        out);
    for (const lumetra::cli::Command& c : lumetra::cli::kCommands) {
        std::fprintf(out, "  %s\n", c.usage);
    }
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("KELM-Lumetra"));
    QCoreApplication::setApplicationName(QStringLiteral("Lumetra"));

    // The global options may stand anywhere; everything else belongs to the command.
    lumetra::cli::Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool hasValue = i + 1 < argc;
        if (a == "--board-library" && hasValue) {
            options.boardLibrary = argv[++i];
        } else if (a == "--board" && hasValue) {
            const auto n = lumetra::cli::ParseInteger(argv[++i]);
            if (!n || *n < 0) {
                std::fprintf(stderr, "lumetra-cli: --board needs a board index\n");
                return 2;
            }
            options.board = static_cast<int>(*n);
        } else if (a == "--json") {
            options.json = true;
        } else if (a == "--verbose") {
            options.verbose = true;
        } else if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        } else if (options.command.empty() && a.compare(0, 2, "--") != 0) {
            options.command = a;
        } else {
            options.args.push_back(a);
        }
    }

    for (const lumetra::cli::Command& c : lumetra::cli::kCommands) {
        if (options.command == c.name) {
            lumetra::cli::Session session(options);
            return c.run(session);
        }
    }
    std::fprintf(stderr, "lumetra-cli: %s\n",
                 options.command.empty() ? "no command given"
                                         : ("unknown command " + options.command).c_str());
    usage(stderr);
    return 2;
}
