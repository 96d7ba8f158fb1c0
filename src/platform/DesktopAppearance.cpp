#include "platform/DesktopAppearance.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>

namespace {

const QString portalService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString portalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString settingsInterface = QStringLiteral("org.freedesktop.portal.Settings");
const QString appearanceNamespace = QStringLiteral("org.freedesktop.appearance");
const QString colorSchemeKey = QStringLiteral("color-scheme");

// Read answers v(v(u)) on older portals and v(u) on newer ones: unwrap all variants.
QVariant unwrap(QVariant value) {
    while (value.canConvert<QDBusVariant>() &&
           value.metaType() == QMetaType::fromType<QDBusVariant>())
        value = value.value<QDBusVariant>().variant();
    return value;
}

} // namespace

void DesktopAppearance::start(QDBusConnection bus) {
    if (!bus.isConnected())
        return;
    bus.connect(portalService, portalPath, settingsInterface, QStringLiteral("SettingChanged"),
                this, SLOT(onSettingChanged(QDBusMessage)));
    QDBusMessage read = QDBusMessage::createMethodCall(portalService, portalPath, settingsInterface,
                                                       QStringLiteral("Read"));
    read << appearanceNamespace << colorSchemeKey;
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(read), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this](QDBusPendingCallWatcher* call) {
                QDBusPendingReply<QDBusVariant> reply = *call;
                if (!reply.isError())
                    take(reply.argumentAt(0));
                call->deleteLater();
            });
}

void DesktopAppearance::onSettingChanged(const QDBusMessage& message) {
    const QVariantList arguments = message.arguments();
    if (arguments.size() == 3 && arguments[0].toString() == appearanceNamespace &&
        arguments[1].toString() == colorSchemeKey)
        take(arguments[2]);
}

void DesktopAppearance::take(const QVariant& value) {
    const QVariant scheme = unwrap(value);
    bool ok = false;
    const uint raw = scheme.toUInt(&ok);
    if (!ok || raw > uint(Scheme::light))
        return;
    m_colorScheme = Scheme(raw);
    emit colorSchemeChanged();
}
