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

} // namespace TestSupport
