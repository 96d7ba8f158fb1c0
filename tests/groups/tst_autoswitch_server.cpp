#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "platform/SystemSleepMonitor.h"
#include "platform/UserDefaults.h"
#include "platform/pulse/PulseAudioHardware.h"

#include "PrivateSoundServer.h"

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QtTest>

// Auto-switch rules on a real private sound server (PulseAudio or PipeWire, as ONDRIL_TEST_SERVER
// says). Both servers have a default policy of their own (a fallback when the default sink goes,
// the configured default taken back when it returns); Ondril's result must stand beside it.
namespace {

constexpr int kGenerousWaitMs = 15000;
constexpr int kSettleMs = 700; // long enough for a server's own policy to have acted

const QString kAirPods = QStringLiteral("airpods");
const QString kBuiltin = QStringLiteral("builtin");
const QString kLeft = QStringLiteral("studio_left");
const QString kRight = QStringLiteral("studio_right");
const QString kHeadsetMic = QStringLiteral("headset_mic");

// Successive distinct values of one default, as the program hears them.
struct DefaultHistory {
    QStringList names;
    AudioObjectPropertyListenerToken token = 0;
};

} // namespace

class AutoSwitchServerTest : public QObject {
    Q_OBJECT

private slots:
    void init() {
        QString error;
        m_server = PrivateSoundServer::startFromEnvironment(error);
        if (!m_server)
            QFAIL(qPrintable(error));
        QVERIFY(m_server->pactl({"set-default-sink", kBuiltin}));
        // The AirPods are not there yet: the rules wait for them.
        QVERIFY(m_server->pactl({"unload-module", QString::number(module(kAirPods))}));
        m_hardware = PulseAudioHardware::connect(5000);
        QVERIFY2(m_hardware, "no connection to the private server");
        m_directory = std::make_unique<QTemporaryDir>();
        m_defaults = std::make_unique<UserDefaults>(m_directory->filePath("defaults.json"));
        m_defaults->setBool(true, SettingsKeys::autoSwitchGroups);
        m_defaults->setBool(true, SettingsKeys::autoSwitchInputs);
        m_settings = std::make_unique<AppSettings>(*m_defaults, m_center);
        m_audio = std::make_unique<AudioDeviceManager>(*m_hardware);
        m_manager = std::make_unique<GroupManager>(*m_audio, *m_settings, m_sleepMonitor);
        QVERIFY(QTest::qWaitFor([&] { return m_audio->deviceIDForOutputUID(kBuiltin).has_value(); },
                                kGenerousWaitMs));
    }

    void cleanup() {
        m_manager.reset();
        m_audio.reset();
        m_hardware.reset();
        m_server.reset();
        m_settings.reset();
        m_defaults.reset();
        m_directory.reset();
    }

    void ruleTakesTheArrivingSinkAndThePriorityListTakesOverWhenItGoes() {
        // The left display is hidden: passed over although connected.
        m_settings->setHiddenDevices({kLeft});
        m_manager->setDevicePriority({kLeft, "gone", kRight});
        m_manager->saveDevicePriority();
        m_manager->addRule({kAirPods}, RuleAction::device(kAirPods));

        QVERIFY(m_server->loadNullSink(kAirPods, "AirPods Pro"));
        QElapsedTimer loaded;
        loaded.start();
        QVERIFY(QTest::qWaitFor([&] { return defaultOutputUID() == kAirPods; }, kGenerousWaitMs));
        const qint64 reaction = loaded.elapsed();
        qInfo() << "loaded sink to rule-made default:" << reaction << "ms";
        QVERIFY2(reaction < 100, qPrintable(QString::number(reaction)));
        QVERIFY(QTest::qWaitFor([&] { return m_server->defaultSinkName() == kAirPods; },
                                kGenerousWaitMs));

        // Gone: the server picks a sink of its own; the priority list's entry stands over it.
        QVERIFY(m_server->pactl({"unload-module", QString::number(module(kAirPods))}));
        QVERIFY(QTest::qWaitFor([&] { return m_server->defaultSinkName() == kRight; },
                                kGenerousWaitMs));
        QTest::qWait(kSettleMs);
        QCOMPARE(m_server->defaultSinkName(), kRight);

        // Back: the rule applies again, and the server does not take its old default back.
        QVERIFY(m_server->loadNullSink(kAirPods, "AirPods Pro"));
        QVERIFY(QTest::qWaitFor([&] { return m_server->defaultSinkName() == kAirPods; },
                                kGenerousWaitMs));
        QTest::qWait(kSettleMs);
        QCOMPARE(m_server->defaultSinkName(), kAirPods);
    }

