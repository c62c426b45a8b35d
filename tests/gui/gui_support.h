// The workbench window on the simulated board, in the test's process: the board runs on its
// manual clock (frames come when the test asks for them), boxes and file dialogs are answered by
// the test, and the frame's messages are handled as the event loop would.
#pragma once

#include <QAbstractButton>
#include <QApplication>
#include <QDialog>
#include <QMessageBox>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <functional>

#include "app/main_frame.h"
#include "imaging/ui/main_view.h"
#include "support/sim_hooks.h"

namespace lumetra::test {

// Answers file dialogs from a script and keeps the boxes' texts; never opens a window.
class RecordingPrompt final : public Prompt {
  public:
    void information(std::string_view text) override {
        boxes << QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
    }
    PromptAnswer question(std::string_view, std::string_view) override { return answer; }
    PromptAnswer startPrompt(bool& alwaysShow) override {
        ++startPrompts;
        (void)alwaysShow;
        return PromptAnswer::kCancel;
    }
    std::optional<std::string> openFile(const FileRequest&) override { return file; }
    std::optional<std::string> saveFile(const FileRequest&) override { return file; }

    QStringList boxes;
    std::optional<std::string> file;
    PromptAnswer answer = PromptAnswer::kNo;
    int startPrompts = 0;
};

// The frame, the workbench and the simulated board, put together as the application does.
class GuiRig {
  public:
    // ini: the simulator's boards (written to a file); empty: the two default boards. libraryPath:
    // another board library to run the window on (the simulator's clock hooks then do nothing).
    explicit GuiRig(const QString& ini = {}, const char* libraryPath = SIM_LIBRARY) {
        if (!ini.isEmpty()) {
            const QString path = dir.filePath("sim.ini");
            QFile f(path);
            f.open(QIODevice::WriteOnly);
            f.write(ini.toUtf8());
            f.close();
            qputenv("ORVIX_SIM_CONFIG", path.toUtf8());
        } else {
            qunsetenv("ORVIX_SIM_CONFIG");
        }
        BoardLibraryLoad load = LoadBoardLibrary(libraryPath);
        library = std::move(load.library);
        if (const std::string why = hooks.Open(SIM_LIBRARY); !why.empty()) {
            qFatal("%s", why.c_str());
        }

        appSettings = AppSettings::Load(settings, dir.path().toStdString());
        FrameServices fs;
        fs.settings = &settings;
        fs.appSettings = &appSettings;
        fs.log = &log;
        fs.sink = &sink;
        fs.prompt = &prompt;
        frame = std::make_unique<CMainFrame>(fs);

        WorkbenchServices ws;
        ws.library = library.get();
        ws.settings = &settings;
        ws.log = &log;
        ws.sink = &sink;
        ws.prompt = &prompt;
        ws.appSettings = &appSettings;
        ws.resourceConfigPath = dir.filePath("BoardConfig.ini").toStdString();
        workbench = std::make_unique<Workbench>(ws);
        if (workbench->document().hasBoard() && libraryPath == std::string(SIM_LIBRARY)) {
            hooks.setManualClock(workbench->document().handle(), 1);
        }
        frame->Attach(*workbench);
        frame->resize(1024, 768);
        frame->show();
        if (!QTest::qWaitForWindowExposed(frame.get())) {
            qWarning("the main frame was not exposed");
        }
        Pump();
    }
    ~GuiRig() {
        frame.reset();
        workbench.reset();
        library.reset();
        hooks.Close();
    }

    // Delivers the posted messages, as the event loop does between two user actions.
    void Pump() {
        for (int i = 0; i < 3; ++i) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        }
    }
    void Frames(uint32_t n) { hooks.advanceFrames(workbench->document().handle(), n); }
    void Trigger(int id) {
        QAction* a = frame->action(id);
        QVERIFY2(a != nullptr, qPrintable(QString::number(id)));
        frame->UpdateCommandStates();
        a->trigger();
        Pump();
    }
    QStringList Log() const { return frame->output()->list()->lines(); }
    // The log lines without their time stamps.
    QStringList LogTexts() const {
        QStringList out;
        const QStringList lines = Log();
        for (int i = 1; i < lines.size(); ++i) {
            out << lines[i].mid(26);
        }
        return out;
    }

    QTemporaryDir dir;
    MemorySettings settings;
    AppSettings appSettings;
    QtMessageSink sink;
    QtMessageLog log;
    RecordingPrompt prompt;
    std::unique_ptr<BoardLibrary> library;
    SimHooks hooks;
    std::unique_ptr<Workbench> workbench;
    std::unique_ptr<CMainFrame> frame;
};

// Closes the next modal box when it shows, keeping its text.
inline void AnswerNextBox(QString* text, QMessageBox::StandardButton button = QMessageBox::Ok) {
    QTimer::singleShot(0, [text, button] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
            if (text != nullptr) {
                *text = box->text();
            }
            box->button(button) != nullptr ? box->button(button)->click() : box->accept();
        }
    });
}

}  // namespace lumetra::test
