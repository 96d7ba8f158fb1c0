#include "groups/GroupManager.h"

#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "control/VolumeKeyMonitor.h"
#include "devices/AudioDeviceManager.h"
#include "groups/AudioRuleCodec.h"
#include "groups/AutoSwitchToken.h"
#include "groups/OutputGroupCodec.h"
#include "platform/SystemSleepMonitor.h"
#include "platform/UserDefaults.h"

#include <QSet>
#include <QTimer>

#include <algorithm>
#include <cmath>

namespace {

QSet<QString> asSet(const QStringList& list) {
    return QSet<QString>(list.cbegin(), list.cend());
}

// Infinities clamp to the ends; NaN has no place in 0...1 and is refused, so that it never
// reaches the stored list (JSON cannot hold it).
std::optional<double> clampUnit(double value) {
    if (std::isnan(value))
        return std::nullopt;
    return std::clamp(value, 0.0, 1.0);
}

constexpr AudioObjectPropertyAddress defaultOutputAddress{kAudioHardwarePropertyDefaultOutputDevice,
                                                          kAudioObjectPropertyScopeGlobal,
                                                          kAudioObjectPropertyElementMain};

} // namespace

GroupManager::GroupManager(AudioDeviceManager& audio, AppSettings& settings, QObject* parent)
    : GroupManager(audio, settings, SystemSleepMonitor::shared(), parent) {}

GroupManager::GroupManager(AudioDeviceManager& audio, AppSettings& settings,
                           SystemSleepMonitor& sleepMonitor, QObject* parent)
    : QObject(parent)
    , m_audio(audio)
    , m_settings(settings) {
    loadGroups();
    loadRulesAndPriorities();
    foldDeviceNames();
    destroyOrphanAggregates();
    subscribe(sleepMonitor);
    // Behind the first publication of the device lists, queued when `audio` was made, so the
    // restore sees filled lists.
    QMetaObject::invokeMethod(this, &GroupManager::restoreActiveGroup, Qt::QueuedConnection);
}

GroupManager& GroupManager::shared() {
    static GroupManager* manager = [] {
        // The device manager first: its enumeration is queued before our restore.
        AudioDeviceManager& audio = AudioDeviceManager::shared();
        return new GroupManager(audio, AppSettings::shared());
    }();
    return *manager;
}

// --- Published fields -------------------------------------------------------------------------

void GroupManager::setGroups(const QList<OutputGroup>& groups) {
    m_groups = groups;
    emit groupsChanged();
}

void GroupManager::setRules(const QList<AudioRule>& rules) {
    m_rules = rules;
    emit rulesChanged();
}

void GroupManager::setInputRules(const QList<AudioRule>& rules) {
    m_inputRules = rules;
    emit inputRulesChanged();
}

void GroupManager::setDevicePriority(const QStringList& priority) {
    m_devicePriority = priority;
    emit devicePriorityChanged();
}

void GroupManager::setInputPriority(const QStringList& priority) {
    m_inputPriority = priority;
    emit inputPriorityChanged();
}

void GroupManager::setActiveGroupID(std::optional<QUuid> id) {
    m_activeGroupID = id;
    emit activeGroupIDChanged();
}

QString GroupManager::activeGroupIDText() const {
    return m_activeGroupID ? OutputGroupCodec::uuidText(*m_activeGroupID) : QString();
}

void GroupManager::setIsMuted(bool muted) {
    m_isMuted = muted;
    emit isMutedChanged();
}

// --- Creation ---------------------------------------------------------------------------------

void GroupManager::loadGroups() {
    // A list that fails to decode counts as empty and stays stored until the next save.
    const auto data = m_settings.defaults().dataForKey(SettingsKeys::groups);
    if (!data)
        return;
    if (auto decoded = OutputGroupCodec::decode(*data))
        setGroups(*decoded);
}

