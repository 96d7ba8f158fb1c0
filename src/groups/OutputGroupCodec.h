#pragma once

#include "groups/OutputGroup.h"

#include <QByteArray>
#include <QList>

#include <optional>

// The JSON form of the stored group list ("ondril.groups.v1"). Reading is tolerant key by key so
// that data of older versions loads: a missing (or null) key takes its default. A key present
// with the wrong type fails the whole array. Writing always writes all seven keys.
class OutputGroupCodec {
public:
    static std::optional<QList<OutputGroup>> decode(const QByteArray& json);
    // Absent when a number cannot be written as JSON (not finite); nothing is written then.
    static std::optional<QByteArray> encode(const QList<OutputGroup>& groups);

    // UUIDs are stored as upper-case canonical text, without braces.
    static QString uuidText(const QUuid& uuid);
    static std::optional<QUuid> parseUuid(const QString& text);
};
