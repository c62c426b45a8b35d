// The base of the application's dialogs: controls are found by their ids (each control's object
// name is its id, "1134"), and every control gets the dialog's font.
#pragma once

#include <QDialog>
#include <QString>

namespace lumetra {

class CBaseDialogEx : public QDialog {
    Q_OBJECT
  public:
    explicit CBaseDialogEx(QWidget* parent = nullptr);

    // The control with an id, or nullptr.
    template <typename T>
    T* control(int id) const {
        return findChild<T*>(QString::number(id));
    }

  protected:
    // Names a control by its id.
    static void setControlId(QObject* control, int id) {
        control->setObjectName(QString::number(id));
    }
    // Gives every child control the dialog's font.
    void applyDialogFont();
};

}  // namespace lumetra
