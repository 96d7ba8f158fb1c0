#pragma once

#include "groups/RuleAction.h"

#include <QMetaType>
#include <QStringList>
#include <QUuid>

// "When all of these devices are connected, do this." The same record serves outputs and inputs;
// in a list, the first rule that fits wins.
struct AudioRule {
    QUuid id;                       // also the rule's token while it is the outcome of evaluation
    QStringList requiredDeviceUIDs; // the user's order
    RuleAction action;
    bool enabled = true; // a disabled rule never fits

    friend bool operator==(const AudioRule&, const AudioRule&) = default;
};

size_t qHash(const AudioRule& rule, size_t seed = 0);

Q_DECLARE_METATYPE(AudioRule)
