#pragma once

#include "platform/RunningApplications.h"

#include <QHash>
#include <QStringList>

// Running applications as a Linux desktop knows them, read from /proc and the desktop entries.
// A process's identifier is, in order: the application id of its systemd app scope
// (app-<id>-….scope, app-flatpak-<id>-….scope), the id of a desktop entry whose Exec runs the
// same executable, else the executable's base name. Its name is the entry's Name, else the
// identifier; its icon the entry's Icon. A helper's responsible process is the topmost ancestor
// that runs the same executable, so browser and Electron helpers count as their application.
class ProcRunningApplications : public RunningApplications {
public:
    // `procRoot` and `dataDirectories` (each holding applications/) are for tests; by default
    // /proc and $XDG_DATA_HOME followed by $XDG_DATA_DIRS.
    explicit ProcRunningApplications(const QString& procRoot = QStringLiteral("/proc"),
                                     const QStringList& dataDirectories = {});

    std::optional<RunningApplication>
    runningApplicationWithProcessIdentifier(std::int32_t pid) const override;
    QList<RunningApplication>
    runningApplicationsWithBundleIdentifier(const QString& bundleIdentifier) const override;
    std::int32_t responsibilityGetPidResponsibleForPid(std::int32_t pid) const override;
    QString ownBundleIdentifier() const override;

    // The application id named by one line of /proc/PID/cgroup, if it is an app scope or service.
    static std::optional<QString> bundleIdentifierFromCgroup(const QString& cgroupLine);

private:
    struct DesktopEntry {
        QString id;
        QString name;
        QString icon;
    };

    QString executable(std::int32_t pid) const;
    std::int32_t parentPid(std::int32_t pid) const;
    std::optional<QString> scopeIdentifier(std::int32_t pid) const;
    struct DesktopIndex {
        QHash<QString, DesktopEntry> byId;
        QHash<QString, QString> idByExecutable; // canonical path of the Exec program
    };
    const DesktopIndex& desktopIndex() const;

    QString m_procRoot;
    QStringList m_dataDirectories;
    mutable std::optional<DesktopIndex> m_index; // read once, on first use
};
