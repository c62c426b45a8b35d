#include "app/start_prompt.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QStyle>
#include <QVBoxLayout>

namespace lumetra {

CStartPromptDlg::CStartPromptDlg(bool alwaysShow, QWidget* parent) : QDialog(parent) {
    setObjectName("CStartPromptDlg");
    setWindowTitle("Information");
    auto* layout = new QVBoxLayout(this);
    auto* row = new QHBoxLayout;
    auto* icon = new QLabel(this);
    icon->setPixmap(style()->standardIcon(QStyle::SP_MessageBoxInformation).pixmap(32, 32));
    row->addWidget(icon, 0, Qt::AlignTop);
    auto* text = new QLabel(kText, this);
    text->setWordWrap(true);
    row->addWidget(text, 1);
    layout->addLayout(row);
    alwaysShow_ = new QCheckBox("Always show", this);
    alwaysShow_->setObjectName("alwaysShow");
    alwaysShow_->setChecked(alwaysShow);
    layout->addWidget(alwaysShow_);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
}

}  // namespace lumetra
