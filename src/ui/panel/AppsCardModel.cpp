#include "ui/panel/AppsCardModel.h"

#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "appaudio/AppAudioManager.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "platform/RunningApplications.h"
#include "ui/panel/AppListModel.h"
#include "ui/panel/PanelText.h"

#include <QSet>

#include <algorithm>
#include <cmath>

AppsCardModel::AppsCardModel(AppAudioManager& manager, AudioDeviceManager& audio,
                             GroupManager& groups, AppSettings& settings,
                             RunningApplications& applications, QObject* parent)
    : QObject(parent)
    , m_manager(manager)
    , m_audio(audio)
    , m_groups(groups)
    , m_settings(settings)
    , m_applications(applications)
    , m_rows(new AppListModel([this](const QString& id) { return iconName(id); }, this)) {
    connect(&m_manager, &AppAudioManager::appsChanged, this, &AppsCardModel::updateRows);
    connect(&m_manager, &AppAudioManager::allAppsChanged, this, &AppsCardModel::updateRows);
    connect(&m_manager, &AppAudioManager::permissionGrantedChanged, this,
            &AppsCardModel::listsChanged);
    connect(&m_audio, &AudioDeviceManager::outputDevicesChanged, this,
            &AppsCardModel::bumpDestinationsTick);
    connect(&m_groups, &GroupManager::groupsChanged, this, &AppsCardModel::bumpDestinationsTick);
    NotificationCenter& center = m_settings.notificationCenter();
    for (const QString& name :
         {Notifications::deviceNamesChanged, Notifications::hiddenDevicesChanged})
        center.addObserver(name, this, [this] { bumpDestinationsTick(); });
    updateRows();
}

void AppsCardModel::setShowAllApps(bool showAll) {
    m_showAllApps = showAll;
    emit showAllAppsChanged();
    updateRows();
}

void AppsCardModel::updateRows() {
    m_rows->setRows(m_showAllApps ? m_manager.allApps() : m_manager.apps());
    emit listsChanged();
}

void AppsCardModel::bumpDestinationsTick() {
    ++m_destinationsTick;
    emit destinationsTickChanged();
}

QString AppsCardModel::subtitle() const {
    if (!m_manager.permissionGranted())
        return QStringLiteral("Off");
    const QList<AppAudioState> apps = m_manager.apps();
    const auto playing = std::count_if(apps.begin(), apps.end(),
                                       [](const AppAudioState& row) { return row.isPlaying; });
    if (playing == 0)
        return QStringLiteral("Nothing Playing");
    return QString::number(playing) +
           (playing == 1 ? QStringLiteral(" App") : QStringLiteral(" Apps")) +
           QStringLiteral(" Playing");
}

bool AppsCardModel::showAllButtonVisible() const {
    return m_manager.permissionGranted() && m_manager.apps().size() < m_manager.allApps().size();
}

QString AppsCardModel::routeSummary(const QStringList& routeUIDs) const {
    if (routeUIDs.isEmpty())
        return QStringLiteral("Default");
    if (routeUIDs.size() > 1)
        return QString::number(routeUIDs.size()) + QStringLiteral(" devices");
    const QString& uid = routeUIDs.first();
    if (const auto custom = m_settings.customName(uid))
        return *custom;
    for (const AudioDevice& device : m_audio.outputDevices())
        if (device.uid == uid)
            return device.name;
    return QStringLiteral("Device");
}

QVariantList AppsCardModel::outputOptions(const QStringList& routeUIDs) const {
    const QSet<QString> route(routeUIDs.begin(), routeUIDs.end());
    QVariantList options;
    options.append(QVariantMap{{"name", QStringLiteral("Default Output")},
                               {"subtitle", QString()},
                               {"selected", routeUIDs.isEmpty()},
                               {"route", QStringList()}});
    for (const OutputGroup& group : m_groups.groups()) {
        const QSet<QString> members(group.memberUIDs.begin(), group.memberUIDs.end());
        options.append(QVariantMap{{"name", group.name},
                                   {"subtitle", QStringLiteral("Group")},
                                   {"selected", members == route},
                                   {"route", group.memberUIDs}});
    }
    for (const AudioDevice& device : m_audio.outputDevices()) {
        // Ondril's own aggregates are never a destination; hidden outputs stay hidden here too
        // (the hidden list's drifted entries are repaired as it is read).
        if (device.uid.startsWith(GroupManager::groupUIDPrefix) ||
            m_settings.isDeviceHidden(device.uid))
            continue;
        options.append(
            QVariantMap{{"name", device.displayName(m_settings)},
                        {"subtitle", device.isAirPlay ? QStringLiteral("AirPlay") : QString()},
                        {"selected", route.contains(device.uid)},
                        {"uid", device.uid}});
    }
    return options;
}

QVariantList AppsCardModel::boostOptions(double volume) const {
    QVariantList options;
    for (double step : boostSteps())
        options.append(QVariantMap{{"name", percentText(step)},
                                   {"subtitle", step > 1.0 ? QStringLiteral("Boost") : QString()},
                                   {"selected", std::abs(volume - step) < 0.01},
                                   {"step", step}});
    return options;
}

QStringList AppsCardModel::toggledRoute(QStringList routeUIDs, const QString& uid) {
    if (!routeUIDs.removeOne(uid))
        routeUIDs.append(uid);
    return routeUIDs;
}

QString AppsCardModel::percentText(double value) {
    return PanelText::percentText(value);
}

QString AppsCardModel::iconName(const QString& bundleID) const {
    const QList<RunningApplication> running =
        m_applications.runningApplicationsWithBundleIdentifier(bundleID);
    return running.isEmpty() ? QString() : running.first().iconName.value_or(QString());
}
