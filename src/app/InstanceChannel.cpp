#include "app/InstanceChannel.h"

#include "app/ApplicationAdaptor.h"
#include "app/ControlAdaptor.h"
#include "app/StatusReport.h"
#include "control/URLHandler.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QJsonDocument>
#include <QLocalServer>
#include <QLocalSocket>

#include <sys/socket.h>
#include <unistd.h>

namespace {

bool peerIsOurUser(const QLocalSocket& socket) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(int(socket.socketDescriptor()), SOL_SOCKET, SO_PEERCRED, &credentials, &size) !=
        0)
        return false;
    return credentials.uid == getuid();
}

} // namespace

InstanceChannel::InstanceChannel(QObject* parent)
    : QObject(parent) {
    new ApplicationAdaptor(this);
    new ControlAdaptor(this);
}

QString InstanceChannel::socketPath() {
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    return runtime.isEmpty() ? QString() : QDir(runtime).filePath(QStringLiteral("ondril.socket"));
}

bool InstanceChannel::isHeldElsewhere() {
    // A connection of its own, closed at once: the shared session bus connection is opened only
    // under the application object that will keep it.
    const QString probeName = QStringLiteral("ondril-probe");
    bool held = false;
    bool hasBus = false;
    {
        const QDBusConnection bus =
            QDBusConnection::connectToBus(QDBusConnection::SessionBus, probeName);
        hasBus = bus.isConnected();
        if (hasBus)
            held = bus.interface()->isServiceRegistered(serviceName).value();
    }
    QDBusConnection::disconnectFromBus(probeName);
    if (hasBus)
        return held;
    const QString path = socketPath();
    if (path.isEmpty())
        return false;
    QLockFile lock(lockPath(path));
    lock.setStaleLockTime(0);
    if (lock.tryLock(0))
        return false; // released as `lock` goes
    return lock.error() == QLockFile::LockFailedError;
}

InstanceChannel::Claim InstanceChannel::claim() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return claimSocket();
    // The object first, so that whoever sees the name finds it answering.
    if (!bus.registerObject(objectPath, this, QDBusConnection::ExportAdaptors)) {
        m_failure = QStringLiteral("cannot export %1 on the session bus").arg(objectPath);
        return Claim::unavailable;
    }
    const auto reply =
        bus.interface()->registerService(serviceName, QDBusConnectionInterface::DontQueueService,
                                         QDBusConnectionInterface::DontAllowReplacement);
    if (reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered)
        return Claim::primary;
    bus.unregisterObject(objectPath);
    if (!reply.isValid()) {
        m_failure = reply.error().message();
        return Claim::unavailable;
    }
    return Claim::secondary;
}

InstanceChannel::Claim InstanceChannel::claimSocket() {
    const QString path = socketPath();
    if (path.isEmpty()) {
        m_failure = QStringLiteral("no session bus and no XDG_RUNTIME_DIR");
        return Claim::unavailable;
    }
    // The lock decides, not the socket: between another instance's bind and listen, its socket
    // would look dead. The lock holder owns the socket and may clear one left by a crash.
    m_lock = std::make_unique<QLockFile>(lockPath(path));
    m_lock->setStaleLockTime(0);
    if (!m_lock->tryLock(0)) {
        if (m_lock->error() == QLockFile::LockFailedError)
            return Claim::secondary;
        m_failure = QStringLiteral("cannot create %1.lock").arg(path);
        return Claim::unavailable;
    }
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption); // 0600
    QLocalServer::removeServer(path);
    if (!m_server->listen(path)) {
        m_failure = m_server->errorString();
        return Claim::unavailable;
    }
    connect(m_server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* socket = m_server->nextPendingConnection())
            serve(socket);
    });
    return Claim::primary;
}

// One request line per connection: {"open": [urls]}, {"activate": true} or {"query": what}.
void InstanceChannel::serve(QLocalSocket* socket) {
    connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
    if (!peerIsOurUser(*socket)) {
        socket->abort();
        return;
    }
    connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
        if (!socket->canReadLine())
            return;
        const QJsonObject request = QJsonDocument::fromJson(socket->readLine()).object();
        QByteArray reply = "{}";
        if (request.contains(QStringLiteral("open")))
            open(request.value(QStringLiteral("open")).toVariant().toStringList());
        else if (request.contains(QStringLiteral("activate")))
            emit activated();
        else
            reply = query(request.value(QStringLiteral("query")).toString()).toUtf8();
        socket->write(reply + '\n');
        socket->disconnectFromServer();
    });
}

void InstanceChannel::open(const QStringList& urls) {
    // One after the other, in the order given, each to its end.
    const URLHandler handler = URLHandler::forSharedObjects();
    for (const QString& url : urls)
        handler.handleURL(url);
}

QString InstanceChannel::query(const QString& what) const {
    const StatusReport report = StatusReport::forSharedObjects();
    QJsonDocument document;
    if (what == QLatin1String("status"))
        document = QJsonDocument(report.status());
    else if (what == QLatin1String("groups"))
        document = QJsonDocument(report.groups());
    else if (what == QLatin1String("apps"))
        document = QJsonDocument(report.apps());
    else if (what == QLatin1String("configs"))
        document = QJsonDocument(report.configs());
    return QString::fromUtf8(document.toJson(QJsonDocument::Compact));
}
