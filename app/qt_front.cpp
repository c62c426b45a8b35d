#include "app/qt_front.h"

#include <QCoreApplication>
#include <QEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QMessageBox>
#include <QThread>

#include "app/output_window.h"
#include "app/start_prompt.h"

namespace lumetra {
namespace {

class MessageEvent final : public QEvent {
  public:
    static QEvent::Type type() {
        static const auto t = static_cast<QEvent::Type>(QEvent::registerEventType());
        return t;
    }
    MessageEvent(uint32_t m, intptr_t w, intptr_t l)
        : QEvent(type()), message(m), wParam(w), lParam(l) {}
    uint32_t message;
    intptr_t wParam;
    intptr_t lParam;
};

class LogEvent final : public QEvent {
  public:
    static QEvent::Type type() {
        static const auto t = static_cast<QEvent::Type>(QEvent::registerEventType());
        return t;
    }
    explicit LogEvent(QString l) : QEvent(type()), line(std::move(l)) {}
    QString line;
};

QString Q(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

}  // namespace

void QtMessageSink::post(uint32_t message, intptr_t wParam, intptr_t lParam) {
    QCoreApplication::postEvent(this, new MessageEvent(message, wParam, lParam));
}

bool QtMessageSink::event(QEvent* e) {
    if (e->type() == MessageEvent::type()) {
        const auto* m = static_cast<MessageEvent*>(e);
        if (handler_) {
            handler_(m->message, m->wParam, m->lParam);
        }
        return true;
    }
    return QObject::event(e);
}

void QtMessageLog::log(std::string_view text) {
    const QString line = Q(TimeStampPrefixNow()) + Q(text);
    if (QThread::currentThread() == thread()) {
        append(line);
    } else {
        QCoreApplication::postEvent(this, new LogEvent(line));
    }
}

bool QtMessageLog::event(QEvent* e) {
    if (e->type() == LogEvent::type()) {
        append(static_cast<LogEvent*>(e)->line);
        return true;
    }
    return QObject::event(e);
}

void QtMessageLog::append(const QString& line) {
    if (list_) {
        list_->AddLine(line);
    }
}

QString QtFileFilter(const std::string& filter) {
    const QStringList parts = Q(filter).split('|', Qt::SkipEmptyParts);
    QStringList names;
    for (qsizetype i = 0; i + 1 < parts.size(); i += 2) {
        names << parts[i];
    }
    return names.join(";;");
}

std::string WithDefaultExtension(const std::string& path, const std::string& defaultExtension) {
    if (defaultExtension.empty() || !QFileInfo(QString::fromStdString(path)).suffix().isEmpty()) {
        return path;
    }
    const size_t blank = defaultExtension.find_last_of(' ');
    const std::string ext =
        blank == std::string::npos ? defaultExtension : defaultExtension.substr(blank + 1);
    return path + "." + ext;
}

void QtPrompt::information(std::string_view text) {
    QMessageBox::information(parent_, title_, Q(text));
}

PromptAnswer QtPrompt::question(std::string_view text, std::string_view title) {
    const auto answer = QMessageBox::question(
        parent_, Q(title), Q(text), QMessageBox::Yes | QMessageBox::No | QMessageBox::Cancel);
    switch (answer) {
        case QMessageBox::Yes:
            return PromptAnswer::kYes;
        case QMessageBox::No:
            return PromptAnswer::kNo;
        default:
            return PromptAnswer::kCancel;
    }
}

PromptAnswer QtPrompt::startPrompt(bool& alwaysShow) {
    CStartPromptDlg dialog(alwaysShow, parent_);
    const bool ok = dialog.exec() == QDialog::Accepted;
    alwaysShow = dialog.alwaysShow();
    return ok ? PromptAnswer::kOk : PromptAnswer::kCancel;
}

std::optional<std::string> QtPrompt::openFile(const FileRequest& r) {
    return RunFileDialog(r, QFileDialog::AcceptOpen);
}

std::optional<std::string> QtPrompt::saveFile(const FileRequest& r) {
    return RunFileDialog(r, QFileDialog::AcceptSave);
}

std::optional<std::string> QtPrompt::RunFileDialog(const FileRequest& r,
                                                   QFileDialog::AcceptMode mode) {
    QFileDialog dialog(parent_, Q(r.title), Q(r.folder), QtFileFilter(r.filter));
    dialog.setAcceptMode(mode);
    dialog.setFileMode(mode == QFileDialog::AcceptOpen ? QFileDialog::ExistingFile
                                                       : QFileDialog::AnyFile);
    // A name typed without one gets the extension; saving over a file asks first.
    const std::string ext = WithDefaultExtension("x", r.defaultExtension);
    if (ext.size() > 2) {
        dialog.setDefaultSuffix(Q(ext.substr(2)));
    }
    if (!r.defaultName.empty()) {
        dialog.selectFile(Q(r.defaultName));
    }
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) {
        return std::nullopt;
    }
    return dialog.selectedFiles().first().toStdString();
}

}  // namespace lumetra
