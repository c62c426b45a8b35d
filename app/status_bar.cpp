#include "app/status_bar.h"

#include <algorithm>

namespace lumetra {
namespace {

// A pane asks for the width of its initial text but gives it up when the window is narrower than
// all 21 together: the frame must not grow to the bar's full width.
class PaneLabel final : public QLabel {
  public:
    PaneLabel(const QString& initial, QWidget* parent)
        : QLabel(parent), width_(fontMetrics().horizontalAdvance(initial) + 6) {}
    QSize sizeHint() const override {
        const QSize text = QLabel::sizeHint();
        return {std::max(text.width(), width_), text.height()};
    }
    QSize minimumSizeHint() const override { return {0, QLabel::minimumSizeHint().height()}; }

  private:
    int width_;
};

}  // namespace

QColor ColourOf(uint32_t bgr) {
    return QColor(static_cast<int>(bgr & 0xFF), static_cast<int>((bgr >> 8) & 0xFF),
                  static_cast<int>((bgr >> 16) & 0xFF));
}

CKelmMFCStatusBar::CKelmMFCStatusBar(QWidget* parent) : QStatusBar(parent) {
    setObjectName("CKelmMFCStatusBar");
    for (const StatusPane& p : StatusPanes()) {
        const QString initial = QString::fromUtf8(p.initialText);
        // The initial text sizes the pane; the live texts replace it.
        auto* label = new PaneLabel(initial, this);
        label->setObjectName(QString::number(p.id) + "_" + QString::number(p.index));
        label->setText(p.id == 61208 ? initial : QString());
        label->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
        addPermanentWidget(label, p.index == 11 ? 1 : 0);
        panes_.push_back(label);
        colours_.push_back(0);
    }
    // Until the first poll the indicators read their names.
    for (int index : {pane::kPixelClock, pane::kLineValid, pane::kFrameValid, pane::kFrameLost}) {
        panes_[static_cast<size_t>(index)]->setText(
            QString::fromUtf8(StatusPanes()[static_cast<size_t>(index)].initialText));
    }
    setPane(pane::kFrameLost, FrameLostPane(false));
}

void CKelmMFCStatusBar::setPaneText(int index, const QString& text) {
    QLabel* label = pane(index);
    if (label->text() != text) {
        label->setText(text);
    }
}

void CKelmMFCStatusBar::setPane(int index, const PaneText& p) {
    setPaneText(index, QString::fromStdString(p.text));
    if (colours_.at(static_cast<size_t>(index)) != p.colour) {
        colours_[static_cast<size_t>(index)] = p.colour;
        QPalette palette = pane(index)->palette();
        palette.setColor(QPalette::WindowText, ColourOf(p.colour));
        pane(index)->setPalette(palette);
    }
}

QString CKelmMFCStatusBar::paneText(int index) const {
    return pane(index)->text();
}

uint32_t CKelmMFCStatusBar::paneColour(int index) const {
    return colours_.at(static_cast<size_t>(index));
}

void CKelmMFCStatusBar::setPaneVisible(int index, bool visible) {
    pane(index)->setVisible(visible);
    // The bar that follows a pane goes with it.
    if (index + 1 < static_cast<int>(panes_.size()) &&
        StatusPanes()[static_cast<size_t>(index + 1)].id == 61208) {
        pane(index + 1)->setVisible(visible);
    }
}

bool CKelmMFCStatusBar::paneVisible(int index) const {
    return !pane(index)->isHidden();
}

}  // namespace lumetra
