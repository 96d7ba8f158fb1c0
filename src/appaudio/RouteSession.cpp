#include "appaudio/RouteSession.h"

#include "groups/GroupManager.h"

#include <cmath>
#include <cstddef>

Q_LOGGING_CATEGORY(lcRouteSession, "com.kestrivane.ondril.RouteSession")

namespace {

// One input channel as the procedure sees it: its first sample and the distance, in samples,
// between consecutive samples.
struct Chan {
    const float* base = nullptr;
    std::ptrdiff_t stride = 0;
};

bool isUsable(const AudioBuffer& buffer) {
    return buffer.mData != nullptr && buffer.mNumberChannels != 0;
}

std::uint32_t framesOf(const AudioBuffer& buffer) {
    return buffer.mDataByteSize / (buffer.mNumberChannels * std::uint32_t(sizeof(float)));
}

// The channel list is not held anywhere: channel `index` is found by walking the usable buffers,
// which needs no storage and so cannot allocate on the audio thread.
std::optional<Chan> inputChannel(const AudioBufferList& input, std::uint32_t index) {
    for (std::uint32_t b = 0; b < input.mNumberBuffers; ++b) {
        const AudioBuffer& buffer = input.mBuffers[b];
        if (!isUsable(buffer))
            continue;
        if (index < buffer.mNumberChannels)
            return Chan{static_cast<const float*>(buffer.mData) + index,
                        std::ptrdiff_t(buffer.mNumberChannels)};
        index -= buffer.mNumberChannels;
    }
    return std::nullopt;
}

// The smallest frame count over the usable input buffers; 0 when there is none.
std::uint32_t inputLength(const AudioBufferList& input) {
    bool any = false;
    std::uint32_t length = 0;
    for (std::uint32_t b = 0; b < input.mNumberBuffers; ++b) {
        const AudioBuffer& buffer = input.mBuffers[b];
        if (!isUsable(buffer))
            continue;
        const std::uint32_t frames = framesOf(buffer);
        length = any ? std::min(length, frames) : frames;
        any = true;
    }
    return length;
}

} // namespace

RouteSession::RouteSession(AudioHardware& hardware, const QString& bundleID,
                           std::vector<AudioObjectID> processObjects,
                           const QStringList& destinationUIDs)
    : m_hardware(hardware)
    , m_bundleID(bundleID)
    , m_processObjects(std::move(processObjects))
    , m_destinationUIDs(destinationUIDs) {}

RouteSession::~RouteSession() {
    stop();
}

bool RouteSession::start() {
    // Ondril's own aggregates cannot be sub-devices of another.
    m_destinations.clear();
    for (const QString& uid : m_destinationUIDs)
        if (!uid.startsWith(GroupManager::groupUIDPrefix))
            m_destinations.append(uid);
    if (m_destinations.isEmpty())
        return false;

    m_router = m_hardware.makeAppStreamRouter();
    const bool boost = m_gain->boost.load(std::memory_order_relaxed);
    m_running = m_router && !boost ? startRouted() : startTapped();
    return m_running;
}

// Rebuilding the router instead would unload the combined sink of several outputs under the
// streams and load it again, and WirePlumber 0.4 now and then refuses every later move of a
// stream caught in that: it would stay on its old sink. Carrying on moves only the new streams.
bool RouteSession::continueFrom(RouteSession& previous) {
    if (!previous.m_running || !previous.m_routed ||
        previous.m_destinationUIDs != m_destinationUIDs ||
        m_gain->boost.load(std::memory_order_relaxed))
        return false;
    m_router = std::move(previous.m_router);
    m_destinations = previous.m_destinations;
    previous.m_routed = false;
    previous.m_running = false;
    m_router->setProcesses(pids());
    m_router->setGain(m_gain->value.load(std::memory_order_relaxed));
    applyMeter(); // the previous session's box is no longer read
    m_routed = true;
    m_running = true;
    return true;
}

bool RouteSession::startRouted() {
    m_routed = m_router->start(m_bundleID, pids(), m_destinations,
                               m_gain->value.load(std::memory_order_relaxed));
    if (m_routed && m_metered)
        applyMeter();
    return m_routed;
}