    void outputPickedByHandIsLeftAloneWhileTheRuleFits() {
        m_manager->addRule({kAirPods}, RuleAction::device(kAirPods));
        QVERIFY(m_server->loadNullSink(kAirPods, "AirPods Pro"));
        QVERIFY(QTest::qWaitFor([&] { return m_server->defaultSinkName() == kAirPods; },
                                kGenerousWaitMs));

        QVERIFY(m_server->pactl({"set-default-sink", kLeft}));
        // Other lists keep arriving (a volume change publishes them too): still no re-apply.
        QVERIFY(m_server->pactl({"set-sink-volume", kRight, "40%"}));
        QTest::qWait(kSettleMs);
        QCOMPARE(m_server->defaultSinkName(), kLeft);
        QCOMPARE(defaultOutputUID(), kLeft);
    }

    void groupRuleBuildsTheCombinedSink() {
        OutputGroup group;
        group.id = QUuid::createUuid();
        group.name = QStringLiteral("Studio");
        group.memberUIDs = {kLeft, kRight};
        group.masterUID = kLeft;
        m_manager->setGroups({group});
        m_manager->saveGroups();
        m_manager->addRule({kAirPods}, RuleAction::group(group.id));

        QVERIFY(m_server->loadNullSink(kAirPods, "AirPods Pro"));
        const QString aggregate = GroupManager::aggregateUID(group.id);
        QVERIFY(QTest::qWaitFor([&] { return m_server->defaultSinkName() == aggregate; },
                                kGenerousWaitMs));
        const auto owner = m_server->owningModule(aggregate);
        QVERIFY(owner);
        QVERIFY2(owner->second.contains("slaves=studio_left,studio_right"),
                 qPrintable(owner->second));

        // The rule ends with its device; with no priority list the output before comes back.
        QVERIFY(m_server->pactl({"unload-module", QString::number(module(kAirPods))}));
        QVERIFY(QTest::qWaitFor([&] { return !m_server->sinkNames().contains(aggregate); },
                                kGenerousWaitMs));
        QVERIFY(QTest::qWaitFor([&] { return m_server->defaultSinkName() == kBuiltin; },
                                kGenerousWaitMs));
    }

    // A headset's sink and microphone arrive a few ms apart; each side has its rule. Every list
    // published on the way is evaluated, and each default changes once.
    void arrivingHeadsetChangesEachDefaultOnce() {
        m_manager->addRule({kAirPods}, RuleAction::device(kAirPods));
        m_manager->addInputRule({kHeadsetMic}, RuleAction::device(kHeadsetMic));
        DefaultHistory outputs;
        DefaultHistory inputs;
        follow(kAudioHardwarePropertyDefaultOutputDevice, outputs);
        follow(kAudioHardwarePropertyDefaultInputDevice, inputs);

        QVERIFY(m_server->loadNullSink(kAirPods, "AirPods Pro"));
        QVERIFY(
            m_server->loadRemapSource(kHeadsetMic, "Headset Microphone", kAirPods + ".monitor"));
        QVERIFY(QTest::qWaitFor(
            [&] {
                return m_server->defaultSinkName() == kAirPods &&
                       m_server->defaultSourceName() == kHeadsetMic;
            },
            kGenerousWaitMs));
        QTest::qWait(kSettleMs);
        m_hardware->AudioObjectRemovePropertyListenerBlock(outputs.token);
        m_hardware->AudioObjectRemovePropertyListenerBlock(inputs.token);
        QCOMPARE(outputs.names, QStringList{kAirPods});
        QCOMPARE(inputs.names, QStringList{kHeadsetMic});
        QCOMPARE(m_audio->defaultInputID(), *m_audio->deviceIDForInputUID(kHeadsetMic));
    }

private:
    quint32 module(const QString& sink) const {
        const auto owner = m_server->owningModule(sink);
        return owner ? owner->first : 0;
    }

    QString defaultOutputUID() const {
        return m_audio->readUID(m_audio->readDefaultOutputID()).value_or(QString());
    }

    void follow(AudioObjectPropertySelector selector, DefaultHistory& history) {
        const bool output = selector == kAudioHardwarePropertyDefaultOutputDevice;
        m_hardware->AudioObjectAddPropertyListenerBlock(
            kAudioObjectSystemObject,
            {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain},
            [this, output, names = &history.names](const auto&) {
                const AudioObjectID id =
                    output ? m_audio->readDefaultOutputID() : m_audio->readDefaultInputID();
                const QString name = m_audio->readUID(id).value_or(QString());
                if (!name.isEmpty() && (names->isEmpty() || names->last() != name))
                    names->append(name);
            },
            history.token);
    }

    std::unique_ptr<QTemporaryDir> m_directory;
    NotificationCenter m_center;
    SystemSleepMonitor m_sleepMonitor;
    std::unique_ptr<PrivateSoundServer> m_server;
    std::unique_ptr<PulseAudioHardware> m_hardware;
    std::unique_ptr<UserDefaults> m_defaults;
    std::unique_ptr<AppSettings> m_settings;
    std::unique_ptr<AudioDeviceManager> m_audio;
    std::unique_ptr<GroupManager> m_manager;
};

QTEST_GUILESS_MAIN(AutoSwitchServerTest)
#include "tst_autoswitch_server.moc"
