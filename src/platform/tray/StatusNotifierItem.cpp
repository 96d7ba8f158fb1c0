#include "platform/tray/StatusNotifierItem.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QImage>
#include <QtEndian>

namespace {

const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");

const char* const itemIntrospection = R"xml(<interface name="org.kde.StatusNotifierItem">
  <property name="Category" type="s" access="read"/>
  <property name="Id" type="s" access="read"/>
  <property name="Title" type="s" access="read"/>
  <property name="Status" type="s" access="read"/>
  <property name="WindowId" type="i" access="read"/>
  <property name="IconThemePath" type="s" access="read"/>
  <property name="Menu" type="o" access="read"/>
  <property name="ItemIsMenu" type="b" access="read"/>
  <property name="IconName" type="s" access="read"/>
  <property name="IconPixmap" type="a(iiay)" access="read"/>
  <property name="OverlayIconName" type="s" access="read"/>
  <property name="OverlayIconPixmap" type="a(iiay)" access="read"/>
  <property name="AttentionIconName" type="s" access="read"/>
  <property name="AttentionIconPixmap" type="a(iiay)" access="read"/>
  <property name="AttentionMovieName" type="s" access="read"/>
  <property name="ToolTip" type="(sa(iiay)ss)" access="read"/>
  <method name="ContextMenu"><arg name="x" type="i" direction="in"/><arg name="y" type="i" direction="in"/></method>
  <method name="Activate"><arg name="x" type="i" direction="in"/><arg name="y" type="i" direction="in"/></method>
  <method name="SecondaryActivate"><arg name="x" type="i" direction="in"/><arg name="y" type="i" direction="in"/></method>
  <method name="Scroll"><arg name="delta" type="i" direction="in"/><arg name="orientation" type="s" direction="in"/></method>
  <signal name="NewTitle"/>
  <signal name="NewIcon"/>
  <signal name="NewAttentionIcon"/>
  <signal name="NewOverlayIcon"/>
  <signal name="NewToolTip"/>
  <signal name="NewStatus"><arg name="status" type="s"/></signal>
</interface>
)xml";

const QList<int> pixmapSizes = {16, 22, 24, 32, 48};

StatusNotifierIconPixmaps pixmapsOf(const QIcon& icon) {
    StatusNotifierIconPixmaps pixmaps;
    for (int size : pixmapSizes) {
        QImage image =
            icon.pixmap(QSize(size, size)).toImage().convertToFormat(QImage::Format_ARGB32);
        if (image.isNull())
            continue;
        StatusNotifierIconPixmap pixmap{image.width(), image.height(), {}};
        pixmap.data.resize(qsizetype(image.width()) * image.height() * 4);
        auto* out = reinterpret_cast<quint32*>(pixmap.data.data());
        for (int y = 0; y < image.height(); ++y) {
            const auto* line = reinterpret_cast<const quint32*>(image.constScanLine(y));
            for (int x = 0; x < image.width(); ++x)
                *out++ = qToBigEndian(line[x]);
        }
        pixmaps.append(pixmap);
    }
    return pixmaps;
}

} // namespace

StatusNotifierItem::StatusNotifierItem(QDBusConnection bus, QObject* parent)
    : QDBusVirtualObject(parent)
    , m_bus(std::move(bus))
    , m_watcher(watcherService, m_bus, QDBusServiceWatcher::WatchForRegistration) {
    registerStatusNotifierTypes();
    connect(&m_watcher, &QDBusServiceWatcher::serviceRegistered, this,
            &StatusNotifierItem::registerWithWatcher);
}

StatusNotifierItem::~StatusNotifierItem() {
    if (m_started) {
        m_bus.unregisterObject(objectPath);
        m_bus.unregisterService(serviceName());
    }
}

QString StatusNotifierItem::serviceName() {
    return QStringLiteral("org.kde.StatusNotifierItem-%1-1")
        .arg(QCoreApplication::applicationPid());
}

bool StatusNotifierItem::start() {
    if (!m_bus.isConnected() ||
        !m_bus.registerVirtualObject(objectPath, this, QDBusConnection::SingleNode))
        return false;
    m_bus.registerService(serviceName());
    m_started = true;
    registerWithWatcher();
    return true;
}

void StatusNotifierItem::registerWithWatcher() {
    QDBusMessage call = QDBusMessage::createMethodCall(
        watcherService, watcherPath, watcherService, QStringLiteral("RegisterStatusNotifierItem"));
    call << serviceName();
    auto* pending = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this,
            [this](QDBusPendingCallWatcher* finished) {
                finished->deleteLater();
                const QDBusPendingReply<> reply = *finished;
                if (!reply.isError())
                    emit registered();
                else if (reply.error().type() == QDBusError::ServiceUnknown)
                    emit hostMissing();
            });
}

