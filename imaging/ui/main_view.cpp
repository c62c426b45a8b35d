#include "imaging/ui/main_view.h"

#include <QActionGroup>
#include <QContextMenuEvent>
#include <QLabel>
#include <QMenu>
#include <QMetaMethod>
#include <QMouseEvent>
#include <QOpenGLContext>
#include <QOpenGLFunctions_2_0>
#include <QOpenGLVersionFunctionsFactory>
#include <QScrollBar>
#include <QTimer>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>
#include <utility>

#include "imaging/display_modes.h"
#include "imaging/ui/display_setting.h"
#include "imaging/ui/pixel_setting.h"

namespace lumetra {

namespace {

using Steady = std::chrono::steady_clock;

// One notch of a mouse wheel; finer wheels and touchpads add up to it.
constexpr int kWheelNotch = 120;
// A press and release closer than this is a click (it moves the marker), not a drag.
constexpr double kClickSlop = 3.0;
constexpr int kTipDelayMs = 40;

int MillisecondsSince(Steady::time_point start) {
    return static_cast<int>(
        std::lround(std::chrono::duration<double, std::milli>(Steady::now() - start).count()));
}

}  // namespace

QSurfaceFormat CLumetraMainWnd::DefaultSurfaceFormat() {
    // OpenGL 1.x drawing (glDrawPixels, immediate-mode lines) needs a compatibility profile.
    QSurfaceFormat format;
    format.setRenderableType(QSurfaceFormat::OpenGL);
    format.setProfile(QSurfaceFormat::CompatibilityProfile);
    format.setVersion(2, 0);
    format.setRedBufferSize(8);
    format.setGreenBufferSize(8);
    format.setBlueBufferSize(8);
    format.setDepthBufferSize(16);
    format.setSwapBehavior(QSurfaceFormat::DoubleBuffer);
    return format;
}

CLumetraMainWnd::CLumetraMainWnd(ViewSources sources, MessageLog& log, MessageSink* sink,
                                 QWidget* parent)
    : CLumetraMainWnd(std::move(sources), log, sink, DefaultSurfaceFormat(), parent) {}

CLumetraMainWnd::CLumetraMainWnd(ViewSources sources, MessageLog& log, MessageSink* sink,
                                 const QSurfaceFormat& format, QWidget* parent)
    : QOpenGLWidget(parent), sources_(std::move(sources)), log_(log), sink_(sink) {
    setFormat(format);
    setMouseTracking(true);
    setFocusPolicy(Qt::StrongFocus);
    setMinimumSize(64, 64);

    hBar_ = new QScrollBar(Qt::Horizontal, this);
    vBar_ = new QScrollBar(Qt::Vertical, this);
    for (QScrollBar* bar : {hBar_, vBar_}) {
        bar->hide();
        bar->setCursor(Qt::ArrowCursor);
        connect(bar, &QScrollBar::valueChanged, this,
                [this, bar](int value) { scrolled(bar->orientation(), value); });
    }

    // The pixel tip: white, black text, shown 40 ms after the mouse comes to a pixel.
    tip_ = new QLabel(this, Qt::ToolTip);
    tip_->setText("0,0");
    tip_->setStyleSheet(
        "QLabel { background: #FFFFFF; color: #000000; border: 1px solid gray; "
        "padding: 1px; }");
    tipTimer_ = new QTimer(this);
    tipTimer_->setSingleShot(true);
    tipTimer_->setInterval(kTipDelayMs);
    connect(tipTimer_, &QTimer::timeout, tip_, [this] {
        if (underMouse() && !tip_->text().isEmpty()) {
            tip_->show();
        }
    });

    // The paint lasts until the frame is on the screen.
    connect(this, &QOpenGLWidget::frameSwapped, this, [this] {
        if (paintPending_) {
            paintPending_ = false;
            lastPaintMs_ = MillisecondsSince(paintStart_);
        }
    });
}

// The view makes no OpenGL objects of its own: nothing to free with the context current.
CLumetraMainWnd::~CLumetraMainWnd() = default;

// ---- OpenGL ----

void CLumetraMainWnd::reportContextFailure(ContextFailure failure) {
    glReady_ = false;
    if (!failureReported_) {
        failureReported_ = true;
        log_.log(ContextFailureText(failure));
    }
}

void CLumetraMainWnd::initializeGL() {
    initializeTried_ = true;
    QOpenGLContext* context = this->context();
    if (context == nullptr || !context->isValid()) {
        reportContextFailure(ContextFailure::NoRenderingContext);
        return;
    }
    if (QOpenGLContext::currentContext() != context) {
        reportContextFailure(ContextFailure::NotCurrent);
        return;
    }
    // The drawing is OpenGL 1.x: a context without it (OpenGL ES, a core profile) cannot serve.
    gl_ = context->isOpenGLES()
              ? nullptr
              : QOpenGLVersionFunctionsFactory::get<QOpenGLFunctions_2_0>(context);
    if (gl_ == nullptr || !gl_->initializeOpenGLFunctions()) {
        gl_ = nullptr;
        reportContextFailure(ContextFailure::NoPixelFormat);
        return;
    }
    gl_->glClearColor(0, 0, 0, 0);
    glReady_ = true;
}

void CLumetraMainWnd::paintEvent(QPaintEvent* event) {
    QOpenGLWidget::paintEvent(event);
    // The widget makes its context on the first show; when that failed, initializeGL never ran.
    if (!initializeTried_ && isVisible() && !size().isEmpty()) {
        initializeTried_ = true;
        reportContextFailure(window()->windowHandle() == nullptr
                                 ? ContextFailure::NoSurface
                                 : ContextFailure::NoRenderingContext);
    }
}

void CLumetraMainWnd::paintGL() {
    if (!glReady_) {
        return;
    }
    paintStart_ = Steady::now();
    paintPending_ = true;
    QOpenGLFunctions_2_0& gl = *gl_;
    const double ratio = devicePixelRatioF();
    const int frameWidth = static_cast<int>(std::lround(width() * ratio));
    const int frameHeight = static_cast<int>(std::lround(height() * ratio));
    gl.glViewport(0, 0, frameWidth, frameHeight);
    gl.glMatrixMode(GL_PROJECTION);
    gl.glLoadIdentity();
    gl.glMatrixMode(GL_MODELVIEW);
    gl.glLoadIdentity();
    gl.glClearColor(0, 0, 0, 0);
    gl.glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);

