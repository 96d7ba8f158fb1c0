#pragma once

// A complete group stack on the simulated audio service, with a private settings file, a sleep
// monitor the test drives itself and running applications it makes up. Header-only: shared by the
// tests of this folder and the rigs built on it.

#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "groups/OutputGroupCodec.h"
#include "platform/SystemSleepMonitor.h"
#include "platform/UserDefaults.h"
#include "platform/simulated/SimulatedAudioHardware.h"
#include "platform/simulated/SimulatedRunningApplications.h"

#include "TestSupport.h"

#include <QTemporaryDir>

#include <memory>

// Lets every queued hop run: listener, refresh, publication, our queued subscription, and what
// those cause in turn.
inline void settle() {
    TestSupport::spinEventLoop(25);
}

struct GroupTestRig {
    // Stable-key shaped UIDs ("a:b:c:d:e"), as USB devices report them.
    static inline const QString speakersUID = QStringLiteral("builtin:Ondril:Speakers:0:1,2");
    static inline const QString leftUID = QStringLiteral("usb:Acme:LeftDisplay:1001:1,2");
    static inline const QString rightUID = QStringLiteral("usb:Acme:RightDisplay:1002:1,2");
    static inline const QString headphonesUID = QStringLiteral("usb:Acme:Headphones:1003:1,2");

    QTemporaryDir directory;
    std::unique_ptr<SimulatedAudioHardware> hardware;
    std::unique_ptr<UserDefaults> defaults;
    NotificationCenter center;
    std::unique_ptr<AppSettings> settings;
    SystemSleepMonitor sleepMonitor;
    std::unique_ptr<AudioDeviceManager> audio;
    std::unique_ptr<GroupManager> manager;
    SimulatedRunningApplications applications;

    AudioObjectID speakers = 0;
    AudioObjectID left = 0;
    AudioObjectID right = 0;
    AudioObjectID headphones = 0;

    explicit GroupTestRig(std::unique_ptr<SimulatedAudioHardware> service =
                              std::make_unique<SimulatedAudioHardware>())
        : hardware(std::move(service)) {
        defaults =
            std::make_unique<UserDefaults>(directory.filePath(QStringLiteral("defaults.json")));
        settings = std::make_unique<AppSettings>(*defaults, center);
        speakers = addOutput(speakersUID, QStringLiteral("Speakers"));
        left = addOutput(leftUID, QStringLiteral("Left Display"));
        right = addOutput(rightUID, QStringLiteral("Right Display"));
        headphones = addOutput(headphonesUID, QStringLiteral("Headphones"));
        hardware->setDefaultOutputDevice(speakers);
        applications.setOwnBundleIdentifier(QStringLiteral("com.kestrivane.ondril"));
    }

    ~GroupTestRig() {
        manager.reset();
        audio.reset();
        settle();
    }

    AudioObjectID addOutput(const QString& uid, const QString& name, bool input = false) {
        SimulatedAudioHardware::DeviceSpec spec;
        spec.uid = uid;
        spec.name = name;
        if (input) {
            spec.outputChannels = {};
            spec.inputChannels = {1};
        }
        return hardware->addDevice(spec);
    }
    AudioObjectID addInput(const QString& uid, const QString& name) {
        return addOutput(uid, name, true);
    }

    // A process that plays through the audio service, known to the desktop as `bundleID`.
    AudioObjectID addApp(std::int32_t pid, const std::optional<QString>& bundleID,
                         const QString& name = {}, bool playing = true,
                         std::int32_t responsible = 0) {
        applications.addProcess(
            pid,
            {bundleID, name.isEmpty() ? std::nullopt : std::optional<QString>(name), responsible});
        const AudioObjectID object = hardware->addProcess({pid, bundleID.value_or(""), playing});
        settle();
        return object;
    }

    void storeGroups(const QList<OutputGroup>& groups) {
        defaults->setData(*OutputGroupCodec::encode(groups), SettingsKeys::groups);
    }

    // As at launch: the device manager, at once the group manager, then the loop turns.
    GroupManager& launch() {
        audio = std::make_unique<AudioDeviceManager>(*hardware);
        manager = std::make_unique<GroupManager>(*audio, *settings, sleepMonitor);
        settle();
        return *manager;
    }

    // Launch, then store the groups into the running manager.
    GroupManager& launchWith(const QList<OutputGroup>& groups) {
        launch();
        manager->setGroups(groups);
        manager->saveGroups();
        return *manager;
    }

    AudioObjectID defaultOutput() const { return audio->readDefaultOutputID(); }

    float volumeOf(AudioObjectID id) const { return audio->volume(id).value_or(-1.0f); }
};
