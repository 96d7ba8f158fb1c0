#include "groups/OutputGroupCodec.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QtTest>

// The stored group list must load data of every older version and fail as a whole on a corrupt
// entry, so the next save replaces it instead of silently dropping one group.
class TestOutputGroupCodec : public QObject {
    Q_OBJECT

private slots:
    void emptyObjectTakesEveryDefault() {
        const auto groups = OutputGroupCodec::decode("[{}]");
        QVERIFY(groups);
        QCOMPARE(groups->size(), 1);
        const OutputGroup& group = groups->first();
        QVERIFY(!group.id.isNull());
        QCOMPARE(group.name, QStringLiteral("Group"));
        QVERIFY(group.memberUIDs.isEmpty());
        QCOMPARE(group.masterUID, QString());
        QCOMPARE(group.masterVolume, 0.65);
        QVERIFY(group.balance.isEmpty());
        QVERIFY(group.deviceNames.isEmpty());
    }

    void eachMissingIdIsFresh() {
        const auto groups = OutputGroupCodec::decode("[{},{}]");
        QVERIFY(groups);
        QVERIFY(groups->at(0).id != groups->at(1).id);
    }

    void missingMasterIsFirstMember() {
        const auto groups = OutputGroupCodec::decode(R"([{"memberUIDs":["a","b"]}])");
        QVERIFY(groups);
        QCOMPARE(groups->first().masterUID, QStringLiteral("a"));
        QCOMPARE(groups->first().memberUIDs, (QStringList{"a", "b"}));
    }

    void storedValuesAreKeptUnbounded() {
        // Bounds apply when a value is set, not when it is read back.
        const auto groups = OutputGroupCodec::decode(
            R"([{"masterVolume":3,"memberUIDs":["a"],"balance":{"a":0.4,"stranger":0.7},"masterUID":"zzz"}])");
        QVERIFY(groups);
        QCOMPARE(groups->first().masterVolume, 3.0);
        QCOMPARE(groups->first().balance.value("stranger"), 0.7);
        QCOMPARE(groups->first().masterUID, QStringLiteral("zzz"));
    }

    void oneWrongTypeFailsTheWholeArray_data() {
        QTest::addColumn<QByteArray>("entry");
        QTest::newRow("id number") << QByteArray(R"({"id":5})");
        QTest::newRow("id not a uuid") << QByteArray(R"({"id":"not-a-uuid"})");
        QTest::newRow("id with braces")
            << QByteArray(R"({"id":"{6F9619FF-8B86-D011-B42D-00C04FC964FF}"})");
        QTest::newRow("name number") << QByteArray(R"({"name":1})");
        QTest::newRow("members text") << QByteArray(R"({"memberUIDs":"a"})");
        QTest::newRow("member number") << QByteArray(R"({"memberUIDs":["a",2]})");
        QTest::newRow("master array") << QByteArray(R"({"masterUID":["a"]})");
        QTest::newRow("volume text") << QByteArray(R"({"masterVolume":"0.5"})");
        QTest::newRow("volume bool") << QByteArray(R"({"masterVolume":true})");
        QTest::newRow("balance array") << QByteArray(R"({"balance":[1]})");
        QTest::newRow("balance text value") << QByteArray(R"({"balance":{"a":"x"}})");
        QTest::newRow("names number value") << QByteArray(R"({"deviceNames":{"a":1}})");
        QTest::newRow("entry not object") << QByteArray(R"("group")");
    }

    void oneWrongTypeFailsTheWholeArray() {
        QFETCH(QByteArray, entry);
        const QByteArray json = R"([{"name":"Fine","memberUIDs":["a"]},)" + entry + "]";
        QVERIFY(!OutputGroupCodec::decode(json));
    }