    if (!firstPaintDone_) {
        // The first paint only clears, as the view always has; the next one draws.
        firstPaintDone_ = true;
        QTimer::singleShot(0, this, qOverload<>(&QWidget::update));
    } else {
        ensureLayout();
        const cv::Size client = clientSize();
        ViewSettings settings;
        settings.rect = rect_;
        settings.zoom = zoom_;
        settings.client = client;
        settings.mode = sources_.displayMode;
        settings.dataFormat = dataFormat_;
        settings.bayer = sources_.bayer;
        settings.highlightClipping = highlight_;
        settings.falseColour = falseColour_;
        const cv::Mat& image = renderer_.Render(sources_.frame, settings, sources_.background);
        GLenum format = 0;
        GLenum type = 0;
        switch (LayoutOfDrawing(image)) {
            case PixelLayout::Luminance8:
                format = GL_LUMINANCE, type = GL_UNSIGNED_BYTE;
                break;
            case PixelLayout::Luminance16:
                format = GL_LUMINANCE, type = GL_UNSIGNED_SHORT;
                break;
            case PixelLayout::Bgr8:
                format = GL_BGR, type = GL_UNSIGNED_BYTE;
                break;
            case PixelLayout::Bgr16:
                format = GL_BGR, type = GL_UNSIGNED_SHORT;
                break;
            case PixelLayout::None:
                break;
        }
        if (format != 0) {
            // Rows top to bottom from the client area's top-left corner: OpenGL counts rows
            // upwards, so the image is drawn with a vertical zoom of -1.
            gl.glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
            gl.glPixelStorei(GL_UNPACK_ROW_LENGTH,
                             static_cast<GLint>(image.step1() / image.channels()));
            gl.glWindowPos2i(0, frameHeight);
            gl.glPixelZoom(1.0f, -1.0f);
            gl.glDrawPixels(image.cols, image.rows, format, type, image.data);
            gl.glPixelZoom(1.0f, 1.0f);
            gl.glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
        }
        gl.glViewport(0, frameHeight - client.height, client.width, client.height);
        drawOverlays(client.width, client.height);
    }
    gl.glFinish();
    lastDrawMs_ = std::chrono::duration<double, std::milli>(Steady::now() - paintStart_).count();
    lastPaintMs_ = static_cast<int>(std::lround(lastDrawMs_));
    ++paintCount_;
}

