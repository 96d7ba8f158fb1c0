#include "groups/OutputGroup.h"

#include <QHash>

size_t qHash(const OutputGroup& group, size_t seed) {
    QtPrivate::QHashCombine combine;
    seed = combine(seed, group.id);
    seed = combine(seed, group.name);
    seed = combine(seed, group.memberUIDs);
    seed = combine(seed, group.masterUID);
    seed = combine(seed, group.masterVolume);
    for (auto it = group.balance.cbegin(); it != group.balance.cend(); ++it) {
        seed = combine(seed, it.key());
        seed = combine(seed, it.value());
    }
    for (auto it = group.deviceNames.cbegin(); it != group.deviceNames.cend(); ++it) {
        seed = combine(seed, it.key());
        seed = combine(seed, it.value());
    }
    return seed;
}
