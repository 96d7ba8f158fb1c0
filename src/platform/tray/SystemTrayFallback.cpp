#include "platform/tray/SystemTrayFallback.h"

#include <QCursor>
#include <QKeySequence>
#include <QMenu>
#include <QSystemTrayIcon>

SystemTrayFallback::SystemTrayFallback(std::function<QList<StatusMenuItem>()> menu, QObject* parent)
    : QObject(parent)
    , m_items(std::move(menu))
    , m_menu(std::make_unique<QMenu>())
    , m_icon(std::make_unique<QSystemTrayIcon>()) {
    m_icon->setToolTip(QStringLiteral("Ondril"));
    m_icon->setContextMenu(m_menu.get());
    connect(m_menu.get(), &QMenu::aboutToShow, this, [this] {
        m_menu->clear();
        // clear() leaves the submenus, which are the menu's children.
        qDeleteAll(m_menu->findChildren<QMenu*>(Qt::FindDirectChildrenOnly));
        fillMenu(*m_menu, m_items());
    });
    connect(m_icon.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger)
                    emit activated(clickPoint());
                else if (reason == QSystemTrayIcon::MiddleClick)
                    emit secondaryActivated(clickPoint());
            });
}

SystemTrayFallback::~SystemTrayFallback() = default;

void SystemTrayFallback::setIcon(const QIcon& icon) {
    m_icon->setIcon(icon);
    m_icon->show();
}

void SystemTrayFallback::fillMenu(QMenu& menu, const QList<StatusMenuItem>& items) {
    for (const StatusMenuItem& item : items) {
        if (item.isSeparator) {
            menu.addSeparator();
            continue;
        }
        if (!item.submenu.isEmpty()) {
            QMenu* submenu = menu.addMenu(QIcon::fromTheme(item.iconName), item.title);
            fillMenu(*submenu, item.submenu);
            continue;
        }
        QAction* action = menu.addAction(QIcon::fromTheme(item.iconName), item.title);
        action->setEnabled(item.enabled);
        if (!item.keyEquivalent.isEmpty())
            action->setShortcut(
                QKeySequence(QStringLiteral("Ctrl+") + item.keyEquivalent.toUpper()));
        if (item.action)
            connect(action, &QAction::triggered, this, item.action);
    }
}

QPoint SystemTrayFallback::clickPoint() const {
    // The icon's rectangle stands for the status button; some trays do not report it.
    const QRect icon = m_icon->geometry();
    return icon.isValid() ? icon.center() : QCursor::pos();
}
