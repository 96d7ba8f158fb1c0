#pragma once

#include "platform/DesktopAppearance.h"
#include "ui/OndrilPalette.h"
#include "ui/SettingsTheme.h"

#include <QObject>
#include <QVariantMap>

#include <optional>

// The colour scheme the screens draw in, with the palettes made from it and the shared animation
// timings. ONDRIL_APPEARANCE forces a scheme ("dark" dark, any other value light); otherwise the
// desktop's portal setting decides, and without one the lightness of Qt's palette.
class Appearance : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isDark READ isDark NOTIFY changed)
    Q_PROPERTY(QVariantMap palette READ paletteMap NOTIFY changed)
    Q_PROPERTY(QVariantMap settingsTheme READ settingsThemeMap NOTIFY changed)
    // Hover of rows: ease-out; expanding and collapsing: ease-in-out (milliseconds).
    Q_PROPERTY(int hoverDuration MEMBER hoverDuration CONSTANT)
    Q_PROPERTY(int expandDuration MEMBER expandDuration CONSTANT)
    // Presses and marks: a spring of response 0.3 s and damping fraction 0.72. SpringAnimation
    // steps every 16 ms, so stiffness (2 pi / 0.3)^2 and damping 2 * 0.72 * 2 pi / 0.3 per second
    // become these two per-step figures.
    Q_PROPERTY(double springStiffness MEMBER springStiffness CONSTANT)
    Q_PROPERTY(double springDamping MEMBER springDamping CONSTANT)

public:
    static constexpr int hoverDuration = 120;
    static constexpr int expandDuration = 150;
    static constexpr double springStiffness = 7.02;
    static constexpr double springDamping = 0.483;

    // `forced` is the value of ONDRIL_APPEARANCE, read once at launch.
    explicit Appearance(std::optional<QString> forced, QObject* parent = nullptr);
    static Appearance& shared();

    // Follows the desktop from now on: the portal's setting, and Qt's palette as it changes.
    void followDesktop(QDBusConnection bus = QDBusConnection::sessionBus());

    static bool resolveIsDark(const std::optional<QString>& forced,
                              std::optional<DesktopAppearance::Scheme> desktop,
                              bool qtPaletteIsDark);

    bool isDark() const { return m_isDark; }
    OndrilPalette palette() const { return OndrilPalette::forScheme(m_isDark); }
    SettingsTheme settingsTheme() const { return SettingsTheme::forScheme(m_isDark); }
    QVariantMap paletteMap() const { return palette().toVariantMap(); }
    QVariantMap settingsThemeMap() const { return settingsTheme().toVariantMap(); }

signals:
    void changed();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void update();

    std::optional<QString> m_forced;
    DesktopAppearance m_desktop;
    bool m_isDark = false;
};
