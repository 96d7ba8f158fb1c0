#pragma once

#include "app/HUDPosition.h"
#include "control/HotKeyCombo.h"

#include <QMap>
#include <QSet>
#include <QString>

#include <functional>
#include <optional>

class UserDefaults;
class NotificationCenter;

// Notification names, posted through NotificationCenter with no object and no user information.
namespace Notifications {
inline const QString pinChanged = QStringLiteral("ondril.pinChanged");
inline const QString hiddenDevicesChanged = QStringLiteral("ondril.hiddenDevicesChanged");
inline const QString hiddenInputDevicesChanged = QStringLiteral("ondril.hiddenInputDevicesChanged");
inline const QString deviceNamesChanged = QStringLiteral("ondril.deviceNamesChanged");
inline const QString autoSwitchChanged = QStringLiteral("ondril.autoSwitchChanged");
inline const QString autoSwitchInputsChanged = QStringLiteral("ondril.autoSwitchInputsChanged");
inline const QString hotKeysChanged = QStringLiteral("ondril.hotKeysChanged");
inline const QString closePanel = QStringLiteral("ondril.closePanel");
inline const QString switchSettingsTab = QStringLiteral("ondril.switchSettingsTab");
} // namespace Notifications

// Keys of the settings store.
namespace SettingsKeys {
inline const QString showVolumeHUD = QStringLiteral("ondril.showVolumeHUD");
inline const QString switchSound = QStringLiteral("ondril.switchSound");
inline const QString volumeHUDPosition = QStringLiteral("ondril.volumeHUDPosition");
inline const QString pinPanel = QStringLiteral("ondril.pinPanel");
inline const QString autoSwitchGroups = QStringLiteral("ondril.autoSwitchGroups");
inline const QString autoSwitchInputs = QStringLiteral("ondril.autoSwitchInputs");
inline const QString hiddenDevices = QStringLiteral("ondril.hiddenDevices");
inline const QString hiddenInputDevices = QStringLiteral("ondril.hiddenInputDevices");
inline const QString deviceNames = QStringLiteral("ondril.deviceNames");
inline const QString hotKeys = QStringLiteral("ondril.hotKeys.v1");
inline const QString collapsedSections = QStringLiteral("ondril.collapsedSections");
inline const QString collapsedShortcutSections = QStringLiteral("ondril.collapsedShortcutSections");
inline const QString groups = QStringLiteral("ondril.groups.v1");
inline const QString activeGroup = QStringLiteral("ondril.activeGroup");
inline const QString rules = QStringLiteral("ondril.rules.v1");
inline const QString inputRules = QStringLiteral("ondril.inputRules.v1");
inline const QString devicePriority = QStringLiteral("ondril.devicePriority");
inline const QString inputPriority = QStringLiteral("ondril.inputPriority");
inline const QString fallbackDevice = QStringLiteral("ondril.fallbackDevice");
inline const QString snapshots = QStringLiteral("ondril.snapshots.v1");
inline const QString appPrefs = QStringLiteral("ondril.appPrefs.v1");
inline const QString audioCaptureGranted = QStringLiteral("ondril.audioCaptureGranted.v1");
inline const QString analyticsEnabled = QStringLiteral("analyticsEnabled");
} // namespace SettingsKeys

// Typed access to the settings store. Nothing is cached: every call reads or writes the store.
// Reads of the custom names and hidden lists repair UIDs that have drifted, which writes and posts.
class AppSettings {
public:
    AppSettings(UserDefaults& defaults, NotificationCenter& center);
    static AppSettings& shared();

    UserDefaults& defaults() const { return m_defaults; }
    NotificationCenter& notificationCenter() const { return m_center; }

    static constexpr double volumeStep = 0.0625; // one press of a volume key

    bool showVolumeHUD() const; // true unless a stored boolean says false
    bool switchSound() const;   // true unless a stored boolean says false
    bool pinPanel() const;
    bool autoSwitchGroups() const;
    bool autoSwitchInputs() const;
    bool analyticsEnabled() const; // true unless a stored boolean says false

    HUDPosition volumeHUDPosition() const;
    void setVolumeHUDPosition(HUDPosition position);

    // Hot keys by action id. A stored table that does not decode counts as empty, silently.
    QMap<QString, HotKeyCombo> hotKeys() const;
    void saveHotKeys(const QMap<QString, HotKeyCombo>& table); // posts "ondril.hotKeysChanged"
    void setHotKey(const QString& actionID, const std::optional<HotKeyCombo>& combo);

    QMap<QString, QString> deviceNames() const;
    void saveDeviceNames(const QMap<QString, QString>& names);
    std::optional<QString> customName(const QString& uid);
    void setCustomName(const QString& uid, const QString& name);

    void setHiddenDevices(const QSet<QString>& uids);
    void setHiddenInputDevices(const QSet<QString>& uids);
    bool isDeviceHidden(const QString& uid);
    bool isInputDeviceHidden(const QString& uid);

private:
    bool isHidden(const QString& uid, const QString& key,
                  const std::function<void(const QSet<QString>&)>& store);

    UserDefaults& m_defaults;
    NotificationCenter& m_center;
};
