#include "ServerRig.h"

#include <QtTest>

#include <cmath>

QString ServerRig::start(const QString& defaultSink) {
    QString error;
    server = PrivateSoundServer::startFromEnvironment(error);
    if (!server)
        return error;
    if (!server->pactl({"set-default-sink", defaultSink}))
        return QStringLiteral("could not make %1 the default").arg(defaultSink);
    hardware = PulseAudioHardware::connect(5000);
    if (!hardware)
        return QStringLiteral("no connection to the private server");
    defaults = std::make_unique<UserDefaults>(directory.filePath("defaults.json"));
    settings = std::make_unique<AppSettings>(*defaults, center);
    return {};
}

AudioDeviceManager& ServerRig::devices() {
    if (!audio)
        audio = std::make_unique<AudioDeviceManager>(*hardware);
    const QString expected = server->defaultSinkName();
    if (!eventually(
            [&] { return !audio->outputDevices().isEmpty() && defaultOutputUID() == expected; }))
        qWarning("the device manager did not list the server's outputs");
    return *audio;
}

GroupManager& ServerRig::launch() {
    manager = std::make_unique<GroupManager>(devices(), *settings, sleepMonitor);
    QTest::qWait(50); // the queued restore and the first publication
    return *manager;
}

bool ServerRig::unplug(const QString& sink) const {
    const auto owner = server->owningModule(sink);
    return owner && server->pactl({"unload-module", QString::number(owner->first)});
}

QString ServerRig::defaultOutputUID() const {
    return audio->readUID(audio->readDefaultOutputID()).value_or(QString());
}

void ServerRig::playToneToDefault(const QString& expectedSink) {
    tone = server->playTone({}, "ondril-tone");
    QVERIFY(tone);
    QVERIFY2(eventually([&] { return server->sinkOfStream("ondril-tone") == expectedSink; }),
             qPrintable(server->sinkOfStream("ondril-tone")));
}

void ServerRig::verifyLevel(const QString& sink, bool playing) const {
    const auto level = server->recordLevel(sink);
    QVERIFY2(level, qPrintable(sink));
    QVERIFY2(playing ? *level > playingLevel : *level < silentLevel,
             qPrintable(sink + ": " + QString::number(*level)));
}

void ServerRig::verifyVolume(const QString& sink, double scalar) const {
    // pactl prints rounded percents: one step either way of PulseAudio's rounding.
    const auto matches = [&] {
        const std::vector<int> percents = server->sinkVolumePercent(sink);
        const int expected = int(std::lround(scalar * 100));
        return !percents.empty() && std::all_of(percents.begin(), percents.end(),
                                                [&](int p) { return std::abs(p - expected) <= 1; });
    };
    if (!eventually(matches))
        QFAIL(qPrintable(QStringLiteral("%1: %2, expected %3%")
                             .arg(sink, server->pactl({"get-sink-volume", sink}).value_or(""))
                             .arg(scalar * 100)));
}

void ServerRig::verifySlaves(const QString& aggregate, const QStringList& members) const {
    const auto owner = server->owningModule(aggregate);
    QVERIFY2(owner, qPrintable(aggregate));
    QVERIFY2(owner->second.contains("slaves=" + members.join(u',')), qPrintable(owner->second));
}
