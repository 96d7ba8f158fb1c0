#include "platform/UserDefaults.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QPoint>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int tornValueLength = 400000;

// The value a writer child stores at step n: its number, then one letter repeated. A torn write
// shows as a wrong length or a letter that does not belong to the number.
QString writerValue(int n) {
    return QString::number(n) + u':' + QString(tornValueLength, QChar(u'a' + n % 26));
}

std::optional<int> writerStep(const QString& value) {
    const auto colon = value.indexOf(u':');
    bool ok = false;
    const int n = value.left(colon).toInt(&ok);
    if (colon < 0 || !ok || value.size() != colon + 1 + tornValueLength)
        return std::nullopt;
    const QChar letter(u'a' + n % 26);
    for (qsizetype i = colon + 1; i < value.size(); ++i)
        if (value[i] != letter)
            return std::nullopt;
    return n;
}

// Child: keeps writing ever larger step numbers under one key until killed.
int runWriter(const QString& path) {
    UserDefaults defaults(path);
    int n = 0;
    if (auto stored = defaults.stringForKey(QStringLiteral("big")))
        n = writerStep(*stored).value_or(-1) + 1;
    for (;; ++n) {
        if (!defaults.setString(writerValue(n), QStringLiteral("big")))
            return 3;
    }
}

// Child: writes `count` keys of its own, each with its own instance's stale view.
int runKeyWriter(const QString& path, const QString& prefix, int count) {
    UserDefaults defaults(path);
    for (int i = 0; i < count; ++i)
        if (!defaults.setString(prefix + QString::number(i), prefix + u'.' + QString::number(i)))
            return 3;
    return 0;
}

QByteArray readBytes(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

void writeBytes(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(file.write(bytes), bytes.size());
}

// Sends this process's stderr to a file while it lives, so that warnings can be read back.
class StderrCapture {
public:
    explicit StderrCapture(const QString& path)
        : m_path(path) {
        std::fflush(stderr);
        m_saved = ::dup(2);
        const int fd =
            ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(fd, 2);
        ::close(fd);
    }
    ~StderrCapture() { restore(); }
    QString text() {
        restore();
        return QString::fromLocal8Bit(readBytes(m_path));
    }

private:
    void restore() {
        if (m_saved < 0)
            return;
        std::fflush(stderr);
        ::dup2(m_saved, 2);
        ::close(m_saved);
        m_saved = -1;
    }
    QString m_path;
    int m_saved = -1;
};

QByteArray allByteValues() {
    QByteArray bytes;
    for (int i = 0; i < 256; ++i)
        bytes.append(char(i));
    return bytes;
}

} // namespace

class TestUserDefaults : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_path;

