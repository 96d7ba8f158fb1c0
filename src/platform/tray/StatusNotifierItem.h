#pragma once

#include "platform/tray/StatusNotifierTypes.h"

#include <QDBusConnection>
#include <QDBusServiceWatcher>
#include <QDBusVirtualObject>
#include <QIcon>
#include <QPoint>

// The status item as a StatusNotifierItem on the session bus: service
// org.kde.StatusNotifierItem-<pid>-1, object /StatusNotifierItem, menu at /MenuBar. It registers
// with org.kde.StatusNotifierWatcher asynchronously, and again whenever the watcher reappears;
// when no watcher is there at start it says so through hostMissing().
class StatusNotifierItem : public QDBusVirtualObject {
    Q_OBJECT

public:
    static inline const QString interfaceName = QStringLiteral("org.kde.StatusNotifierItem");
    static inline const QString objectPath = QStringLiteral("/StatusNotifierItem");
    static inline const QString menuPath = QStringLiteral("/MenuBar");
    static inline const QString watcherService = QStringLiteral("org.kde.StatusNotifierWatcher");
    static inline const QString watcherPath = QStringLiteral("/StatusNotifierWatcher");

    explicit StatusNotifierItem(QDBusConnection bus, QObject* parent = nullptr);
    ~StatusNotifierItem() override;

    static QString serviceName();

    // Exports the item and asks the watcher to show it. False when the bus is not there.
    bool start();

    // A theme icon name, with the same icon drawn as images for hosts without the theme.
    void setIcon(const QString& iconName, const QIcon& icon);

    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;

signals:
    void activated(QPoint position);
    void secondaryActivated(QPoint position);
    void contextMenuRequested(QPoint position);
    void scrolled(int delta, Qt::Orientation orientation);
    void registered();
    void hostMissing();

private:
    void registerWithWatcher();
    QVariant property(const QString& name) const;
    QVariantMap allProperties() const;
    void emitSignal(const QString& name, const QVariantList& arguments = {});

    QDBusConnection m_bus;
    QDBusServiceWatcher m_watcher;
    QString m_iconName;
    StatusNotifierIconPixmaps m_pixmaps;
    bool m_started = false;
};
