#pragma once

#include <QByteArray>
#include <QDBusArgument>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QVariantMap>

// The wire records of the StatusNotifierItem and com.canonical.dbusmenu protocols.

// One image of an icon: ARGB32 pixels in network byte order, a(iiay) on the wire.
struct StatusNotifierIconPixmap {
    int width = 0;
    int height = 0;
    QByteArray data;
};
using StatusNotifierIconPixmaps = QList<StatusNotifierIconPixmap>;

// (sa(iiay)ss): icon name, icon images, title, description.
struct StatusNotifierToolTip {
    QString iconName;
    StatusNotifierIconPixmaps pixmaps;
    QString title;
    QString description;
};

// (ia{sv}): one menu item's properties.
struct DBusMenuItemProperties {
    int id = 0;
    QVariantMap properties;
};
using DBusMenuItemPropertiesList = QList<DBusMenuItemProperties>;

// (ia{sv}av): one menu item with its children, each child wrapped in a variant.
struct DBusMenuLayoutItem {
    int id = 0;
    QVariantMap properties;
    QList<DBusMenuLayoutItem> children;
};

// "shortcut" of a menu item: aas, one list of key names per chord.
using DBusMenuShortcut = QList<QStringList>;

QDBusArgument& operator<<(QDBusArgument& argument, const StatusNotifierIconPixmap& pixmap);
const QDBusArgument& operator>>(const QDBusArgument& argument, StatusNotifierIconPixmap& pixmap);
QDBusArgument& operator<<(QDBusArgument& argument, const StatusNotifierToolTip& toolTip);
const QDBusArgument& operator>>(const QDBusArgument& argument, StatusNotifierToolTip& toolTip);
QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuItemProperties& item);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuItemProperties& item);
QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuLayoutItem& item);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuLayoutItem& item);

Q_DECLARE_METATYPE(StatusNotifierIconPixmap)
Q_DECLARE_METATYPE(StatusNotifierToolTip)
Q_DECLARE_METATYPE(DBusMenuItemProperties)
Q_DECLARE_METATYPE(DBusMenuLayoutItem)

// Makes the records above known to QtDBus; safe to call more than once.
void registerStatusNotifierTypes();