void GroupManager::loadRulesAndPriorities() {
    // A rule list that fails to decode counts as empty, silently, and stays stored until the next
    // save.
    const UserDefaults& defaults = m_settings.defaults();
    if (const auto data = defaults.dataForKey(SettingsKeys::rules)) {
        if (auto decoded = AudioRuleCodec::decodeList(*data))
            setRules(*decoded);
    }
    if (const auto stored = defaults.stringArrayForKey(SettingsKeys::devicePriority)) {
        setDevicePriority(*stored); // also when empty: the old key is then no longer read
    } else if (const auto old = defaults.stringForKey(SettingsKeys::fallbackDevice)) {
        // The older single fallback device becomes a one-entry list; the old key stays.
        setDevicePriority({*old});
        saveDevicePriority();
    }
    if (const auto data = defaults.dataForKey(SettingsKeys::inputRules)) {
        if (auto decoded = AudioRuleCodec::decodeList(*data))
            setInputRules(*decoded);
    }
    if (const auto stored = defaults.stringArrayForKey(SettingsKeys::inputPriority))
        setInputPriority(*stored);
}

void GroupManager::foldDeviceNames() {
    for (const OutputGroup& group : std::as_const(m_groups)) {
        for (auto it = group.deviceNames.cbegin(); it != group.deviceNames.cend(); ++it) {
            const QString& uid = it.key();
            QMap<QString, QString> names = m_settings.deviceNames();
            if (names.contains(uid))
                continue;
            if (const auto old = AudioDevice::matchingUID(uid, names.keys())) {
                names.insert(uid, names.take(*old));
            } else {
                const QString name = it.value().trimmed();
                if (name.isEmpty())
                    names.remove(uid);
                else
                    names.insert(uid, name);
            }
            m_settings.saveDeviceNames(names); // writes "ondril.deviceNames" and posts the change
        }
    }
}

void GroupManager::destroyOrphanAggregates() {
    // Aggregates outlive the run that made them; this also takes the per-app leftovers, which
    // share the prefix.
    AudioHardware& hardware = m_audio.hardware();
    AudioPropertyValue value;
    const AudioObjectPropertyAddress devices{kAudioHardwarePropertyDevices,
                                             kAudioObjectPropertyScopeGlobal,
                                             kAudioObjectPropertyElementMain};
    if (hardware.AudioObjectGetPropertyData(kAudioObjectSystemObject, devices, value) !=
        kAudioHardwareNoError)
        return;
    const auto* ids = std::get_if<std::vector<AudioObjectID>>(&value);
    if (!ids)
        return;
    for (AudioObjectID id : *ids) {
        const auto uid = m_audio.readUID(id);
        if (uid && uid->startsWith(groupUIDPrefix))
            hardware.AudioHardwareDestroyAggregateDevice(id);
    }
}

void GroupManager::subscribe(SystemSleepMonitor& sleepMonitor) {
    // Queued: the lists reach us one more turn of the main loop after their publication.
    connect(
        &m_audio, &AudioDeviceManager::outputDevicesChanged, this,
        [this] {
            evaluateRules();
            reconcile();
        },
        Qt::QueuedConnection);
    connect(
        &m_audio, &AudioDeviceManager::inputDevicesChanged, this, [this] { evaluateInputRules(); },
        Qt::QueuedConnection);
    // Devices may have come and gone while asleep; give them a moment to settle first.
    connect(&sleepMonitor, &SystemSleepMonitor::didWake, this, [this] {
        QTimer::singleShot(wakeDelayMs, this, [this] {
            evaluateRules();
            reconcile();
            evaluateInputRules();
        });
    });
    observeAutoSwitchSettings();
}

// --- Groups -----------------------------------------------------------------------------------

std::optional<OutputGroup> GroupManager::activeGroup() const {
    if (!m_activeGroupID)
        return std::nullopt;
    const int index = groupIndex(*m_activeGroupID);
    if (index < 0)
        return std::nullopt;
    return m_groups.at(index);
}

void GroupManager::saveGroups() {
    if (const auto data = OutputGroupCodec::encode(m_groups))
        m_settings.defaults().setData(*data, SettingsKeys::groups);
}

int GroupManager::groupIndex(const QUuid& id) const {
    for (int i = 0; i < m_groups.size(); ++i)
        if (m_groups.at(i).id == id)
            return i;
    return -1;
}

// --- Aggregate ------------------------------------------------------------------------------

QString GroupManager::aggregateUID(const QUuid& groupID) {
    return groupUIDPrefix + OutputGroupCodec::uuidText(groupID);
}

