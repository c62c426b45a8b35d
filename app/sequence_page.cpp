#include "app/sequence_page.h"

#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QStandardPaths>

namespace lumetra {
namespace {

constexpr const char* kSection = "ImageSequence";

}  // namespace

CSequencePage::CSequencePage(Workbench& workbench, Settings& settings, QWidget* parent)
    : QDialog(parent), workbench_(workbench), settings_(settings) {
    setObjectName("CSequencePage");
    setWindowTitle("Save Image Sequence");
    setModal(false);
    auto* form = new QFormLayout(this);

    auto* folderRow = new QHBoxLayout;
    folder_ = new QLineEdit(this);
    folder_->setObjectName("folder");
    const QString pictures = QStandardPaths::writableLocation(QStandardPaths::PicturesLocation);
    folder_->setText(
        QString::fromStdString(settings_.readString(kSection, "Folder", pictures.toStdString())));
    auto* browse = new QPushButton("Browse...", this);
    connect(browse, &QPushButton::clicked, this, &CSequencePage::Browse);
    folderRow->addWidget(folder_, 1);
    folderRow->addWidget(browse);
    form->addRow("Folder:", folderRow);

    name_ = new QLineEdit(this);
    name_->setObjectName("name");
    name_->setText(QString::fromStdString(settings_.readString(kSection, "Name", "Image")));
    form->addRow("Base name:", name_);

    format_ = new QComboBox(this);
    format_->setObjectName("format");
    for (const char* ext : {"bmp", "jpg", "png", "tif", "raw"}) {
        format_->addItem(ext);
    }
    format_->setCurrentText(
        QString::fromStdString(settings_.readString(kSection, "Format", "tif")));
    form->addRow("Format:", format_);

    count_ = new QSpinBox(this);
    count_->setObjectName("count");
    count_->setRange(1, 9999999);
    count_->setValue(settings_.readInt(kSection, "Count", 100));
    form->addRow("Frames:", count_);

    status_ = new QLabel(this);
    status_->setObjectName("status");
    form->addRow(status_);

    auto* buttons = new QDialogButtonBox(this);
    start_ = buttons->addButton("Start", QDialogButtonBox::AcceptRole);
    start_->setObjectName("start");
    buttons->addButton(QDialogButtonBox::Close);
    connect(start_, &QPushButton::clicked, this, [this] { Start(); });
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::hide);
    form->addRow(buttons);

    connect(&refresh_, &QTimer::timeout, this, &CSequencePage::Refresh);
    refresh_.start(250);
    Refresh();
}

QString CSequencePage::path() const {
    return folder_->text() + "/" + name_->text() + "." + format_->currentText();
}

void CSequencePage::Browse() {
    const QString dir = QFileDialog::getExistingDirectory(this, "Folder", folder_->text());
    if (!dir.isEmpty()) {
        folder_->setText(dir);
    }
}

void CSequencePage::Remember() {
    settings_.writeString(kSection, "Folder", folder_->text().toStdString());
    settings_.writeString(kSection, "Name", name_->text().toStdString());
    settings_.writeString(kSection, "Format", format_->currentText().toStdString());
    settings_.writeInt(kSection, "Count", count_->value());
}

bool CSequencePage::Start() {
    Remember();
    std::string error;
    if (!workbench_.StartSequence(path().toStdString(), count_->value(),
                                  workbench_.imageSaveOptions(), error)) {
        status_->setText("Cannot start: " + QString::fromStdString(error));
        return false;
    }
    Refresh();
    return true;
}

void CSequencePage::Refresh() {
    const SequenceSaver& saver = workbench_.sequenceSaver();
    start_->setEnabled(workbench_.engine().continuousRunning() && !saver.enabled());
    if (saver.requested() > 0 && !status_->text().startsWith("Cannot")) {
        status_->setText(QString("%1 of %2 saved, %3 missed%4")
                             .arg(saver.saved())
                             .arg(saver.requested())
                             .arg(saver.missed())
                             .arg(saver.finished() ? "" : " ..."));
    } else if (saver.requested() > 0 && saver.enabled()) {
        status_->clear();
    }
}

}  // namespace lumetra
