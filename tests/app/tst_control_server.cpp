#include "ServerRig.h"
#include "TestSupport.h"

#include "groups/OutputGroupCodec.h"

#include <QtTest>

#include <cmath>
#include <functional>

#include <sys/stat.h>
#include <unistd.h>

// The built `ondril` on a private sound server: a running `ondril --headless` driven from other
// processes the way scripts and launchers drive it (URLs, the command line, the one-instance
// rule), and `ondril devices`, what a user sees of their own devices and what scripts read from
// the JSON.
constexpr uid_t kNobody = 65534;
using TestSupport::Run;
using TestSupport::runOndril;

class TestControlOnServer : public QObject {
    Q_OBJECT

private:
    // An outside process's effect shows after its own time: wait for it, with a generous bound.
    static bool eventually(const std::function<bool()>& condition) {
        return QTest::qWaitFor(condition, 20000);
    }

    static bool answers() { return runOndril({"status"}).exitCode == 0; }

    QJsonObject status() const {
        return QJsonDocument::fromJson(runOndril({"status", "--json"}).out.toUtf8()).object();
    }

    static QJsonObject byUID(const QJsonArray& devices, const QString& uid) {
        for (const auto& device : devices)
            if (device.toObject().value("uid").toString() == uid)
                return device.toObject();
        return {};
    }

    bool groupIsDefault() const {
        return m_server->defaultSinkName().startsWith(GroupManager::groupUIDPrefix);
    }

    QTemporaryDir m_config;
    std::unique_ptr<PrivateSoundServer> m_server;

private slots:
    void initTestCase() {
        // Every `ondril` started here reads the settings of this test, and nobody else's.
        qputenv("XDG_CONFIG_HOME", m_config.path().toUtf8());
        qunsetenv("DISPLAY");
        QString error;
        m_server = PrivateSoundServer::startFromEnvironment(error);
        if (!m_server)
            QFAIL(qPrintable(error));
        const OutputGroup group = makeGroup("Both Displays", {"studio_left", "studio_right"});
        UserDefaults defaults(UserDefaults::standardFilePath());
        QVERIFY(defaults.setData(*OutputGroupCodec::encode({group}), SettingsKeys::groups));
        QVERIFY(m_server->pactl({"set-default-sink", "builtin"}));
    }

