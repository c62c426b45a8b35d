#include "app/main_frame.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QCloseEvent>
#include <QDockWidget>
#include <QDragEnterEvent>
#include <QFileInfo>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeData>
#include <QSettings>
#include <QToolBar>
#include <algorithm>
#include <iterator>

#include "app/icons.h"
#include "app/raw_import.h"
#include "app/sequence_page.h"
#include "base/process_flags.h"
#include "imaging/ui/bayer_setting.h"
#include "imaging/ui/main_view.h"

namespace lumetra {
namespace {

// The View menu's entries of the main image view, and our own.
struct ViewCommand {
    int id;
    const char* text;
    const char* prompt;
};
constexpr ViewCommand kViewCommands[] = {
    {cmd::kZoomIn, "Zoom In", "Zoom in one step\nZoom In"},
    {cmd::kZoomOut, "Zoom Out", "Zoom out one step\nZoom Out"},
    {cmd::kZoomFit, "Zoom Fit", "Fit the image into the window\nZoom Fit"},
    {cmd::kOriginalSize, "Original Size", "One image pixel per screen pixel\nOriginal Size"},
    {cmd::kMaximumImage, "Maximization", "The largest zoom, with pixel values\nMaximization"},
    {cmd::kHighlightClipping, "Highlight Saturated and Zero Pixels",
     "Show saturated samples in red and zero samples in blue"},
    {cmd::kFalseColour, "False Colour", "Show one-channel frames in a colour palette"},
    {cmd::kCopyView, "Copy View", "Copy the view as displayed\nCopy View"},
    {cmd::kSaveViewAs, "Save View As...", "Save the view as displayed as a PNG file"},
};

// Commands whose windows come later: their actions exist with their ids but stay out of sight
// until the windows do, rather than sit in the menus greyed out.
constexpr int kWindowsToCome[] = {cmd::kBoardConfiguration, cmd::kSystemConfiguration,
                                  cmd::kHorizontalProfile,  cmd::kVerticalProfile,
                                  cmd::kImageAnalytics,     cmd::kDataGrid,
                                  cmd::kRoiAnalytics,       cmd::kMeasure,
                                  cmd::kRoiDisplay,         cmd::kCheckSignal,
                                  cmd::kImageBadPixel,      cmd::kRoiBadPixel,
                                  cmd::kPixelCapture,       cmd::kSendCommand,
                                  cmd::kAdvancedHistogram};
// Commands that show a check mark: a window that is open, or a view option that is on.
constexpr int kCheckable[] = {
    cmd::kMarker,         cmd::kMessageWindow,     cmd::kHighlightClipping,
    cmd::kFalseColour,    cmd::kHorizontalProfile, cmd::kVerticalProfile,
    cmd::kImageAnalytics, cmd::kDataGrid,          cmd::kRoiAnalytics,
    cmd::kMeasure,        cmd::kRoiDisplay,        cmd::kAdvancedHistogram};

template <size_t N>
bool Among(const int (&ids)[N], int id) {
    return std::find(std::begin(ids), std::end(ids), id) != std::end(ids);
}

bool WindowNotBuiltYet(int id) {
    return Among(kWindowsToCome, id);
}

bool Checkable(int id) {
    return Among(kCheckable, id);
}

QKeySequence Shortcut(int id) {
    switch (id) {
        case cmd::kGrabContinuous:
            return QKeySequence(Qt::Key_F5);
        case cmd::kGrabOnce:
            return QKeySequence(Qt::Key_F6);
        case cmd::kGrabStop:
            return QKeySequence(Qt::SHIFT | Qt::Key_F5);
        case cmd::kSoftwareTrigger:
            return QKeySequence(Qt::Key_F8);
        case cmd::kOpenImage:
            return QKeySequence::Open;
        case cmd::kSaveImage:
            return QKeySequence::Save;
        case cmd::kExit:
            return QKeySequence::Quit;
        case cmd::kZoomIn:
            return QKeySequence::ZoomIn;
        case cmd::kZoomOut:
            return QKeySequence::ZoomOut;
        case cmd::kZoomFit:
            return QKeySequence(Qt::CTRL | Qt::Key_0);
        case cmd::kOriginalSize:
            return QKeySequence(Qt::CTRL | Qt::Key_1);
        case cmd::kMaximumImage:
            return QKeySequence(Qt::CTRL | Qt::Key_9);
        case cmd::kMarker:
            return QKeySequence(Qt::CTRL | Qt::Key_M);
        case cmd::kCopyView:
            return QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_C);
        case cmd::kSaveViewAs:
            return QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_S);
        default:
            return {};
    }
}

