// The core's reporting interfaces on Qt: window messages become events handled on the
// user-interface thread, log lines go to the message window, and prompts are message boxes and
// file dialogs.
#pragma once

#include <QFileDialog>
#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>

#include "base/messages.h"

class QWidget;

namespace lumetra {

class COutputList;

// post() from any thread queues an event; the handler runs on the user-interface thread. Posts
// that arrive once the sink is gone are dropped by Qt with the object's pending events.
class QtMessageSink final : public QObject, public MessageSink {
    Q_OBJECT
  public:
    using Handler = std::function<void(uint32_t, intptr_t, intptr_t)>;
    // Thread: any; never blocks.
    void post(uint32_t message, intptr_t wParam, intptr_t lParam) override;
    // Thread: the user-interface thread.
    void setHandler(Handler handler) { handler_ = std::move(handler); }

  protected:
    bool event(QEvent* event) override;

  private:
    Handler handler_;
};

// One time-stamped line per call, appended to the message window. The time is taken when the
// line is logged; a line from another thread reaches the window through a queued event. Lines
// logged while no window is attached are dropped. Thread: any.
class QtMessageLog final : public QObject, public MessageLog {
    Q_OBJECT
  public:
    void log(std::string_view text) override;
    // Thread: the user-interface thread.
    void attach(COutputList* list) { list_ = list; }

  protected:
    bool event(QEvent* event) override;

  private:
    void append(const QString& line);
    QPointer<COutputList> list_;
};

// Message boxes titled with the application's title, the design's file dialogs and the start
// prompt, parented to the main window.
class QtPrompt final : public Prompt {
  public:
    explicit QtPrompt(QString title) : title_(std::move(title)) {}
    void setParent(QWidget* parent) { parent_ = parent; }

    void information(std::string_view text) override;
    PromptAnswer question(std::string_view text, std::string_view title) override;
    PromptAnswer startPrompt(bool& alwaysShow) override;
    std::optional<std::string> openFile(const FileRequest& request) override;
    std::optional<std::string> saveFile(const FileRequest& request) override;

  private:
    std::optional<std::string> RunFileDialog(const FileRequest& request,
                                             QFileDialog::AcceptMode mode);

    QString title_;
    QPointer<QWidget> parent_;
};

// "Config File (*.vlcf)|*.vlcf||" as a Qt file-dialog filter: "Config File (*.vlcf)".
QString QtFileFilter(const std::string& filter);
// A name typed without an extension gets the default one (the part after the last blank, so
// that "Video h264" gives "h264").
std::string WithDefaultExtension(const std::string& path, const std::string& defaultExtension);

}  // namespace lumetra
