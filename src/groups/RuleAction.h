#pragma once

#include <QMetaType>
#include <QString>
#include <QUuid>

// What a rule does when it fits: put a group on, or make one device the default. Only the payload
// of the case is set; equality compares the case and that payload.
struct RuleAction {
    enum class Kind { group, device };

    Kind kind = Kind::device;
    QUuid groupID;     // with `group`
    QString deviceUID; // with `device`

    static RuleAction group(const QUuid& id) { return {Kind::group, id, {}}; }
    static RuleAction device(const QString& uid) { return {Kind::device, {}, uid}; }

    friend bool operator==(const RuleAction&, const RuleAction&) = default;
};

size_t qHash(const RuleAction& action, size_t seed = 0);

Q_DECLARE_METATYPE(RuleAction)
