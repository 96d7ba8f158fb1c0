#include "platform/pulse/PulseTap.h"

#include "platform/AudioHardware.h"
#include "platform/pulse/PulseConnection.h"
#include "platform/pulse/PulseStreamHomes.h"
#include "platform/pulse/PulseTapGuard.h"

#include <pulse/volume.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <unistd.h>

namespace {

QString sinkNameOf(const PulseMirror& mirror, std::uint32_t index) {
    for (const auto* sink : mirror.sinksInServerOrder())
        if (sink->index == index)
            return sink->name;
    return {};
}

bool isRunning(std::int32_t pid) {
    return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM);
}

void playAtUnity(PulseConnection& connection, std::uint32_t index, std::uint32_t channels) {
    connection.setSinkInputVolume(index, std::vector<std::uint32_t>(channels, PA_VOLUME_NORM));
    connection.setSinkInputMute(index, false);
}

// A stream let go by a tap, and where it goes.
struct Return {
    std::uint32_t index;
    std::uint32_t channels;
    QString restoreID;
    QString sink;
};

// Back to `home` while that sink is there, else to the default.
Return returnOf(const PulseMirror& mirror, std::uint32_t index, const PulseRecords::Stream& stream,
                const QString& home) {
    return {index, stream.channels, stream.restoreID,
            mirror.sink(home) ? home : mirror.server().defaultSink};
}

// At unity, as without Ondril. The moves made stream-restore remember a sink: those sent to the
// default forget it again, so that they follow the default.
void carryOut(PulseConnection& connection, const std::vector<Return>& returns,
              const QString& defaultSink) {
    QStringList backToDefault;
    for (const Return& stream : returns) {
        if (!stream.sink.isEmpty())
            connection.moveSinkInput(stream.index, stream.sink);
        if (stream.sink == defaultSink && !stream.restoreID.isEmpty())
            backToDefault.append(stream.restoreID);
        playAtUnity(connection, stream.index, stream.channels);
    }
    connection.unpinRestoredSinkInputs(defaultSink, backToDefault);
}

} // namespace

PulseTap::PulseTap(PulseConnection& connection, AudioHardware& hardware, PulseStreamHomes& homes,
                   PulseTapGuard* guard, const QUuid& uuid, std::vector<std::int32_t> pids)
    : m_connection(connection)
    , m_hardware(hardware)
    , m_homes(homes)
    , m_guard(guard)
    , m_uuid(uuid)
    , m_sinkName(sinkPrefix + uuid.toString(QUuid::WithoutBraces))
    , m_pids(std::move(pids)) {}

PulseTap::~PulseTap() {
    release();
}

OSStatus PulseTap::create() {
    // One property only, so that the line needs no quoting on either server.
    const QString argument = QStringLiteral("sink_name=%1 format=float32le rate=48000 channels=2 "
                                            "sink_properties=%2=%3")
                                 .arg(m_sinkName, QLatin1String(PulseRecords::kOwnerPidProperty))
                                 .arg(::getpid());
    std::uint32_t module = PulseRecords::kInvalidIndex;
    OSStatus status = m_connection.loadModule(QStringLiteral("module-null-sink"), argument, module);
    if (status != kAudioHardwareNoError)
        return status;
    m_module = module;
    // PipeWire answers the load before the sink exists.
    return m_connection.waitForMirror(
        [this](const PulseMirror& mirror) { return mirror.sink(m_sinkName) != nullptr; });
}

void PulseTap::engage() {
    if (m_listener)
        return;
    AudioObjectPropertyListenerToken token = 0;
    if (m_hardware.AudioObjectAddPropertyListenerBlock(
            kAudioObjectSystemObject,
            {kAudioHardwarePropertyProcessObjectList, kAudioObjectPropertyScopeGlobal,
             kAudioObjectPropertyElementMain},
            [this](const auto&) { takeNewStreams(); }, token) == kAudioHardwareNoError)
        m_listener = token;
    takeNewStreams();
}

