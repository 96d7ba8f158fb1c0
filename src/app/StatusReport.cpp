#include "app/StatusReport.h"

#include "appaudio/AppAudioManager.h"
#include "configs/ConfigManager.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "groups/OutputGroupCodec.h"

namespace {

QJsonValue device(const QList<AudioDevice>& devices, AudioObjectID id) {
    for (const AudioDevice& device : devices)
        if (device.id == id)
            return QJsonObject{{QStringLiteral("uid"), device.uid},
                               {QStringLiteral("name"), device.name}};
    return QJsonValue::Null;
}

QJsonValue uuidOrNull(const std::optional<QUuid>& id) {
    return id ? QJsonValue(OutputGroupCodec::uuidText(*id)) : QJsonValue(QJsonValue::Null);
}

QJsonValue textOrNull(const std::optional<QString>& text) {
    return text ? QJsonValue(*text) : QJsonValue(QJsonValue::Null);
}

} // namespace

StatusReport::StatusReport(AudioDeviceManager& audio, GroupManager& groups, AppAudioManager& apps,
                           ConfigManager& configs)
    : m_audio(audio)
    , m_groups(groups)
    , m_apps(apps)
    , m_configs(configs) {}

StatusReport StatusReport::forSharedObjects() {
    return StatusReport(AudioDeviceManager::shared(), GroupManager::shared(),
                        AppAudioManager::shared(), ConfigManager::shared());
}

QJsonObject StatusReport::status() const {
    QJsonValue active = QJsonValue::Null;
    if (const auto group = m_groups.activeGroup())
        active = QJsonObject{{QStringLiteral("id"), OutputGroupCodec::uuidText(group->id)},
                             {QStringLiteral("name"), group->name},
                             {QStringLiteral("masterVolume"), group->masterVolume},
                             {QStringLiteral("muted"), m_groups.isMuted()}};
    return {
        {QStringLiteral("defaultOutput"),
         device(m_audio.outputDevices(), m_audio.defaultOutputID())},
        {QStringLiteral("defaultInput"), device(m_audio.inputDevices(), m_audio.defaultInputID())},
        {QStringLiteral("activeGroup"), active},
        {QStringLiteral("groups"), groups()},
        {QStringLiteral("apps"), apps()},
        {QStringLiteral("configs"), configs()}};
}

QJsonArray StatusReport::groups() const {
    QJsonArray array;
    for (const OutputGroup& group : m_groups.groups())
        array.append(QJsonObject{
            {QStringLiteral("id"), OutputGroupCodec::uuidText(group.id)},
            {QStringLiteral("name"), group.name},
            {QStringLiteral("memberUIDs"), QJsonArray::fromStringList(group.memberUIDs)},
            {QStringLiteral("masterVolume"), group.masterVolume},
            {QStringLiteral("active"), m_groups.activeGroupID() == group.id}});
    return array;
}

QJsonArray StatusReport::apps() const {
    // Every stored record, and every application playing now even without one.
    QMap<QString, AppAudioPrefs> records = m_apps.prefs();
    QMap<QString, bool> running;
    for (const AppAudioState& state : m_apps.allApps()) {
        running.insert(state.bundleID, state.pid != 0);
        if (!records.contains(state.bundleID))
            records.insert(state.bundleID, state.prefs);
    }
    QJsonArray array;
    for (auto it = records.cbegin(); it != records.cend(); ++it)
        array.append(
            QJsonObject{{QStringLiteral("bundleID"), it.key()},
                        {QStringLiteral("volume"), it->volume},
                        {QStringLiteral("muted"), it->muted},
                        {QStringLiteral("routeUIDs"), QJsonArray::fromStringList(it->routeUIDs)},
                        {QStringLiteral("running"), running.value(it.key())},
                        {QStringLiteral("session"), m_apps.session(it.key()) != nullptr}});
    return array;
}

QJsonArray StatusReport::configs() const {
    QJsonArray array;
    for (const QuickConfig& config : m_configs.configs())
        array.append(
            QJsonObject{{QStringLiteral("id"), OutputGroupCodec::uuidText(config.id)},
                        {QStringLiteral("name"), config.name},
                        {QStringLiteral("activeGroupID"), uuidOrNull(config.activeGroupID)},
                        {QStringLiteral("singleOutputUID"), textOrNull(config.singleOutputUID)},
                        {QStringLiteral("inputUID"), textOrNull(config.inputUID)}});
    return array;
}
