#include "groups/RuleAction.h"

#include <QHash>

size_t qHash(const RuleAction& action, size_t seed) {
    QtPrivate::QHashCombine combine;
    seed = combine(seed, int(action.kind));
    seed = combine(seed, action.groupID);
    return combine(seed, action.deviceUID);
}
