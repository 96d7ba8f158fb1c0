#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QMetaType>
#include <QString>
#include <QStringList>

#include <optional>

// What the user wants done with one application's sound. Stored only while it differs from the
// neutral record (unity volume, not muted, following the default output, not favourite).
struct AppAudioPrefs {
    Q_GADGET
    Q_PROPERTY(double volume MEMBER volume)
    Q_PROPERTY(bool muted MEMBER muted)
    Q_PROPERTY(QStringList routeUIDs MEMBER routeUIDs)
    Q_PROPERTY(bool favourite MEMBER favourite)

public:
    double volume = 1.0; // linear gain, 0 to 4; above 1 is boost
    bool muted = false;
    QStringList routeUIDs; // empty: follows the default output
    bool favourite = false;

    friend bool operator==(const AppAudioPrefs&, const AppAudioPrefs&) = default;

    bool isNeutral() const { return *this == AppAudioPrefs(); }
    // Neutral in what decides a session: volume, mute and routes.
    bool isNeutralSound() const { return volume == 1.0 && !muted && routeUIDs.isEmpty(); }

    // One record as JSON, and back, tolerant field by field: a missing key or one of the wrong
    // type takes its neutral value, so a record never fails as a whole.
    QJsonObject toJson() const;
    static AppAudioPrefs fromJson(const QJsonObject& object);

    // The whole table under "ondril.appPrefs.v1": one object keyed by bundle identifier. Decoding
    // fails only when the data is not a JSON object.
    static QByteArray encodeAll(const QMap<QString, AppAudioPrefs>& prefs);
    static std::optional<QMap<QString, AppAudioPrefs>> decodeAll(const QByteArray& data);
};

Q_DECLARE_METATYPE(AppAudioPrefs)
