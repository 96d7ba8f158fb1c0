#include "PanelTestRig.h"

#include "ui/OndrilQml.h"
#include "ui/panel/AppsCardModel.h"

#include <QQmlContext>
#include <QQuickItem>
#include <QQuickView>
#include <QSignalSpy>
#include <QTest>

static const QString player = QStringLiteral("org.example.Player");

// The apps card on the simulated service: each control of a row writes the app's record, and the
// rows and levels follow what the manager publishes.
class TestAppsCard : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<PanelTestRig> m_rig;
    std::unique_ptr<AppsCardModel> m_model;
    std::unique_ptr<QQuickView> m_view;

    QQuickItem* item(const QString& name) const { return findItem(m_view->rootObject(), name); }

    bool click(const QString& name) {
        // Positioners lay out at the next frame: click where the user would see the item.
        QSignalSpy swapped(m_view.get(), &QQuickWindow::frameSwapped);
        m_view->update();
        swapped.wait(1000);
        QQuickItem* target = item(name);
        if (!target || !target->isVisible()) {
            qWarning() << "no visible item" << name;
            return false;
        }
        const QPointF centre = target->mapToScene(QPointF(target->width(), target->height()) / 2);
        QTest::mouseClick(m_view.get(), Qt::LeftButton, {}, centre.toPoint());
        settle();
        return true;
    }

    AppAudioPrefs record() const { return m_rig->apps->prefs().value(player); }

