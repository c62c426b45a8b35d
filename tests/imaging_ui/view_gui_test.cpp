// The main image view and its dialogs on a real OpenGL context (Mesa under Xvfb): pixels of the
// grabbed framebuffer at 1:1 and at the large zooms, the wheel, the commands, the marker, the
// context menu, the dialogs, and a context the view cannot draw with.
#include <QApplication>
#include <QComboBox>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QRadioButton>
#include <QScrollBar>
#include <QSignalSpy>
#include <QTest>
#include <QWheelEvent>

#include <cstdio>
#include <memory>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "acquisition/board_document.h"
#include "base/settings.h"
#include "imaging/display_modes.h"
#include "imaging/ui/bayer_setting.h"
#include "imaging/ui/display_setting.h"
#include "imaging/ui/main_view.h"
#include "imaging/ui/pixel_setting.h"
#include "imaging/view_readout.h"
#include "support/recording_log.h"

namespace lumetra {
namespace {

class RecordingSink final : public MessageSink {
  public:
    void post(uint32_t message, intptr_t, intptr_t) override { messages.push_back(message); }
    int count(uint32_t message) const {
        return static_cast<int>(std::count(messages.begin(), messages.end(), message));
    }
    std::vector<uint32_t> messages;
};

class RecordingPrompt final : public Prompt {
  public:
    void information(std::string_view text) override { boxes.emplace_back(text); }
    std::vector<std::string> boxes;
};

// A document without a board, a Frame image the test fills, and the view in a window of its own.
struct Rig {
    explicit Rig(QSize size = {400, 300},
                 const QSurfaceFormat& format = CLumetraMainWnd::DefaultSurfaceFormat()) {
        DocumentServices services;
        services.settings = &settings;
        services.log = &documentLog;
        services.resourceConfigPath = "/nonexistent/BoardConfig.ini";
        document = std::make_unique<CKELM_PCIE_VexCardDoc>(services);
        view = std::make_unique<CLumetraMainWnd>(document->viewSources(), log, &sink, format);
        view->setPrompt(&prompt);
        view->resize(size);
        view->show();
        if (!QTest::qWaitForWindowExposed(view.get())) {
            qWarning("the view's window was never exposed");
        }
    }

    // Puts a frame into the Frame image as the grab path does, and tells the view.
    void Load(const cv::Mat& pixels, int bitsPerPixel, bool rgbc = false) {
        FrameImage& frame = document->frameImage();
        {
            std::lock_guard lock(frame.frameLock());
            FrameFormat f;
            f.width = pixels.cols;
            f.height = pixels.rows;
            f.bitsPerPixel = bitsPerPixel;
            f.channels = rgbc ? 3 : pixels.channels();
            f.rgbc = rgbc;
            frame.setFormat(f);
            QVERIFY(frame.Allocate(bitsPerPixel, document->bayer(), documentLog));
        }
        Put(pixels);
        view->frameSizeChanged();
    }

    // A new frame of the same format.
    void Put(const cv::Mat& pixels) {
        FrameImage& frame = document->frameImage();
        std::lock_guard lock(frame.frameLock());
        cv::Mat target = frame.raw().mat();
        pixels.copyTo(target);
        frame.countFrame();
    }

    // The view as displayed, after any paint still pending.
    QImage Screen() {
        QApplication::processEvents();
        return view->viewImage();
    }

    MemorySettings settings;
    NullMessageLog documentLog;
    test::RecordingLog log;
    RecordingSink sink;
    RecordingPrompt prompt;
    std::unique_ptr<CKELM_PCIE_VexCardDoc> document;
    std::unique_ptr<CLumetraMainWnd> view;
};

cv::Mat Gradient(int rows, int cols) {
    cv::Mat m(rows, cols, CV_8UC1);
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < cols; ++x) {
            m.at<uint8_t>(y, x) = static_cast<uint8_t>(x * 3 + y);
        }
    }
    return m;
}

int Grey(QRgb rgb) {
    return qGreen(rgb);
}

void SendWheel(QWidget* widget, QPointF at, int delta) {
    QWheelEvent event(at, widget->mapToGlobal(at), QPoint(), QPoint(0, delta), Qt::NoButton,
                      Qt::NoModifier, Qt::NoScrollPhase, false);
    QApplication::sendEvent(widget, &event);
}

void SendMouse(QWidget* widget, QEvent::Type type, QPointF at, Qt::MouseButton button,
               Qt::MouseButtons buttons) {
    QMouseEvent event(type, at, widget->mapToGlobal(at), button, buttons, Qt::NoModifier);
    QApplication::sendEvent(widget, &event);
}

