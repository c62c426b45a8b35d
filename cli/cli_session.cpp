#include "cli/cli_session.h"

#include <cstdio>
#include <cstdlib>

namespace lumetra::cli {

void StderrLog::log(std::string_view text) {
    std::string line = TimeStampPrefixNow();
    line.append(text);
    std::lock_guard lock(mutex_);
    lines_.emplace_back(text);
    if (line.empty() || line.back() != '\n') {
        line.push_back('\n');
    }
    std::fputs(line.c_str(), stderr);
}

std::vector<std::string> StderrLog::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

void QueuedSink::post(uint32_t message, intptr_t wParam, intptr_t lParam) {
    {
        std::lock_guard lock(mutex_);
        ++counts_[message];
        queue_.push_back({message, wParam, lParam});
    }
    cv_.notify_one();
}

void QueuedSink::Dispatch(const Handler& handler, std::chrono::milliseconds timeout) {
    std::deque<Message> batch;
    {
        std::unique_lock lock(mutex_);
        cv_.wait_for(lock, timeout, [this] { return !queue_.empty(); });
        batch.swap(queue_);
    }
    for (const Message& m : batch) {
        handler(m.message, m.wParam, m.lParam);
    }
}

std::map<uint32_t, uint64_t> QueuedSink::counts() const {
    std::lock_guard lock(mutex_);
    return counts_;
}

uint64_t QueuedSink::count(uint32_t message) const {
    std::lock_guard lock(mutex_);
    auto it = counts_.find(message);
    return it == counts_.end() ? 0 : it->second;
}

Session::Session(const Options& o) : options(o) {}

bool Session::LoadLibrary() {
    const BoardLibraryChoice choice =
        ChooseBoardLibrary(options.boardLibrary, std::getenv("LUMETRA_BOARD_LIBRARY"),
                           settings.readString("Board", "Library", ""), DefaultBoardLibraryPath());
    BoardLibraryLoad load = LoadBoardLibrary(choice.path);
    if (!load.library) {
        log.log(load.error + "\n");
        return false;
    }
    library = std::move(load.library);
    return true;
}

bool Session::OpenDocument() {
    // Without a library the document still comes up, as the workbench does, without a board.
    LoadLibrary();
    WorkbenchServices services;
    services.library = library.get();
    services.settings = &settings;
    services.log = &log;
    services.sink = &sink;
    services.prompt = &prompt;
    services.boardIndex = options.board;
    workbench = std::make_unique<Workbench>(services);
    document = &workbench->document();
    return document->hasBoard();
}

bool Session::SingleShot() {
    workbench->GrabOnce();
    Dispatch();
    // Every grab command starts the counter from 0.
    return document->grabEngine().context().frameCounter == 1;
}

void Session::Dispatch(std::chrono::milliseconds timeout) {
    if (!workbench) {
        return;
    }
    sink.Dispatch([this](uint32_t m, intptr_t w, intptr_t l) { workbench->Handle(m, w, l); },
                  timeout);
}

}  // namespace lumetra::cli
