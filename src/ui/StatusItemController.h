#pragma once

#include "platform/tray/StatusMenuItem.h"

#include <QDBusConnection>
#include <QObject>
#include <QPoint>

#include <functional>
#include <memory>
#include <optional>

class AppSettings;
class DBusMenuExporter;
class GroupManager;
class PanelController;
class StatusNotifierItem;
class SystemTrayFallback;

// The tray icon: shows the active group's state, opens the panel on a click, toggles mute on a
// middle click or an Alt click, offers the menu on a right click, and steps the volume on a
// scroll. Realised as a StatusNotifierItem with its menu over dbusmenu, or as Qt's own tray icon
// while the desktop has no StatusNotifierItem host.
class StatusItemController : public QObject {
    Q_OBJECT

public:
    static constexpr double preciseScrollGain = 0.0025; // per unit of a precise delta
    static constexpr double lineScrollGain = 0.03;      // per wheel line (a delta of 120)
    static constexpr double largestScrollStep = 0.08;
    static constexpr int wheelLine = 120;

    StatusItemController(GroupManager& groups, AppSettings& settings, PanelController& panel,
                         QDBusConnection bus, QObject* parent = nullptr);
    ~StatusItemController() override;

    // Exports the item and its menu and asks the desktop to show it.
    bool start();

    void updateStatusIcon();
    void handleStatusItemClick(QPoint at, bool optionHeld);
    // False for what the icon does not take (horizontal scrolling); a zero delta is taken.
    bool handleScroll(int delta, Qt::Orientation orientation);
    QList<StatusMenuItem> statusMenu();

    // True while the desktop has no StatusNotifierItem host and Qt's own tray icon stands in.
    bool usesSystemTrayFallback() const { return m_fallback != nullptr; }

    // The tray icon's symbol for the active group's state (none: no group active).
    static QString statusSymbol(std::optional<double> activeMasterVolume, bool muted);
    // A scroll delta as a volume step: whole wheel lines of 120 at 0.03 each, anything finer as
    // precise scrolling at 0.0025 per unit, clamped to 0.08 either way. None for 0.
    static std::optional<double> scrollStep(int delta);
    static QString supportURL(const QString& path);

    // What "Quit Ondril" does; the application's quit unless replaced.
    std::function<void()> quitApp;

signals:
    void registered();

private:
    void fallBackToSystemTray();
    void openPanelFromMenu();
    void openSupportURL(const QString& url);

    GroupManager& m_groups;
    AppSettings& m_settings;
    PanelController& m_panel;
    QDBusConnection m_bus;
    std::unique_ptr<StatusNotifierItem> m_item;
    std::unique_ptr<DBusMenuExporter> m_menu;
    std::unique_ptr<SystemTrayFallback> m_fallback;
    std::optional<QPoint> m_lastClick;
};