// The dialog a command opened: it is made and shown before the command returns.
template <typename T>
T* OpenedDialog(QWidget* parent) {
    for (T* dialog : parent->findChildren<T*>()) {
        if (dialog->isVisible()) {
            return dialog;
        }
    }
    return nullptr;
}

}  // namespace

class ViewTest : public QObject {
    Q_OBJECT

  private slots:
    void contextIsReady() {
        Rig rig;
        QVERIFY(rig.view->contextReady());
        QVERIFY(rig.log.lines().empty());
        QCOMPARE(rig.view->format().profile(), QSurfaceFormat::CompatibilityProfile);
    }

    void monoEightBitAtOneToOne() {
        Rig rig({200, 150});
        const cv::Mat image = Gradient(48, 64);
        rig.Load(image, 8);
        const QImage screen = rig.Screen();
        QCOMPARE(screen.size(), QSize(200, 150));
        // Centred: left = (200 - 64) / 2, top = floor((150 - 48) / 2).
        QCOMPARE(rig.view->imageRect().left, 68.0);
        QCOMPARE(rig.view->imageRect().top, 51.0);
        for (int y = 0; y < 48; ++y) {
            for (int x = 0; x < 64; ++x) {
                const QRgb p = screen.pixel(68 + x, 51 + y);
                QVERIFY2(
                    qRed(p) == image.at<uint8_t>(y, x) && Grey(p) == qRed(p) && qBlue(p) == qRed(p),
                    qPrintable(QString("pixel %1,%2").arg(x).arg(y)));
            }
        }
        QCOMPARE(screen.pixel(67, 51), qRgb(0, 0, 0));
        QCOMPARE(screen.pixel(68 + 64, 51), qRgb(0, 0, 0));
        QCOMPARE(screen.pixel(68, 50), qRgb(0, 0, 0));
        QVERIFY(rig.view->lastRender().frameDrawn);
        QVERIFY(rig.view->lastDrawMs() > 0);
    }

    void twelveBitAdaptiveAndAsIs() {
        Rig rig({100, 80});
        cv::Mat image(20, 30, CV_16UC1);
        for (int i = 0; i < image.rows * image.cols; ++i) {
            image.at<uint16_t>(i / image.cols, i % image.cols) =
                static_cast<uint16_t>(i * 7 % 4096);
        }
        rig.Load(image, 12);
        QVERIFY(rig.document->frameImage().highBit());  // "Adaptive"
        const QPoint at(35, 30);                        // (100 - 30) / 2, (80 - 20) / 2
        QImage screen = rig.Screen();
        for (int y = 0; y < 20; y += 3) {
            for (int x = 0; x < 30; x += 2) {
                const int v = image.at<uint16_t>(y, x);
                const int expected = static_cast<int>(std::lround((v << 4) * 255.0 / 65535));
                QVERIFY2(std::abs(Grey(screen.pixel(at.x() + x, at.y() + y)) - expected) <= 1,
                         qPrintable(QString("adaptive %1 at %2,%3").arg(v).arg(x).arg(y)));
            }
        }
        {
            std::lock_guard lock(rig.document->frameImage().frameLock());
            rig.document->frameImage().setHighBit(false);  // "16 bits"
        }
        rig.view->update();
        screen = rig.Screen();
        for (int x = 0; x < 30; ++x) {
            const int v = image.at<uint16_t>(5, x);
            const int expected = static_cast<int>(std::lround(v * 255.0 / 65535));
            QVERIFY(std::abs(Grey(screen.pixel(at.x() + x, at.y() + 5)) - expected) <= 1);
        }
    }

    void bayerIsDemosaicedInItsPattern() {
        // Blocks of red 200, greens 100, blue 50 in each pattern's sensor order: the same colour
        // on screen whichever the pattern, when the pattern matches the mosaic.
        const int sites[][2] = {{3, 0}, {0, 3}, {2, 1}, {1, 2}};  // red, blue site per pattern
        for (int pattern = 1; pattern <= 4; ++pattern) {
            Rig rig({120, 100});
            rig.document->bayer() = {true, pattern};
            cv::Mat mosaic(40, 60, CV_8UC1);
            for (int y = 0; y < 40; ++y) {
                for (int x = 0; x < 60; ++x) {
                    const int site = (y % 2) * 2 + x % 2;
                    mosaic.at<uint8_t>(y, x) = site == sites[pattern - 1][0]   ? 200
                                               : site == sites[pattern - 1][1] ? 50
                                                                               : 100;
                }
            }
            rig.Load(mosaic, 8);
            const QImage screen = rig.Screen();
            for (const QPoint p :
                 {QPoint(30 + 10, 30 + 10), QPoint(30 + 31, 30 + 20), QPoint(30 + 45, 30 + 33)}) {
                QCOMPARE(screen.pixel(p), qRgb(200, 100, 50));
            }
        }
    }