constexpr int kRecentFiles = 4;

}  // namespace

CMainFrame::CMainFrame(const FrameServices& services, QWidget* parent)
    : CBaseFrameWndEx(parent), services_(services) {
    setObjectName("CMainFrame");
    setWindowTitle(services_.title);
    setWindowIcon(services_.icon);
    setAcceptDrops(true);
    resize(1280, 900);

    output_ = new COutputWnd(this);
    addDockWidget(Qt::BottomDockWidgetArea, output_);
    services_.log->attach(output_->list());
    status_ = new CKelmMFCStatusBar(this);
    setStatusBar(status_);
    CreateActions();
    CreateMenus();
    CreateToolBars();
    services_.sink->setHandler(
        [this](uint32_t m, intptr_t w, intptr_t l) { HandleMessage(m, w, l); });
    ApplyPaneFlags();
}

CMainFrame::~CMainFrame() {
    Shutdown();
    services_.sink->setHandler({});
    services_.log->attach(nullptr);
}

void CMainFrame::CreateActions() {
    auto make = [this](int id, const QString& text, const QString& prompt) {
        auto* a = new QAction(text.isEmpty() ? prompt.section('\n', 0, 0) : text, this);
        a->setObjectName(QString::number(id));
        a->setStatusTip(prompt.section('\n', 0, 0));
        a->setToolTip(prompt.contains('\n') ? prompt.section('\n', 1, 1)
                                            : prompt.section('\n', 0, 0));
        a->setIcon(CommandIcon(id));
        a->setShortcut(Shortcut(id));
        a->setCheckable(Checkable(id));
        a->setVisible(!WindowNotBuiltYet(id));
        connect(a, &QAction::triggered, this, [this, id] { RunCommand(id); });
        actions_[id] = a;
    };
    for (const CommandText& t : CommandTexts()) {
        make(t.id, QString::fromUtf8(t.menu.data(), static_cast<qsizetype>(t.menu.size())),
             QString::fromUtf8(t.prompt.data(), static_cast<qsizetype>(t.prompt.size())));
    }
    for (const ViewCommand& v : kViewCommands) {
        make(v.id, v.text, v.prompt);
    }
}

QAction* CMainFrame::action(int id) const {
    auto it = actions_.find(id);
    return it == actions_.end() ? nullptr : it->second;
}

