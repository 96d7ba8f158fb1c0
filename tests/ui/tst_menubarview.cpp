#include "PanelTestRig.h"
#include "platform/simulated/SimulatedSoundLibrary.h"
#include "ui/panel/AppsCardModel.h"
#include "ui/panel/MenuBarController.h"
#include "ui/panel/PanelController.h"

#include <QImage>
#include <QQuickItem>
#include <QQuickView>
#include <QSet>
#include <QSignalSpy>
#include <QTest>
#include <QWindow>

namespace {
const QString player = QStringLiteral("org.example.Player");
}

// The panel's main screen on the simulated service: what its rows show and what a tap does, how
// the panel window closes, and the apps card: each control of a row writes the app's record, and
// the rows and levels follow what the manager publishes.
class TestMenuBarView : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<PanelTestRig> m_rig;
    OutputGroup m_displays;
    AudioObjectID m_microphone = 0;
    AudioObjectID m_lineIn = 0;
    SimulatedSoundLibrary* m_sounds = nullptr;

    QQuickView* view() const { return m_rig->panel->window(); }

    QQuickItem* item(const QString& name, QQuickItem* under = nullptr) const {
        return findItem(under ? under : view()->rootObject(), name);
    }
    // An item of the player's row in the apps card.
    QQuickItem* appItem(const QString& name) const {
        QQuickItem* row = item("appRow:" + player);
        return row ? item(name, row) : nullptr;
    }
    AppAudioPrefs record() const { return m_rig->apps->prefs().value(player); }
    bool shows(const QString& name) const {
        const QQuickItem* found = item(name);
        return found && found->isVisible() && found->height() > 0;
    }
    // Positioners lay out at the next frame: clicks where the user would see the item.
    void click(QQuickItem* target) {
        QSignalSpy swapped(view(), &QQuickWindow::frameSwapped);
        view()->update();
        swapped.wait(1000);
        QVERIFY(target && target->isVisible());
        const QPointF centre = target->mapToScene(QPointF(target->width(), target->height()) / 2);
        QTest::mouseClick(view(), Qt::LeftButton, {}, centre.toPoint());
        settle();
    }
    void click(const QString& name) { click(item(name)); }
    void openPanel() {
        m_rig->reopenPanel();
        m_rig->panel->show(QPoint(1200, 10));
        QVERIFY(view()->rootObject());
        QVERIFY(QTest::qWaitForWindowExposed(view()));
        settle();
    }
    // Presses the slider at `from` of its width, lets go at `to` (past an end: below 0, above 1).
    void drag(QQuickItem* slider, double from, double to) {
        QVERIFY(slider);
        const auto at = [&](double x) {
            return slider->mapToScene(QPointF(slider->width() * x, slider->height() / 2)).toPoint();
        };
        QTest::mousePress(view(), Qt::LeftButton, {}, at(from));
        QTest::mouseMove(view(), at(to));
        QTest::mouseRelease(view(), Qt::LeftButton, {}, at(to));
        settle();
    }
    QString lastSoundDevice() const {
        return m_sounds->played().isEmpty() ? QString() : m_sounds->played().last().deviceUID;
    }

