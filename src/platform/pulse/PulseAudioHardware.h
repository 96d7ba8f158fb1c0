#pragma once

#include "platform/AudioHardware.h"
#include "platform/SoundLibrary.h"
#include "platform/linux/ProcRunningApplications.h"
#include "platform/pulse/PlaybackRateController.h"
#include "platform/pulse/PulseMirror.h"
#include "platform/pulse/PulseObjectIds.h"
#include "platform/pulse/PulseStreamHomes.h"

#include <QSet>

#include <map>
#include <memory>

class PulseConnection;
class PulseTap;
class PulseTapAggregate;
class PulseTapGuard;

// The audio service realised on a PulseAudio or PipeWire (pipewire-pulse) server through libpulse.
// Output devices are sinks, input devices are non-monitor sources, aggregates are
// module-combine-sink, processes are the clients that play sink-inputs. Reads answer from the
// mirror without a round trip; writes wait for the server (at most 2 s) and the mirror holds the
// new value when they return. Server events become listener calls on the main thread.
class PulseAudioHardware : public AudioHardware {
    Q_OBJECT

public:
    // Connects and waits for the first complete picture of the server. When no server answers
    // within `timeoutMs`: nullptr (Fail), or a service without devices that keeps trying and
    // shows the server once it is there (Wait).
    enum class Absent { Fail, Wait };
    static std::unique_ptr<PulseAudioHardware> connect(int timeoutMs = 1000,
                                                       Absent absent = Absent::Fail);
    ~PulseAudioHardware() override;

    QString backendName() const override;

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
    // A tap is a private null sink its processes' streams move into once an aggregate reads it;
    // an aggregate that names a tap is no combined sink but a PulseTapAggregate, whose IO block
    // runs on a connection of its own.
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

    // --- Per-app audio ---
    // Sessions with the server's own stream controls, for gains the server can play as they are.
    std::unique_ptr<AppStreamRouter> makeAppStreamRouter() override;
    // The default sink's monitor, for the system-wide level.
    std::unique_ptr<OutputPeakMonitor> makeOutputPeakMonitor() override;
    // The server's sample cache; it must not outlive this object.
    std::unique_ptr<SoundLibrary> makeSoundLibrary();
    // Set in the Ondril program itself (not in a tool or a test): from the first process tap on,
    // `program` runs beside it as the guard that clears its taps should it die (PulseTapGuard).
    void guardTapsWith(const QString& program) { m_guardProgram = program; }
    // What the playback streams of `pid` say of their application: the first stream with an
    // application.id, else the first with any identity; nullopt when the pid plays nothing.
    std::optional<ProcRunningApplications::StreamIdentity> streamIdentity(std::int32_t pid) const;
    // --- end per-app audio ---

private:
    explicit PulseAudioHardware(std::unique_ptr<PulseConnection> connection);

    struct Listener {
        AudioObjectID objectID = 0;
        AudioObjectPropertyAddress address;
        AudioObjectPropertyListenerBlock block;
    };

    bool isPipeWire() const;
    std::optional<QString> nameOf(AudioObjectID objectID, PulseObjectIds::Kind kind) const;
    OSStatus readDevice(const PulseRecords::Device& device, PulseObjectIds::Kind kind,
                        const AudioObjectPropertyAddress& address,
                        AudioPropertyValue& outData) const;
    OSStatus readProcess(std::int32_t pid, const AudioObjectPropertyAddress& address,
                         AudioPropertyValue& outData) const;
    OSStatus setDefaultOutput(AudioObjectID deviceID);
    OSStatus setDefaultInput(AudioObjectID deviceID);
    OSStatus setVolume(AudioObjectID deviceID, const AudioObjectPropertyAddress& address,
                       float scalar);
    OSStatus setMute(AudioObjectID deviceID, const AudioObjectPropertyAddress& address, bool mute);
    QString standInSink(const QString& leaving) const;
    void deliver(const PulseMirror::Notices& notices);
    // Unloads the combined sinks whose creation or removal timed out, once the server shows them.
    void removeAbandonedAggregates();
    OSStatus createTapAggregate(const QVariantMap& description, AudioObjectID& outDeviceID);

    std::unique_ptr<PulseConnection> m_connection;
    mutable PulseObjectIds m_ids; // handing out an id on first sight is not a change of state
    std::map<AudioObjectPropertyListenerToken, Listener> m_listeners;
    AudioObjectPropertyListenerToken m_nextToken = 1;
    QSet<QString> m_abandoned; // UIDs of combined sinks that must not outlive a stall
    PulseStreamHomes m_homes;  // shared by the stream routers and the taps
    QString m_guardProgram;
    std::unique_ptr<PulseTapGuard> m_tapGuard; // outlives the taps
    std::map<AudioObjectID, std::unique_ptr<PulseTap>> m_taps;
    // Per sink, what the aggregates' rate controllers learned; outlives them, they update it.
    std::map<QString, PlaybackRateController> m_learnedRates;
    std::map<AudioObjectID, std::unique_ptr<PulseTapAggregate>> m_tapAggregates;
};
