#include "platform/SystemSleepMonitor.h"

#include <QDBusConnection>

SystemSleepMonitor& SystemSleepMonitor::shared() {
    static auto* monitor = [] {
        auto* created = new SystemSleepMonitor;
        created->start();
        return created;
    }();
    return *monitor;
}

bool SystemSleepMonitor::start() {
    return start(QDBusConnection::systemBus());
}

bool SystemSleepMonitor::start(QDBusConnection bus) {
    if (!bus.isConnected())
        return false;
    return bus.connect(QStringLiteral("org.freedesktop.login1"),
                       QStringLiteral("/org/freedesktop/login1"),
                       QStringLiteral("org.freedesktop.login1.Manager"),
                       QStringLiteral("PrepareForSleep"), this, SLOT(onPrepareForSleep(bool)));
}

void SystemSleepMonitor::onPrepareForSleep(bool goingToSleep) {
    // logind sends the same signal before sleep (true) and after resume (false).
    if (!goingToSleep)
        emit didWake();
}
