#include "TestSupport.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QtTest>

namespace {

struct Run {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

QString ondrilPath() {
    return TestSupport::helperDirectory() + QStringLiteral("/ondril");
}

Run runOndril(const QStringList& arguments) {
    QProcess process;
    process.start(ondrilPath(), arguments);
    Run run;
    if (!process.waitForFinished(60000))
        return run;
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

const QSet<QString> kDeviceKeys{"id",     "uid",   "name",      "displayName",
                                "volume", "muted", "isAirPlay", "isDefault"};

} // namespace

class TestDevicesCommand : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void jsonListsEveryDeviceWithTheSameKeysAndMarksDefaults();
    void humanTableMarksTheDefaultsWithAStar();
    void unknownArgumentIsRefusedWithStatusTwo_data();
    void unknownArgumentIsRefusedWithStatusTwo();
};

void TestDevicesCommand::initTestCase() {
    if (!QFileInfo(ondrilPath()).isExecutable())
        QFAIL(qPrintable(QStringLiteral("the ondril binary is not built at ") + ondrilPath()));
}

void TestDevicesCommand::jsonListsEveryDeviceWithTheSameKeysAndMarksDefaults() {
    const Run run = runOndril({QStringLiteral("--backend=simulated"), QStringLiteral("devices"),
                               QStringLiteral("--json")});
    QCOMPARE(run.exitCode, 0);
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(run.out, &error);
    QCOMPARE(error.error, QJsonParseError::NoError);
    const QJsonObject root = document.object();
    const QStringList rootKeys = root.keys();
    QCOMPARE(QSet<QString>(rootKeys.begin(), rootKeys.end()), (QSet<QString>{"outputs", "inputs"}));

    const QJsonArray outputs = root.value("outputs").toArray();
    const QJsonArray inputs = root.value("inputs").toArray();
    QCOMPARE(outputs.size(), 5);
    QCOMPARE(inputs.size(), 1);

    int defaultOutputs = 0;
    int airPlay = 0;
    QString previousName;
    for (const QJsonValue& value : outputs) {
        const QJsonObject device = value.toObject();
        const QStringList keys = device.keys();
        QCOMPARE(QSet<QString>(keys.begin(), keys.end()), kDeviceKeys);
        QVERIFY(device.value("volume").isDouble());
        QVERIFY(device.value("muted").isBool());
        QVERIFY(device.value("id").toInteger() >= 100);
        QVERIFY(!device.value("displayName").toString().isEmpty());
        // Sorted by name.
        QVERIFY(QString::localeAwareCompare(previousName, device.value("name").toString()) <= 0);
        previousName = device.value("name").toString();
        if (device.value("isDefault").toBool()) {
            ++defaultOutputs;
            QCOMPARE(device.value("uid").toString(),
                     QStringLiteral("alsa_output.pci-0000_00_1f.3.analog-stereo"));
        }
        airPlay += device.value("isAirPlay").toBool() ? 1 : 0;
    }
    QCOMPARE(defaultOutputs, 1);
    QCOMPARE(airPlay, 1);

    const QJsonObject microphone = inputs.first().toObject();
    const QStringList keys = microphone.keys();
    QCOMPARE(QSet<QString>(keys.begin(), keys.end()), kDeviceKeys);
    QCOMPARE(microphone.value("name").toString(), QStringLiteral("USB Microphone"));
    QVERIFY(microphone.value("volume").isNull());
    QVERIFY(microphone.value("isDefault").toBool());
    QVERIFY(!microphone.value("isAirPlay").toBool());
}

void TestDevicesCommand::humanTableMarksTheDefaultsWithAStar() {
    const Run run = runOndril({QStringLiteral("--backend=simulated"), QStringLiteral("devices")});
    QCOMPARE(run.exitCode, 0);
    const QStringList lines = QString::fromUtf8(run.out).split(u'\n');

    QStringList starred;
    for (const QString& line : lines)
        if (line.trimmed().startsWith(u'*') && line.contains(QStringLiteral("  ")))
            starred.append(line);
    QCOMPARE(starred.size(),
             2); // one default output, one default input; the legend has no double space
    QVERIFY(starred[0].contains(QStringLiteral("Built-in Speakers")));
    QVERIFY(starred[1].contains(QStringLiteral("USB Microphone")));

    // Columns line up: every device row starts its UID column at the same place as the header.
    const QString header = lines.value(lines.indexOf(QStringLiteral("Outputs")) + 1);
    const qsizetype uidColumn = header.indexOf(QStringLiteral("UID"));
    QVERIFY(uidColumn > 0);
    for (const QString& line : lines) {
        if (line.contains(QStringLiteral("alsa_output.pci-0000_00_1f.3.analog-stereo")))
            QCOMPARE(line.indexOf(QStringLiteral("alsa_output")), uidColumn);
    }
}

void TestDevicesCommand::unknownArgumentIsRefusedWithStatusTwo_data() {
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("unknown option") << QStringList{"--backend=simulated", "devices", "--yaml"};
    QTest::newRow("stray word") << QStringList{"--backend=simulated", "devices", "--json", "all"};
}

void TestDevicesCommand::unknownArgumentIsRefusedWithStatusTwo() {
    QFETCH(QStringList, arguments);
    const Run run = runOndril(arguments);
    QCOMPARE(run.exitCode, 2);
    QVERIFY(run.out.isEmpty());
    QCOMPARE(run.err.count('\n'), 1);
    QVERIFY(run.err.startsWith("ondril: "));
}

QTEST_GUILESS_MAIN(TestDevicesCommand)
#include "tst_devicescommand.moc"
