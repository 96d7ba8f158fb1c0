#pragma once

#include "groups/AudioRule.h"
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
    // For QML: the active group's id in its stored form, empty when no group is active.
    Q_PROPERTY(QString activeGroupID READ activeGroupIDText NOTIFY activeGroupIDChanged)
    Q_PROPERTY(bool isMuted READ isMuted NOTIFY isMutedChanged)
    Q_PROPERTY(QList<AudioRule> rules READ rules WRITE setRules NOTIFY rulesChanged)
    Q_PROPERTY(QStringList devicePriority READ devicePriority WRITE setDevicePriority NOTIFY
                   devicePriorityChanged)
    Q_PROPERTY(
        QList<AudioRule> inputRules READ inputRules WRITE setInputRules NOTIFY inputRulesChanged)
    Q_PROPERTY(QStringList inputPriority READ inputPriority WRITE setInputPriority NOTIFY
                   inputPriorityChanged)

public:
    // Every aggregate Ondril makes has a UID with this prefix; leftovers are recognised by it.
    static inline const QString groupUIDPrefix = QStringLiteral("com.kestrivane.ondril.group.");
    // Every device Ondril makes for itself starts so; none is ever a fallback.
    static inline const QString ownDeviceUIDPrefix = QStringLiteral("com.kestrivane.ondril.");
    static constexpr int wakeDelayMs = 1000;

    GroupManager(AudioDeviceManager& audio, AppSettings& settings, QObject* parent = nullptr);
    GroupManager(AudioDeviceManager& audio, AppSettings& settings, SystemSleepMonitor& sleepMonitor,
                 QObject* parent = nullptr);
    static GroupManager& shared();

    // Published fields.
    QList<OutputGroup> groups() const { return m_groups; }
    void setGroups(const QList<OutputGroup>& groups);
    std::optional<QUuid> activeGroupID() const { return m_activeGroupID; }
    QString activeGroupIDText() const;
    bool isMuted() const { return m_isMuted; }
    QList<AudioRule> rules() const { return m_rules; }
    void setRules(const QList<AudioRule>& rules);
    QStringList devicePriority() const { return m_devicePriority; }
    void setDevicePriority(const QStringList& priority);
    QList<AudioRule> inputRules() const { return m_inputRules; }
    void setInputRules(const QList<AudioRule>& rules);
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

    // Auto-switch rules and priority lists. Every edit saves the list, clears its side's token and
    // evaluates that side at once.
    void addRule(const QStringList& requiredDeviceUIDs, const RuleAction& action);
    void updateRule(const AudioRule& rule);
    void setRuleEnabled(const QUuid& id, bool enabled);
    void moveRule(int from, int to);
    void deleteRule(const QUuid& id);
    void addInputRule(const QStringList& requiredDeviceUIDs, const RuleAction& action);
    void updateInputRule(const AudioRule& rule);
    void setInputRuleEnabled(const QUuid& id, bool enabled);
    void moveInputRule(int from, int to);
    void deleteInputRule(const QUuid& id);
    void saveDevicePriority();
    void saveInputPriority();

    // Auto-switch evaluation: the first rule that fits is applied once; the priority list is
    // consulted only when a rule stops fitting.
    std::optional<QString> lastAppliedToken() const { return m_lastAppliedToken; }
    void setLastAppliedToken(const std::optional<QString>& token) { m_lastAppliedToken = token; }
    std::optional<QString> lastAppliedInputToken() const { return m_lastAppliedInputToken; }
    void setLastAppliedInputToken(const std::optional<QString>& token) {
        m_lastAppliedInputToken = token;
    }
    void evaluateRules();
    void evaluateInputRules();
    bool isActionAvailable(const RuleAction& action) const;
    void applyRuleAction(const RuleAction& action);
    void applyFallback();
    void applyInputRuleAction(const RuleAction& action);
    void applyInputFallback();

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
    void rulesChanged();
    void devicePriorityChanged();
    void inputRulesChanged();
    void inputPriorityChanged();

private:
    void setActiveGroupID(std::optional<QUuid> id);
    void setIsMuted(bool muted);

    void loadGroups();
    void loadRulesAndPriorities();
    void observeAutoSwitchSettings();

    enum class RuleSide { output, input };
    // Edits one side's rule list; an edit that returns false changed nothing and saves nothing.
    void editRules(RuleSide side, const std::function<bool(QList<AudioRule>&)>& edit);
    void saveRules(RuleSide side);
    bool outputRuleFits(const AudioRule& rule) const;
    bool inputRuleFits(const AudioRule& rule) const;
    // The first device of a priority list that is not Ondril's own, not hidden, and connected.
    // Hidden entries under a drifted UID are repaired in the hidden list on the way.
    std::optional<AudioObjectID> firstUsablePriorityEntry(RuleSide side);
    void writeDefaultInput(AudioObjectID deviceID);
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
    QList<AudioRule> m_rules;
    QStringList m_devicePriority;
    QList<AudioRule> m_inputRules;
    QStringList m_inputPriority;
    std::optional<QString> m_lastAppliedToken;
    std::optional<QString> m_lastAppliedInputToken;

    std::optional<AudioObjectID> m_activeDeviceID;
    QStringList m_activeMemberUIDs;
    std::optional<QString> m_previousOutputUID;
    bool m_isReconciling = false;
};