void CMainFrame::CreateMenus() {
    auto add = [this](QMenu* menu, std::initializer_list<int> ids) {
        for (int id : ids) {
            if (id == 0) {
                menu->addSeparator();
            } else {
                menu->addAction(action(id));
            }
        }
    };
    QMenu* file = menuBar()->addMenu("File(&F)");
    add(file, {cmd::kOpenImage, cmd::kSaveImage, cmd::kSaveImageSequence, 0, cmd::kStartSaveVideo,
               cmd::kStopSaveVideo, 0, cmd::kOpenConfiguration, cmd::kSaveConfiguration, 0});
    recentMenu_ = file->addMenu("Recent Files");
    RebuildRecentMenu();
    file->addSeparator();
    file->addAction(action(cmd::kExit));

    QMenu* configuration = menuBar()->addMenu("Configuration");
    add(configuration, {cmd::kBoardConfiguration, cmd::kSystemConfiguration});
    // Nothing in it yet: the board configuration windows come with their own work.
    configuration->menuAction()->setVisible(false);

    QMenu* run = menuBar()->addMenu("Run");
    add(run, {cmd::kGrabOnce, cmd::kGrabContinuous, cmd::kGrabStop, 0, cmd::kSoftwareTrigger,
              cmd::kCalibration});

    QMenu* view = menuBar()->addMenu("View(&V)");
    add(view, {cmd::kZoomIn, cmd::kZoomOut, cmd::kZoomFit, cmd::kOriginalSize, cmd::kMaximumImage,
               0, cmd::kMarker, cmd::kHorizontalProfile, cmd::kVerticalProfile, cmd::kDataGrid,
               cmd::kRoiDisplay, 0, cmd::kHighlightClipping, cmd::kFalseColour, 0, cmd::kCopyView,
               cmd::kSaveViewAs, 0});
    view->addAction(output_->toggleViewAction());

    QMenu* window = menuBar()->addMenu("Window");
    add(window, {cmd::kMessageWindow, 0, cmd::kImageAnalytics, cmd::kAdvancedHistogram,
                 cmd::kRoiAnalytics, cmd::kMeasure, 0, cmd::kCheckSignal, cmd::kImageBadPixel,
                 cmd::kRoiBadPixel, cmd::kPixelCapture, cmd::kSendCommand, 0, cmd::kBayerPattern});

    QMenu* help = menuBar()->addMenu("Help(&H)");
    add(help, {cmd::kDocument, cmd::kShowLog, 0, cmd::kVersion, cmd::kAbout});
}

void CMainFrame::CreateToolBars() {
    standardBar_ = addToolBar("Standard");
    standardBar_->setObjectName("Standard");
    for (int id : {cmd::kOpenImage, cmd::kSaveImage, 0, cmd::kOpenConfiguration,
                   cmd::kSaveConfiguration, 0, cmd::kGrabOnce, cmd::kGrabContinuous, cmd::kGrabStop,
                   cmd::kSoftwareTrigger, 0, cmd::kStartSaveVideo, cmd::kStopSaveVideo, 0,
                   cmd::kBayerPattern, cmd::kMarker, 0, cmd::kVersion}) {
        if (id == 0) {
            standardBar_->addSeparator();
        } else {
            standardBar_->addAction(action(id));
        }
    }
    zoomBar_ = addToolBar("Zoom");
    zoomBar_->setObjectName("Zoom");
    for (int id :
         {cmd::kZoomIn, cmd::kZoomOut, cmd::kZoomFit, cmd::kOriginalSize, cmd::kMaximumImage}) {
        zoomBar_->addAction(action(id));
    }
}

void CMainFrame::Attach(Workbench& workbench) {
    workbench_ = &workbench;
    view_ = new CLumetraMainWnd(workbench.document().viewSources(), *services_.log, services_.sink,
                                this);
    view_->setObjectName("CLumetraMainWnd");
    setCentralWidget(view_);
    workbench.engine().setLastPaint(&view_->lastPaintMs());
    connect(view_, &CLumetraMainWnd::zoomChanged, this, [this] { UpdateCommandStates(); });
    clock_.start();
    StartTimer(timer::kDataGrid, 35);
    StartTimer(timer::kCameraStatus, 200);
    StartTimer(timer::kPcieLink, 1200);
    StartTimer(timer::kFramesGrabbed, 80);
    StartTimer(timer::kFrameLostPane, 500);
    services_.sink->post(msg::kStartPrompt, 0, 0);
    UpdateCommandStates();
}

void CMainFrame::Shutdown() {
    if (shutDown_) {
        return;
    }
    shutDown_ = true;
    for (auto& [id, t] : timers_) {
        t->stop();
    }
    if (sequencePage_) {
        sequencePage_->close();
    }
    if (workbench_ != nullptr) {
        workbench_->Shutdown();
    }
}

// ---- timers ----

