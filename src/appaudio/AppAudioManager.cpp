#include "appaudio/AppAudioManager.h"

#include "app/AppSettings.h"
#include "appaudio/LevelBallistics.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "platform/RunningApplications.h"
#include "platform/UserDefaults.h"

#include <QTimer>

#include <algorithm>

namespace {

constexpr AudioObjectPropertyAddress address(AudioObjectPropertySelector selector) {
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}

} // namespace

AppAudioManager::AppAudioManager(AudioDeviceManager& audio, GroupManager& groups,
                                 AppSettings& settings, RunningApplications& applications,
                                 QObject* parent)
    : QObject(parent)
    , m_audio(audio)
    , m_groups(groups)
    , m_settings(settings)
    , m_applications(applications) {
    AudioHardware& hardware = m_audio.hardware();
    m_isSupported = hardware.AudioObjectHasProperty(
        kAudioObjectSystemObject, address(kAudioHardwarePropertyProcessObjectList));
    m_ownBundleID = m_applications.ownBundleIdentifier();
    m_permissionGranted =
        m_settings.defaults().storedBoolForKey(SettingsKeys::audioCaptureGranted).value_or(false);
    loadPrefs();

    if (m_isSupported) {
        AudioObjectPropertyListenerToken token = 0;
        if (hardware.AudioObjectAddPropertyListenerBlock(
                kAudioObjectSystemObject, address(kAudioHardwarePropertyProcessObjectList),
                [this](const auto&) { onProcessListChanged(); }, token) == kAudioHardwareNoError)
            m_processListListener = token;
        // Behind the device manager's first publication, so that routes find their devices.
        QMetaObject::invokeMethod(this, &AppAudioManager::reconcileAllStored, Qt::QueuedConnection);
    }

    // Followers move with a new default output; repeats and the value at subscription are not
    // news.
    m_lastDefaultOutput = m_audio.defaultOutputID();
    connect(
        &m_audio, &AudioDeviceManager::defaultOutputIDChanged, this,
        [this] {
            if (m_audio.defaultOutputID() == m_lastDefaultOutput)
                return;
            m_lastDefaultOutput = m_audio.defaultOutputID();
            reconcileFollowers();
        },
        Qt::QueuedConnection);
}

AppAudioManager::~AppAudioManager() {
    removeOutputListeners();
    if (m_processListListener)
        m_audio.hardware().AudioObjectRemovePropertyListenerBlock(*m_processListListener);
}

AppAudioManager& AppAudioManager::shared() {
    static AppAudioManager* manager =
        new AppAudioManager(AudioDeviceManager::shared(), GroupManager::shared(),
                            AppSettings::shared(), RunningApplications::shared());
    return *manager;
}

const RouteSession* AppAudioManager::session(const QString& bundleID) const {
    const auto it = m_sessions.find(bundleID);
    return it == m_sessions.end() ? nullptr : it->second.get();
}

// --- Published fields -------------------------------------------------------------------------

void AppAudioManager::setLists(const QList<AppAudioState>& apps,
                               const QList<AppAudioState>& allApps) {
    m_apps = apps;
    emit appsChanged();
    m_allApps = allApps;
    emit allAppsChanged();
}

void AppAudioManager::setPermissionGranted(bool granted) {
    m_permissionGranted = granted;
    emit permissionGrantedChanged();
}

void AppAudioManager::setPermissionDenied(bool denied) {
    m_permissionDenied = denied;
    emit permissionDeniedChanged();
}

void AppAudioManager::setRequestingPermission(bool requesting) {
    m_requestingPermission = requesting;
    emit requestingPermissionChanged();
}

void AppAudioManager::setLevels(const QVariantMap& levels) {
    m_levels = levels;
    emit levelsChanged();
}

void AppAudioManager::setPanelOpen(bool open) {
    m_panelOpen = open;
    emit panelOpenChanged();
}

// --- Stored records ---------------------------------------------------------------------------

void AppAudioManager::loadPrefs() {
    // A table that does not decode counts as empty and stays stored until the next change.
    if (const auto data = m_settings.defaults().dataForKey(SettingsKeys::appPrefs))
        m_prefs = AppAudioPrefs::decodeAll(*data).value_or(QMap<QString, AppAudioPrefs>());
}

