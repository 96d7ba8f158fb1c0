#pragma once

#include <QObject>
#include <QPointer>
#include <QString>

#include <cstdint>
#include <functional>
#include <vector>

// The in-process notification centre: constant names, no object, no user information. Observers
// run synchronously inside post(), on the main thread, in the order they were added, so that a
// read that repairs stored data and posts has notified everybody before it returns.
class NotificationCenter : public QObject {
    Q_OBJECT

public:
    using ObserverToken = std::uint64_t;
    using Observer = std::function<void()>;

    using QObject::QObject;
    static NotificationCenter& defaultCenter();

    // The observer lives until removed, or until `context` is destroyed when one is given.
    ObserverToken addObserver(const QString& name, QObject* context, Observer observer);
    void removeObserver(ObserverToken token);
    void post(const QString& name);

private:
    struct Entry {
        ObserverToken token;
        QString name;
        QPointer<QObject> context;
        bool hasContext;
        Observer observer;
    };
    std::vector<Entry> m_entries;
    ObserverToken m_nextToken = 1;
};
