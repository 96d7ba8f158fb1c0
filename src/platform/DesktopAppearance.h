#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>

#include <optional>

// The desktop's preferred colour scheme, as the freedesktop settings portal publishes it under
// org.freedesktop.appearance color-scheme (0 no preference, 1 dark, 2 light). Read once
// asynchronously at start and followed through the portal's SettingChanged signal; without a
// portal it stays absent.
class DesktopAppearance : public QObject {
    Q_OBJECT

public:
    enum class Scheme : uint { noPreference = 0, dark = 1, light = 2 };

    using QObject::QObject;

    void start(QDBusConnection bus = QDBusConnection::sessionBus());
    std::optional<Scheme> colorScheme() const { return m_colorScheme; }

signals:
    void colorSchemeChanged();

public slots: // QtDBus connects public slots only; this one reads the message whole
    void onSettingChanged(const QDBusMessage& message);

private:
    void take(const QVariant& value);

    std::optional<Scheme> m_colorScheme;
};
