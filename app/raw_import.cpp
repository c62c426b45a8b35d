#include "app/raw_import.h"

#include <QFileInfo>
#include <QFormLayout>
#include <QPushButton>

namespace lumetra {
namespace {

constexpr const char* kSection = "RawImport";

}  // namespace

CRawImportDlg::CRawImportDlg(const QString& path, const FrameFormat& current, Settings& settings,
                             QWidget* parent)
    : QDialog(parent), settings_(settings), fileSize_(QFileInfo(path).size()) {
    setObjectName("CRawImportDlg");
    setWindowTitle("Open Raw Image");
    auto* form = new QFormLayout(this);
    form->addRow(new QLabel(QFileInfo(path).fileName(), this));
    width_ = new QSpinBox(this);
    width_->setObjectName("width");
    width_->setRange(1, 65535);
    width_->setValue(settings_.readInt(kSection, "Width", current.width));
    height_ = new QSpinBox(this);
    height_->setObjectName("height");
    height_->setRange(1, 65535);
    height_->setValue(settings_.readInt(kSection, "Height", current.height));
    channels_ = new QComboBox(this);
    channels_->setObjectName("channels");
    channels_->addItems({"1", "3", "4"});
    const int channels = settings_.readInt(kSection, "Channels", current.channels);
    channels_->setCurrentText(QString::number(channels == 3 || channels == 4 ? channels : 1));
    bits_ = new QSpinBox(this);
    bits_->setObjectName("bits");
    bits_->setRange(8, 16);
    bits_->setValue(settings_.readInt(
        kSection, "Bits", current.channels > 0 ? current.bitsPerPixel / current.channels : 8));
    form->addRow("Width:", width_);
    form->addRow("Height:", height_);
    form->addRow("Channels:", channels_);
    form->addRow("Bits per sample:", bits_);
    sizes_ = new QLabel(this);
    sizes_->setObjectName("sizes");
    form->addRow(sizes_);
    buttons_ = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons_, &QDialogButtonBox::accepted, this, &CRawImportDlg::accept);
    connect(buttons_, &QDialogButtonBox::rejected, this, &QDialog::reject);
    form->addRow(buttons_);
    for (QSpinBox* box : {width_, height_, bits_}) {
        connect(box, &QSpinBox::valueChanged, this, &CRawImportDlg::Check);
    }
    connect(channels_, &QComboBox::currentIndexChanged, this, &CRawImportDlg::Check);
    Check();
}

RawLayout CRawImportDlg::layout() const {
    RawLayout l;
    l.width = width_->value();
    l.height = height_->value();
    l.channels = channels_->currentText().toInt();
    l.bitsPerSample = bits_->value();
    return l;
}

void CRawImportDlg::Check() {
    const auto expected = static_cast<qint64>(layout().bytes());
    const bool fits = expected == fileSize_;
    sizes_->setText(QString("%1 bytes expected, the file has %2").arg(expected).arg(fileSize_));
    sizes_->setStyleSheet(fits ? QString() : QString("color: #d83a34"));
    buttons_->button(QDialogButtonBox::Ok)->setEnabled(fits);
}

void CRawImportDlg::accept() {
    const RawLayout l = layout();
    settings_.writeInt(kSection, "Width", l.width);
    settings_.writeInt(kSection, "Height", l.height);
    settings_.writeInt(kSection, "Channels", l.channels);
    settings_.writeInt(kSection, "Bits", l.bitsPerSample);
    QDialog::accept();
}

}  // namespace lumetra
