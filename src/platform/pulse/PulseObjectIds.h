#pragma once

#include "platform/AudioHardwareTypes.h"

#include <QHash>
#include <QString>

#include <optional>
#include <utility>

// The program's own object ids for the server's objects. The server's indices are no use as ids:
// a sink and a source may share one, PipeWire reuses them, and a restarted server numbers afresh.
// An id is handed out the first time a (kind, name) is seen and stays with it for the whole run,
// across reconnections; ids are never reused. Main thread only.
class PulseObjectIds {
public:
    enum class Kind { Sink, Source, Process, Tap, TapAggregate };
    static constexpr AudioObjectID kFirstID = 100;

    AudioObjectID idFor(Kind kind, const QString& name);
    std::optional<std::pair<Kind, QString>> lookup(AudioObjectID objectID) const;

private:
    static QString key(Kind kind, const QString& name);

    QHash<QString, AudioObjectID> m_idByKey;
    QHash<AudioObjectID, std::pair<Kind, QString>> m_objectByID;
    AudioObjectID m_next = kFirstID;
};
