#pragma once

#include "appaudio/AppAudioPrefs.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QMetaType>
#include <QString>
#include <QUuid>

#include <optional>

// A named snapshot of the whole routing: a group or one output, the input, and every
// application's record.
struct QuickConfig {
    QUuid id;
    QString name;
    std::optional<QUuid> activeGroupID;
    std::optional<QString> singleOutputUID;
    std::optional<QString> inputUID;
    QMap<QString, AppAudioPrefs> appRoutes; // by bundle identifier

    friend bool operator==(const QuickConfig&, const QuickConfig&) = default;

    QJsonObject toJson() const;
    // Tolerant field by field: a damaged or missing field takes its default, the config stays.
    static QuickConfig fromJson(const QJsonObject& object);

    static QByteArray encodeAll(const QList<QuickConfig>& configs);
    // Absent when the data is not a JSON array at all.
    static std::optional<QList<QuickConfig>> decodeAll(const QByteArray& data);
};
Q_DECLARE_METATYPE(QuickConfig)
