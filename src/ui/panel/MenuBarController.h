#pragma once

#include "platform/AudioHardwareTypes.h"

#include <QObject>
#include <QSet>
#include <QStringList>
#include <QVariant>

#include <optional>

class AppSettings;
class AudioDeviceManager;
class GroupManager;
class LevelMeter;
struct OutputGroup;

// What MenuBarView shows and what its controls do, as the view binds to it: the visible outputs and
// inputs, the headers' subtitles, the open group row and its member rows, the collapsed sections
// (kept under "ondril.collapsedSections"), and the calls each tap makes on the managers. The view
// itself only draws and forwards gestures.
class MenuBarController : public QObject {
    Q_OBJECT
    // The id of the open group row, in its stored form; empty when none is open.
    Q_PROPERTY(QString expandedGroupID READ expandedGroupID NOTIFY expandedGroupIDChanged)
    Q_PROPERTY(QString screen READ screen NOTIFY screenChanged) // "main" or "newGroup"
    Q_PROPERTY(QStringList collapsed READ collapsed NOTIFY collapsedChanged)
    // Flipped when a hidden list or a custom name changes, so that every row reads again.
    Q_PROPERTY(bool hiddenTick READ hiddenTick NOTIFY rowsChanged)
    Q_PROPERTY(QVariantList visibleOutputs READ visibleOutputs NOTIFY rowsChanged)
    Q_PROPERTY(QVariantList visibleInputs READ visibleInputs NOTIFY rowsChanged)
    Q_PROPERTY(QString outputSubtitle READ outputSubtitle NOTIFY rowsChanged)
    Q_PROPERTY(QString inputSubtitle READ inputSubtitle NOTIFY rowsChanged)
    Q_PROPERTY(quint32 defaultOutputID READ defaultOutputID NOTIFY rowsChanged)
    Q_PROPERTY(quint32 defaultInputID READ defaultInputID NOTIFY rowsChanged)
    // The live level for the master slider: a number while the meter runs and the group plays
    // unmuted, else undefined.
    Q_PROPERTY(QVariant masterLevel READ masterLevel NOTIFY masterLevelChanged)

public:
    static inline const QString outputSection = QStringLiteral("output");
    static inline const QString inputSection = QStringLiteral("input");
    static inline const QString appsSection = QStringLiteral("apps");

    MenuBarController(GroupManager& groups, AudioDeviceManager& audio, AppSettings& settings,
                      LevelMeter* meter = nullptr, QObject* parent = nullptr);

    QString expandedGroupID() const { return m_expandedGroupID; }
    QString screen() const { return m_screen; }
    QStringList collapsed() const;
    bool hiddenTick() const { return m_hiddenTick; }
    QVariantList visibleOutputs() const;
    QVariantList visibleInputs() const;
    QString outputSubtitle() const;
    QString inputSubtitle() const;
    quint32 defaultOutputID() const;
    quint32 defaultInputID() const;
    QVariant masterLevel() const;

    // Each time the panel opens: the active group's row opens, the devices are read again.
    Q_INVOKABLE void appear();
    Q_INVOKABLE bool isCollapsed(const QString& section) const;
    Q_INVOKABLE void toggleSection(const QString& section);

    // Group rows.
    Q_INVOKABLE void selectGroup(const QString& groupID);
    Q_INVOKABLE void toggleDisclosure(const QString& groupID);
    Q_INVOKABLE void deleteGroup(const QString& groupID);
    // N + " Outputs", with " · Playing" while the group is active.
    Q_INVOKABLE static QString groupCountText(int memberCount, bool isActive);
    Q_INVOKABLE void openNewGroup();
    Q_INVOKABLE void closeNewGroup();

    // The open group: master, mute, and one row per member with `uid`, `realName`, `label`,
    // `shownName` (what the row reads when not editing), `draft` (what renaming starts from) and
    // `balance`.
    Q_INVOKABLE void setMasterVolume(const QString& groupID, double value);
    Q_INVOKABLE void toggleGroupMute();
    Q_INVOKABLE void setBalance(const QString& groupID, const QString& uid, double value);
    Q_INVOKABLE QVariantList memberRows(const QString& groupID);
    Q_INVOKABLE void rename(const QString& uid, const QString& draft);
    Q_INVOKABLE static QString percentText(double value);

    // Output and input rows.
    Q_INVOKABLE void sendToDevice(quint32 deviceID);
    Q_INVOKABLE void chooseInput(quint32 deviceID);

signals:
    void expandedGroupIDChanged();
    void screenChanged();
    void collapsedChanged();
    void rowsChanged();
    void masterLevelChanged();

private:
    std::optional<OutputGroup> groupWithID(const QString& groupID) const;
    void setExpandedGroupID(const QString& id);
    void setScreen(const QString& screen);
    void flipHiddenTick();
    void playSwitchSound(const std::optional<QString>& deviceUID);

    GroupManager& m_groups;
    AudioDeviceManager& m_audio;
    AppSettings& m_settings;
    LevelMeter* m_meter;
    QString m_expandedGroupID;
    QString m_screen = QStringLiteral("main");
    QSet<QString> m_collapsed;
    bool m_hiddenTick = false;
};
