#include "app/AppSettings.h"

#include "app/NotificationCenter.h"
#include "devices/AudioDevice.h"
#include "platform/UserDefaults.h"

namespace {

// The booleans that default to true are fetched as objects: only a stored boolean counts.
bool trueUnlessStoredFalse(const UserDefaults& defaults, const QString& key) {
    return defaults.storedBoolForKey(key).value_or(true);
}

QStringList toList(const QSet<QString>& set) {
    QStringList list;
    list.reserve(set.size());
    for (const QString& uid : set)
        list.append(uid);
    return list;
}

} // namespace

AppSettings::AppSettings(UserDefaults& defaults, NotificationCenter& center)
    : m_defaults(defaults)
    , m_center(center) {}

AppSettings& AppSettings::shared() {
    static auto* settings =
        new AppSettings(UserDefaults::standardUserDefaults(), NotificationCenter::defaultCenter());
    return *settings;
}

bool AppSettings::showVolumeHUD() const {
    return trueUnlessStoredFalse(m_defaults, SettingsKeys::showVolumeHUD);
}

bool AppSettings::switchSound() const {
    return trueUnlessStoredFalse(m_defaults, SettingsKeys::switchSound);
}

bool AppSettings::pinPanel() const {
    return m_defaults.boolForKey(SettingsKeys::pinPanel);
}

bool AppSettings::autoSwitchGroups() const {
    return m_defaults.boolForKey(SettingsKeys::autoSwitchGroups);
}

bool AppSettings::autoSwitchInputs() const {
    return m_defaults.boolForKey(SettingsKeys::autoSwitchInputs);
}

bool AppSettings::analyticsEnabled() const {
    return trueUnlessStoredFalse(m_defaults, SettingsKeys::analyticsEnabled);
}

HUDPosition AppSettings::volumeHUDPosition() const {
    const QString raw =
        m_defaults.stringForKey(SettingsKeys::volumeHUDPosition).value_or(QString());
    return HUDPositions::fromRawValue(raw).value_or(HUDPosition::bottom);
}

void AppSettings::setVolumeHUDPosition(HUDPosition position) {
    m_defaults.setString(HUDPositions::rawValue(position), SettingsKeys::volumeHUDPosition);
}

QMap<QString, HotKeyCombo> AppSettings::hotKeys() const {
    const auto data = m_defaults.dataForKey(SettingsKeys::hotKeys);
    if (!data)
        return {};
    return HotKeyCombo::decodeTable(*data).value_or(QMap<QString, HotKeyCombo>());
}

void AppSettings::saveHotKeys(const QMap<QString, HotKeyCombo>& table) {
    m_defaults.setData(HotKeyCombo::encodeTable(table), SettingsKeys::hotKeys);
    // Posted even when the write did not take: listeners re-register from what is stored.
    m_center.post(Notifications::hotKeysChanged);
}

void AppSettings::setHotKey(const QString& actionID, const std::optional<HotKeyCombo>& combo) {
    QMap<QString, HotKeyCombo> table = hotKeys();
    if (combo)
        table.insert(actionID, *combo);
    else
        table.remove(actionID);
    saveHotKeys(table);
}

QMap<QString, QString> AppSettings::deviceNames() const {
    return m_defaults.stringDictionaryForKey(SettingsKeys::deviceNames)
        .value_or(QMap<QString, QString>());
}

void AppSettings::saveDeviceNames(const QMap<QString, QString>& names) {
    m_defaults.setStringDictionary(names, SettingsKeys::deviceNames);
    m_center.post(Notifications::deviceNamesChanged);
}

std::optional<QString> AppSettings::customName(const QString& uid) {
    QMap<QString, QString> names = deviceNames();
    if (const auto it = names.constFind(uid); it != names.cend())
        return *it;
    const auto old = AudioDevice::matchingUID(uid, names.keys());
    if (!old)
        return std::nullopt;
    // The device came back under a new UID: the name follows it.
    const QString name = names.take(*old);
    names.insert(uid, name);
    saveDeviceNames(names);
    return name;
}

void AppSettings::setCustomName(const QString& uid, const QString& name) {
    QMap<QString, QString> names = deviceNames();
    const QString trimmed = name.trimmed();
    if (trimmed.isEmpty())
        names.remove(uid);
    else
        names.insert(uid, trimmed);
    saveDeviceNames(names);
}

void AppSettings::setHiddenDevices(const QSet<QString>& uids) {
    m_defaults.setStringArray(toList(uids), SettingsKeys::hiddenDevices);
    m_center.post(Notifications::hiddenDevicesChanged);
}

void AppSettings::setHiddenInputDevices(const QSet<QString>& uids) {
    m_defaults.setStringArray(toList(uids), SettingsKeys::hiddenInputDevices);
    m_center.post(Notifications::hiddenInputDevicesChanged);
}

bool AppSettings::isDeviceHidden(const QString& uid) {
    return isHidden(uid, SettingsKeys::hiddenDevices,
                    [this](const QSet<QString>& uids) { setHiddenDevices(uids); });
}

bool AppSettings::isInputDeviceHidden(const QString& uid) {
    return isHidden(uid, SettingsKeys::hiddenInputDevices,
                    [this](const QSet<QString>& uids) { setHiddenInputDevices(uids); });
}

// A hidden UID that drifted is healed on read: the stored list takes the new UID, through the
// setter so that the change is announced.
bool AppSettings::isHidden(const QString& uid, const QString& key,
                           const std::function<void(const QSet<QString>&)>& store) {
    const QStringList stored = m_defaults.stringArrayForKey(key).value_or(QStringList());
    QSet<QString> hidden(stored.cbegin(), stored.cend());
    if (hidden.contains(uid))
        return true;
    const auto old = AudioDevice::matchingUID(uid, stored);
    if (!old)
        return false;
    hidden.remove(*old);
    hidden.insert(uid);
    store(hidden);
    return true;
}
