#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

// The built `ondril` executable's command line: `ondril defaults`, the arguments of the other
// commands, and running headless. (What `devices` lists is the devices server test's.) Every run
// gets a settings folder of its own, so that the real store of the user is never touched, and a
// sound server address where nothing answers.
class TestCommandLine : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_config;

    QProcessEnvironment environment() const {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), m_config->path());
        environment.insert(QStringLiteral("PULSE_SERVER"), "unix:/nonexistent/ondril-test");
        return environment;
    }

    // "FILE:name" in an argument stands for a file of that name in the test's folder.
    TestSupport::Run run(const QString& command) {
        QStringList arguments = command.split(u' ', Qt::SkipEmptyParts);
        for (QString& argument : arguments)
            if (argument.startsWith(QLatin1String("FILE:")))
                argument = m_config->filePath(argument.mid(5));
        return TestSupport::runOndril(arguments, environment());
    }

    void writeFile(const QString& name, const QByteArray& bytes) {
        QFile file(m_config->filePath(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(bytes);
    }

    QString storePath() const { return m_config->filePath(QStringLiteral("ondril/defaults.json")); }

private slots:
    void init() {
        m_config = std::make_unique<QTemporaryDir>();
        QVERIFY(m_config->isValid());
        writeFile("blob", QByteArray("\x00\xff\x10", 3));
        writeFile("groups.json", R"([{"name":"Desk","masterVolume":0.5}])");
    }

    void commandGivesStatusAndOutput_data() {
        QTest::addColumn<QStringList>("setup");
        QTest::addColumn<QString>("command");
        QTest::addColumn<int>("exitCode");
        // What stdout holds ("…" at the end: how it starts); "!text": one line on stderr holding
        // the text.
        QTest::addColumn<QString>("output");
        const QStringList none;
        QTest::newRow("string is the default type")
            << QStringList{"defaults write k hello"} << "defaults read k" << 0 << "hello\n";
        QTest::newRow("bool") << QStringList{"defaults write k --bool yes"} << "defaults read k"
                              << 0 << "true\n";
        QTest::newRow("int") << QStringList{"defaults write k --int -3"} << "defaults read k" << 0
                             << "-3\n";
        QTest::newRow("float") << QStringList{"defaults write k --float 0.25"} << "defaults read k"
                               << 0 << "0.25\n";
        QTest::newRow("array") << QStringList{"defaults write k --array a b"} << "defaults read k"
                               << 0 << "[\"a\", \"b\"]\n";
        QTest::newRow("dictionary") << QStringList{"defaults write k --dict b 2 a 1"}
                                    << "defaults read k" << 0 << "{\"a\": \"1\", \"b\": \"2\"}\n";
        QTest::newRow("data holding JSON")
            << QStringList{"defaults write g --data-file FILE:groups.json"} << "defaults read g"
            << 0
            << "[\n    {\n        \"masterVolume\": 0.5,\n        \"name\": \"Desk\"\n    }\n]\n";
        QTest::newRow("other data") << QStringList{"defaults write b --data-file FILE:blob"}
                                    << "defaults read b" << 0 << "<base64:AP8Q>\n";
        QTest::newRow("all keys, sorted, data compact")
            << QStringList{"defaults write z last", "defaults write a --bool no",
                           "defaults write n --int 7",
                           "defaults write g --data-file FILE:groups.json"}
            << "defaults read" << 0
            << "a = false\ng = [{\"masterVolume\":0.5,\"name\":\"Desk\"}]\nn = 7\nz = \"last\"\n";
        QTest::newRow("later write replaces the type")
            << QStringList{"defaults write k --bool true", "defaults write k --string true"}
            << "defaults read" << 0 << "k = \"true\"\n";
        QTest::newRow("delete") << QStringList{"defaults write k v", "defaults delete k"}
                                << "defaults read k" << 1 << "!the key k does not exist";
        QTest::newRow("delete of an absent key")
            << none << "defaults delete k" << 1 << "!the key k does not exist";
        QTest::newRow("bool that is not one")
            << none << "defaults write k --bool maybe" << 2 << "!--bool takes true, false";
        QTest::newRow("int that is not one") << none << "defaults write k --int 2.5" << 2
                                             << "!--int takes a whole number, not '2.5'";
        QTest::newRow("float that is not finite")
            << none << "defaults write k --float inf" << 2 << "!--float takes a finite number";
        QTest::newRow("dictionary with an odd count")
            << none << "defaults write k --dict a 1 b" << 2 << "!--dict takes key and value pairs";
        QTest::newRow("unknown type")
            << none << "defaults write k --hex 1" << 2 << "!unknown type --hex";
        QTest::newRow("string with two values")
            << none << "defaults write k one two" << 2 << "!--string takes exactly one value";
        QTest::newRow("option in place of the key")
            << none << "defaults write --bool k true" << 2 << "!needs a key before '--bool'";
        QTest::newRow("read with two keys")
            << none << "defaults read a b" << 2 << "!at most one key";
        QTest::newRow("no verb") << none << "defaults" << 2 << "!read, write or delete";
        QTest::newRow("unknown verb")
            << none << "defaults list" << 2 << "!unknown defaults command 'list'";
        QTest::newRow("data file that is missing")
            << none << "defaults write k --data-file /nonexistent/blob" << 1
            << "!cannot read /nonexistent/blob";
        QTest::newRow("help") << none << "--help" << 0 << "Usage: ondril [options]…";
        QTest::newRow("devices help") << none << "devices --help" << 0 << "Usage: ondril devices…";
        QTest::newRow("defaults help")
            << none << "defaults --help" << 0 << "Usage: ondril defaults…";
        QTest::newRow("help in place of a key")
            << none << "defaults write --help x" << 0 << "Usage: ondril defaults…";
        QTest::newRow("help-all is not offered")
            << none << "--help-all" << 2 << "!Unknown option 'help-all'. (see ondril --help)";
        QTest::newRow("unknown subcommand")
            << none << "list" << 2 << "!unknown subcommand 'list' (see ondril --help)";
        QTest::newRow("unknown backend")
            << none << "--backend=alsa devices" << 2 << "!unknown backend 'alsa'";
        // Exit 2, not the no-server failure: the arguments are checked before the server is asked.
        QTest::newRow("devices option") << none << "--backend=pulse devices --yaml" << 2
                                        << "!unknown argument '--yaml' for devices";
        QTest::newRow("devices stray word") << none << "--backend=pulse devices --json all" << 2
                                            << "!unknown argument 'all' for devices";
    }

    void commandGivesStatusAndOutput() {
        QFETCH(QStringList, setup);
        QFETCH(QString, command);
        QFETCH(int, exitCode);
        QFETCH(QString, output);
        for (const QString& step : setup) {
            const TestSupport::Run outcome = run(step);
            QVERIFY2(outcome.exitCode == 0, qPrintable(outcome.err));
        }
        const TestSupport::Run outcome = run(command);
        QCOMPARE(outcome.exitCode, exitCode);
        if (setup.isEmpty() && exitCode != 1) // refused before anything is done
            QVERIFY(!QFileInfo::exists(storePath()));
        if (output.endsWith(u'…')) {
            QVERIFY2(outcome.out.startsWith(output.chopped(1)), qPrintable(outcome.out));
            QCOMPARE(outcome.err, QString());
        } else if (!output.startsWith(u'!')) {
            QCOMPARE(outcome.out, output);
            QCOMPARE(outcome.err, QString());
        } else {
            QCOMPARE(outcome.out, QString());
            QVERIFY2(outcome.err.startsWith("ondril: ") && outcome.err.contains(output.mid(1)),
                     qPrintable(outcome.err));
            QCOMPARE(outcome.err.count(u'\n'), 1);
        }
    }

    void storeThatCannotBeReadFailsAndStaysAsItIs() {
        // A folder in place of the file: it exists and cannot be read, also by root.
        QVERIFY(QDir().mkpath(storePath()));
        for (const QString command : {"read", "write k v"}) {
            const TestSupport::Run outcome = run("defaults " + command);
            QCOMPARE(outcome.exitCode, 1);
            QVERIFY2(outcome.err.startsWith("ondril: cannot read the settings file " + storePath()),
                     qPrintable(outcome.err));
        }
        QVERIFY(QFileInfo(storePath()).isDir());
    }

    void withoutADisplayOndrilRunsHeadlessAndQuitsOnSigterm() {
        QProcess process;
        QProcessEnvironment environment = this->environment();
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
};

QTEST_GUILESS_MAIN(TestCommandLine)
#include "tst_commandline.moc"
