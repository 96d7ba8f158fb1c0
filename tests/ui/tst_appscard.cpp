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
        QTest::addColumn<int>("failedProbes"); // -1: never asked; 1000: still waiting
        QTest::newRow("not asked") << -1;
        QTest::newRow("waiting") << 1000;
        QTest::newRow("declined after 41 timed probes") << 42;
        QTest::newRow("granted") << 0;
    }
    void permissionStates() {
        QFETCH(int, failedProbes);
        const bool declined = failedProbes == 42;
        const bool listShown = failedProbes == 0;
        m_rig->apps->setPermissionPollInterval(failedProbes == 1000 ? 60000 : 1);
        if (failedProbes > 0)
            m_rig->hardware->failNextTapCreation(failedProbes);
        if (failedProbes >= 0)
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
        row("a group, picker closes", "outputButton,option:Both Displays",
            "1.00 to Left Display+Right Display");
        row("back to the default output",
            "outputButton,option:Both Displays,outputButton,option:Default Output", "1.00");
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
        QStringList routes;
        for (const QString& uid : record().routeUIDs)
            for (const AudioDevice& device : m_rig->audio->outputDevices())
                if (device.uid == uid)
                    routes.append(device.name);
        QString state = QString::number(record().volume, 'f', 2) + (record().muted ? " muted" : "");
        if (!routes.isEmpty())
            state += " to " + routes.join(u'+');
        if (item(QStringLiteral("picker"))->isVisible())
            state += ", picker open";
        QCOMPARE(state, expected);
        QCOMPARE(item(QStringLiteral("volumeSlider"))->property("value").toDouble(),
                 std::min(record().volume, 1.0));
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
