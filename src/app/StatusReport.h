#pragma once

#include <QJsonArray>
#include <QJsonObject>

class AppAudioManager;
class AudioDeviceManager;
class ConfigManager;
class GroupManager;

// What `ondril status`, `groups`, `apps` and `configs` show, taken from the running engine. The
// JSON form is stable: keys are only ever added.
class StatusReport {
public:
    StatusReport(AudioDeviceManager& audio, GroupManager& groups, AppAudioManager& apps,
                 ConfigManager& configs);
    static StatusReport forSharedObjects();

    QJsonObject status() const; // everything below, with the default devices and active group
    QJsonArray groups() const;
    QJsonArray apps() const;
    QJsonArray configs() const;

private:
    AudioDeviceManager& m_audio;
    GroupManager& m_groups;
    AppAudioManager& m_apps;
    ConfigManager& m_configs;
};
