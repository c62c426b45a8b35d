// lumetra_screenshots DIR [ARAVIS_LIBRARY]: the window as the README shows it, drawn on the
// simulated board's manual clock so that every picture is the same on every machine; with the
// Aravis board library also a live grab from Aravis's fake camera, started on 127.0.0.1.
// scripts/screenshots runs it under Xvfb and writes docs/*.png.
#include <QApplication>
#include <QDir>
#include <QScreen>
#include <cstdio>

#include "contract/fake_camera.h"
#include "gui_support.h"

using namespace lumetra;
using namespace lumetra::test;

namespace {

bool Save(CMainFrame& frame, const QString& path) {
    frame.UpdateCommandStates();
    for (int i = 0; i < 5; ++i) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    // From the X server, so that the picture is what the screen shows, OpenGL view included.
    const QPixmap shot = frame.screen()->grabWindow(frame.winId());
    if (shot.isNull() || !shot.save(path, "PNG")) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
        return false;
    }
    std::printf("%s\n", qPrintable(path));
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    if (argc != 2 && argc != 3) {
        std::fprintf(stderr, "usage: lumetra_screenshots DIR [ARAVIS_LIBRARY]\n");
        return 2;
    }
    const QDir out(QString::fromLocal8Bit(argv[1]));
    bool ok = true;
    {
        // The first default board as a 1920 x 1200 monochrome camera looking at a scene.
        GuiRig rig("[board0]\nbayer=0\npattern=scene\n[board1]\n");
        CMainFrame& f = *rig.frame;
        f.resize(1280, 960);
        ok &= Save(f, out.filePath("workbench-idle.png"));

        rig.Trigger(cmd::kGrabContinuous);
        rig.Trigger(cmd::kZoomFit);
        rig.Frames(90);
        rig.Pump();
        // The display thread shows the newest frame after its own pause (real time).
        QTest::qWait(400);
        f.OnTimer(timer::kFramesGrabbed);
        f.OnTimer(timer::kFrameLostPane);
        ok &= Save(f, out.filePath("workbench-grabbing.png"));

        rig.Trigger(cmd::kGrabStop);
        f.view()->setMarkerVisible(true);
        f.view()->runCommand(cmd::kMaximumImage);
        // The marker on the pixel under the middle of the view.
        const ImageRect& r = f.view()->imageRect();
        const double zoom = f.view()->zoom();
        f.view()->setMarkerPixel(QPoint(int((f.view()->clientSize().width / 2 - r.left) / zoom),
                                        int((f.view()->clientSize().height / 2 - r.top) / zoom)));
        rig.Pump();
        ok &= Save(f, out.filePath("workbench-384.png"));
    }
    {
        // A 12-bit monochrome camera, shown "Adaptive": its samples spread over the display range.
        GuiRig rig("[board0]\ndata_format=12\ntaps=1\nbayer=0\npattern=scene\n[board1]\n");
        CMainFrame& f = *rig.frame;
        f.resize(1280, 960);
        rig.Trigger(cmd::kGrabOnce);
        rig.Frames(1);
        rig.Pump();
        rig.Trigger(cmd::kZoomFit);
        f.OnTimer(timer::kFramesGrabbed);
        ok &= Save(f, out.filePath("workbench-12bit-adaptive.png"));
    }
    if (argc == 3) {
        // A GenICam camera through the Aravis board library, live: real time, real network
        // (the loopback), so this picture differs from run to run.
        FakeCamera camera;
        if (const std::string why = camera.Start(); !why.empty()) {
            std::fprintf(stderr, "%s\n", why.c_str());
            return 1;
        }
        qputenv("LUMETRA_ARAVIS_CAMERAS", "127.0.0.1");
        GuiRig rig({}, argv[2]);
        CMainFrame& f = *rig.frame;
        f.resize(1280, 960);
        rig.Trigger(cmd::kGrabContinuous);
        rig.Trigger(cmd::kZoomFit);
        QTest::qWait(3000);
        f.OnTimer(timer::kFramesGrabbed);
        f.OnTimer(timer::kFrameLostPane);
        ok &= rig.workbench->engine().context().framesDisplayed > 0;
        ok &= Save(f, out.filePath("workbench-aravis.png"));
        rig.Trigger(cmd::kGrabStop);
    }
    return ok ? 0 : 1;
}