void AppAudioManager::savePrefs() {
    m_settings.defaults().setData(AppAudioPrefs::encodeAll(m_prefs), SettingsKeys::appPrefs);
}

template <typename Change>
void AppAudioManager::storePreference(const QString& bundleID, Change change) {
    AppAudioPrefs record = m_prefs.value(bundleID);
    change(record);
    if (record.isNeutral())
        m_prefs.remove(bundleID);
    else
        m_prefs.insert(bundleID, record);
    savePrefs();
    reconcile(bundleID);
    publishPrefsIntoRows();
}

void AppAudioManager::setVolume(const QString& bundleID, double volume) {
    // Written so that the comparisons decide: what is not below 4 is 4.
    if (!(volume < 4.0))
        volume = 4.0;
    else if (volume < 0.0)
        volume = 0.0;
    storePreference(bundleID, [volume](AppAudioPrefs& record) { record.volume = volume; });
}

void AppAudioManager::setMuted(const QString& bundleID, bool muted) {
    storePreference(bundleID, [muted](AppAudioPrefs& record) { record.muted = muted; });
}

void AppAudioManager::setRoutes(const QString& bundleID, const QStringList& routeUIDs) {
    storePreference(bundleID,
                    [&routeUIDs](AppAudioPrefs& record) { record.routeUIDs = routeUIDs; });
}

void AppAudioManager::setFavourite(const QString& bundleID, bool favourite) {
    storePreference(bundleID, [favourite](AppAudioPrefs& record) { record.favourite = favourite; });
    // Favourites change which rows `apps` holds.
    refresh();
}

void AppAudioManager::publishPrefsIntoRows() {
    auto withPrefs = [this](QList<AppAudioState> rows) {
        for (AppAudioState& row : rows)
            row.prefs = m_prefs.value(row.bundleID);
        return rows;
    };
    const QList<AppAudioState> apps = withPrefs(m_apps);
    const QList<AppAudioState> allApps = withPrefs(m_allApps);
    QMetaObject::invokeMethod(
        this, [this, apps, allApps] { setLists(apps, allApps); }, Qt::QueuedConnection);
}

void AppAudioManager::replaceAllPrefs(const QMap<QString, AppAudioPrefs>& newPrefs) {
    QStringList bundles = m_prefs.keys() + newPrefs.keys();
    bundles.removeDuplicates();
    m_prefs.clear();
    for (auto it = newPrefs.cbegin(); it != newPrefs.cend(); ++it)
        if (!it.value().isNeutral())
            m_prefs.insert(it.key(), it.value());
    savePrefs();
    for (const QString& bundleID : std::as_const(bundles))
        reconcile(bundleID);
    refresh();
}

// --- Discovery --------------------------------------------------------------------------------

std::vector<AudioObjectID> AppAudioManager::readProcessObjectList() const {
    AudioPropertyValue value;
    if (m_audio.hardware().AudioObjectGetPropertyData(
            kAudioObjectSystemObject, address(kAudioHardwarePropertyProcessObjectList), value) !=
        kAudioHardwareNoError)
        return {};
    if (const auto* list = std::get_if<std::vector<AudioObjectID>>(&value))
        return *list;
    return {};
}

// A helper process counts as the application responsible for it; a process with no bundle
// identifier, by itself or through that application, is not attributed.
std::optional<RunningApplication> AppAudioManager::attribute(AudioObjectID object) const {
    AudioHardware& hardware = m_audio.hardware();
    if (!hardware.AudioObjectHasProperty(object, address(kAudioProcessPropertyPID)))
        return std::nullopt;
    AudioPropertyValue value;
    if (hardware.AudioObjectGetPropertyData(object, address(kAudioProcessPropertyPID), value) !=
        kAudioHardwareNoError)
        return std::nullopt;
    const auto* pid = std::get_if<std::int32_t>(&value);
    if (!pid)
        return std::nullopt;

    const std::int32_t responsible = m_applications.responsibilityGetPidResponsibleForPid(*pid);
    const std::int32_t effective = responsible > 0 ? responsible : *pid;
    auto application = m_applications.runningApplicationWithProcessIdentifier(effective);
    if (application && application->bundleIdentifier)
        return application;
    if (effective != *pid) {
        application = m_applications.runningApplicationWithProcessIdentifier(*pid);
        if (application && application->bundleIdentifier)
            return application;
    }
    return std::nullopt;
}

