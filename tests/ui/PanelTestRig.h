#pragma once

// The group stack of GroupTestRig with running applications, the app audio manager, the level
// meter and the panel on top. Header-only: shared by the tests of this folder.

#include "../groups/GroupTestRig.h"

#include "appaudio/AppAudioManager.h"
#include "appaudio/LevelMeter.h"
#include "platform/simulated/SimulatedRunningApplications.h"
#include "ui/panel/PanelController.h"

struct PanelTestRig : GroupTestRig {
    SimulatedRunningApplications applications;
    std::unique_ptr<AppAudioManager> apps;
    std::unique_ptr<LevelMeter> meter;
    std::unique_ptr<PanelController> panel;

    explicit PanelTestRig(const QList<OutputGroup>& groups = {}) {
        applications.setOwnBundleIdentifier(QStringLiteral("com.kestrivane.ondril"));
        launchWith(groups);
        apps = std::make_unique<AppAudioManager>(*audio, *manager, *settings, applications);
        meter = std::make_unique<LevelMeter>(*audio);
        reopenPanel();
    }

    // A new panel over the same state, as after a restart of the program.
    void reopenPanel() {
        panel.reset();
        panel = std::make_unique<PanelController>(*audio, *manager, *settings, *apps, *meter,
                                                  applications);
        settle();
    }

    ~PanelTestRig() {
        panel.reset();
        meter.reset();
        apps.reset();
        settle();
    }

    // A process that plays through the audio service, known to the desktop as `bundleID`.
    AudioObjectID addApp(std::int32_t pid, const QString& bundleID, const QString& name,
                         bool playing = true) {
        applications.addProcess(pid, {bundleID, name, 0});
        const AudioObjectID object = hardware->addProcess({pid, bundleID, playing});
        settle();
        return object;
    }
};