void CMainFrame::StartTimer(int id, int periodMs) {
    QTimer*& t = timers_[id];
    if (t == nullptr) {
        t = new QTimer(this);
        connect(t, &QTimer::timeout, this, [this, id] { OnTimer(id); });
    }
    if (!shutDown_) {
        t->start(periodMs);
    }
}

void CMainFrame::KillTimer(int id) {
    if (auto it = timers_.find(id); it != timers_.end()) {
        it->second->stop();
    }
}

bool CMainFrame::timerActive(int id) const {
    auto it = timers_.find(id);
    return it != timers_.end() && it->second->isActive();
}

void CMainFrame::OnTimer(int id) {
    if (workbench_ == nullptr) {
        return;
    }
    Workbench& wb = *workbench_;
    switch (id) {
        case timer::kDataGrid:
            return;  // the data grid is not there yet
        case timer::kCameraStatus:
            if (wb.document().hasBoard() && !wb.engine().continuousRunning()) {
                wb.OnTimer(id);
                UpdateSignalPanes(wb.polledStatus(), wb.polledStatusReadable());
            }
            return;
        case timer::kPcieLink:
            status_->setPaneText(pane::kSerialPort, QString::fromStdString(SerialPortText({})));
            if (!wb.OnTimer(id)) {
                KillTimer(id);
            }
            return;
        case timer::kFramesGrabbed:
            status_->setPaneText(
                pane::kFramesGrabbed,
                QString::fromStdString(FramesGrabbedText(wb.engine().context().frameCounter)));
            return;
        case timer::kFrameLostPane:
            status_->setPane(pane::kFrameLost, FrameLostPane(wb.grab().frameLost()));
            UpdateTitle();
            UpdateCommandStates();
            return;
        default:
            return;
    }
}

// ---- messages ----

void CMainFrame::HandleMessage(uint32_t message, intptr_t wParam, intptr_t lParam) {
    if (workbench_ == nullptr || shutDown_) {
        return;
    }
    Workbench& wb = *workbench_;
    wb.Handle(message, wParam, lParam);
    switch (message) {
        case msg::kPaint:
            view_->update();
            return;  // many a second: no command state changes with it
        case msg::kFrameSize:
            view_->frameSizeChanged();
            break;
        case msg::kRate:
            UpdateRatePane();
            return;
        case msg::kMarker:
            UpdateMarkerPane();
            return;
        case msg::kProfiles:
        case msg::kRoiRefresh:
            return;  // their windows come later
        case msg::kFrameArrived:
            if (lParam != 1) {
                view_->update();
            }
            return;
        case msg::kCameraStatus:
            UpdateSignalPanes(wb.engine().cameraStatus, true);
            return;
        case msg::kStatusTimer:
            StartTimer(timer::kCameraStatus, 200);
            break;
        case msg::kFramesGrabbed:
            status_->setPaneText(
                pane::kFramesGrabbed,
                QString::fromStdString(FramesGrabbedText(wb.engine().context().frameCounter)));
            break;
        case msg::kFrameLost:
            status_->setPane(pane::kFrameLost, FrameLostPane(wb.grab().frameLost()));
            break;
        case msg::kPcieLink:
            if (const auto link = wb.pcieLink()) {
                const std::string text = PcieStateText(PcieLink::Of(*link));
                if (!text.empty()) {
                    status_->setPaneText(pane::kPcieState, QString::fromStdString(text));
                }
            }
            break;
        default:
            break;
    }
    UpdateCommandStates();
}

void CMainFrame::UpdateSignalPanes(int32_t status, bool readable) {
    const bool grabbing = !workbench_->engine().idle();
    const SignalPanes p = CameraSignalPanes(status, readable, processFlags().coaxpress, grabbing);
    status_->setPane(pane::kPixelClock, p.pixelClock);
    status_->setPane(pane::kLineValid, p.lineValid);
    status_->setPane(pane::kFrameValid, p.frameValid);
    for (const std::string& line : signalLog_.Filter(p.logLines)) {
        services_.log->log(line);
    }
}

