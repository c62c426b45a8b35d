#include "app/output_window.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QContextMenuEvent>
#include <QMenu>

namespace lumetra {

COutputList::COutputList(QWidget* parent) : QListWidget(parent) {
    setObjectName("COutputList");
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    setUniformItemSizes(true);
    AddLine(kFirstLine);
}

void COutputList::AddLine(const QString& line) {
    QString shown = line;
    while (shown.endsWith('\n')) {
        shown.chop(1);
    }
    auto* item = new QListWidgetItem(shown);
    item->setData(Qt::UserRole, line);
    addItem(item);
    setCurrentItem(item);
    scrollToItem(item);
}

void COutputList::Clear() {
    clear();
    AddLine(kFirstLine);
}

QStringList COutputList::lines() const {
    QStringList out;
    for (int i = 0; i < count(); ++i) {
        out << item(i)->data(Qt::UserRole).toString();
    }
    return out;
}

void COutputList::CopySelection() {
    QStringList text;
    for (int i = 0; i < count(); ++i) {
        if (item(i)->isSelected()) {
            text << item(i)->text();
        }
    }
    QApplication::clipboard()->setText(text.join('\n'));
}

void COutputList::contextMenuEvent(QContextMenuEvent* event) {
    QMenu menu(this);
    QAction* copy = menu.addAction("Copy", this, &COutputList::CopySelection);
    copy->setObjectName(QString::number(kCopyId));
    QAction* clear = menu.addAction("Clear", this, &COutputList::Clear);
    clear->setObjectName(QString::number(kClearId));
    menu.exec(event->globalPos());
}

COutputWnd::COutputWnd(QWidget* parent) : QDockWidget("Output", parent) {
    setObjectName("COutputWnd");
    list_ = new COutputList(this);
    setWidget(list_);
}

}  // namespace lumetra
