#include "platform/QuitSignals.h"

#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <csignal>

// A termination signal must end the main loop the ordinary way, aboutToQuit included.
class QuitSignalsTest : public QObject {
    Q_OBJECT

private slots:
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
        QTimer watchdog;
        watchdog.setSingleShot(true);
        connect(&watchdog, &QTimer::timeout, [] { QCoreApplication::exit(99); });
        watchdog.start(5000);
        QCOMPARE(QCoreApplication::exec(), 0);
        QCOMPARE(aboutToQuit.count(), 1);
    }
};

QTEST_GUILESS_MAIN(QuitSignalsTest)
#include "tst_quitsignals.moc"
