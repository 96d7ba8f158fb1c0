#include "ServerRig.h"

#include <QElapsedTimer>
#include <QtTest>

// Auto-switch rules on a real private sound server (PulseAudio or PipeWire, as ONDRIL_TEST_SERVER
// says). Both servers have a default policy of their own (a fallback when the default sink goes,
// the configured default taken back when it returns); Ondril's result must stand beside it. A rule
// that puts a group on builds the same combined sink a group does (the group server test).
namespace {

constexpr int kSettleMs = 700; // long enough for a server's own policy to have acted

const QString kAirPods = QStringLiteral("airpods");
const QString kLeft = QStringLiteral("studio_left");
const QString kRight = QStringLiteral("studio_right");
const QString kHeadsetMic = QStringLiteral("headset_mic");

} // namespace

class AutoSwitchServerTest : public QObject {
    Q_OBJECT

    std::unique_ptr<ServerRig> m_rig;

    bool waitForDefault(const QString& sink) {
        return eventually([&] { return m_rig->server->defaultSinkName() == sink; });
    }

    // Settles, then checks the server's default has stayed `sink`.
    void verifyDefaultStays(const QString& sink) {
        QVERIFY2(waitForDefault(sink), qPrintable(m_rig->server->defaultSinkName()));
        QTest::qWait(kSettleMs);
        QCOMPARE(m_rig->server->defaultSinkName(), sink);
    }

    // Successive distinct names of one default, as the program hears them.
    AudioObjectPropertyListenerToken follow(AudioObjectPropertySelector selector,
                                            QStringList& names) {
        AudioObjectPropertyListenerToken token = 0;
        AudioDeviceManager& audio = *m_rig->audio;
        m_rig->hardware->AudioObjectAddPropertyListenerBlock(
            kAudioObjectSystemObject, {selector, kAudioObjectPropertyScopeGlobal, 0},
            [&audio, &names, selector](const auto&) {
                const QString name =
                    audio
                        .readUID(selector == kAudioHardwarePropertyDefaultOutputDevice
                                     ? audio.readDefaultOutputID()
                                     : audio.readDefaultInputID())
                        .value_or(QString());
                if (!name.isEmpty() && (names.isEmpty() || names.last() != name))
                    names.append(name);
            },
            token);
        return token;
    }

private slots:
    void init() {
        m_rig = std::make_unique<ServerRig>();
        const QString error = m_rig->start();
        QVERIFY2(error.isEmpty(), qPrintable(error));
        // The AirPods are not there yet: the rules wait for them.
        QVERIFY(m_rig->unplug(kAirPods));
        m_rig->defaults->setBool(true, SettingsKeys::autoSwitchGroups);
        m_rig->defaults->setBool(true, SettingsKeys::autoSwitchInputs);
        m_rig->launch();
        QVERIFY(
            eventually([&] { return !m_rig->audio->deviceIDForOutputUID(kAirPods).has_value(); }));
    }
    void cleanup() { m_rig.reset(); }

    void ruleTakesTheArrivingSinkAndThePriorityListTakesOverWhenItGoes() {
        GroupManager& manager = *m_rig->manager;
        // The left display is hidden: passed over although connected.
        m_rig->settings->setHiddenDevices({kLeft});
        manager.setDevicePriority({kLeft, "gone", kRight});
        manager.saveDevicePriority();
        manager.addRule({kAirPods}, RuleAction::device(kAirPods));

        QVERIFY(m_rig->server->loadNullSink(kAirPods, "AirPods Pro"));
        QElapsedTimer loaded;
        loaded.start();
        QVERIFY(eventually([&] { return m_rig->defaultOutputUID() == kAirPods; }));
        qInfo() << "loaded sink to rule-made default:" << loaded.elapsed() << "ms";
        QVERIFY(waitForDefault(kAirPods));

        // Gone: the server picks a sink of its own; the priority list's entry stands over it.
        QVERIFY(m_rig->unplug(kAirPods));
        verifyDefaultStays(kRight);
        // Back: the rule applies again, and the server does not take its old default back.
        QVERIFY(m_rig->server->loadNullSink(kAirPods, "AirPods Pro"));
        verifyDefaultStays(kAirPods);
    }

    void outputPickedByHandIsLeftAloneWhileTheRuleFits() {
        m_rig->manager->addRule({kAirPods}, RuleAction::device(kAirPods));
        QVERIFY(m_rig->server->loadNullSink(kAirPods, "AirPods Pro"));
        QVERIFY(waitForDefault(kAirPods));

        QVERIFY(m_rig->server->pactl({"set-default-sink", kLeft}));
        // Other lists keep arriving (a volume change publishes them too): still no re-apply.
        QVERIFY(m_rig->server->pactl({"set-sink-volume", kRight, "40%"}));
        verifyDefaultStays(kLeft);
        QCOMPARE(m_rig->defaultOutputUID(), kLeft);
    }

    // A headset's sink and microphone arrive a few ms apart; each side has its rule. Every list
    // published on the way is evaluated, and each default changes once.
    void arrivingHeadsetChangesEachDefaultOnce() {
        m_rig->manager->addRule({kAirPods}, RuleAction::device(kAirPods));
        m_rig->manager->addInputRule({kHeadsetMic}, RuleAction::device(kHeadsetMic));
        QStringList outputs;
        QStringList inputs;
        const auto outputToken = follow(kAudioHardwarePropertyDefaultOutputDevice, outputs);
        const auto inputToken = follow(kAudioHardwarePropertyDefaultInputDevice, inputs);

        QVERIFY(m_rig->server->loadNullSink(kAirPods, "AirPods Pro"));
        QVERIFY(m_rig->server->loadRemapSource(kHeadsetMic, "Headset Microphone",
                                               kAirPods + ".monitor"));
        QVERIFY(eventually([&] {
            return m_rig->server->defaultSinkName() == kAirPods &&
                   m_rig->server->defaultSourceName() == kHeadsetMic;
        }));
        QTest::qWait(kSettleMs);
        m_rig->hardware->AudioObjectRemovePropertyListenerBlock(outputToken);
        m_rig->hardware->AudioObjectRemovePropertyListenerBlock(inputToken);
        QCOMPARE(outputs, QStringList{kAirPods});
        QCOMPARE(inputs, QStringList{kHeadsetMic});
        QCOMPARE(m_rig->audio->defaultInputID(), *m_rig->audio->deviceIDForInputUID(kHeadsetMic));
    }
};

QTEST_GUILESS_MAIN(AutoSwitchServerTest)
#include "tst_autoswitch_server.moc"
