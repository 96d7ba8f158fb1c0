#include "PanelTestRig.h"
#include "platform/tray/StatusNotifierItem.h"
#include "platform/tray/StatusNotifierTypes.h"
#include "ui/StatusItemController.h"

#include <QApplication>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusReply>
#include <QQuickView>
#include <QSignalSpy>
#include <QTest>

// Stands in for the desktop's StatusNotifierWatcher: remembers who registered.
class TestWatcher : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")

public:
    QStringList registrations;

public slots:
    void RegisterStatusNotifierItem(const QString& service) { registrations << service; }
};

namespace {

const QString trayInterface = StatusNotifierItem::interfaceName;

QDBusConnection hostBus() {
    return QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("host"));
}

// A call from the desktop's side, answered while the event loop turns.
QDBusMessage callItem(const QString& path, const QString& interface, const QString& member,
                      const QVariantList& arguments = {}) {
    QDBusMessage call =
        QDBusMessage::createMethodCall(StatusNotifierItem::serviceName(), path, interface, member);
    call.setArguments(arguments);
    QDBusPendingCall pending = hostBus().asyncCall(call);
    if (!QTest::qWaitFor([&] { return pending.isFinished(); }))
        qWarning("no answer to %s", qPrintable(member));
    return pending.reply();
}

QDBusMessage callTray(const QString& member, const QVariantList& arguments = {}) {
    return callItem(StatusNotifierItem::objectPath, trayInterface, member, arguments);
}

QVariant trayProperty(const QString& name) {
    const QDBusMessage reply =
        callItem(StatusNotifierItem::objectPath, QStringLiteral("org.freedesktop.DBus.Properties"),
                 QStringLiteral("Get"), {trayInterface, name});
    return reply.arguments().value(0).value<QDBusVariant>().variant();
}

} // namespace

class TestStatusItem : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<PanelTestRig> m_rig;
    PanelController* m_panel = nullptr;
    std::unique_ptr<StatusItemController> m_tray;
    TestWatcher m_watcher;
    int m_quits = 0;

