#pragma once

#include <QDBusConnection>
#include <QObject>

// Tells when the machine has woken from sleep. On Linux the signal is logind's
// PrepareForSleep(false) on the system bus; without a system bus (containers, test machines) the
// monitor stays silent and everything else goes on. Tests make their own and emit didWake().
class SystemSleepMonitor : public QObject {
    Q_OBJECT

public:
    using QObject::QObject;
    static SystemSleepMonitor& shared();

    // Starts listening on the system bus; false when there is none to listen on.
    bool start();
    // Listens on the given bus instead: tests hand in a private one.
    bool start(QDBusConnection bus);

signals:
    void didWake();

private slots:
    void onPrepareForSleep(bool goingToSleep);
};
