#include "app/NotificationCenter.h"

NotificationCenter& NotificationCenter::defaultCenter() {
    static auto* center = new NotificationCenter;
    return *center;
}

NotificationCenter::ObserverToken
NotificationCenter::addObserver(const QString& name, QObject* context, Observer observer) {
    const ObserverToken token = m_nextToken++;
    m_entries.push_back({token, name, context, context != nullptr, std::move(observer)});
    return token;
}

void NotificationCenter::removeObserver(ObserverToken token) {
    std::erase_if(m_entries, [token](const Entry& entry) { return entry.token == token; });
}

void NotificationCenter::post(const QString& name) {
    // Observers may add or remove observers while we post: take the tokens first and look each
    // one up again before calling it.
    std::erase_if(m_entries, [](const Entry& entry) { return entry.hasContext && !entry.context; });
    std::vector<ObserverToken> matching;
    for (const auto& entry : m_entries)
        if (entry.name == name)
            matching.push_back(entry.token);
    for (auto token : matching) {
        auto it = std::find_if(m_entries.begin(), m_entries.end(),
                               [token](const Entry& entry) { return entry.token == token; });
        if (it == m_entries.end() || (it->hasContext && !it->context))
            continue;
        Observer observer = it->observer; // copy: the observer may remove itself
        observer();
    }
}

#include "moc_NotificationCenter.cpp"
