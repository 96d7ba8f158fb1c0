#pragma once

// The group stack of GroupTestRig with the app audio manager, the level meter and the panel on
// top. Header-only: shared by the tests of this folder.

#include "../groups/GroupTestRig.h"

#include "appaudio/AppAudioManager.h"
#include "appaudio/LevelMeter.h"
#include "ui/panel/PanelController.h"

#include <QQuickItem>

// The item of that object name, searched along the visual tree: rows made by a Repeater are not
// its QObject children.
inline QQuickItem* findItem(QQuickItem* item, const QString& name) {
    if (item->objectName() == name)
        return item;
    for (QQuickItem* child : item->childItems())
        if (QQuickItem* found = findItem(child, name))
            return found;
    return nullptr;
}

struct PanelTestRig : GroupTestRig {
    std::unique_ptr<AppAudioManager> apps;
    std::unique_ptr<LevelMeter> meter;
    std::unique_ptr<PanelController> panel;

    explicit PanelTestRig(const QList<OutputGroup>& groups = {}) {
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
};