void StatusNotifierItem::setIcon(const QString& iconName, const QIcon& icon) {
    m_iconName = iconName;
    m_pixmaps = pixmapsOf(icon);
    if (m_started) {
        emitSignal(QStringLiteral("NewIcon"));
        emitSignal(QStringLiteral("NewToolTip"));
    }
}

void StatusNotifierItem::emitSignal(const QString& name, const QVariantList& arguments) {
    QDBusMessage signal = QDBusMessage::createSignal(objectPath, interfaceName, name);
    signal.setArguments(arguments);
    m_bus.send(signal);
}

QVariant StatusNotifierItem::property(const QString& name) const {
    static const StatusNotifierIconPixmaps none;
    if (name == QLatin1String("Category"))
        return QStringLiteral("Hardware");
    if (name == QLatin1String("Id"))
        return QStringLiteral("ondril");
    if (name == QLatin1String("Title"))
        return QStringLiteral("Ondril");
    if (name == QLatin1String("Status"))
        return QStringLiteral("Active");
    if (name == QLatin1String("WindowId"))
        return 0;
    if (name == QLatin1String("IconThemePath"))
        return QString();
    if (name == QLatin1String("Menu"))
        return QVariant::fromValue(QDBusObjectPath(menuPath));
    if (name == QLatin1String("ItemIsMenu"))
        return false;
    if (name == QLatin1String("IconName"))
        return m_iconName;
    if (name == QLatin1String("IconPixmap"))
        return QVariant::fromValue(m_pixmaps);
    if (name == QLatin1String("OverlayIconName") || name == QLatin1String("AttentionIconName") ||
        name == QLatin1String("AttentionMovieName"))
        return QString();
    if (name == QLatin1String("OverlayIconPixmap") || name == QLatin1String("AttentionIconPixmap"))
        return QVariant::fromValue(none);
    if (name == QLatin1String("ToolTip"))
        return QVariant::fromValue(
            StatusNotifierToolTip{m_iconName, m_pixmaps, QStringLiteral("Ondril"), QString()});
    return {};
}

QVariantMap StatusNotifierItem::allProperties() const {
    QVariantMap all;
    for (const char* name :
         {"Category", "Id", "Title", "Status", "WindowId", "IconThemePath", "Menu", "ItemIsMenu",
          "IconName", "IconPixmap", "OverlayIconName", "OverlayIconPixmap", "AttentionIconName",
          "AttentionIconPixmap", "AttentionMovieName", "ToolTip"})
        all.insert(QLatin1String(name), property(QLatin1String(name)));
    return all;
}

QString StatusNotifierItem::introspect(const QString&) const {
    return QString::fromLatin1(itemIntrospection);
}

bool StatusNotifierItem::handleMessage(const QDBusMessage& message,
                                       const QDBusConnection& connection) {
    const QString member = message.member();
    const QVariantList args = message.arguments();
    QVariantList reply;
    const auto point = [&args] {
        return args.size() >= 2 ? QPoint(args[0].toInt(), args[1].toInt()) : QPoint();
    };

    if (message.interface() == propertiesInterface) {
        if (member == QLatin1String("Get") && args.size() == 2) {
            const QVariant value = property(args[1].toString());
            if (!value.isValid()) {
                connection.send(message.createErrorReply(QDBusError::InvalidArgs,
                                                         QStringLiteral("no such property")));
                return true;
            }
            reply << QVariant::fromValue(QDBusVariant(value));
        } else if (member == QLatin1String("GetAll")) {
            reply << allProperties();
        } else {
            return false;
        }
    } else if (member == QLatin1String("Activate")) {
        emit activated(point());
    } else if (member == QLatin1String("SecondaryActivate")) {
        emit secondaryActivated(point());
    } else if (member == QLatin1String("ContextMenu")) {
        emit contextMenuRequested(point());
    } else if (member == QLatin1String("Scroll") && args.size() == 2) {
        const bool horizontal =
            args[1].toString().compare(QLatin1String("horizontal"), Qt::CaseInsensitive) == 0;
        emit scrolled(args[0].toInt(), horizontal ? Qt::Horizontal : Qt::Vertical);
    } else if (member == QLatin1String("ProvideXdgActivationToken")) {
        // Ondril's windows come from a click on the item; no token is needed.
    } else {
        return false;
    }
    connection.send(message.createReply(reply));
    return true;
}
