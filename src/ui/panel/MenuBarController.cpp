#include "ui/panel/MenuBarController.h"

#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "appaudio/LevelMeter.h"
#include "appaudio/SwitchSound.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "platform/SoundLibrary.h"
#include "platform/UserDefaults.h"
#include "ui/panel/PanelText.h"

#include <algorithm>

namespace {

QVariantMap deviceRow(const AudioDevice& device, AppSettings& settings) {
    return {{QStringLiteral("id"), device.id},
            {QStringLiteral("uid"), device.uid},
            {QStringLiteral("name"), device.displayName(settings)},
            {QStringLiteral("isAirPlay"), device.isAirPlay}};
}

std::optional<AudioDevice> deviceWithID(const QList<AudioDevice>& devices, AudioObjectID id) {
    for (const AudioDevice& device : devices)
        if (device.id == id)
            return device;
    return std::nullopt;
}

} // namespace

MenuBarController::MenuBarController(GroupManager& groups, AudioDeviceManager& audio,
                                     AppSettings& settings, LevelMeter* meter, QObject* parent)
    : QObject(parent)
    , m_groups(groups)
    , m_audio(audio)
    , m_settings(settings)
    , m_meter(meter) {
    const QStringList stored = m_settings.defaults()
                                   .stringArrayForKey(SettingsKeys::collapsedSections)
                                   .value_or(QStringList());
    m_collapsed = QSet<QString>(stored.cbegin(), stored.cend());

    // Activating a group from anywhere opens its row; deactivating closes it.
    connect(&m_groups, &GroupManager::activeGroupIDChanged, this,
            [this] { setExpandedGroupID(m_groups.activeGroupIDText()); });
    for (auto signal : {&GroupManager::activeGroupIDChanged, &GroupManager::groupsChanged})
        connect(&m_groups, signal, this, &MenuBarController::rowsChanged);
    for (auto signal :
         {&AudioDeviceManager::outputDevicesChanged, &AudioDeviceManager::defaultOutputIDChanged,
          &AudioDeviceManager::inputDevicesChanged, &AudioDeviceManager::defaultInputIDChanged})
        connect(&m_audio, signal, this, &MenuBarController::rowsChanged);
    connect(&m_groups, &GroupManager::isMutedChanged, this, &MenuBarController::masterLevelChanged);
    if (m_meter)
        connect(m_meter, &LevelMeter::outputLevelChanged, this,
                &MenuBarController::masterLevelChanged);

    // A read of the visible lists can repair a hidden entry, which posts: the redraw it asks for
    // comes after the read, not inside it.
    for (const QString& name :
         {Notifications::hiddenDevicesChanged, Notifications::hiddenInputDevicesChanged,
          Notifications::deviceNamesChanged})
        m_settings.notificationCenter().addObserver(name, this, [this] {
            QMetaObject::invokeMethod(this, &MenuBarController::flipHiddenTick,
                                      Qt::QueuedConnection);
        });
}

QStringList MenuBarController::collapsed() const {
    QStringList ids(m_collapsed.cbegin(), m_collapsed.cend());
    ids.sort();
    return ids;
}

QVariantList MenuBarController::visibleOutputs() const {
    QVariantList rows;
    for (const AudioDevice& device : m_audio.outputDevices()) {
        if (device.uid.startsWith(GroupManager::groupUIDPrefix))
            continue; // Ondril's own aggregates
        if (m_settings.isDeviceHidden(device.uid))
            continue; // a drifted hidden entry is rewritten to the current UID on the way
        rows.append(deviceRow(device, m_settings));
    }
    return rows;
}

QVariantList MenuBarController::visibleInputs() const {
    QVariantList rows;
    for (const AudioDevice& device : m_audio.inputDevices())
        if (!m_settings.isInputDeviceHidden(device.uid))
            rows.append(deviceRow(device, m_settings));
    return rows;
}

QString MenuBarController::outputSubtitle() const {
    std::optional<QString> groupName;
    if (const auto group = m_groups.activeGroup())
        groupName = group->name;
    std::optional<QString> deviceName;
    if (const auto device = deviceWithID(m_audio.outputDevices(), m_audio.defaultOutputID()))
        deviceName = device->displayName(m_settings);
    return PanelText::outputSubtitle(groupName, deviceName);
}

QString MenuBarController::inputSubtitle() const {
    if (const auto device = deviceWithID(m_audio.inputDevices(), m_audio.defaultInputID()))
        return device->displayName(m_settings);
    return QStringLiteral("Input");
}

quint32 MenuBarController::defaultOutputID() const {
    return m_audio.defaultOutputID();
}

quint32 MenuBarController::defaultInputID() const {
    return m_audio.defaultInputID();
}

QVariant MenuBarController::masterLevel() const {
    if (!m_meter || !m_meter->isRunning() || m_groups.isMuted())
        return {};
    return m_meter->outputLevel();
}

