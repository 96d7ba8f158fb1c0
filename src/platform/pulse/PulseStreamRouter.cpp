#include "platform/pulse/PulseStreamRouter.h"

#include "platform/AudioHardware.h"
#include "platform/pulse/PulseConnection.h"
#include "platform/pulse/PulseStreamHomes.h"

#include <pulse/volume.h>

#include <algorithm>
#include <tuple>

Q_LOGGING_CATEGORY(lcPulseStreamRouter, "com.kestrivane.ondril.PulseStreamRouter")

namespace {

QString sinkNameOf(const PulseMirror& mirror, std::uint32_t index) {
    for (const auto* sink : mirror.sinksInServerOrder())
        if (sink->index == index)
            return sink->name;
    return {};
}

} // namespace

PulseStreamRouter::PulseStreamRouter(PulseConnection& connection, AudioHardware& hardware,
                                     PulseStreamHomes& homes)
    : m_connection(connection)
    , m_hardware(hardware)
    , m_homes(homes) {}

PulseStreamRouter::~PulseStreamRouter() {
    stop();
}

bool PulseStreamRouter::start(const QString& bundleID, const std::vector<std::int32_t>& pids,
                              const QStringList& destinationUIDs, float gain) {
    if (destinationUIDs.isEmpty())
        return false;
    m_pids = pids;
    setGain(gain);
    if (destinationUIDs.size() == 1) {
        m_target = destinationUIDs.first();
    } else {
        // The server's aggregate, under a name of its own and never listed as an output.
        QVariantList subdevices;
        for (const QString& uid : destinationUIDs)
            subdevices.append(QVariantMap{{kAudioSubDeviceUIDKey, uid}});
        const QString name = sinkPrefix + bundleID;
        AudioObjectID combined = kAudioObjectUnknown;
        if (m_hardware.AudioHardwareCreateAggregateDevice(
                {{kAudioAggregateDeviceUIDKey, name},
                 {kAudioAggregateDeviceNameKey, QStringLiteral("Ondril ") + bundleID},
                 {kAudioAggregateDeviceIsPrivateKey, true},
                 {kAudioAggregateDeviceMainSubDeviceKey, destinationUIDs.first()},
                 {kAudioAggregateDeviceSubDeviceListKey, subdevices}},
                combined) != kAudioHardwareNoError) {
            qCWarning(lcPulseStreamRouter, "no combined sink for %s", qUtf8Printable(bundleID));
            return false;
        }
        m_combined = combined;
        m_target = name;
    }
    AudioObjectPropertyListenerToken token = 0;
    if (m_hardware.AudioObjectAddPropertyListenerBlock(
            kAudioObjectSystemObject,
            {kAudioHardwarePropertyProcessObjectList, kAudioObjectPropertyScopeGlobal,
             kAudioObjectPropertyElementMain},
            [this](const auto&) { takeNewStreams(); }, token) == kAudioHardwareNoError)
        m_listener = token;
    takeNewStreams();
    return true;
}

void PulseStreamRouter::setGain(float gain) {
    if (gain > 1.0f && !m_toldNoBoost) {
        qCInfo(lcPulseStreamRouter, "a volume above 1.0 plays at 1.0 on the sound server");
        m_toldNoBoost = true;
    }
    m_gain = std::clamp(gain, 0.0f, 1.0f);
    const auto streams =
        m_connection.readMirror([](const PulseMirror& mirror) { return mirror.streams(); });
    for (const auto& [index, sink] : m_originalSinks)
        if (const auto stream = streams.find(index); stream != streams.end())
            writeGain(index, stream->second.channels);
}

void PulseStreamRouter::writeGain(std::uint32_t index, std::uint32_t channels) {
    const pa_volume_t volume = pa_sw_volume_from_linear(m_gain);
    m_connection.setSinkInputVolume(index, std::vector<std::uint32_t>(channels, volume));
    m_connection.setSinkInputMute(index, m_gain == 0.0f);
}

void PulseStreamRouter::takeNewStreams() {
    struct Taken {
        std::uint32_t index;
        std::uint32_t channels;
        QString sink;
    };
    const auto found = m_connection.readMirror([this](const PulseMirror& mirror) {
        std::vector<Taken> taken;
        for (const auto& [index, stream] : mirror.streams()) {
            // PipeWire reports no sink while it is still placing a stream: the next event has it.
            if (stream.sink == PulseRecords::kInvalidIndex || m_originalSinks.count(index) ||
                std::find(m_pids.begin(), m_pids.end(), stream.pid) == m_pids.end())
                continue;
            // A stream that starts on the target got there by the server's memory of an earlier
            // move of Ondril's; without Ondril it would play to the default.
            const QString sink = sinkNameOf(mirror, stream.sink);
            taken.push_back(
                {index, stream.channels, sink == m_target ? mirror.server().defaultSink : sink});
        }
        return taken;
    });
    for (const Taken& stream : found) {
        m_homes.take(stream.index, stream.sink, this);
        m_originalSinks[stream.index] = m_homes.home(stream.index);
        // The gain first, so that the stream is never heard at its old volume on the target.
        writeGain(stream.index, stream.channels);
        m_connection.moveSinkInput(stream.index, m_target);
    }
    refreshMeters();
}

