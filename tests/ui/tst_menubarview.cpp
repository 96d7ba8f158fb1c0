#include "PanelTestRig.h"
#include "platform/simulated/SimulatedSoundLibrary.h"
#include "ui/panel/MenuBarController.h"
#include "ui/panel/PanelController.h"

#include <QImage>
#include <QQuickItem>
#include <QQuickView>
#include <QSet>
#include <QTest>
#include <QWindow>

// The panel's main screen on the simulated service: what its rows show and what a tap does, and
// how the panel window closes.
class TestMenuBarView : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<PanelTestRig> m_rig;
    OutputGroup m_displays;
    AudioObjectID m_microphone = 0;
    AudioObjectID m_lineIn = 0;
    SimulatedSoundLibrary* m_sounds = nullptr;

    QQuickView* view() const { return m_rig->panel->window(); }

    QQuickItem* item(const QString& name) const { return findItem(view()->rootObject(), name); }
    bool shows(const QString& name) const {
        const QQuickItem* found = item(name);
        return found && found->isVisible() && found->height() > 0;
    }
    void click(const QString& name, Qt::MouseButton button = Qt::LeftButton) {
        QQuickItem* target = item(name);
        QVERIFY2(target, qPrintable(name));
        const QPointF centre = target->mapToScene(QPointF(target->width(), target->height()) / 2);
        QTest::mouseClick(view(), button, {}, centre.toPoint());
        settle();
    }
    void openPanel() {
        m_rig->reopenPanel();
        m_rig->panel->show(QPoint(1200, 10));
        QVERIFY(view()->rootObject());
        QVERIFY(QTest::qWaitForWindowExposed(view()));
        settle();
    }
    // Presses inside the slider and drags well beyond its right (+1) or left (-1) end.
    void dragPastTheEnd(const QString& name, int direction) {
        QQuickItem* slider = item(name);
        QVERIFY(slider);
        const qreal y = slider->height() / 2;
        const QPointF inside = slider->mapToScene(QPointF(slider->width() / 2, y));
        const QPointF beyond =
            slider->mapToScene(QPointF(direction > 0 ? slider->width() + 30 : -30, y));
        QTest::mousePress(view(), Qt::LeftButton, {}, inside.toPoint());
        QTest::mouseMove(view(), beyond.toPoint());
        QTest::mouseRelease(view(), Qt::LeftButton, {}, beyond.toPoint());
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
        dragPastTheEnd("masterSlider", +1);
        QCOMPARE(m_rig->manager->activeGroup()->masterVolume, 1.0);
        dragPastTheEnd("balanceSlider", -1);
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
};

QTEST_MAIN(TestMenuBarView)
#include "tst_menubarview.moc"
