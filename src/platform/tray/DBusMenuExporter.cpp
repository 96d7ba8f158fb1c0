#include "platform/tray/DBusMenuExporter.h"

#include <QDBusMessage>
#include <QDBusVariant>
#include <QTimer>

namespace {

const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
const QString introspectableInterface = QStringLiteral("org.freedesktop.DBus.Introspectable");

const char* const menuIntrospection = R"xml(<interface name="com.canonical.dbusmenu">
  <property name="Version" type="u" access="read"/>
  <property name="TextDirection" type="s" access="read"/>
  <property name="Status" type="s" access="read"/>
  <property name="IconThemePath" type="as" access="read"/>
  <method name="GetLayout"><arg type="i" name="parentId" direction="in"/><arg type="i" name="recursionDepth" direction="in"/><arg type="as" name="propertyNames" direction="in"/><arg type="u" name="revision" direction="out"/><arg type="(ia{sv}av)" name="layout" direction="out"/></method>
  <method name="GetGroupProperties"><arg type="ai" name="ids" direction="in"/><arg type="as" name="propertyNames" direction="in"/><arg type="a(ia{sv})" name="properties" direction="out"/></method>
  <method name="GetProperty"><arg type="i" name="id" direction="in"/><arg type="s" name="name" direction="in"/><arg type="v" name="value" direction="out"/></method>
  <method name="Event"><arg type="i" name="id" direction="in"/><arg type="s" name="eventId" direction="in"/><arg type="v" name="data" direction="in"/><arg type="u" name="timestamp" direction="in"/></method>
  <method name="EventGroup"><arg type="a(isvu)" name="events" direction="in"/><arg type="ai" name="idErrors" direction="out"/></method>
  <method name="AboutToShow"><arg type="i" name="id" direction="in"/><arg type="b" name="needUpdate" direction="out"/></method>
  <method name="AboutToShowGroup"><arg type="ai" name="ids" direction="in"/><arg type="ai" name="updatesNeeded" direction="out"/><arg type="ai" name="idErrors" direction="out"/></method>
  <signal name="ItemsPropertiesUpdated"><arg type="a(ia{sv})" name="updatedProps"/><arg type="a(ias)" name="removedProps"/></signal>
  <signal name="LayoutUpdated"><arg type="u" name="revision"/><arg type="i" name="parent"/></signal>
  <signal name="ItemActivationRequested"><arg type="i" name="id"/><arg type="u" name="timestamp"/></signal>
</interface>
)xml";

QList<int> intList(const QVariant& value) {
    QList<int> ids;
    if (value.canConvert<QDBusArgument>())
        value.value<QDBusArgument>() >> ids;
    return value.metaType() == QMetaType::fromType<QList<int>>() ? value.value<QList<int>>() : ids;
}

} // namespace

DBusMenuExporter::DBusMenuExporter(QDBusConnection bus, QString path,
                                   std::function<QList<StatusMenuItem>()> build, QObject* parent)
    : QDBusVirtualObject(parent)
    , m_bus(std::move(bus))
    , m_path(std::move(path))
    , m_build(std::move(build)) {
    registerStatusNotifierTypes();
    m_entries.push_back(Entry{});
}

bool DBusMenuExporter::exportMenu() {
    rebuild();
    return m_bus.registerVirtualObject(m_path, this, QDBusConnection::SingleNode);
}

void DBusMenuExporter::rebuild() {
    m_entries.clear();
    m_entries.push_back(Entry{});
    for (const StatusMenuItem& item : m_build())
        add(0, item);
    ++m_revision;
    QDBusMessage signal =
        QDBusMessage::createSignal(m_path, interfaceName, QStringLiteral("LayoutUpdated"));
    signal << m_revision << 0;
    m_bus.send(signal);
}

int DBusMenuExporter::add(int parentID, const StatusMenuItem& item) {
    const int id = int(m_entries.size());
    m_entries.push_back(Entry{parentID, item, {}});
    m_entries[std::size_t(parentID)].children.push_back(id);
    for (const StatusMenuItem& child : item.submenu)
        add(id, child);
    return id;
}

QVariantMap DBusMenuExporter::properties(int id, const QStringList& names) const {
    QVariantMap all;
    const Entry& entry = m_entries[std::size_t(id)];
    if (id == 0) {
        all.insert(QStringLiteral("children-display"), QStringLiteral("submenu"));
    } else if (entry.item.isSeparator) {
        all.insert(QStringLiteral("type"), QStringLiteral("separator"));
    } else {
        // dbusmenu reads "_" as the mnemonic marker.
        QString label = entry.item.title;
        all.insert(QStringLiteral("label"), label.replace(QLatin1Char('_'), QLatin1String("__")));
        if (!entry.item.enabled)
            all.insert(QStringLiteral("enabled"), false);
        if (!entry.item.iconName.isEmpty())
            all.insert(QStringLiteral("icon-name"), entry.item.iconName);
        if (!entry.item.keyEquivalent.isEmpty())
            all.insert(QStringLiteral("shortcut"),
                       QVariant::fromValue(DBusMenuShortcut{
                           {QStringLiteral("Control"), entry.item.keyEquivalent}}));
        if (!entry.children.empty())
            all.insert(QStringLiteral("children-display"), QStringLiteral("submenu"));
    }
    if (names.isEmpty())
        return all;
    QVariantMap chosen;
    for (const QString& name : names)
        if (all.contains(name))
            chosen.insert(name, all.value(name));
    return chosen;
}