void PulseStreamRouter::meter(std::shared_ptr<std::atomic<float>> peak) {
    m_peak = std::move(peak);
    m_meters.clear();
    refreshMeters();
}

void PulseStreamRouter::refreshMeters() {
    if (!m_peak)
        return;
    const auto streams =
        m_connection.readMirror([](const PulseMirror& mirror) { return mirror.streams(); });
    std::erase_if(m_meters, [&](const auto& meter) { return !streams.count(meter.first); });
    for (const auto& [index, sink] : m_originalSinks) {
        if (!streams.count(index))
            continue;
        auto& meter = m_meters[index];
        if (!meter || !meter->isAlive())
            // No source named: the server takes the monitor of the sink the stream plays to.
            meter = std::make_unique<PulsePeakStream>(m_connection, QString(), index, m_peak);
    }
}

void PulseStreamRouter::stop() {
    m_meters.clear();
    m_peak.reset();
    if (m_listener) {
        m_hardware.AudioObjectRemovePropertyListenerBlock(*m_listener);
        m_listener.reset();
    }
    const auto [streams, defaultSink, combinedIndex] =
        m_connection.readMirror([this](const PulseMirror& mirror) {
            const auto* combined = m_combined ? mirror.sink(m_target) : nullptr;
            return std::make_tuple(mirror.streams(), mirror.server().defaultSink,
                                   combined ? combined->index : PulseRecords::kInvalidIndex);
        });
    QStringList backToDefault; // restore entries of the streams that now follow the default
    for (const auto& entry : m_originalSinks) {
        const std::uint32_t index = entry.first;
        const QString& original = entry.second; // named: clang 14 cannot capture a binding
        if (!m_homes.holds(index, this))
            continue; // handed over to a tap, which lets it go itself
        m_homes.forget(index);
        const auto stream = streams.find(index);
        if (stream == streams.end())
            continue;
        // A sink that went away in the meantime leaves the stream to the default.
        const bool originalPresent = m_connection.readMirror(
            [&original](const PulseMirror& mirror) { return mirror.sink(original) != nullptr; });
        const QString sink = originalPresent ? original : defaultSink;
        if (!sink.isEmpty())
            m_connection.moveSinkInput(index, sink);
        if (sink == defaultSink && !stream->second.restoreID.isEmpty())
            backToDefault.append(stream->second.restoreID);
        m_connection.setSinkInputVolume(
            index, std::vector<std::uint32_t>(stream->second.channels, PA_VOLUME_NORM));
        m_connection.setSinkInputMute(index, false);
    }
    if (combinedIndex != PulseRecords::kInvalidIndex) {
        // A stream the server's memory put on the combined sink but that the session did not take
        // (an app's process that started since) would keep that sink as its preferred one after
        // the unload; PulseAudio then moves it into the next sink of the same name while that is
        // still being set up (the session rebuilt for the new process), and PulseAudio 16's
        // module-combine-sink aborts the daemon (a second rate-adjust timer). Such a stream goes
        // to the default first, which drops that preference and the remembered route.
        for (const auto& [index, stream] : streams) {
            if (m_originalSinks.count(index) || stream.sink != combinedIndex)
                continue;
            m_connection.moveSinkInput(index, defaultSink);
            if (!stream.restoreID.isEmpty())
                backToDefault.append(stream.restoreID);
        }
    }
    m_connection.unpinRestoredSinkInputs(defaultSink, backToDefault);
    m_originalSinks.clear();
    if (m_combined) {
        m_hardware.AudioHardwareDestroyAggregateDevice(*m_combined);
        m_combined.reset();
    }
}

void PulseStreamRouter::clearLeftovers(PulseConnection& connection) {
    const auto leftovers = connection.readMirror([](const PulseMirror& mirror) {
        std::vector<std::uint32_t> modules;
        for (const auto* sink : mirror.sinksInServerOrder())
            if (sink->name.startsWith(sinkPrefix) &&
                sink->ownerModule != PulseRecords::kInvalidIndex)
                modules.push_back(sink->ownerModule);
        return modules;
    });
    for (std::uint32_t module : leftovers)
        connection.unloadModule(module);
}
