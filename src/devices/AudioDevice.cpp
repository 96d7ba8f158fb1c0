#include "devices/AudioDevice.h"

#include "app/AppSettings.h"

#include <QHash>

namespace {

// The text behind the last ":" is a channel list ("1,2", "3") when it is non-empty and holds
// only digits and commas.
bool isChannelList(QStringView text) {
    if (text.isEmpty())
        return false;
    for (QChar c : text)
        if (!c.isDigit() && c != u',')
            return false;
    return true;
}

bool containsAny(const QString& text, std::initializer_list<const char*> needles) {
    for (const char* needle : needles)
        if (text.contains(QLatin1String(needle)))
            return true;
    return false;
}

} // namespace

std::optional<QString> AudioDevice::baseUID(const QString& uid) {
    const auto colon = uid.lastIndexOf(u':');
    if (colon < 0 || !isChannelList(QStringView(uid).mid(colon + 1)))
        return std::nullopt;
    return uid.left(colon);
}

std::optional<QString> AudioDevice::stableKey(const QString& uid) {
    const QStringList parts = uid.split(u':');
    if (parts.size() < 5)
        return std::nullopt;
    return parts[1] + u':' + parts[2] + u':' + parts.last();
}

std::optional<QString> AudioDevice::matchingUID(const QString& uid, const QStringList& candidates) {
    const auto key = stableKey(uid);
    if (!key)
        return std::nullopt;
    std::optional<QString> match;
    for (const QString& candidate : candidates) {
        if (candidate == uid || stableKey(candidate) != key)
            continue;
        if (match)
            return std::nullopt; // two candidates: an ambiguous match is no match
        match = candidate;
    }
    return match;
}

QString AudioDevice::iconName() const {
    if (isAirPlay)
        return QStringLiteral("airplayaudio");
    if (isInput)
        return QStringLiteral("mic");
    const QString lowered = name.toLower();
    if (containsAny(lowered, {"airpod", "headphone", "beats"}))
        return QStringLiteral("airpodspro");
    if (containsAny(lowered, {"display", "monitor", "tv"}))
        return QStringLiteral("display");
    if (containsAny(lowered, {"macbook", "built-in"}))
        return QStringLiteral("laptopcomputer");
    if (containsAny(lowered, {"thunderbolt", "dock", "hub", "caldigit"}))
        return QStringLiteral("cable.connector");
    return QStringLiteral("hifispeaker.fill");
}

QString AudioDevice::rowIconName(const QString& name, bool isInput) {
    if (isInput)
        return QStringLiteral("mic");
    const QString lowered = name.toLower();
    if (containsAny(lowered, {"airpod", "headphone"}))
        return QStringLiteral("airpodspro");
    if (containsAny(lowered, {"display", "monitor"}))
        return QStringLiteral("display");
    if (containsAny(lowered, {"macbook", "built-in"}))
        return QStringLiteral("laptopcomputer");
    return QStringLiteral("hifispeaker.fill");
}

QVariant AudioDevice::volumeValue() const {
    return volume ? QVariant(double(*volume)) : QVariant::fromValue(nullptr);
}

QString AudioDevice::displayName() const {
    return displayName(AppSettings::shared());
}

QString AudioDevice::displayName(AppSettings& settings) const {
    if (auto custom = settings.customName(uid))
        return *custom;
    if (!isInput)
        return name;
    const auto base = baseUID(uid);
    if (!base)
        return name;
    // A name given to the output side names the input side too when the two UIDs differ only in
    // their trailing channel list.
    const auto names = settings.deviceNames();
    for (auto it = names.cbegin(); it != names.cend(); ++it)
        if (baseUID(it.key()) == base)
            return it.value();
    return name;
}

size_t qHash(const AudioDevice& device, size_t seed) {
    QtPrivate::QHashCombine combine;
    seed = combine(seed, device.id);
    seed = combine(seed, device.uid);
    seed = combine(seed, device.name);
    seed = combine(seed, device.volume.has_value());
    seed = combine(seed, device.volume.value_or(0.0f));
    seed = combine(seed, device.isVolumeSettable);
    seed = combine(seed, device.isAirPlay);
    seed = combine(seed, device.isInput);
    return seed;
}