    void valuesAt384NoneAt64() {
        Rig rig({800, 600});
        cv::Mat image(16, 16, CV_8UC1, cv::Scalar(40));
        rig.Load(image, 8);
        rig.view->runCommand(viewcmd::kMaximumImage);
        QCOMPARE(rig.view->zoom(), 384.0);
        QImage screen = rig.Screen();
        QCOMPARE(rig.view->lastRender().overlayLevel, 0);
        // The cell of the pixel under the centre holds light text on its dark grey.
        const ImageRect r = rig.view->imageRect();
        const cv::Point centre = ImagePixelAt(r, 384, {400, 300});
        const int cellX = static_cast<int>(r.left + centre.x * 384);
        const int cellY = static_cast<int>(r.top + centre.y * 384);
        int text = 0;
        int other = 0;
        for (int y = std::max(0, cellY); y < std::min(screen.height(), cellY + 384); ++y) {
            for (int x = std::max(0, cellX); x < std::min(screen.width(), cellX + 384); ++x) {
                const QRgb p = screen.pixel(x, y);
                if (p == qRgb(255, 255, 255)) {
                    ++text;
                } else if (p != qRgb(40, 40, 40)) {
                    ++other;
                }
            }
        }
        QVERIFY2(text > 200, qPrintable(QString("text pixels %1").arg(text)));
        QCOMPARE(other, 0);

        rig.view->runCommand(32861);  // "X 32"
        QCOMPARE(rig.view->zoom(), 32.0);
        rig.view->zoomStep(true);
        QCOMPARE(rig.view->zoom(), 64.0);
        screen = rig.Screen();
        QCOMPARE(rig.view->lastRender().overlayLevel, -1);
        const cv::Rect area = rig.view->lastRender().imageArea;
        for (int y = area.y; y < area.y + area.height; y += 3) {
            for (int x = area.x; x < area.x + area.width; x += 3) {
                QCOMPARE(screen.pixel(x, y), qRgb(40, 40, 40));
            }
        }
        rig.view->zoomStep(true);
        QCOMPARE(rig.view->zoom(), 96.0);
        rig.Screen();
        QCOMPARE(rig.view->lastRender().overlayLevel, 2);
        rig.view->runCommand(viewcmd::kNoValues);
        rig.Screen();
        QCOMPARE(rig.view->lastRender().overlayLevel, -1);
    }

    void wheelZoomsAboutTheCursor() {
        Rig rig({400, 300});
        rig.Load(Gradient(300, 400), 8);
        const QPointF cursor(123, 77);
        const cv::Point2d before = ClientToImage(rig.view->imageRect(), 1, {123, 77});
        QSignalSpy zoomed(rig.view.get(), &CLumetraMainWnd::zoomChanged);
        SendWheel(rig.view.get(), cursor, 120);
        QCOMPARE(rig.view->zoom(), 2.0);
        QCOMPARE(zoomed.count(), 1);
        QCOMPARE(zoomed.at(0).at(0).toDouble(), 2.0);
        cv::Point2d after = ClientToImage(rig.view->imageRect(), 2, {123, 77});
        QCOMPARE(after.x, before.x);
        QCOMPARE(after.y, before.y);
        // A fine wheel adds up to one notch.
        for (int i = 0; i < 7; ++i) {
            SendWheel(rig.view.get(), cursor, 15);
        }
        QCOMPARE(rig.view->zoom(), 2.0);
        SendWheel(rig.view.get(), cursor, 15);
        QCOMPARE(rig.view->zoom(), 4.0);
        SendWheel(rig.view.get(), cursor, -120);
        QCOMPARE(rig.view->zoom(), 2.0);
        after = ClientToImage(rig.view->imageRect(), 2, {123, 77});
        QCOMPARE(after.x, before.x);
        QCOMPARE(after.y, before.y);
        // From 1 backwards it stops at 1/384.
        rig.view->runCommand(viewcmd::kOriginalSize);
        for (int i = 0; i < 12; ++i) {
            SendWheel(rig.view.get(), cursor, -120);
        }
        QCOMPARE(rig.view->zoom(), 1.0 / 384);
    }