void CLumetraMainWnd::drawOverlays(int w, int h) {
    QOpenGLFunctions_2_0& gl = *gl_;
    const double halfW = w / 2;  // integer halves
    const double halfH = h / 2;
    if (halfW <= 0 || halfH <= 0) {
        return;
    }
    gl.glColor3f(1.0f, 0.0f, 0.0f);
    if (markerVisible_) {
        const cv::Size image = imageSize();
        if (markerPixel_.x() >= 0 && markerPixel_.y() >= 0 && markerPixel_.x() < image.width &&
            markerPixel_.y() < image.height) {
            const cv::Point2d centre =
                PixelCentre(rect_, zoom_, {markerPixel_.x(), markerPixel_.y()});
            // Through the middle of the client pixel that holds the centre.
            const double x = std::floor(centre.x) + 0.5;
            const double y = std::floor(centre.y) + 0.5;
            gl.glBegin(GL_LINES);
            if (x >= 0 && x <= w) {
                gl.glVertex2d(x / halfW - 1, -1);
                gl.glVertex2d(x / halfW - 1, 1);
            }
            if (y >= 0 && y <= h) {
                gl.glVertex2d(-1, 1 - y / halfH);
                gl.glVertex2d(1, 1 - y / halfH);
            }
            gl.glEnd();
        }
    }
    if (shape_) {
        const double x1 = rect_.left + shape_->left() * zoom_;
        const double y1 = rect_.top + shape_->top() * zoom_;
        const double x2 = rect_.left + shape_->right() * zoom_;
        const double y2 = rect_.top + shape_->bottom() * zoom_;
        auto nx = [halfW](double x) { return (x + 1) / halfW - 1; };
        auto ny = [halfH](double y) { return 1 - y / halfH; };
        if (shapeLineOnly_) {
            gl.glBegin(GL_LINES);
            gl.glVertex2d(nx(x1), ny(y1));
            gl.glVertex2d(nx(x2), ny(y2));
            gl.glEnd();
        } else {
            gl.glPolygonMode(GL_FRONT_AND_BACK, GL_LINE);
            gl.glRectd(nx(x1), ny(y1), nx(x2), ny(y2));
            gl.glPolygonMode(GL_FRONT_AND_BACK, GL_FILL);
            // The eight handles: corners and edge middles.
            constexpr double kHandle = 3;
            const double xs[] = {x1, (x1 + x2) / 2, x2};
            const double ys[] = {y1, (y1 + y2) / 2, y2};
            for (int i = 0; i < 3; ++i) {
                for (int j = 0; j < 3; ++j) {
                    if (i == 1 && j == 1) {
                        continue;
                    }
                    gl.glRectd(nx(xs[i] - kHandle), ny(ys[j] - kHandle), nx(xs[i] + kHandle),
                               ny(ys[j] + kHandle));
                }
            }
        }
    }
}

QImage CLumetraMainWnd::viewImage() {
    if (!glReady_) {
        return {};
    }
    // grabFramebuffer paints once more; that paint must draw.
    firstPaintDone_ = true;
    const QImage frame = grabFramebuffer();
    if (frame.isNull()) {
        return frame;
    }
    const cv::Size client = clientSize();
    return frame.copy(0, 0, std::min(client.width, frame.width()),
                      std::min(client.height, frame.height()));
}

// ---- layout ----

cv::Size CLumetraMainWnd::imageSize() const {
    std::lock_guard lock(sources_.frame.frameLock());
    const ImageBuffer& raw = sources_.frame.raw();
    return raw.hasImage() ? cv::Size(raw.width(), raw.height()) : cv::Size();
}

cv::Size CLumetraMainWnd::clientSize() const {
    const double ratio = devicePixelRatioF();
    const int w = width() - (vBar_->isVisibleTo(this) ? vBar_->width() : 0);
    const int h = height() - (hBar_->isVisibleTo(this) ? hBar_->height() : 0);
    return {std::max(0, static_cast<int>(std::lround(w * ratio))),
            std::max(0, static_cast<int>(std::lround(h * ratio)))};
}

