#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// The other end of InstanceChannel: what a second invocation of `ondril` sends to the running
// instance, over the session bus or, without one, over the local socket.
class InstanceClient {
public:
    // Hands the URLs to the running instance; the bus may start one for them (activation).
    bool open(const QStringList& urls);
    bool activate();
    // "status", "groups", "apps" or "configs" as JSON text; never starts an instance.
    std::optional<QString> query(const QString& what);

    QString failure() const { return m_failure; } // one line, when a call did not get through

private:
    std::optional<QString> call(const QString& interface, const QString& method,
                                const QVariantList& arguments, bool mayStartInstance);
    std::optional<QString> callSocket(const QByteArray& request);

    QString m_failure;
};
