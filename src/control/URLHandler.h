#pragma once

#include "groups/OutputGroup.h"

#include <QList>
#include <QString>

#include <optional>

class AppAudioManager;
class AudioDeviceManager;
class ConfigManager;
class GroupManager;

// The "ondril:" URL commands. A command has no reply: it takes effect, or anything that does not
// fit the grammar is ignored without a word.
class URLHandler {
public:
    struct QueryItem {
        QString name;
        std::optional<QString> value; // absent for an item without '='
    };

    URLHandler(GroupManager& groups, AudioDeviceManager& audio, AppAudioManager& apps,
               ConfigManager& configs);
    // The handler over the shared objects.
    static URLHandler forSharedObjects();

    void handleURL(const QString& url) const;

    // The value of the first item of that name; absent if that first item has none.
    static std::optional<QString> queryValue(const QString& name, const QList<QueryItem>& items);
    // The whole string as the C library's strtod reads it in the C locale, or nothing.
    static std::optional<double> number(const std::optional<QString>& text);
    // By upper-case uuid text first, then by name ignoring case.
    std::optional<OutputGroup> findGroup(const QString& reference) const;

private:
    void activate(const QList<QueryItem>& items) const;
    void single(const QList<QueryItem>& items) const;
    void volume(const QList<QueryItem>& items) const;
    void app(const QList<QueryItem>& items) const;
    void config(const QList<QueryItem>& items) const;

    GroupManager& m_groups;
    AudioDeviceManager& m_audio;
    AppAudioManager& m_apps;
    ConfigManager& m_configs;
};
