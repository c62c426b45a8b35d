// What every lumetra-cli command shares: options, the board library, the board document, and
// the front-end side of the core's reporting interfaces.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "acquisition/board_document.h"
#include "acquisition/board_library.h"
#include "acquisition/messages.h"
#include "app/qt_settings.h"

namespace lumetra::cli {

struct Options {
    std::string command;
    std::vector<std::string> args;  // what follows the command, options removed
    std::string boardLibrary;
    int board = -1;
    bool json = false;
    bool verbose = false;
    std::optional<int> jpeg;
    std::optional<int> rgbd;
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

// Counts the window messages the core posts; the front end reacts to those that matter.
class CountingSink final : public MessageSink {
  public:
    void post(uint32_t message, intptr_t wParam, intptr_t lParam) override;
    intptr_t send(uint32_t message, intptr_t wParam, intptr_t lParam) override;
    std::map<uint32_t, uint64_t> counts() const;

  private:
    mutable std::mutex mutex_;
    std::map<uint32_t, uint64_t> counts_;
};

class StderrPrompt final : public Prompt {
  public:
    explicit StderrPrompt(MessageLog& log) : log_(log) {}
    void information(std::string_view text) override { log_.log(text); }

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

    const Options& options;
    QtSettings settings;
    StderrLog log;
    CountingSink sink;
    StderrPrompt prompt{log};
    std::unique_ptr<BoardLibrary> library;
    std::unique_ptr<CKELM_PCIE_VexCardDoc> document;
};

int RunBoards(Session& session);
int RunInfo(Session& session);
int RunSet(Session& session);

}  // namespace lumetra::cli
