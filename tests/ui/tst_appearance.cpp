#include "ui/Appearance.h"

#include <QDBusConnection>
#include <QDBusVariant>
#include <QTest>

using Scheme = DesktopAppearance::Scheme;
Q_DECLARE_METATYPE(std::optional<QString>)
Q_DECLARE_METATYPE(std::optional<Scheme>)

// Stands in for the desktop portal's Settings interface on the private session bus.
class FakePortal : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.Settings")

public:
    uint scheme = 1;

signals:
    void SettingChanged(const QString& nameSpace, const QString& key, const QDBusVariant& value);

public slots:
    QDBusVariant Read(const QString& nameSpace, const QString& key) {
        if (nameSpace != QLatin1String("org.freedesktop.appearance") ||
            key != QLatin1String("color-scheme"))
            return QDBusVariant(QVariant());
        // Older portals wrap the value twice.
        return QDBusVariant(QVariant::fromValue(QDBusVariant(scheme)));
    }
};

class TestAppearance : public QObject {
    Q_OBJECT

private slots:
    void schemeIsChosenInOrder_data() {
        QTest::addColumn<std::optional<QString>>("forced");
        QTest::addColumn<std::optional<Scheme>>("desktop");
        QTest::addColumn<bool>("qtDark");
        QTest::addColumn<bool>("dark");
        const std::optional<QString> unset;
        QTest::newRow("forced dark") << std::optional(QStringLiteral("dark"))
                                     << std::optional(Scheme::light) << false << true;
        QTest::newRow("any word but dark is light") << std::optional(QStringLiteral("auto"))
                                                    << std::optional(Scheme::dark) << true << false;
        QTest::newRow("portal light over a dark Qt palette")
            << unset << std::optional(Scheme::light) << true << false;
        QTest::newRow("portal without preference: Qt palette")
            << unset << std::optional(Scheme::noPreference) << true << true;
        QTest::newRow("no portal: Qt palette")
            << unset << std::optional<Scheme>() << false << false;
    }
    void schemeIsChosenInOrder() {
        QFETCH(std::optional<QString>, forced);
        QFETCH(std::optional<Scheme>, desktop);
        QFETCH(bool, qtDark);
        QFETCH(bool, dark);
        QCOMPARE(Appearance::resolveIsDark(forced, desktop, qtDark), dark);
    }

    void followsThePortalSettingAndItsChanges() {
        // The portal is another peer on the bus, as on a desktop.
        QDBusConnection portalBus =
            QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("portal"));
        QDBusConnection bus = QDBusConnection::sessionBus();
        QVERIFY(bus.isConnected());
        FakePortal portal;
        QVERIFY(portalBus.registerObject(QStringLiteral("/org/freedesktop/portal/desktop"), &portal,
                                         QDBusConnection::ExportAllSlots |
                                             QDBusConnection::ExportAllSignals));
        QVERIFY(portalBus.registerService(QStringLiteral("org.freedesktop.portal.Desktop")));

        Appearance appearance(std::nullopt);
        appearance.followDesktop(bus);
        QTRY_VERIFY(appearance.isDark());
        QCOMPARE(appearance.palette(), OndrilPalette::dark());

        // The watcher learns who owns the portal's name asynchronously; until then a signal is
        // not yet taken for the portal's, so the desktop may have to say it again.
        const auto switchToLight = [&] {
            emit portal.SettingChanged(QStringLiteral("org.freedesktop.appearance"),
                                       QStringLiteral("color-scheme"), QDBusVariant(uint(2)));
            return !appearance.isDark();
        };
        QTRY_VERIFY(switchToLight());
        QCOMPARE(appearance.palette(), OndrilPalette::light());
    }
};

QTEST_MAIN(TestAppearance)
#include "tst_appearance.moc"
