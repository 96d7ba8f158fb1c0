#pragma once

#include "configs/QuickConfig.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QUuid>

class AppAudioManager;
class AppSettings;
class AudioDeviceManager;
class GroupManager;

// The quick configs: saved by name from the present routing, applied by name later. Stored as
// JSON under "ondril.snapshots.v1". Nothing here reports: what is not found is skipped.
class ConfigManager : public QObject {
    Q_OBJECT
    Q_PROPERTY(QList<QuickConfig> configs READ configs NOTIFY configsChanged)

public:
    static inline const QString key = QStringLiteral("ondril.snapshots.v1");

    // Takes over the group manager's deletion hook, so that no config names a deleted group.
    ConfigManager(AudioDeviceManager& audio, GroupManager& groups, AppAudioManager& apps,
                  AppSettings& settings, QObject* parent = nullptr);
    static ConfigManager& shared();

    QList<QuickConfig> configs() const { return m_configs; }

    void saveCurrent(const QString& name);
    void apply(const QString& name); // the first config whose name matches, ignoring case
    void apply(const QuickConfig& config);
    void removeGroup(const QUuid& id);

signals:
    void configsChanged();

private:
    void setConfigs(const QList<QuickConfig>& configs);
    void load();
    void save();

    AudioDeviceManager& m_audio;
    GroupManager& m_groups;
    AppAudioManager& m_apps;
    AppSettings& m_settings;
    QList<QuickConfig> m_configs;
};