    void urlsAndCommandsReachTheRunningInstance() {
        auto instance = TestSupport::startOndril();
        QVERIFY(eventually(answers));

        // A plain second launch hands over without opening a display: this one names a dead one.
        QProcessEnvironment deadDisplay = QProcessEnvironment::systemEnvironment();
        deadDisplay.insert("QT_QPA_PLATFORM", "xcb");
        deadDisplay.insert("DISPLAY", ":4242");
        Run run = runOndril({}, deadDisplay);
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(run.err.contains("already running"), qPrintable(run.err));

        // A URL boosts a playing application through the limiter: a half-scale sine at 200 % is
        // heard at the RMS of the limited sine (0.575), where clipping would give 0.707.
        const auto tone = m_server->playTone({}, "Player", {"application.id=org.example.Player"});
        QVERIFY(tone);
        QCOMPARE(runOndril({"ondril://app?bundle=org.example.Player&volume=200"}).exitCode, 0);
        QVERIFY(eventually([this] {
            const auto level = m_server->recordLevel("builtin");
            return level && std::abs(*level - 0.575) < 0.02;
        }));

        QCOMPARE(runOndril({"ondril://activate?group=Both%20Displays"}).exitCode, 0);
        QVERIFY(eventually([this] { return groupIsDefault(); }));
        QCOMPARE(status().value("activeGroup").toObject().value("name").toString(),
                 QStringLiteral("Both Displays"));

        QCOMPARE(runOndril({"ondril://config?save=Desk"}).exitCode, 0);
        QCOMPARE(runOndril({"groups", "deactivate"}).exitCode, 0);
        QVERIFY(eventually([this] { return m_server->defaultSinkName() == "builtin"; }));
        QCOMPARE(runOndril({"configs", "apply", "desk"}).exitCode, 0);
        QVERIFY(eventually([this] { return groupIsDefault(); }));

        QCOMPARE(runOndril({"apps", "set", "org.example.Player", "--volume", "150", "--mute", "on"})
                     .exitCode,
                 0);
        const QJsonObject player = status().value("apps").toArray().first().toObject();
        QCOMPARE(player.value("bundleID").toString(), QStringLiteral("org.example.Player"));
        QCOMPARE(player.value("volume").toDouble(), 1.5);
        QCOMPARE(player.value("muted").toBool(), true);

        run = runOndril({"ondril://mute", "https://example.org"});
        QCOMPARE(run.exitCode, 2);
        QVERIFY(run.err.contains("not an ondril: URL"));

        tone->kill();
        instance->terminate();
        QVERIFY(instance->waitForFinished(10000));
        QCOMPARE(instance->exitStatus(), QProcess::NormalExit); // quit, not killed
        run = runOndril({"status"});
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains("not running"), qPrintable(run.err));
    }

    void twoStartedAtOnceLeaveOne() {
        auto first = TestSupport::startOndril();
        auto second = TestSupport::startOndril();
        // The one that lost the name hands over and leaves.
        QVERIFY(eventually(
            [&] { return first->waitForFinished(100) || second->waitForFinished(100); }));
        QProcess* loser = first->state() == QProcess::NotRunning ? first.get() : second.get();
        QProcess* winner = loser == first.get() ? second.get() : first.get();
        QCOMPARE(loser->exitCode(), 0);
        QVERIFY(eventually(answers));
        QVERIFY(!winner->waitForFinished(500));
        winner->terminate();
        QVERIFY(winner->waitForFinished(10000));
    }

    // Without a session bus a socket in XDG_RUNTIME_DIR carries the commands, and the instance
    // answers its own user only: root, whom the socket's mode does not stop, is turned away.
    void withoutABusASocketServesItsOwnUserOnly() {
        if (getuid() != 0)
            QSKIP("acting as another user needs root");
        QTemporaryDir runtime;
        const QByteArray path = QFile::encodeName(runtime.path());
        QVERIFY(chown(path.constData(), kNobody, kNobody) == 0);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const char* name : {"DBUS_SESSION_BUS_ADDRESS", "DISPLAY", "PULSE_SERVER"})
            environment.remove(QString::fromLatin1(name));
        for (const char* name : {"XDG_RUNTIME_DIR", "HOME", "XDG_CONFIG_HOME"})
            environment.insert(QString::fromLatin1(name), runtime.path());
        const auto asNobody = [](QStringList arguments) {
            arguments.prepend(TestSupport::helperDirectory() + "/ondril");
            return QStringList{"--reuid=65534", "--regid=65534", "--clear-groups"} + arguments;
        };

        QProcess instance;
        instance.setProcessEnvironment(environment);
        instance.start("setpriv", asNobody({"--headless", "--backend=simulated"}));
        QVERIFY(eventually([&] {
            QProcess status;
            status.setProcessEnvironment(environment);
            status.start("setpriv", asNobody({"status"}));
            return status.waitForFinished(10000) && status.exitCode() == 0;
        }));
        struct stat socket {};
        QVERIFY(stat(QFile::encodeName(runtime.filePath("ondril.socket")).constData(), &socket) ==
                0);
        QCOMPARE(socket.st_mode & 077, 0u); // nobody else may connect

        const Run root = runOndril({"status"}, environment);
        QCOMPARE(root.exitCode, 1);
        QVERIFY2(root.err.contains("did not answer"), qPrintable(root.err));
        instance.terminate();
        QVERIFY(instance.waitForFinished(10000));
    }

    // `--backend=auto` takes the same connection: the backend's server test proves it.
    void jsonListsTheServersSinksAndInputsWithTheirDefaults() {
        QVERIFY(m_server->pactl({"set-default-sink", "airpods"}));
        QVERIFY(m_server->pactl({"set-sink-volume", "airpods", "35%"}));
        QVERIFY(m_server->pactl({"set-sink-mute", "builtin", "1"}));
        const auto input = PrivateSoundServer::defaultInput();
        QVERIFY(m_server->pactl({"set-source-mute", input.name, "1"}));

        const Run run = runOndril({"--backend=pulse", "devices", "--json"});
        QCOMPARE(run.exitCode, 0);
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
};

QTEST_GUILESS_MAIN(TestControlOnServer)
#include "tst_control_server.moc"