    void zoomCommands() {
        Rig rig({1024, 768});
        rig.Load(cv::Mat(100, 4096, CV_8UC1, cv::Scalar(9)), 8);
        rig.view->runCommand(viewcmd::kZoomFit);
        QCOMPARE(rig.view->zoom(), 0.25);
        rig.view->runCommand(32861);  // "X 32"
        QCOMPARE(rig.view->zoom(), 32.0);
        QCOMPARE(rig.view->previousZoom(), 0.25);
        QVERIFY(rig.view->commandChecked(32861));
        QVERIFY(!rig.view->commandChecked(32860));
        rig.view->runCommand(viewcmd::kOriginalSize);
        QCOMPARE(rig.view->zoom(), 1.0);
        QVERIFY(rig.view->commandChecked(viewcmd::kOriginalSize));
        rig.view->runCommand(32866);  // "X 1/32"
        QCOMPARE(rig.view->zoom(), 0.03125);
        rig.view->runCommand(viewcmd::kMaximumImage);
        QCOMPARE(rig.view->zoom(), 384.0);
        QSignalSpy zoomed(rig.view.get(), &CLumetraMainWnd::zoomChanged);
        rig.view->runCommand(viewcmd::kMaximumImage);
        QCOMPARE(rig.view->zoom(), 384.0);
        QCOMPARE(rig.view->previousZoom(), 384.0);
        QCOMPARE(zoomed.count(), 0);
        // Zoom In / Zoom Out keep the image point at the centre.
        rig.view->runCommand(viewcmd::kOriginalSize);
        const cv::Size client = rig.view->clientSize();
        const cv::Point2d centre(client.width / 2.0, client.height / 2.0);
        const cv::Point2d before = ClientToImage(rig.view->imageRect(), 1, centre);
        rig.view->zoomStep(true);
        rig.view->zoomStep(true);
        QCOMPARE(rig.view->zoom(), 4.0);
        const cv::Point2d after = ClientToImage(rig.view->imageRect(), 4, centre);
        QVERIFY(std::abs(after.x - before.x) < 1e-9 && std::abs(after.y - before.y) < 1e-9);
    }

    void markerReadoutAndCross() {
        Rig rig({200, 150});
        const cv::Mat image = Gradient(48, 64);
        rig.Load(image, 8);
        rig.Screen();
        rig.view->setMarkerVisible(true);
        // A click (press and release in place) on image pixel (10, 5) moves the marker.
        const QPointF at(68 + 10.5, 51 + 5.5);
        SendMouse(rig.view.get(), QEvent::MouseButtonPress, at, Qt::LeftButton, Qt::LeftButton);
        SendMouse(rig.view.get(), QEvent::MouseButtonRelease, at, Qt::LeftButton, Qt::NoButton);
        QCOMPARE(rig.view->markerPixel(), QPoint(10, 5));
        QCOMPARE(rig.sink.count(msg::kMarker), 1);
        QCOMPARE(rig.view->markerReadout(), std::string("Marker(x,y)=(10,5)  Value(Gray)= 35"));
        rig.view->runCommand(viewcmd::kHexadecimal);
        QCOMPARE(rig.view->dataFormat(), 1);
        QCOMPARE(rig.sink.count(msg::kMarker), 2);  // the pane switches at once
        QCOMPARE(rig.view->markerReadout(), std::string("Marker(x,y)=(10,5)  Value(Gray)= 23"));
        // The red cross runs through the marker pixel.
        const QImage screen = rig.Screen();
        QCOMPARE(screen.pixel(68 + 10, 10), qRgb(255, 0, 0));
        QCOMPARE(screen.pixel(68 + 10, 140), qRgb(255, 0, 0));
        QCOMPARE(screen.pixel(5, 51 + 5), qRgb(255, 0, 0));
        QCOMPARE(screen.pixel(195, 51 + 5), qRgb(255, 0, 0));
        QCOMPARE(Grey(screen.pixel(68 + 11, 51 + 7)), image.at<uint8_t>(7, 11));
        // A marker at x = width reads nothing.
        rig.view->setMarkerPixel(QPoint(64, 5));
        QCOMPARE(rig.view->markerReadout(), std::string());
        // A drag moves the image, not the marker.
        rig.view->setMarkerPixel(QPoint(1, 1));
        const ImageRect before = rig.view->imageRect();
        SendMouse(rig.view.get(), QEvent::MouseButtonPress, at, Qt::LeftButton, Qt::LeftButton);
        SendMouse(rig.view.get(), QEvent::MouseMove, at + QPointF(-20, 7), Qt::NoButton,
                  Qt::LeftButton);
        SendMouse(rig.view.get(), QEvent::MouseButtonRelease, at + QPointF(-20, 7), Qt::LeftButton,
                  Qt::NoButton);
        QCOMPARE(rig.view->markerPixel(), QPoint(1, 1));
        QCOMPARE(rig.view->imageRect().left, before.left - 20);
        QCOMPARE(rig.view->imageRect().top, before.top + 7);
    }

