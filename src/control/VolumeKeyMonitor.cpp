#include "control/VolumeKeyMonitor.h"

VolumeKeyMonitor& VolumeKeyMonitor::shared() {
    static auto* monitor = new VolumeKeyMonitor;
    return *monitor;
}

void VolumeKeyMonitor::start() {
    if (!m_isRunning)
        installTap();
}

void VolumeKeyMonitor::installTap() {
    m_isRunning = true;
    emit isRunningChanged();
}
