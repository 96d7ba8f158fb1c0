#pragma once

// The group stack of GroupTestRig with the app audio manager, the quick configs and two inputs, as
// the URL handler and the configs see them at run time.

#include "../groups/GroupTestRig.h"

#include "appaudio/AppAudioManager.h"
#include "configs/ConfigManager.h"

struct ConfigRig : GroupTestRig {
    static inline const QString micUID = QStringLiteral("usb:Acme:Microphone:2001:1");
    static inline const QString webcamUID = QStringLiteral("usb:Acme:Webcam:2002:1");
    static inline const QString player = QStringLiteral("org.example.Player");

    OutputGroup displays = makeGroup("Both Displays", {leftUID, rightUID});
    std::unique_ptr<AppAudioManager> apps;
    std::unique_ptr<ConfigManager> configs;
    AudioObjectID mic = addInput(micUID, "Microphone");
    AudioObjectID webcam = addInput(webcamUID, "Webcam");

    ConfigRig() {
        hardware->setDefaultInputDevice(mic);
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

    AudioObjectID defaultInput() const { return audio->readDefaultInputID(); }
};
