#include "app/AppDelegate.h"

#include "app/AppSettings.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "ui/StatusItemController.h"
#include "ui/panel/PanelController.h"

#include <QGuiApplication>
#include <QScreen>
#include <QTimer>

AppDelegate::AppDelegate(QObject* parent)
    : QObject(parent) {
    // Launch order: the group manager reaches for the device manager first, so devices are
    // enumerated, then groups loaded, leftovers destroyed and the active group's restore queued.
    GroupManager::shared();
    m_panelController =
        std::make_unique<PanelController>(AudioDeviceManager::shared(), AppSettings::shared());
    QTimer::singleShot(0, this, &AppDelegate::applicationDidFinishLaunching);
}

AppDelegate::~AppDelegate() = default;

void AppDelegate::applicationDidFinishLaunching() {
    // The status item, with its scroll handling and its icon following the group manager.
    m_statusItem =
        std::make_unique<StatusItemController>(GroupManager::shared(), AppSettings::shared(),
                                               *m_panelController, QDBusConnection::sessionBus());
    m_statusItem->start();

    // Hot keys, volume keys and the rest attach here as they come.

    if (qEnvironmentVariable("ONDRIL_AUTOSHOW") == QLatin1String("1")) {
        QTimer::singleShot(600, this, [this] {
            // No click to open under: the corner where a top bar's tray area usually sits.
            const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
            m_panelController->show(QPoint(area.right(), area.top()));
        });
    }
}
