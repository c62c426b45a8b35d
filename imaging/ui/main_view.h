// The main image view: the current frame drawn with OpenGL (glDrawPixels) at any zoom, with the
// pixel-value overlay, the marker cross and the overlay rectangle, zoom by wheel and commands,
// dragging and scroll bars, a pixel tooltip and the context menu. The layout, the drawing image
// and every text come from imaging/ (view_layout.h, view_render.h, view_readout.h); this class
// only carries them to the window.
//
// Thread: the user-interface thread, as all of the view. The engine's threads never call it:
// they post, and the main window calls update() (repaints coalesce, so the view always paints
// the newest frame and never queues old ones).
#pragma once

#include <QImage>
#include <QOpenGLWidget>
#include <QPoint>
#include <QRectF>
#include <QSurfaceFormat>

#include <atomic>
#include <chrono>
#include <optional>
#include <string>

#include "base/messages.h"
#include "imaging/view_layout.h"
#include "imaging/view_render.h"
#include "imaging/view_sources.h"

class QLabel;
class QMenu;
class QOpenGLFunctions_2_0;
class QScrollBar;
class QTimer;

namespace lumetra {

class CLumetraMainWnd : public QOpenGLWidget {
    Q_OBJECT
  public:
    // Borrows the document's sources (Frame image, frame lock, display mode, Bayer settings,
    // background) and the log for the context-creation texts; sink gets 0x466 when the marker
    // moves and 0x401 after "Blank Image". Thread: the user-interface thread, as all of the view.
    CLumetraMainWnd(ViewSources sources, MessageLog& log, MessageSink* sink,
                    QWidget* parent = nullptr);
    // The same with the surface format asked of the context (a compatibility profile by default).
    CLumetraMainWnd(ViewSources sources, MessageLog& log, MessageSink* sink,
                    const QSurfaceFormat& format, QWidget* parent = nullptr);
    ~CLumetraMainWnd() override;

    // The compatibility-profile format the view asks for.
    static QSurfaceFormat DefaultSurfaceFormat();

    // Milliseconds of the last paint, from the start of the drawing to the buffer swap; the grab
    // engine paces its redraws from it.
    const std::atomic<int>& lastPaintMs() const { return lastPaintMs_; }
    // The drawing alone (render, glDrawPixels and overlays, until OpenGL has finished).
    double lastDrawMs() const { return lastDrawMs_; }
    int paintCount() const { return paintCount_; }
    // What the last paint drew.
    const RenderInfo& lastRender() const { return renderer_.info(); }
    // An OpenGL context the view can draw with was made.
    bool contextReady() const { return glReady_; }

    double zoom() const { return zoom_; }
    double previousZoom() const { return previousZoom_; }
    const ImageRect& imageRect() const { return rect_; }
    // The drawing area in device pixels: the widget without its scroll bars.
    cv::Size clientSize() const;

    // The context-menu and View-menu ids (zoom, modes, formats, the dialogs, "Blank Image").
    void runCommand(int id);
    bool commandChecked(int id) const;
    bool commandEnabled(int id) const;
    // Zoom In / Zoom Out: the wheel's steps about the centre.
    void zoomStep(bool in);
    // A wheel notch at a client point (device pixels), as the mouse wheel does.
    void wheelStep(bool forward, cv::Point2d anchor);

    void setMarkerVisible(bool on);
    bool markerVisible() const { return markerVisible_; }
    QPoint markerPixel() const { return markerPixel_; }  // image coordinates
    // Moves the marker (the pixel-capture tool's 0x482 too) and posts 0x466.
    void setMarkerPixel(QPoint pixel);
    // The status-bar text, empty when the marker is outside the image.
    std::string markerReadout() const;
    int dataFormat() const { return dataFormat_; }  // 0 "Decimal", 1 "Hexadecimal", 2 "No"

    // The rectangle the ROI and measuring tools draw (image coordinates); lineOnly draws the line
    // from its top-left to its bottom-right corner instead.
    void setOverlayShape(const QRectF& imageRect, bool lineOnly);
    void clearOverlayShape();

    // Off by default: saturated samples red and zero samples blue; a colour map for one-channel
    // frames.
    void setHighlightClipping(bool on);
    bool highlightClipping() const { return highlight_; }
    void setFalseColour(bool on);
    bool falseColour() const { return falseColour_; }

    // The view as displayed (without its scroll bars), for "Copy View" and "Save View As...".
    // Null when no OpenGL context could be made.
    QImage viewImage();

    // Answers the dialogs' boxes ("Set value is out of range"); without one a message box shows.
    void setPrompt(Prompt* prompt) { prompt_ = prompt; }

    // The context menu the right button shows (one of three variants), parented to `parent`.
    QMenu* createContextMenu(QWidget* parent);
    // The tooltip's text ("%d,%d" of the pixel under the mouse), empty when it is hidden.
    QString toolTipText() const;

  public slots:
    // The Frame image was made anew (0x401): a frame of another size is placed anew (centred
    // where it is smaller than the view) at the zoom the view has.
    void frameSizeChanged();

  signals:
    void zoomChanged(double zoom);
    // "Display Setting..." with a receiver connected; without one the view opens the dialog.
    void openDisplaySettings();
    // The image pixel under the mouse (for the line profiles).
    void pointerMoved(QPoint pixel);

  protected:
    void initializeGL() override;
    void paintGL() override;
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void contextMenuEvent(QContextMenuEvent* event) override;
    void leaveEvent(QEvent* event) override;

  private:
    void reportContextFailure(ContextFailure failure);
    cv::Size imageSize() const;  // the raw image's, under the frame lock
    cv::Point2d clientPoint(const QPointF& position) const;
    cv::Point2d clientCentre() const;
    void ensureLayout();
    void setLayout(const ImageRect& rect);
    void applyZoom(double zoom, cv::Point2d anchor);
    void updateScrollBars();
    void scrolled(Qt::Orientation orientation, int value);
    void openDisplaySettingDialog();
    void openGotoPixelDialog();
    void blankImage();
    void drawOverlays(int clientWidth, int clientHeight);
    void showPixelTip(cv::Point2d client);

    ViewSources sources_;
    MessageLog& log_;
    MessageSink* sink_;
    Prompt* prompt_ = nullptr;

    QOpenGLFunctions_2_0* gl_ = nullptr;
    bool glReady_ = false;
    bool initializeTried_ = false;
    bool failureReported_ = false;
    bool firstPaintDone_ = false;
    ViewRenderer renderer_;

    double zoom_ = 1.0;
    double previousZoom_ = 1.0;
    ImageRect rect_;
    cv::Size layoutImage_;  // the image size rect_ was made for
    int dataFormat_ = kDecimal;
    bool highlight_ = false;
    bool falseColour_ = false;
    bool markerVisible_ = false;
    QPoint markerPixel_;
    std::optional<QRectF> shape_;
    bool shapeLineOnly_ = false;

    QScrollBar* hBar_ = nullptr;
    QScrollBar* vBar_ = nullptr;
    bool updatingBars_ = false;
    QLabel* tip_ = nullptr;
    QTimer* tipTimer_ = nullptr;
    int wheelRemainder_ = 0;
    bool dragging_ = false;
    bool dragged_ = false;
    QPointF pressPosition_;
    QPointF lastPosition_;

    std::atomic<int> lastPaintMs_{0};
    double lastDrawMs_ = 0;
    int paintCount_ = 0;
    std::chrono::steady_clock::time_point paintStart_{};
    bool paintPending_ = false;
};

}  // namespace lumetra
