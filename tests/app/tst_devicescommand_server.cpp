#include "PrivateSoundServer.h"
#include "TestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

using TestSupport::Run;
using TestSupport::runOndril;

// `ondril devices` against a real sound server (a private PulseAudio or PipeWire): what a user
// sees of their own devices, and what scripts read from the JSON.
class TestDevicesCommandOnServer : public QObject {
    Q_OBJECT

private:
    static QJsonObject byUID(const QJsonArray& devices, const QString& uid) {
        for (const auto& device : devices)
            if (device.toObject().value("uid").toString() == uid)
                return device.toObject();
        return {};
    }

    std::unique_ptr<PrivateSoundServer> m_server;

private slots:
    void initTestCase() {
        QString error;
        m_server = PrivateSoundServer::startFromEnvironment(error);
        if (!m_server)
            QFAIL(qPrintable(error));
    }

    void cleanupTestCase() { m_server.reset(); }

    void jsonListsTheServersSinksAndInputsWithTheirDefaults_data() {
        QTest::addColumn<QString>("backend");
        QTest::newRow("pulse") << "--backend=pulse";
        QTest::newRow("auto finds the server") << "--backend=auto";
    }

    void jsonListsTheServersSinksAndInputsWithTheirDefaults() {
        QFETCH(QString, backend);
        QVERIFY(m_server->pactl({"set-default-sink", "airpods"}));
        QVERIFY(m_server->pactl({"set-sink-volume", "airpods", "35%"}));
        QVERIFY(m_server->pactl({"set-sink-mute", "builtin", "1"}));
        const auto input = PrivateSoundServer::defaultInput();
        QVERIFY(m_server->pactl({"set-source-mute", input.name, "1"}));

        const Run run = runOndril({backend, "devices", "--json"});
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(!run.err.contains("simulated"), qPrintable(run.err)); // no fallback
        const QJsonObject json = QJsonDocument::fromJson(run.out.toUtf8()).object();
        const QJsonArray outputs = json.value("outputs").toArray();
        const QJsonArray inputs = json.value("inputs").toArray();

        for (const auto& sink : PrivateSoundServer::defaultSinks()) {
            const QJsonObject device = byUID(outputs, sink.name);
            QVERIFY2(!device.isEmpty(), qPrintable(sink.name));
            QCOMPARE(device.value("name").toString(), sink.description);
            QCOMPARE(device.value("isDefault").toBool(), sink.name == QLatin1String("airpods"));
            QCOMPARE(device.value("muted").toBool(), sink.name == QLatin1String("builtin"));
        }
        // 35% on the server's scale is 22938 / 65536: the scalar is within one step of 0.35.
        QVERIFY(qAbs(byUID(outputs, "airpods").value("volume").toDouble() - 0.35) < 0.001);

        const QJsonObject microphone = byUID(inputs, input.name);
        QVERIFY2(!microphone.isEmpty(), qPrintable(run.out));
        QCOMPARE(microphone.value("name").toString(), input.description);
        QCOMPARE(microphone.value("muted"), QJsonValue(true));
        QVERIFY(byUID(outputs, input.name).isEmpty());
        // Monitors are not inputs; every device has the same keys.
        const QStringList keys{"displayName", "id",   "isAirPlay", "isDefault",
                               "muted",       "name", "uid",       "volume"};
        for (const auto& device : inputs) {
            QVERIFY(!device.toObject().value("uid").toString().endsWith(".monitor"));
            QCOMPARE(device.toObject().keys(), keys);
        }
        for (const auto& device : outputs)
            QCOMPARE(device.toObject().keys(), keys);
    }

    // What `auto` does without a server is proven on the backend itself.
    void withoutAServerPulseRefuses() {
        m_server->stop();
        const Run pulse = runOndril({"--backend=pulse", "devices"});
        QCOMPARE(pulse.exitCode, 1);
        QCOMPARE(pulse.err.count(u'\n'), 1);
    }
};

QTEST_GUILESS_MAIN(TestDevicesCommandOnServer)
#include "tst_devicescommand_server.moc"
