#include "PanelTestRig.h"
#include "ui/Appearance.h"
#include "ui/panel/PanelController.h"

#include <QApplication>
#include <QDir>
#include <QImage>
#include <QProcess>
#include <QQuickView>
#include <QScreen>
#include <QStandardPaths>
#include <QTest>

#include <cstdio>

// Renders the panel with a group open, several outputs, two inputs and three apps, in the scheme
// the environment gives (ONDRIL_APPEARANCE), to panel-<scheme>.png under ONDRIL_SCREENSHOT_DIR or
// beside the program. scripts/screenshots.sh runs it once per scheme, in the tests' environment.
// On an X server with xcompmgr the picture is taken from the screen, so that the translucent
// margin shows over a backdrop.
static int render() {
    const QString studioLeft = QStringLiteral("usb:Acme:StudioLeft:8:1,2");
    const QString studioRight = QStringLiteral("usb:Acme:StudioRight:9:1,2");
    OutputGroup studio = makeGroup("Studio", {studioLeft, studioRight}, {}, 0.72);
    studio.balance.insert(studioRight, 0.85);
    PanelTestRig rig({studio, makeGroup("Whole House",
                                        {GroupTestRig::speakersUID, GroupTestRig::headphonesUID})});
    rig.hardware->setDefaultInputDevice(
        rig.addInput(QStringLiteral("usb:Acme:Microphone:7:1"), QStringLiteral("USB Microphone")));
    rig.addInput(QStringLiteral("builtin:Ondril:LineIn:0:1"), QStringLiteral("Line In"));
    rig.addOutput(studioLeft, QStringLiteral("Studio Display Left"));
    rig.addOutput(studioRight, QStringLiteral("Studio Display Right"));
    rig.settings->setCustomName(rig.headphonesUID, QStringLiteral("Desk Headphones"));
    settle(); // the device manager learns of the new devices
    if (!rig.manager->activate(rig.manager->groups().first())) {
        std::fputs("panel_screenshot: the group did not activate\n", stderr);
        return 1;
    }
    // Three apps: one boosted, one muted, one playing at its own level.
    rig.addApp(4101, QStringLiteral("org.example.Player"), QStringLiteral("Player"));
    rig.addApp(4102, QStringLiteral("org.example.Browser"), QStringLiteral("Browser"));
    rig.addApp(4103, QStringLiteral("org.example.Radio"), QStringLiteral("Radio"));
    rig.apps->markPermissionGranted();
    rig.apps->setVolume(QStringLiteral("org.example.Player"), 2.0);
    rig.apps->setMuted(QStringLiteral("org.example.Browser"), true);
    rig.apps->setVolume(QStringLiteral("org.example.Radio"), 0.8);
    rig.apps->refresh();
    settle();

    // A desktop behind the panel, and a compositor that blends the panel's margin onto it.
    const bool onX = QGuiApplication::platformName() == QLatin1String("xcb");
    QProcess compositor;
    const QString xcompmgr = QStandardPaths::findExecutable(QStringLiteral("xcompmgr"));
    if (onX && !xcompmgr.isEmpty())
        compositor.start(xcompmgr, {});
    QQuickWindow backdrop;
    backdrop.setFlags(Qt::FramelessWindowHint);
    backdrop.setColor(Appearance::shared().isDark() ? QColor(0x3b, 0x4a, 0x5c)
                                                    : QColor(0xa9, 0xbc, 0xcf));
    backdrop.setGeometry(QGuiApplication::primaryScreen()->geometry());
    if (onX)
        backdrop.show();

    PanelController& panel = *rig.panel;
    panel.show(QPoint(1200, 10));
    if (!QTest::qWaitForWindowExposed(panel.window())) {
        std::fputs("panel_screenshot: the panel never showed\n", stderr);
        return 1;
    }
    // The radio plays at a level.
    GainBox& radio = rig.apps->session(QStringLiteral("org.example.Radio"))->gain();
    for (int tick = 0; tick < 20; ++tick) {
        radio.peak = 0.5f;
        QTest::qWait(AppAudioManager::meterIntervalMs);
    }
    settle();
    QTest::qWait(300); // icons, animations and the compositor settle
    const QRect onScreen =
        panel.window()->geometry().intersected(QGuiApplication::primaryScreen()->geometry());
    const QImage image =
        compositor.state() == QProcess::Running
            ? QGuiApplication::primaryScreen()
                  ->grabWindow(0, onScreen.x(), onScreen.y(), onScreen.width(), onScreen.height())
                  .toImage()
            : panel.window()->grabWindow();
    compositor.terminate();
    compositor.waitForFinished();

    const QString directory =
        qEnvironmentVariable("ONDRIL_SCREENSHOT_DIR", QCoreApplication::applicationDirPath());
    QDir().mkpath(directory);
    const QString scheme = Appearance::shared().isDark() ? "dark" : "light";
    const QString file = directory + "/panel-" + scheme + ".png";
    if (!image.save(file)) {
        std::fprintf(stderr, "panel_screenshot: could not write %s\n", qPrintable(file));
        return 1;
    }
    return 0;
}

int main(int argc, char* argv[]) {
    // In the test environment the panel stands on its X server (Xvfb), as on a desktop.
    // Xvfb's GLX drawing into a redirected window never reaches the compositor's picture: the
    // software renderer draws the same scene where xcompmgr sees it.
    if (qEnvironmentVariableIsSet("ONDRIL_TEST_SANDBOX") && qEnvironmentVariableIsSet("DISPLAY")) {
        qputenv("QT_QPA_PLATFORM", "xcb");
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    }
    QApplication app(argc, argv);
    return render();
}
