#include "app/AppDelegate.h"

#include "appaudio/AppAudioManager.h"
#include "control/VolumeKeyMonitor.h"
#include "groups/GroupManager.h"

#include <QCoreApplication>

AppDelegate::AppDelegate(QObject* parent)
    : QObject(parent) {
    // The group manager reaches for the device manager first, so devices are enumerated, then
    // groups loaded, leftovers destroyed and the active group's restore queued.
    GroupManager::shared();
    // Then the per-app records: each stored record is applied before the panel is ever opened.
    AppAudioManager::shared();
    // A clean quit stops every session first, so that each application plays as if Ondril had
    // never run.
    connect(qApp, &QCoreApplication::aboutToQuit, this,
            [] { AppAudioManager::shared().stopAllSessions(); });
    applicationDidFinishLaunching();
}

void AppDelegate::applicationDidFinishLaunching() {
    // The status item, hot keys and the rest attach here as they come, in launch order.
    const bool demo = qgetenv("ONDRIL_DEMO") == "1" || qgetenv("ONDRIL_HUD_DEMO") == "1";
    VolumeKeyMonitor& volumeKeys = VolumeKeyMonitor::shared();
    if (!demo && !volumeKeys.isRunning())
        volumeKeys.installTap();
}