void MenuBarController::appear() {
    setExpandedGroupID(m_groups.activeGroupIDText());
    m_audio.refresh();
}

bool MenuBarController::isCollapsed(const QString& section) const {
    return m_collapsed.contains(section);
}

void MenuBarController::toggleSection(const QString& section) {
    if (!m_collapsed.remove(section))
        m_collapsed.insert(section);
    m_settings.defaults().setStringArray(collapsed(), SettingsKeys::collapsedSections);
    emit collapsedChanged();
}

void MenuBarController::selectGroup(const QString& groupID) {
    if (groupID == m_groups.activeGroupIDText()) {
        toggleDisclosure(groupID); // the active group is never activated again
        return;
    }
    const auto group = groupWithID(groupID);
    if (!group)
        return;
    const bool activated = m_groups.activate(*group);
    setExpandedGroupID(groupID);
    if (const auto aggregate = m_groups.activeDeviceID(); activated && aggregate)
        playSwitchSound(m_audio.readUID(*aggregate));
}

void MenuBarController::toggleDisclosure(const QString& groupID) {
    setExpandedGroupID(m_expandedGroupID == groupID ? QString() : groupID);
}

void MenuBarController::deleteGroup(const QString& groupID) {
    if (const auto group = groupWithID(groupID))
        m_groups.deleteGroup(*group);
}

QString MenuBarController::groupCountText(int memberCount, bool isActive) {
    return QString::number(memberCount) +
           (isActive ? QStringLiteral(" Outputs · Playing") : QStringLiteral(" Outputs"));
}

void MenuBarController::openNewGroup() {
    setScreen(QStringLiteral("newGroup"));
}

void MenuBarController::closeNewGroup() {
    setScreen(QStringLiteral("main"));
}

void MenuBarController::setMasterVolume(const QString& groupID, double value) {
    if (const auto group = groupWithID(groupID))
        m_groups.setMasterVolume(*group, value);
}

void MenuBarController::toggleGroupMute() {
    m_groups.toggleGroupMute();
}

void MenuBarController::setBalance(const QString& groupID, const QString& uid, double value) {
    if (const auto group = groupWithID(groupID))
        m_groups.setBalance(*group, uid, value);
}

QVariantList MenuBarController::memberRows(const QString& groupID) {
    const auto group = groupWithID(groupID);
    if (!group)
        return {};
    const QList<AudioDevice> outputs = m_audio.outputDevices();
    const auto realName = [&outputs](const QString& uid) {
        const auto device = std::find_if(outputs.cbegin(), outputs.cend(),
                                         [&uid](const AudioDevice& d) { return d.uid == uid; });
        return device != outputs.cend() ? device->name : QStringLiteral("Not connected");
    };
    QStringList names;
    QList<std::optional<QString>> customNames;
    for (const QString& uid : group->memberUIDs) {
        customNames.append(m_settings.customName(uid));
        names.append(customNames.back().value_or(realName(uid)));
    }

    QVariantList rows;
    for (qsizetype i = 0; i < group->memberUIDs.size(); ++i) {
        const QString& uid = group->memberUIDs[i];
        const QString label = PanelText::shortLabel(names, names[i]);
        rows.append(QVariantMap{
            {QStringLiteral("uid"), uid},
            {QStringLiteral("realName"), realName(uid)},
            {QStringLiteral("label"), label},
            {QStringLiteral("shownName"), customNames[i].value_or(label)},
            {QStringLiteral("draft"), customNames[i].value_or(realName(uid))},
            {QStringLiteral("balance"), group->balance.value(uid, 1.0)},
        });
    }
    return rows;
}

void MenuBarController::rename(const QString& uid, const QString& draft) {
    m_settings.setCustomName(uid, draft);
}

QString MenuBarController::percentText(double value) {
    return PanelText::percentText(value);
}

void MenuBarController::sendToDevice(quint32 deviceID) {
    m_groups.switchToDevice(deviceID);
    if (const auto device = deviceWithID(m_audio.outputDevices(), deviceID))
        playSwitchSound(device->uid);
}

void MenuBarController::chooseInput(quint32 deviceID) {
    m_audio.setDefaultInputDevice(deviceID);
    m_audio.refresh();
}

std::optional<OutputGroup> MenuBarController::groupWithID(const QString& groupID) const {
    for (const OutputGroup& group : m_groups.groups())
        if (group.idText() == groupID)
            return group;
    return std::nullopt;
}

void MenuBarController::setExpandedGroupID(const QString& id) {
    m_expandedGroupID = id;
    emit expandedGroupIDChanged();
}

void MenuBarController::setScreen(const QString& screen) {
    m_screen = screen;
    emit screenChanged();
}

void MenuBarController::flipHiddenTick() {
    m_hiddenTick = !m_hiddenTick;
    emit rowsChanged();
}

void MenuBarController::playSwitchSound(const std::optional<QString>& deviceUID) {
    ::playSwitchSound(deviceUID, m_settings, SoundLibrary::shared());
}
