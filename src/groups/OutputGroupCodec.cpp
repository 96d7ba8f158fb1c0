#include "groups/OutputGroupCodec.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <cmath>

namespace {

// A key that is missing or null counts as missing: older writers may have left either.
bool isMissing(const QJsonObject& object, const QString& key) {
    const auto it = object.constFind(key);
    return it == object.constEnd() || it->isNull() || it->isUndefined();
}

std::optional<OutputGroup> decodeGroup(const QJsonValue& value) {
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    OutputGroup group;

    if (isMissing(object, QStringLiteral("id"))) {
        group.id = QUuid::createUuid();
    } else {
        const QJsonValue id = object.value(QStringLiteral("id"));
        if (!id.isString())
            return std::nullopt;
        const auto uuid = OutputGroupCodec::parseUuid(id.toString());
        if (!uuid)
            return std::nullopt;
        group.id = *uuid;
    }

    group.name = QStringLiteral("Group");
    if (!isMissing(object, QStringLiteral("name"))) {
        const QJsonValue name = object.value(QStringLiteral("name"));
        if (!name.isString())
            return std::nullopt;
        group.name = name.toString();
    }

    if (!isMissing(object, QStringLiteral("memberUIDs"))) {
        const QJsonValue members = object.value(QStringLiteral("memberUIDs"));
        if (!members.isArray())
            return std::nullopt;
        for (const QJsonValue member : members.toArray()) {
            if (!member.isString())
                return std::nullopt;
            group.memberUIDs.append(member.toString());
        }
    }

    if (isMissing(object, QStringLiteral("masterUID"))) {
        group.masterUID = group.memberUIDs.isEmpty() ? QString() : group.memberUIDs.first();
    } else {
        const QJsonValue master = object.value(QStringLiteral("masterUID"));
        if (!master.isString())
            return std::nullopt;
        group.masterUID = master.toString();
    }

    if (!isMissing(object, QStringLiteral("masterVolume"))) {
        const QJsonValue volume = object.value(QStringLiteral("masterVolume"));
        if (!volume.isDouble())
            return std::nullopt;
        group.masterVolume = volume.toDouble(); // bounded only when next set
    }

    if (!isMissing(object, QStringLiteral("balance"))) {
        const QJsonValue balance = object.value(QStringLiteral("balance"));
        if (!balance.isObject())
            return std::nullopt;
        const QJsonObject entries = balance.toObject();
        for (auto it = entries.constBegin(); it != entries.constEnd(); ++it) {
            if (!it->isDouble())
                return std::nullopt;
            group.balance.insert(it.key(), it->toDouble());
        }
    }

    if (!isMissing(object, QStringLiteral("deviceNames"))) {
        const QJsonValue names = object.value(QStringLiteral("deviceNames"));
        if (!names.isObject())
            return std::nullopt;
        const QJsonObject entries = names.toObject();
        for (auto it = entries.constBegin(); it != entries.constEnd(); ++it) {
            if (!it->isString())
                return std::nullopt;
            group.deviceNames.insert(it.key(), it->toString());
        }
    }
    return group;
}

} // namespace

std::optional<QList<OutputGroup>> OutputGroupCodec::decode(const QByteArray& json) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !document.isArray())
        return std::nullopt;
    QList<OutputGroup> groups;
    for (const QJsonValue value : document.array()) {
        auto group = decodeGroup(value);
        if (!group)
            return std::nullopt;
        groups.append(std::move(*group));
    }
    return groups;
}

std::optional<QByteArray> OutputGroupCodec::encode(const QList<OutputGroup>& groups) {
    QJsonArray array;
    for (const OutputGroup& group : groups) {
        if (!std::isfinite(group.masterVolume))
            return std::nullopt;
        QJsonObject balance;
        for (auto it = group.balance.cbegin(); it != group.balance.cend(); ++it) {
            if (!std::isfinite(it.value()))
                return std::nullopt;
            balance.insert(it.key(), it.value());
        }
        QJsonObject names;
        for (auto it = group.deviceNames.cbegin(); it != group.deviceNames.cend(); ++it)
            names.insert(it.key(), it.value());

        QJsonObject object;
        object.insert(QStringLiteral("id"), uuidText(group.id));
        object.insert(QStringLiteral("name"), group.name);
        object.insert(QStringLiteral("memberUIDs"), QJsonArray::fromStringList(group.memberUIDs));
        object.insert(QStringLiteral("masterUID"), group.masterUID);
        object.insert(QStringLiteral("masterVolume"), group.masterVolume);
        object.insert(QStringLiteral("balance"), balance);
        object.insert(QStringLiteral("deviceNames"), names);
        array.append(object);
    }
    return QJsonDocument(array).toJson(QJsonDocument::Compact);
}

QString OutputGroupCodec::uuidText(const QUuid& uuid) {
    return uuid.toString(QUuid::WithoutBraces).toUpper();
}

std::optional<QUuid> OutputGroupCodec::parseUuid(const QString& text) {
    // Only the canonical 36-character form counts; QUuid alone would also take braces.
    static const QString nilText = QStringLiteral("00000000-0000-0000-0000-000000000000");
    if (text.size() != 36)
        return std::nullopt;
    const QUuid uuid = QUuid::fromString(text);
    if (uuid.isNull() && text != nilText)
        return std::nullopt;
    return uuid;
}
