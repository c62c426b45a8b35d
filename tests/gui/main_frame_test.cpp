// The workbench window: its commands, grab commands end to end, the status bar, the message
// window, files dropped on it, closing, and the application's start-up and exit.
#include <QDropEvent>
#include <QMimeData>
#include <QRegularExpression>
#include <QSettings>
#include <QStandardPaths>
#include <QThread>
#include <QUrl>
#include <opencv2/imgcodecs.hpp>

#include "app/application.h"
#include "gui_support.h"

using namespace lumetra;
using namespace lumetra::test;

class MainFrameTest : public QObject {
    Q_OBJECT

  private slots:
    void initTestCase() {
        // Settings and the instance lock stay inside the test's own folders.
        QVERIFY(home.isValid());
        qputenv("XDG_CONFIG_HOME", home.filePath("config").toUtf8());
        qputenv("XDG_RUNTIME_DIR", home.filePath("run").toUtf8());
        qputenv("LUMETRA_SYSTEM_SETTINGS", home.filePath("system.ini").toUtf8());
        QDir().mkpath(home.filePath("run"));
        QStandardPaths::setTestModeEnabled(false);
    }

    void commandsCarryTheirIdsTextsAndPrompts() {
        GuiRig rig("[board0]\nwidth=64\nheight=48\n[board1]\n");
        const struct {
            int id;
            const char* text;
            const char* statusTip;
            const char* toolTip;
        } cases[] = {
            {32797, "Grab (1 Shot)", "Snap (1 Shot)", "Snap (1 Shot)"},
            {32798, "Grab (Continuous)", "Snap (Continuous)", "Snap (Continuous)"},
            {32799, "Grab (Stop)", "Snap Stop", "Snap Stop"},
            {32771, "Save Image", "Save Image", "Save"},
            {32772, "Open Configuration File", "Open Configuration File", "Open"},
            {57665, "Exit(&X)", "Exit Application", "Exit"},
            {32941, "ROI Analytics", "Image ROI Analytics", "ROI Analytics"},
            {32806, "Bayer Pattern", "Bayer Pattern", "Bayer"},
        };
        for (const auto& c : cases) {
            QAction* a = rig.frame->findChild<QAction*>(QString::number(c.id));
            QVERIFY2(a != nullptr, c.text);
            QCOMPARE(a->text(), QString(c.text));
            QCOMPARE(a->statusTip(), QString(c.statusTip));
            QCOMPARE(a->toolTip(), QString(c.toolTip));
        }
        // Every command of the table is there; those of windows that come later are out of sight
        // and cannot run.
        for (const CommandText& t : CommandTexts()) {
            QVERIFY(rig.frame->action(t.id) != nullptr);
        }
        rig.frame->UpdateCommandStates();
        for (int later : {32776, 32986, 32789, 32790, 32792, 32825, 32941, 32942, 33001, 32987,
                          32937, 32983, 32963, 32964, 32980}) {
            QVERIFY2(!rig.frame->action(later)->isEnabled(), qPrintable(QString::number(later)));
            QVERIFY2(!rig.frame->action(later)->isVisible(), qPrintable(QString::number(later)));
        }
        QVERIFY2(!rig.frame->action(32931)->isEnabled(), "sequences need a running grab");
        QCOMPARE(rig.frame->action(32798)->shortcut(), QKeySequence(Qt::Key_F5));
    }

