#include "platform/simulated/SimulatedRunningApplications.h"

std::optional<RunningApplication>
SimulatedRunningApplications::runningApplicationWithProcessIdentifier(std::int32_t pid) const {
    const auto it = m_processes.find(pid);
    if (it == m_processes.end())
        return std::nullopt;
    return RunningApplication{it->second.bundleIdentifier, it->second.localizedName, {}, pid};
}

QList<RunningApplication> SimulatedRunningApplications::runningApplicationsWithBundleIdentifier(
    const QString& bundleIdentifier) const {
    QList<RunningApplication> found;
    for (const auto& [pid, spec] : m_processes)
        if (spec.bundleIdentifier == bundleIdentifier)
            found.append(RunningApplication{spec.bundleIdentifier, spec.localizedName, {}, pid});
    return found;
}

std::int32_t
SimulatedRunningApplications::responsibilityGetPidResponsibleForPid(std::int32_t pid) const {
    const auto it = m_processes.find(pid);
    if (it == m_processes.end())
        return -1;
    return it->second.responsiblePid > 0 ? it->second.responsiblePid : pid;
}
