#pragma once

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <functional>

// Helpers for tests of code that publishes through the event loop.
namespace TestSupport {

// Lets queued deliveries run: processes posted events `turns` times (a delivery that queues
// another one needs a second turn).
void spinEventLoop(int turns = 3);

// Processes events until `condition` holds, at most `maxTurns` turns. Counts turns rather than
// time, so a slow machine does not turn into a failure. Returns whether the condition held.
bool spinUntil(const std::function<bool()>& condition, int maxTurns = 1000);

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

} // namespace TestSupport