cv::Point2d CLumetraMainWnd::clientPoint(const QPointF& position) const {
    const double ratio = devicePixelRatioF();
    return {position.x() * ratio, position.y() * ratio};
}

cv::Point2d CLumetraMainWnd::clientCentre() const {
    const cv::Size client = clientSize();
    return {client.width / 2.0, client.height / 2.0};
}

void CLumetraMainWnd::ensureLayout() {
    const cv::Size image = imageSize();
    // A frame of another size is placed anew, at the zoom the view has.
    if ((rect_.unset() || image != layoutImage_) && !image.empty()) {
        layoutImage_ = image;
        // Placed in the whole window: where the image is smaller no scroll bar takes room.
        const double ratio = devicePixelRatioF();
        const cv::Size window(static_cast<int>(std::lround(width() * ratio)),
                              static_cast<int>(std::lround(height() * ratio)));
        setLayout(InitialLayout(image, zoom_, window));
    }
}

void CLumetraMainWnd::setLayout(const ImageRect& rect) {
    rect_ = rect;
    updateScrollBars();
    rect_ = KeptInReach(rect_, clientSize());
    updateScrollBars();
}

void CLumetraMainWnd::updateScrollBars() {
    const double ratio = devicePixelRatioF();
    // A bar takes room from the client area, which may call for the other bar.
    bool needH = false;
    bool needV = false;
    for (int pass = 0; pass < 2; ++pass) {
        const int w = width() - (needV ? vBar_->sizeHint().width() : 0);
        const int h = height() - (needH ? hBar_->sizeHint().height() : 0);
        needH = ScrollFor(rect_.left, rect_.right, static_cast<int>(std::lround(w * ratio))).needed;
        needV = ScrollFor(rect_.top, rect_.bottom, static_cast<int>(std::lround(h * ratio))).needed;
    }
    const int barW = vBar_->sizeHint().width();
    const int barH = hBar_->sizeHint().height();
    hBar_->setGeometry(0, height() - barH, width() - (needV ? barW : 0), barH);
    vBar_->setGeometry(width() - barW, 0, barW, height() - (needH ? barH : 0));
    hBar_->setVisible(needH);
    vBar_->setVisible(needV);
    const cv::Size client = clientSize();
    updatingBars_ = true;
    const ScrollAxis h = ScrollFor(rect_.left, rect_.right, client.width);
    const ScrollAxis v = ScrollFor(rect_.top, rect_.bottom, client.height);
    hBar_->setRange(0, h.maximum);
    hBar_->setPageStep(std::max(1, h.page));
    hBar_->setSingleStep(std::max(1, h.page / 20));
    hBar_->setValue(h.value);
    vBar_->setRange(0, v.maximum);
    vBar_->setPageStep(std::max(1, v.page));
    vBar_->setSingleStep(std::max(1, v.page / 20));
    vBar_->setValue(v.value);
    updatingBars_ = false;
}

void CLumetraMainWnd::scrolled(Qt::Orientation orientation, int value) {
    if (updatingBars_) {
        return;
    }
    const cv::Size client = clientSize();
    if (orientation == Qt::Horizontal) {
        rect_ = Panned(rect_, ScrollShift(rect_.left, rect_.right, client.width, value), 0);
    } else {
        rect_ = Panned(rect_, 0, ScrollShift(rect_.top, rect_.bottom, client.height, value));
    }
    updateScrollBars();
    update();
}

void CLumetraMainWnd::resizeEvent(QResizeEvent* event) {
    QOpenGLWidget::resizeEvent(event);
    if (!rect_.unset()) {
        setLayout(rect_);
    } else {
        ensureLayout();
    }
}

void CLumetraMainWnd::frameSizeChanged() {
    ensureLayout();
    update();
}

void CLumetraMainWnd::applyZoom(double zoom, cv::Point2d anchor) {
    ensureLayout();
    previousZoom_ = zoom_;
    if (zoom != zoom_ && zoom_ > 0) {
        rect_ = ScaleAbout(rect_, zoom / zoom_, anchor);
    }
    zoom_ = zoom;
    setLayout(rect_);
    update();
    if (zoom_ != previousZoom_) {
        emit zoomChanged(zoom_);
    }
}

