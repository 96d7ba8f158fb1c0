#pragma once

#include <QLockFile>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

class QLocalServer;
class QLocalSocket;

// The one running instance's door: the well-known name "com.kestrivane.Ondril" on the session
// bus, object /com/kestrivane/Ondril, with org.freedesktop.Application (Activate, Open,
// ActivateAction) and com.kestrivane.Ondril1 (the queries of the command line). Without a
// session bus, a local socket in $XDG_RUNTIME_DIR (mode 0600, peers of our own uid only).
class InstanceChannel : public QObject {
    Q_OBJECT

public:
    static inline const QString serviceName = QStringLiteral("com.kestrivane.Ondril");
    static inline const QString objectPath = QStringLiteral("/com/kestrivane/Ondril");
    static inline const QString controlInterface = QStringLiteral("com.kestrivane.Ondril1");
    static inline const QString applicationInterface =
        QStringLiteral("org.freedesktop.Application");

    enum class Claim { primary, secondary, unavailable };

    explicit InstanceChannel(QObject* parent = nullptr);

    // Takes the name (or the socket); `secondary` when another instance holds it.
    Claim claim();
    QString failure() const { return m_failure; }

    static QString socketPath(); // empty without $XDG_RUNTIME_DIR

    // Whether another instance holds the name (or the socket) now. Needs only a
    // QCoreApplication and leaves the session bus connection unopened, so that a second launch
    // can hand over before any display connection exists.
    static bool isHeldElsewhere();

    // What the interfaces do, for the bus and the socket alike.
    void open(const QStringList& urls);
    QString query(const QString& what) const; // "status", "groups", "apps", "configs": JSON

signals:
    void activated(); // a second launch, or a launcher's Activate

private:
    Claim claimSocket();
    static QString lockPath(const QString& socket) { return socket + QStringLiteral(".lock"); }
    void serve(QLocalSocket* socket);

    std::unique_ptr<QLockFile> m_lock; // held for the life of the process
    QLocalServer* m_server = nullptr;
    QString m_failure;
};