    void grabCommandsRunEndToEndWithTheFrameCounter() {
        GuiRig rig("[board0]\nwidth=64\nheight=48\n[board1]\n");
        CMainFrame& f = *rig.frame;
        rig.Trigger(32798);
        QVERIFY(rig.workbench->engine().continuousRunning());
        QVERIFY(rig.LogTexts().contains("Start Grab"));
        QVERIFY(!f.action(32797)->isEnabled());
        QVERIFY(!f.action(32798)->isEnabled());
        QVERIFY(f.action(32799)->isEnabled());
        QVERIFY2(!f.action(57665)->isEnabled(), "no exit while grabbing");
        QVERIFY2(!f.timerActive(timer::kCameraStatus), "no polling while the grab runs");
        rig.Frames(20);
        rig.Pump();
        f.OnTimer(timer::kFramesGrabbed);
        QCOMPARE(f.panes()->paneText(pane::kFramesGrabbed), QString("Frame Grabbed: 20"));

        // Closing is refused while the grab runs.
        QVERIFY(!f.close());
        QCOMPARE(rig.prompt.boxes.last(),
                 QString("Grab(continuous) process is running.Please wait..."));
        QVERIFY(f.isVisible());

        rig.Trigger(32799);
        QVERIFY(rig.workbench->engine().idle());
        QVERIFY(rig.LogTexts().contains("Grab Stop\n"));
        QVERIFY2(f.timerActive(timer::kCameraStatus), "0x46C restarts the status timer");
        QVERIFY(f.action(57665)->isEnabled());

        // A single shot counts one frame and shows it.
        rig.Trigger(32797);
        f.OnTimer(timer::kFramesGrabbed);
        QCOMPARE(f.panes()->paneText(pane::kFramesGrabbed), QString("Frame Grabbed: 1"));
        QCOMPARE(rig.LogTexts().last(), QString("Grab (1 Shot) completed\n"));
        QVERIFY(f.close());
    }

    void statusBarFollowsTheBoardsStatusWords() {
        {
            GuiRig rig("[board0]\nwidth=64\nheight=48\n[board1]\n");
            CMainFrame& f = *rig.frame;
            f.OnTimer(timer::kCameraStatus);
            for (int p : {pane::kPixelClock, pane::kLineValid, pane::kFrameValid}) {
                QCOMPARE(f.panes()->paneColour(p), kSignalPresentColour);
            }
            QCOMPARE(f.panes()->paneText(pane::kPixelClock), QString("Pixel Clock"));
            // Bits 0 and 2 gone: their indicators turn and the log says so once.
            rig.workbench->engine().cameraStatus = 0x2;
            f.HandleMessage(msg::kCameraStatus, 0, 1);
            f.HandleMessage(msg::kCameraStatus, 0, 1);
            QCOMPARE(f.panes()->paneColour(pane::kPixelClock), kSignalAbsentColour);
            QCOMPARE(f.panes()->paneColour(pane::kFrameValid), kSignalPresentColour);
            QCOMPARE(f.panes()->paneColour(pane::kLineValid), kSignalAbsentColour);
            QCOMPARE(rig.LogTexts().count("Pixel clock signal invalid\n"), 1);
            QCOMPARE(rig.LogTexts().count("Line signal invalid\n"), 1);
            // The PCIe link, read once after start-up: x8 at 8 GT/s is enough.
            f.OnTimer(timer::kPcieLink);
            QVERIFY(!f.timerActive(timer::kPcieLink));
            rig.Pump();
            QCOMPARE(f.panes()->paneText(pane::kPcieState), QString("PCIe State: 8.0GT/s x8"));
            QCOMPARE(f.panes()->paneText(pane::kSerialPort), QString("Serial Port:    NULL"));
            QVERIFY(!rig.LogTexts().contains(kPcieWarningText));
        }
        {
            // A CoaXPress board on a slow link: the link speed in the first indicator, and the
            // warning.
            GuiRig rig("[board0]\nopen_fails=1\n[board1]\npcie_link=0x22\n");
            CMainFrame& f = *rig.frame;
            f.OnTimer(timer::kCameraStatus);
            QCOMPARE(f.panes()->paneText(pane::kPixelClock), QString("6.25Gbps"));
            QCOMPARE(f.panes()->paneColour(pane::kPixelClock), kSignalPresentColour);
            f.OnTimer(timer::kPcieLink);
            rig.Pump();
            QCOMPARE(f.panes()->paneText(pane::kPcieState), QString("PCIe State: 5.0GT/s x2"));
            QCOMPARE(rig.LogTexts().count(kPcieWarningText), 1);
            rig.workbench->engine().cameraStatus = 0x04;
            f.HandleMessage(msg::kCameraStatus, 0, 1);
            QCOMPARE(f.panes()->paneText(pane::kPixelClock), QString("Disconncet"));
            QCOMPARE(f.panes()->paneColour(pane::kPixelClock), kSignalAbsentColour);
        }
    }

