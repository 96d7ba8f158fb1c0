#pragma once

#include "platform/AppStreamRouter.h"
#include "platform/AudioHardwareTypes.h"
#include "platform/OutputPeakMonitor.h"

#include <QObject>

#include <memory>

// The one seam between Ondril's logic and the sound system. Each operation keeps the name of the
// audio-service call it stands for, and a realisation for that service would forward one to one.
// Behind it run the libpulse realisation (PulseAudio and PipeWire) and the in-memory simulated
// service used by the tests and by machines with no sound server.
//
// Contract shared by every realisation:
// - All calls are made on the main thread and return synchronously; a failure is a status other
//   than kAudioHardwareNoError, never an exception, a hang or a crash.
// - After a successful set, create or destroy, a read on the same thread sees the new state.
// - Listeners run later on the main thread (queued), never inside the call that caused the change.
// - IO blocks run on a real-time thread of the realisation's own.
class AudioHardware : public QObject {
    Q_OBJECT

public:
    using QObject::QObject;
    ~AudioHardware() override = default;

    // The realisation the running program uses. main() installs it before anything asks; asking
    // first installs the simulated service.
    static AudioHardware& shared();
    static void install(std::unique_ptr<AudioHardware> hardware);

    // A short name for logs and `ondril devices`: "pulse", "pipewire", "simulated".
    virtual QString backendName() const = 0;

    // Properties.
    virtual bool AudioObjectHasProperty(AudioObjectID objectID,
                                        const AudioObjectPropertyAddress& address) const = 0;
    virtual OSStatus AudioObjectIsPropertySettable(AudioObjectID objectID,
                                                   const AudioObjectPropertyAddress& address,
                                                   bool& outIsSettable) const = 0;
    // Answers from the value itself; a realisation whose service reports sizes of its own may
    // override it.
    virtual OSStatus AudioObjectGetPropertyDataSize(AudioObjectID objectID,
                                                    const AudioObjectPropertyAddress& address,
                                                    std::uint32_t& outDataSize) const;
    virtual OSStatus AudioObjectGetPropertyData(AudioObjectID objectID,
                                                const AudioObjectPropertyAddress& address,
                                                AudioPropertyValue& outData) const = 0;
    virtual OSStatus AudioObjectSetPropertyData(AudioObjectID objectID,
                                                const AudioObjectPropertyAddress& address,
                                                const AudioPropertyValue& data) = 0;

    // Listeners. A listener on the system object hears the system's properties ('dev#', 'dOut',
    // 'dIn ', 'prs#'); one on a device hears that device's. The token removes it.
    virtual OSStatus AudioObjectAddPropertyListenerBlock(
        AudioObjectID objectID, const AudioObjectPropertyAddress& address,
        AudioObjectPropertyListenerBlock listener, AudioObjectPropertyListenerToken& outToken) = 0;
    virtual OSStatus
    AudioObjectRemovePropertyListenerBlock(AudioObjectPropertyListenerToken token) = 0;

    // Aggregate devices. The description is the dictionary of the aggregate keys above.
    virtual OSStatus AudioHardwareCreateAggregateDevice(const QVariantMap& description,
                                                        AudioObjectID& outDeviceID) = 0;
    virtual OSStatus AudioHardwareDestroyAggregateDevice(AudioObjectID deviceID) = 0;

    // Process taps.
    virtual OSStatus AudioHardwareCreateProcessTap(const CATapDescription& description,
                                                   AudioObjectID& outTapID) = 0;
    virtual OSStatus AudioHardwareDestroyProcessTap(AudioObjectID tapID) = 0;

    // IO procedures and device start/stop.
    virtual OSStatus AudioDeviceCreateIOProcIDWithBlock(AudioDeviceIOProcID& outProcID,
                                                        AudioObjectID deviceID,
                                                        AudioDeviceIOBlock block) = 0;
    virtual OSStatus AudioDeviceDestroyIOProcID(AudioObjectID deviceID,
                                                AudioDeviceIOProcID procID) = 0;
    virtual OSStatus AudioDeviceStart(AudioObjectID deviceID, AudioDeviceIOProcID procID) = 0;
    virtual OSStatus AudioDeviceStop(AudioObjectID deviceID, AudioDeviceIOProcID procID) = 0;

    // Per-app audio through the service's own stream controls, for sessions that need no limiter,
    // so that no audio passes through Ondril; nullptr where taps serve every session.
    virtual std::unique_ptr<AppStreamRouter> makeAppStreamRouter() { return nullptr; }
    // The level of what the system plays, for a service whose process taps cannot tap every
    // process; nullptr where they can.
    virtual std::unique_ptr<OutputPeakMonitor> makeOutputPeakMonitor() { return nullptr; }
};
