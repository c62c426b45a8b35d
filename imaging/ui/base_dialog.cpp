#include "imaging/ui/base_dialog.h"

#include <QWidget>

namespace lumetra {

CBaseDialogEx::CBaseDialogEx(QWidget* parent) : QDialog(parent) {
    setWindowFlag(Qt::WindowContextHelpButtonHint, false);
}

void CBaseDialogEx::applyDialogFont() {
    for (QWidget* child : findChildren<QWidget*>()) {
        child->setFont(font());
    }
}

}  // namespace lumetra