private slots:
    void initTestCase() {
        auto sounds = std::make_unique<SimulatedSoundLibrary>();
        sounds->addSound(QStringLiteral("Pop"));
        m_sounds = sounds.get();
        SoundLibrary::install(std::move(sounds));
    }

    void init() {
        m_displays = makeGroup("Displays", {GroupTestRig::leftUID, GroupTestRig::rightUID});
        m_rig = std::make_unique<PanelTestRig>(QList<OutputGroup>{m_displays});
        m_microphone =
            m_rig->addInput(QStringLiteral("usb:Acme:Mic:1:1"), QStringLiteral("Microphone"));
        m_lineIn =
            m_rig->addInput(QStringLiteral("builtin:Ondril:LineIn:0:1"), QStringLiteral("Line In"));
        m_rig->hardware->setDefaultInputDevice(m_microphone);
        openPanel();
    }
    void cleanup() { m_rig.reset(); }

    // The panel draws: its surface is opaque and its rows paint many colours on it.
    void panelIsNotBlank() {
        const QImage image = view()->grabWindow();
        QCOMPARE(qAlpha(image.pixel(200, 60)), 255);
        QSet<QRgb> colours;
        for (int y = 40; y < image.height() - 40; y += 3)
            for (int x = 40; x < 360; x += 3)
                colours.insert(image.pixel(x, y));
        QVERIFY2(colours.size() > 50, qPrintable(QString::number(colours.size())));
    }

    void rowsFollowTheDeviceList() {
        QVERIFY(shows("outputRow_Headphones"));
        m_rig->addOutput(QStringLiteral("usb:Acme:Dock:9:1,2"), QStringLiteral("Dock"));
        settle();
        QVERIFY(shows("outputRow_Dock"));

        m_rig->settings->setHiddenDevices({m_rig->headphonesUID});
        settle();
        QVERIFY(!shows("outputRow_Headphones"));

        // Without a shown input the input card goes.
        m_rig->settings->setHiddenInputDevices(
            {QStringLiteral("usb:Acme:Mic:1:1"), QStringLiteral("builtin:Ondril:LineIn:0:1")});
        settle();
        QVERIFY(!shows("inputCard"));
    }

    void choosingAnOutputOrAnInputMakesItTheDefault() {
        click("outputRow_Headphones");
        QCOMPARE(m_rig->defaultOutput(), m_rig->headphones);
        QCOMPARE(lastSoundDevice(), m_rig->headphonesUID);
        QCOMPARE(item("outputRow_Headphones")->property("selected").toBool(), true);
        QCOMPARE(item("outputRow_Speakers")->property("selected").toBool(), false);

        click("inputRow_Line In");
        QCOMPARE(m_rig->audio->readDefaultInputID(), m_lineIn);
        QTRY_COMPARE(item("inputRow_Line In")->property("selected").toBool(), true);
    }

    void groupRowTapActivatesThenTogglesTheDisclosure() {
        click("groupRow_Displays");
        QCOMPARE(m_rig->manager->activeGroupIDText(), m_displays.idText());
        QVERIFY(shows("masterSlider"));
        const auto aggregate = m_rig->manager->activeDeviceID();
        QCOMPARE(lastSoundDevice(), GroupManager::aggregateUID(m_displays.id));
        // Ondril's own aggregate never shows as an output, and no output row is current.
        QVERIFY(!shows("outputRow_" + m_displays.name));
        for (const char* name : {"outputRow_Speakers", "outputRow_Headphones"})
            QCOMPARE(item(name)->property("selected").toBool(), false);

        click("groupRow_Displays");
        QCOMPARE(m_rig->manager->activeDeviceID(), aggregate); // not activated again
        QVERIFY(!shows("masterSlider"));
        click("groupRow_Displays");
        QVERIFY(shows("masterSlider"));

        click("trash");
        QVERIFY(m_rig->manager->groups().isEmpty());
        QVERIFY(!item("groupRow_Displays"));
    }

    void openGroupControlsWriteTheGroup() {
        click("groupRow_Displays");
        drag(item("masterSlider"), 0.5, 1.5);
        QCOMPARE(m_rig->manager->activeGroup()->masterVolume, 1.0);
        drag(item("balanceSlider"), 0.5, -0.5);
        QCOMPARE(m_rig->manager->activeGroup()->balance.value(m_rig->leftUID, -1), 0.0);

        click("muteButton");
        QVERIFY(m_rig->manager->isMuted());
    }

    void renaming_data() {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<Qt::Key>("key");
        QTest::addColumn<QString>("shown");
        QTest::newRow("Return saves, trimmed") << "  Desk " << Qt::Key_Return << "Desk";
        QTest::newRow("Escape keeps the old name") << "Desk" << Qt::Key_Escape << "Old";
        QTest::newRow("blanks clear the custom name") << "   " << Qt::Key_Return << "Left Display";
    }
    void renaming() {
        QFETCH(QString, typed);
        QFETCH(Qt::Key, key);
        QFETCH(QString, shown);
        m_rig->settings->setCustomName(m_rig->leftUID, QStringLiteral("Old"));
        m_rig->settings->setCustomName(m_rig->speakersUID, QStringLiteral("Other"));
        click("groupRow_Displays");
        QCOMPARE(item("memberName")->property("text").toString(), QStringLiteral("Old"));

        QQuickItem* name = item("memberName");
        const QPoint centre = name->mapToScene(QPointF(10, name->height() / 2)).toPoint();
        QTest::mouseDClick(view(), Qt::LeftButton, {}, centre);
        QTRY_VERIFY(item("renameField")->hasActiveFocus());
        item("renameField")->setProperty("text", typed);
        QTest::keyClick(view(), key);
        settle();
        QVERIFY(m_rig->panel->isVisible()); // Escape in the field ends the edit, not the panel
        QTRY_COMPARE(item("memberName")->property("text").toString(), shown);
        QCOMPARE(m_rig->settings->customName(m_rig->speakersUID), QStringLiteral("Other"));
    }

    void collapsedSectionSurvivesARestart() {
        QVERIFY(shows("outputRows"));
        click("sectionHeader_output");
        QVERIFY(!shows("outputRows"));
        openPanel();
        QVERIFY(!shows("outputRows"));
        QCOMPARE(m_rig->defaults->stringArrayForKey(SettingsKeys::collapsedSections),
                 QStringList{MenuBarController::outputSection});
    }

    // The panel closes when another window takes the focus, unless pinned; Escape closes it
    // either way.
    void clickAwayClosesUnlessPinned_data() {
        QTest::addColumn<bool>("pinned");
        QTest::newRow("not pinned") << false;
        QTest::newRow("pinned") << true;
    }
    void clickAwayClosesUnlessPinned() {
        QFETCH(bool, pinned);
        m_rig->defaults->setBool(pinned, SettingsKeys::pinPanel);
        openPanel();
        QTRY_VERIFY(view()->isActive());

        QWindow elsewhere;
        elsewhere.resize(50, 50);
        elsewhere.show();
        elsewhere.requestActivate();
        QTRY_VERIFY(elsewhere.isActive());
        QCOMPARE(m_rig->panel->isVisible(), pinned);
        if (!pinned)
            return;
        view()->requestActivate();
        QTRY_VERIFY(view()->isActive());
        QTest::keyClick(view(), Qt::Key_Escape);
        QVERIFY(!m_rig->panel->isVisible());
        QVERIFY(m_rig->panel->msSinceLastClose().has_value());
    }

    // The prompt stands until access is granted; its button waits while a request runs.
    void permissionStates_data() {
        QTest::addColumn<int>("failedProbes"); // -1: never asked; 1000: still waiting
        QTest::newRow("not asked") << -1;
        QTest::newRow("waiting") << 1000;
        QTest::newRow("declined after 41 timed probes") << 42;
        QTest::newRow("granted") << 0;
    }
    void permissionStates() {
        QFETCH(int, failedProbes);
        m_rig->meter->stop(); // the open panel's level tap is none of the probes'
        const bool declined = failedProbes == 42;
        const bool listShown = failedProbes == 0;
        m_rig->apps->setPermissionPollInterval(failedProbes == 1000 ? 60000 : 1);
        if (failedProbes > 0)
            m_rig->hardware->failNextTapCreation(failedProbes);
        if (failedProbes >= 0)
            click("enableButton");
        if (declined)
            QTRY_VERIFY(m_rig->apps->permissionDenied());

        QCOMPARE(item(QStringLiteral("permissionPrompt"))->isVisible(), !listShown);
        QCOMPARE(item(QStringLiteral("declinedText"))->isVisible(), declined);
        QCOMPARE(item(QStringLiteral("emptyText"))->isVisible(), listShown);
        if (!listShown)
            QCOMPARE(item(QStringLiteral("enableButton"))->isEnabled(), failedProbes != 1000);
        QCOMPARE(m_rig->defaults->storedBoolForKey(SettingsKeys::audioCaptureGranted).has_value(),
                 listShown);
        if (failedProbes == 1000)
            return;
        // No probe leaves a tap, every failure was taken by a probe, and none ran after the end.
        QVERIFY(m_rig->hardware->processTaps().empty());
        AudioObjectID tap = 0;
        QCOMPARE(m_rig->hardware->AudioHardwareCreateProcessTap({}, tap), kAudioHardwareNoError);
    }

    // What the record reads after the clicks: its volume, " muted", " to" the routed devices, and
    // whether the device picker stayed open.
    void rowControlsWriteTheRecord_data() {
        QTest::addColumn<QStringList>("clicks"); // item names; "drag x" drags the slider to x
        QTest::addColumn<QString>("expected");
        const auto row = [](const char* name, const char* clicks, const char* expected) {
            QTest::newRow(name) << QString(clicks).split(u',') << QString(expected);
        };
        row("slider", "drag 0.25", "0.25");
        row("boost 300%", "boostButton,option:300%", "3.00");
        row("dragging a boost brings it to 1 or less", "boostButton,option:400%,drag 0.5", "0.50");
        row("mute", "muteButton", "1.00 muted");
        row("one device, picker stays open", "outputButton,option:Headphones",
            "1.00 to Headphones, picker open");
        row("two devices", "outputButton,option:Headphones,option:Speakers",
            "1.00 to Headphones+Speakers, picker open");
        row("deselecting the only device", "outputButton,option:Headphones,option:Headphones",
            "1.00, picker open");
        row("a group, picker closes", "outputButton,option:Displays",
            "1.00 to Left Display+Right Display");
        row("back to the default output",
            "outputButton,option:Displays,outputButton,option:Default Output", "1.00");
    }
    void rowControlsWriteTheRecord() {
        QFETCH(QStringList, clicks);
        QFETCH(QString, expected);
        m_rig->apps->markPermissionGranted();
        m_rig->addApp(4242, player, QStringLiteral("Player"));
        m_rig->apps->refresh();
        settle();
        QQuickItem* row = item(QStringLiteral("appRow:") + player);
        QVERIFY(row);

        for (const QString& step : std::as_const(clicks)) {
            if (step.startsWith(QLatin1String("drag ")))
                drag(appItem(QStringLiteral("volumeSlider")), step.mid(5).toDouble(),
                     step.mid(5).toDouble());
            else
                click(appItem(step));
        }

        QCOMPARE(item(QStringLiteral("appRow:") + player), row); // the row lived through it all
        QStringList routes;
        for (const QString& uid : record().routeUIDs)
            for (const AudioDevice& device : m_rig->audio->outputDevices())
                if (device.uid == uid)
                    routes.append(device.name);
        QString state = QString::number(record().volume, 'f', 2) + (record().muted ? " muted" : "");
        if (!routes.isEmpty())
            state += " to " + routes.join(u'+');
        if (appItem(QStringLiteral("picker"))->isVisible())
            state += ", picker open";
        QCOMPARE(state, expected);
        QCOMPARE(appItem(QStringLiteral("volumeSlider"))->property("value").toDouble(),
                 std::min(record().volume, 1.0));
    }

    // The output picker marks the route: the default, or a group stored in any order with its
    // devices; the boost picker marks the volume.
    void optionsMarkTheRoute_data() {
        QTest::addColumn<QStringList>("route");
        QTest::addColumn<double>("volume");
        QTest::addColumn<QStringList>("selected");
        QTest::newRow("default, unity")
            << QStringList() << 1.0 << QStringList{"Default Output", "100%"};
        QTest::newRow("a group in any order lights it and its devices")
            << QStringList{GroupTestRig::rightUID, GroupTestRig::leftUID} << 1.5
            << QStringList{"Displays", "Left Display", "Right Display", "150%"};
    }
    void optionsMarkTheRoute() {
        QFETCH(QStringList, route);
        QFETCH(double, volume);
        QFETCH(QStringList, selected);
        AppsCardModel model(*m_rig->apps, *m_rig->audio, *m_rig->manager, *m_rig->settings,
                            m_rig->applications);
        QStringList marked;
        for (const QVariant& option : model.outputOptions(route) + model.boostOptions(volume))
            if (option.toMap().value("selected").toBool())
                marked.append(option.toMap().value("name").toString());
        QCOMPARE(marked, selected);
    }

    void rowsComeAndGoWithTheirProcesses() {
        m_rig->apps->markPermissionGranted();
        const AudioObjectID playing = m_rig->addApp(4242, player, QStringLiteral("Player"));
        const AudioObjectID quiet = m_rig->addApp(4343, QStringLiteral("org.example.Quiet"),
                                                  QStringLiteral("Quiet"), false);
        QTRY_VERIFY(item(QStringLiteral("appRow:") + player));
        QVERIFY(!item(QStringLiteral("appRow:org.example.Quiet")));

        click("showAllButton");
        QVERIFY(item(QStringLiteral("appRow:org.example.Quiet")));

        m_rig->hardware->setProcessRunningOutput(quiet, true);
        QTRY_VERIFY(!item(QStringLiteral("showAllButton"))->isVisible());
        QVERIFY2(item(QStringLiteral("appRow:org.example.Quiet")), "the full list stays shown");

        m_rig->hardware->removeProcess(playing);
        QTRY_VERIFY(!item(QStringLiteral("appRow:") + player));
    }

    void levelsShowOnlyWhileThePanelIsOpen() {
        m_rig->apps->markPermissionGranted();
        m_rig->addApp(4242, player, QStringLiteral("Player"));
        m_rig->apps->setVolume(player, 0.5);
        m_rig->apps->refresh();
        settle();
        GainBox& gain = m_rig->apps->session(player)->gain();
        QQuickItem* levelLayer = appItem(QStringLiteral("levelLayer"));
        QVERIFY(levelLayer);

        gain.peak = 0.1f;
        QTRY_VERIFY(levelLayer->isVisible() && levelLayer->width() > 0);

        m_rig->panel->hide();
        QVERIFY(!levelLayer->isVisible());
        gain.peak = 0.1f;
        QTest::qWait(5 * AppAudioManager::meterIntervalMs);
        QVERIFY(m_rig->apps->levels().isEmpty());
        QCOMPARE(gain.peak.load(), 0.1f);
    }
};

QTEST_MAIN(TestMenuBarView)
#include "tst_menubarview.moc"