bool AppAudioManager::isRunningOutput(AudioObjectID object) const {
    AudioHardware& hardware = m_audio.hardware();
    const auto running = address(kAudioProcessPropertyIsRunningOutput);
    if (!hardware.AudioObjectHasProperty(object, running))
        return false;
    AudioPropertyValue value;
    if (hardware.AudioObjectGetPropertyData(object, running, value) != kAudioHardwareNoError)
        return false;
    const auto* flag = std::get_if<std::uint32_t>(&value);
    return flag && *flag != 0;
}

std::vector<AudioObjectID> AppAudioManager::processObjects(const QString& bundleID) const {
    std::vector<AudioObjectID> objects;
    for (AudioObjectID object : readProcessObjectList()) {
        const auto application = attribute(object);
        if (application && application->bundleIdentifier == bundleID)
            objects.push_back(object);
    }
    return objects;
}

void AppAudioManager::refresh() {
    if (!m_isSupported)
        return;
    const std::vector<AudioObjectID> objects = readProcessObjectList();
    syncOutputListeners(std::set<AudioObjectID>(objects.begin(), objects.end()));

    QMap<QString, std::vector<AudioObjectID>> objectsByBundle;
    QMap<QString, AppAudioState> rowsByBundle;
    for (AudioObjectID object : objects) {
        const auto application = attribute(object);
        if (!application)
            continue;
        const QString bundleID = *application->bundleIdentifier;
        if (bundleID == m_ownBundleID)
            continue;
        objectsByBundle[bundleID].push_back(object);
        const bool playing = isRunningOutput(object);
        auto row = rowsByBundle.find(bundleID);
        if (row == rowsByBundle.end()) {
            AppAudioState state;
            state.bundleID = bundleID;
            state.name = application->localizedName.value_or(bundleID);
            state.pid = application->processIdentifier;
            state.isPlaying = playing;
            rowsByBundle.insert(bundleID, state);
        } else {
            row->isPlaying = row->isPlaying || playing;
        }
    }
    m_processObjectsByBundle = objectsByBundle;

    QList<AppAudioState> rows;
    for (AppAudioState row : std::as_const(rowsByBundle)) {
        row.prefs = m_prefs.value(row.bundleID);
        rows.append(row);
    }
    for (auto it = m_prefs.cbegin(); it != m_prefs.cend(); ++it) {
        if (!it.value().favourite || rowsByBundle.contains(it.key()))
            continue;
        AppAudioState row;
        row.bundleID = it.key();
        const auto running = m_applications.runningApplicationsWithBundleIdentifier(it.key());
        row.name = running.isEmpty() ? it.key() : running.first().localizedName.value_or(it.key());
        row.prefs = it.value();
        rows.append(row);
    }
    std::stable_sort(rows.begin(), rows.end(), [](const AppAudioState& a, const AppAudioState& b) {
        if (a.isPlaying != b.isPlaying)
            return a.isPlaying;
        return QString::localeAwareCompare(a.name.toLower(), b.name.toLower()) < 0;
    });
    QList<AppAudioState> apps;
    std::copy_if(rows.cbegin(), rows.cend(), std::back_inserter(apps),
                 [](const AppAudioState& row) { return row.isPlaying || row.prefs.favourite; });
    QMetaObject::invokeMethod(
        this, [this, apps, rows] { setLists(apps, rows); }, Qt::QueuedConnection);

    QStringList bundles = m_prefs.keys() + objectsByBundle.keys();
    bundles.removeDuplicates();
    for (const QString& bundleID : std::as_const(bundles))
        reconcile(bundleID);
}

void AppAudioManager::onProcessListChanged() {
    // With the panel closed no lists are rebuilt, but stored records still follow their
    // applications as they start and stop making sound.
    if (m_panelOpen)
        refresh();
    else
        reconcileAllStored();
}

void AppAudioManager::reconcileAllStored() {
    const QStringList bundles = m_prefs.keys();
    for (const QString& bundleID : bundles)
        reconcile(bundleID);
}