private slots:
    void initTestCase() { OndrilQml::registerTypes(); }

    void init() {
        m_rig = std::make_unique<PanelTestRig>(QList<OutputGroup>{makeGroup(
            QStringLiteral("Both Displays"), {GroupTestRig::leftUID, GroupTestRig::rightUID})});
        m_model = std::make_unique<AppsCardModel>(*m_rig->apps, *m_rig->audio, *m_rig->manager,
                                                  *m_rig->settings, m_rig->applications);
        m_view = std::make_unique<QQuickView>();
        OndrilQml::prepareEngine(*m_view->engine());
        m_view->rootContext()->setContextProperty(QStringLiteral("appsCard"), m_model.get());
        m_view->setResizeMode(QQuickView::SizeRootObjectToView);
        m_view->setSource(OndrilQml::viewUrl(QStringLiteral("AppsCard.qml")));
        QVERIFY2(m_view->rootObject(), qPrintable(QDebug::toString(m_view->errors())));
        m_view->resize(300, 700);
        m_view->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_view.get()));
    }

    void cleanup() {
        m_view.reset();
        m_model.reset();
        m_rig.reset();
    }

    // The prompt stands until access is granted; its button waits while a request runs.
    void permissionStates_data() {
        QTest::addColumn<int>("failedProbes"); // 1000: still waiting
        QTest::addColumn<bool>("clickEnable");
        QTest::addColumn<bool>("declined");
        QTest::addColumn<bool>("listShown");
        QTest::newRow("not asked") << 0 << false << false << false;
        QTest::newRow("waiting") << 1000 << true << false << false;
        QTest::newRow("declined after 41 timed probes") << 42 << true << true << false;
        QTest::newRow("granted") << 0 << true << false << true;
    }
    void permissionStates() {
        QFETCH(int, failedProbes);
        QFETCH(bool, clickEnable);
        QFETCH(bool, declined);
        QFETCH(bool, listShown);
        m_rig->apps->setPermissionPollInterval(failedProbes == 1000 ? 60000 : 1);
        if (failedProbes)
            m_rig->hardware->failNextTapCreation(failedProbes);
        if (clickEnable)
            QVERIFY(click(QStringLiteral("enableButton")));
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

    void rowControlsWriteTheRecord_data() {
        QTest::addColumn<QStringList>("clicks"); // item names; "drag x" drags the slider to x
        QTest::addColumn<double>("volume");
        QTest::addColumn<bool>("muted");
        QTest::addColumn<QStringList>("route");
        QTest::addColumn<bool>("pickerOpen");
        const QString both = QStringLiteral("option:Both Displays");
        const QStringList none;
        QTest::newRow("slider") << QStringList{"drag 0.25"} << 0.25 << false << none << false;
        QTest::newRow("boost 300%")
            << QStringList{"boostButton", "option:300%"} << 3.0 << false << none << false;
        QTest::newRow("dragging a boost brings it to 1 or less")
            << QStringList{"boostButton", "option:400%", "drag 0.5"} << 0.5 << false << none
            << false;
        QTest::newRow("mute") << QStringList{"muteButton"} << 1.0 << true << none << false;
        QTest::newRow("one device, picker stays open")
            << QStringList{"outputButton", "option:Headphones"} << 1.0 << false
            << QStringList{GroupTestRig::headphonesUID} << true;
        QTest::newRow("two devices")
            << QStringList{"outputButton", "option:Headphones", "option:Speakers"} << 1.0 << false
            << QStringList{GroupTestRig::headphonesUID, GroupTestRig::speakersUID} << true;
        QTest::newRow("deselecting the only device")
            << QStringList{"outputButton", "option:Headphones", "option:Headphones"} << 1.0 << false
            << none << true;
        QTest::newRow("a group, picker closes")
            << QStringList{"outputButton", both} << 1.0 << false
            << QStringList{GroupTestRig::leftUID, GroupTestRig::rightUID} << false;
        QTest::newRow("back to the default output")
            << QStringList{"outputButton", both, "outputButton", "option:Default Output"} << 1.0
            << false << none << false;
    }
    void rowControlsWriteTheRecord() {
        QFETCH(QStringList, clicks);
        QFETCH(double, volume);
        QFETCH(bool, muted);
        QFETCH(QStringList, route);
        QFETCH(bool, pickerOpen);
        m_rig->apps->markPermissionGranted();
        m_rig->addApp(4242, player, QStringLiteral("Player"));
        m_rig->apps->refresh();
        settle();
        QQuickItem* row = item(QStringLiteral("appRow:") + player);
        QVERIFY(row);

        for (const QString& step : std::as_const(clicks)) {
            if (!step.startsWith(QLatin1String("drag "))) {
                QVERIFY(click(step));
                continue;
            }
            QQuickItem* slider = item(QStringLiteral("volumeSlider"));
            const QPointF at = slider->mapToScene(
                QPointF(slider->width() * step.mid(5).toDouble(), slider->height() / 2));
            QTest::mousePress(m_view.get(), Qt::LeftButton, {}, at.toPoint());
            QTest::mouseRelease(m_view.get(), Qt::LeftButton, {}, at.toPoint());
            settle();
        }

        QCOMPARE(item(QStringLiteral("appRow:") + player), row); // the row lived through it all
        QVERIFY(qAbs(record().volume - volume) < 0.01);
        QCOMPARE(record().muted, muted);
        QCOMPARE(record().routeUIDs, route);
        QCOMPARE(item(QStringLiteral("picker"))->isVisible(), pickerOpen);
        QCOMPARE(item(QStringLiteral("volumeSlider"))->property("value").toDouble(),
                 std::min(record().volume, 1.0));
    }

    void optionsMarkTheRoute_data() {
        QTest::addColumn<QStringList>("route");
        QTest::addColumn<double>("volume");
        QTest::addColumn<QStringList>("selected");
        QTest::newRow("default, unity")
            << QStringList() << 1.0 << QStringList{"Default Output", "100%"};
        QTest::newRow("a group in any order lights it and its devices")
            << QStringList{GroupTestRig::rightUID, GroupTestRig::leftUID} << 1.5
            << QStringList{"Both Displays", "Left Display", "Right Display", "150%"};
    }
    void optionsMarkTheRoute() {
        QFETCH(QStringList, route);
        QFETCH(double, volume);
        QFETCH(QStringList, selected);
        QStringList marked;
        for (const QVariant& option : m_model->outputOptions(route) + m_model->boostOptions(volume))
            if (option.toMap().value("selected").toBool())
                marked.append(option.toMap().value("name").toString());
        QCOMPARE(marked, selected);
    }

    void rowsComeAndGoWithTheirProcesses() {
        m_rig->apps->markPermissionGranted();
        m_rig->panel->show(QPoint(600, 10));
        settle();
        const AudioObjectID playing = m_rig->addApp(4242, player, QStringLiteral("Player"));
        const AudioObjectID quiet = m_rig->addApp(4343, QStringLiteral("org.example.Quiet"),
                                                  QStringLiteral("Quiet"), false);
        QTRY_VERIFY(item(QStringLiteral("appRow:") + player));
        QVERIFY(!item(QStringLiteral("appRow:org.example.Quiet")));

        QVERIFY(click(QStringLiteral("showAllButton")));
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
        QQuickItem* levelLayer = item(QStringLiteral("levelLayer"));
        QVERIFY(levelLayer);

        m_rig->panel->show(QPoint(600, 10));
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

QTEST_MAIN(TestAppsCard)
#include "tst_appscard.moc"
