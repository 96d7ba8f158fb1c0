#include "TestSupport.h"

#include <QCoreApplication>
#include <QEventLoop>

namespace TestSupport {

void spinEventLoop(int turns) {
    for (int i = 0; i < turns; ++i) {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents(QEventLoop::AllEvents);
    }
}

QString helperDirectory() {
    return qEnvironmentVariable("ONDRIL_TEST_HELPER_DIR");
}

Run runOndril(const QStringList& arguments, const QProcessEnvironment& environment) {
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(helperDirectory() + "/ondril", arguments);
    if (!process.waitForFinished(60000))
        return {};
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

std::unique_ptr<QProcess> startOndril(const QStringList& arguments,
                                      const QProcessEnvironment& environment) {
    auto process = std::make_unique<QProcess>();
    process->setProcessEnvironment(environment);
    process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process->start(helperDirectory() + "/ondril", arguments);
    return process;
}

} // namespace TestSupport

OutputGroup makeGroup(const QString& name, const QStringList& members, const QString& master,
                      double masterVolume) {
    OutputGroup group;
    group.id = QUuid::createUuid();
    group.name = name;
    group.memberUIDs = members;
    group.masterUID = master.isEmpty() && !members.isEmpty() ? members.first() : master;
    group.masterVolume = masterVolume;
    return group;
}
