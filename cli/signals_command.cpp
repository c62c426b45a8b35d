// lumetra-cli signals: the signal check against the open board for a number of seconds, with the
// dialog's start, timer and stop.
#include <unistd.h>

#include <QJsonArray>
#include <QJsonObject>
#include <chrono>
#include <cstdio>
#include <sstream>
#include <thread>

#include "analysis/signal_check.h"
#include "cli/arguments.h"
#include "cli/cli_output.h"

namespace lumetra::cli {

int RunSignals(Session& s) {
    Arguments args("signals", s.options.args);
    const std::optional<double> seconds = args.Number("--seconds");
    const std::optional<std::string> inputs = args.Value("--inputs");
    const bool record = args.Flag("--record-statistical");
    const bool falling = args.Flag("--falling");
    if (!args.Finish()) {
        return 2;
    }
    if (!seconds || !(*seconds > 0) || *seconds > 86400) {
        std::fputs("lumetra-cli signals: --seconds S is needed (0 < S <= 86400)\n", stderr);
        return 2;
    }
    std::vector<int> rows;
    if (inputs) {
        std::stringstream ss(*inputs);
        std::string item;
        while (std::getline(ss, item, ',')) {
            const auto v = ParseInteger(item);
            if (!v || *v < 0 || *v >= kSignalCount) {
                std::fprintf(stderr,
                             "lumetra-cli signals: --inputs takes signal rows 0 to 7, not '%s'\n",
                             item.c_str());
                return 2;
            }
            rows.push_back(static_cast<int>(*v));
        }
    }
    if (!s.OpenDocument()) {
        return NoBoard(s);
    }

    SignalCheck check(s.document->library(), s.document->handle(), s.prompt);
    for (int row : rows) {
        check.SetChecked(row, true);
        check.SetPolarity(row, falling ? 1 : 0);
    }
    check.SetMethod(record ? SignalMethod::kRecordStatistical : SignalMethod::kStatistical);

    const bool started = check.Start();
    if (started) {
        using Clock = std::chrono::steady_clock;
        const bool tty = isatty(STDERR_FILENO) != 0;
        const auto start = Clock::now();
        const auto end = start + std::chrono::duration_cast<Clock::duration>(
                                     std::chrono::duration<double>(*seconds));
        auto tick = start + std::chrono::milliseconds(kSignalTimerMs);
        while (tick < end) {
            std::this_thread::sleep_until(tick);
            const auto counts = check.TimerTick();
            if (tty) {
                std::fputs("\r", stderr);
                for (int row = 0; row < kSignalCount; ++row) {
                    if (check.checked(row)) {
                        std::fprintf(stderr, "%d:%u ", row, counts[static_cast<std::size_t>(row)]);
                    }
                }
            }
            tick += std::chrono::milliseconds(kSignalTimerMs);
        }
        std::this_thread::sleep_until(end);
        // One last tick so that the read-outs cover the whole time, then the dialog's Stop.
        check.TimerTick();
        check.Stop();
        if (tty) {
            std::fputs("\n", stderr);
        }
    }

    const auto& counts = check.shown();
    if (s.options.json) {
        QJsonObject o;
        o["method"] = record ? "Record Statistical" : "Statistical";
        o["seconds"] = *seconds;
        QJsonArray list;
        for (int row = 0; row < kSignalCount; ++row) {
            QJsonObject sig;
            sig["row"] = row;
            sig["name"] = QString::fromUtf8(SignalName(row).data(),
                                            static_cast<qsizetype>(SignalName(row).size()));
            sig["checked"] = check.checked(row);
            sig["event"] = static_cast<qint64>(SignalEventId(row, check.polarity(row)));
            sig["count"] = static_cast<qint64>(counts[static_cast<std::size_t>(row)]);
            list.append(sig);
        }
        o["signals"] = list;
        o["ok"] = started;
        o["log"] = LogArray(s);
        PrintJson(o);
    } else {
        for (int row = 0; row < kSignalCount; ++row) {
            std::printf("%-22s %-8s %u\n", std::string(SignalName(row)).c_str(),
                        check.checked(row) ? "checked" : "-",
                        counts[static_cast<std::size_t>(row)]);
        }
    }
    return started ? 0 : 1;
}

}  // namespace lumetra::cli
