#pragma once

#include "groups/OutputGroup.h"

#include <QProcess>

#include <memory>

// Helpers for tests of code that publishes through the event loop.
namespace TestSupport {

// Lets queued deliveries run: processes posted events `turns` times (a delivery that queues
// another one needs a second turn).
void spinEventLoop(int turns = 3);

// The environment's helper directory (the build directory), where the built `ondril` lies.
QString helperDirectory();

// What one run of the built `ondril` gave: exit status (-1 when it crashed or hung) and output.
struct Run {
    int exitCode = -1;
    QString out;
    QString err;
};
Run runOndril(const QStringList& arguments,
              const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment());
// The built `ondril` started and left running, its standard error passed through.
std::unique_ptr<QProcess>
startOndril(const QStringList& arguments = {"--headless", "--backend=pulse"},
            const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment());

} // namespace TestSupport

// A group of the test's own, the first member its master unless `master` names another.
OutputGroup makeGroup(const QString& name, const QStringList& members, const QString& master = {},
                      double masterVolume = 0.65);