QVariantMap GroupManager::aggregateDescription(const QString& name,
                                               const QStringList& presentMembers,
                                               const QString& masterUID, const QUuid& groupID) {
    QVariantList subdevices;
    for (const QString& uid : presentMembers) {
        subdevices.append(QVariantMap{
            {kAudioSubDeviceUIDKey, uid},
            {kAudioSubDeviceDriftCompensationKey, uid == masterUID ? 0 : 1},
        });
    }
    return QVariantMap{
        {kAudioAggregateDeviceNameKey, name},
        {kAudioAggregateDeviceUIDKey, aggregateUID(groupID)},
        {kAudioAggregateDeviceIsStackedKey, 1},
        {kAudioAggregateDeviceIsPrivateKey, 0},
        {kAudioAggregateDeviceMainSubDeviceKey, masterUID},
        {kAudioAggregateDeviceSubDeviceListKey, subdevices},
    };
}

QStringList GroupManager::presentMembers(const OutputGroup& group) const {
    // The stored UID stands, also for a member found only by its stable key.
    QStringList present;
    for (const QString& uid : group.memberUIDs)
        if (m_audio.deviceIDForOutputUID(uid))
            present.append(uid);
    return present;
}

QString GroupManager::chooseMaster(const OutputGroup& group, const QStringList& presentMembers) {
    if (presentMembers.contains(group.masterUID))
        return group.masterUID;
    return presentMembers.isEmpty() ? QString() : presentMembers.first();
}

OSStatus GroupManager::buildAggregate(const QString& name, const QStringList& presentMembers,
                                      const QString& masterUID, const QUuid& groupID,
                                      AudioObjectID& outID) {
    if (presentMembers.isEmpty() || !presentMembers.contains(masterUID))
        return kAudioHardwareBadDeviceError;
    outID = kAudioObjectUnknown;
    const OSStatus status = m_audio.hardware().AudioHardwareCreateAggregateDevice(
        aggregateDescription(name, presentMembers, masterUID, groupID), outID);
    if (status == kAudioHardwareNoError && outID == kAudioObjectUnknown)
        return kAudioHardwareUnspecifiedError;
    return status;
}

void GroupManager::destroyActiveAggregate() {
    if (m_activeDeviceID)
        m_audio.hardware().AudioHardwareDestroyAggregateDevice(*m_activeDeviceID);
    m_activeDeviceID.reset();
    m_activeMemberUIDs.clear();
}

void GroupManager::setDefaultOutput(AudioObjectID deviceID) {
    // A failed write is not noticed: the system's own default then stands.
    m_audio.hardware().AudioObjectSetPropertyData(kAudioObjectSystemObject, defaultOutputAddress,
                                                  AudioPropertyValue(std::uint32_t(deviceID)));
}

bool GroupManager::activeAggregateIsGone() const {
    // When the sound server restarts, our aggregate dies with it while the group stays on. The
    // service is asked directly: the published lists lag a turn behind our own creations.
    if (!m_activeDeviceID || !m_activeGroupID)
        return false;
    return m_audio.readUID(*m_activeDeviceID) != aggregateUID(*m_activeGroupID);
}

// --- Activation -----------------------------------------------------------------------------

bool GroupManager::activate(const OutputGroup& group) {
    const QStringList present = presentMembers(group);
    if (present.isEmpty())
        return false;
    const QString master = chooseMaster(group, present);

    if (m_activeGroupID == group.id && m_activeDeviceID &&
        asSet(present) == asSet(m_activeMemberUIDs)) {
        applyVolumes(group);
        return true;
    }

    // Going from one group straight to another keeps the output from before the first.
    if (!m_activeGroupID) {
        const auto uid = m_audio.readUID(m_audio.readDefaultOutputID());
        if (uid && !uid->startsWith(groupUIDPrefix))
            m_previousOutputUID = *uid;
    }

    destroyActiveAggregate();

    AudioObjectID aggregate = kAudioObjectUnknown;
    if (buildAggregate(group.name, present, master, group.id, aggregate) != kAudioHardwareNoError)
        return false;

    m_activeDeviceID = aggregate;
    m_activeMemberUIDs = present;
    setActiveGroupID(group.id);
    setIsMuted(false);
    setDefaultOutput(aggregate);
    applyVolumes(group);
    persistActive();
    VolumeKeyMonitor::shared().start(); // from now on the volume keys drive the group
    return true;
}

