#include "imaging/ui/display_setting.h"

#include <QButtonGroup>
#include <QComboBox>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

#include <mutex>

#include "imaging/view_dialogs.h"

namespace lumetra {

namespace {

constexpr int kLabelWidth = 30;

std::optional<std::pair<int, int>> ShownBits(const QComboBox& list) {
    const int index = list.currentIndex();
    if (index < 0) {
        return std::nullopt;
    }
    return std::pair{index, index + 7};
}

}  // namespace

CBitDiagram::CBitDiagram(const QComboBox& list, int bitsPerSample, QWidget* parent)
    : QWidget(parent), list_(list), bitsPerSample_(bitsPerSample) {
    setMinimumSize(2 * kLabelWidth + 16 * 14, 40);
}

QRect CBitDiagram::cellRect(int index) const {
    const int cells = std::max(bitsPerSample_, 1);
    const int width = (this->width() - 2 * kLabelWidth) / cells;
    return {kLabelWidth + index * width, 6, width, height() - 20};
}

void CBitDiagram::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setPen(QPen(Qt::black, 1));
    QFont font("Times New Roman");
    font.setPointSizeF(7.5);
    painter.setFont(font);
    const QRect first = cellRect(0);
    painter.drawText(QRect(0, first.top(), kLabelWidth, first.height()), Qt::AlignCenter, "MSB");
    painter.drawText(QRect(width() - kLabelWidth, first.top(), kLabelWidth, first.height()),
                     Qt::AlignCenter, "LSB");
    const std::vector<BitCell> cells = BitDiagramCells(bitsPerSample_, ShownBits(list_));
    const QBrush grey{QColor(kShownColour)};
    for (int i = 0; i < static_cast<int>(cells.size()); ++i) {
        const QRect cell = cellRect(i);
        painter.setBrush(cells[static_cast<size_t>(i)].shown ? grey : QBrush(Qt::white));
        painter.drawRect(cell.adjusted(0, 0, -1, -1));
        painter.drawText(cell, Qt::AlignCenter, QString::number(cells[static_cast<size_t>(i)].bit));
        if (cells[static_cast<size_t>(i)].shown) {
            // The shown range is underlined with the black brush.
            painter.fillRect(QRect(cell.left(), cell.bottom() + 4, cell.width(), 4), Qt::black);
        }
    }
}

CDisplaySetting::CDisplaySetting(FrameImage& frame, std::function<void()> changed, QWidget* parent)
    : CBaseDialogEx(parent), frame_(frame), changed_(std::move(changed)) {
    setWindowTitle(DisplaySettingsModel::kTitle);
    {
        std::lock_guard lock(frame.frameLock());
        model_ = std::make_unique<DisplaySettingsModel>(
            frame.raw().depth(), frame.format().bitsPerPixel, frame.format().channels,
            DisplayFlags::Of(frame));
    }
    auto* layout = new QVBoxLayout(this);

    auto* depth = new QGroupBox("Pixel Depth", this);
    auto* depthLayout = new QVBoxLayout(depth);
    auto* radios = new QHBoxLayout;
    auto* group = new QButtonGroup(this);
    const std::pair<int, const char*> choices[] = {
        {DisplaySettingsModel::kEightBitsId, "8 bits"},
        {DisplaySettingsModel::kSixteenBitsId, "16 bits"},
        {DisplaySettingsModel::kAdaptiveId, "Adaptive"}};
    for (const auto& [id, text] : choices) {
        auto* radio = new QRadioButton(text, depth);
        setControlId(radio, id);
        group->addButton(radio, id);
        radios->addWidget(radio);
    }
    depthLayout->addLayout(radios);
    depthLayout->addWidget(new QLabel(
        "Select the pixel depth of image to be display.   (8 bits should select bit range)",
        depth));
    layout->addWidget(depth);

    auto* range = new QGroupBox("Bit Range", this);
    auto* rangeLayout = new QGridLayout(range);
    rangeLayout->addWidget(new QLabel("Bit Range LSB", range), 0, 0);
    auto* list = new QComboBox(range);
    setControlId(list, DisplaySettingsModel::kShiftListId);
    for (const std::string& item : model_->shiftItems()) {
        list->addItem(QString::fromStdString(item));
    }
    rangeLayout->addWidget(list, 0, 1);
    auto* bitDiagram = new CBitDiagram(*list, model_->bitsPerSample(), range);
    setControlId(bitDiagram, DisplaySettingsModel::kDiagramId);
    rangeLayout->addWidget(bitDiagram, 1, 0, 1, 2);
    rangeLayout->addWidget(
        new QLabel("Select the Bit range of the image to be display.  (8 Bits Monochrome or 8 "
                   "Bits per RGB color)  ",
                   range),
        2, 0, 1, 2);
    layout->addWidget(range);

    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    auto* ok = new QPushButton("OK", this);
    auto* cancel = new QPushButton("Cancel", this);
    setControlId(ok, DisplaySettingsModel::kOkId);
    setControlId(cancel, DisplaySettingsModel::kCancelId);
    ok->setDefault(true);
    buttons->addWidget(ok);
    buttons->addWidget(cancel);
    layout->addLayout(buttons);

    sync();
    connect(group, &QButtonGroup::idClicked, this, [this](int id) {
        choose(id == DisplaySettingsModel::kEightBitsId ? DisplaySettingsModel::Choice::EightBits
               : id == DisplaySettingsModel::kSixteenBitsId
                   ? DisplaySettingsModel::Choice::SixteenBits
                   : DisplaySettingsModel::Choice::Adaptive);
    });
    connect(list, &QComboBox::currentIndexChanged, this, [this](int index) { select(index); });
    connect(ok, &QPushButton::clicked, this, [this] {
        write(model_->Ok());
        accept();
    });
    // Cancel applies "8 bits" and the shift too; only the high-bit flag stays as it was.
    connect(cancel, &QPushButton::clicked, this, [this] {
        write(model_->Cancel());
        accept();
    });
    applyDialogFont();
}

QRadioButton* CDisplaySetting::radio(int id) const {
    return control<QRadioButton>(id);
}

QComboBox* CDisplaySetting::shiftList() const {
    return control<QComboBox>(DisplaySettingsModel::kShiftListId);
}

CBitDiagram* CDisplaySetting::diagram() const {
    return control<CBitDiagram>(DisplaySettingsModel::kDiagramId);
}

void CDisplaySetting::choose(DisplaySettingsModel::Choice choice) {
    model_->Choose(choice);
    sync();
}

void CDisplaySetting::select(int index) {
    model_->SelectShift(index);
    sync();
}

void CDisplaySetting::sync() {
    using Choice = DisplaySettingsModel::Choice;
    const std::pair<int, Choice> radios[] = {
        {DisplaySettingsModel::kEightBitsId, Choice::EightBits},
        {DisplaySettingsModel::kSixteenBitsId, Choice::SixteenBits},
        {DisplaySettingsModel::kAdaptiveId, Choice::Adaptive}};
    for (const auto& [id, choice] : radios) {
        QRadioButton* r = radio(id);
        r->setEnabled(model_->enabled(choice));
        r->setChecked(model_->checked() == choice);
    }
    QComboBox* list = shiftList();
    const QSignalBlocker block(list);
    list->setEnabled(model_->listEnabled());
    list->setCurrentIndex(model_->selection().value_or(-1));
    diagram()->update();
}

void CDisplaySetting::write(const DisplayFlags& flags) {
    {
        std::lock_guard lock(frame_.frameLock());
        flags.ApplyTo(frame_);
    }
    if (changed_) {
        changed_();
    }
}

}  // namespace lumetra
