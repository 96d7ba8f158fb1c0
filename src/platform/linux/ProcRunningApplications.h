#pragma once

#include "platform/RunningApplications.h"

#include <QHash>
#include <QStringList>

#include <functional>

// Running applications as a Linux desktop knows them, read from /proc, the desktop entries and
// what the process's playback streams say of it. A process's identifier is, in order: its
// stream's application.id, the sandbox's pipewire.access.portal.app_id, the application id of its
// systemd app scope (app-<id>-….scope, app-flatpak-<id>-….scope), the id of a desktop entry whose
// Exec runs the same executable, else the executable's base name. Its name is the entry's Name,
// else the stream's application.name, else the identifier; its icon the entry's Icon, else the
// stream's application.icon_name. A helper's responsible process is the topmost ancestor
// that runs the same executable, so browser and Electron helpers count as their application.
class ProcRunningApplications : public RunningApplications {
public:
    // What a process's playback stream says of it; empty fields are unset.
    struct StreamIdentity {
        QString applicationID;
        QString portalAppID;
        QString applicationName;
        QString iconName;
    };
    // The sound server's answer for a pid; nullopt when the process plays no stream.
    using StreamIdentities = std::function<std::optional<StreamIdentity>(std::int32_t pid)>;

    // `procRoot` and `dataDirectories` (each holding applications/) are for tests; by default
    // /proc and $XDG_DATA_HOME followed by $XDG_DATA_DIRS.
    explicit ProcRunningApplications(const QString& procRoot = QStringLiteral("/proc"),
                                     const QStringList& dataDirectories = {});

    // The sound server's realisation tells what streams say of their processes.
    void setStreamIdentities(StreamIdentities identities);

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

    StreamIdentities m_streamIdentities;
    QString m_procRoot;
    QStringList m_dataDirectories;
    mutable std::optional<DesktopIndex> m_index; // read once, on first use
};