void GroupManager::deactivate() {
    destroyActiveAggregate();
    setActiveGroupID(std::nullopt);
    setIsMuted(false);
    persistActive();
    if (m_previousOutputUID) {
        if (const auto id = m_audio.deviceIDForOutputUID(*m_previousOutputUID))
            setDefaultOutput(*id);
    }
    m_previousOutputUID.reset();
}

void GroupManager::switchToDevice(AudioObjectID deviceID) {
    destroyActiveAggregate();
    setActiveGroupID(std::nullopt);
    setIsMuted(false);
    persistActive();
    m_previousOutputUID.reset();
    setDefaultOutput(deviceID);
    m_audio.refresh();
}

void GroupManager::deleteGroup(const OutputGroup& group) {
    if (m_activeGroupID == group.id)
        deactivate();
    QList<OutputGroup> remaining = m_groups;
    remaining.removeIf([&](const OutputGroup& stored) { return stored.id == group.id; });
    setGroups(remaining);
    saveGroups();
    if (onGroupDeleted)
        onGroupDeleted(group.id);
}

void GroupManager::persistActive() {
    if (m_activeGroupID)
        m_settings.defaults().setString(OutputGroupCodec::uuidText(*m_activeGroupID),
                                        SettingsKeys::activeGroup);
    else
        m_settings.defaults().removeObjectForKey(SettingsKeys::activeGroup);
}

void GroupManager::reconcile() {
    if (m_isReconciling)
        return;
    const auto group = activeGroup();
    if (!group)
        return;

    // An aggregate that vanished behind our back (the sound server restarted) is forgotten, so
    // the comparison below sees a difference and rebuilds, as a launch-time restore would. With no
    // member present yet, the group stays on without aggregate until the members come back.
    if (activeAggregateIsGone()) {
        m_activeDeviceID.reset();
        m_activeMemberUIDs.clear();
    }

    const QStringList present = presentMembers(*group);
    if (asSet(present) == asSet(m_activeMemberUIDs))
        return; // the common case, and where the program's own changes end

    m_isReconciling = true;
    if (present.isEmpty()) {
        deactivate();
        m_isReconciling = false;
        return;
    }
    const QString master = chooseMaster(*group, present);
    destroyActiveAggregate();
    AudioObjectID aggregate = kAudioObjectUnknown;
    const OSStatus status = buildAggregate(group->name, present, master, group->id, aggregate);
    if (status == kAudioHardwareNotRunningError) {
        // The server did not answer (a stall, a restart): that is no choice of the user's. The
        // group stays on without aggregate, stored as it was, and is rebuilt when the server
        // answers again or the devices change.
    } else if (status != kAudioHardwareNoError) {
        deactivate();
    } else {
        m_activeDeviceID = aggregate;
        m_activeMemberUIDs = present;
        setDefaultOutput(aggregate);
        for (const QString& uid : group->memberUIDs) {
            if (const auto id = m_audio.deviceIDForOutputUID(uid))
                m_audio.setVolume(float(memberVolume(*group, uid)), *id);
        }
    }
    m_isReconciling = false;
}

void GroupManager::restoreActiveGroup() {
    if (m_activeGroupID)
        return; // a rule has already put a group on
    const auto text = m_settings.defaults().stringForKey(SettingsKeys::activeGroup);
    if (!text)
        return;
    const auto id = OutputGroupCodec::parseUuid(*text);
    if (!id)
        return;
    const int index = groupIndex(*id);
    if (index < 0)
        return;
    const OutputGroup group = m_groups.at(index);
    if (!presentMembers(group).isEmpty())
        activate(group);
}

// --- Volume, balance and mute -----------------------------------------------------------------

double GroupManager::memberVolume(const OutputGroup& group, const QString& memberUID) const {
    if (m_isMuted)
        return 0;
    return group.masterVolume * group.balance.value(memberUID, 1.0);
}

void GroupManager::applyVolumes(const OutputGroup& group) {
    // A device whose volume cannot be written keeps its own level; nobody makes up for it.
    for (const QString& uid : group.memberUIDs) {
        if (const auto id = m_audio.deviceIDForOutputUID(uid))
            m_audio.setVolume(float(memberVolume(group, uid)), *id);
    }
}

