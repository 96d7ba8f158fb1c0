#include "PanelTestRig.h"
#include "ui/Appearance.h"
#include "ui/panel/PanelController.h"

#include <QDir>
#include <QImage>
#include <QQuickView>
#include <QSet>
#include <QTest>

// Renders the panel with a group open, several outputs and two inputs, in the scheme the
// environment gives (ONDRIL_APPEARANCE), to panel-<scheme>.png under ONDRIL_SCREENSHOT_DIR or
// beside the test. scripts/screenshots.sh runs it once per scheme.
class TestPanelScreenshot : public QObject {
    Q_OBJECT

private slots:
    void rendersThePanel() {
        const QString studioLeft = QStringLiteral("usb:Acme:StudioLeft:8:1,2");
        const QString studioRight = QStringLiteral("usb:Acme:StudioRight:9:1,2");
        OutputGroup studio = makeGroup("Studio", {studioLeft, studioRight}, {}, 0.72);
        studio.balance.insert(studioRight, 0.85);
        PanelTestRig rig({studio, makeGroup("Whole House", {GroupTestRig::speakersUID,
                                                            GroupTestRig::headphonesUID})});
        rig.hardware->setDefaultInputDevice(rig.addInput(QStringLiteral("usb:Acme:Microphone:7:1"),
                                                         QStringLiteral("USB Microphone")));
        rig.addInput(QStringLiteral("builtin:Ondril:LineIn:0:1"), QStringLiteral("Line In"));
        rig.addOutput(studioLeft, QStringLiteral("Studio Display Left"));
        rig.addOutput(studioRight, QStringLiteral("Studio Display Right"));
        rig.settings->setCustomName(rig.headphonesUID, QStringLiteral("Desk Headphones"));
        settle(); // the device manager learns of the new devices
        QVERIFY(rig.manager->activate(rig.manager->groups().first()));
        // Three apps: one boosted, one muted, one playing at its own level.
        rig.addApp(4101, QStringLiteral("org.example.Player"), QStringLiteral("Player"));
        rig.addApp(4102, QStringLiteral("org.example.Browser"), QStringLiteral("Browser"));
        rig.addApp(4103, QStringLiteral("org.example.Radio"), QStringLiteral("Radio"));
        rig.apps->markPermissionGranted();
        rig.apps->setVolume(QStringLiteral("org.example.Player"), 2.0);
        rig.apps->setMuted(QStringLiteral("org.example.Browser"), true);

        PanelController& panel = *rig.panel;
        panel.show(QPoint(1200, 10));
        QVERIFY(QTest::qWaitForWindowExposed(panel.window()));
        settle();
        QTest::qWait(300); // icons and animations settle
        const QImage image = panel.window()->grabWindow();

        // Not blank: the surface is opaque and the rows draw many colours on it.
        QCOMPARE(qAlpha(image.pixel(200, 60)), 255);
        QSet<QRgb> colours;
        for (int y = 40; y < image.height() - 40; y += 3)
            for (int x = 40; x < 360; x += 3)
                colours.insert(image.pixel(x, y));
        QVERIFY2(colours.size() > 50, qPrintable(QString::number(colours.size())));

        const QString directory =
            qEnvironmentVariable("ONDRIL_SCREENSHOT_DIR", QCoreApplication::applicationDirPath());
        QDir().mkpath(directory);
        const QString scheme = Appearance::shared().isDark() ? "dark" : "light";
        QVERIFY(image.save(directory + "/panel-" + scheme + ".png"));
    }
};

QTEST_MAIN(TestPanelScreenshot)
#include "tst_panelscreenshot.moc"
