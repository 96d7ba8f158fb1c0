#pragma once

#include "PrivateSoundServer.h"
#include "TestSupport.h"

#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "platform/SystemSleepMonitor.h"
#include "platform/UserDefaults.h"
#include "platform/pulse/PulseAudioHardware.h"

#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <memory>

// A private sound server with Ondril's stack over it, as the server tests use it: the libpulse
// realisation, a settings file of the test's own, the device manager and, once launched, the group
// manager. The helpers check what the server itself says (pactl, the sinks' monitors).
struct ServerRig {
    static constexpr int generousWaitMs = 15000;
    // Monitors carry what a sink plays after its volume (cubic): a half-scale tone played at 0.65
    // or more stays well above the first; silence stays below the second.
    static constexpr double playingLevel = 0.05;
    static constexpr double silentLevel = 0.01;

    std::unique_ptr<PrivateSoundServer> server;
    std::unique_ptr<PulseAudioHardware> hardware;
    QTemporaryDir directory;
    std::unique_ptr<UserDefaults> defaults;
    NotificationCenter center;
    std::unique_ptr<AppSettings> settings;
    SystemSleepMonitor sleepMonitor;
    std::unique_ptr<AudioDeviceManager> audio;
    std::unique_ptr<GroupManager> manager;
    std::unique_ptr<QProcess> tone;

    ~ServerRig() {
        if (tone) {
            tone->kill();
            tone->waitForFinished();
        }
    }

    // Starts the server ONDRIL_TEST_SERVER names, with `defaultSink` as its default output, and
    // connects. Empty, or what went wrong.
    QString start(const QString& defaultSink = QStringLiteral("builtin"));
    // The device manager, once it lists the server's outputs and their default.
    AudioDeviceManager& devices();
    // The group manager over it, as at launch: its queued restore has run.
    GroupManager& launch();

    // Unloads the module behind `sink`, as unplugging the device does.
    bool unplug(const QString& sink) const;
    QString defaultOutputUID() const;

    // A tone played to the default output as "ondril-tone", once the server has placed it on
    // `expectedSink`.
    void playToneToDefault(const QString& expectedSink);
    void verifyPlaying(const QString& sink) const { verifyLevel(sink, true); }
    void verifySilent(const QString& sink) const { verifyLevel(sink, false); }
    // What the monitor of `sink` carries: above playingLevel, or below silentLevel.
    void verifyLevel(const QString& sink, bool playing) const;
    // Every channel of `sink` within one percent of `scalar`, once the server has applied it.
    void verifyVolume(const QString& sink, double scalar) const;
    // The combined sink plays to `members`, the first of them its clock master.
    void verifySlaves(const QString& aggregate, const QStringList& members) const;
};

// Whether `condition` comes true within ServerRig::generousWaitMs, the event loop turning.
inline bool eventually(const std::function<bool()>& condition) {
    return QTest::qWaitFor(condition, ServerRig::generousWaitMs);
}
