#pragma once

#include <QObject>

// Takes over the keyboard's volume keys while a group is active, so that they drive the group's
// master volume and mute. One instance for the process. Launch installs it; activating a group
// starts it, which installs it if launch has not. How the keys are grabbed on the desktop comes
// with the volume-keys work: until then the monitor keeps only its state, which is what launch and
// activation order against.
class VolumeKeyMonitor : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isRunning READ isRunning NOTIFY isRunningChanged)

public:
    static VolumeKeyMonitor& shared();

    bool isRunning() const { return m_isRunning; }

    // For the moment when the user needs the keys: does nothing when already running.
    void start();
    // The launch step: the keys are taken at once, without asking the user anything.
    void installTap();

signals:
    void isRunningChanged();

private:
    bool m_isRunning = false;
};