void GroupManager::setMasterVolume(const OutputGroup& group, double value) {
    const int index = groupIndex(group.id);
    const auto clamped = clampUnit(value);
    if (index < 0 || !clamped)
        return;
    // The stored record is changed, not the caller's copy: a stale copy changes only the master.
    QList<OutputGroup> groups = m_groups;
    groups[index].masterVolume = *clamped;
    setGroups(groups);
    saveGroups(); // every call, also each step of a dragged slider
    if (m_activeGroupID == group.id) {
        if (const auto active = activeGroup())
            applyVolumes(*active);
    }
}

void GroupManager::setBalance(const OutputGroup& group, const QString& memberUID, double value) {
    const int index = groupIndex(group.id);
    const auto clamped = clampUnit(value);
    if (index < 0 || !clamped)
        return;
    QList<OutputGroup> groups = m_groups;
    groups[index].balance.insert(memberUID, *clamped);
    setGroups(groups);
    saveGroups();
    if (m_activeGroupID == group.id) {
        if (const auto active = activeGroup())
            applyVolumes(*active);
    }
}

void GroupManager::toggleGroupMute() {
    const auto group = activeGroup();
    if (!group)
        return;
    setIsMuted(!m_isMuted);
    applyVolumes(*group);
}

std::optional<VolumeState> GroupManager::toggleMute() {
    if (activeGroup()) {
        toggleGroupMute();
        const auto group = activeGroup();
        return VolumeState{group ? group->masterVolume : 0.0, m_isMuted};
    }
    const AudioObjectID id = m_audio.defaultOutputID();
    if (id == kAudioObjectUnknown)
        return std::nullopt;
    const bool muted = !m_audio.isMuted(id).value_or(false);
    if (!m_audio.setMute(muted, id))
        return std::nullopt;
    return VolumeState{double(m_audio.volume(id).value_or(0.0f)), muted};
}

std::optional<VolumeState> GroupManager::stepVolume(double delta) {
    if (std::isnan(delta))
        return std::nullopt;
    if (activeGroup())
        return stepGroupVolume(delta);
    const AudioObjectID id = m_audio.defaultOutputID();
    if (id == kAudioObjectUnknown)
        return std::nullopt;
    const auto current = m_audio.volume(id);
    if (!current)
        return std::nullopt;
    if (delta != 0)
        m_audio.setMute(false, id); // any real step unmutes the device
    const double value = std::clamp(double(*current) + delta, 0.0, 1.0);
    m_audio.setVolume(float(value), id);
    return VolumeState{value, false};
}

std::optional<VolumeState> GroupManager::stepGroupVolume(double delta) {
    const auto group = activeGroup();
    if (!group || std::isnan(delta))
        return std::nullopt;
    if (m_isMuted && delta != 0)
        setIsMuted(false);
    const double value = std::clamp(group->masterVolume + delta, 0.0, 1.0);
    setMasterVolume(*group, value);
    return VolumeState{value, m_isMuted};
}

// --- Auto-switch rules -----------------------------------------------------------------------

void GroupManager::observeAutoSwitchSettings() {
    // A flipped switch starts its side afresh, so a rule that fits is applied again.
    NotificationCenter& center = m_settings.notificationCenter();
    center.addObserver(Notifications::autoSwitchChanged, this, [this] {
        m_lastAppliedToken.reset();
        evaluateRules();
    });
    center.addObserver(Notifications::autoSwitchInputsChanged, this, [this] {
        m_lastAppliedInputToken.reset();
        evaluateInputRules();
    });
}

void GroupManager::editRules(RuleSide side, const std::function<bool(QList<AudioRule>&)>& edit) {
    QList<AudioRule> rules = side == RuleSide::output ? m_rules : m_inputRules;
    if (!edit(rules))
        return;
    if (side == RuleSide::output) {
        setRules(rules);
        saveRules(side);
        m_lastAppliedToken.reset();
        evaluateRules();
    } else {
        setInputRules(rules);
        saveRules(side);
        m_lastAppliedInputToken.reset();
        evaluateInputRules();
    }
}

void GroupManager::saveRules(RuleSide side) {
    if (side == RuleSide::output)
        m_settings.defaults().setData(AudioRuleCodec::encode(m_rules), SettingsKeys::rules);
    else
        m_settings.defaults().setData(AudioRuleCodec::encode(m_inputRules),
                                      SettingsKeys::inputRules);
}