void CMainFrame::UpdateRatePane() {
    CKELM_PCIE_VexCardDoc& doc = workbench_->document();
    double rate = 0;
    if (doc.library() == nullptr || !doc.hasBoard() ||
        doc.library()->GetFrameRate(doc.handle(), &rate) != ORVIX_SUCCESS) {
        return;
    }
    const bool lineScan = doc.parameters().get(ORVIX_SCAN_TYPE) == 1;
    status_->setPaneText(pane::kRate, QString::fromStdString(RateText(rate, lineScan)));
}

void CMainFrame::UpdateMarkerPane() {
    status_->setPaneText(pane::kMarker, QString::fromStdString(view_->markerReadout()));
}

void CMainFrame::ResetGrabPanes() {
    status_->setPaneText(pane::kFramesGrabbed, QString::fromStdString(FramesGrabbedText(0)));
    status_->setPane(pane::kFrameLost, FrameLostPane(false));
    rateMeter_.Reset();
}

void CMainFrame::UpdateTitle() {
    const GrabEngine& e = workbench_->engine();
    const FrameRateMeter::Rates rates = rateMeter_.Update(
        clock_.elapsed() / 1000.0, e.context().frameCounter, e.context().framesDisplayed);
    setWindowTitle(QString::fromStdString(
        WindowTitle(services_.title.toStdString(), e.continuousRunning(), rates)));
}

void CMainFrame::ApplyPaneFlags() {
    const AppSettings& s = *services_.appSettings;
    const bool coaxpress = processFlags().coaxpress;
    status_->setPaneVisible(pane::kRate, s.rate != 0);
    status_->setPaneVisible(pane::kPixelClockNum, s.pixelClockNum != 0);
    status_->setPaneVisible(pane::kSerialPort, s.serialPort != 0);
    status_->setPaneVisible(pane::kFramesGrabbed, s.frameGrabber != 0);
    status_->setPaneVisible(pane::kMarker, s.marker != 0);
    status_->setPaneVisible(pane::kFrameLost, s.frameLost != 0);
    status_->setPaneVisible(pane::kPcieState, s.pcieState != 0);
    // On CoaXPress boards the first indicator is the link ("Connect").
    status_->setPaneVisible(pane::kPixelClock, coaxpress ? s.connect != 0 : s.pixelClock != 0);
    status_->setPaneVisible(pane::kLineValid, s.lineValid != 0);
    status_->setPaneVisible(pane::kFrameValid, s.frameValid != 0);
}

// ---- commands ----

void CMainFrame::UpdateCommandStates() {
    if (workbench_ == nullptr) {
        for (auto& [id, a] : actions_) {
            a->setEnabled(id == cmd::kExit || id == cmd::kAbout || id == cmd::kMessageWindow);
        }
        return;
    }
    for (auto& [id, a] : actions_) {
        bool enabled = workbench_->CommandEnabled(id) && !WindowNotBuiltYet(id);
        if (view_ != nullptr &&
            (id == cmd::kZoomFit || id == cmd::kOriginalSize || id == cmd::kMaximumImage)) {
            enabled = view_->commandEnabled(id);
        }
        a->setEnabled(enabled);
    }
    action(cmd::kMessageWindow)->setChecked(output_->isVisible());
    if (view_ != nullptr) {
        action(cmd::kMarker)->setChecked(view_->markerVisible());
        action(cmd::kHighlightClipping)->setChecked(view_->highlightClipping());
        action(cmd::kFalseColour)->setChecked(view_->falseColour());
    }
}

