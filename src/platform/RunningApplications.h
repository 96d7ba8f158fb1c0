#pragma once

#include <QList>
#include <QString>

#include <cstdint>
#include <memory>
#include <optional>

// One running application as the desktop knows it.
struct RunningApplication {
    std::optional<QString> bundleIdentifier; // absent: the process has no application identity
    std::optional<QString> localizedName;
    std::optional<QString> iconName; // a name in the icon theme
    std::int32_t processIdentifier = 0;
};

// The desktop's view of running processes: which application a process belongs to and which
// process is responsible for a helper. Behind it run the /proc and desktop-entry realisation and
// an in-memory one for the tests.
class RunningApplications {
public:
    virtual ~RunningApplications() = default;

    // The realisation the running program uses: the desktop's own (/proc and desktop entries)
    // unless another was installed.
    static RunningApplications& shared();
    static void install(std::unique_ptr<RunningApplications> applications);

    virtual std::optional<RunningApplication>
    runningApplicationWithProcessIdentifier(std::int32_t pid) const = 0;
    virtual QList<RunningApplication>
    runningApplicationsWithBundleIdentifier(const QString& bundleIdentifier) const = 0;
    // The process responsible for `pid` (a helper maps to its application); 0 or less when unknown.
    virtual std::int32_t responsibilityGetPidResponsibleForPid(std::int32_t pid) const = 0;
    // This program's own identifier, "" when it has none.
    virtual QString ownBundleIdentifier() const = 0;
};
