#include "GroupTestRig.h"

#include <QQmlContext>
#include <QQmlEngine>
#include <QQmlExpression>
#include <QtTest>

// The panel binds to what GroupManager and AudioDeviceManager publish, as they stand.
class TestGroupQml : public QObject {
    Q_OBJECT

private slots:
    void publishedStateReadsFromQml() {
        GroupTestRig rig;
        const OutputGroup displays = makeGroup("Displays", {rig.leftUID, rig.rightUID});
        GroupManager& manager = rig.launchWith({makeGroup("Other", {rig.speakersUID}), displays});
        QQmlEngine engine;
        engine.rootContext()->setContextProperty("groupManager", &manager);
        engine.rootContext()->setContextProperty("deviceManager", rig.audio.get());
        auto evaluate = [&](const char* script) {
            QQmlExpression expression(engine.rootContext(), nullptr, QString::fromUtf8(script));
            const QVariant value = expression.evaluate();
            if (expression.hasError())
                qWarning() << expression.error().toString();
            return value.toString();
        };
        const char* activeGroup = R"(
            (function () {
                const groups = groupManager.groups
                for (let i = 0; i < groups.length; ++i)
                    if (groups[i].id === groupManager.activeGroupID)
                        return [groups[i].name, groups[i].memberUIDs.length,
                                groups[i].masterVolume].join(" ")
                return "none"
            })())";

        QCOMPARE(evaluate("groupManager.activeGroupID"), QString());
        QCOMPARE(evaluate(activeGroup), QStringLiteral("none"));
        QCOMPARE(evaluate(R"(
            (function () {
                const names = []
                for (const device of deviceManager.outputDevices)
                    names.push(device.displayName)
                return names.join(",")
            })())"),
                 QStringLiteral("Headphones,Left Display,Right Display,Speakers"));

        QVERIFY(manager.activate(displays));
        QCOMPARE(evaluate("groupManager.activeGroupID"), OutputGroupCodec::uuidText(displays.id));
        QCOMPARE(evaluate(activeGroup), QStringLiteral("Displays 2 0.65"));
    }
};

QTEST_GUILESS_MAIN(TestGroupQml)
#include "tst_group_qml.moc"
