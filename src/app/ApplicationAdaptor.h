#pragma once

#include "app/InstanceChannel.h"

#include <QDBusAbstractAdaptor>
#include <QVariantList>
#include <QVariantMap>

// org.freedesktop.Application on the running instance: what launchers and `xdg-open` call.
class ApplicationAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")

public:
    explicit ApplicationAdaptor(InstanceChannel* channel)
        : QDBusAbstractAdaptor(channel)
        , m_channel(channel) {}

public slots:
    void Activate(const QVariantMap&) { emit m_channel->activated(); }
    void Open(const QStringList& uris, const QVariantMap&) { m_channel->open(uris); }
    // Ondril exports no actions: a named action is one that does not exist.
    void ActivateAction(const QString&, const QVariantList&, const QVariantMap&) {}

private:
    InstanceChannel* m_channel;
};
