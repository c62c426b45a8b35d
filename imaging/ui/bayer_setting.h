// "Bayer Setting": four radio buttons (BGGR, RGGB, GBRG, GRBG); OK stores the checked pattern and
// turns Bayer conversion on.
#pragma once

#include <optional>

#include "imaging/frame_image.h"
#include "imaging/ui/base_dialog.h"

class QRadioButton;

namespace lumetra {

class CBayerSetting : public CBaseDialogEx {
    Q_OBJECT
  public:
    // Borrows the settings it edits; they must outlive the dialog.
    explicit CBayerSetting(BayerSettings& bayer, QWidget* parent = nullptr);

    // The pattern of the checked button, none when no button is checked.
    std::optional<int> checkedPattern() const;
    // The button of a pattern (1 to 4), named by its text.
    QRadioButton* button(int pattern) const;

  public slots:
    void accept() override;

  private:
    BayerSettings& bayer_;
};

}  // namespace lumetra
