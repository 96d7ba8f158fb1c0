#pragma once

#include "app/InstanceChannel.h"

#include <QDBusAbstractAdaptor>

// com.kestrivane.Ondril1 on the running instance: the command line's queries, each a JSON text.
// Writing goes through org.freedesktop.Application.Open with "ondril:" URLs.
class ControlAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.kestrivane.Ondril1")

public:
    explicit ControlAdaptor(InstanceChannel* channel)
        : QDBusAbstractAdaptor(channel)
        , m_channel(channel) {}

public slots:
    QString Status() const { return m_channel->query(QStringLiteral("status")); }
    QString Groups() const { return m_channel->query(QStringLiteral("groups")); }
    QString Apps() const { return m_channel->query(QStringLiteral("apps")); }
    QString Configs() const { return m_channel->query(QStringLiteral("configs")); }

private:
    InstanceChannel* m_channel;
};
