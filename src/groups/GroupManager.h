#pragma once

#include "groups/OutputGroup.h"
#include "groups/VolumeState.h"
#include "platform/AudioHardwareTypes.h"

#include <QList>
#include <QObject>
#include <QStringList>
#include <QUuid>
#include <QVariantMap>

#include <functional>
#include <optional>

class AudioDeviceManager;
class AppSettings;
class SystemSleepMonitor;

// Turns an OutputGroup into sound: a stacked aggregate of the members that are present, made the
// default output, rebuilt as members come and go, given back to the previous output when the group
// ends. Also owns the stored group list and the group's volume, balance and mute. Published fields
// announce every assignment, also of an equal value.
class GroupManager : public QObject {
    Q_OBJECT
    Q_PROPERTY(QList<OutputGroup> groups READ groups WRITE setGroups NOTIFY groupsChanged)
    Q_PROPERTY(std::optional<QUuid> activeGroupID READ activeGroupID NOTIFY activeGroupIDChanged)
    Q_PROPERTY(bool isMuted READ isMuted NOTIFY isMutedChanged)
    Q_PROPERTY(QStringList devicePriority READ devicePriority WRITE setDevicePriority NOTIFY
                   devicePriorityChanged)
    Q_PROPERTY(QStringList inputPriority READ inputPriority WRITE setInputPriority NOTIFY
                   inputPriorityChanged)

public:
    // Every aggregate Ondril makes has a UID with this prefix; leftovers are recognised by it.
    static inline const QString groupUIDPrefix = QStringLiteral("com.kestrivane.ondril.group.");
    static constexpr int wakeDelayMs = 1000;

    GroupManager(AudioDeviceManager& audio, AppSettings& settings, QObject* parent = nullptr);
    GroupManager(AudioDeviceManager& audio, AppSettings& settings, SystemSleepMonitor& sleepMonitor,
                 QObject* parent = nullptr);
    static GroupManager& shared();

    // Published fields.
    QList<OutputGroup> groups() const { return m_groups; }
    void setGroups(const QList<OutputGroup>& groups);
    std::optional<QUuid> activeGroupID() const { return m_activeGroupID; }
    bool isMuted() const { return m_isMuted; }
    // Output rules, input rules and their evaluation tokens join these fields with auto-switching.
    QStringList devicePriority() const { return m_devicePriority; }
    void setDevicePriority(const QStringList& priority);
    QStringList inputPriority() const { return m_inputPriority; }
    void setInputPriority(const QStringList& priority);

    // What the aggregate was built from, for readers that show or test it.
    std::optional<AudioObjectID> activeDeviceID() const { return m_activeDeviceID; }
    QStringList activeMemberUIDs() const { return m_activeMemberUIDs; }
    std::optional<QString> previousOutputUID() const { return m_previousOutputUID; }

    std::optional<OutputGroup> activeGroup() const;
    void saveGroups();

    bool activate(const OutputGroup& group);
    void deactivate();
    void switchToDevice(AudioObjectID deviceID);
    void deleteGroup(const OutputGroup& group);
    void reconcile();
    void restoreActiveGroup();
    void persistActive();

    // Auto-switching evaluates rules here; until it comes these do nothing.
    void evaluateRules();
    void evaluateInputRules();

    // Volume, balance and mute of a group.
    void applyVolumes(const OutputGroup& group);
    void setMasterVolume(const OutputGroup& group, double value);
    void setBalance(const OutputGroup& group, const QString& memberUID, double value);
    void toggleGroupMute();
    std::optional<VolumeState> toggleMute();
    std::optional<VolumeState> stepVolume(double delta);
    std::optional<VolumeState> stepGroupVolume(double delta);

    // The dictionary handed to the audio service for a group's aggregate.
    static QVariantMap aggregateDescription(const QString& name, const QStringList& presentMembers,
                                            const QString& masterUID, const QUuid& groupID);
    static QString aggregateUID(const QUuid& groupID);

    // Called after a group is deleted, so saved quick configs can drop it.
    std::function<void(const QUuid&)> onGroupDeleted;

signals:
    void groupsChanged();
    void activeGroupIDChanged();
    void isMutedChanged();
    void devicePriorityChanged();
    void inputPriorityChanged();

private:
    void setActiveGroupID(std::optional<QUuid> id);
    void setIsMuted(bool muted);

    void loadGroups();
    void loadPriorities();
    void foldDeviceNames();
    void destroyOrphanAggregates();
    void subscribe(SystemSleepMonitor& sleepMonitor);

    QStringList presentMembers(const OutputGroup& group) const;
    static QString chooseMaster(const OutputGroup& group, const QStringList& presentMembers);
    OSStatus buildAggregate(const QString& name, const QStringList& presentMembers,
                            const QString& masterUID, const QUuid& groupID, AudioObjectID& outID);
    void destroyActiveAggregate();
    void setDefaultOutput(AudioObjectID deviceID);
    bool activeAggregateIsGone() const;
    double memberVolume(const OutputGroup& group, const QString& memberUID) const;
    int groupIndex(const QUuid& id) const;

    AudioDeviceManager& m_audio;
    AppSettings& m_settings;

    QList<OutputGroup> m_groups;
    std::optional<QUuid> m_activeGroupID;
    bool m_isMuted = false;
    QStringList m_devicePriority;
    QStringList m_inputPriority;

    std::optional<AudioObjectID> m_activeDeviceID;
    QStringList m_activeMemberUIDs;
    std::optional<QString> m_previousOutputUID;
    bool m_isReconciling = false;
};
