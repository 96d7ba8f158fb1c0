#include "groups/AudioRule.h"

#include <QHash>

size_t qHash(const AudioRule& rule, size_t seed) {
    QtPrivate::QHashCombine combine;
    seed = combine(seed, rule.id);
    seed = combine(seed, rule.requiredDeviceUIDs);
    seed = combine(seed, rule.action);
    return combine(seed, rule.enabled);
}
