#include "ui/Appearance.h"

#include <QEvent>
#include <QGuiApplication>
#include <QPalette>

namespace {

bool qtPaletteIsDark() {
    const QPalette palette = QGuiApplication::palette();
    return palette.color(QPalette::Window).lightness() <
           palette.color(QPalette::WindowText).lightness();
}

std::optional<QString> environmentAppearance() {
    if (!qEnvironmentVariableIsSet("ONDRIL_APPEARANCE"))
        return std::nullopt;
    return qEnvironmentVariable("ONDRIL_APPEARANCE");
}

} // namespace

Appearance::Appearance(std::optional<QString> forced, QObject* parent)
    : QObject(parent)
    , m_forced(std::move(forced)) {
    m_isDark = resolveIsDark(m_forced, std::nullopt, qtPaletteIsDark());
}

Appearance& Appearance::shared() {
    static Appearance* instance = [] {
        auto* appearance = new Appearance(environmentAppearance());
        appearance->followDesktop();
        return appearance;
    }();
    return *instance;
}

void Appearance::followDesktop(QDBusConnection bus) {
    if (m_forced)
        return;
    connect(&m_desktop, &DesktopAppearance::colorSchemeChanged, this, &Appearance::update);
    m_desktop.start(bus);
    if (qGuiApp)
        qGuiApp->installEventFilter(this);
}

bool Appearance::resolveIsDark(const std::optional<QString>& forced,
                               std::optional<DesktopAppearance::Scheme> desktop,
                               bool qtPaletteIsDark) {
    if (forced)
        return *forced == QLatin1String("dark");
    if (desktop && *desktop != DesktopAppearance::Scheme::noPreference)
        return *desktop == DesktopAppearance::Scheme::dark;
    return qtPaletteIsDark;
}

bool Appearance::eventFilter(QObject* watched, QEvent* event) {
    if (watched == qGuiApp && event->type() == QEvent::ApplicationPaletteChange)
        update();
    return QObject::eventFilter(watched, event);
}

void Appearance::update() {
    m_isDark = resolveIsDark(m_forced, m_desktop.colorScheme(), qtPaletteIsDark());
    emit changed();
}
