#include "ui/StatusItemController.h"

#include "app/AppSettings.h"
#include "groups/GroupManager.h"
#include "platform/tray/DBusMenuExporter.h"
#include "platform/tray/StatusNotifierItem.h"
#include "platform/tray/SystemTrayFallback.h"
#include "ui/Appearance.h"
#include "ui/IconCatalogue.h"
#include "ui/panel/PanelController.h"

#include <QCoreApplication>
#include <QCursor>
#include <QDesktopServices>
#include <QGuiApplication>
#include <QUrl>

#include <algorithm>
#include <cstdio>

StatusItemController::StatusItemController(GroupManager& groups, AppSettings& settings,
                                           PanelController& panel, QDBusConnection bus,
                                           QObject* parent)
    : QObject(parent)
    , quitApp([] { QCoreApplication::quit(); })
    , m_groups(groups)
    , m_settings(settings)
    , m_panel(panel)
    , m_bus(std::move(bus)) {}

StatusItemController::~StatusItemController() = default;

bool StatusItemController::start() {
    IconCatalogue::installFallbackTheme();
    m_item = std::make_unique<StatusNotifierItem>(m_bus);
    m_menu = std::make_unique<DBusMenuExporter>(m_bus, StatusNotifierItem::menuPath,
                                                [this] { return statusMenu(); });

    connect(m_item.get(), &StatusNotifierItem::activated, this, [this](QPoint at) {
        // The host reports the click, not its modifiers: ask for Alt at this moment.
        handleStatusItemClick(at, QGuiApplication::queryKeyboardModifiers() & Qt::AltModifier);
    });
    connect(m_item.get(), &StatusNotifierItem::secondaryActivated, this,
            [this](QPoint at) { handleStatusItemClick(at, true); });
    connect(m_item.get(), &StatusNotifierItem::scrolled, this, &StatusItemController::handleScroll);
    connect(m_item.get(), &StatusNotifierItem::registered, this, [this] {
        m_fallback.reset(); // a host has come: the item shows there
        emit registered();
    });
    connect(m_item.get(), &StatusNotifierItem::hostMissing, this,
            &StatusItemController::fallBackToSystemTray);

    // The icon follows the group manager after each change has been stored.
    for (auto signal : {&GroupManager::activeGroupIDChanged, &GroupManager::isMutedChanged,
                        &GroupManager::groupsChanged})
        connect(&m_groups, signal, this, &StatusItemController::updateStatusIcon,
                Qt::QueuedConnection);
    connect(&Appearance::shared(), &Appearance::changed, this,
            &StatusItemController::updateStatusIcon);

    updateStatusIcon();
    return m_menu->exportMenu() && m_item->start();
}

QString StatusItemController::statusSymbol(std::optional<double> activeMasterVolume, bool muted) {
    if (!activeMasterVolume)
        return QStringLiteral("speaker.wave.2.fill");
    if (muted)
        return QStringLiteral("speaker.slash.fill");
    if (*activeMasterVolume < 0.001)
        return QStringLiteral("speaker.fill");
    if (*activeMasterVolume < 0.34)
        return QStringLiteral("speaker.wave.1.fill");
    if (*activeMasterVolume < 0.67)
        return QStringLiteral("speaker.wave.2.fill");
    return QStringLiteral("speaker.wave.3.fill");
}

void StatusItemController::updateStatusIcon() {
    if (!m_item)
        return;
    const auto group = m_groups.activeGroup();
    const QString symbol =
        statusSymbol(group ? std::optional(group->masterVolume) : std::nullopt, m_groups.isMuted());
    const QIcon icon = IconCatalogue::icon(symbol, Appearance::shared().palette().textPrimary);
    m_item->setIcon(IconCatalogue::themeName(symbol), icon);
    if (m_fallback)
        m_fallback->setIcon(icon);
}

void StatusItemController::fallBackToSystemTray() {
    if (m_fallback)
        return;
    std::fprintf(stderr, "ondril: the desktop has no StatusNotifierItem host; using a plain tray "
                         "icon (no scrolling on it)\n");
    m_fallback = std::make_unique<SystemTrayFallback>([this] { return statusMenu(); });
    connect(m_fallback.get(), &SystemTrayFallback::activated, this, [this](QPoint at) {
        handleStatusItemClick(at, QGuiApplication::queryKeyboardModifiers() & Qt::AltModifier);
    });
    connect(m_fallback.get(), &SystemTrayFallback::secondaryActivated, this,
            [this](QPoint at) { handleStatusItemClick(at, true); });
    updateStatusIcon();
}

