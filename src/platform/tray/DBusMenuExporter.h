#pragma once

#include "platform/tray/StatusMenuItem.h"
#include "platform/tray/StatusNotifierTypes.h"

#include <QDBusConnection>
#include <QDBusVirtualObject>

#include <functional>
#include <vector>

// Exports a menu over com.canonical.dbusmenu, the protocol through which KDE and GNOME's
// AppIndicator support show a status item's menu. The menu is built afresh by `build` each time
// the host is about to show it; the host then reads the new layout, and an "clicked" event runs
// the item's action on the next turn of the event loop (after the reply has gone).
class DBusMenuExporter : public QDBusVirtualObject {
    Q_OBJECT

public:
    static inline const QString interfaceName = QStringLiteral("com.canonical.dbusmenu");

    DBusMenuExporter(QDBusConnection bus, QString path,
                     std::function<QList<StatusMenuItem>()> build, QObject* parent = nullptr);

    bool exportMenu();
    // Rebuilds the menu and tells the host that its layout changed.
    void rebuild();

    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;

private:
    struct Entry {
        int parentID = 0;
        StatusMenuItem item;
        std::vector<int> children;
    };

    int add(int parentID, const StatusMenuItem& item);
    QVariantMap properties(int id, const QStringList& names) const;
    DBusMenuLayoutItem layout(int id, int depth, const QStringList& names) const;
    bool contains(int id) const { return id >= 0 && id < int(m_entries.size()); }
    void triggerLater(int id);
    QVariant propertyOfMenu(const QString& name) const;

    QDBusConnection m_bus;
    QString m_path;
    std::function<QList<StatusMenuItem>()> m_build;
    std::vector<Entry> m_entries; // index = item id; 0 is the root
    uint m_revision = 0;
};
