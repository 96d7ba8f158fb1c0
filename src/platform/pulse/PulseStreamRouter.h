#pragma once

#include "platform/AppStreamRouter.h"
#include "platform/AudioHardwareTypes.h"
#include "platform/pulse/PulsePeakStream.h"

#include <QLoggingCategory>
#include <QTimer>

#include <map>
#include <optional>

Q_DECLARE_LOGGING_CATEGORY(lcPulseStreamRouter)

class AudioHardware;
class PulseConnection;
class PulseStreamHomes;

// One application's sink-inputs on a PulseAudio or PipeWire server: stream volume and mute for
// the gain, a move to the destination, or to a private module-combine-sink named
// "com.kestrivane.ondril.group.app." + bundle identifier when there are several. Each stream's
// sink is noted when it is taken, so that stopping can put it back; moving back to the default
// also drops the route stream-restore remembered. Levels come from a peak-detecting monitor
// stream of each sink-input, only while someone reads them.
class PulseStreamRouter : public AppStreamRouter {
public:
    static inline const QString sinkPrefix = QStringLiteral("com.kestrivane.ondril.group.app.");

    // `hardware` makes the combined sink and delivers the server's stream events; `homes` keeps
    // where each stream played before Ondril, across a hand-over to a tap and back.
    PulseStreamRouter(PulseConnection& connection, AudioHardware& hardware,
                      PulseStreamHomes& homes);
    ~PulseStreamRouter() override;
    PulseStreamRouter(const PulseStreamRouter&) = delete;
    PulseStreamRouter& operator=(const PulseStreamRouter&) = delete;

    bool start(const QString& bundleID, const std::vector<std::int32_t>& pids,
               const QStringList& destinationUIDs, float gain) override;
    void setProcesses(const std::vector<std::int32_t>& pids) override;
    void setGain(float gain) override;
    void meter(std::shared_ptr<std::atomic<float>> peak) override;
    void stop() override;

    // Unloads the combined sinks a run that did not stop cleanly left behind.
    static void clearLeftovers(PulseConnection& connection);

private:
    // Whether a stream of the app that the server shows on no sink yet is taken now or waited for.
    enum class Unplaced { Wait, Take };
    void takeNewStreams(Unplaced unplaced);
    // Moves again each taken stream that is not on the target a moment after its move.
    void checkPlacement();
    void writeGain(std::uint32_t index, std::uint32_t channels);
    // A meter for each taken stream without a live one; a move ends a stream's meter.
    void refreshMeters();

    PulseConnection& m_connection;
    AudioHardware& m_hardware;
    PulseStreamHomes& m_homes;
    std::vector<std::int32_t> m_pids;
    QString m_target; // the sink the streams play to
    QString m_firstDestination;
    std::optional<AudioObjectID> m_combined;
    float m_gain = 1.0f;
    bool m_toldNoBoost = false;
    std::map<std::uint32_t, QString> m_originalSinks; // by sink-input index
    QTimer m_placementCheck;
    int m_placementChecksLeft = 0;
    std::optional<AudioObjectPropertyListenerToken> m_listener;
    std::shared_ptr<std::atomic<float>> m_peak;                         // set while metered
    std::map<std::uint32_t, std::unique_ptr<PulsePeakStream>> m_meters; // by sink-input index
};
