#pragma once

#include "platform/AudioHardware.h"

#include <QObject>

#include <atomic>
#include <memory>
#include <optional>

class AudioDeviceManager;
class QTimer;

// Measures what the whole system plays, as one smoothed level in 0...1 for the panel's level
// strip: a tap of every process that mutes nothing, a private aggregate that reads it and a
// procedure that only looks at the input; on a service that offers an OutputPeakMonitor instead
// (a sound server's monitor of the default output), that raises the peak. Runs only while the
// panel is open.
class LevelMeter : public QObject {
    Q_OBJECT
    Q_PROPERTY(double outputLevel READ outputLevel NOTIFY outputLevelChanged)

public:
    // The value shared with the audio thread.
    struct Box {
        std::atomic<float> peak{0.0f};
    };

    static inline const QString aggregateUID = QStringLiteral("com.kestrivane.ondril.group.meter");

    explicit LevelMeter(AudioDeviceManager& audio, QObject* parent = nullptr);
    ~LevelMeter() override;
    static LevelMeter& shared();

    double outputLevel() const { return m_outputLevel; }
    bool isRunning() const { return m_running; }
    Box& box() const { return *m_box; }
    AudioObjectID aggID() const { return m_aggID; }

    Q_INVOKABLE void start();
    Q_INVOKABLE void stop();
    void tick();

    // Looks at every fourth float of each usable input buffer and raises the peak at most once.
    static void process(Box& box, const AudioBufferList& input);

signals:
    void outputLevelChanged();

private:
    bool setup();
    void teardown();
    std::optional<QString> chooseMaster() const;
    void setOutputLevel(double level);

    AudioDeviceManager& m_audio;
    const std::shared_ptr<Box> m_box = std::make_shared<Box>();
    AudioObjectID m_tapID = kAudioObjectUnknown;
    AudioObjectID m_aggID = kAudioObjectUnknown;
    std::optional<AudioDeviceIOProcID> m_procID;
    std::unique_ptr<OutputPeakMonitor> m_monitor;
    QTimer* m_timer = nullptr;
    bool m_running = false;
    double m_outputLevel = 0.0;
};