    void overlayRectangleAndLine() {
        Rig rig({200, 150});
        rig.Load(cv::Mat(48, 64, CV_8UC1, cv::Scalar(60)), 8);
        rig.view->setOverlayShape(QRectF(5, 5, 40, 30), false);  // (5, 5) to (45, 35)
        QImage screen = rig.Screen();
        auto red = [&screen](int x, int y) {
            for (int dx = -1; dx <= 1; ++dx) {  // lines land within a pixel of their place
                if (screen.pixel(x + dx, y) == qRgb(255, 0, 0)) {
                    return true;
                }
            }
            return false;
        };
        const int left = 68;
        const int top = 51;
        // Between the handles: the outline's two sides, nothing inside.
        QVERIFY(red(left + 5 + 1, top + 12));
        QVERIFY(red(left + 45 + 1, top + 12));
        QCOMPARE(Grey(screen.pixel(left + 25, top + 12)), 60);
        // A handle: a filled square on the middle of the left side.
        for (int dy = -2; dy <= 2; ++dy) {
            QCOMPARE(screen.pixel(left + 5 + 1, top + 20 + dy), qRgb(255, 0, 0));
            QCOMPARE(screen.pixel(left + 5 + 2, top + 20 + dy), qRgb(255, 0, 0));
        }
        rig.view->setOverlayShape(QRectF(5, 5, 40, 30), true);  // the line form
        screen = rig.Screen();
        QVERIFY(!red(left + 5 + 1, top + 12));
        QVERIFY(red(left + 25 + 1, top + 20));  // the diagonal's middle
        rig.view->clearOverlayShape();
        screen = rig.Screen();
        QCOMPARE(Grey(screen.pixel(left + 25, top + 20)), 60);
    }

    void tooltipShowsThePixel() {
        Rig rig({200, 150});
        rig.Load(Gradient(48, 64), 8);
        SendMouse(rig.view.get(), QEvent::MouseMove, QPointF(68 + 20.5, 51 + 3.5), Qt::NoButton,
                  Qt::NoButton);
        QCOMPARE(rig.view->toolTipText(), QString("20,3"));
        SendMouse(rig.view.get(), QEvent::MouseMove, QPointF(5, 5), Qt::NoButton, Qt::NoButton);
        QCOMPARE(rig.view->toolTipText(), QString());
    }

    void scrollBarsFollowTheImage() {
        Rig rig({300, 200});
        rig.Load(Gradient(100, 150), 8);
        rig.view->runCommand(32858);  // "X 4": 600 x 400 in 300 x 200
        QScrollBar* h = nullptr;
        for (QScrollBar* bar : rig.view->findChildren<QScrollBar*>()) {
            if (bar->orientation() == Qt::Horizontal) {
                h = bar;
            }
        }
        QVERIFY(h != nullptr);
        QVERIFY(h->isVisible());
        const cv::Size client = rig.view->clientSize();
        QCOMPARE(client.height, 200 - h->height());  // the bar takes its room from the client
        const ImageRect before = rig.view->imageRect();
        QCOMPARE(h->value(), static_cast<int>(std::lround(-before.left)));
        h->setValue(h->value() + 40);
        QCOMPARE(rig.view->imageRect().left, before.left - 40);
        rig.view->runCommand(viewcmd::kZoomFit);
        QVERIFY(!h->isVisible());
    }

