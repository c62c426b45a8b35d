#include "qtcore/qt_settings.h"

#include <QSettings>
#include <QString>
#include <cstdlib>

namespace lumetra {
namespace {

QString qs(std::string_view s) {
    return QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size()));
}

QString userKey(std::string_view section, std::string_view name) {
    return qs(section) + QLatin1Char('/') + qs(name);
}

// Registry-style paths use backslashes; QSettings groups use slashes.
QString systemKey(std::string_view key, std::string_view name) {
    QString k = qs(key);
    k.replace(QLatin1Char('\\'), QLatin1Char('/'));
    return k + QLatin1Char('/') + qs(name);
}

}  // namespace

QtSettings::QtSettings()
    : user_(
          std::make_unique<QSettings>(QStringLiteral("KELM-Lumetra"), QStringLiteral("Lumetra"))) {
    if (const char* path = std::getenv("LUMETRA_SYSTEM_SETTINGS"); path != nullptr && *path) {
        system_ = std::make_unique<QSettings>(QString::fromLocal8Bit(path), QSettings::IniFormat);
    } else {
        system_ = std::make_unique<QSettings>(QSettings::IniFormat, QSettings::SystemScope,
                                              QStringLiteral("KELM"), QStringLiteral("Lumetra"));
    }
}

QtSettings::~QtSettings() = default;

int QtSettings::readInt(std::string_view section, std::string_view name, int fallback) {
    bool ok = false;
    int v = user_->value(userKey(section, name), fallback).toInt(&ok);
    return ok ? v : fallback;
}

void QtSettings::writeInt(std::string_view section, std::string_view name, int value) {
    user_->setValue(userKey(section, name), value);
}

std::string QtSettings::readString(std::string_view section, std::string_view name,
                                   std::string_view fallback) {
    return user_->value(userKey(section, name), qs(fallback)).toString().toStdString();
}

void QtSettings::writeString(std::string_view section, std::string_view name,
                             std::string_view value) {
    user_->setValue(userKey(section, name), qs(value));
}

std::optional<uint32_t> QtSettings::readSystemInt(std::string_view key, std::string_view name) {
    QVariant v = system_->value(systemKey(key, name));
    if (!v.isValid()) {
        return std::nullopt;
    }
    bool ok = false;
    uint32_t n = v.toUInt(&ok);
    if (!ok) {
        return std::nullopt;
    }
    return n;
}

std::optional<std::string> QtSettings::readSystemString(std::string_view key,
                                                        std::string_view name) {
    QVariant v = system_->value(systemKey(key, name));
    if (!v.isValid()) {
        return std::nullopt;
    }
    return v.toString().toStdString();
}

}  // namespace lumetra
