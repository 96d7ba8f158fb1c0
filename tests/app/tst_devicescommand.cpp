#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

// The `ondril` executable's command line, and `ondril devices` on the simulated service. Every run
// gets a settings folder of its own and a sound server address where nothing answers.
class TestDevicesCommand : public QObject {
    Q_OBJECT

    QTemporaryDir m_config;

    // A settings folder of the test's own, and a sound server address where nothing answers.
    TestSupport::Run runOndril(const QStringList& arguments) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("XDG_CONFIG_HOME", m_config.path());
        environment.insert("PULSE_SERVER", "unix:/nonexistent/ondril-test");
        return TestSupport::runOndril(arguments, environment);
    }

private slots:
    void commandLineGivesStatusAndOneLine_data() {
        QTest::addColumn<QString>("command");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("output"); // how stdout starts; "!text": one line on stderr
        QTest::newRow("help") << "--help" << 0 << "Usage: ondril [options]";
        QTest::newRow("devices help") << "devices --help" << 0 << "Usage: ondril devices";
        QTest::newRow("defaults help") << "defaults --help" << 0 << "Usage: ondril defaults";
        QTest::newRow("help in place of a key")
            << "defaults write --help x" << 0 << "Usage: ondril defaults";
        QTest::newRow("help-all is not offered")
            << "--help-all" << 2 << "!Unknown option 'help-all'. (see ondril --help)";
        QTest::newRow("unknown subcommand")
            << "list" << 2 << "!unknown subcommand 'list' (see ondril --help)";
        QTest::newRow("unknown backend")
            << "--backend=alsa devices" << 2 << "!unknown backend 'alsa'";
        // Exit 2, not the no-server failure: the arguments are checked before the server is asked.
        QTest::newRow("devices option")
            << "--backend=pulse devices --yaml" << 2 << "!unknown argument '--yaml' for devices";
        QTest::newRow("devices stray word")
            << "--backend=pulse devices --json all" << 2 << "!unknown argument 'all' for devices";
    }

    void commandLineGivesStatusAndOneLine() {
        QFETCH(QString, command);
        QFETCH(int, exitCode);
        QFETCH(QString, output);
        const TestSupport::Run run = runOndril(command.split(u' '));
        QCOMPARE(run.exitCode, exitCode);
        if (output.startsWith(u'!')) {
            QCOMPARE(run.out, QString());
            QVERIFY2(run.err.startsWith("ondril: ") && run.err.contains(output.mid(1)),
                     qPrintable(run.err));
            QCOMPARE(run.err.count(u'\n'), 1);
        } else {
            QVERIFY2(run.out.startsWith(output), qPrintable(run.out));
            QCOMPARE(run.err, QString());
        }
        QVERIFY(!QFileInfo::exists(m_config.filePath("ondril/defaults.json"))); // nothing stored
    }

    void withoutADisplayOndrilRunsHeadlessAndQuitsOnSigterm() {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("XDG_CONFIG_HOME", m_config.path());
        for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            environment.remove(name);
        process.setProcessEnvironment(environment);
        process.setReadChannel(QProcess::StandardError);
        process.start(TestSupport::helperDirectory() + QStringLiteral("/ondril"),
                      {QStringLiteral("--backend=simulated")});
        while (!process.canReadLine())
            QVERIFY(process.waitForReadyRead(20000));
        const QString line = QString::fromUtf8(process.readLine());
        QVERIFY2(line.startsWith("ondril: ") && line.contains("headless"), qPrintable(line));
        // Up once it holds its name on the session bus; then SIGTERM is a clean quit.
        QVERIFY(QTest::qWaitFor(
            [] {
                return QDBusConnection::sessionBus().interface()->isServiceRegistered(
                    QStringLiteral("com.kestrivane.Ondril"));
            },
            20000));
        process.terminate();
        QVERIFY(process.waitForFinished(20000));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode(), 0);
    }

    void humanTableMarksTheDefaultsAndLinesUpItsColumns() {
        const TestSupport::Run run = runOndril({"--backend=simulated", "devices"});
        QCOMPARE(run.exitCode, 0);
        const QStringList lines = run.out.split(u'\n');
        QStringList starred;
        for (const QString& line : lines)
            if (line.startsWith(QStringLiteral("  *")))
                starred.append(line);
        QCOMPARE(starred.size(), 2);
        QVERIFY(starred[0].contains("Built-in Speakers"));
        QVERIFY(starred[1].contains("USB Microphone"));
        const QString header = lines.value(lines.indexOf("Outputs") + 1);
        QCOMPARE(starred[0].indexOf("alsa_output"), header.indexOf("UID"));
    }
};

QTEST_GUILESS_MAIN(TestDevicesCommand)
#include "tst_devicescommand.moc"
