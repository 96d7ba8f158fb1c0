#include "app/AppDelegate.h"

#include "groups/GroupManager.h"

#include <QTimer>

AppDelegate::AppDelegate(QObject* parent)
    : QObject(parent) {
    // Launch order: the group manager reaches for the device manager first, so devices are
    // enumerated, then groups loaded, leftovers destroyed and the active group's restore queued.
    GroupManager::shared();
    QTimer::singleShot(0, this, &AppDelegate::applicationDidFinishLaunching);
}

void AppDelegate::applicationDidFinishLaunching() {
    // The status item, hot keys, volume keys and the rest attach here as they come.
}