private slots:
    void init() {
        QVERIFY(m_dir.isValid());
        const QString folder =
            m_dir.path() + u'/' + QString::number(QRandomGenerator::global()->generate());
        QVERIFY(QDir().mkpath(folder));
        m_path = folder + QStringLiteral("/ondril/defaults.json");
    }

    void valueKeepsItsTypeAcrossTheFile_data() {
        QTest::addColumn<QVariant>("value");
        QTest::newRow("true") << QVariant(true);
        QTest::newRow("false") << QVariant(false);
        QTest::newRow("number") << QVariant(0.0625);
        QTest::newRow("negative number") << QVariant(-12345.5);
        QTest::newRow("empty string") << QVariant(QString());
        QTest::newRow("string looking like a bool") << QVariant(QStringLiteral("true"));
        QTest::newRow("unicode string") << QVariant(QStringLiteral("Kopfhörer \"links\"\n🎧"));
        QTest::newRow("empty array") << QVariant(QVariantList());
        QTest::newRow("string array") << QVariant(
            QVariantList{QStringLiteral("b"), QStringLiteral("a"), QStringLiteral("b")});
        QTest::newRow("mixed array") << QVariant(
            QVariantList{true, 2.0, QByteArray("\0\1", 2), QVariantList{QStringLiteral("x")}});
        QTest::newRow("dictionary")
            << QVariant(QVariantMap{{QStringLiteral("uid:1"), QStringLiteral("Desk")},
                                    {QStringLiteral("flag"), false},
                                    {QStringLiteral("blob"), QByteArray("\xff\xfe")}});
        QTest::newRow("all 256 byte values") << QVariant(allByteValues());
        QTest::newRow("empty data") << QVariant(QByteArray());
    }

    void valueKeepsItsTypeAcrossTheFile() {
        QFETCH(QVariant, value);
        {
            UserDefaults writer(m_path);
            QVERIFY(writer.setObject(value, QStringLiteral("key")));
        }
        UserDefaults reader(m_path);
        const auto stored = reader.objectForKey(QStringLiteral("key"));
        QVERIFY(stored.has_value());
        QCOMPARE(stored->typeId(), value.typeId());
        QCOMPARE(*stored, value);
    }

    void absentKeyIsToldFromFalseAndEmpty() {
        UserDefaults writer(m_path);
        QVERIFY(writer.setBool(false, QStringLiteral("off")));
        QVERIFY(writer.setString(QString(), QStringLiteral("blank")));
        QVERIFY(writer.setData(QByteArray(), QStringLiteral("nothing")));

        UserDefaults reader(m_path);
        QCOMPARE(reader.storedBoolForKey(QStringLiteral("off")), std::optional<bool>(false));
        QCOMPARE(reader.storedBoolForKey(QStringLiteral("missing")), std::nullopt);
        QCOMPARE(reader.stringForKey(QStringLiteral("blank")), std::optional<QString>(QString()));
        QCOMPARE(reader.stringForKey(QStringLiteral("missing")), std::nullopt);
        QCOMPARE(reader.dataForKey(QStringLiteral("nothing")),
                 std::optional<QByteArray>(QByteArray()));
        QCOMPARE(reader.dataForKey(QStringLiteral("missing")), std::nullopt);
        QCOMPARE(reader.objectForKey(QStringLiteral("missing")), std::nullopt);
        QCOMPARE(reader.allKeys(), (QStringList{QStringLiteral("blank"), QStringLiteral("nothing"),
                                                QStringLiteral("off")}));
    }

    void readOfTheWrongTypeGivesAbsent_data() {
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<QString>("accessor");
        QTest::newRow("string read as bool") << QVariant(QStringLiteral("true")) << "bool";
        QTest::newRow("number read as bool") << QVariant(1.0) << "bool";
        QTest::newRow("bool read as string") << QVariant(true) << "string";
        QTest::newRow("data read as string") << QVariant(QByteArray("abc")) << "string";
        QTest::newRow("string read as data") << QVariant(QStringLiteral("abc")) << "data";
        QTest::newRow("string read as array") << QVariant(QStringLiteral("a")) << "array";
        QTest::newRow("array with a number")
            << QVariant(QVariantList{QStringLiteral("a"), 1.0}) << "array";
        QTest::newRow("array read as dictionary") << QVariant(QVariantList{}) << "dictionary";
        QTest::newRow("dictionary with a bool")
            << QVariant(QVariantMap{{QStringLiteral("a"), QStringLiteral("x")},
                                    {QStringLiteral("b"), true}})
            << "dictionary";
    }

    void readOfTheWrongTypeGivesAbsent() {
        QFETCH(QVariant, stored);
        QFETCH(QString, accessor);
        UserDefaults defaults(m_path);
        QVERIFY(defaults.setObject(stored, QStringLiteral("key")));
        const QString key = QStringLiteral("key");
        bool present = true;
        if (accessor == QLatin1String("bool")) {
            present = defaults.storedBoolForKey(key).has_value();
            QCOMPARE(defaults.boolForKey(key), false);
        } else if (accessor == QLatin1String("string")) {
            present = defaults.stringForKey(key).has_value();
        } else if (accessor == QLatin1String("data")) {
            present = defaults.dataForKey(key).has_value();
        } else if (accessor == QLatin1String("array")) {
            present = defaults.stringArrayForKey(key).has_value();
        } else if (accessor == QLatin1String("dictionary")) {
            present = defaults.stringDictionaryForKey(key).has_value();
        }
        QVERIFY(!present);
        QVERIFY(defaults.objectForKey(key).has_value());
    }

    void typedAccessorsReadWhatTypedSettersWrote() {
        UserDefaults defaults(m_path);
        const QStringList list{QStringLiteral("z"), QStringLiteral("a")};
        const QMap<QString, QString> map{{QStringLiteral("k"), QStringLiteral("v")}};
        QVERIFY(defaults.setStringArray(list, QStringLiteral("list")));
        QVERIFY(defaults.setStringDictionary(map, QStringLiteral("map")));
        QVERIFY(defaults.setBool(true, QStringLiteral("on")));
        UserDefaults reader(m_path);
        QCOMPARE(reader.stringArrayForKey(QStringLiteral("list")),
                 std::optional<QStringList>(list));
        QCOMPARE(reader.stringDictionaryForKey(QStringLiteral("map")),
                 (std::optional<QMap<QString, QString>>(map)));
        QCOMPARE(reader.boolForKey(QStringLiteral("on")), true);
    }

    void removedKeyIsAbsentForOtherReaders() {
        UserDefaults writer(m_path);
        UserDefaults reader(m_path);
        QVERIFY(writer.setString(QStringLiteral("x"), QStringLiteral("key")));
        QCOMPARE(reader.stringForKey(QStringLiteral("key")),
                 std::optional<QString>(QStringLiteral("x")));
        QVERIFY(writer.removeObjectForKey(QStringLiteral("key")));
        QCOMPARE(reader.objectForKey(QStringLiteral("key")), std::nullopt);
    }

    void changeByAnotherWriterIsSeenByTheNextRead() {
        UserDefaults mine(m_path);
        UserDefaults theirs(m_path);
        QVERIFY(mine.setString(QStringLiteral("old"), QStringLiteral("key")));
        QCOMPARE(theirs.stringForKey(QStringLiteral("key")),
                 std::optional<QString>(QStringLiteral("old")));
        QVERIFY(theirs.setString(QStringLiteral("new"), QStringLiteral("key")));
        QCOMPARE(mine.stringForKey(QStringLiteral("key")),
                 std::optional<QString>(QStringLiteral("new")));
    }

    void fileEditedInPlaceIsSeenByTheNextRead() {
        UserDefaults defaults(m_path);
        QVERIFY(defaults.setString(QStringLiteral("before"), QStringLiteral("key")));
        writeBytes(m_path,
                   "{\"format\": 1, \"values\": {\"key\": {\"type\": \"string\", \"value\": "
                   "\"edited by hand\"}, \"flag\": {\"type\": \"bool\", \"value\": false}}}");
        QCOMPARE(defaults.stringForKey(QStringLiteral("key")),
                 std::optional<QString>(QStringLiteral("edited by hand")));
        QCOMPARE(defaults.storedBoolForKey(QStringLiteral("flag")), std::optional<bool>(false));
    }

    void writeKeepsKeysThatAnotherWriterAddedMeanwhile() {
        UserDefaults mine(m_path);
        UserDefaults theirs(m_path);
        QCOMPARE(mine.allKeys(), QStringList());
        QVERIFY(theirs.setString(QStringLiteral("theirs"), QStringLiteral("a")));
        // `mine` has not read since; its write must still start from the file as it is now.
        QVERIFY(mine.setString(QStringLiteral("mine"), QStringLiteral("b")));
        UserDefaults fresh(m_path);
        QCOMPARE(fresh.stringForKey(QStringLiteral("a")),
                 std::optional<QString>(QStringLiteral("theirs")));
        QCOMPARE(fresh.stringForKey(QStringLiteral("b")),
                 std::optional<QString>(QStringLiteral("mine")));
    }

    void unreadableFileIsMovedAsideAndTheStoreStartsEmpty_data() {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("garbage") << QByteArray("\x00\x01not json at all", 17);
        QTest::newRow("truncated")
            << QByteArray("{\"format\": 1, \"values\": {\"key\": {\"type\": \"str");
        QTest::newRow("unknown format") << QByteArray("{\"format\": 7, \"values\": {}}");
        QTest::newRow("json array") << QByteArray("[1, 2, 3]");
        QTest::newRow("bad base64") << QByteArray(
            "{\"format\": 1, \"values\": {\"k\": {\"type\": \"data\", \"value\": \"!!!\"}}}");
        QTest::newRow("type and value disagree") << QByteArray(
            "{\"format\": 1, \"values\": {\"k\": {\"type\": \"bool\", \"value\": \"yes\"}}}");
    }

    void unreadableFileIsMovedAsideAndTheStoreStartsEmpty() {
        QFETCH(QByteArray, bytes);
        QVERIFY(QDir().mkpath(QFileInfo(m_path).absolutePath()));
        writeBytes(m_path, bytes);

        StderrCapture capture(m_dir.path() + QStringLiteral("/stderr.txt"));
        UserDefaults defaults(m_path);
        QCOMPARE(defaults.allKeys(), QStringList());
        const QString warning = capture.text();

        const QDir folder = QFileInfo(m_path).absoluteDir();
        const QStringList aside = folder.entryList({QStringLiteral("defaults.json.corrupt-*")});
        QCOMPARE(aside.size(), 1);
        const QString asidePath = folder.filePath(aside.first());
        QCOMPARE(readBytes(asidePath), bytes);
        QVERIFY(!QFile::exists(m_path));
        QCOMPARE(warning.count(u'\n'), 1);
        QVERIFY2(warning.startsWith(QStringLiteral("ondril: settings file ")), qPrintable(warning));
        QVERIFY2(warning.contains(asidePath), qPrintable(warning));
        QVERIFY(warning.contains(QStringLiteral("starting with empty settings")));

        // The store works on; the moved file is left alone.
        QVERIFY(defaults.setBool(true, QStringLiteral("after")));
        QCOMPARE(UserDefaults(m_path).storedBoolForKey(QStringLiteral("after")),
                 std::optional<bool>(true));
        QCOMPARE(readBytes(asidePath), bytes);
    }

    void fileCorruptedWhileRunningIsMovedAsideOnTheNextRead() {
        UserDefaults defaults(m_path);
        QVERIFY(defaults.setString(QStringLiteral("v"), QStringLiteral("key")));
        writeBytes(m_path, "{ broken, and longer than before");
        StderrCapture capture(m_dir.path() + QStringLiteral("/stderr2.txt"));
        QCOMPARE(defaults.objectForKey(QStringLiteral("key")), std::nullopt);
        QVERIFY(capture.text().contains(QStringLiteral("moved aside")));
        const QDir folder = QFileInfo(m_path).absoluteDir();
        QCOMPARE(folder.entryList({QStringLiteral("defaults.json.corrupt-*")}).size(), 1);
    }

    void failedWriteLeavesMemoryAndFileAsTheyWere() {
        UserDefaults defaults(m_path);
        QVERIFY(defaults.setString(QStringLiteral("old"), QStringLiteral("key")));
        const QByteArray before = readBytes(m_path);
        // A folder where the lock file belongs makes every write fail, even for root.
        QVERIFY(QFile::remove(m_path + QStringLiteral(".lock")));
        QVERIFY(QDir().mkpath(m_path + QStringLiteral(".lock")));

        QVERIFY(!defaults.setString(QStringLiteral("new"), QStringLiteral("key")));
        QVERIFY(!defaults.setBool(true, QStringLiteral("other")));
        QVERIFY(!defaults.removeObjectForKey(QStringLiteral("key")));
        QCOMPARE(defaults.stringForKey(QStringLiteral("key")),
                 std::optional<QString>(QStringLiteral("old")));
        QCOMPARE(defaults.objectForKey(QStringLiteral("other")), std::nullopt);
        QCOMPARE(readBytes(m_path), before);
    }

    void writeUnderAnUncreatableFolderFails() {
        const QString blocker = QFileInfo(m_path).absolutePath();
        QVERIFY(QDir().mkpath(QFileInfo(blocker).absolutePath()));
        writeBytes(blocker, "a plain file where the folder should be");
        UserDefaults defaults(m_path);
        QVERIFY(!defaults.setBool(true, QStringLiteral("key")));
        QCOMPARE(defaults.objectForKey(QStringLiteral("key")), std::nullopt);
    }

    void valuesOfUnsupportedTypesAreRefused() {
        UserDefaults defaults(m_path);
        QVERIFY(!defaults.setObject(QVariant(QPoint(1, 2)), QStringLiteral("key")));
        QVERIFY(!defaults.setObject(QVariant(QVariantList{QVariant(QPoint(1, 2))}),
                                    QStringLiteral("key")));
        QCOMPARE(defaults.objectForKey(QStringLiteral("key")), std::nullopt);
        QVERIFY(!QFile::exists(m_path));
    }

    void standardFileFollowsXdgConfigHome() {
        const QByteArray savedConfig = qgetenv("XDG_CONFIG_HOME");
        const QByteArray savedHome = qgetenv("HOME");
        qputenv("XDG_CONFIG_HOME", "/tmp/ondril-config-test");
        QCOMPARE(UserDefaults::standardFilePath(),
                 QStringLiteral("/tmp/ondril-config-test/ondril/defaults.json"));
        qunsetenv("XDG_CONFIG_HOME");
        qputenv("HOME", "/tmp/ondril-home-test");
        QCOMPARE(UserDefaults::standardFilePath(),
                 QStringLiteral("/tmp/ondril-home-test/.config/ondril/defaults.json"));
        qputenv("XDG_CONFIG_HOME", savedConfig);
        qputenv("HOME", savedHome);
    }

    void writerKilledAtAnyPointLeavesTheOldOrTheNewValue() {
        int lastStep = -1;
        int kills = 0;
        for (int round = 0; round < 30; ++round) {
            QProcess writer;
            writer.setProcessChannelMode(QProcess::ForwardedErrorChannel);
            writer.start(QCoreApplication::applicationFilePath(),
                         {QStringLiteral("--child-writer"), m_path});
            QVERIFY(writer.waitForStarted());
            QThread::msleep(20 + QRandomGenerator::global()->bounded(120));
            if (writer.state() != QProcess::Running) {
                QFAIL(qPrintable(
                    QStringLiteral("writer stopped on its own, status %1").arg(writer.exitCode())));
            }
            writer.kill();
            QVERIFY(writer.waitForFinished());
            ++kills;

            StderrCapture capture(m_dir.path() + QStringLiteral("/kill-stderr.txt"));
            UserDefaults reader(m_path);
            const auto stored = reader.stringForKey(QStringLiteral("big"));
            QCOMPARE(capture.text(), QString()); // never found unreadable
            if (!stored)
                continue; // killed before its first write
            const auto step = writerStep(*stored);
            QVERIFY2(step.has_value(), "torn value");
            QVERIFY(*step >= lastStep); // never an older value than one already seen
            lastStep = *step;
        }
        QVERIFY(lastStep >= 0);
        const QDir folder = QFileInfo(m_path).absoluteDir();
        QCOMPARE(folder.entryList({QStringLiteral("defaults.json.corrupt-*")}), QStringList());
        qInfo("%d kills, last step stored %d", kills, lastStep);
    }

    void twoProcessesWritingDifferentKeysBothKeepTheirChanges() {
        constexpr int count = 40;
        QProcess first;
        QProcess second;
        const QString program = QCoreApplication::applicationFilePath();
        first.start(program, {QStringLiteral("--child-keys"), m_path, QStringLiteral("first"),
                              QString::number(count)});
        second.start(program, {QStringLiteral("--child-keys"), m_path, QStringLiteral("second"),
                               QString::number(count)});
        QVERIFY(first.waitForFinished(60000));
        QVERIFY(second.waitForFinished(60000));
        QCOMPARE(first.exitCode(), 0);
        QCOMPARE(second.exitCode(), 0);
        UserDefaults reader(m_path);
        QCOMPARE(reader.allKeys().size(), 2 * count);
        for (int i = 0; i < count; ++i) {
            QCOMPARE(reader.stringForKey(QStringLiteral("first.%1").arg(i)),
                     std::optional<QString>(QStringLiteral("first%1").arg(i)));
            QCOMPARE(reader.stringForKey(QStringLiteral("second.%1").arg(i)),
                     std::optional<QString>(QStringLiteral("second%1").arg(i)));
        }
    }
};

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() >= 3 && arguments[1] == QLatin1String("--child-writer"))
        return runWriter(arguments[2]);
    if (arguments.size() >= 5 && arguments[1] == QLatin1String("--child-keys"))
        return runKeyWriter(arguments[2], arguments[3], arguments[4].toInt());
    TestUserDefaults test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_userdefaults.moc"