void AppAudioManager::syncOutputListeners(const std::set<AudioObjectID>& objects) {
    AudioHardware& hardware = m_audio.hardware();
    for (auto it = m_outputListeners.begin(); it != m_outputListeners.end();) {
        if (objects.count(it->first)) {
            ++it;
            continue;
        }
        hardware.AudioObjectRemovePropertyListenerBlock(it->second);
        it = m_outputListeners.erase(it);
    }
    for (AudioObjectID object : objects) {
        if (m_outputListeners.count(object))
            continue;
        // Not kept on failure, so the next refresh tries again.
        AudioObjectPropertyListenerToken token = 0;
        if (hardware.AudioObjectAddPropertyListenerBlock(
                object, address(kAudioProcessPropertyIsRunningOutput),
                [this](const auto&) { scheduleRefresh(); }, token) == kAudioHardwareNoError)
            m_outputListeners.emplace(object, token);
    }
}

void AppAudioManager::scheduleRefresh() {
    // Any burst of play and stop events costs one refresh.
    if (m_refreshScheduled)
        return;
    m_refreshScheduled = true;
    QTimer::singleShot(refreshDelayMs, this, [this] {
        m_refreshScheduled = false;
        refresh();
    });
}

void AppAudioManager::removeOutputListeners() {
    for (const auto& [object, token] : m_outputListeners)
        m_audio.hardware().AudioObjectRemovePropertyListenerBlock(token);
    m_outputListeners.clear();
}

// --- Sessions ---------------------------------------------------------------------------------

void AppAudioManager::reconcile(const QString& bundleID) {
    if (!m_isSupported)
        return;
    const AppAudioPrefs record = m_prefs.value(bundleID);
    const std::vector<AudioObjectID> objects = processObjects(bundleID);
    if (record.isNeutralSound() || objects.empty())
        return endSession(bundleID);
    const QStringList destinations = resolveDestinations(record.routeUIDs);
    if (destinations.isEmpty())
        return endSession(bundleID);

    // The path of every slider movement: the running session only gets its two gain fields.
    std::unique_ptr<RouteSession> previous;
    const auto existing = m_sessions.find(bundleID);
    if (existing != m_sessions.end()) {
        const RouteSession& session = *existing->second;
        const std::set<AudioObjectID> had(session.processObjects().begin(),
                                          session.processObjects().end());
        if (had == std::set<AudioObjectID>(objects.begin(), objects.end()) &&
            session.destinationUIDs() == destinations) {
            writeGain(*existing->second, record);
            return;
        }
        previous = std::move(existing->second);
        m_sessions.erase(existing);
    }

    auto session =
        std::make_unique<RouteSession>(m_audio.hardware(), bundleID, objects, destinations);
    writeGain(*session, record);
    const bool continued = previous && session->continueFrom(*previous);
    // The aggregate's UID depends only on the bundle: the old session goes before a new start.
    previous.reset();
    // A session that does not start is dropped, which stops it; the next reconcile tries again.
    if (!continued && !session->start())
        return;
    session->setMetered(m_meterTimer != nullptr);
    m_sessions[bundleID] = std::move(session);
}

void AppAudioManager::endSession(const QString& bundleID) {
    m_sessions.erase(bundleID); // destruction stops it
}

void AppAudioManager::stopAllSessions() {
    m_sessions.clear();
}

void AppAudioManager::writeGain(RouteSession& session, const AppAudioPrefs& record) {
    const float volume = float(record.volume);
    session.setGain(record.muted ? 0.0f : volume, volume > 1.0f && !record.muted);
}

bool AppAudioManager::isPresentOutput(const QString& uid, const QStringList& outputUIDs) const {
    if (outputUIDs.contains(uid))
        return true;
    const auto matched = AudioDevice::matchingUID(uid, outputUIDs);
    return matched && outputUIDs.contains(*matched);
}