bool RouteSession::startTapped() {
    CATapDescription tap;
    tap.processes = m_processObjects;
    tap.isMixdown = true;
    tap.name = QStringLiteral("Ondril ") + m_bundleID;
    tap.isPrivate = true;
    tap.muteBehavior = CATapMuteBehavior::CATapMutedWhenTapped;
    tap.uuid = QUuid::createUuid();

    AudioObjectID tapID = kAudioObjectUnknown;
    OSStatus status = m_hardware.AudioHardwareCreateProcessTap(tap, tapID);
    if (status != kAudioHardwareNoError || tapID == kAudioObjectUnknown) {
        qCCritical(lcRouteSession, "process tap failed (%d) for %s", int(status),
                   qUtf8Printable(m_bundleID));
        stopTapped();
        return false;
    }
    m_tapID = tapID;

    AudioObjectID aggID = kAudioObjectUnknown;
    status = m_hardware.AudioHardwareCreateAggregateDevice(
        aggregateDescription(m_bundleID, m_destinations, tap.uuid), aggID);
    if (status != kAudioHardwareNoError || aggID == kAudioObjectUnknown) {
        qCCritical(lcRouteSession, "aggregate create failed (%d) for %s", int(status),
                   qUtf8Printable(m_bundleID));
        stopTapped();
        return false;
    }
    m_aggID = aggID;

    // The block's only capture is the box, which it keeps alive for as long as it can run.
    AudioDeviceIOProcID procID = 0;
    status = m_hardware.AudioDeviceCreateIOProcIDWithBlock(
        procID, m_aggID,
        [gain = m_gain](const AudioTimeStamp&, const AudioBufferList& input,
                        AudioBufferList& output) { process(*gain, input, output); });
    if (status != kAudioHardwareNoError || procID == 0) {
        qCCritical(lcRouteSession, "IOProc create failed (%d) for %s", int(status),
                   qUtf8Printable(m_bundleID));
        stopTapped();
        return false;
    }
    m_procID = procID;

    // A failed start is not torn down here: the caller drops the session, which stops it.
    return m_hardware.AudioDeviceStart(m_aggID, *m_procID) == kAudioHardwareNoError;
}

void RouteSession::setGain(float value, bool boost) {
    m_gain->value.store(value, std::memory_order_relaxed);
    m_gain->boost.store(boost, std::memory_order_relaxed);
    if (!m_running || !m_router)
        return;
    if (boost && m_routed)
        switchToTapped();
    else if (!boost && !m_routed)
        switchToRouted();
    else if (m_routed)
        m_router->setGain(value);
}

// The tapped path runs before the tap takes the streams from the router, which then lets go only
// of what it still holds: the application is never heard twice, and silent for no longer than
// the path's latency. Should the tapped path fail, the router keeps playing at unity.
void RouteSession::switchToTapped() {
    if (!startTapped()) {
        stopTapped();
        m_router->setGain(m_gain->value.load(std::memory_order_relaxed));
        return;
    }
    m_router->stop();
    m_routed = false;
}

// The procedure stops first, dropping what it had queued, so that nothing plays twice; the
// router then takes the streams out of the tap, which lets go only of what it still holds.
void RouteSession::switchToRouted() {
    if (m_procID && m_aggID != kAudioObjectUnknown)
        m_hardware.AudioDeviceStop(m_aggID, *m_procID);
    startRouted();
    stopTapped();
}

void RouteSession::setMetered(bool metered) {
    m_metered = metered;
    if (m_router)
        applyMeter();
}

void RouteSession::applyMeter() {
    m_router->meter(m_metered ? std::shared_ptr<std::atomic<float>>(m_gain, &m_gain->peak)
                              : nullptr);
}

std::vector<std::int32_t> RouteSession::pids() const {
    std::vector<std::int32_t> pids;
    for (AudioObjectID object : m_processObjects) {
        AudioPropertyValue value;
        if (m_hardware.AudioObjectGetPropertyData(object,
                                                  {kAudioProcessPropertyPID,
                                                   kAudioObjectPropertyScopeGlobal,
                                                   kAudioObjectPropertyElementMain},
                                                  value) == kAudioHardwareNoError)
            if (const auto* pid = std::get_if<std::int32_t>(&value))
                pids.push_back(*pid);
    }
    return pids;
}

