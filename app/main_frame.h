// The main frame: menus, tool bars, the status bar, the message window and the main image view
// around the workbench, which does the work. Each command is a QAction whose object name is its
// id; each window message the core posts arrives in HandleMessage; the timers keep their ids.
#pragma once

#include <QElapsedTimer>
#include <QMainWindow>
#include <QPointer>
#include <QTimer>
#include <map>
#include <memory>

#include "app/output_window.h"
#include "app/qt_front.h"
#include "app/status_bar.h"
#include "workbench/app_settings.h"
#include "workbench/status_texts.h"
#include "workbench/workbench.h"

class QAction;
class QMenu;
class QToolBar;

namespace lumetra {

class CLumetraMainWnd;
class CSequencePage;

// The program's own frame base: the window type the design's frames derive from.
class CBaseFrameWndEx : public QMainWindow {
    Q_OBJECT
  public:
    using QMainWindow::QMainWindow;
};

// What the frame works with; all borrowed, all outliving it.
struct FrameServices {
    Settings* settings = nullptr;
    AppSettings* appSettings = nullptr;
    QtMessageLog* log = nullptr;
    QtMessageSink* sink = nullptr;
    Prompt* prompt = nullptr;
    QString title = "Lumetra";
    QIcon icon;
    QString boardLibrary;  // the library in use, for the About box; empty without one
};

// Thread: the user-interface thread.
class CMainFrame final : public CBaseFrameWndEx {
    Q_OBJECT
  public:
    // Creates the menus, the tool bars, the status bar and the message window, ready to log.
    explicit CMainFrame(const FrameServices& services, QWidget* parent = nullptr);
    ~CMainFrame() override;

    // Puts the workbench's document into the view, starts the timers and posts the start-up
    // message. The workbench must outlive the frame's use of it (until Shutdown).
    void Attach(Workbench& workbench);
    // The destroy order: timers killed, the grab stopped, workers and buffers ended. Idempotent;
    // closing the window runs it.
    void Shutdown();

    QAction* action(int id) const;
    CKelmMFCStatusBar* panes() const { return status_; }
    COutputWnd* output() const { return output_; }
    CLumetraMainWnd* view() const { return view_; }
    Workbench* workbench() const { return workbench_; }
    bool timerActive(int id) const;

    // A window message from the core, as the design's main frame handles it.
    void HandleMessage(uint32_t message, intptr_t wParam, intptr_t lParam);
    // One tick of a timer (WM_TIMER).
    void OnTimer(int id);
    // Every command's enabled and checked state from the rules.
    void UpdateCommandStates();
    // Runs a command as its menu item does.
    void RunCommand(int id);
    // "Opening a file by name": images and configuration files, also from the command line and
    // from files dropped on the window; the file joins the recent-files list.
    void OpenFileByName(const QString& path);
    QStringList recentFiles() const;

  protected:
    void closeEvent(QCloseEvent* event) override;
    void changeEvent(QEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

  private:
    void CreateActions();
    void CreateMenus();
    void CreateToolBars();
    void StartTimer(int id, int periodMs);
    void KillTimer(int id);
    void ResetGrabPanes();
    void UpdateSignalPanes(int32_t status, bool readable);
    void UpdateRatePane();
    void UpdateMarkerPane();
    void UpdateTitle();
    void ApplyPaneFlags();
    void AddRecentFile(const QString& path);
    void RebuildRecentMenu();
    void OpenImageCommand();
    void SaveViewAs();
    void ShowAbout();

    FrameServices services_;
    Workbench* workbench_ = nullptr;
    std::map<int, QAction*> actions_;
    std::map<int, QTimer*> timers_;
    QMenu* recentMenu_ = nullptr;
    QToolBar* standardBar_ = nullptr;
    QToolBar* zoomBar_ = nullptr;
    CKelmMFCStatusBar* status_ = nullptr;
    COutputWnd* output_ = nullptr;
    CLumetraMainWnd* view_ = nullptr;
    QPointer<CSequencePage> sequencePage_;
    SignalLogFilter signalLog_;
    FrameRateMeter rateMeter_;
    QElapsedTimer clock_;
    bool shutDown_ = false;
};

}  // namespace lumetra
