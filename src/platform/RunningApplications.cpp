#include "platform/RunningApplications.h"

#include "platform/linux/ProcRunningApplications.h"

namespace {
std::unique_ptr<RunningApplications>& installedApplications() {
    static std::unique_ptr<RunningApplications> applications;
    return applications;
}
} // namespace

RunningApplications& RunningApplications::shared() {
    auto& applications = installedApplications();
    if (!applications)
        applications = std::make_unique<ProcRunningApplications>();
    return *applications;
}

void RunningApplications::install(std::unique_ptr<RunningApplications> applications) {
    installedApplications() = std::move(applications);
}