    void contextMenuVariants() {
        Rig rig;
        rig.Load(Gradient(20, 20), 8);
        auto texts = [&rig] {
            std::unique_ptr<QMenu> menu(rig.view->createContextMenu(nullptr));
            QStringList list;
            for (QAction* a : menu->actions()) {
                if (!a->isSeparator()) {
                    list << a->text();
                }
            }
            return list;
        };
        const QStringList fixed{"Display Setting...",
                                "Goto Pixel...",
                                "Zoom Fit",
                                "Original Size",
                                "Maximum Image",
                                "Blank Image",
                                "X 2",
                                "X 4",
                                "X 8",
                                "X 16",
                                "X 32",
                                "X 1/2",
                                "X 1/4",
                                "X 1/8",
                                "X 1/16",
                                "X 1/32",
                                "Decimal ",
                                "Hexadecimal",
                                "No"};
        QStringList mono = fixed;
        mono << "RGB"
             << "Red"
             << "Green"
             << "Blue"
             << "Clear"
             << "Channel0"
             << "Channel1"
             << "Channel2"
             << "Channel3";
        QCOMPARE(texts(), mono);
        rig.Load(cv::Mat(20, 20, CV_8UC3, cv::Scalar(1, 2, 3)), 24);
        QStringList colour = fixed;
        colour << "RGB"
               << "Red"
               << "Green"
               << "Blue"
               << "Clear"
               << "YCrCb"
               << "Y"
               << "Cr"
               << "Cb"
               << "CCrCb->RGB";
        QCOMPARE(texts(), colour);

        // States and commands: "RGB" and "Decimal " checked; "Clear" needs four channels.
        std::unique_ptr<QMenu> menu(rig.view->createContextMenu(nullptr));
        auto action = [&menu](const QString& text) -> QAction* {
            for (QAction* a : menu->actions()) {
                if (a->text() == text) {
                    return a;
                }
            }
            return nullptr;
        };
        QVERIFY(action("RGB")->isChecked());
        QVERIFY(action("Decimal ")->isChecked());
        QVERIFY(!action("Clear")->isEnabled());
        QVERIFY(action("Blank Image")->isEnabled());  // no grab runs
        QCOMPARE(action("Cb")->data().toInt(), 33016);
        action("Cb")->trigger();
        QCOMPARE(rig.document->displayMode, kModeCb);
        action("X 8")->trigger();
        QCOMPARE(rig.view->zoom(), 8.0);
    }

    void blankImageShowsNoFrame() {
        Rig rig({100, 80});
        rig.Load(cv::Mat(20, 20, CV_8UC1, cv::Scalar(200)), 8);
        QCOMPARE(Grey(rig.Screen().pixel(50, 40)), 200);
        rig.view->runCommand(viewcmd::kBlankImage);
        QCOMPARE(rig.sink.count(msg::kFrameSize), 1);
        QCOMPARE(rig.document->frameImage().raw().data()[0], ImageBuffer::kFillByte);
        QCOMPARE(rig.Screen().pixel(50, 40), qRgb(0, 0, 0));  // no background image either
        QVERIFY(!rig.view->lastRender().frameDrawn);
    }

    void highlightAndColourMapOnScreen() {
        Rig rig({100, 80});
        cv::Mat image(10, 20, CV_8UC1, cv::Scalar(128));
        image.at<uint8_t>(2, 3) = 255;
        image.at<uint8_t>(4, 5) = 0;
        rig.Load(image, 8);
        const QPoint at(40, 35);
        QCOMPARE(rig.Screen().pixel(at + QPoint(3, 2)), qRgb(255, 255, 255));
        rig.view->setHighlightClipping(true);
        QImage screen = rig.Screen();
        QCOMPARE(screen.pixel(at + QPoint(3, 2)), qRgb(255, 0, 0));
        QCOMPARE(screen.pixel(at + QPoint(5, 4)), qRgb(0, 0, 255));
        QCOMPARE(screen.pixel(at + QPoint(6, 4)), qRgb(128, 128, 128));
        rig.view->setHighlightClipping(false);
        rig.view->setFalseColour(true);
        screen = rig.Screen();
        cv::Mat grey(1, 1, CV_8UC1, cv::Scalar(128)), mapped;
        cv::applyColorMap(grey, mapped, cv::COLORMAP_TURBO);
        const cv::Vec3b bgr = mapped.at<cv::Vec3b>(0, 0);
        QCOMPARE(screen.pixel(at + QPoint(6, 4)), qRgb(bgr[2], bgr[1], bgr[0]));
        QCOMPARE(screen.pixel(2, 2), qRgb(0, 0, 0));
    }

    void repaintsCoalesceToTheNewestFrame() {
        Rig rig({100, 80});
        rig.Load(cv::Mat(20, 20, CV_8UC1, cv::Scalar(10)), 8);
        rig.Screen();
        QTest::qWait(50);  // let the window settle: no paint pending
        const int before = rig.view->paintCount();
        for (int value : {60, 120, 180}) {
            rig.Put(cv::Mat(20, 20, CV_8UC1, cv::Scalar(value)));
            rig.view->update();
        }
        QVERIFY(QTest::qWaitFor([&] { return rig.view->paintCount() > before; }, 2000));
        QTest::qWait(50);
        QCOMPARE(rig.view->paintCount(), before + 1);
        QCOMPARE(rig.view->lastRender().frameCount, 4u);  // the newest of the three
        QVERIFY(rig.view->lastPaintMs() >= 0);
    }

