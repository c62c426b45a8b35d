#include "imaging/ui/pixel_setting.h"

#include <QApplication>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>

#include <algorithm>

namespace lumetra {

CPagePixelSetting::CPagePixelSetting(PixelLimits limits, QPoint initial, Prompt* prompt,
                                     QWidget* parent)
    : CBaseDialogEx(parent), limits_(limits), prompt_(prompt) {
    setWindowTitle("Goto Pixel");
    lastX_ = std::clamp(initial.x(), 0, std::max(0, limits.maxX));
    lastY_ = std::clamp(initial.y(), 0, std::max(0, limits.maxY));
    auto* form = new QFormLayout(this);
    x_ = new QLineEdit(QString::number(lastX_), this);
    y_ = new QLineEdit(QString::number(lastY_), this);
    setControlId(x_, kXId);
    setControlId(y_, kYId);
    form->addRow("X:", x_);
    form->addRow("Y:", y_);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    setControlId(buttons->button(QDialogButtonBox::Ok), 1);
    setControlId(buttons->button(QDialogButtonBox::Cancel), 2);
    connect(buttons, &QDialogButtonBox::accepted, this, &CPagePixelSetting::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &CPagePixelSetting::reject);
    form->addRow(buttons);
    // Checked when an edit loses focus (or Return is pressed in it) with a changed text.
    connect(x_, &QLineEdit::editingFinished, this, [this] { check(x_, limits_.maxX, lastX_); });
    connect(y_, &QLineEdit::editingFinished, this, [this] { check(y_, limits_.maxY, lastY_); });
    applyDialogFont();
}

void CPagePixelSetting::outOfRange() {
    if (prompt_ != nullptr) {
        prompt_->information(kOutOfRangeText);
    } else {
        QMessageBox::information(this, QApplication::applicationDisplayName(), kOutOfRangeText);
    }
}

bool CPagePixelSetting::check(QLineEdit* edit, int limit, int& lastValid) {
    const std::optional<int> value = ParsePixelCoordinate(edit->text().toStdString(), limit);
    if (!value) {
        outOfRange();
        edit->setText(QString::number(lastValid));
        return false;
    }
    lastValid = *value;
    return true;
}

void CPagePixelSetting::accept() {
    const std::optional<int> x = ParsePixelCoordinate(x_->text().toStdString(), limits_.maxX);
    const std::optional<int> y = ParsePixelCoordinate(y_->text().toStdString(), limits_.maxY);
    if (!x || !y) {
        outOfRange();
        (!x ? x_ : y_)->setFocus();
        return;
    }
    pixel_ = QPoint(*x, *y);
    QDialog::accept();
}

}  // namespace lumetra
