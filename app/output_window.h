// The message window: a docking pane holding the list of time-stamped lines. The first line is
// "Output Message:\n"; every new line is selected so that the list scrolls to it.
#pragma once

#include <QDockWidget>
#include <QListWidget>

namespace lumetra {

class COutputList final : public QListWidget {
    Q_OBJECT
  public:
    static constexpr int kClearId = 57632;
    static constexpr int kCopyId = 57634;
    static constexpr const char* kFirstLine = "Output Message:\n";

    explicit COutputList(QWidget* parent = nullptr);
    // Adds a line as logged (a trailing "\n" is kept in the item's data, not drawn) and selects
    // it. Thread: the user-interface thread.
    void AddLine(const QString& line);
    // Empties the list and adds the first line again.
    void Clear();
    // The lines as logged.
    QStringList lines() const;
    // The selected lines to the clipboard, one a line.
    void CopySelection();

  protected:
    void contextMenuEvent(QContextMenuEvent* event) override;
};

class COutputWnd final : public QDockWidget {
    Q_OBJECT
  public:
    explicit COutputWnd(QWidget* parent = nullptr);
    COutputList* list() const { return list_; }

  private:
    COutputList* list_;
};

}  // namespace lumetra