    void notAnArrayFails_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("object") << QByteArray(R"({"name":"x"})");
        QTest::newRow("garbage") << QByteArray("[{");
        QTest::newRow("empty") << QByteArray();
    }

    void notAnArrayFails() {
        QFETCH(QByteArray, json);
        QVERIFY(!OutputGroupCodec::decode(json));
    }

    void everyKeyIsWrittenWithUpperCaseId() {
        OutputGroup group;
        group.id = QUuid::fromString(QStringLiteral("6f9619ff-8b86-d011-b42d-00c04fc964ff"));
        group.name = QStringLiteral("Both");
        const auto data = OutputGroupCodec::encode({group});
        QVERIFY(data);
        const QJsonObject object = QJsonDocument::fromJson(*data).array().first().toObject();
        QCOMPARE(object.keys().size(), 7);
        for (const char* key :
             {"id", "name", "memberUIDs", "masterUID", "masterVolume", "balance", "deviceNames"})
            QVERIFY2(object.contains(QLatin1String(key)), key);
        QCOMPARE(object.value("id").toString(),
                 QStringLiteral("6F9619FF-8B86-D011-B42D-00C04FC964FF"));
        QVERIFY(object.value("balance").isObject());
        QVERIFY(object.value("memberUIDs").isArray());
    }

    void roundTripKeepsEveryField() {
        OutputGroup group;
        group.id = QUuid::createUuid();
        group.name = QStringLiteral("Displays");
        group.memberUIDs = {QStringLiteral("b"), QStringLiteral("a")};
        group.masterUID = QStringLiteral("a");
        group.masterVolume = 0.3;
        group.balance = {{QStringLiteral("a"), 0.25}};
        group.deviceNames = {{QStringLiteral("b"), QStringLiteral("Left")}};
        OutputGroup other = group;
        other.id = QUuid::createUuid();
        other.memberUIDs.clear();
        const auto data = OutputGroupCodec::encode({group, other});
        QVERIFY(data);
        const auto decoded = OutputGroupCodec::decode(*data);
        QVERIFY(decoded);
        QCOMPARE(decoded->size(), 2);
        QVERIFY(decoded->at(0) == group);
        QVERIFY(decoded->at(1) == other);
        QCOMPARE(qHash(decoded->at(0)), qHash(group));
    }

    void equalityCoversEveryField() {
        OutputGroup base;
        base.id = QUuid::createUuid();
        base.memberUIDs = {QStringLiteral("a"), QStringLiteral("b")};
        QList<OutputGroup> variants(7, base);
        variants[0].id = QUuid::createUuid();
        variants[1].name = QStringLiteral("other");
        variants[2].memberUIDs = {QStringLiteral("b"), QStringLiteral("a")}; // order counts
        variants[3].masterUID = QStringLiteral("b");
        variants[4].masterVolume = 0.1;
        variants[5].balance.insert(QStringLiteral("a"), 0.5);
        variants[6].deviceNames.insert(QStringLiteral("a"), QStringLiteral("A"));
        for (const OutputGroup& variant : variants)
            QVERIFY(!(variant == base));
    }

    void unwritableNumberWritesNothing() {
        OutputGroup group;
        group.id = QUuid::createUuid();
        group.masterVolume = std::numeric_limits<double>::quiet_NaN();
        QVERIFY(!OutputGroupCodec::encode({group}));
    }

    void uuidParsing_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("valid");
        QTest::newRow("upper") << "6F9619FF-8B86-D011-B42D-00C04FC964FF" << true;
        QTest::newRow("lower") << "6f9619ff-8b86-d011-b42d-00c04fc964ff" << true;
        QTest::newRow("nil") << "00000000-0000-0000-0000-000000000000" << true;
        QTest::newRow("braces") << "{6F9619FF-8B86-D011-B42D-00C04FC964FF}" << false;
        QTest::newRow("short") << "6F9619FF-8B86-D011-B42D" << false;
        QTest::newRow("junk of the right length")
            << "zzzzzzzz-8b86-d011-b42d-00c04fc964ff" << false;
    }

    void uuidParsing() {
        QFETCH(QString, text);
        QFETCH(bool, valid);
        const auto uuid = OutputGroupCodec::parseUuid(text);
        QCOMPARE(uuid.has_value(), valid);
        if (valid)
            QCOMPARE(OutputGroupCodec::uuidText(*uuid), text.toUpper());
    }
};

QTEST_GUILESS_MAIN(TestOutputGroupCodec)
#include "tst_output_group_codec.moc"
