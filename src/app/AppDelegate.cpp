#include "app/AppDelegate.h"

#include "control/VolumeKeyMonitor.h"
#include "groups/GroupManager.h"

AppDelegate::AppDelegate(QObject* parent)
    : QObject(parent) {
    // The group manager reaches for the device manager first, so devices are enumerated, then
    // groups loaded, leftovers destroyed and the active group's restore queued.
    GroupManager::shared();
    applicationDidFinishLaunching();
}

void AppDelegate::applicationDidFinishLaunching() {
    // The status item, hot keys and the rest attach here as they come, in launch order.
    const bool demo = qgetenv("ONDRIL_DEMO") == "1" || qgetenv("ONDRIL_HUD_DEMO") == "1";
    VolumeKeyMonitor& volumeKeys = VolumeKeyMonitor::shared();
    if (!demo && !volumeKeys.isRunning())
        volumeKeys.installTap();
}