    void messageWindowStampsLinesFromAnyThreadAndClears() {
        GuiRig rig("[board0]\nwidth=64\nheight=48\n[board1]\n");
        COutputList& list = *rig.frame->output()->list();
        QCOMPARE(list.lines().first(), QString("Output Message:\n"));
        rig.log.log("from here\n");
        QThread* worker = QThread::create([&rig] { rig.log.log("from a worker"); });
        worker->start();
        worker->wait();
        delete worker;
        rig.Pump();
        const QStringList lines = list.lines();
        const QRegularExpression stamp("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d {7}");
        QVERIFY(lines.size() >= 3);
        QVERIFY(stamp.match(lines[lines.size() - 2]).hasMatch());
        QCOMPARE(lines[lines.size() - 2].mid(26), QString("from here\n"));
        QCOMPARE(lines.last().mid(26), QString("from a worker"));
        QCOMPARE(list.currentRow(), list.count() - 1);  // "the newest line is selected"
        list.Clear();
        QCOMPARE(list.lines(), QStringList{"Output Message:\n"});
        QCOMPARE(list.currentRow(), 0);
    }

    void aDroppedImageOpensAndJoinsTheRecentFiles() {
        GuiRig rig("[board0]\nwidth=64\nheight=48\n[board1]\n");
        const QString png = rig.dir.filePath("dropped.png");
        cv::Mat m(30, 40, CV_8UC1, cv::Scalar(99));
        QVERIFY(cv::imwrite(png.toStdString(), m));
        QMimeData data;
        data.setUrls({QUrl::fromLocalFile(png)});
        // Qt hands a drop only to the widget that accepted the drag's entry.
        QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &data, Qt::LeftButton,
                              Qt::NoModifier);
        QCoreApplication::sendEvent(rig.frame.get(), &enter);
        QVERIFY(enter.isAccepted());
        QDropEvent drop(QPointF(10, 10), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(rig.frame.get(), &drop);
        rig.Pump();
        const FrameImage& frame = rig.workbench->document().frameImage();
        QCOMPARE(frame.raw().width(), 40);
        QCOMPARE(frame.raw().height(), 30);
        QCOMPARE(rig.frame->recentFiles(), QStringList{png});
        // A file of a kind it cannot open is said so.
        rig.frame->OpenFileByName(rig.dir.filePath("notes.txt"));
        QCOMPARE(rig.LogTexts().last(),
                 QString("This software does not support opening this type of file.\n"));
    }

    // The application as started: one instance only, and the settings written back at exit
    // with their two quirks.
    void oneInstanceAndTheSettingsAtExit() {
        qunsetenv("ORVIX_SIM_CONFIG");
        {
            // No start prompt in the way.
            QSettings user(home.filePath("config/KELM-Lumetra/Lumetra.conf"), QSettings::IniFormat);
            user.setValue("StatusInfo/StartupInfo", 0);
        }
        AppOptions options;
        options.lockFolder = home.filePath("run");
        {
            auto first = std::make_unique<CKELM_PCIE_VexCardApp>(options);
            QVERIFY(first->InitInstance());
            QVERIFY(first->frame()->isVisible());
            first->appSettings().frameLost = 0;
            first->appSettings().marker = 0;

            CKELM_PCIE_VexCardApp second(options);
            QString text;
            AnswerNextBox(&text);
            QVERIFY(!second.InitInstance());
            QCOMPARE(text, QString(kAlreadyRunningText));
            first->frame()->close();
        }
        QSettings written(home.filePath("config/KELM-Lumetra/Lumetra.conf"), QSettings::IniFormat);
        QCOMPARE(written.value("StatusInfo/Marker").toInt(), 0);
        QCOMPARE(written.value("StatusInfo/Frame Lost").toInt(), 0);
        QVERIFY(!written.contains("StatusInfo/FrameLost"));
        QCOMPARE(written.value("Connect/FrameValid").toInt(), 1);
        // The lock went with the first instance: a new one starts.
        CKELM_PCIE_VexCardApp third(options);
        QVERIFY(third.InitInstance());
        QCOMPARE(third.appSettings().frameLost, 1);  // "read back from FrameLost: on again"
        QCOMPARE(third.appSettings().marker, 0);
        third.frame()->close();
    }

  private:
    QTemporaryDir home;
};

QTEST_MAIN(MainFrameTest)
#include "main_frame_test.moc"
