#include "PrivateSoundServer.h"

#include <QtTest>

// The private server is what every sound-server test stands on: if it starts with the wrong
// devices, or its level measurement cannot tell a playing sink from a silent one, the tests above
// it prove nothing.
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

    void startsWithTheStandInDevices() {
        const QStringList sinks = m_server->sinkNames();
        for (const auto& device : PrivateSoundServer::defaultSinks())
            QVERIFY2(sinks.contains(device.name), qPrintable(sinks.join(u' ')));
        const auto sources = m_server->pactl({"list", "short", "sources"});
        QVERIFY(sources);
        QVERIFY(sources->contains(PrivateSoundServer::defaultInput().name));
    }

    void descriptionsWithBlanksSurvive() {
        const auto sinks = m_server->pactl({"list", "sinks"});
        QVERIFY(sinks);
        QVERIFY2(sinks->contains("Description: Studio Display Left"), qPrintable(*sinks));
    }

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
