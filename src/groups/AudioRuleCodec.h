#pragma once

#include "groups/AudioRule.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>
#include <variant>

// The JSON form of a stored rule list ("ondril.rules.v1", "ondril.inputRules.v1"). Unlike groups,
// rules are read strictly: all four keys are required, "action" holds exactly one key naming the
// case with the payload under "_0" ({"device":{"_0":"<uid>"}}), and any error fails the whole list.
class AudioRuleCodec {
public:
    struct DecodingError {
        QString text;
    };
    using Decoded = std::variant<QList<AudioRule>, DecodingError>;

    static inline const QString invalidKeyCountText =
        QStringLiteral("Invalid number of keys found, expected one.");

    static Decoded decode(const QByteArray& json);
    // The list when it decodes, else nothing.
    static std::optional<QList<AudioRule>> decodeList(const QByteArray& json);
    static QByteArray encode(const QList<AudioRule>& rules);
};
