#include "control/HotKeyCombo.h"

#include <QJsonDocument>

#include <cmath>
#include <limits>

namespace {

// A key code or mask is a whole number that fits in 32 unsigned bits; 46.5 or -1 is not.
std::optional<std::uint32_t> unsigned32(const QJsonValue& value) {
    if (!value.isDouble())
        return std::nullopt;
    const double number = value.toDouble();
    if (number < 0 || number > double(std::numeric_limits<std::uint32_t>::max()) ||
        std::floor(number) != number)
        return std::nullopt;
    return std::uint32_t(number);
}

} // namespace

QJsonObject HotKeyCombo::toJson() const {
    return QJsonObject{{QStringLiteral("keyCode"), qint64(keyCode)},
                       {QStringLiteral("modifiers"), qint64(modifiers)}};
}

std::optional<HotKeyCombo> HotKeyCombo::fromJson(const QJsonValue& value) {
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    const auto keyCode = unsigned32(object.value(QStringLiteral("keyCode")));
    const auto modifiers = unsigned32(object.value(QStringLiteral("modifiers")));
    if (!keyCode || !modifiers)
        return std::nullopt;
    return HotKeyCombo{*keyCode, *modifiers};
}

QByteArray HotKeyCombo::encodeTable(const QMap<QString, HotKeyCombo>& table) {
    QJsonObject object;
    for (auto it = table.cbegin(); it != table.cend(); ++it)
        object.insert(it.key(), it.value().toJson());
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

std::optional<QMap<QString, HotKeyCombo>> HotKeyCombo::decodeTable(const QByteArray& data) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    QMap<QString, HotKeyCombo> table;
    const QJsonObject object = document.object();
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        const auto combo = fromJson(it.value());
        if (!combo)
            return std::nullopt;
        table.insert(it.key(), *combo);
    }
    return table;
}
