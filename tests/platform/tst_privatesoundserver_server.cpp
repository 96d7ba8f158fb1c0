#include "PrivateSoundServer.h"

#include <QtTest>

// The private server is what every sound-server test stands on: if its level measurement cannot
// tell a playing sink from a silent one, or it cannot be stopped, the tests above it prove nothing.
// (Its devices are checked by start() itself and by the tests that list them.)
class PrivateSoundServerTest : public QObject {
    Q_OBJECT

private slots:
    void init() {
        QString error;
        m_server = PrivateSoundServer::startFromEnvironment(error);
        if (!m_server)
            QFAIL(qPrintable(error));
    }
    void cleanup() { m_server.reset(); }

    void levelTellsAPlayingSinkFromASilentOne() {
        auto tone = m_server->playTone("studio_right", "ondril-test-tone");
        QVERIFY(tone);
        const auto playing = m_server->recordLevel("studio_right");
        const auto silent = m_server->recordLevel("airpods");
        tone->kill();
        tone->waitForFinished();
        QVERIFY2(playing, "no recording of the playing sink");
        QVERIFY2(silent, "no recording of the silent sink");
        QVERIFY2(*playing > 0.1, qPrintable(QString::number(*playing)));
        QVERIFY2(*silent < 0.01, qPrintable(QString::number(*silent)));
    }

    void stopEndsTheServer() {
        m_server->stop();
        QVERIFY(!m_server->pactl({"info"}, 2000));
    }

private:
    std::unique_ptr<PrivateSoundServer> m_server;
};

QTEST_GUILESS_MAIN(PrivateSoundServerTest)
#include "tst_privatesoundserver_server.moc"
