#pragma once

#include "appaudio/AppAudioPrefs.h"
#include "appaudio/AppAudioState.h"
#include "appaudio/RouteSession.h"
#include "platform/AudioHardwareTypes.h"

#include <QList>
#include <QMap>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

class AppSettings;
class AudioDeviceManager;
class GroupManager;
class QTimer;
class RunningApplications;
struct RunningApplication;

// Knows which running applications make sound and what the user wants done with each: one stored
// record per bundle identifier (volume 0 to 4, mute, routes, favourite), turned into a RouteSession
// for every application whose record asks for more than plain playback to the default output.
// Also owns the capture-permission flow and the per-application levels. Published fields announce
// every assignment; the lists are published one event-loop turn after the refresh that made them.
class AppAudioManager : public QObject {
    Q_OBJECT
    Q_PROPERTY(QList<AppAudioState> apps READ apps NOTIFY appsChanged)
    Q_PROPERTY(QList<AppAudioState> allApps READ allApps NOTIFY allAppsChanged)
    Q_PROPERTY(bool isSupported READ isSupported CONSTANT)
    Q_PROPERTY(bool permissionGranted READ permissionGranted NOTIFY permissionGrantedChanged)
    Q_PROPERTY(bool permissionDenied READ permissionDenied NOTIFY permissionDeniedChanged)
    Q_PROPERTY(
        bool requestingPermission READ requestingPermission NOTIFY requestingPermissionChanged)
    Q_PROPERTY(QVariantMap levels READ levels NOTIFY levelsChanged)
    Q_PROPERTY(bool panelOpen READ panelOpen WRITE setPanelOpen NOTIFY panelOpenChanged)

public:
    static constexpr int refreshDelayMs = 150;
    static constexpr int permissionPollMs = 600;
    static constexpr int permissionPolls = 40; // one more timed probe than this, then denied
    static constexpr int meterIntervalMs = 33; // 1/30 s

    AppAudioManager(AudioDeviceManager& audio, GroupManager& groups, AppSettings& settings,
                    RunningApplications& applications, QObject* parent = nullptr);
    ~AppAudioManager() override;
    static AppAudioManager& shared();

    QList<AppAudioState> apps() const { return m_apps; }
    QList<AppAudioState> allApps() const { return m_allApps; }
    bool isSupported() const { return m_isSupported; }
    bool permissionGranted() const { return m_permissionGranted; }
    bool permissionDenied() const { return m_permissionDenied; }
    bool requestingPermission() const { return m_requestingPermission; }
    QVariantMap levels() const { return m_levels; }
    bool panelOpen() const { return m_panelOpen; }
    void setPanelOpen(bool open);

    QMap<QString, AppAudioPrefs> prefs() const { return m_prefs; }
    const RouteSession* session(const QString& bundleID) const;

    Q_INVOKABLE void setVolume(const QString& bundleID, double volume);
    Q_INVOKABLE void setMuted(const QString& bundleID, bool muted);
    Q_INVOKABLE void setRoutes(const QString& bundleID, const QStringList& routeUIDs);
    Q_INVOKABLE void setFavourite(const QString& bundleID, bool favourite);
    void replaceAllPrefs(const QMap<QString, AppAudioPrefs>& newPrefs);

    void refresh();
    void reconcile(const QString& bundleID);
    void reconcileFollowers();
    QStringList resolveDestinations(const QStringList& routeUIDs) const;
    std::vector<AudioObjectID> processObjects(const QString& bundleID) const;

    // Capture permission: the apps section's button starts the request.
    Q_INVOKABLE void requestPermission();
    bool probeCapturePermission();
    void pollPermission(int remaining);
    void markPermissionGranted();
    void setPermissionPollInterval(int milliseconds) { m_permissionPollMs = milliseconds; }

    // The panel calls these on show and hide.
    void startMetering();
    void stopMetering();
    void meterTick();
    void removeOutputListeners();

    // Stops every session, so that each application plays as if Ondril had never run.
    void stopAllSessions();

signals:
    void appsChanged();
    void allAppsChanged();
    void permissionGrantedChanged();
    void permissionDeniedChanged();
    void requestingPermissionChanged();
    void levelsChanged();
    void panelOpenChanged();

private:
    void setLists(const QList<AppAudioState>& apps, const QList<AppAudioState>& allApps);
    void setPermissionGranted(bool granted);
    void setPermissionDenied(bool denied);
    void setRequestingPermission(bool requesting);
    void setLevels(const QVariantMap& levels);

    void loadPrefs();
    void savePrefs();
    template <typename Change> void storePreference(const QString& bundleID, Change change);
    void publishPrefsIntoRows();
    void reconcileAllStored();
    void onProcessListChanged();
    void syncOutputListeners(const std::set<AudioObjectID>& objects);
    void scheduleRefresh();
    std::vector<AudioObjectID> readProcessObjectList() const;
    std::optional<RunningApplication> attribute(AudioObjectID object) const;
    bool isRunningOutput(AudioObjectID object) const;
    bool isPresentOutput(const QString& uid, const QStringList& outputUIDs) const;
    void endSession(const QString& bundleID);
    static void writeGain(RouteSession& session, const AppAudioPrefs& record);

    AudioDeviceManager& m_audio;
    GroupManager& m_groups;
    AppSettings& m_settings;
    RunningApplications& m_applications;

    QList<AppAudioState> m_apps;
    QList<AppAudioState> m_allApps;
    bool m_isSupported = false;
    bool m_permissionGranted = false;
    bool m_permissionDenied = false;
    bool m_requestingPermission = false;
    QVariantMap m_levels;
    QTimer* m_meterTimer = nullptr;
    QMap<QString, AppAudioPrefs> m_prefs;
    QMap<QString, std::vector<AudioObjectID>> m_processObjectsByBundle;
    std::map<QString, std::unique_ptr<RouteSession>> m_sessions;
    std::map<AudioObjectID, AudioObjectPropertyListenerToken> m_outputListeners;
    std::optional<AudioObjectPropertyListenerToken> m_processListListener;
    AudioObjectID m_lastDefaultOutput = kAudioObjectUnknown;
    bool m_refreshScheduled = false;
    QString m_ownBundleID;
    bool m_panelOpen = false;
    int m_permissionPollMs = permissionPollMs;
};
