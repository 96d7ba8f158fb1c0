#include "app/CommandLine.h"
#include "platform/UserDefaults.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace {

struct Outcome {
    int exitCode = -1;
    QString out;
    QString err;
};

} // namespace

// Each command runs in a child process (this executable, re-run with --child-defaults) whose
// XDG_CONFIG_HOME is a fresh folder, so that the real store of the user is never touched.
class TestDefaultsCommand : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_config;
    QString m_dataFile;

    Outcome run(const QStringList& arguments) {
        QProcess child;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), m_config->path());
        child.setProcessEnvironment(environment);
        child.start(QCoreApplication::applicationFilePath(),
                    QStringList{QStringLiteral("--child-defaults")} + arguments);
        Outcome outcome;
        if (!child.waitForFinished(30000))
            return outcome;
        outcome.exitCode = child.exitStatus() == QProcess::NormalExit ? child.exitCode() : -2;
        outcome.out = QString::fromUtf8(child.readAllStandardOutput());
        outcome.err = QString::fromUtf8(child.readAllStandardError());
        return outcome;
    }

    QString storePath() const { return m_config->path() + QStringLiteral("/ondril/defaults.json"); }

private slots:
    void init() {
        m_config = std::make_unique<QTemporaryDir>();
        QVERIFY(m_config->isValid());
        m_dataFile = m_config->path() + QStringLiteral("/blob.bin");
        QFile file(m_dataFile);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray("\x00\xff\x10", 3));
    }

    void commandGivesStatusAndOutput_data() {
        QTest::addColumn<QList<QStringList>>("setup");
        QTest::addColumn<QStringList>("command");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("out");
        QTest::addColumn<QString>("errContains");

        const auto args = [](const char* text) { return QString::fromUtf8(text).split(u' '); };
        const QList<QStringList> none;

        QTest::newRow("string is the default type")
            << QList<QStringList>{args("write k hello")} << args("read k") << 0 << "hello\n"
            << "";
        QTest::newRow("bool written as a flag")
            << QList<QStringList>{args("write k --bool yes")} << args("read k") << 0 << "true\n"
            << "";
        QTest::newRow("bool false")
            << QList<QStringList>{args("write k --bool 0")} << args("read k") << 0 << "false\n"
            << "";
        QTest::newRow("array of the remaining values")
            << QList<QStringList>{args("write k --array a b c")} << args("read k") << 0
            << "[\"a\", \"b\", \"c\"]\n"
            << "";
        QTest::newRow("empty array")
            << QList<QStringList>{args("write k --array")} << args("read k") << 0 << "[]\n"
            << "";
        QTest::newRow("dictionary of pairs")
            << QList<QStringList>{args("write k --dict b 2 a 1")} << args("read k") << 0
            << "{\"a\": \"1\", \"b\": \"2\"}\n"
            << "";
        QTest::newRow("read all keys, sorted")
            << QList<QStringList>{args("write z last"), args("write a --bool no")} << args("read")
            << 0 << "a = false\nz = \"last\"\n"
            << "";
        QTest::newRow("read of an empty store") << none << args("read") << 0 << ""
                                                << "";
        QTest::newRow("later write replaces the type")
            << QList<QStringList>{args("write k --bool true"), args("write k --string true")}
            << args("read") << 0 << "k = \"true\"\n"
            << "";
        QTest::newRow("delete removes the key")
            << QList<QStringList>{args("write k v"), args("delete k")} << args("read k") << 1 << ""
            << "the key k does not exist";
        QTest::newRow("read of an absent key") << none << args("read nothing") << 1 << ""
                                               << "the key nothing does not exist";
        QTest::newRow("delete of an absent key") << none << args("delete nothing") << 1 << ""
                                                 << "the key nothing does not exist";
        QTest::newRow("bool that is not one") << none << args("write k --bool maybe") << 2 << ""
                                              << "--bool takes true, false";
        QTest::newRow("dictionary with an odd count")
            << none << args("write k --dict a 1 b") << 2 << ""
            << "--dict takes key and value pairs";
        QTest::newRow("unknown type flag") << none << args("write k --float 1") << 2 << ""
                                           << "unknown type --float";
        QTest::newRow("string with two values") << none << args("write k one two") << 2 << ""
                                                << "--string takes exactly one value";
        QTest::newRow("write without a value") << none << args("write k") << 2 << ""
                                               << "--string takes exactly one value";
        QTest::newRow("write without a key") << none << args("write") << 2 << ""
                                             << "defaults write needs a key";
        QTest::newRow("read with two keys") << none << args("read a b") << 2 << ""
                                            << "at most one key";
        QTest::newRow("no verb") << none << QStringList{} << 2 << ""
                                 << "read, write or delete";
        QTest::newRow("unknown verb") << none << args("list") << 2 << ""
                                      << "unknown defaults command 'list'";
        QTest::newRow("data file that is missing")
            << none << args("write k --data-file /nonexistent/ondril-blob") << 1 << ""
            << "cannot read /nonexistent/ondril-blob";
    }

    void commandGivesStatusAndOutput() {
        QFETCH(QList<QStringList>, setup);
        QFETCH(QStringList, command);
        QFETCH(int, exitCode);
        QFETCH(QString, out);
        QFETCH(QString, errContains);
        for (const QStringList& step : setup) {
            const Outcome outcome = run(step);
            QVERIFY2(outcome.exitCode == 0, qPrintable(outcome.err));
        }
        const Outcome outcome = run(command);
        QCOMPARE(outcome.exitCode, exitCode);
        QCOMPARE(outcome.out, out);
        if (errContains.isEmpty()) {
            QCOMPARE(outcome.err, QString());
        } else {
            QVERIFY2(outcome.err.contains(errContains), qPrintable(outcome.err));
            QCOMPARE(outcome.err.count(u'\n'), 1); // one line
            QVERIFY(outcome.err.startsWith(QStringLiteral("ondril: ")));
        }
    }

    void writtenValuesReachTheStoreWithTheirTypes() {
        QCOMPARE(run({QStringLiteral("write"), QStringLiteral("flag"), QStringLiteral("--bool"),
                      QStringLiteral("no")})
                     .exitCode,
                 0);
        QCOMPARE(run({QStringLiteral("write"), QStringLiteral("blob"),
                      QStringLiteral("--data-file"), m_dataFile})
                     .exitCode,
                 0);
        QCOMPARE(run({QStringLiteral("write"), QStringLiteral("names"), QStringLiteral("--dict"),
                      QStringLiteral("uid:1"), QStringLiteral("Desk speakers")})
                     .exitCode,
                 0);
        UserDefaults store(storePath());
        QCOMPARE(store.storedBoolForKey(QStringLiteral("flag")), std::optional<bool>(false));
        QCOMPARE(store.dataForKey(QStringLiteral("blob")),
                 std::optional<QByteArray>(QByteArray("\x00\xff\x10", 3)));
        QCOMPARE(store.stringDictionaryForKey(QStringLiteral("names")),
                 (std::optional<QMap<QString, QString>>(QMap<QString, QString>{
                     {QStringLiteral("uid:1"), QStringLiteral("Desk speakers")}})));
    }

    void dataIsReadBackAsHex() {
        QCOMPARE(run({QStringLiteral("write"), QStringLiteral("blob"),
                      QStringLiteral("--data-file"), m_dataFile})
                     .exitCode,
                 0);
        const Outcome outcome = run({QStringLiteral("read"), QStringLiteral("blob")});
        QCOMPARE(outcome.exitCode, 0);
        QCOMPARE(outcome.out, QStringLiteral("<00ff10>\n"));
    }

    void malformedWriteLeavesTheStoreAlone() {
        QCOMPARE(
            run({QStringLiteral("write"), QStringLiteral("k"), QStringLiteral("kept")}).exitCode,
            0);
        QCOMPARE(run({QStringLiteral("write"), QStringLiteral("k"), QStringLiteral("--bool"),
                      QStringLiteral("perhaps")})
                     .exitCode,
                 2);
        QCOMPARE(UserDefaults(storePath()).stringForKey(QStringLiteral("k")),
                 std::optional<QString>(QStringLiteral("kept")));
    }

    void valueWrittenByTheProgramIsRead() {
        QVERIFY(UserDefaults(storePath())
                    .setStringArray({QStringLiteral("a\"b")}, QStringLiteral("list")));
        const Outcome outcome = run({QStringLiteral("read"), QStringLiteral("list")});
        QCOMPARE(outcome.exitCode, 0);
        QCOMPARE(outcome.out, QStringLiteral("[\"a\\\"b\"]\n"));
    }
};

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() >= 2 && arguments[1] == QLatin1String("--child-defaults"))
        return DefaultsCommand::run(arguments.mid(2));
    TestDefaultsCommand test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_defaultscommand.moc"
