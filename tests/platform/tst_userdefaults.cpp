#include "platform/UserDefaults.h"

#include <QtTest>

#include <cmath>
#include <cstdio>
#include <functional>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int tornValueLength = 400000;

// The value a writer child stores at step n: its number, then one letter repeated. A torn write
// shows as a wrong length or a letter that does not belong to the number.
QString writerValue(int n) {
    return QString::number(n) + u':' + QString(tornValueLength, QChar(u'a' + n % 26));
}

std::optional<int> writerStep(const QString& value) {
    bool ok = false;
    const int n = value.section(u':', 0, 0).toInt(&ok);
    return ok && value == writerValue(n) ? std::optional<int>(n) : std::nullopt;
}

// Child: says when it begins, then keeps writing ever larger step numbers under one key until
// killed.
int runWriter(const QString& path) {
    UserDefaults defaults(path);
    int n = 0;
    if (auto stored = defaults.stringForKey("big"))
        n = writerStep(*stored).value_or(-1) + 1;
    std::puts("writing");
    std::fflush(stdout);
    for (;; ++n)
        if (!defaults.setString(writerValue(n), "big"))
            return 3;
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
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeBytes(const QString& path, const QByteArray& bytes) {
    QVERIFY(QDir().mkpath(QFileInfo(path).absolutePath()));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(file.write(bytes), bytes.size());
}

// What `action` prints to this process's stderr.
QString stderrOf(const std::function<void()>& action) {
    QTemporaryFile capture;
    if (!capture.open())
        return "no capture file";
    std::fflush(stderr);
    const int saved = ::dup(2);
    ::dup2(capture.handle(), 2);
    action();
    std::fflush(stderr);
    ::dup2(saved, 2);
    ::close(saved);
    capture.seek(0);
    return QString::fromLocal8Bit(capture.readAll());
}

// Root reads a file whatever its mode; without these two capabilities a mode of 000 stops it too.
// Only the effective set is lowered, so the destructor can raise them again.
class WithoutReadOverride {
public:
    WithoutReadOverride() {
        ::syscall(SYS_capget, &m_header, m_saved);
        __user_cap_data_struct lowered[2] = {m_saved[0], m_saved[1]};
        lowered[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
        ::syscall(SYS_capset, &m_header, lowered);
    }
    ~WithoutReadOverride() { ::syscall(SYS_capset, &m_header, m_saved); }

private:
    __user_cap_header_struct m_header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct m_saved[2]{};
};

} // namespace

class TestUserDefaults : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_path;

    QStringList corruptCopies() const {
        return QFileInfo(m_path).absoluteDir().entryList({"defaults.json.corrupt-*"});
    }

private slots:
    void init() {
        QVERIFY(m_dir.isValid());
        m_path = m_dir.filePath(QString::number(QRandomGenerator::global()->generate()) +
                                "/ondril/defaults.json");
    }

    void valueKeepsItsTypeAcrossTheFile_data() {
        QTest::addColumn<QVariant>("value");
        QByteArray allBytes;
        for (int i = 0; i < 256; ++i)
            allBytes.append(char(i));
        QTest::newRow("false") << QVariant(false);
        QTest::newRow("empty string") << QVariant(QString());
        QTest::newRow("number") << QVariant(-12345.5);
        QTest::newRow("string looking like a bool") << QVariant("true");
        QTest::newRow("unicode string") << QVariant(QStringLiteral("Kopfhörer \"links\"\n🎧"));
        QTest::newRow("mixed array")
            << QVariant(QVariantList{true, 2.0, QByteArray("\0\1", 2), QVariantList{"x"}});
        QTest::newRow("dictionary")
            << QVariant(QVariantMap{{"uid:1", "Desk"}, {"blob", QByteArray("\xff\xfe")}});
        QTest::newRow("all 256 byte values") << QVariant(allBytes);
        QTest::newRow("empty data") << QVariant(QByteArray());
    }

    void valueKeepsItsTypeAcrossTheFile() {
        QFETCH(QVariant, value);
        QVERIFY(UserDefaults(m_path).setObject(value, "key"));
        UserDefaults reader(m_path);
        QCOMPARE(reader.objectForKey("missing"), std::nullopt); // not false, not ""
        const auto stored = reader.objectForKey("key");
        QVERIFY(stored.has_value());
        QCOMPARE(stored->typeId(), value.typeId());
        QCOMPARE(*stored, value);
    }

    void changesByOthersAreSeenByTheNextRead() {
        UserDefaults mine(m_path);
        UserDefaults theirs(m_path);
        QVERIFY(mine.setString("old", "key"));
        QCOMPARE(theirs.stringForKey("key"), QStringLiteral("old"));
        QVERIFY(theirs.setString("new", "key"));
        QCOMPARE(mine.stringForKey("key"), QStringLiteral("new"));
        QVERIFY(theirs.removeObjectForKey("key"));
        QCOMPARE(mine.objectForKey("key"), std::nullopt);
        // A text editor rewrites the file in place.
        writeBytes(m_path,
                   R"({"format": 1, "values": {"key": {"type": "string", "value": "ed"}}})");
        QCOMPARE(mine.stringForKey("key"), QStringLiteral("ed"));
    }

    void corruptFileIsMovedAsideAndTheStoreStartsEmpty_data() {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("whileRunning");
        QTest::newRow("garbage") << QByteArray("\x00\x01not json at all", 17) << false;
        QTest::newRow("bad base64")
            << QByteArray(R"({"format": 1, "values": {"k": {"type": "data", "value": "!!!"}}})")
            << false;
        QTest::newRow("type and value disagree")
            << QByteArray(R"({"format": 1, "values": {"k": {"type": "bool", "value": "yes"}}})")
            << false;
        QTest::newRow("corrupted while running")
            << QByteArray("{ broken, longer than before") << true;
    }

    void corruptFileIsMovedAsideAndTheStoreStartsEmpty() {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, whileRunning);
        UserDefaults defaults(m_path);
        if (whileRunning)
            QVERIFY(defaults.setString("v", "key"));
        writeBytes(m_path, bytes);

        QStringList keys{"unread"};
        const QString warning = stderrOf([&] { keys = defaults.allKeys(); });
        QCOMPARE(keys, QStringList());
        QCOMPARE(corruptCopies().size(), 1);
        const QString asidePath = QFileInfo(m_path).absoluteDir().filePath(corruptCopies().first());
        QCOMPARE(readBytes(asidePath), bytes);
        QCOMPARE(warning.count(u'\n'), 1);
        QVERIFY2(warning.startsWith("ondril: settings file "), qPrintable(warning));
        QVERIFY2(warning.contains(asidePath), qPrintable(warning));

        // The store works on; the moved file is left alone.
        QVERIFY(defaults.setBool(true, "after"));
        QCOMPARE(UserDefaults(m_path).storedBoolForKey("after"), true);
        QCOMPARE(readBytes(asidePath), bytes);
    }

    void fileThatCannotBeReadIsNeverWritten() {
        QVERIFY(UserDefaults(m_path).setString("groups", "kept"));
        const QByteArray before = readBytes(m_path);
        QVERIFY(QFile::setPermissions(m_path, {}));
        std::optional<UserDefaults> defaults;
        const QString warning = stderrOf([&] {
            WithoutReadOverride unprivileged;
            defaults.emplace(m_path);
        });
        QCOMPARE(defaults->allKeys(), QStringList());
        QCOMPARE(warning.count(u'\n'), 1);
        QVERIFY2(warning.contains("cannot read the settings file " + m_path), qPrintable(warning));
        QVERIFY(defaults->isReadOnly());

        // Readable again: this run still holds the empty view it started with, so it must not
        // write, or the stored settings would be lost.
        QVERIFY(QFile::setPermissions(m_path, QFile::ReadOwner | QFile::WriteOwner));
        QVERIFY(!defaults->setString("new", "other"));
        QVERIFY(!defaults->removeObjectForKey("groups"));
        QCOMPARE(readBytes(m_path), before);
        QVERIFY(corruptCopies().isEmpty());
    }

    void refusedWriteLeavesMemoryAndFileAsTheyWere_data() {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QVariant>("value");
        QTest::newRow("a folder in place of the lock") << "lock" << QVariant("new");
        QTest::newRow("a file in place of the folder") << "folder" << QVariant(true);
        QTest::newRow("unsupported type") << "" << QVariant(QPoint(1, 2));
        QTest::newRow("unsupported type inside an array")
            << "" << QVariant(QVariantList{QVariant(QPoint(1, 2))});
        QTest::newRow("not a number") << "" << QVariant(std::nan(""));
        QTest::newRow("infinity inside a dictionary")
            << "" << QVariant(QVariantMap{{"v", HUGE_VAL}});
    }

    void refusedWriteLeavesMemoryAndFileAsTheyWere() {
        QFETCH(QString, fault);
        QFETCH(QVariant, value);
        const QString folder = QFileInfo(m_path).absolutePath();
        if (fault == QLatin1String("folder"))
            writeBytes(folder, "a plain file where the folder should be");
        UserDefaults defaults(m_path);
        if (fault != QLatin1String("folder"))
            QVERIFY(defaults.setString("old", "key"));
        const QByteArray before = readBytes(m_path);
        if (fault == QLatin1String("lock")) {
            // Every write fails, even for root.
            QVERIFY(QFile::remove(m_path + ".lock"));
            QVERIFY(QDir().mkpath(m_path + ".lock"));
        }

        QVERIFY(!defaults.setObject(value, "key"));
        QVERIFY(!defaults.setObject(value, "other"));
        QCOMPARE(defaults.objectForKey("other"), std::nullopt);
        QCOMPARE(readBytes(m_path), before);
        if (fault != QLatin1String("folder"))
            QCOMPARE(defaults.stringForKey("key"), QStringLiteral("old"));
    }

    void writerKilledAtAnyPointLeavesTheOldOrTheNewValue() {
        int lastStep = -1;
        for (int round = 0; round < 30; ++round) {
            QProcess writer;
            writer.setProcessChannelMode(QProcess::ForwardedErrorChannel);
            writer.start(QCoreApplication::applicationFilePath(), {"--child-writer", m_path});
            // The kill falls anywhere in the writing, however long the child took to get there.
            QVERIFY(writer.waitForReadyRead(60000));
            QThread::msleep(QRandomGenerator::global()->bounded(120));
            QVERIFY2(writer.state() == QProcess::Running, "writer stopped on its own");
            writer.kill();
            QVERIFY(writer.waitForFinished());

            std::optional<QString> stored;
            const QString warning =
                stderrOf([&] { stored = UserDefaults(m_path).stringForKey("big"); });
            QCOMPARE(warning, QString()); // never found corrupt
            if (!stored)
                continue; // killed before its first write
            const auto step = writerStep(*stored);
            QVERIFY2(step.has_value(), "torn value");
            QVERIFY(*step >= lastStep); // never an older value than one already seen
            lastStep = *step;
        }
        QVERIFY(lastStep >= 0);
        // The next write clears what the killed writers left half done.
        QVERIFY(UserDefaults(m_path).setBool(true, "after"));
        QCOMPARE(QFileInfo(m_path).absoluteDir().entryList(QDir::Files),
                 (QStringList{"defaults.json", "defaults.json.lock"}));
        qInfo("last step stored %d", lastStep);
    }

    void twoProcessesWritingDifferentKeysBothKeepTheirChanges() {
        constexpr int count = 40;
        const QStringList prefixes{"first", "second"};
        QProcess writers[2];
        for (int w = 0; w < 2; ++w)
            writers[w].start(QCoreApplication::applicationFilePath(),
                             {"--child-keys", m_path, prefixes[w], QString::number(count)});
        for (QProcess& writer : writers) {
            QVERIFY(writer.waitForFinished(60000));
            QCOMPARE(writer.exitCode(), 0);
        }
        UserDefaults reader(m_path);
        QCOMPARE(reader.allKeys().size(), 2 * count);
        for (const QString& prefix : prefixes)
            for (int i = 0; i < count; ++i)
                QCOMPARE(reader.stringForKey(prefix + u'.' + QString::number(i)),
                         prefix + QString::number(i));
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
