#include "groups/OutputGroupCodec.h"

#include <QtTest>

// The stored group list must load data of every older version and fail as a whole on a corrupt
// entry, so the next save replaces it instead of silently dropping one group.
class TestOutputGroupCodec : public QObject {
    Q_OBJECT

private slots:
    // Each missing id is fresh; a missing master is the first member.
    void missingKeysTakeTheirDefaults() {
        const auto groups = OutputGroupCodec::decode(R"([{},{"memberUIDs":["a","b"]}])");
        QVERIFY(groups);
        QCOMPARE(groups->size(), 2);
        for (const OutputGroup& group : *groups) {
            QVERIFY(!group.id.isNull());
            QCOMPARE(group.name, QStringLiteral("Group"));
            QCOMPARE(group.masterVolume, 0.65);
            QVERIFY(group.balance.isEmpty() && group.deviceNames.isEmpty());
        }
        QVERIFY(groups->at(0).id != groups->at(1).id);
        QCOMPARE(groups->at(0).memberUIDs, QStringList());
        QCOMPARE(groups->at(0).masterUID, QString());
        QCOMPARE(groups->at(1).memberUIDs, (QStringList{"a", "b"}));
        QCOMPARE(groups->at(1).masterUID, QStringLiteral("a"));
    }

    void oneWrongTypeFailsTheWholeArray_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("object") << QByteArray(R"({"name":"x"})");
        QTest::newRow("garbage") << QByteArray("[{");
        QTest::newRow("empty") << QByteArray();
        // One wrong entry beside a fine one.
        const auto after = [](const char* entry) {
            return R"([{"name":"Fine","memberUIDs":["a"]},)" + QByteArray(entry) + "]";
        };
        QTest::newRow("id number") << after(R"({"id":5})");
        QTest::newRow("id not a uuid") << after(R"({"id":"not-a-uuid"})");
        QTest::newRow("id with braces")
            << after(R"({"id":"{6F9619FF-8B86-D011-B42D-00C04FC964FF}"})");
        QTest::newRow("name number") << after(R"({"name":1})");
        QTest::newRow("members text") << after(R"({"memberUIDs":"a"})");
        QTest::newRow("member number") << after(R"({"memberUIDs":["a",2]})");
        QTest::newRow("master array") << after(R"({"masterUID":["a"]})");
        QTest::newRow("volume text") << after(R"({"masterVolume":"0.5"})");
        QTest::newRow("volume bool") << after(R"({"masterVolume":true})");
        QTest::newRow("balance array") << after(R"({"balance":[1]})");
        QTest::newRow("balance text value") << after(R"({"balance":{"a":"x"}})");
        QTest::newRow("names number value") << after(R"({"deviceNames":{"a":1}})");
        QTest::newRow("entry not object") << after(R"("group")");
    }

    void oneWrongTypeFailsTheWholeArray() {
        QFETCH(QByteArray, json);
        QVERIFY(!OutputGroupCodec::decode(json));
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
        QCOMPARE(*decoded, (QList<OutputGroup>{group, other}));
        // A number JSON cannot hold writes nothing.
        group.masterVolume = std::numeric_limits<double>::quiet_NaN();
        QVERIFY(!OutputGroupCodec::encode({group}));
    }
};

QTEST_GUILESS_MAIN(TestOutputGroupCodec)
#include "tst_output_group_codec.moc"
