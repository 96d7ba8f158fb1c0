#include "platform/pulse/PulseObjectIds.h"

AudioObjectID PulseObjectIds::idFor(Kind kind, const QString& name) {
    const QString objectKey = key(kind, name);
    const auto found = m_idByKey.constFind(objectKey);
    if (found != m_idByKey.constEnd())
        return *found;
    const AudioObjectID objectID = m_next++;
    m_idByKey.insert(objectKey, objectID);
    m_objectByID.insert(objectID, {kind, name});
    return objectID;
}

std::optional<std::pair<PulseObjectIds::Kind, QString>>
PulseObjectIds::lookup(AudioObjectID objectID) const {
    const auto found = m_objectByID.constFind(objectID);
    if (found == m_objectByID.constEnd())
        return std::nullopt;
    return *found;
}

QString PulseObjectIds::key(Kind kind, const QString& name) {
    return QString::number(int(kind)) + QLatin1Char(':') + name;
}