    void gotoPixelCentresThePixel() {
        Rig rig({300, 200});
        rig.Load(Gradient(100, 150), 8);
        rig.view->runCommand(32858);  // "X 4"
        rig.view->runCommand(viewcmd::kGotoPixel);
        auto* dialog = OpenedDialog<CPagePixelSetting>(rig.view.get());
        QVERIFY(dialog != nullptr);
        QCOMPARE(dialog->windowTitle(), QString("Goto Pixel"));
        auto* x = dialog->findChild<QLineEdit*>("1274");
        auto* y = dialog->findChild<QLineEdit*>("1275");
        QVERIFY(x && y);
        QVERIFY(QTest::qWaitForWindowActive(dialog));
        // Out of range on losing focus: the box, and the last good value back.
        const QString good = x->text();
        x->setFocus();
        QVERIFY(QTest::qWaitFor([&] { return x->hasFocus(); }, 1000));
        x->selectAll();
        QTest::keyClicks(x, "150");  // the limit is 149
        y->setFocus();
        QVERIFY(QTest::qWaitFor([&] { return y->hasFocus(); }, 1000));
        QCOMPARE(rig.prompt.boxes, std::vector<std::string>{"Set value is out of range"});
        QCOMPARE(x->text(), good);
        x->setText("149");
        y->setText("99");
        dialog->findChild<QPushButton*>("1")->click();
        QCOMPARE(rig.prompt.boxes.size(), 1u);
        const cv::Size client = rig.view->clientSize();
        const cv::Point2d centre = PixelCentre(rig.view->imageRect(), 4, {149, 99});
        QCOMPARE(centre.x, client.width / 2.0);
        QCOMPARE(centre.y, client.height / 2.0);
        // OK with a value past the limit is refused with the box.
        rig.view->runCommand(viewcmd::kGotoPixel);
        dialog = OpenedDialog<CPagePixelSetting>(rig.view.get());
        dialog->findChild<QLineEdit*>("1275")->setText("100");
        dialog->findChild<QPushButton*>("1")->click();
        QCOMPARE(rig.prompt.boxes.size(), 2u);
        QVERIFY(dialog->isVisible());
        dialog->reject();
    }

    void displaySettingStates() {
        Rig rig({100, 80});
        // An 8-bit frame: only "8 bits"; OK leaves the 8-bit shift flag off.
        rig.Load(cv::Mat(10, 10, CV_8UC1, cv::Scalar(1)), 8);
        {
            CDisplaySetting dialog(rig.document->frameImage(), {});
            QCOMPARE(dialog.windowTitle(), QString("Display Setting"));
            QVERIFY(dialog.radio(1134)->isEnabled() && dialog.radio(1134)->isChecked());
            QVERIFY(!dialog.radio(1135)->isEnabled());
            QVERIFY(!dialog.radio(1139)->isEnabled());
            QVERIFY(!dialog.shiftList()->isEnabled());
            dialog.findChild<QPushButton*>("1090")->click();
            QVERIFY(!rig.document->frameImage().eightBitShift());
        }
        // 10-bit mono: shifts 0, 1, 2; "Adaptive" checked; shift 2 shows bits 2 to 9.
        rig.Load(cv::Mat(10, 10, CV_16UC1, cv::Scalar(0x3FC)), 10);
        int changed = 0;
        {
            CDisplaySetting dialog(rig.document->frameImage(), [&changed] { ++changed; });
            dialog.show();
            QVERIFY(dialog.radio(1139)->isChecked());
            QCOMPARE(dialog.shiftList()->count(), 3);
            QCOMPARE(dialog.shiftList()->itemText(2), QString("2"));
            dialog.radio(1134)->click();
            QVERIFY(dialog.shiftList()->isEnabled());
            QCOMPARE(dialog.shiftList()->currentIndex(), 0);
            dialog.shiftList()->setCurrentIndex(2);
            CBitDiagram* diagram = dialog.diagram();
            const QImage drawn = diagram->grab().toImage();
            QCOMPARE(diagram->bitsPerSample(), 10);
            for (int i = 0; i < 10; ++i) {  // index 0 is bit 9
                const QRgb centre = drawn.pixel(diagram->cellRect(i).center() + QPoint(0, 8));
                const bool grey = centre == (0xFF000000 | CBitDiagram::kShownColour);
                QVERIFY2(grey == (9 - i >= 2), qPrintable(QString("bit %1").arg(9 - i)));
            }
            // Cancel after "8 bits" still switches to 8-bit display, with the shift.
            dialog.findChild<QPushButton*>("1137")->click();
        }
        QCOMPARE(changed, 1);
        QVERIFY(rig.document->frameImage().eightBitShift());
        QCOMPARE(rig.document->frameImage().shift(), 2);
        QVERIFY(rig.document->frameImage().highBit());     // Cancel leaves it as it was
        QCOMPARE(Grey(rig.Screen().pixel(50, 40)), 0xFF);  // 0x3FC >> 2
        // Escape changes nothing.
        {
            CDisplaySetting dialog(rig.document->frameImage(), [&changed] { ++changed; });
            dialog.radio(1135)->click();
            dialog.reject();
        }
        QCOMPARE(changed, 1);
        QVERIFY(rig.document->frameImage().eightBitShift());
        // From the context menu the view opens it itself.
        rig.view->runCommand(viewcmd::kDisplaySetting);
        auto* opened = OpenedDialog<CDisplaySetting>(rig.view.get());
        QVERIFY(opened != nullptr);
        QVERIFY(opened->radio(1139)->isChecked());  // the high-bit flag is still on
        opened->findChild<QPushButton*>("1090")->click();
    }

