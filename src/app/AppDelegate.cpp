#include "app/AppDelegate.h"

#include "app/AppSettings.h"
#include "app/InstanceChannel.h"
#include "appaudio/AppAudioManager.h"
#include "appaudio/LevelMeter.h"
#include "configs/ConfigManager.h"
#include "control/VolumeKeyMonitor.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "platform/RunningApplications.h"
#include "ui/StatusItemController.h"
#include "ui/panel/PanelController.h"

#include <QGuiApplication>
#include <QScreen>
#include <QTimer>

AppDelegate::AppDelegate(bool headless, QObject* parent)
    : QObject(parent)
    , m_headless(headless) {
    // Launch order: the group manager reaches for the device manager first, so devices are
    // enumerated, then groups loaded, leftovers destroyed and the active group's restore queued.
    GroupManager::shared();
    // Then the per-app records: each stored record is applied before the panel is ever opened.
    AppAudioManager::shared();
    // The quick configs last: they drive all three, and hear of every deleted group.
    ConfigManager::shared();
    // A clean quit stops every session first, so that each application plays as if Ondril had
    // never run.
    connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this,
            [] { AppAudioManager::shared().stopAllSessions(); });
    if (!m_headless)
        m_panelController = std::make_unique<PanelController>(
            AudioDeviceManager::shared(), GroupManager::shared(), AppSettings::shared(),
            AppAudioManager::shared(), LevelMeter::shared(), RunningApplications::shared());
    // Launch finishes before the queued restore of the active group runs, so that what a restored
    // group needs (the volume-key monitor) is in place.
    applicationDidFinishLaunching();
}

AppDelegate::~AppDelegate() = default;

void AppDelegate::applicationDidFinishLaunching() {
    if (m_headless)
        return; // the status item, the volume keys and the panel all need a display

    // The status item, with its scroll handling and its icon following the group manager.
    m_statusItem =
        std::make_unique<StatusItemController>(GroupManager::shared(), AppSettings::shared(),
                                               *m_panelController, QDBusConnection::sessionBus());
    m_statusItem->start();

    const bool demo = qgetenv("ONDRIL_DEMO") == "1" || qgetenv("ONDRIL_HUD_DEMO") == "1";
    VolumeKeyMonitor& volumeKeys = VolumeKeyMonitor::shared();
    if (!demo && !volumeKeys.isRunning())
        volumeKeys.installTap();

    // Hot keys and the rest attach here as they come.

    if (qEnvironmentVariable("ONDRIL_AUTOSHOW") == QLatin1String("1"))
        QTimer::singleShot(600, this, &AppDelegate::showPanelInTrayCorner);
}

void AppDelegate::listenTo(InstanceChannel& channel) {
    // A second launch, or a launcher's Activate, brings the panel up unless it is open already.
    connect(&channel, &InstanceChannel::activated, this, [this] {
        if (m_panelController && !m_panelController->isVisible())
            showPanelInTrayCorner();
    });
}

void AppDelegate::showPanelInTrayCorner() {
    // No click to open under: the corner where a top bar's tray area usually sits.
    const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
    m_panelController->show(QPoint(area.right(), area.top()));
}
