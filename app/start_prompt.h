// The start prompt shown once after start-up: "Information", OK / Cancel and "Always show".
#pragma once

#include <QCheckBox>
#include <QDialog>

namespace lumetra {

class CStartPromptDlg final : public QDialog {
    Q_OBJECT
  public:
    static constexpr const char* kText =
        "The software is running , Do you want to open the help document?";

    CStartPromptDlg(bool alwaysShow, QWidget* parent = nullptr);
    // The check box as it stood when the dialog closed, whichever button closed it.
    bool alwaysShow() const { return alwaysShow_->isChecked(); }

  private:
    QCheckBox* alwaysShow_;
};

}  // namespace lumetra
