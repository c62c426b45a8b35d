// "Display Setting": how samples wider than 8 bits reach the screen ("8 bits" with a shift,
// "16 bits", "Adaptive"), with the owner-painted bit diagram. A thin face over
// DisplaySettingsModel: OK writes its Ok() flags to the Frame image; the "Cancel" button (1137)
// writes its Cancel() flags, which still apply "8 bits" and the shift; Escape and the close box
// change nothing.
#pragma once

#include <functional>
#include <memory>

#include <QWidget>

#include "imaging/display_settings.h"
#include "imaging/frame_image.h"
#include "imaging/ui/base_dialog.h"

class QComboBox;
class QRadioButton;

namespace lumetra {

// The bit diagram (control 1138): the bits of one sample between "MSB" and "LSB", the ones the
// list's selection shows filled grey. The selection is read from the list on every paint.
class CBitDiagram : public QWidget {
    Q_OBJECT
  public:
    CBitDiagram(const QComboBox& list, int bitsPerSample, QWidget* parent = nullptr);
    // Where the cell of the index-th bit from the most significant one is drawn.
    QRect cellRect(int index) const;
    int bitsPerSample() const { return bitsPerSample_; }
    static constexpr QRgb kShownColour = 0xB5B5B5;

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    const QComboBox& list_;
    int bitsPerSample_;
};

class CDisplaySetting : public CBaseDialogEx {
    Q_OBJECT
  public:
    // Reads the Frame image's format and flags under its lock; `changed` runs after OK or Cancel
    // wrote the flags (the view repaints).
    CDisplaySetting(FrameImage& frame, std::function<void()> changed, QWidget* parent = nullptr);

    const DisplaySettingsModel& model() const { return *model_; }
    QRadioButton* radio(int id) const;
    QComboBox* shiftList() const;
    CBitDiagram* diagram() const;

  private:
    void choose(DisplaySettingsModel::Choice choice);
    void select(int index);
    // Mirrors the model into the controls.
    void sync();
    void write(const DisplayFlags& flags);

    FrameImage& frame_;
    std::function<void()> changed_;
    std::unique_ptr<DisplaySettingsModel> model_;
};

}  // namespace lumetra
