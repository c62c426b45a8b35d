// The application object: start-up in the designed order, and the settings written back at exit.
#pragma once

#include <QLockFile>
#include <QString>
#include <QStringList>
#include <memory>
#include <optional>

#include "acquisition/board_library.h"
#include "acquisition/resource_config.h"
#include "app/main_frame.h"
#include "app/qt_front.h"
#include "qtcore/qt_settings.h"
#include "workbench/app_settings.h"
#include "workbench/workbench.h"

namespace lumetra {

struct AppOptions {
    QString boardLibrary;  // --board-library PATH
    int board = -1;        // --board N
    QStringList files;     // opened by name once the window is up
    // Where the single-instance lock lives; empty: the user's runtime folder.
    QString lockFolder;
};

// The lock's file in a folder: "LumetraOpenOnceInstance".
QString InstanceLockPath(const QString& folder);
// The text a second instance shows before it ends.
inline constexpr const char* kAlreadyRunningText =
    "Lumetra is already running. The running instance holds the board: use it, or close it "
    "before starting another.";

class CKELM_PCIE_VexCardApp {
  public:
    explicit CKELM_PCIE_VexCardApp(AppOptions options);
    // Writes every setting back, then releases the instance lock.
    ~CKELM_PCIE_VexCardApp();

    // Resource file, pixel density, single-instance lock, settings, the main frame, the board
    // library, the workbench and its document, the view. False when the application must end
    // (another instance holds the board, or the document could not be made); the user was told.
    bool InitInstance();

    CMainFrame* frame() const { return frame_.get(); }
    Workbench* workbench() const { return workbench_.get(); }
    const ResourceConfig& resource() const { return resource_; }
    AppSettings& appSettings() { return appSettings_; }
    double dpiScale() const { return dpiScale_; }

  private:
    void LoadBoardLibrary();

    AppOptions options_;
    QtSettings settings_;
    AppSettings appSettings_;
    ResourceConfig resource_;
    double dpiScale_ = 1.0;
    QtMessageSink sink_;
    QtMessageLog log_;
    std::unique_ptr<QtPrompt> prompt_;
    std::unique_ptr<QLockFile> lock_;
    bool ownsLock_ = false;
    std::unique_ptr<BoardLibrary> library_;
    std::string libraryPath_;
    // The frame goes before the workbench it shows.
    std::unique_ptr<Workbench> workbench_;
    std::unique_ptr<CMainFrame> frame_;
};

}  // namespace lumetra