void CLumetraMainWnd::wheelStep(bool forward, cv::Point2d anchor) {
    applyZoom(WheelZoom(zoom_, forward), anchor);
}

void CLumetraMainWnd::zoomStep(bool in) {
    wheelStep(in, clientCentre());
}

// ---- commands ----

void CLumetraMainWnd::runCommand(int id) {
    if (!commandEnabled(id)) {
        return;
    }
    if (const std::optional<double> fixed = FixedZoomOf(id)) {
        if (id == viewcmd::kMaximumImage && zoom_ == kMaxZoom) {
            previousZoom_ = zoom_;
            update();
            return;
        }
        applyZoom(id == viewcmd::kOriginalSize ? *fixed : ClampCommandZoom(*fixed), clientCentre());
        return;
    }
    for (const DisplayModeInfo& mode : kDisplayModes) {
        if (mode.commandId == id) {
            sources_.displayMode = mode.mode;
            update();
            return;
        }
    }
    for (int format = 0; format < static_cast<int>(kDataFormatCommands.size()); ++format) {
        if (kDataFormatCommands[static_cast<size_t>(format)].id == id) {
            dataFormat_ = format;
            // The marker pane follows the number format at once.
            if (sink_ != nullptr) {
                sink_->post(msg::kMarker, 0, 0);
            }
            update();
            return;
        }
    }
    switch (id) {
        case viewcmd::kZoomFit: {
            const cv::Size image = imageSize();
            if (image.empty()) {
                return;
            }
            const double ratio = devicePixelRatioF();
            // The window rectangle, scroll bars included.
            const cv::Size window(static_cast<int>(std::lround(width() * ratio)),
                                  static_cast<int>(std::lround(height() * ratio)));
            previousZoom_ = zoom_;
            zoom_ = FitZoom(window, image);
            layoutImage_ = image;
            rect_ = CentredIn(image, zoom_, cv::Rect2d(0, 0, window.width, window.height));
            setLayout(rect_);
            update();
            if (zoom_ != previousZoom_) {
                emit zoomChanged(zoom_);
            }
            return;
        }
        case viewcmd::kDisplaySetting:
            if (isSignalConnected(QMetaMethod::fromSignal(&CLumetraMainWnd::openDisplaySettings))) {
                emit openDisplaySettings();
            } else {
                openDisplaySettingDialog();
            }
            return;
        case viewcmd::kGotoPixel:
            openGotoPixelDialog();
            return;
        case viewcmd::kBlankImage:
            blankImage();
            return;
        default:
            return;
    }
}

bool CLumetraMainWnd::commandEnabled(int id) const {
    for (const DisplayModeInfo& mode : kDisplayModes) {
        if (mode.commandId == id) {
            std::lock_guard lock(sources_.frame.frameLock());
            const ImageBuffer& raw = sources_.frame.raw();
            return raw.hasImage() &&
                   DisplayModeAvailable(mode.mode, raw.channels(), raw.width(), raw.height(),
                                        BayerDisplayOn(sources_.bayer, raw.channels()));
        }
    }
    switch (id) {
        case viewcmd::kBlankImage:
            // Only while no grab runs: the next frame would cover it at once.
            return sources_.idle();
        case viewcmd::kGotoPixel:
        case viewcmd::kZoomFit:
            return !imageSize().empty();
        default:
            return true;
    }
}

bool CLumetraMainWnd::commandChecked(int id) const {
    for (const ZoomCommand& z : kZoomCommands) {
        if (z.id == id) {
            return zoom_ == z.zoom;
        }
    }
    if (id == viewcmd::kOriginalSize) {
        return zoom_ == 1.0;
    }
    if (id == viewcmd::kMaximumImage) {
        return zoom_ == kMaxZoom;
    }
    for (const DisplayModeInfo& mode : kDisplayModes) {
        if (mode.commandId == id) {
            return sources_.displayMode == mode.mode;
        }
    }
    for (int format = 0; format < static_cast<int>(kDataFormatCommands.size()); ++format) {
        if (kDataFormatCommands[static_cast<size_t>(format)].id == id) {
            return dataFormat_ == format;
        }
    }
    return false;
}

