#pragma once

#include "platform/RunningApplications.h"

#include <map>

// Running applications a test describes: processes with or without an identity, and helpers with
// the process responsible for them.
class SimulatedRunningApplications : public RunningApplications {
public:
    struct ProcessSpec {
        std::optional<QString> bundleIdentifier;
        std::optional<QString> localizedName;
        std::int32_t responsiblePid = 0; // 0: responsible for itself
    };

    void addProcess(std::int32_t pid, const ProcessSpec& spec) { m_processes[pid] = spec; }
    void removeProcess(std::int32_t pid) { m_processes.erase(pid); }
    void setOwnBundleIdentifier(const QString& bundleIdentifier) { m_own = bundleIdentifier; }

    std::optional<RunningApplication>
    runningApplicationWithProcessIdentifier(std::int32_t pid) const override;
    QList<RunningApplication>
    runningApplicationsWithBundleIdentifier(const QString& bundleIdentifier) const override;
    std::int32_t responsibilityGetPidResponsibleForPid(std::int32_t pid) const override;
    QString ownBundleIdentifier() const override { return m_own; }

private:
    std::map<std::int32_t, ProcessSpec> m_processes;
    QString m_own;
};
