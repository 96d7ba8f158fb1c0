#pragma once

#include "platform/AudioHardwareTypes.h"

#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <optional>

class AppSettings;

// What the program sees of one audio device. `id` is valid for this run of the sound service
// only; stored data always holds `uid`.
struct AudioDevice {
    Q_GADGET
    Q_PROPERTY(quint32 id MEMBER id)
    Q_PROPERTY(QString uid MEMBER uid)
    Q_PROPERTY(QString name MEMBER name)
    Q_PROPERTY(bool isVolumeSettable MEMBER isVolumeSettable)
    Q_PROPERTY(bool isAirPlay MEMBER isAirPlay)
    Q_PROPERTY(bool isInput MEMBER isInput)
    Q_PROPERTY(QString displayName READ displayName)
    Q_PROPERTY(QString iconName READ iconName)
    Q_PROPERTY(QVariant volume READ volumeValue) // null when it cannot be read

public:
    AudioObjectID id = kAudioObjectUnknown;
    QString uid;
    QString name;
    std::optional<float> volume;
    bool isVolumeSettable = false;
    bool isAirPlay = false;
    bool isInput = false;

    friend bool operator==(const AudioDevice&, const AudioDevice&) = default;

    // The name shown to the user: a custom name (tolerant of UID drift), then for an input the
    // custom name given to its output side, then `name`.
    QString displayName(AppSettings& settings) const;
    QString displayName() const;

    QString iconName() const;
    QVariant volumeValue() const;
    static QString rowIconName(const QString& name, bool isInput);

    // A stored UID whose volatile parts have changed is recognised by its stable key.
    static std::optional<QString> stableKey(const QString& uid);
    static std::optional<QString> matchingUID(const QString& uid, const QStringList& candidates);
    static std::optional<QString> baseUID(const QString& uid);
};

size_t qHash(const AudioDevice& device, size_t seed = 0);

Q_DECLARE_METATYPE(AudioDevice)
