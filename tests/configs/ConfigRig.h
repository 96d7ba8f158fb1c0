#pragma once

// The group stack of GroupTestRig with running applications, the app audio manager, the quick
// configs and an input, as the URL handler and the configs see them at run time.

#include "../groups/GroupTestRig.h"

#include "appaudio/AppAudioManager.h"
#include "configs/ConfigManager.h"
#include "platform/simulated/SimulatedRunningApplications.h"

struct ConfigRig : GroupTestRig {
    static inline const QString micUID = QStringLiteral("usb:Acme:Microphone:2001:1");
    static inline const QString webcamUID = QStringLiteral("usb:Acme:Webcam:2002:1");
    static inline const QString player = QStringLiteral("org.example.Player");

    SimulatedRunningApplications applications;
    std::unique_ptr<AppAudioManager> apps;
    std::unique_ptr<ConfigManager> configs;
    AudioObjectID mic = 0;
    AudioObjectID webcam = 0;

    ConfigRig() {
        mic = addInput(micUID, QStringLiteral("Microphone"));
        webcam = addInput(webcamUID, QStringLiteral("Webcam"));
        hardware->setDefaultInputDevice(mic);
        applications.setOwnBundleIdentifier(QStringLiteral("com.kestrivane.ondril"));
        launch();
        startUpper();
    }
    ~ConfigRig() {
        configs.reset();
        apps.reset();
        settle();
    }

    // The managers above the group manager, as at launch; again to read back what was stored.
    void startUpper() {
        configs.reset();
        apps.reset();
        apps = std::make_unique<AppAudioManager>(*audio, *manager, *settings, applications);
        configs = std::make_unique<ConfigManager>(*audio, *manager, *apps, *settings);
        settle();
    }

    // A playing process known to the desktop as `bundleID`.
    void addPlayer(std::int32_t pid = 4100, const QString& bundleID = player) {
        applications.addProcess(pid, {bundleID, std::nullopt, 0});
        hardware->addProcess({pid, bundleID, true});
        settle();
    }

    AudioObjectID defaultInput() const { return audio->readDefaultInputID(); }
};
