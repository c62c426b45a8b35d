// lumetra-cli's --json output, read back with Qt.
#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

#include "support/tool_run.h"

namespace lumetra::test {

inline QJsonObject jsonOf(const ToolRun& r) {
    return QJsonDocument::fromJson(QByteArray::fromStdString(r.out)).object();
}

// The "log" array: the lines the command logged.
inline QStringList logOf(const ToolRun& r) {
    QStringList lines;
    for (const QJsonValue& v : jsonOf(r)["log"].toArray()) {
        lines << v.toString();
    }
    return lines;
}

}  // namespace lumetra::test