DBusMenuLayoutItem DBusMenuExporter::layout(int id, int depth, const QStringList& names) const {
    DBusMenuLayoutItem item;
    item.id = id;
    item.properties = properties(id, names);
    if (depth == 0)
        return item;
    for (int child : m_entries[std::size_t(id)].children)
        item.children.append(layout(child, depth < 0 ? -1 : depth - 1, names));
    return item;
}

void DBusMenuExporter::triggerLater(int id) {
    const std::function<void()> action = m_entries[std::size_t(id)].item.action;
    if (action && m_entries[std::size_t(id)].item.enabled)
        QTimer::singleShot(0, this, action);
}

QVariant DBusMenuExporter::propertyOfMenu(const QString& name) const {
    if (name == QLatin1String("Version"))
        return uint(3);
    if (name == QLatin1String("TextDirection"))
        return QStringLiteral("ltr");
    if (name == QLatin1String("Status"))
        return QStringLiteral("normal");
    if (name == QLatin1String("IconThemePath"))
        return QStringList();
    return {};
}

QString DBusMenuExporter::introspect(const QString&) const {
    return QString::fromLatin1(menuIntrospection);
}

bool DBusMenuExporter::handleMessage(const QDBusMessage& message,
                                     const QDBusConnection& connection) {
    const QString member = message.member();
    const QVariantList args = message.arguments();
    QVariantList reply;

    if (message.interface() == propertiesInterface) {
        if (member == QLatin1String("Get") && args.size() == 2) {
            reply << QVariant::fromValue(QDBusVariant(propertyOfMenu(args[1].toString())));
        } else if (member == QLatin1String("GetAll")) {
            QVariantMap all;
            for (const char* name : {"Version", "TextDirection", "Status", "IconThemePath"})
                all.insert(QLatin1String(name), propertyOfMenu(QLatin1String(name)));
            reply << all;
        } else {
            return false;
        }
    } else if (message.interface() == introspectableInterface) {
        return false;
    } else if (member == QLatin1String("GetLayout") && args.size() == 3) {
        const int parentID = args[0].toInt();
        if (!contains(parentID)) {
            connection.send(message.createErrorReply(QDBusError::InvalidArgs,
                                                     QStringLiteral("no such menu item")));
            return true;
        }
        reply << m_revision
              << QVariant::fromValue(layout(parentID, args[1].toInt(), args[2].toStringList()));
    } else if (member == QLatin1String("GetGroupProperties") && args.size() == 2) {
        DBusMenuItemPropertiesList list;
        const QList<int> ids = intList(args[0]);
        for (int id = 0; id < int(m_entries.size()); ++id)
            if (ids.isEmpty() || ids.contains(id))
                list.append({id, properties(id, args[1].toStringList())});
        reply << QVariant::fromValue(list);
    } else if (member == QLatin1String("GetProperty") && args.size() == 2) {
        const int id = args[0].toInt();
        const QVariantMap all = contains(id) ? properties(id, {}) : QVariantMap();
        reply << QVariant::fromValue(QDBusVariant(all.value(args[1].toString())));
    } else if (member == QLatin1String("Event") && args.size() == 4) {
        const int id = args[0].toInt();
        if (contains(id) && args[1].toString() == QLatin1String("clicked"))
            triggerLater(id);
    } else if (member == QLatin1String("EventGroup") && args.size() == 1) {
        QList<int> errors;
        const QDBusArgument events = args[0].value<QDBusArgument>();
        events.beginArray();
        while (!events.atEnd()) {
            int id = 0;
            QString eventID;
            QDBusVariant data;
            uint timestamp = 0;
            events.beginStructure();
            events >> id >> eventID >> data >> timestamp;
            events.endStructure();
            if (!contains(id))
                errors.append(id);
            else if (eventID == QLatin1String("clicked"))
                triggerLater(id);
        }
        events.endArray();
        reply << QVariant::fromValue(errors);
    } else if (member == QLatin1String("AboutToShow") && args.size() == 1) {
        // The root is built afresh for every showing.
        const bool root = args[0].toInt() == 0;
        if (root)
            rebuild();
        reply << root;
    } else if (member == QLatin1String("AboutToShowGroup") && args.size() == 1) {
        const QList<int> ids = intList(args[0]);
        QList<int> updates;
        if (ids.contains(0)) {
            rebuild();
            updates.append(0);
        }
        reply << QVariant::fromValue(updates) << QVariant::fromValue(QList<int>());
    } else {
        return false;
    }
    connection.send(message.createReply(reply));
    return true;
}
