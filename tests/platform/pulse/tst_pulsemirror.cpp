#include "platform/pulse/PulseMirror.h"
#include "platform/pulse/PulseModuleArguments.h"

#include <QtTest>

// The mirror fed with made-up records, in the orders the servers really produce: what it holds
// afterwards and which notices it gives decide what the program sees and which listeners run.
namespace {

using Device = PulseRecords::Device;
using Notice = PulseMirror::Notice;
using Target = PulseMirror::Target;

Device sink(std::uint32_t index, const QString& name, std::uint32_t volume = 65536,
            bool mute = false) {
    Device device;
    device.index = index;
    device.name = name;
    device.description = name.toUpper();
    device.volume = {volume, volume};
    device.mute = mute;
    return device;
}

const Notice kDeviceList{Target::System, {}, kAudioHardwarePropertyDevices};
const Notice kProcessList{Target::System, {}, kAudioHardwarePropertyProcessObjectList};

} // namespace

class PulseMirrorTest : public QObject {
    Q_OBJECT

private slots:
    // A sink is known by its name, whatever its index says.
    void sinkIsKnownByItsName() {
        PulseMirror mirror;
        // PipeWire may send "change" before "new"; both fetch the object, both answers arrive.
        QCOMPARE(mirror.upsertSink(sink(7, "studio")), PulseMirror::Notices{kDeviceList});
        QCOMPARE(mirror.upsertSink(sink(7, "studio")), PulseMirror::Notices{});
        QCOMPARE(mirror.sinksInServerOrder().size(), std::size_t(1));
        // A restarted module gets a new index.
        QCOMPARE(mirror.removeSink(7), PulseMirror::Notices{kDeviceList});
        QCOMPARE(mirror.upsertSink(sink(12, "studio")), PulseMirror::Notices{kDeviceList});
        QCOMPARE(mirror.sink("studio")->index, 12u);
        // A late removal of the old index must not take the new sink away.
        QCOMPARE(mirror.removeSink(7), PulseMirror::Notices{});
        QVERIFY(mirror.sink("studio"));
        // An index used again under another name replaces the old sink.
        mirror.upsertSink(sink(12, "airpods"));
        QVERIFY(!mirror.sink("studio"));
        QVERIFY(mirror.sink("airpods"));
        QCOMPARE(mirror.removeSink(12), PulseMirror::Notices{kDeviceList});
        QVERIFY(mirror.sinksInServerOrder().empty());
    }

    void changesOfADeviceGiveTheirOwnNotices_data() {
        QTest::addColumn<Device>("changed");
        QTest::addColumn<quint32>("selector"); // of the one notice; 0 for none
        QTest::newRow("volume") << sink(7, "studio", 30000) << kAudioDevicePropertyVolumeScalar;
        QTest::newRow("mute") << sink(7, "studio", 65536, true) << kAudioDevicePropertyMute;
        Device renamed = sink(7, "studio");
        renamed.description = "Studio Display";
        QTest::newRow("description") << renamed << kAudioObjectPropertyName;
        QTest::newRow("nothing") << sink(7, "studio") << 0u;
    }
    void changesOfADeviceGiveTheirOwnNotices() {
        QFETCH(Device, changed);
        QFETCH(quint32, selector);
        PulseMirror mirror;
        mirror.upsertSink(sink(7, "studio"));
        QCOMPARE(mirror.upsertSink(changed),
                 (selector ? PulseMirror::Notices{{Target::Sink, "studio", selector}}
                           : PulseMirror::Notices{}));
        QCOMPARE(*mirror.sink("studio"), changed);
    }

    void placeholderDefaultNameKeepsTheOldDefault_data() {
        QTest::addColumn<QString>("reported");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<bool>("announced");
        QTest::newRow("PipeWire placeholder") << QString("@DEFAULT_SINK@") << "studio" << false;
        QTest::newRow("real name") << QString("airpods") << "airpods" << true;
        QTest::newRow("same name") << QString("studio") << "studio" << false;
    }
    void placeholderDefaultNameKeepsTheOldDefault() {
        QFETCH(QString, reported);
        QFETCH(QString, expected);
        QFETCH(bool, announced);
        PulseMirror mirror;
        mirror.setServer({"PulseAudio (on PipeWire 0.3.65)", "studio", "mic"});
        const auto notices = mirror.setServer({"PulseAudio (on PipeWire 0.3.65)", reported, "mic"});
        QCOMPARE(mirror.server().defaultSink, expected);
        const PulseMirror::Notices defaultChanged{
            {Target::System, {}, kAudioHardwarePropertyDefaultOutputDevice}};
        QCOMPARE(notices == defaultChanged, announced);
    }

    void processesGroupStreamsByPidAndRunWhileAnyIsUncorked() {
        PulseMirror mirror;
        mirror.upsertClient({1, 4242, "firefox"});
        mirror.upsertClient({2, 5151, "mpv"});
        // A stream without a pid of its own takes the client's; a module's stream has no client.
        QCOMPARE(mirror.upsertStream({10, 1, 0, PulseRecords::kInvalidIndex, true, 0, "", ""}),
                 PulseMirror::Notices{kProcessList});
        mirror.upsertStream({11, 1, 0, PulseRecords::kInvalidIndex, false, 4242, "firefox", ""});
        // PipeWire: a stream being placed has no sink yet and is corked.
        mirror.upsertStream({12, 2, PulseRecords::kInvalidIndex, PulseRecords::kInvalidIndex, true,
                             5151, "mpv", ""});
        mirror.upsertStream({13, PulseRecords::kInvalidIndex, 0, 9, false, 0, "", ""});
        const auto processes = mirror.processes();
        QCOMPARE(processes.size(), std::size_t(2));
        QCOMPARE(processes[0].pid, 4242);
        QCOMPARE(processes[0].binary, QString("firefox"));
        QVERIFY(processes[0].isRunningOutput);
        QCOMPARE(processes[1].pid, 5151);
        QVERIFY(!processes[1].isRunningOutput);
        QCOMPARE(mirror.removeStream(11), PulseMirror::Notices{kProcessList});
        QVERIFY(!mirror.processes()[0].isRunningOutput);
    }

    // Blanks and apostrophes are proven on both real servers; what pactl cannot pass is cleaned.
    void combineArgumentsCleanQuotesAndBackslashes() {
        QCOMPARE(PulseModuleArguments::combineSink("g", "A \"B\" \\C", {"a", "b"},
                                                   PulseModuleArguments::Server::PulseAudio, 42),
                 QString("sink_name=g slaves=a,b sink_properties='device.description=\"A ") +
                     QChar(0x201D) + "B" + QChar(0x201D) + " C\" ondril.owner.pid=42'");
    }
};

QTEST_GUILESS_MAIN(PulseMirrorTest)
#include "tst_pulsemirror.moc"
