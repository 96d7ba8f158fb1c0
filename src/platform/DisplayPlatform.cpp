#include "platform/DisplayPlatform.h"

#include <QByteArray>
#include <QtGlobal>

#include <cstdio>

namespace DisplayPlatform {

void choose() {
    if (qEnvironmentVariableIsSet("QT_QPA_PLATFORM") ||
        qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") || qEnvironmentVariableIsEmpty("DISPLAY"))
        return;
    qputenv("QT_QPA_PLATFORM", QByteArrayLiteral("xcb"));
    std::fprintf(stderr, "ondril: Wayland session: running on XWayland so that the panel opens at "
                         "the tray icon\n");
}

} // namespace DisplayPlatform