namespace {

bool appendRule(QList<AudioRule>& rules, const QStringList& requiredDeviceUIDs,
                const RuleAction& action) {
    rules.append(AudioRule{QUuid::createUuid(), requiredDeviceUIDs, action, true});
    return true;
}

bool replaceRule(QList<AudioRule>& rules, const AudioRule& rule) {
    for (AudioRule& stored : rules) {
        if (stored.id == rule.id) {
            stored = rule;
            return true;
        }
    }
    return false;
}

bool enableRule(QList<AudioRule>& rules, const QUuid& id, bool enabled) {
    for (AudioRule& stored : rules) {
        if (stored.id == id) {
            stored.enabled = enabled;
            return true;
        }
    }
    return false;
}

bool moveEntry(QList<AudioRule>& rules, int from, int to) {
    if (from < 0 || from >= rules.size())
        return false;
    const AudioRule rule = rules.takeAt(from);
    rules.insert(std::clamp(to, 0, int(rules.size())), rule);
    return true;
}

bool removeRule(QList<AudioRule>& rules, const QUuid& id) {
    rules.removeIf([&](const AudioRule& stored) { return stored.id == id; });
    return true;
}

} // namespace

void GroupManager::addRule(const QStringList& requiredDeviceUIDs, const RuleAction& action) {
    editRules(RuleSide::output,
              [&](auto& rules) { return appendRule(rules, requiredDeviceUIDs, action); });
}

void GroupManager::updateRule(const AudioRule& rule) {
    editRules(RuleSide::output, [&](auto& rules) { return replaceRule(rules, rule); });
}

void GroupManager::setRuleEnabled(const QUuid& id, bool enabled) {
    editRules(RuleSide::output, [&](auto& rules) { return enableRule(rules, id, enabled); });
}

void GroupManager::moveRule(int from, int to) {
    editRules(RuleSide::output, [&](auto& rules) { return moveEntry(rules, from, to); });
}

void GroupManager::deleteRule(const QUuid& id) {
    editRules(RuleSide::output, [&](auto& rules) { return removeRule(rules, id); });
}

void GroupManager::addInputRule(const QStringList& requiredDeviceUIDs, const RuleAction& action) {
    editRules(RuleSide::input,
              [&](auto& rules) { return appendRule(rules, requiredDeviceUIDs, action); });
}

void GroupManager::updateInputRule(const AudioRule& rule) {
    editRules(RuleSide::input, [&](auto& rules) { return replaceRule(rules, rule); });
}

void GroupManager::setInputRuleEnabled(const QUuid& id, bool enabled) {
    editRules(RuleSide::input, [&](auto& rules) { return enableRule(rules, id, enabled); });
}

void GroupManager::moveInputRule(int from, int to) {
    editRules(RuleSide::input, [&](auto& rules) { return moveEntry(rules, from, to); });
}

void GroupManager::deleteInputRule(const QUuid& id) {
    editRules(RuleSide::input, [&](auto& rules) { return removeRule(rules, id); });
}

void GroupManager::saveDevicePriority() {
    m_settings.defaults().setStringArray(m_devicePriority, SettingsKeys::devicePriority);
}

void GroupManager::saveInputPriority() {
    m_settings.defaults().setStringArray(m_inputPriority, SettingsKeys::inputPriority);
}

// --- Auto-switch evaluation --------------------------------------------------------------------

bool GroupManager::outputRuleFits(const AudioRule& rule) const {
    if (!rule.enabled || rule.requiredDeviceUIDs.isEmpty())
        return false;
    for (const QString& uid : rule.requiredDeviceUIDs)
        if (!m_audio.deviceIDForOutputUID(uid))
            return false;
    return isActionAvailable(rule.action);
}

bool GroupManager::inputRuleFits(const AudioRule& rule) const {
    // Required devices are looked for among inputs; a group never fits on this side.
    if (!rule.enabled || rule.requiredDeviceUIDs.isEmpty())
        return false;
    for (const QString& uid : rule.requiredDeviceUIDs)
        if (!m_audio.deviceIDForInputUID(uid))
            return false;
    return rule.action.kind == RuleAction::Kind::device &&
           m_audio.deviceIDForInputUID(rule.action.deviceUID);
}