QStringList AppAudioManager::resolveDestinations(const QStringList& routeUIDs) const {
    QStringList outputUIDs;
    for (const AudioDevice& device : m_audio.outputDevices())
        outputUIDs.append(device.uid);
    auto present = [&](const QStringList& uids) {
        QStringList taken;
        for (const QString& uid : uids)
            if (isPresentOutput(uid, outputUIDs))
                taken.append(uid);
        return taken;
    };
    if (!routeUIDs.isEmpty())
        return present(routeUIDs);

    // Following the default output: the default itself, or while a group plays, its members
    // directly rather than the group's aggregate.
    const auto defaultUID = m_audio.readUID(m_audio.readDefaultOutputID());
    if (defaultUID && !defaultUID->startsWith(GroupManager::groupUIDPrefix))
        return {*defaultUID};
    if (const auto group = m_groups.activeGroup()) {
        const QStringList members = present(group->memberUIDs);
        if (!members.isEmpty())
            return members;
    }
    for (const QString& uid : std::as_const(outputUIDs))
        if (!uid.startsWith(GroupManager::groupUIDPrefix))
            return {uid};
    return {};
}

void AppAudioManager::reconcileFollowers() {
    const QStringList bundles = m_prefs.keys();
    for (const QString& bundleID : bundles) {
        const AppAudioPrefs record = m_prefs.value(bundleID);
        if (record.routeUIDs.isEmpty() && (record.volume != 1.0 || record.muted))
            reconcile(bundleID);
    }
}

// --- Capture permission -----------------------------------------------------------------------

bool AppAudioManager::probeCapturePermission() {
    CATapDescription description;
    description.isExclusive = true; // every process, none excluded
    description.name = QStringLiteral("Ondril permission check");
    description.isPrivate = true;
    description.muteBehavior = CATapMuteBehavior::CATapUnmuted;
    description.uuid = QUuid::createUuid();
    AudioObjectID tapID = kAudioObjectUnknown;
    AudioHardware& hardware = m_audio.hardware();
    if (hardware.AudioHardwareCreateProcessTap(description, tapID) != kAudioHardwareNoError ||
        tapID == kAudioObjectUnknown)
        return false;
    hardware.AudioHardwareDestroyProcessTap(tapID);
    return true;
}

void AppAudioManager::requestPermission() {
    if (!m_isSupported || m_permissionGranted)
        return;
    setPermissionDenied(false);
    if (probeCapturePermission())
        return markPermissionGranted();
    setRequestingPermission(true);
    pollPermission(permissionPolls);
}

void AppAudioManager::pollPermission(int remaining) {
    QTimer::singleShot(m_permissionPollMs, this, [this, remaining] {
        if (!m_requestingPermission)
            return;
        if (probeCapturePermission())
            return markPermissionGranted();
        if (remaining < 1) {
            setRequestingPermission(false);
            setPermissionDenied(true);
            return;
        }
        pollPermission(remaining - 1);
    });
}

void AppAudioManager::markPermissionGranted() {
    setRequestingPermission(false);
    setPermissionDenied(false);
    if (!m_permissionGranted) {
        setPermissionGranted(true);
        m_settings.defaults().setBool(true, SettingsKeys::audioCaptureGranted);
    }
    refresh();
}

// --- Levels -----------------------------------------------------------------------------------

void AppAudioManager::startMetering() {
    if (m_meterTimer)
        return;
    m_meterTimer = new QTimer(this);
    m_meterTimer->setTimerType(Qt::PreciseTimer);
    m_meterTimer->setInterval(meterIntervalMs);
    connect(m_meterTimer, &QTimer::timeout, this, &AppAudioManager::meterTick);
    m_meterTimer->start();
    for (const auto& [bundleID, session] : m_sessions)
        session->setMetered(true);
}

void AppAudioManager::stopMetering() {
    delete m_meterTimer;
    m_meterTimer = nullptr;
    for (const auto& [bundleID, session] : m_sessions)
        session->setMetered(false);
    if (!m_levels.isEmpty())
        setLevels({});
}

void AppAudioManager::meterTick() {
    QVariantMap next;
    for (const auto& [bundleID, session] : m_sessions) {
        const float peak = session->gain().peak.exchange(0.0f, std::memory_order_relaxed);
        const double previous = m_levels.value(bundleID, 0.0).toDouble();
        next.insert(bundleID, LevelBallistics::next(previous, LevelBallistics::target(peak)));
    }
    if (next != m_levels)
        setLevels(next);
}
