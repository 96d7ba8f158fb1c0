#include "TestSupport.h"

#include "platform/UserDefaults.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

// `ondril defaults`, each command run by the built executable with a fresh XDG_CONFIG_HOME, so
// that the real store of the user is never touched.
class TestDefaultsCommand : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_config;

    // "FILE:name" in an argument stands for a file of that name in the test's folder.
    TestSupport::Run run(const QString& command) {
        QStringList arguments = command.split(u' ', Qt::SkipEmptyParts);
        for (QString& argument : arguments)
            if (argument.startsWith(QLatin1String("FILE:")))
                argument = m_config->filePath(argument.mid(5));
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), m_config->path());
        return TestSupport::runOndril(QStringList{QStringLiteral("defaults")} + arguments,
                                      environment);
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
        QTest::addColumn<QString>("output"); // "!text": one line on stderr holding the text
        const QStringList none;
        QTest::newRow("string is the default type")
            << QStringList{"write k hello"} << "read k" << 0 << "hello\n";
        QTest::newRow("bool") << QStringList{"write k --bool yes"} << "read k" << 0 << "true\n";
        QTest::newRow("int") << QStringList{"write k --int -3"} << "read k" << 0 << "-3\n";
        QTest::newRow("float") << QStringList{"write k --float 0.25"} << "read k" << 0 << "0.25\n";
        QTest::newRow("array") << QStringList{"write k --array a b"} << "read k" << 0
                               << "[\"a\", \"b\"]\n";
        QTest::newRow("dictionary") << QStringList{"write k --dict b 2 a 1"} << "read k" << 0
                                    << "{\"a\": \"1\", \"b\": \"2\"}\n";
        QTest::newRow("data holding JSON")
            << QStringList{"write g --data-file FILE:groups.json"} << "read g" << 0
            << "[\n    {\n        \"masterVolume\": 0.5,\n        \"name\": \"Desk\"\n    }\n]\n";
        QTest::newRow("other data")
            << QStringList{"write b --data-file FILE:blob"} << "read b" << 0 << "<base64:AP8Q>\n";
        QTest::newRow("all keys, sorted, data compact")
            << QStringList{"write z last", "write a --bool no",
                           "write g --data-file FILE:groups.json"}
            << "read" << 0
            << "a = false\ng = [{\"masterVolume\":0.5,\"name\":\"Desk\"}]\nz = \"last\"\n";
        QTest::newRow("later write replaces the type")
            << QStringList{"write k --bool true", "write k --string true"} << "read" << 0
            << "k = \"true\"\n";
        QTest::newRow("delete") << QStringList{"write k v", "delete k"} << "read k" << 1
                                << "!the key k does not exist";
        QTest::newRow("delete of an absent key")
            << none << "delete k" << 1 << "!the key k does not exist";
        QTest::newRow("bool that is not one")
            << none << "write k --bool maybe" << 2 << "!--bool takes true, false";
        QTest::newRow("int that is not one")
            << none << "write k --int 2.5" << 2 << "!--int takes a whole number, not '2.5'";
        QTest::newRow("float that is not finite")
            << none << "write k --float inf" << 2 << "!--float takes a finite number";
        QTest::newRow("dictionary with an odd count")
            << none << "write k --dict a 1 b" << 2 << "!--dict takes key and value pairs";
        QTest::newRow("unknown type") << none << "write k --hex 1" << 2 << "!unknown type --hex";
        QTest::newRow("string with two values")
            << none << "write k one two" << 2 << "!--string takes exactly one value";
        QTest::newRow("option in place of the key")
            << none << "write --bool k true" << 2 << "!needs a key before '--bool'";
        QTest::newRow("read with two keys") << none << "read a b" << 2 << "!at most one key";
        QTest::newRow("no verb") << none << "" << 2 << "!read, write or delete";
        QTest::newRow("unknown verb") << none << "list" << 2 << "!unknown defaults command 'list'";
        QTest::newRow("data file that is missing")
            << none << "write k --data-file /nonexistent/blob" << 1
            << "!cannot read /nonexistent/blob";
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
        if (!output.startsWith(u'!')) {
            QCOMPARE(outcome.out, output);
            QCOMPARE(outcome.err, QString());
            return;
        }
        QCOMPARE(outcome.out, QString());
        QVERIFY2(outcome.err.startsWith("ondril: ") && outcome.err.contains(output.mid(1)),
                 qPrintable(outcome.err));
        QCOMPARE(outcome.err.count(u'\n'), 1);
    }

    void writtenValuesReachTheStoreWithTheirTypes() {
        QCOMPARE(run("write flag --bool no").exitCode, 0);
        QCOMPARE(run("write count --int 7").exitCode, 0);
        QCOMPARE(run("write blob --data-file FILE:blob").exitCode, 0);
        UserDefaults store(storePath());
        QCOMPARE(store.storedBoolForKey("flag"), false);
        QCOMPARE(store.objectForKey("count"), QVariant(7.0));
        QCOMPARE(store.dataForKey("blob"), QByteArray("\x00\xff\x10", 3));
    }

    void storeThatCannotBeReadFailsAndStaysAsItIs() {
        // A folder in place of the file: it exists and cannot be read, also by root.
        QVERIFY(QDir().mkpath(storePath()));
        for (const QString command : {"read", "write k v"}) {
            const TestSupport::Run outcome = run(command);
            QCOMPARE(outcome.exitCode, 1);
            QVERIFY2(outcome.err.startsWith("ondril: cannot read the settings file " + storePath()),
                     qPrintable(outcome.err));
        }
        QVERIFY(QFileInfo(storePath()).isDir());
    }
};

QTEST_GUILESS_MAIN(TestDefaultsCommand)
#include "tst_defaultscommand.moc"