void PulseTap::takeNewStreams() {
    struct Found {
        std::uint32_t index;
        std::uint32_t channels;
        QString sink;
    };
    const auto found = m_connection.readMirror([this](const PulseMirror& mirror) {
        std::vector<Found> found;
        const auto* tapSink = mirror.sink(m_sinkName);
        if (!tapSink)
            return found;
        for (const auto& [index, stream] : mirror.streams()) {
            // A stream taken once and moved away since belongs to whoever moved it.
            if (stream.sink == PulseRecords::kInvalidIndex || stream.sink == tapSink->index ||
                m_taken.count(index) ||
                std::find(m_pids.begin(), m_pids.end(), stream.pid) == m_pids.end())
                continue;
            found.push_back({index, stream.channels, sinkNameOf(mirror, stream.sink)});
        }
        return found;
    });
    for (const Found& stream : found) {
        m_homes.take(stream.index, stream.sink, this);
        if (m_guard)
            m_guard->noteHome(stream.index, m_homes.home(stream.index));
        m_taken.insert(stream.index);
        m_connection.moveSinkInput(stream.index, m_sinkName);
        // The gain is applied on the way out of the tap.
        playAtUnity(m_connection, stream.index, stream.channels);
    }
}

void PulseTap::release() {
    if (m_listener) {
        m_hardware.AudioObjectRemovePropertyListenerBlock(*m_listener);
        m_listener.reset();
    }
    // Those handed over to a stream router are the router's to let go.
    std::vector<std::uint32_t> held;
    std::copy_if(m_taken.begin(), m_taken.end(), std::back_inserter(held),
                 [this](std::uint32_t index) { return m_homes.holds(index, this); });
    const auto [returns, defaultSink] = m_connection.readMirror([&](const PulseMirror& mirror) {
        std::vector<Return> returns;
        for (std::uint32_t index : held)
            if (const auto stream = mirror.streams().find(index); stream != mirror.streams().end())
                returns.push_back(returnOf(mirror, index, stream->second, m_homes.home(index)));
        return std::make_pair(returns, mirror.server().defaultSink);
    });
    carryOut(m_connection, returns, defaultSink);
    for (std::uint32_t index : held)
        m_homes.forget(index);
    m_taken.clear();
    if (m_module) {
        m_connection.unloadModule(*m_module);
        m_connection.waitForMirror(
            [this](const PulseMirror& mirror) { return !mirror.sink(m_sinkName); });
        m_module.reset();
    }
}

void PulseTap::clearLeftovers(PulseConnection& connection, std::int32_t goneOwner,
                              const Homes& homes) {
    struct Leftover {
        std::uint32_t module;
        std::vector<Return> returns;
    };
    const auto [leftovers, defaultSink] = connection.readMirror([&](const PulseMirror& mirror) {
        std::vector<Leftover> leftovers;
        for (const auto* sink : mirror.sinksInServerOrder()) {
            const bool ownerGone = sink->ownerPid == goneOwner || !isRunning(sink->ownerPid);
            if (!sink->name.startsWith(sinkPrefix) ||
                sink->ownerModule == PulseRecords::kInvalidIndex || !ownerGone)
                continue;
            Leftover leftover{sink->ownerModule, {}};
            for (const auto& [index, stream] : mirror.streams()) {
                if (stream.sink != sink->index)
                    continue;
                const auto home = homes.find(index);
                leftover.returns.push_back(returnOf(
                    mirror, index, stream, home == homes.end() ? QString() : home->second));
            }
            leftovers.push_back(leftover);
        }
        return std::make_pair(leftovers, mirror.server().defaultSink);
    });
    for (const Leftover& leftover : leftovers) {
        carryOut(connection, leftover.returns, defaultSink);
        connection.unloadModule(leftover.module);
    }
}
