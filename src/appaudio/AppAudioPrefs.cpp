#include "appaudio/AppAudioPrefs.h"

#include <QJsonArray>
#include <QJsonDocument>

QJsonObject AppAudioPrefs::toJson() const {
    return {{QStringLiteral("volume"), volume},
            {QStringLiteral("muted"), muted},
            {QStringLiteral("routeUIDs"), QJsonArray::fromStringList(routeUIDs)},
            {QStringLiteral("favourite"), favourite}};
}

AppAudioPrefs AppAudioPrefs::fromJson(const QJsonObject& object) {
    AppAudioPrefs prefs;
    if (const QJsonValue volume = object.value(QStringLiteral("volume")); volume.isDouble())
        prefs.volume = volume.toDouble();
    if (const QJsonValue muted = object.value(QStringLiteral("muted")); muted.isBool())
        prefs.muted = muted.toBool();
    if (const QJsonValue routes = object.value(QStringLiteral("routeUIDs")); routes.isArray()) {
        QStringList uids;
        bool allText = true;
        for (const QJsonValue& uid : routes.toArray()) {
            allText = allText && uid.isString();
            uids.append(uid.toString());
        }
        if (allText)
            prefs.routeUIDs = uids;
    }
    if (const QJsonValue favourite = object.value(QStringLiteral("favourite")); favourite.isBool())
        prefs.favourite = favourite.toBool();
    return prefs;
}

QByteArray AppAudioPrefs::encodeAll(const QMap<QString, AppAudioPrefs>& prefs) {
    QJsonObject table;
    for (auto it = prefs.cbegin(); it != prefs.cend(); ++it)
        table.insert(it.key(), it.value().toJson());
    return QJsonDocument(table).toJson(QJsonDocument::Compact);
}

std::optional<QMap<QString, AppAudioPrefs>> AppAudioPrefs::decodeAll(const QByteArray& data) {
    const QJsonDocument document = QJsonDocument::fromJson(data);
    if (!document.isObject())
        return std::nullopt;
    QMap<QString, AppAudioPrefs> prefs;
    const QJsonObject table = document.object();
    for (auto it = table.constBegin(); it != table.constEnd(); ++it) {
        const AppAudioPrefs record = fromJson(it.value().toObject());
        // What decodes to the neutral record is not kept: the table holds only what differs.
        if (!record.isNeutral())
            prefs.insert(it.key(), record);
    }
    return prefs;
}
