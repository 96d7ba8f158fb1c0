#pragma once

#include "platform/tray/StatusMenuItem.h"

#include <QIcon>
#include <QObject>
#include <QPoint>

#include <functional>
#include <memory>

class QMenu;
class QSystemTrayIcon;

// The status item where the desktop has no StatusNotifierItem host: Qt's own tray icon (an XEmbed
// icon on X11). Such hosts report no scrolling; the menu holds the same items, built afresh each
// time it opens. Its Qt Widgets parts stay in its source file: the rest of Ondril builds without.
class SystemTrayFallback : public QObject {
    Q_OBJECT

public:
    explicit SystemTrayFallback(std::function<QList<StatusMenuItem>()> menu,
                                QObject* parent = nullptr);
    ~SystemTrayFallback() override;

    void setIcon(const QIcon& icon);

signals:
    void activated(QPoint position);
    void secondaryActivated(QPoint position);

private:
    void fillMenu(QMenu& menu, const QList<StatusMenuItem>& items);
    QPoint clickPoint() const;

    std::function<QList<StatusMenuItem>()> m_items;
    std::unique_ptr<QMenu> m_menu;
    std::unique_ptr<QSystemTrayIcon> m_icon;
};
