#include "platform/SystemSleepMonitor.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QSignalSpy>
#include <QtTest>

// logind's PrepareForSleep reaches the monitor over a real bus: the test environment's private
// session bus stands in for the system bus, with a second connection playing logind.
class TestSystemSleepMonitor : public QObject {
    Q_OBJECT

    static void sendPrepareForSleep(QDBusConnection& logind, bool goingToSleep) {
        QDBusMessage signal = QDBusMessage::createSignal(
            QStringLiteral("/org/freedesktop/login1"),
            QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("PrepareForSleep"));
        signal << goingToSleep;
        QVERIFY(logind.send(signal));
    }

private slots:
    void resumeAnnouncesWakeAndSuspendDoesNot() {
        QDBusConnection bus = QDBusConnection::sessionBus();
        if (!bus.isConnected())
            QSKIP("no session bus: run inside scripts/test-env.sh");
        QDBusConnection logind =
            QDBusConnection::connectToBus(QDBusConnection::SessionBus, "logind");
        QVERIFY(logind.isConnected());
        QVERIFY(logind.registerService(QStringLiteral("org.freedesktop.login1")));

        SystemSleepMonitor monitor;
        QVERIFY(monitor.start(bus));
        QSignalSpy woke(&monitor, &SystemSleepMonitor::didWake);

        sendPrepareForSleep(logind, true);
        sendPrepareForSleep(logind, false);
        QVERIFY(woke.wait(5000));
        QCOMPARE(woke.count(), 1); // the suspend came first and said nothing

        // The same signal from someone else than logind is not a wake.
        QDBusConnection impostor =
            QDBusConnection::connectToBus(QDBusConnection::SessionBus, "impostor");
        sendPrepareForSleep(impostor, false);
        sendPrepareForSleep(logind, false);
        QVERIFY(woke.wait(5000));
        // Round trips on every connection: whatever was sent has been delivered by now.
        impostor.interface()->isServiceRegistered(QStringLiteral("org.freedesktop.login1"));
        logind.interface()->isServiceRegistered(QStringLiteral("org.freedesktop.login1"));
        bus.interface()->isServiceRegistered(QStringLiteral("org.freedesktop.login1"));
        QCoreApplication::processEvents();
        QCOMPARE(woke.count(), 2);
        QDBusConnection::disconnectFromBus("impostor");
        QDBusConnection::disconnectFromBus("logind");
    }
};

QTEST_GUILESS_MAIN(TestSystemSleepMonitor)
#include "tst_systemsleepmonitor.moc"
