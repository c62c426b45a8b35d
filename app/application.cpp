#include "app/application.h"

#include <QDesktopServices>
#include <QDir>
#include <QGuiApplication>
#include <QMessageBox>
#include <QScreen>
#include <QStandardPaths>
#include <QUrl>
#include <cstdlib>
#include <filesystem>
#include <new>

#include "app/icons.h"

namespace lumetra {

QString InstanceLockPath(const QString& folder) {
    return QDir(folder).filePath("LumetraOpenOnceInstance");
}

CKELM_PCIE_VexCardApp::CKELM_PCIE_VexCardApp(AppOptions options) : options_(std::move(options)) {}

CKELM_PCIE_VexCardApp::~CKELM_PCIE_VexCardApp() {
    frame_.reset();
    workbench_.reset();
    if (ownsLock_) {
        appSettings_.Save(settings_);
        lock_->unlock();
    }
}

bool CKELM_PCIE_VexCardApp::InitInstance() {
    // 1. The installation's resource file.
    resource_ = LoadResourceConfig(ResourceConfigPath(settings_));
    const QString title = QString::fromStdString(resource_.softwareName);
    prompt_ = std::make_unique<QtPrompt>(title);

    // 2. The pixel density.
    if (const QScreen* screen = QGuiApplication::primaryScreen()) {
        dpiScale_ = screen->logicalDotsPerInchX() / 96.0;
    }

    // 5. One instance at a time: the board belongs to the one that has it.
    const QString folder = options_.lockFolder.isEmpty()
                               ? QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation)
                               : options_.lockFolder;
    QDir().mkpath(folder);
    lock_ = std::make_unique<QLockFile>(InstanceLockPath(folder));
    lock_->setStaleLockTime(0);
    if (!lock_->tryLock(0)) {
        prompt_->information(kAlreadyRunningText);
        return false;
    }
    ownsLock_ = true;

    // 6. The settings, each with its default.
    appSettings_ = AppSettings::Load(
        settings_,
        QStandardPaths::writableLocation(QStandardPaths::PicturesLocation).toStdString());

    // The frame comes first so that the message window shows what the board search says.
    QIcon icon = ApplicationIcon();
    if (!resource_.softwareIcon.empty()) {
        const QIcon own(QString::fromStdString(resource_.softwareIcon));
        if (!own.availableSizes().isEmpty()) {
            icon = own;
        }
    }
    QGuiApplication::setWindowIcon(icon);
    FrameServices fs;
    fs.settings = &settings_;
    fs.appSettings = &appSettings_;
    fs.log = &log_;
    fs.sink = &sink_;
    fs.prompt = prompt_.get();
    fs.title = title;
    fs.icon = icon;
    frame_ = std::make_unique<CMainFrame>(fs);
    prompt_->setParent(frame_.get());
    LoadBoardLibrary();

    // 7. The document (in the workbench) and the view.
    WorkbenchServices ws;
    ws.library = library_.get();
    ws.settings = &settings_;
    ws.log = &log_;
    ws.sink = &sink_;
    ws.prompt = prompt_.get();
    ws.boardIndex = options_.board;
    ws.appSettings = &appSettings_;
    const std::filesystem::path prefix = std::filesystem::path(ExecutableDirectory()).parent_path();
    ws.helpFolder = (prefix / "share" / "doc" / "lumetra").string();
    ws.logFolder = (QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation) +
                    "/General_T/Grabber")
                       .toStdString();
    ws.openFolder = [](const std::string& f) {
        QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(f)));
    };
    try {
        workbench_ = std::make_unique<Workbench>(ws);
    } catch (const std::bad_alloc&) {
        prompt_->information("Create Document Fail");
        return false;
    }
    frame_->Attach(*workbench_);
    frame_->show();
    for (const QString& file : options_.files) {
        frame_->OpenFileByName(file);
    }
    return true;
}

void CKELM_PCIE_VexCardApp::LoadBoardLibrary() {
    const BoardLibraryChoice choice = ChooseBoardLibrary(
        options_.boardLibrary.toStdString(), std::getenv("LUMETRA_BOARD_LIBRARY"),
        settings_.readString("Board", "Library", ""), DefaultBoardLibraryPath());
    BoardLibraryLoad load = lumetra::LoadBoardLibrary(choice.path);
    if (!load.library) {
        log_.log(load.error + "\n");
        return;
    }
    library_ = std::move(load.library);
    libraryPath_ = choice.path;
}

}  // namespace lumetra
