#include "imaging/ui/bayer_setting.h"

#include <QButtonGroup>
#include <QDialogButtonBox>
#include <QGroupBox>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

#include "imaging/view_dialogs.h"

namespace lumetra {

CBayerSetting::CBayerSetting(BayerSettings& bayer, QWidget* parent)
    : CBaseDialogEx(parent), bayer_(bayer) {
    setWindowTitle(QString::fromUtf8(kBayerSettingTitle.data(), kBayerSettingTitle.size()));
    auto* layout = new QVBoxLayout(this);
    auto* group = new QButtonGroup(this);
    const std::optional<int> current = BayerPatternOnOpening(bayer);
    for (const BayerPatternButton& b : kBayerPatternButtons) {
        auto* radio = new QRadioButton(QString::fromUtf8(b.text.data(), b.text.size()), this);
        radio->setObjectName(radio->text());
        group->addButton(radio, b.pattern);
        radio->setChecked(current == b.pattern);
        layout->addWidget(radio);
    }
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    setControlId(buttons->button(QDialogButtonBox::Ok), 1);      // IDOK
    setControlId(buttons->button(QDialogButtonBox::Cancel), 2);  // IDCANCEL
    connect(buttons, &QDialogButtonBox::accepted, this, &CBayerSetting::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &CBayerSetting::reject);
    layout->addWidget(buttons);
    applyDialogFont();
}

QRadioButton* CBayerSetting::button(int pattern) const {
    for (const BayerPatternButton& b : kBayerPatternButtons) {
        if (b.pattern == pattern) {
            return findChild<QRadioButton*>(QString::fromUtf8(b.text.data(), b.text.size()));
        }
    }
    return nullptr;
}

std::optional<int> CBayerSetting::checkedPattern() const {
    for (const BayerPatternButton& b : kBayerPatternButtons) {
        if (QRadioButton* radio = button(b.pattern); radio != nullptr && radio->isChecked()) {
            return b.pattern;
        }
    }
    return std::nullopt;
}

void CBayerSetting::accept() {
    ApplyBayerPattern(bayer_, checkedPattern());
    QDialog::accept();
}

}  // namespace lumetra
