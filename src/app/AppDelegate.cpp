#include "app/AppDelegate.h"

#include "appaudio/AppAudioManager.h"
#include "configs/ConfigManager.h"
#include "groups/GroupManager.h"

#include <QCoreApplication>

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
    connect(qApp, &QCoreApplication::aboutToQuit, this,
            [] { AppAudioManager::shared().stopAllSessions(); });
    QTimer::singleShot(0, this, &AppDelegate::applicationDidFinishLaunching);
}

void AppDelegate::applicationDidFinishLaunching() {
    // The status item, hot keys, volume keys and the rest attach here as they come, unless
    // m_headless says there is no display to put them on.
}
