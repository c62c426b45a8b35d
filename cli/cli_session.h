// What every lumetra-cli command shares: options, the board library, the board document, and
// the front-end side of the core's reporting interfaces.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "acquisition/board_library.h"
#include "base/messages.h"
#include "qtcore/qt_settings.h"
#include "workbench/workbench.h"

namespace lumetra::cli {

struct Options {
    std::string command;
    std::vector<std::string> args;  // what follows the command, the global options removed
    std::string boardLibrary;
    int board = -1;
    bool json = false;
    bool verbose = false;
};

// Log lines go to standard error with the message window's time stamp, and are kept for --json.
class StderrLog final : public MessageLog {
  public:
    void log(std::string_view text) override;
    std::vector<std::string> lines() const;

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

// The command-line tool's main frame: window messages from the core's threads queue up here and
// are handled on the main thread.
class QueuedSink final : public MessageSink {
  public:
    using Handler = std::function<void(uint32_t, intptr_t, intptr_t)>;

    void post(uint32_t message, intptr_t wParam, intptr_t lParam) override;

    // Handles what has queued up, waiting up to timeout for the first message.
    void Dispatch(const Handler& handler, std::chrono::milliseconds timeout);

    std::map<uint32_t, uint64_t> counts() const;
    uint64_t count(uint32_t message) const;

  private:
    struct Message {
        uint32_t message;
        intptr_t wParam, lParam;
    };
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<Message> queue_;
    std::map<uint32_t, uint64_t> counts_;
};

// Boxes become log lines; a file dialog answers with the file the command line named, if any,
// and questions are answered "no".
class StderrPrompt final : public Prompt {
  public:
    explicit StderrPrompt(MessageLog& log) : log_(log) {}
    void information(std::string_view text) override { log_.log(text); }
    PromptAnswer question(std::string_view, std::string_view) override { return PromptAnswer::kNo; }
    std::optional<std::string> openFile(const FileRequest&) override { return file; }
    std::optional<std::string> saveFile(const FileRequest&) override { return file; }

    std::optional<std::string> file;

  private:
    MessageLog& log_;
};

class Session {
  public:
    explicit Session(const Options& options);
    // Loads the board library; false (with the reason logged) when it cannot be loaded.
    bool LoadLibrary();
    // Loads the library and constructs the board document the way the workbench does.
    bool OpenDocument();
    // A single shot on the open document's board, its messages handled; true when one frame came.
    bool SingleShot();
    // Handles the queued messages the way the main frame does, waiting up to timeout for one.
    void Dispatch(std::chrono::milliseconds timeout = std::chrono::milliseconds(0));

    const Options& options;
    QtSettings settings;
    StderrLog log;
    QueuedSink sink;
    StderrPrompt prompt{log};
    std::unique_ptr<BoardLibrary> library;
    std::unique_ptr<Workbench> workbench;
    CKELM_PCIE_VexCardDoc* document = nullptr;  // the workbench's
};

// The commands; each parses its own arguments from options.args.
struct Command {
    const char* name;
    int (*run)(Session&);
    const char* usage;  // one or more lines for --help
};
extern const std::vector<Command> kCommands;

int RunBoards(Session& session);
int RunInfo(Session& session);
int RunSet(Session& session);
int RunConfig(Session& session);
int RunGrab(Session& session);
int RunAnalyze(Session& session);
int RunSignals(Session& session);
int RunConvert(Session& session);

}  // namespace lumetra::cli