void CMainFrame::RunCommand(int id) {
    if (workbench_ == nullptr) {
        if (id == cmd::kExit) {
            close();
        }
        return;
    }
    Workbench& wb = *workbench_;
    // A menu state may be a tick old: the rules are checked again before anything runs.
    if (!wb.CommandEnabled(id) || WindowNotBuiltYet(id)) {
        UpdateCommandStates();
        return;
    }
    switch (id) {
        case cmd::kGrabOnce:
            ResetGrabPanes();
            wb.GrabOnce();
            break;
        case cmd::kGrabContinuous:
            ResetGrabPanes();
            KillTimer(timer::kCameraStatus);
            if (!wb.GrabContinuous()) {
                StartTimer(timer::kCameraStatus, 200);
            }
            break;
        case cmd::kGrabStop:
            wb.GrabStop();
            break;
        case cmd::kSoftwareTrigger:
            wb.SoftwareTrigger();
            break;
        case cmd::kCalibration:
            wb.Calibration();
            break;
        case cmd::kSaveImage:
            wb.SaveImage();
            break;
        case cmd::kOpenImage:
            OpenImageCommand();
            break;
        case cmd::kSaveImageSequence:
            if (!sequencePage_) {
                sequencePage_ = new CSequencePage(wb, *services_.settings, this);
            }
            sequencePage_->show();
            sequencePage_->raise();
            break;
        case cmd::kStartSaveVideo:
            wb.StartVideo();
            break;
        case cmd::kStopSaveVideo:
            wb.StopVideo();
            break;
        case cmd::kOpenConfiguration:
            wb.OpenConfiguration();
            break;
        case cmd::kSaveConfiguration:
            wb.SaveConfiguration();
            break;
        case cmd::kExit:
            close();
            break;
        case cmd::kBayerPattern: {
            CBayerSetting dialog(wb.document().bayer(), this);
            if (dialog.exec() == QDialog::Accepted) {
                view_->update();
            }
            break;
        }
        case cmd::kMarker:
            view_->setMarkerVisible(!view_->markerVisible());
            UpdateMarkerPane();
            break;
        case cmd::kMessageWindow:
            output_->setVisible(!output_->isVisible());
            if (output_->isVisible()) {
                output_->raise();
                output_->list()->setFocus();
            }
            break;
        case cmd::kZoomIn:
        case cmd::kZoomOut:
            view_->zoomStep(id == cmd::kZoomIn);
            break;
        case cmd::kZoomFit:
        case cmd::kOriginalSize:
        case cmd::kMaximumImage:
            view_->runCommand(id);
            break;
        case cmd::kHighlightClipping:
            view_->setHighlightClipping(!view_->highlightClipping());
            break;
        case cmd::kFalseColour:
            view_->setFalseColour(!view_->falseColour());
            break;
        case cmd::kCopyView:
            QApplication::clipboard()->setImage(view_->viewImage());
            break;
        case cmd::kSaveViewAs:
            SaveViewAs();
            break;
        case cmd::kVersion:
            wb.ShowVersion();
            break;
        case cmd::kDocument:
            wb.ShowDocument();
            break;
        case cmd::kShowLog:
            wb.ShowLog();
            break;
        case cmd::kAbout:
            ShowAbout();
            break;
        default:
            break;
    }
    UpdateCommandStates();
}

void CMainFrame::OpenImageCommand() {
    const std::string folder = services_.settings->readString("ImageSave", "SavePath", "");
    const auto path = services_.prompt->openFile(ImageFileRequest(false, 0, folder));
    if (path) {
        OpenFileByName(QString::fromStdString(*path));
    }
}

void CMainFrame::OpenFileByName(const QString& path) {
    if (workbench_ == nullptr) {
        return;
    }
    const std::string file = path.toStdString();
    bool opened = false;
    if (ImageFileTypeOf(file) == ImageFileType::kRaw) {
        CRawImportDlg dialog(path, workbench_->document().frameImage().format(),
                             *services_.settings, this);
        if (dialog.exec() != QDialog::Accepted) {
            return;
        }
        opened = workbench_->OpenRawImage(file, dialog.layout());
    } else {
        opened = workbench_->OpenFile(file);
    }
    if (opened) {
        AddRecentFile(QFileInfo(path).absoluteFilePath());
        view_->update();
    }
    UpdateCommandStates();
}

