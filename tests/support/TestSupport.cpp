#include "TestSupport.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QProcess>

namespace TestSupport {

void spinEventLoop(int turns) {
    for (int i = 0; i < turns; ++i) {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents(QEventLoop::AllEvents);
    }
}

bool spinUntil(const std::function<bool()>& condition, int maxTurns) {
    for (int i = 0; i < maxTurns; ++i) {
        if (condition())
            return true;
        spinEventLoop(1);
    }
    return condition();
}

QString helperDirectory() {
    return qEnvironmentVariable("ONDRIL_TEST_HELPER_DIR");
}

Run runOndril(const QStringList& arguments, const QProcessEnvironment& environment) {
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(helperDirectory() + QStringLiteral("/ondril"), arguments);
    Run run;
    if (!process.waitForFinished(60000))
        return run;
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

} // namespace TestSupport