QMenu* CLumetraMainWnd::createContextMenu(QWidget* parent) {
    auto* menu = new QMenu(parent);
    auto add = [this, menu](int id, std::string_view text) {
        QAction* action = menu->addAction(QString::fromUtf8(text.data(), text.size()));
        action->setData(id);
        action->setEnabled(commandEnabled(id));
        const bool checkable = id != viewcmd::kDisplaySetting && id != viewcmd::kGotoPixel &&
                               id != viewcmd::kZoomFit && id != viewcmd::kBlankImage;
        action->setCheckable(checkable);
        action->setChecked(checkable && commandChecked(id));
        connect(action, &QAction::triggered, this, [this, id] { runCommand(id); });
    };
    for (int id : {viewcmd::kDisplaySetting, viewcmd::kGotoPixel}) {
        add(id, ViewCommandText(id));
    }
    menu->addSeparator();
    for (int id : {viewcmd::kZoomFit, viewcmd::kOriginalSize, viewcmd::kMaximumImage,
                   viewcmd::kBlankImage}) {
        add(id, ViewCommandText(id));
    }
    menu->addSeparator();
    for (const ZoomCommand& z : kZoomCommands) {
        add(z.id, z.text);
    }
    menu->addSeparator();
    for (const ViewCommandInfo& f : kDataFormatCommands) {
        add(f.id, f.text);
    }
    menu->addSeparator();
    bool hasAux = false;
    int channels = 0;
    {
        std::lock_guard lock(sources_.frame.frameLock());
        channels = sources_.frame.raw().channels();
        hasAux = sources_.frame.aux().hasImage();
    }
    for (int mode : MenuModes(MenuVariantFor(channels, hasAux))) {
        const DisplayModeInfo& info = kDisplayModes[static_cast<size_t>(mode)];
        add(info.commandId, info.menuText);
    }
    return menu;
}

void CLumetraMainWnd::openDisplaySettingDialog() {
    auto* dialog = new CDisplaySetting(
        sources_.frame, [this] { update(); }, this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->open();
}

void CLumetraMainWnd::openGotoPixelDialog() {
    const cv::Size image = imageSize();
    const cv::Point centre = ImagePixelAt(rect_, zoom_, clientCentre());
    auto* dialog = new CPagePixelSetting(GotoPixelLimits(image.width, image.height),
                                         QPoint(centre.x, centre.y), prompt_, this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    connect(dialog, &QDialog::accepted, this, [this, dialog] {
        const QPoint pixel = dialog->pixel();
        ensureLayout();
        setLayout(CentredOnPixel(rect_, zoom_, {pixel.x(), pixel.y()}, clientSize()));
        update();
    });
    dialog->open();
}

void CLumetraMainWnd::blankImage() {
    {
        std::lock_guard lock(sources_.frame.frameLock());
        FrameImage& frame = sources_.frame;
        ImageBuffer& raw = frame.raw();
        if (raw.hasImage()) {
            std::memset(raw.data(), ImageBuffer::kFillByte, raw.size());
        }
        // The same fill as a new buffer: no frame is there.
        frame.clearFrameCount();
    }
    if (sink_ != nullptr) {
        sink_->post(msg::kFrameSize, 0, 0);
    }
    update();
}

// ---- marker, overlays, options ----

void CLumetraMainWnd::setMarkerVisible(bool on) {
    markerVisible_ = on;
    update();
}

void CLumetraMainWnd::setMarkerPixel(QPoint pixel) {
    markerPixel_ = pixel;
    if (sink_ != nullptr) {
        sink_->post(msg::kMarker, 0, 0);
    }
    update();
}

std::string CLumetraMainWnd::markerReadout() const {
    std::lock_guard lock(sources_.frame.frameLock());
    return MarkerReadout(sources_.frame.raw(), markerPixel_.x(), markerPixel_.y(), dataFormat_);
}

void CLumetraMainWnd::setOverlayShape(const QRectF& imageRect, bool lineOnly) {
    shape_ = imageRect;
    shapeLineOnly_ = lineOnly;
    update();
}

void CLumetraMainWnd::clearOverlayShape() {
    shape_.reset();
    update();
}

void CLumetraMainWnd::setHighlightClipping(bool on) {
    highlight_ = on;
    update();
}

void CLumetraMainWnd::setFalseColour(bool on) {
    falseColour_ = on;
    update();
}

// ---- mouse ----

void CLumetraMainWnd::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton) {
        dragging_ = true;
        dragged_ = false;
        pressPosition_ = lastPosition_ = event->position();
        setCursor(Qt::ClosedHandCursor);
    }
    QOpenGLWidget::mousePressEvent(event);
}

