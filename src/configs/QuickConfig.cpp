#include "configs/QuickConfig.h"

#include "groups/OutputGroupCodec.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace {

std::optional<QString> optionalText(const QJsonObject& object, const QString& key) {
    const QJsonValue value = object.value(key);
    return value.isString() ? std::optional<QString>(value.toString()) : std::nullopt;
}

std::optional<QUuid> optionalUuid(const QJsonObject& object, const QString& key) {
    const auto text = optionalText(object, key);
    return text ? OutputGroupCodec::parseUuid(*text) : std::nullopt;
}

} // namespace

QJsonObject QuickConfig::toJson() const {
    QJsonObject object{{QStringLiteral("id"), OutputGroupCodec::uuidText(id)},
                       {QStringLiteral("name"), name}};
    if (activeGroupID)
        object.insert(QStringLiteral("activeGroupID"), OutputGroupCodec::uuidText(*activeGroupID));
    if (singleOutputUID)
        object.insert(QStringLiteral("singleOutputUID"), *singleOutputUID);
    if (inputUID)
        object.insert(QStringLiteral("inputUID"), *inputUID);
    QJsonObject routes;
    for (auto it = appRoutes.cbegin(); it != appRoutes.cend(); ++it)
        routes.insert(it.key(), it.value().toJson());
    object.insert(QStringLiteral("appRoutes"), routes);
    return object;
}

QuickConfig QuickConfig::fromJson(const QJsonObject& object) {
    QuickConfig config;
    config.id = optionalUuid(object, QStringLiteral("id")).value_or(QUuid::createUuid());
    config.name = optionalText(object, QStringLiteral("name")).value_or(QStringLiteral("Setup"));
    config.activeGroupID = optionalUuid(object, QStringLiteral("activeGroupID"));
    config.singleOutputUID = optionalText(object, QStringLiteral("singleOutputUID"));
    config.inputUID = optionalText(object, QStringLiteral("inputUID"));
    const QJsonValue routes = object.value(QStringLiteral("appRoutes"));
    if (routes.isObject()) {
        const QJsonObject table = routes.toObject();
        for (auto it = table.constBegin(); it != table.constEnd(); ++it)
            config.appRoutes.insert(it.key(), AppAudioPrefs::fromJson(it.value().toObject()));
    }
    return config;
}

QByteArray QuickConfig::encodeAll(const QList<QuickConfig>& configs) {
    QJsonArray array;
    for (const QuickConfig& config : configs)
        array.append(config.toJson());
    return QJsonDocument(array).toJson(QJsonDocument::Compact);
}

std::optional<QList<QuickConfig>> QuickConfig::decodeAll(const QByteArray& data) {
    const QJsonDocument document = QJsonDocument::fromJson(data);
    if (!document.isArray())
        return std::nullopt;
    QList<QuickConfig> configs;
    for (const QJsonValue& value : document.array())
        configs.append(fromJson(value.toObject()));
    return configs;
}
