#pragma once

#include "devices/AudioDevice.h"
#include "platform/AudioHardware.h"

#include <QList>
#include <QObject>

#include <optional>

// The one object that reads and writes devices through the audio service: it enumerates outputs
// and inputs, follows the service's changes, and reads and writes volume and mute. Its four
// published fields announce every assignment, also of an equal value, and are assigned on the main
// thread one event-loop turn after the refresh that produced them, in the order default output,
// default input, outputs, inputs.
class AudioDeviceManager : public QObject {
    Q_OBJECT
    Q_PROPERTY(QList<AudioDevice> outputDevices READ outputDevices NOTIFY outputDevicesChanged)
    Q_PROPERTY(quint32 defaultOutputID READ defaultOutputID NOTIFY defaultOutputIDChanged)
    Q_PROPERTY(QList<AudioDevice> inputDevices READ inputDevices NOTIFY inputDevicesChanged)
    Q_PROPERTY(quint32 defaultInputID READ defaultInputID NOTIFY defaultInputIDChanged)

public:
    // Creation: empty state, one refresh, the three listeners on 'dev#', 'dOut' and 'dIn '.
    explicit AudioDeviceManager(AudioHardware& hardware, QObject* parent = nullptr);
    ~AudioDeviceManager() override;
    static AudioDeviceManager& shared();

    AudioHardware& hardware() const { return m_hardware; }

    QList<AudioDevice> outputDevices() const { return m_outputDevices; }
    AudioObjectID defaultOutputID() const { return m_defaultOutputID; }
    QList<AudioDevice> inputDevices() const { return m_inputDevices; }
    AudioObjectID defaultInputID() const { return m_defaultInputID; }

    void refresh();

    std::optional<AudioObjectID> deviceIDForOutputUID(const QString& uid) const;
    std::optional<AudioObjectID> deviceIDForInputUID(const QString& uid) const;

    std::optional<float> volume(AudioObjectID deviceID) const;
    bool isVolumeSettable(AudioObjectID deviceID) const;
    bool setVolume(float value, AudioObjectID deviceID);
    // An input's mute is read in the input scope.
    std::optional<bool>
    isMuted(AudioObjectID deviceID,
            AudioObjectPropertyScope scope = kAudioObjectPropertyScopeOutput) const;
    bool setMute(bool muted, AudioObjectID deviceID);

    // Reads of the system object used by the enumeration and by whoever writes a default itself.
    AudioObjectID readDefaultOutputID() const;
    AudioObjectID readDefaultInputID() const;
    std::optional<QString> readUID(AudioObjectID objectID) const;
    // Writes the system's default input; true when the service took it. The published fields
    // follow with the next refresh.
    bool setDefaultInputDevice(AudioObjectID deviceID);

signals:
    void outputDevicesChanged();
    void defaultOutputIDChanged();
    void inputDevicesChanged();
    void defaultInputIDChanged();

private:
    void publish(AudioObjectID defaultOutputID, AudioObjectID defaultInputID,
                 QList<AudioDevice> outputs, QList<AudioDevice> inputs);

    AudioHardware& m_hardware;
    QList<AudioDevice> m_outputDevices;
    AudioObjectID m_defaultOutputID = kAudioObjectUnknown;
    QList<AudioDevice> m_inputDevices;
    AudioObjectID m_defaultInputID = kAudioObjectUnknown;
    std::vector<AudioObjectPropertyListenerToken> m_listenerTokens;
};
