// The status bar: 21 panes in the designed order, each sized by its initial text. What they show
// is computed in workbench/status_texts.h; the bar only displays it.
#pragma once

#include <QLabel>
#include <QStatusBar>
#include <vector>

#include "workbench/status_texts.h"

namespace lumetra {

class CKelmMFCStatusBar final : public QStatusBar {
    Q_OBJECT
  public:
    explicit CKelmMFCStatusBar(QWidget* parent = nullptr);

    void setPaneText(int index, const QString& text);
    void setPane(int index, const PaneText& pane);
    QString paneText(int index) const;
    // As 0x00BBGGRR.
    uint32_t paneColour(int index) const;
    void setPaneVisible(int index, bool visible);
    bool paneVisible(int index) const;
    QLabel* pane(int index) const { return panes_.at(static_cast<size_t>(index)); }

  private:
    std::vector<QLabel*> panes_;
    std::vector<uint32_t> colours_;
};

// 0x00BBGGRR as a colour.
QColor ColourOf(uint32_t bgr);

}  // namespace lumetra