    void bayerSettingOk() {
        BayerSettings bayer{false, 0};
        {
            CBayerSetting dialog(bayer);
            QCOMPARE(dialog.windowTitle(), QString("Bayer Setting"));
            QVERIFY(!dialog.checkedPattern());
            QStringList order;
            for (QRadioButton* r : dialog.findChildren<QRadioButton*>()) {
                order << r->text();
                QVERIFY(!r->isChecked());
            }
            QCOMPARE(order, (QStringList{"BGGR", "RGGB", "GBRG", "GRBG"}));
            dialog.button(3)->setChecked(true);            // "GBRG"
            dialog.findChild<QPushButton*>("2")->click();  // Cancel
        }
        QVERIFY(!bayer.enabled);
        QCOMPARE(bayer.pattern, 0);
        {
            CBayerSetting dialog(bayer);
            dialog.button(3)->setChecked(true);
            dialog.findChild<QPushButton*>("1")->click();
            QCOMPARE(dialog.result(), int(QDialog::Accepted));
        }
        QVERIFY(bayer.enabled);
        QCOMPARE(bayer.pattern, 3);
        CBayerSetting again(bayer);
        QVERIFY(again.button(3)->isChecked());
        QCOMPARE(again.checkedPattern(), 3);
    }

    void contextWithoutOpenGlOneIsReportedAndHarmless() {
        // An OpenGL ES context has no glDrawPixels: the view says so once and draws nothing.
        QSurfaceFormat es;
        es.setRenderableType(QSurfaceFormat::OpenGLES);
        es.setVersion(3, 0);
        Rig rig({100, 80}, es);
        QApplication::processEvents();
        QVERIFY(!rig.view->contextReady());
        QCOMPARE(rig.log.lines(),
                 std::vector<std::string>{"Can't Setup Pixel Format Description\n"});
        rig.Load(Gradient(20, 20), 8);
        rig.view->runCommand(32858);
        QCOMPARE(rig.view->zoom(), 4.0);
        rig.view->update();
        QApplication::processEvents();
        QVERIFY(rig.view->viewImage().isNull());
        QCOMPARE(rig.view->paintCount(), 0);
        QCOMPARE(rig.log.lines().size(), 1u);
    }
};

}  // namespace lumetra

int main(int argc, char** argv) {
    // The view needs an X display with OpenGL (Xvfb and Mesa will do); Qt's offscreen platform
    // cannot render it.
    const QByteArray platform = qgetenv("QT_QPA_PLATFORM");
    if (qEnvironmentVariableIsEmpty("DISPLAY") || (!platform.isEmpty() && platform != "xcb")) {
        std::fprintf(stderr,
                     "lumetra_view_gui_tests: needs an X display and QT_QPA_PLATFORM=xcb (now "
                     "DISPLAY='%s', QT_QPA_PLATFORM='%s'); run it as\n"
                     "  xvfb-run -a env QT_QPA_PLATFORM=xcb %s\n",
                     qgetenv("DISPLAY").constData(), platform.constData(), argv[0]);
        return 2;
    }
    qputenv("QT_QPA_PLATFORM", "xcb");
    QApplication app(argc, argv);
    lumetra::ViewTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "view_gui_test.moc"
