#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QtTest>

#include <memory>

// The built `ondril` executable's command line: `ondril defaults`, the arguments of the other
// commands, and running headless. (What `devices` lists is the control server test's.) Every run
// gets a settings folder of its own, so that the real store of the user is never touched, and a
// sound server address where nothing answers.
class TestCommandLine : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_config;

    QProcessEnvironment environment() const {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("XDG_CONFIG_HOME", m_config->path());
        environment.insert("PULSE_SERVER", "unix:/nonexistent/ondril-test");
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

    QString storePath() const { return m_config->filePath("ondril/defaults.json"); }

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
        const auto row = [](const char* name, const QStringList& setup, const char* command,
                            int exitCode, const char* output) {
            QTest::newRow(name) << setup << QString(command) << exitCode << QString(output);
        };
        const char* read = "defaults read k";
        row("string is the default type", {"defaults write k hello"}, read, 0, "hello\n");
        row("bool", {"defaults write k --bool yes"}, read, 0, "true\n");
        row("int", {"defaults write k --int -3"}, read, 0, "-3\n");
        row("float", {"defaults write k --float 0.25"}, read, 0, "0.25\n");
        row("array", {"defaults write k --array a b"}, read, 0, "[\"a\", \"b\"]\n");
        row("dictionary", {"defaults write k --dict b 2 a 1"}, read, 0,
            "{\"a\": \"1\", \"b\": \"2\"}\n");
        row("data holding JSON", {"defaults write k --data-file FILE:groups.json"}, read, 0,
            "[\n    {\n        \"masterVolume\": 0.5,\n        \"name\": \"Desk\"\n    }\n]\n");
        row("other data", {"defaults write k --data-file FILE:blob"}, read, 0, "<base64:AP8Q>\n");
        row("all keys, sorted, data compact",
            {"defaults write z last", "defaults write a --bool no", "defaults write n --int 7",
             "defaults write g --data-file FILE:groups.json"},
            "defaults read", 0,
            "a = false\ng = [{\"masterVolume\":0.5,\"name\":\"Desk\"}]\nn = 7\nz = \"last\"\n");
        row("later write replaces the type",
            {"defaults write k --bool true", "defaults write k --string true"}, "defaults read", 0,
            "k = \"true\"\n");
        row("delete", {"defaults write k v", "defaults delete k"}, read, 1,
            "!the key k does not exist");
        row("delete of an absent key", {}, "defaults delete k", 1, "!the key k does not exist");
        row("not a bool", {}, "defaults write k --bool maybe", 2, "!--bool takes true, false");
        row("not an int", {}, "defaults write k --int 2.5", 2,
            "!--int takes a whole number, not '2.5'");
        row("not a finite float", {}, "defaults write k --float inf", 2,
            "!--float takes a finite number");
        row("odd dictionary", {}, "defaults write k --dict a 1 b", 2,
            "!--dict takes key and value pairs");
        row("unknown type", {}, "defaults write k --hex 1", 2, "!unknown type --hex");
        row("two strings", {}, "defaults write k one two", 2, "!--string takes exactly one value");
        row("option as the key", {}, "defaults write --bool k true", 2,
            "!needs a key before '--bool'");
        row("read with two keys", {}, "defaults read a b", 2, "!at most one key");
        row("no verb", {}, "defaults", 2, "!read, write or delete");
        row("unknown verb", {}, "defaults list", 2, "!unknown defaults command 'list'");
        row("data file that is missing", {}, "defaults write k --data-file /nonexistent/blob", 1,
            "!cannot read /nonexistent/blob");
        row("help", {}, "--help", 0, "Usage: ondril [options]…");
        row("devices help", {}, "devices --help", 0, "Usage: ondril devices…");
        row("defaults help", {}, "defaults --help", 0, "Usage: ondril defaults…");
        row("help in place of a key", {}, "defaults write --help x", 0, "Usage: ondril defaults…");
        row("no help-all", {}, "--help-all", 2, "!Unknown option 'help-all'. (see ondril --help)");
        row("unknown subcommand", {}, "list", 2, "!unknown subcommand 'list' (see ondril --help)");
        row("unknown backend", {}, "--backend=alsa devices", 2, "!unknown backend 'alsa'");
        // Exit 2, not the no-server failure: the arguments are checked before the server is asked.
        row("devices option", {}, "--backend=pulse devices --yaml", 2,
            "!unknown argument '--yaml' for devices");
        row("devices stray word", {}, "--backend=pulse devices --json all", 2,
            "!unknown argument 'all' for devices");
        // What `auto` does without a server is proven on the backend itself.
        row("devices without a server", {}, "--backend=pulse devices", 1,
            "!no sound server (PulseAudio or PipeWire) answered at /nonexistent/ondril-test");
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
        process.start(TestSupport::helperDirectory() + "/ondril", {"--backend=simulated"});
        while (!process.canReadLine())
            QVERIFY(process.waitForReadyRead(20000));
        const QString line = QString::fromUtf8(process.readLine());
        QVERIFY2(line.startsWith("ondril: ") && line.contains("headless"), qPrintable(line));
        // Up once it holds its name on the session bus; then SIGTERM is a clean quit.
        QVERIFY(QTest::qWaitFor(
            [] {
                return QDBusConnection::sessionBus().interface()->isServiceRegistered(
                    "com.kestrivane.Ondril");
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
