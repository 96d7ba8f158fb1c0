#include "configs/ConfigManager.h"

#include "app/AppSettings.h"
#include "appaudio/AppAudioManager.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "platform/UserDefaults.h"

namespace {

constexpr AudioObjectPropertyAddress defaultInputAddress{kAudioHardwarePropertyDefaultInputDevice,
                                                         kAudioObjectPropertyScopeGlobal,
                                                         kAudioObjectPropertyElementMain};

} // namespace

ConfigManager::ConfigManager(AudioDeviceManager& audio, GroupManager& groups, AppAudioManager& apps,
                             AppSettings& settings, QObject* parent)
    : QObject(parent)
    , m_audio(audio)
    , m_groups(groups)
    , m_apps(apps)
    , m_settings(settings) {
    load();
    m_groups.onGroupDeleted = [this](const QUuid& id) { removeGroup(id); };
}

ConfigManager& ConfigManager::shared() {
    static ConfigManager* manager =
        new ConfigManager(AudioDeviceManager::shared(), GroupManager::shared(),
                          AppAudioManager::shared(), AppSettings::shared());
    return *manager;
}

void ConfigManager::setConfigs(const QList<QuickConfig>& configs) {
    m_configs = configs;
    emit configsChanged();
}

void ConfigManager::load() {
    const auto data = m_settings.defaults().dataForKey(key);
    if (!data)
        return;
    if (auto configs = QuickConfig::decodeAll(*data))
        setConfigs(*configs);
}

void ConfigManager::save() {
    m_settings.defaults().setData(QuickConfig::encodeAll(m_configs), key);
}

void ConfigManager::saveCurrent(const QString& name) {
    QuickConfig config;
    config.id = QUuid::createUuid();
    config.name = name;
    config.activeGroupID = m_groups.activeGroupID();
    if (!config.activeGroupID) {
        // One of our own aggregates is no output of its own: it stands for a group.
        const auto uid = m_audio.readUID(m_audio.defaultOutputID());
        if (uid && !uid->startsWith(GroupManager::groupUIDPrefix))
            config.singleOutputUID = uid;
    }
    for (const AudioDevice& device : m_audio.inputDevices())
        if (device.id == m_audio.defaultInputID()) {
            config.inputUID = device.uid;
            break;
        }
    config.appRoutes = m_apps.prefs();
    QList<QuickConfig> configs = m_configs;
    configs.append(config);
    setConfigs(configs);
    save();
}

void ConfigManager::apply(const QString& name) {
    for (const QuickConfig& config : m_configs)
        if (QString::compare(config.name, name, Qt::CaseInsensitive) == 0) {
            apply(config);
            return;
        }
}

void ConfigManager::apply(const QuickConfig& config) {
    // The output first, so that the records' sessions are built against it.
    bool groupActivated = false;
    if (config.activeGroupID)
        for (const OutputGroup& group : m_groups.groups())
            if (group.id == *config.activeGroupID) {
                m_groups.activate(group);
                groupActivated = true;
                break;
            }
    if (!groupActivated && config.singleOutputUID)
        if (const auto id = m_audio.deviceIDForOutputUID(*config.singleOutputUID))
            m_groups.switchToDevice(*id);
    if (config.inputUID)
        if (const auto id = m_audio.deviceIDForInputUID(*config.inputUID)) {
            const OSStatus status = m_audio.hardware().AudioObjectSetPropertyData(
                kAudioObjectSystemObject, defaultInputAddress,
                AudioPropertyValue(std::uint32_t(*id)));
            if (status == 0)
                m_audio.refresh();
        }
    m_apps.replaceAllPrefs(config.appRoutes);
}

void ConfigManager::removeGroup(const QUuid& id) {
    QList<QuickConfig> configs = m_configs;
    bool changed = false;
    for (QuickConfig& config : configs)
        if (config.activeGroupID == id) {
            config.activeGroupID.reset();
            changed = true;
        }
    if (!changed)
        return;
    setConfigs(configs);
    save();
}
