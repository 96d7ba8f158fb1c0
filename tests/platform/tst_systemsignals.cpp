#include "platform/QuitSignals.h"
#include "platform/SystemSleepMonitor.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QtTest>

#include <csignal>

// What the system tells the program. logind's PrepareForSleep reaches the sleep monitor over a
// real bus: the test environment's private session bus stands in for the system bus, with a
// second connection playing logind. A termination signal ends the main loop the ordinary way,
// aboutToQuit included.
class TestSystemSignals : public QObject {
    Q_OBJECT

    static void sendPrepareForSleep(QDBusConnection& logind, bool goingToSleep) {
        QDBusMessage signal = QDBusMessage::createSignal(
            "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "PrepareForSleep");
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
        QVERIFY(logind.registerService("org.freedesktop.login1"));

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
        for (QDBusConnection* connection : {&impostor, &logind, &bus})
            connection->interface()->isServiceRegistered("org.freedesktop.login1");
        QCoreApplication::processEvents();
        QCOMPARE(woke.count(), 2);
        QDBusConnection::disconnectFromBus("impostor");
        QDBusConnection::disconnectFromBus("logind");
    }

    void signalQuitsCleanly_data() {
        QTest::addColumn<int>("signal");
        QTest::newRow("SIGTERM") << SIGTERM;
        QTest::newRow("SIGINT") << SIGINT;
    }

    void signalQuitsCleanly() {
        QFETCH(int, signal);
        QuitSignals quitSignals;
        QSignalSpy aboutToQuit(QCoreApplication::instance(), &QCoreApplication::aboutToQuit);
        QTimer::singleShot(0, [signal] { std::raise(signal); });
        // Should the signal not arrive as a quit, the loop ends with another status.
        QObject watchdog; // the timeout goes with it at the end of the row
        QTimer::singleShot(5000, &watchdog, [] { QCoreApplication::exit(99); });
        QCOMPARE(QCoreApplication::exec(), 0);
        QCOMPARE(aboutToQuit.count(), 1);
    }
};

QTEST_GUILESS_MAIN(TestSystemSignals)
#include "tst_systemsignals.moc"
