#include "appaudio/LevelMeter.h"

#include "appaudio/AppAudioManager.h"
#include "appaudio/LevelBallistics.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"

#include <QTimer>

#include <cmath>

LevelMeter::LevelMeter(AudioDeviceManager& audio, QObject* parent)
    : QObject(parent)
    , m_audio(audio) {}

LevelMeter::~LevelMeter() {
    stop();
}

LevelMeter& LevelMeter::shared() {
    static LevelMeter* meter = new LevelMeter(AudioDeviceManager::shared());
    return *meter;
}

void LevelMeter::setOutputLevel(double level) {
    m_outputLevel = level;
    emit outputLevelChanged();
}

void LevelMeter::start() {
    if (m_running)
        return;
    if (!setup()) {
        teardown();
        return;
    }
    m_running = true;
    m_timer = new QTimer(this);
    m_timer->setTimerType(Qt::PreciseTimer);
    m_timer->setInterval(AppAudioManager::meterIntervalMs);
    connect(m_timer, &QTimer::timeout, this, &LevelMeter::tick);
    m_timer->start();
}

void LevelMeter::stop() {
    if (!m_running)
        return;
    m_running = false;
    delete m_timer;
    m_timer = nullptr;
    teardown();
    setOutputLevel(0.0);
}

std::optional<QString> LevelMeter::chooseMaster() const {
    const auto defaultUID = m_audio.readUID(m_audio.readDefaultOutputID());
    if (defaultUID && !defaultUID->startsWith(GroupManager::groupUIDPrefix))
        return defaultUID;
    for (const AudioDevice& device : m_audio.outputDevices())
        if (!device.uid.startsWith(GroupManager::groupUIDPrefix))
            return device.uid;
    return std::nullopt;
}

bool LevelMeter::setup() {
    AudioHardware& hardware = m_audio.hardware();
    if ((m_monitor = hardware.makeOutputPeakMonitor()))
        return m_monitor->start(std::shared_ptr<std::atomic<float>>(m_box, &m_box->peak));
    CATapDescription tap;
    tap.isExclusive = true; // every process, none excluded
    tap.name = QStringLiteral("Ondril level meter");
    tap.isPrivate = true;
    tap.muteBehavior = CATapMuteBehavior::CATapUnmuted;
    tap.uuid = QUuid::createUuid();
    AudioObjectID tapID = kAudioObjectUnknown;
    if (hardware.AudioHardwareCreateProcessTap(tap, tapID) != kAudioHardwareNoError ||
        tapID == kAudioObjectUnknown)
        return false;
    m_tapID = tapID;

    const auto master = chooseMaster();
    if (!master)
        return false;
    const QVariantMap description{
        {kAudioAggregateDeviceNameKey, QStringLiteral("Ondril Level Meter")},
        {kAudioAggregateDeviceUIDKey, aggregateUID},
        {kAudioAggregateDeviceIsPrivateKey, true},
        {kAudioAggregateDeviceMainSubDeviceKey, *master},
        {kAudioAggregateDeviceSubDeviceListKey,
         QVariantList{QVariantMap{{kAudioSubDeviceUIDKey, *master}}}},
        {kAudioAggregateDeviceTapListKey,
         QVariantList{
             QVariantMap{{kAudioSubTapDriftCompensationKey, true},
                         {kAudioSubTapUIDKey, tap.uuid.toString(QUuid::WithoutBraces).toUpper()}}}},
        {kAudioAggregateDeviceTapAutoStartKey, true},
    };
    AudioObjectID aggID = kAudioObjectUnknown;
    if (hardware.AudioHardwareCreateAggregateDevice(description, aggID) != kAudioHardwareNoError ||
        aggID == kAudioObjectUnknown)
        return false;
    m_aggID = aggID;

    AudioDeviceIOProcID procID = 0;
    if (hardware.AudioDeviceCreateIOProcIDWithBlock(
            procID, m_aggID,
            [box = m_box](const AudioTimeStamp&, const AudioBufferList& input, AudioBufferList&) {
                process(*box, input);
            }) != kAudioHardwareNoError ||
        procID == 0)
        return false;
    m_procID = procID;
    return hardware.AudioDeviceStart(m_aggID, *m_procID) == kAudioHardwareNoError;
}

void LevelMeter::teardown() {
    AudioHardware& hardware = m_audio.hardware();
    if (m_monitor) {
        m_monitor->stop();
        m_monitor.reset();
    }
    if (m_aggID != kAudioObjectUnknown && m_procID) {
        hardware.AudioDeviceStop(m_aggID, *m_procID);
        hardware.AudioDeviceDestroyIOProcID(m_aggID, *m_procID);
    }
    m_procID.reset();
    if (m_aggID != kAudioObjectUnknown) {
        hardware.AudioHardwareDestroyAggregateDevice(m_aggID);
        m_aggID = kAudioObjectUnknown;
    }
    if (m_tapID != kAudioObjectUnknown) {
        hardware.AudioHardwareDestroyProcessTap(m_tapID);
        m_tapID = kAudioObjectUnknown;
    }
    m_box->peak.store(0.0f, std::memory_order_relaxed);
}

void LevelMeter::tick() {
    const float peak = m_box->peak.exchange(0.0f, std::memory_order_relaxed);
    // Published on every tick, changed or not.
    setOutputLevel(LevelBallistics::next(m_outputLevel, LevelBallistics::target(peak)));
}

void LevelMeter::process(Box& box, const AudioBufferList& input) {
    float blockPeak = 0.0f;
    for (std::uint32_t b = 0; b < input.mNumberBuffers; ++b) {
        const AudioBuffer& buffer = input.mBuffers[b];
        if (!buffer.mData || buffer.mNumberChannels == 0 || buffer.mDataByteSize < 4)
            continue;
        // A quarter of the data is enough to see a level, whatever the channel layout.
        const float* samples = static_cast<const float*>(buffer.mData);
        const std::uint32_t count = buffer.mDataByteSize / 4;
        for (std::uint32_t i = 0; i < count; i += 4)
            blockPeak = std::max(blockPeak, std::fabs(samples[i]));
    }
    if (box.peak.load(std::memory_order_relaxed) < blockPeak)
        box.peak.store(blockPeak, std::memory_order_relaxed);
}
