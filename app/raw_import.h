// Opening a raw image: the file has no header, so the user gives its width, height, channels
// and bits per sample. The fields start from the last import (or the current frame) and the
// expected file size is shown against the file's, so a wrong guess is seen before opening.
#pragma once

#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QSpinBox>

#include "base/settings.h"
#include "imaging/frame_image.h"
#include "recording/image_files.h"

namespace lumetra {

class CRawImportDlg final : public QDialog {
    Q_OBJECT
  public:
    CRawImportDlg(const QString& path, const FrameFormat& current, Settings& settings,
                  QWidget* parent = nullptr);
    RawLayout layout() const;

    void accept() override;

  private:
    void Check();

    Settings& settings_;
    qint64 fileSize_ = 0;
    QSpinBox* width_;
    QSpinBox* height_;
    QComboBox* channels_;
    QSpinBox* bits_;
    QLabel* sizes_;
    QDialogButtonBox* buttons_;
};

}  // namespace lumetra