void RouteSession::stop() {
    m_running = false;
    if (m_routed)
        m_router->stop();
    m_routed = false;
    m_router.reset();
    stopTapped();
}

void RouteSession::stopTapped() {
    // The procedure first, then the aggregate that runs it, then the tap it reads.
    if (m_procID) {
        if (m_aggID != kAudioObjectUnknown) {
            m_hardware.AudioDeviceStop(m_aggID, *m_procID);
            m_hardware.AudioDeviceDestroyIOProcID(m_aggID, *m_procID);
        }
        m_procID.reset();
    }
    if (m_aggID != kAudioObjectUnknown) {
        m_hardware.AudioHardwareDestroyAggregateDevice(m_aggID);
        m_aggID = kAudioObjectUnknown;
    }
    if (m_tapID != kAudioObjectUnknown) {
        m_hardware.AudioHardwareDestroyProcessTap(m_tapID);
        m_tapID = kAudioObjectUnknown;
    }
}

QVariantMap RouteSession::aggregateDescription(const QString& bundleID,
                                               const QStringList& destinations,
                                               const QUuid& tapUUID) {
    const QString master = destinations.value(0);
    QVariantList subdevices;
    for (const QString& uid : destinations)
        subdevices.append(
            QVariantMap{{kAudioSubDeviceUIDKey, uid},
                        {kAudioSubDeviceDriftCompensationKey, uid == master ? 0 : 1}});
    const QVariantMap tapEntry{
        {kAudioSubTapDriftCompensationKey, true},
        {kAudioSubTapUIDKey, tapUUID.toString(QUuid::WithoutBraces).toUpper()}};
    return {
        {kAudioAggregateDeviceNameKey, QStringLiteral("Ondril ") + bundleID},
        {kAudioAggregateDeviceUIDKey, uidPrefix + bundleID},
        {kAudioAggregateDeviceIsPrivateKey, true},
        {kAudioAggregateDeviceIsStackedKey, destinations.size() > 1 ? 1 : 0},
        {kAudioAggregateDeviceMainSubDeviceKey, master},
        {kAudioAggregateDeviceSubDeviceListKey, subdevices},
        {kAudioAggregateDeviceTapListKey, QVariantList{tapEntry}},
        {kAudioAggregateDeviceTapAutoStartKey, true},
    };
}

void RouteSession::process(GainBox& gain, const AudioBufferList& input, AudioBufferList& output) {
    const float value = gain.value.load(std::memory_order_relaxed);
    const bool boost = gain.boost.load(std::memory_order_relaxed);
    const std::uint32_t length = inputLength(input);

    std::uint32_t firstChannel = 0;
    float blockPeak = 0.0f;
    for (std::uint32_t b = 0; b < output.mNumberBuffers; ++b) {
        AudioBuffer& buffer = output.mBuffers[b];
        if (!isUsable(buffer))
            continue;
        const std::uint32_t channels = buffer.mNumberChannels;
        const std::uint32_t frames = framesOf(buffer);
        const std::uint32_t n = std::min(frames, length);
        float* out = static_cast<float*>(buffer.mData);
        for (std::uint32_t c = 0; c < channels; ++c) {
            const std::optional<Chan> chan =
                length >= 1 ? inputChannel(input, firstChannel + c) : std::nullopt;
            std::uint32_t i = 0;
            if (chan) {
                for (; i < n; ++i) {
                    float y = value * chan->base[std::ptrdiff_t(i) * chan->stride];
                    if (boost)
                        y = tanhf(y);
                    out[std::size_t(i) * channels + c] = y;
                    blockPeak = std::max(blockPeak, std::fabs(y));
                }
            }
            for (; i < frames; ++i)
                out[std::size_t(i) * channels + c] = 0.0f;
        }
        firstChannel += channels;
    }
    if (gain.peak.load(std::memory_order_relaxed) < blockPeak)
        gain.peak.store(blockPeak, std::memory_order_relaxed);
}
