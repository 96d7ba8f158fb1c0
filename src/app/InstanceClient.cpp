#include "app/InstanceClient.h"

#include "app/InstanceChannel.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QVariantMap>

namespace {

constexpr int callTimeoutMs = 10000; // an activated instance needs its launch first

const QString noInstance = QStringLiteral("Ondril is not running (start it with `ondril` or "
                                          "`ondril --headless`)");

} // namespace

bool InstanceClient::open(const QStringList& urls) {
    if (QDBusConnection::sessionBus().isConnected())
        return call(InstanceChannel::applicationInterface, QStringLiteral("Open"),
                    {urls, QVariantMap()}, true)
            .has_value();
    const QJsonObject request{{QStringLiteral("open"), QJsonArray::fromStringList(urls)}};
    return callSocket(QJsonDocument(request).toJson(QJsonDocument::Compact)).has_value();
}

bool InstanceClient::activate() {
    if (QDBusConnection::sessionBus().isConnected())
        return call(InstanceChannel::applicationInterface, QStringLiteral("Activate"),
                    {QVariantMap()}, true)
            .has_value();
    return callSocket(R"({"activate":true})").has_value();
}

std::optional<QString> InstanceClient::query(const QString& what) {
    if (QDBusConnection::sessionBus().isConnected()) {
        QString method = what;
        method[0] = method[0].toUpper();
        return call(InstanceChannel::controlInterface, method, {}, false);
    }
    const QJsonObject request{{QStringLiteral("query"), what}};
    return callSocket(QJsonDocument(request).toJson(QJsonDocument::Compact));
}

std::optional<QString> InstanceClient::call(const QString& interface, const QString& method,
                                            const QVariantList& arguments, bool mayStartInstance) {
    QDBusMessage message = QDBusMessage::createMethodCall(
        InstanceChannel::serviceName, InstanceChannel::objectPath, interface, method);
    message.setArguments(arguments);
    message.setAutoStartService(mayStartInstance);
    const QDBusMessage reply =
        QDBusConnection::sessionBus().call(message, QDBus::Block, callTimeoutMs);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        const bool nobodyThere =
            QDBusError(reply).type() == QDBusError::ServiceUnknown ||
            reply.errorName() == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner");
        m_failure = nobodyThere ? noInstance : reply.errorMessage();
        return std::nullopt;
    }
    return reply.arguments().isEmpty() ? QString() : reply.arguments().first().toString();
}

std::optional<QString> InstanceClient::callSocket(const QByteArray& request) {
    const QString path = InstanceChannel::socketPath();
    QLocalSocket socket;
    if (!path.isEmpty())
        socket.connectToServer(path);
    if (path.isEmpty() || !socket.waitForConnected(2000)) {
        m_failure = noInstance;
        return std::nullopt;
    }
    socket.write(request + '\n');
    while (!socket.canReadLine()) {
        if (!socket.waitForReadyRead(callTimeoutMs)) {
            m_failure = QStringLiteral("the running instance did not answer");
            return std::nullopt;
        }
    }
    return QString::fromUtf8(socket.readLine().trimmed());
}
