#pragma once

#include "platform/AudioHardware.h"

#include <QHash>

#include <map>
#include <memory>
#include <optional>
#include <set>

// An in-memory audio service: devices, defaults, volumes, aggregates, processes, taps and IO
// procedures, with listeners that fire on the main thread after each change like the real service.
// Tests script it (plug, unplug, change things behind the program's back) and inject faults; it is
// also what Ondril runs on when no sound server answers. Deterministic: ids are handed out in
// order from 100 and never reused.
class SimulatedAudioHardware : public AudioHardware {
    Q_OBJECT

public:
    // A device as a test describes it. Volume controls exist per element (0 = main, 1 and 2 the
    // first two channels); an absent entry means the element has no control.
    struct DeviceSpec {
        QString uid;
        QString name;
        std::uint32_t transportType = kAudioDeviceTransportTypeBuiltIn;
        std::vector<std::uint32_t> outputChannels{2}; // per buffer; empty: no output side
        std::vector<std::uint32_t> inputChannels{};   // per buffer; empty: no input side
        std::map<AudioObjectPropertyElement, float> volume{{0, 0.5f}};
        std::set<AudioObjectPropertyElement> readOnlyVolumeElements{};
        std::optional<bool> mute = false; // absent: no mute control
        bool muteSettable = true;
        bool hasUID = true;
        bool hasName = true;
        bool hasTransportType = true;
    };

    struct ProcessSpec {
        std::int32_t pid = 0;
        QString bundleID;
        bool isRunningOutput = false;
    };

    // One call of an IO procedure driven by the test: what was handed in, what came back.
    struct IOCycleResult {
        OSStatus status = kAudioHardwareNoError;
        std::vector<float> output; // interleaved, outputChannels x frames
    };

    explicit SimulatedAudioHardware(QObject* parent = nullptr);
    ~SimulatedAudioHardware() override;

    // Two displays' speakers, built-in speakers, headphones, an AirPlay speaker, a USB microphone.
    static std::unique_ptr<SimulatedAudioHardware> withDemoDevices();

    QString backendName() const override { return QStringLiteral("simulated"); }

    // --- Scripting: each change fires the listeners that the real service would fire. ---
    AudioObjectID addDevice(const DeviceSpec& spec);
    bool removeDevice(AudioObjectID deviceID);
    std::optional<AudioObjectID> deviceWithUID(const QString& uid) const;
    void setDefaultOutputDevice(AudioObjectID deviceID); // behind the program's back
    void setDefaultInputDevice(AudioObjectID deviceID);
    void setDeviceVolume(AudioObjectID deviceID, AudioObjectPropertyElement element, float value);
    void setDeviceMute(AudioObjectID deviceID, bool muted);
    AudioObjectID addProcess(const ProcessSpec& spec);
    bool removeProcess(AudioObjectID processID);
    void setProcessRunningOutput(AudioObjectID processID, bool running);

    // --- Inspection. ---
    std::vector<AudioObjectID> aggregateDevices() const;
    QVariantMap aggregateDescription(AudioObjectID deviceID) const; // empty if not an aggregate
    std::vector<AudioObjectID> processTaps() const;
    std::optional<CATapDescription> tapDescription(AudioObjectID tapID) const;
    int listenerCount() const;
    int setPropertyCallCount(AudioObjectPropertySelector selector) const; // successful sets
    int createAggregateCallCount() const;
    int destroyAggregateCallCount() const;
    bool isDeviceRunning(AudioObjectID deviceID) const;
    int ioProcCount(AudioObjectID deviceID) const; // created and not destroyed, started or not

    // --- Real-time driving: runs every started IO procedure of the device once with the given
    // interleaved input, and returns what the procedure wrote for `frames` frames. ---
    IOCycleResult runIOCycle(AudioObjectID deviceID, const std::vector<float>& input,
                             std::uint32_t frames);

    // --- Faults. A fault stays until cleared. ---
    void failNextAggregateCreation(int count = 1, OSStatus status = kAudioHardwareUnspecifiedError);
    void failNextTapCreation(int count = 1, OSStatus status = kAudioHardwareIllegalOperationError);
    void failReads(AudioObjectID objectID, AudioObjectPropertySelector selector,
                   OSStatus status = kAudioHardwareUnspecifiedError);
    void failWrites(AudioObjectID objectID, AudioObjectPropertySelector selector,
                    OSStatus status = kAudioHardwareUnspecifiedError);
    void clearFaults();

    // --- AudioHardware ---
    bool AudioObjectHasProperty(AudioObjectID objectID,
                                const AudioObjectPropertyAddress& address) const override;
    OSStatus AudioObjectIsPropertySettable(AudioObjectID objectID,
                                           const AudioObjectPropertyAddress& address,
                                           bool& outIsSettable) const override;
    OSStatus AudioObjectGetPropertyData(AudioObjectID objectID,
                                        const AudioObjectPropertyAddress& address,
                                        AudioPropertyValue& outData) const override;
    OSStatus AudioObjectSetPropertyData(AudioObjectID objectID,
                                        const AudioObjectPropertyAddress& address,
                                        const AudioPropertyValue& data) override;
    OSStatus
    AudioObjectAddPropertyListenerBlock(AudioObjectID objectID,
                                        const AudioObjectPropertyAddress& address,
                                        AudioObjectPropertyListenerBlock listener,
                                        AudioObjectPropertyListenerToken& outToken) override;
    OSStatus
    AudioObjectRemovePropertyListenerBlock(AudioObjectPropertyListenerToken token) override;
    OSStatus AudioHardwareCreateAggregateDevice(const QVariantMap& description,
                                                AudioObjectID& outDeviceID) override;
    OSStatus AudioHardwareDestroyAggregateDevice(AudioObjectID deviceID) override;
    OSStatus AudioHardwareCreateProcessTap(const CATapDescription& description,
                                           AudioObjectID& outTapID) override;
    OSStatus AudioHardwareDestroyProcessTap(AudioObjectID tapID) override;
    OSStatus AudioDeviceCreateIOProcIDWithBlock(AudioDeviceIOProcID& outProcID,
                                                AudioObjectID deviceID,
                                                AudioDeviceIOBlock block) override;
    OSStatus AudioDeviceDestroyIOProcID(AudioObjectID deviceID,
                                        AudioDeviceIOProcID procID) override;
    OSStatus AudioDeviceStart(AudioObjectID deviceID, AudioDeviceIOProcID procID) override;
    OSStatus AudioDeviceStop(AudioObjectID deviceID, AudioDeviceIOProcID procID) override;

private:
    // Queues one delivery per matching listener (same object, same selector) to the main thread.
    void notify(AudioObjectID objectID, AudioObjectPropertySelector selector,
                AudioObjectPropertyScope scope = kAudioObjectPropertyScopeGlobal,
                AudioObjectPropertyElement element = kAudioObjectPropertyElementMain);
    void forgetDevice(AudioObjectID deviceID);
    OSStatus setIOProcStarted(AudioObjectID deviceID, AudioDeviceIOProcID procID, bool started);
    bool isObject(AudioObjectID objectID) const;
    std::optional<AudioPropertyValue>
    propertyValue(AudioObjectID objectID, const AudioObjectPropertyAddress& address) const;

    struct State;
    std::unique_ptr<State> d;
};