void StatusItemController::handleStatusItemClick(QPoint at, bool optionHeld) {
    m_lastClick = at;
    if (optionHeld) {
        // The volume overlay shows the result here once it exists.
        m_groups.toggleMute();
        return;
    }
    if (m_panel.isVisible())
        m_panel.hide();
    else if (PanelController::mayReopen(m_panel.msSinceLastClose()))
        m_panel.show(at);
}

std::optional<double> StatusItemController::scrollStep(int delta) {
    if (delta == 0)
        return std::nullopt;
    const double step =
        delta % wheelLine == 0 ? (delta / wheelLine) * lineScrollGain : delta * preciseScrollGain;
    return std::clamp(step, -largestScrollStep, largestScrollStep);
}

bool StatusItemController::handleScroll(int delta, Qt::Orientation orientation) {
    if (orientation != Qt::Vertical)
        return false;
    const auto step = scrollStep(delta);
    if (!step)
        return true;
    if (m_groups.stepVolume(*step))
        QMetaObject::invokeMethod(this, &StatusItemController::updateStatusIcon,
                                  Qt::QueuedConnection);
    return true;
}

QString StatusItemController::supportURL(const QString& path) {
    return QStringLiteral(ONDRIL_SUPPORT_URL) + path;
}

QList<StatusMenuItem> StatusItemController::statusMenu() {
    const auto support = [this](const QString& title, const QString& path) {
        StatusMenuItem item;
        item.title = title;
        const QString url = supportURL(path);
        item.action = [this, url] { openSupportURL(url); };
        return item;
    };

    StatusMenuItem open;
    open.title = QStringLiteral("Open Ondril");
    open.iconName = IconCatalogue::themeName(QStringLiteral("slider.horizontal.3"));
    open.action = [this] { openPanelFromMenu(); };

    // The settings window and the updater come later; until then their items stand disabled.
    StatusMenuItem settings;
    settings.title = QStringLiteral("Settings…");
    settings.iconName = IconCatalogue::themeName(QStringLiteral("gearshape"));
    settings.keyEquivalent = QStringLiteral(",");
    settings.enabled = false;

    StatusMenuItem supportMenu;
    supportMenu.title = QStringLiteral("Support");
    supportMenu.iconName = IconCatalogue::themeName(QStringLiteral("lifepreserver"));
    supportMenu.submenu = {
        support(QStringLiteral("Report a Bug"), QStringLiteral("/ondril/bugs")),
        support(QStringLiteral("Request a Feature"), QStringLiteral("/ondril/features/")),
        support(QStringLiteral("Leave a Testimonial"), QStringLiteral("/ondril/testimonials/")),
        support(QStringLiteral("Review Roadmap"), QStringLiteral("/ondril/roadmap/")),
        support(QStringLiteral("View Changelog"), QStringLiteral("/ondril/changelog/")),
        support(QStringLiteral("FAQ"), QStringLiteral("/ondril/faq/")),
    };

    StatusMenuItem updates;
    updates.title = QStringLiteral("Check for Updates");
    updates.iconName = IconCatalogue::themeName(QStringLiteral("arrow.triangle.2.circlepath"));
    updates.enabled = false;

    StatusMenuItem quit;
    quit.title = QStringLiteral("Quit Ondril");
    quit.keyEquivalent = QStringLiteral("q");
    quit.action = [this] { quitApp(); };

    return {open,        settings, StatusMenuItem::separator(),
            supportMenu, updates,  StatusMenuItem::separator(),
            quit};
}

void StatusItemController::openPanelFromMenu() {
    // The menu stands by the tray icon: open where the icon was last clicked, else at the pointer.
    m_panel.show(m_lastClick.value_or(QCursor::pos()));
}

void StatusItemController::openSupportURL(const QString& url) {
    const QUrl parsed(url, QUrl::StrictMode);
    if (parsed.isValid())
        QDesktopServices::openUrl(parsed);
}
