#pragma once

#include "appaudio/AppAudioPrefs.h"

#include <cstdint>

// One row of the application lists, identified by `bundleID`.
struct AppAudioState {
    Q_GADGET
    Q_PROPERTY(QString bundleID MEMBER bundleID)
    Q_PROPERTY(QString name MEMBER name)
    Q_PROPERTY(qint32 pid MEMBER pid)
    Q_PROPERTY(bool isPlaying MEMBER isPlaying)
    Q_PROPERTY(AppAudioPrefs prefs MEMBER prefs)

public:
    QString bundleID;
    QString name;           // the application's localised name, else the bundle identifier
    std::int32_t pid = 0;   // 0 for a favourite that is not running
    bool isPlaying = false; // some process of the application is running output
    AppAudioPrefs prefs;    // the record in force, or the neutral record

    friend bool operator==(const AppAudioState&, const AppAudioState&) = default;
};

Q_DECLARE_METATYPE(AppAudioState)
