#pragma once

#include "appaudio/GainBox.h"
#include "platform/AudioHardware.h"

#include <QLoggingCategory>
#include <QString>
#include <QStringList>

#include <memory>
#include <optional>
#include <vector>

Q_DECLARE_LOGGING_CATEGORY(lcRouteSession)

// Takes one application's audio away from where it was going and plays it, with a gain, to a list
// of outputs: a process tap that captures the application and mutes its normal output, a private
// aggregate with the tap as input and the destinations as output, and an IO procedure that copies
// input to output on the real-time thread. On a service that also offers an AppStreamRouter (a
// sound server whose own stream controls do the job), the router plays the application's
// streams while no limiter is needed, and no audio passes through Ondril; a boost runs through
// the tap, and a gain that crosses unity while the session runs switches between the two. No
// policy: AppAudioManager decides when one exists.
class RouteSession {
public:
    static inline const QString uidPrefix = QStringLiteral("com.kestrivane.ondril.group.app.");

    RouteSession(AudioHardware& hardware, const QString& bundleID,
                 std::vector<AudioObjectID> processObjects, const QStringList& destinationUIDs);
    ~RouteSession();
    RouteSession(const RouteSession&) = delete;
    RouteSession& operator=(const RouteSession&) = delete;

    const QString& bundleID() const { return m_bundleID; }
    const std::vector<AudioObjectID>& processObjects() const { return m_processObjects; }
    const QStringList& destinationUIDs() const { return m_destinationUIDs; }
    GainBox& gain() const { return *m_gain; }
    // `value` 0 is silence; `boost` puts the gain through the limiter.
    void setGain(float value, bool boost);
    // Whether anyone reads `gain().peak`: a session on the server's own controls measures its
    // streams only then. The procedure of a tapped session raises it anyway.
    void setMetered(bool metered);
    AudioObjectID tapID() const { return m_tapID; }
    AudioObjectID aggID() const { return m_aggID; }

    bool start();
    // Starts in place of `previous`, the session of the same application, when both play on the
    // server's controls to the same outputs and only the processes changed: its router carries
    // on with the new processes. False when it cannot; the caller then stops `previous` and
    // calls start().
    bool continueFrom(RouteSession& previous);
    void stop(); // safe in any state, any number of times

    // The dictionary handed to the audio service; `destinations` already lack Ondril's own
    // aggregates.
    static QVariantMap aggregateDescription(const QString& bundleID,
                                            const QStringList& destinations, const QUuid& tapUUID);

    // The real-time procedure: output channel k takes input channel k counted across buffers,
    // times the gain, through tanhf when boosting; channels and frames with no input are silent.
    // Raises `gain.peak` at most once. Allocates, locks and waits for nothing.
    static void process(GainBox& gain, const AudioBufferList& input, AudioBufferList& output);

private:
    std::vector<std::int32_t> pids() const; // of the process objects
    bool startTapped();
    void stopTapped();
    bool startRouted();
    void applyMeter();
    void switchToTapped();
    void switchToRouted();

    AudioHardware& m_hardware;
    const QString m_bundleID;
    const std::vector<AudioObjectID> m_processObjects;
    const QStringList m_destinationUIDs;
    AudioObjectID m_tapID = kAudioObjectUnknown;
    AudioObjectID m_aggID = kAudioObjectUnknown;
    std::optional<AudioDeviceIOProcID> m_procID;
    QStringList m_destinations; // without Ondril's own aggregates, once started
    bool m_running = false;
    std::unique_ptr<AppStreamRouter> m_router; // when the service offers one
    bool m_routed = false;                     // the router plays the streams
    bool m_metered = false;                    // applied to the router whenever it plays
    const std::shared_ptr<GainBox> m_gain = std::make_shared<GainBox>();
};