void CLumetraMainWnd::mouseMoveEvent(QMouseEvent* event) {
    const cv::Point2d at = clientPoint(event->position());
    if (dragging_ && (event->buttons() & Qt::LeftButton)) {
        const QPointF delta = event->position() - lastPosition_;
        lastPosition_ = event->position();
        const QPointF total = event->position() - pressPosition_;
        if (std::hypot(total.x(), total.y()) >= kClickSlop) {
            dragged_ = true;
        }
        const double ratio = devicePixelRatioF();
        setLayout(Panned(rect_, delta.x() * ratio, delta.y() * ratio));
        update();
    } else {
        const cv::Point pixel = ImagePixelAt(rect_, zoom_, at);
        const cv::Size image = imageSize();
        const bool inside = cv::Rect(0, 0, image.width, image.height).contains(pixel);
        setCursor(inside ? Qt::CrossCursor : Qt::ArrowCursor);
    }
    showPixelTip(at);
    QOpenGLWidget::mouseMoveEvent(event);
}

void CLumetraMainWnd::mouseReleaseEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton && dragging_) {
        dragging_ = false;
        unsetCursor();
        if (!dragged_ && markerVisible_) {
            const cv::Point pixel = ImagePixelAt(rect_, zoom_, clientPoint(event->position()));
            const cv::Size image = imageSize();
            if (cv::Rect(0, 0, image.width, image.height).contains(pixel)) {
                setMarkerPixel(QPoint(pixel.x, pixel.y));
            }
        }
        update();
    }
    QOpenGLWidget::mouseReleaseEvent(event);
}

void CLumetraMainWnd::mouseDoubleClickEvent(QMouseEvent* event) {
    update();
    QOpenGLWidget::mouseDoubleClickEvent(event);
}

void CLumetraMainWnd::wheelEvent(QWheelEvent* event) {
    const int delta = event->angleDelta().y();
    if (delta == 0) {
        event->ignore();  // a sideways wheel
        return;
    }
    wheelRemainder_ += delta;
    const cv::Point2d anchor = clientPoint(event->position());
    while (std::abs(wheelRemainder_) >= kWheelNotch) {
        const bool forward = wheelRemainder_ > 0;
        wheelRemainder_ += forward ? -kWheelNotch : kWheelNotch;
        wheelStep(forward, anchor);
    }
    event->accept();
}

void CLumetraMainWnd::contextMenuEvent(QContextMenuEvent* event) {
    QMenu* menu = createContextMenu(this);
    menu->setAttribute(Qt::WA_DeleteOnClose);
    menu->popup(event->globalPos());
}

void CLumetraMainWnd::leaveEvent(QEvent* event) {
    tipTimer_->stop();
    tip_->hide();
    QOpenGLWidget::leaveEvent(event);
}

void CLumetraMainWnd::showPixelTip(cv::Point2d client) {
    const cv::Point pixel = ImagePixelAt(rect_, zoom_, client);
    const cv::Size image = imageSize();
    if (!cv::Rect(0, 0, image.width, image.height).contains(pixel)) {
        tipTimer_->stop();
        tip_->hide();
        tip_->clear();
        return;
    }
    tip_->setText(QString::asprintf("%d,%d", pixel.x, pixel.y));
    tip_->adjustSize();
    const double ratio = devicePixelRatioF();
    tip_->move(mapToGlobal(
        QPoint(static_cast<int>(client.x / ratio) + 16, static_cast<int>(client.y / ratio) + 16)));
    if (!tip_->isVisible()) {
        tipTimer_->start();
    }
    emit pointerMoved(QPoint(pixel.x, pixel.y));
}

QString CLumetraMainWnd::toolTipText() const {
    return tip_->text();
}

}  // namespace lumetra
