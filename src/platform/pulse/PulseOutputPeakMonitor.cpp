#include "platform/pulse/PulseOutputPeakMonitor.h"

#include "platform/AudioHardware.h"
#include "platform/pulse/PulseConnection.h"

PulseOutputPeakMonitor::PulseOutputPeakMonitor(PulseConnection& connection, AudioHardware& hardware)
    : m_connection(connection)
    , m_hardware(hardware) {}

PulseOutputPeakMonitor::~PulseOutputPeakMonitor() {
    stop();
}

QString PulseOutputPeakMonitor::defaultMonitor() const {
    return m_connection.readMirror([](const PulseMirror& mirror) {
        const auto* sink = mirror.sink(mirror.server().defaultSink);
        return sink ? sink->monitorSource : QString();
    });
}

bool PulseOutputPeakMonitor::follow() {
    const QString source = defaultMonitor();
    if (source == m_source && m_stream && m_stream->isAlive())
        return true;
    m_stream.reset();
    m_source = source;
    if (source.isEmpty())
        return false;
    m_stream = std::make_unique<PulsePeakStream>(m_connection, source, std::nullopt, m_peak);
    return m_stream->isAlive();
}

bool PulseOutputPeakMonitor::start(std::shared_ptr<std::atomic<float>> peak) {
    stop();
    m_peak = std::move(peak);
    for (AudioObjectPropertySelector selector :
         {kAudioHardwarePropertyDefaultOutputDevice, kAudioHardwarePropertyDevices}) {
        AudioObjectPropertyListenerToken token = 0;
        if (m_hardware.AudioObjectAddPropertyListenerBlock(
                kAudioObjectSystemObject,
                {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain},
                [this](const auto&) { follow(); }, token) == kAudioHardwareNoError)
            m_listeners.push_back(token);
    }
    return follow();
}

void PulseOutputPeakMonitor::stop() {
    for (AudioObjectPropertyListenerToken token : m_listeners)
        m_hardware.AudioObjectRemovePropertyListenerBlock(token);
    m_listeners.clear();
    m_stream.reset();
    m_source.clear();
}
