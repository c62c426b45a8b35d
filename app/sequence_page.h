// "Save Image Sequence": the modeless page that sets up a numbered sequence (folder, base name,
// format, count) and starts the sequence saver on the running grab. It shows what the saver has
// saved and missed while the sequence runs; its choices are remembered.
#pragma once

#include <QComboBox>
#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTimer>

#include "workbench/workbench.h"

namespace lumetra {

class CSequencePage final : public QDialog {
    Q_OBJECT
  public:
    CSequencePage(Workbench& workbench, Settings& settings, QWidget* parent = nullptr);

    // "DIR/NAME.EXT" from the page's fields.
    QString path() const;
    // Starts the sequence; false (with the reason shown on the page) when it cannot start.
    bool Start();
    QString statusText() const { return status_->text(); }

  private:
    void Browse();
    void Refresh();
    void Remember();

    Workbench& workbench_;
    Settings& settings_;
    QLineEdit* folder_;
    QLineEdit* name_;
    QComboBox* format_;
    QSpinBox* count_;
    QPushButton* start_;
    QLabel* status_;
    QTimer refresh_;
};

}  // namespace lumetra
