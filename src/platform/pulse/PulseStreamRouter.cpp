#include "platform/pulse/PulseStreamRouter.h"

#include "platform/AudioHardware.h"
#include "platform/pulse/PulseConnection.h"
#include "platform/pulse/PulseStreamHomes.h"

#include <pulse/volume.h>

#include <algorithm>
#include <tuple>

Q_LOGGING_CATEGORY(lcPulseStreamRouter, "com.kestrivane.ondril.PulseStreamRouter")

namespace {

// How long after a move the stream's sink is looked at again, and how often at most.
constexpr int kPlacementCheckMs = 400;
constexpr int kPlacementChecks = 6;
// How long stopping waits for the streams to leave the combined sink before it goes.
constexpr int kSettleMs = 500;

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
    , m_homes(homes) {
    m_placementCheck.setSingleShot(true);
    m_placementCheck.setInterval(kPlacementCheckMs);
    QObject::connect(&m_placementCheck, &QTimer::timeout, &m_placementCheck,
                     [this] { checkPlacement(); });
}

PulseStreamRouter::~PulseStreamRouter() {
    stop();
}

bool PulseStreamRouter::start(const QString& bundleID, const std::vector<std::int32_t>& pids,
                              const QStringList& destinationUIDs, float gain) {
    if (destinationUIDs.isEmpty())
        return false;
    m_pids = pids;
    m_firstDestination = destinationUIDs.first();
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
            [this](const auto&) { takeNewStreams(Unplaced::Wait); },
            token) == kAudioHardwareNoError)
        m_listener = token;
    takeNewStreams(Unplaced::Wait);
    return true;
}

// A process that went away took its streams with it; what stays taken is put back on stopping.
void PulseStreamRouter::setProcesses(const std::vector<std::int32_t>& pids) {
    m_pids = pids;
    takeNewStreams(Unplaced::Wait);
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

void PulseStreamRouter::takeNewStreams(Unplaced unplaced) {
    struct Taken {
        std::uint32_t index;
        std::uint32_t channels;
        QString sink;
    };
    const auto [found, waiting] = m_connection.readMirror([&](const PulseMirror& mirror) {
        std::vector<Taken> taken;
        bool waiting = false;
        for (const auto& [index, stream] : mirror.streams()) {
            if (m_originalSinks.count(index) ||
                std::find(m_pids.begin(), m_pids.end(), stream.pid) == m_pids.end())
                continue;
            // PipeWire reports no sink while it is still placing a stream: the next event, or the
            // placement check, has it.
            if (stream.sink == PulseRecords::kInvalidIndex && unplaced == Unplaced::Wait) {
                waiting = true;
                continue;
            }
            // A stream that starts on the target got there by the server's memory of an earlier
            // move of Ondril's; without Ondril it would play to the default, as would one that
            // was never placed.
            const QString sink = sinkNameOf(mirror, stream.sink);
            taken.push_back(
                {index, stream.channels,
                 sink.isEmpty() || sink == m_target ? mirror.server().defaultSink : sink});
        }
        return std::make_pair(taken, waiting);
    });
    for (const Taken& stream : found) {
        m_homes.take(stream.index, stream.sink, this);
        m_originalSinks[stream.index] = m_homes.home(stream.index);
        // The gain first, so that the stream is never heard at its old volume on the target.
        writeGain(stream.index, stream.channels);
        m_connection.moveSinkInput(stream.index, m_target);
    }
    if (!found.empty() || waiting) {
        m_placementChecksLeft = kPlacementChecks;
        // Not restarted: stream events come more often than the check's delay.
        if (!m_placementCheck.isActive())
            m_placementCheck.start();
    }
    refreshMeters();
}

// PipeWire 0.3 (WirePlumber 0.4) does not always carry out a move into a sink it is still setting
// up, such as a combined sink just made or made again: the stream stays where it was, or is left
// with no sink at all, corked, and the app is silent; no later event says so. A moment after each
// move the streams are looked at again, and each that is not on the target is moved once more.
void PulseStreamRouter::checkPlacement() {
    takeNewStreams(Unplaced::Take);
    const auto misplaced = m_connection.readMirror([this](const PulseMirror& mirror) {
        std::vector<std::uint32_t> found;
        const auto* target = mirror.sink(m_target);
        if (!target)
            return found;
        for (const auto& [index, stream] : mirror.streams())
            if (m_originalSinks.count(index) && m_homes.holds(index, this) &&
                stream.sink != target->index)
                found.push_back(index);
        return found;
    });
    // A second move to the target changes nothing the session manager acts on: the stream is
    // first moved to the first destination, where it is heard meanwhile, then to the target.
    for (std::uint32_t index : misplaced) {
        if (m_target != m_firstDestination)
            m_connection.moveSinkInput(index, m_firstDestination);
        m_connection.moveSinkInput(index, m_target);
    }
    if (!misplaced.empty() && --m_placementChecksLeft > 0 && !m_placementCheck.isActive())
        m_placementCheck.start();
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
    m_placementCheck.stop();
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
        // WirePlumber carries out the moves in its own time, and a stream still on the combined
        // sink when it goes is left with no sink at all: wait a little for them to leave.
        const std::uint32_t combined = combinedIndex; // clang 14 cannot capture a binding
        m_connection.settleMirror(
            [combined](const PulseMirror& mirror) {
                return std::none_of(
                    mirror.streams().begin(), mirror.streams().end(),
                    [combined](const auto& entry) { return entry.second.sink == combined; });
            },
            kSettleMs);
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
