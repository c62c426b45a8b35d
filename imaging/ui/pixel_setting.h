// "Goto Pixel...": X (edit 1274) and Y (edit 1275) of a pixel, each checked against the raw
// image's limits when it loses focus and again on OK ("Set value is out of range").
#pragma once

#include <QPoint>

#include "base/messages.h"
#include "imaging/ui/base_dialog.h"
#include "imaging/view_layout.h"

class QLineEdit;

namespace lumetra {

class CPagePixelSetting : public CBaseDialogEx {
    Q_OBJECT
  public:
    static constexpr int kXId = 1274;
    static constexpr int kYId = 1275;
    static constexpr const char* kOutOfRangeText = "Set value is out of range";

    // prompt answers the out-of-range box; without one a message box shows.
    CPagePixelSetting(PixelLimits limits, QPoint initial, Prompt* prompt,
                      QWidget* parent = nullptr);

    // The chosen pixel, once accepted.
    QPoint pixel() const { return pixel_; }

  public slots:
    void accept() override;

  private:
    // Checks one edit; an invalid value is reported and the last valid one put back.
    bool check(QLineEdit* edit, int limit, int& lastValid);
    void outOfRange();

    PixelLimits limits_;
    Prompt* prompt_;
    QLineEdit* x_ = nullptr;
    QLineEdit* y_ = nullptr;
    int lastX_ = 0;
    int lastY_ = 0;
    QPoint pixel_;
};

}  // namespace lumetra
