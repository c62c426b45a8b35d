#include "cli/cli_output.h"

#include <QJsonDocument>
#include <cstdio>
#include <string>

#include "base/process_flags.h"

namespace lumetra::cli {
namespace {

QJsonObject cacheJson(const CKELM_PCIE_VexCardDoc& doc) {
    const BoardParameters& p = doc.parameters();
    const ImageFormatRecord& f = doc.imageFormat();
    QJsonObject o;
    o["board"] = doc.boardIndex();
    o["name"] = QString::fromStdString(doc.boardName());
    o["width"] = static_cast<qint64>(f.width);
    o["height"] = static_cast<qint64>(f.height);
    o["bitsPerPixel"] = static_cast<qint64>(f.bitsPerPixel);
    o["channels"] = static_cast<qint64>(f.channels);
    o["imageType"] = static_cast<qint64>(p.imageType());
    o["dataFormat"] = static_cast<qint64>(p.dataFormat());
    o["taps"] = static_cast<qint64>(p.taps());
    o["bayerPattern"] = static_cast<qint64>(p.bayerPattern());
    o["model"] = processFlags().modelCode.load();
    o["coaxpress"] = processFlags().coaxpress.load();
    return o;
}

void printCacheText(const QJsonObject& o) {
    static const char* kOrder[] = {"board",        "name",         "width",     "height",
                                   "bitsPerPixel", "channels",     "imageType", "dataFormat",
                                   "taps",         "bayerPattern", "model",     "coaxpress"};
    for (const char* key : kOrder) {
        const QJsonValue v = o[QLatin1String(key)];
        std::string text = v.isBool()     ? (v.toBool() ? "yes" : "no")
                           : v.isString() ? v.toString().toStdString()
                                          : std::to_string(v.toInteger());
        std::printf("%-13s %s\n", key, text.c_str());
    }
}

}  // namespace

void PrintJson(const QJsonObject& object) {
    std::fputs(QJsonDocument(object).toJson(QJsonDocument::Indented).constData(), stdout);
}

QJsonArray LogArray(const Session& s) {
    QJsonArray lines;
    for (const std::string& line : s.log.lines()) {
        lines.append(QString::fromStdString(line));
    }
    return lines;
}

void PrintCache(const Session& s) {
    QJsonObject o = cacheJson(*s.document);
    if (s.options.json) {
        o["log"] = LogArray(s);
        PrintJson(o);
    } else {
        printCacheText(o);
    }
}

int NoBoard(Session& s) {
    s.log.log("No board could be opened.\n");
    if (s.options.json) {
        QJsonObject o;
        o["error"] = "no board";
        o["log"] = LogArray(s);
        PrintJson(o);
    }
    return 1;
}

}  // namespace lumetra::cli