private slots:
    void initTestCase() {
        registerStatusNotifierTypes();
        hostBus().registerObject(StatusNotifierItem::watcherPath, &m_watcher,
                                 QDBusConnection::ExportAllSlots);
        QVERIFY(hostBus().registerService(StatusNotifierItem::watcherService));
    }

    void init() {
        m_rig = std::make_unique<PanelTestRig>(QList<OutputGroup>{makeGroup(
            QStringLiteral("Both Displays"), {GroupTestRig::leftUID, GroupTestRig::rightUID})});
        m_panel = m_rig->panel.get();
        m_tray = std::make_unique<StatusItemController>(*m_rig->manager, *m_rig->settings, *m_panel,
                                                        QDBusConnection::sessionBus());
        m_quits = 0;
        m_tray->quitApp = [this] { ++m_quits; };
        m_watcher.registrations.clear();
        QSignalSpy registered(m_tray.get(), &StatusItemController::registered);
        QVERIFY(m_tray->start());
        QVERIFY(registered.wait());
    }

    void cleanup() {
        m_tray.reset();
        m_rig.reset();
    }

    // With a group on, the icon follows its volume and mute, the wheel steps its volume (a line
    // is 3 %), and a middle click mutes it without opening the panel.
    void trayShowsAndDrivesTheActiveGroup() {
        // Without a group on, the middle click mutes and unmutes the default output itself.
        callTray(QStringLiteral("SecondaryActivate"), {0, 0});
        QCOMPARE(m_rig->audio->isMuted(m_rig->speakers), std::optional<bool>(true));
        callTray(QStringLiteral("SecondaryActivate"), {0, 0});
        QCOMPARE(m_rig->audio->isMuted(m_rig->speakers), std::optional<bool>(false));
        m_rig->manager->activate(m_rig->manager->groups().first());
        settle();
        QTRY_COMPARE(trayProperty(QStringLiteral("IconName")).toString(),
                     QStringLiteral("audio-volume-medium-symbolic"));
        StatusNotifierIconPixmaps pixmaps;
        trayProperty(QStringLiteral("IconPixmap")).value<QDBusArgument>() >> pixmaps;
        QVERIFY(!pixmaps.isEmpty());
        QCOMPARE(pixmaps.first().data.size(), pixmaps.first().width * pixmaps.first().height * 4);
        QVERIFY(pixmaps.first().data.count('\0') < pixmaps.first().data.size());

        const double before = m_rig->manager->activeGroup()->masterVolume;
        callTray(QStringLiteral("Scroll"), {120, QStringLiteral("vertical")});
        QCOMPARE(m_rig->manager->activeGroup()->masterVolume, before + 0.03);
        callTray(QStringLiteral("Scroll"), {120, QStringLiteral("horizontal")});
        QCOMPARE(m_rig->manager->activeGroup()->masterVolume, before + 0.03);

        callTray(QStringLiteral("SecondaryActivate"), {0, 0});
        QVERIFY(m_rig->manager->isMuted());
        QVERIFY(!m_panel->isVisible());
        QTRY_COMPARE(trayProperty(QStringLiteral("IconName")).toString(),
                     QStringLiteral("audio-volume-muted-symbolic"));
        callTray(QStringLiteral("SecondaryActivate"), {0, 0});
        QVERIFY(!m_rig->manager->isMuted());
    }

    // On the test environment's 1280x800 X screen: a tray at the top opens the panel downward
    // from 6 below the top (window 40 above that for the shadow), one at the bottom upward; as the
    // content grows, the edge at the bar stays.
    void activateTogglesThePanelWithTheReopenGuard_data() {
        QTest::addColumn<QPoint>("click");
        QTest::addColumn<int>("x");
        QTest::addColumn<int>("anchoredEdge"); // the window's top, or its bottom for a low click
        QTest::newRow("top tray, clamped to the right") << QPoint(1500, 10) << 916 << -34;
        QTest::newRow("bottom tray") << QPoint(600, 790) << 242 << 834;
    }
    void activateTogglesThePanelWithTheReopenGuard() {
        QFETCH(QPoint, click);
        QFETCH(int, x);
        QFETCH(int, anchoredEdge);
        QCOMPARE(QGuiApplication::primaryScreen()->geometry(), QRect(0, 0, 1280, 800));
        const QVariantList at{click.x(), click.y()};
        callTray(QStringLiteral("Activate"), at);
        QVERIFY(QTest::qWaitForWindowExposed(m_panel->window()));
        const QRect window = m_panel->window()->geometry();
        QCOMPARE(window.x(), x);
        QCOMPARE(click.y() < 400 ? window.top() : window.bottom() + 1, anchoredEdge);
        m_panel->setContentHeight(500); // grows away from the bar
        QTRY_COMPARE(m_panel->window()->height(), 580);
        const QRect grown = m_panel->window()->geometry();
        QCOMPARE(click.y() < 400 ? grown.top() : grown.bottom() + 1, anchoredEdge);
        callTray(QStringLiteral("Activate"), at);
        QVERIFY(!m_panel->isVisible());
        callTray(QStringLiteral("Activate"), at);
        QVERIFY2(!m_panel->isVisible(), "a click right after a close does not reopen");
        QTest::qWait(PanelController::reopenGuardMs + 50);
        callTray(QStringLiteral("Activate"), at);
        QVERIFY(m_panel->isVisible());
    }

    // Registered with the watcher at the start; without one, Qt's tray icon stands in until a
    // watcher comes, and the item registers with it.
    void fallsBackToQtsTrayIconWhileNoHostIsThere() {
        QCOMPARE(m_watcher.registrations, QStringList{StatusNotifierItem::serviceName()});
        m_tray.reset();
        QVERIFY(hostBus().unregisterService(StatusNotifierItem::watcherService));
        m_tray = std::make_unique<StatusItemController>(*m_rig->manager, *m_rig->settings, *m_panel,
                                                        QDBusConnection::sessionBus());
        QVERIFY(m_tray->start());
        QTRY_VERIFY(m_tray->usesSystemTrayFallback());
        QVERIFY(hostBus().registerService(StatusNotifierItem::watcherService));
        QTRY_VERIFY(!m_tray->usesSystemTrayFallback());
        QTRY_COMPARE(m_watcher.registrations.size(), 2);
    }

    void menuItemQuitsAndSettingsIsDisabled() {
        const QString menu = QStringLiteral("com.canonical.dbusmenu");
        QVERIFY(callItem(StatusNotifierItem::menuPath, menu, QStringLiteral("AboutToShow"), {0})
                    .arguments()
                    .value(0)
                    .toBool());
        const QDBusMessage reply = callItem(StatusNotifierItem::menuPath, menu,
                                            QStringLiteral("GetLayout"), {0, -1, QStringList()});
        QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
        DBusMenuLayoutItem root;
        reply.arguments().value(1).value<QDBusArgument>() >> root;
        const auto labelled = [&](const QString& label) {
            for (const DBusMenuLayoutItem& item : root.children)
                if (item.properties.value(QStringLiteral("label")).toString() == label)
                    return item;
            return DBusMenuLayoutItem();
        };
        QCOMPARE(labelled("Settings…").properties.value(QStringLiteral("enabled")),
                 QVariant(false));

        callItem(StatusNotifierItem::menuPath, menu, QStringLiteral("Event"),
                 {labelled("Quit Ondril").id, QStringLiteral("clicked"),
                  QVariant::fromValue(QDBusVariant(QString())), 0u});
        QTRY_COMPARE(m_quits, 1);
    }
};

int main(int argc, char* argv[]) {
    // In the test environment the panel stands on its X server (Xvfb), where placement is real.
    if (qEnvironmentVariableIsSet("ONDRIL_TEST_SANDBOX") && qEnvironmentVariableIsSet("DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "xcb");
    QApplication app(argc, argv);
    TestStatusItem test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_statusitem.moc"