void GroupManager::evaluateRules() {
    if (!m_settings.autoSwitchGroups()) {
        m_lastAppliedToken.reset();
        return;
    }
    const auto found = std::find_if(m_rules.cbegin(), m_rules.cend(),
                                    [this](const AudioRule& rule) { return outputRuleFits(rule); });
    const std::optional<AudioRule> rule =
        found == m_rules.cend() ? std::nullopt : std::optional<AudioRule>(*found);
    switch (AutoSwitchToken::advance(m_lastAppliedToken,
                                     rule ? std::optional<QUuid>(rule->id) : std::nullopt)) {
    case AutoSwitchToken::Step::applyRule:
        applyRuleAction(rule->action);
        break;
    case AutoSwitchToken::Step::applyFallback:
        applyFallback();
        break;
    case AutoSwitchToken::Step::nothing:
        break;
    }
}

void GroupManager::evaluateInputRules() {
    if (!m_settings.autoSwitchInputs()) {
        m_lastAppliedInputToken.reset();
        return;
    }
    const auto found = std::find_if(m_inputRules.cbegin(), m_inputRules.cend(),
                                    [this](const AudioRule& rule) { return inputRuleFits(rule); });
    const std::optional<AudioRule> rule =
        found == m_inputRules.cend() ? std::nullopt : std::optional<AudioRule>(*found);
    switch (AutoSwitchToken::advance(m_lastAppliedInputToken,
                                     rule ? std::optional<QUuid>(rule->id) : std::nullopt)) {
    case AutoSwitchToken::Step::applyRule:
        applyInputRuleAction(rule->action);
        break;
    case AutoSwitchToken::Step::applyFallback:
        applyInputFallback();
        break;
    case AutoSwitchToken::Step::nothing:
        break;
    }
}

bool GroupManager::isActionAvailable(const RuleAction& action) const {
    // A group's members are not looked at here: activation copes with absent ones.
    if (action.kind == RuleAction::Kind::group)
        return groupIndex(action.groupID) >= 0;
    return m_audio.deviceIDForOutputUID(action.deviceUID).has_value();
}

void GroupManager::applyRuleAction(const RuleAction& action) {
    // A failed action is not retried: the token already names the rule.
    if (action.kind == RuleAction::Kind::group) {
        const int index = groupIndex(action.groupID);
        if (index >= 0)
            activate(m_groups.at(index));
    } else if (const auto id = m_audio.deviceIDForOutputUID(action.deviceUID)) {
        switchToDevice(*id);
    }
}

void GroupManager::applyFallback() {
    // With no usable entry the group a rule put on ends, and the previous output comes back.
    if (const auto id = firstUsablePriorityEntry(RuleSide::output))
        switchToDevice(*id);
    else
        deactivate();
}

void GroupManager::applyInputRuleAction(const RuleAction& action) {
    if (action.kind != RuleAction::Kind::device)
        return;
    if (const auto id = m_audio.deviceIDForInputUID(action.deviceUID))
        writeDefaultInput(*id);
}

void GroupManager::applyInputFallback() {
    // With no usable entry the input stays as it is: there is no previous input to give back.
    if (const auto id = firstUsablePriorityEntry(RuleSide::input))
        writeDefaultInput(*id);
}

std::optional<AudioObjectID> GroupManager::firstUsablePriorityEntry(RuleSide side) {
    const bool output = side == RuleSide::output;
    for (const QString& uid : output ? m_devicePriority : m_inputPriority) {
        if (uid.startsWith(ownDeviceUIDPrefix))
            continue;
        // Hidden devices are passed over, also when connected; an entry whose UID drifted from a
        // hidden one is moved into the hidden list under its new UID.
        if (output ? m_settings.isDeviceHidden(uid) : m_settings.isInputDeviceHidden(uid))
            continue;
        const auto id =
            output ? m_audio.deviceIDForOutputUID(uid) : m_audio.deviceIDForInputUID(uid);
        if (id)
            return id;
    }
    return std::nullopt;
}

void GroupManager::writeDefaultInput(AudioObjectID deviceID) {
    if (m_audio.setDefaultInputDevice(deviceID))
        m_audio.refresh();
}