QStringList CMainFrame::recentFiles() const {
    QStringList files;
    for (int i = 1; i <= kRecentFiles; ++i) {
        const std::string f =
            services_.settings->readString("Recent File List", "File" + std::to_string(i), "");
        if (!f.empty()) {
            files << QString::fromStdString(f);
        }
    }
    return files;
}

void CMainFrame::AddRecentFile(const QString& path) {
    QStringList files = recentFiles();
    files.removeAll(path);
    files.prepend(path);
    while (files.size() > kRecentFiles) {
        files.removeLast();
    }
    for (int i = 1; i <= kRecentFiles; ++i) {
        services_.settings->writeString("Recent File List", "File" + std::to_string(i),
                                        i <= files.size() ? files[i - 1].toStdString() : "");
    }
    RebuildRecentMenu();
}

void CMainFrame::RebuildRecentMenu() {
    recentMenu_->clear();
    const QStringList files = recentFiles();
    for (int i = 0; i < files.size(); ++i) {
        const QString file = files[i];
        recentMenu_->addAction(QString("&%1 %2").arg(i + 1).arg(file), this,
                               [this, file] { OpenFileByName(file); });
    }
    recentMenu_->setEnabled(!files.isEmpty());
}

void CMainFrame::SaveViewAs() {
    FileRequest r;
    r.title = "Save View As";
    r.filter = "PNG (*.png)|*.png||";
    r.defaultExtension = "png";
    r.defaultName = "view.png";
    const auto path = services_.prompt->saveFile(r);
    if (!path) {
        return;
    }
    if (!view_->viewImage().save(QString::fromStdString(*path), "PNG")) {
        services_.log->log(SaveFailedText(*path, "the file cannot be written"));
    }
}

void CMainFrame::ShowAbout() {
    QString library = services_.boardLibrary.isEmpty() ? QString("none") : services_.boardLibrary;
    if (workbench_ != nullptr && workbench_->document().library() != nullptr) {
        BoardLibrary& lib = *workbench_->document().library();
        const auto v = lib.Version();
        library = QString::fromStdString(lib.FileName());
        if (v) {
            library += QString(" %1.%2.%3.%4").arg((*v)[0]).arg((*v)[1]).arg((*v)[2]).arg((*v)[3]);
        }
    }
    QMessageBox::about(
        this, "About " + services_.title,
        QString("<b>%1</b> %2<br>Image acquisition workbench for frame-grabber "
                "boards.<br><br>Board library: %3")
            .arg(services_.title, QApplication::applicationVersion(), library.toHtmlEscaped()));
}

// ---- window events ----

void CMainFrame::closeEvent(QCloseEvent* event) {
    if (workbench_ != nullptr && !shutDown_) {
        if (!workbench_->CanClose()) {
            services_.prompt->information("Grab(continuous) process is running.Please wait...");
            event->ignore();
            return;
        }
        if (workbench_->OfferToSaveConfiguration() == PromptAnswer::kCancel) {
            event->ignore();
            return;
        }
    }
    Shutdown();
    event->accept();
}

void CMainFrame::changeEvent(QEvent* event) {
    if (event->type() == QEvent::WindowStateChange) {
        // The floating tool windows go with the frame when it is minimised, and come back.
        const bool minimised = isMinimized();
        for (QDockWidget* dock : findChildren<QDockWidget*>()) {
            if (dock != output_ && dock->isFloating()) {
                dock->setVisible(!minimised);
            }
        }
    }
    CBaseFrameWndEx::changeEvent(event);
}

void CMainFrame::dragEnterEvent(QDragEnterEvent* event) {
    if (event->mimeData()->hasUrls()) {
        for (const QUrl& url : event->mimeData()->urls()) {
            if (url.isLocalFile()) {
                event->acceptProposedAction();
                return;
            }
        }
    }
}

void CMainFrame::dropEvent(QDropEvent* event) {
    for (const QUrl& url : event->mimeData()->urls()) {
        if (url.isLocalFile()) {
            OpenFileByName(url.toLocalFile());
        }
    }
    event->acceptProposedAction();
}

}  // namespace lumetra
