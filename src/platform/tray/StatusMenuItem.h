#pragma once

#include <QList>
#include <QString>

#include <functional>

// One entry of the status item's menu as the program describes it; the tray realisation turns it
// into what the desktop shows. A separator carries nothing else.
struct StatusMenuItem {
    QString title;
    std::function<void()> action; // none: the item has a submenu, or does nothing
    bool enabled = true;
    bool isSeparator = false;
    QString iconName;      // a freedesktop theme icon name, or empty
    QString keyEquivalent; // with the Control key, as "q"
    QList<StatusMenuItem> submenu;

    static StatusMenuItem separator() {
        StatusMenuItem item;
        item.isSeparator = true;
        return item;
    }
};
