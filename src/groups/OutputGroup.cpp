#include "groups/OutputGroup.h"

#include "groups/OutputGroupCodec.h"

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

QString OutputGroup::idText() const {
    return OutputGroupCodec::uuidText(id);
}

QVariantMap OutputGroup::balanceMap() const {
    QVariantMap map;
    for (auto it = balance.cbegin(); it != balance.cend(); ++it)
        map.insert(it.key(), it.value());
    return map;
}
