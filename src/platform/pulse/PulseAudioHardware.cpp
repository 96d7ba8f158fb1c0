#include "platform/pulse/PulseAudioHardware.h"

#include "platform/pulse/PulseConnection.h"
#include "platform/pulse/PulseModuleArguments.h"
#include "platform/pulse/PulseOutputPeakMonitor.h"
#include "platform/pulse/PulseSoundLibrary.h"
#include "platform/pulse/PulseStreamRouter.h"
#include "platform/pulse/PulseTap.h"
#include "platform/pulse/PulseTapAggregate.h"
#include "platform/pulse/PulseTapGuard.h"

#include <pulse/volume.h>

#include <QCoreApplication>
#include <QRegularExpression>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <unistd.h>

namespace {

using Kind = PulseObjectIds::Kind;

// Ondril's own streams (meters, the confirmation sound) are no application to route.
bool isOwnProcess(std::int32_t pid) {
    return pid == std::int32_t(QCoreApplication::applicationPid());
}

bool isOneOf(AudioObjectPropertySelector selector,
             std::initializer_list<AudioObjectPropertySelector> selectors) {
    return std::find(selectors.begin(), selectors.end(), selector) != selectors.end();
}

AudioObjectPropertyScope directionScope(Kind kind) {
    return kind == Kind::Sink ? kAudioObjectPropertyScopeOutput : kAudioObjectPropertyScopeInput;
}

PulseMirror::Target targetOf(Kind kind) {
    return kind == Kind::Sink ? PulseMirror::Target::Sink : PulseMirror::Target::Source;
}

std::uint32_t toServerVolume(float scalar) {
    return std::uint32_t(std::lround(std::max(0.0f, scalar) * float(PA_VOLUME_NORM)));
}

const QString kCombineModule = QStringLiteral("module-combine-sink");
// Sinks Ondril makes for itself (groups, per-app routes) are never handed the default.
const QString kOwnSinkPrefix = QStringLiteral("com.kestrivane.ondril.");

// The clock master of a combined sink: the first of its slaves, by the order creation gave them.
QString firstSlave(const QString& moduleArgument) {
    static const QRegularExpression slaves(QStringLiteral("(?:^|\\s)slaves=([^\\s,]+)"));
    return slaves.match(moduleArgument).captured(1);
}

// A combined sink made by another Ondril process that still runs is that process's to remove.
bool ownedByAnotherLiveProcess(std::int32_t ownerPid) {
    if (ownerPid <= 0 || ownerPid == ::getpid())
        return false;
    return ::kill(ownerPid, 0) == 0 || errno == EPERM;
}

} // namespace

std::unique_ptr<PulseAudioHardware> PulseAudioHardware::connect(int timeoutMs, Absent absent) {
    auto connection = std::make_unique<PulseConnection>();
    if (!connection->open(timeoutMs) && absent == Absent::Fail)
        return nullptr;
    PulseStreamRouter::clearLeftovers(*connection); // per-app audio
    PulseTap::clearLeftovers(*connection);
    return std::unique_ptr<PulseAudioHardware>(new PulseAudioHardware(std::move(connection)));
}

PulseAudioHardware::PulseAudioHardware(std::unique_ptr<PulseConnection> connection)
    : m_connection(std::move(connection)) {
    QObject::connect(m_connection.get(), &PulseConnection::notices, this,
                     &PulseAudioHardware::deliver);
}

PulseAudioHardware::~PulseAudioHardware() {
    // Aggregates read the taps: they go first.
    m_tapAggregates.clear();
    m_taps.clear();
}

QString PulseAudioHardware::backendName() const {
    return isPipeWire() ? QStringLiteral("pipewire") : QStringLiteral("pulse");
}

bool PulseAudioHardware::isPipeWire() const {
    return m_connection->readMirror([](const PulseMirror& mirror) {
        return mirror.server().serverName.contains(QLatin1String("PipeWire"));
    });
}

std::optional<QString> PulseAudioHardware::nameOf(AudioObjectID objectID, Kind kind) const {
    const auto object = m_ids.lookup(objectID);
    if (!object || object->first != kind)
        return std::nullopt;
    return object->second;
}

bool PulseAudioHardware::AudioObjectHasProperty(AudioObjectID objectID,
                                                const AudioObjectPropertyAddress& address) const {
    AudioPropertyValue value;
    return AudioObjectGetPropertyData(objectID, address, value) == kAudioHardwareNoError;
}

OSStatus PulseAudioHardware::AudioObjectIsPropertySettable(
    AudioObjectID objectID, const AudioObjectPropertyAddress& address, bool& outIsSettable) const {
    if (!AudioObjectHasProperty(objectID, address))
        return kAudioHardwareUnknownPropertyError;
    if (objectID == kAudioObjectSystemObject) {
        outIsSettable = isOneOf(address.mSelector, {kAudioHardwarePropertyDefaultOutputDevice,
                                                    kAudioHardwarePropertyDefaultInputDevice});
        return kAudioHardwareNoError;
    }
    // Software volume is as settable as hardware volume: the server scales either way.
    outIsSettable =
        isOneOf(address.mSelector, {kAudioDevicePropertyVolumeScalar, kAudioDevicePropertyMute});
    return kAudioHardwareNoError;
}

OSStatus PulseAudioHardware::AudioObjectGetPropertyData(AudioObjectID objectID,
                                                        const AudioObjectPropertyAddress& address,
                                                        AudioPropertyValue& outData) const {
    if (objectID == kAudioObjectSystemObject) {
        switch (address.mSelector) {
        case kAudioHardwarePropertyDevices: {
            auto [sinks, sources] = m_connection->readMirror([](const PulseMirror& mirror) {
                QStringList sinkNames, sourceNames;
                for (const auto* sink : mirror.sinksInServerOrder())
                    if (!sink->name.startsWith(PulseStreamRouter::sinkPrefix) && // per-app audio
                        !sink->name.startsWith(PulseTap::sinkPrefix))
                        sinkNames.append(sink->name);
                for (const auto* source : mirror.sourcesInServerOrder())
                    sourceNames.append(source->name);
                return std::make_pair(sinkNames, sourceNames);
            });
            std::vector<AudioObjectID> ids;
            for (const QString& name : sinks)
                ids.push_back(m_ids.idFor(Kind::Sink, name));
            for (const QString& name : sources)
                ids.push_back(m_ids.idFor(Kind::Source, name));
            outData = ids;
            return kAudioHardwareNoError;
        }
        case kAudioHardwarePropertyDefaultOutputDevice: {
            const auto name = m_connection->readMirror([](const PulseMirror& mirror) {
                const QString name = mirror.server().defaultSink;
                return mirror.sink(name) ? name : QString();
            });
            outData = name.isEmpty() ? kAudioObjectUnknown : m_ids.idFor(Kind::Sink, name);
            return kAudioHardwareNoError;
        }
        case kAudioHardwarePropertyDefaultInputDevice: {
            // A monitor as the server's default source is no input device: none.
            const auto name = m_connection->readMirror([](const PulseMirror& mirror) {
                const QString name = mirror.server().defaultSource;
                return mirror.source(name) ? name : QString();
            });
            outData = name.isEmpty() ? kAudioObjectUnknown : m_ids.idFor(Kind::Source, name);
            return kAudioHardwareNoError;
        }
        case kAudioHardwarePropertyProcessObjectList: {
            const auto processes = m_connection->readMirror(
                [](const PulseMirror& mirror) { return mirror.processes(); });
            std::vector<AudioObjectID> ids;
            for (const auto& process : processes)
                if (!isOwnProcess(process.pid))
                    ids.push_back(m_ids.idFor(Kind::Process, QString::number(process.pid)));
            outData = ids;
            return kAudioHardwareNoError;
        }
        default:
            return kAudioHardwareUnknownPropertyError;
        }
    }

    const auto object = m_ids.lookup(objectID);
    if (!object)
        return kAudioHardwareBadObjectError;
    // Named, not a structured binding: clang 14 (the fuzz build) cannot capture those.
    const Kind kind = object->first;
    const QString& name = object->second;
    if (kind == Kind::Process)
        return readProcess(name.toInt(), address, outData);
    const auto device = m_connection->readMirror(
        [&](const PulseMirror& mirror) -> std::optional<PulseRecords::Device> {
            const auto* record = kind == Kind::Sink ? mirror.sink(name) : mirror.source(name);
            if (!record)
                return std::nullopt;
            PulseRecords::Device copy = *record;
            if (const auto* module = mirror.module(copy.ownerModule);
                module && module->name == kCombineModule)
                copy.transportType = kAudioDeviceTransportTypeAggregate;
            return copy;
        });
    if (!device)
        return kAudioHardwareBadDeviceError;
    return readDevice(*device, kind, address, outData);
}

OSStatus PulseAudioHardware::readDevice(const PulseRecords::Device& device, Kind kind,
                                        const AudioObjectPropertyAddress& address,
                                        AudioPropertyValue& outData) const {
    const bool inDirection = address.mScope == directionScope(kind);
    switch (address.mSelector) {
    case kAudioDevicePropertyDeviceUID:
        outData = device.name;
        return kAudioHardwareNoError;
    case kAudioObjectPropertyName:
        outData = device.description;
        return kAudioHardwareNoError;
    case kAudioDevicePropertyTransportType:
        outData = device.transportType;
        return kAudioHardwareNoError;
    case kAudioDevicePropertyStreamConfiguration: {
        // One interleaved buffer in the device's own direction; none in the other.
        AudioStreamConfiguration configuration;
        if (inDirection)
            configuration.channelsPerBuffer.push_back(device.channels());
        outData = configuration;
        return kAudioHardwareNoError;
    }
    case kAudioDevicePropertyVolumeScalar: {
        if (!inDirection || device.volume.empty() ||
            address.mElement > std::min<std::uint32_t>(2, device.channels()))
            return kAudioHardwareUnknownPropertyError;
        const std::uint32_t volume =
            address.mElement == 0 ? *std::max_element(device.volume.begin(), device.volume.end())
                                  : device.volume[address.mElement - 1];
        outData = float(volume) / float(PA_VOLUME_NORM);
        return kAudioHardwareNoError;
    }
    case kAudioDevicePropertyMute:
        if (!inDirection || address.mElement != 0)
            return kAudioHardwareUnknownPropertyError;
        outData = std::uint32_t(device.mute ? 1 : 0);
        return kAudioHardwareNoError;
    default:
        return kAudioHardwareUnknownPropertyError;
    }
}

// --- Per-app audio ---

std::unique_ptr<AppStreamRouter> PulseAudioHardware::makeAppStreamRouter() {
    return std::make_unique<PulseStreamRouter>(*m_connection, *this, m_homes);
}

std::unique_ptr<OutputPeakMonitor> PulseAudioHardware::makeOutputPeakMonitor() {
    return std::make_unique<PulseOutputPeakMonitor>(*m_connection, *this);
}

std::unique_ptr<SoundLibrary> PulseAudioHardware::makeSoundLibrary() {
    return std::make_unique<PulseSoundLibrary>(*m_connection);
}

std::optional<ProcRunningApplications::StreamIdentity>
PulseAudioHardware::streamIdentity(std::int32_t pid) const {
    const auto streams = m_connection->readMirror([pid](const PulseMirror& mirror) {
        std::vector<PulseRecords::Stream> own;
        for (const auto& [index, stream] : mirror.streams())
            if (stream.pid == pid)
                own.push_back(stream);
        return own;
    });
    if (streams.empty())
        return std::nullopt;
    const auto named = std::find_if(streams.begin(), streams.end(), [](const auto& stream) {
        return !stream.applicationID.isEmpty();
    });
    const PulseRecords::Stream& stream = named != streams.end() ? *named : streams.front();
    return ProcRunningApplications::StreamIdentity{stream.applicationID, stream.portalAppID,
                                                   stream.applicationName, stream.iconName};
}

// --- end per-app audio ---

OSStatus PulseAudioHardware::readProcess(std::int32_t pid,
                                         const AudioObjectPropertyAddress& address,
                                         AudioPropertyValue& outData) const {
    const auto process = m_connection->readMirror(
        [pid](const PulseMirror& mirror) -> std::optional<PulseMirror::Process> {
            for (const auto& process : mirror.processes()) {
                if (process.pid == pid)
                    return process;
            }
            return std::nullopt;
        });
    if (!process || isOwnProcess(pid))
        return kAudioHardwareBadObjectError;
    switch (address.mSelector) {
    case kAudioProcessPropertyPID:
        outData = process->pid;
        return kAudioHardwareNoError;
    case kAudioProcessPropertyBundleID:
        outData = process->binary;
        return kAudioHardwareNoError;
    case kAudioProcessPropertyIsRunningOutput:
        outData = std::uint32_t(process->isRunningOutput ? 1 : 0);
        return kAudioHardwareNoError;
    default:
        return kAudioHardwareUnknownPropertyError;
    }
}

OSStatus PulseAudioHardware::AudioObjectSetPropertyData(AudioObjectID objectID,
                                                        const AudioObjectPropertyAddress& address,
                                                        const AudioPropertyValue& data) {
    bool settable = false;
    const OSStatus status = AudioObjectIsPropertySettable(objectID, address, settable);
    if (status != kAudioHardwareNoError)
        return status;
    if (!settable)
        return kAudioHardwareIllegalOperationError;
    switch (address.mSelector) {
    case kAudioHardwarePropertyDefaultOutputDevice:
        if (!std::holds_alternative<std::uint32_t>(data))
            return kAudioHardwareBadPropertySizeError;
        return setDefaultOutput(std::get<std::uint32_t>(data));
    case kAudioHardwarePropertyDefaultInputDevice:
        if (!std::holds_alternative<std::uint32_t>(data))
            return kAudioHardwareBadPropertySizeError;
        return setDefaultInput(std::get<std::uint32_t>(data));
    case kAudioDevicePropertyVolumeScalar:
        if (!std::holds_alternative<float>(data))
            return kAudioHardwareBadPropertySizeError;
        return setVolume(objectID, address, std::get<float>(data));
    case kAudioDevicePropertyMute:
        if (!std::holds_alternative<std::uint32_t>(data))
            return kAudioHardwareBadPropertySizeError;
        return setMute(objectID, address, std::get<std::uint32_t>(data) != 0);
    default:
        return kAudioHardwareIllegalOperationError;
    }
}

OSStatus PulseAudioHardware::setDefaultOutput(AudioObjectID deviceID) {
    const auto name = nameOf(deviceID, Kind::Sink);
    if (!name)
        return kAudioHardwareBadDeviceError;
    const QString previous = m_connection->readMirror([](const PulseMirror& mirror) {
        const auto* sink = mirror.sink(mirror.server().defaultSink);
        return sink ? sink->name : QString();
    });
    const OSStatus status = m_connection->setDefaultSink(*name);
    if (status != kAudioHardwareNoError)
        return status;

    // Both servers move the streams that follow the default themselves, but both remember the
    // sink a user moved an application to (module-stream-restore, WirePlumber's restore-stream)
    // and keep it there. Move what still plays on the old default; on PulseAudio also drop the
    // pins of those streams to the old default, and no others.
    const auto [toMove, restoreIDs] = m_connection->readMirror([&](const PulseMirror& mirror) {
        std::pair<std::vector<std::uint32_t>, QStringList> moving;
        const auto* oldSink = mirror.sink(previous);
        const auto* newSink = mirror.sink(*name);
        if (!oldSink || !newSink || oldSink == newSink)
            return moving;
        for (const auto& [index, stream] : mirror.streams()) {
            // A module's own streams (a combined sink feeding its members) have no client and
            // stay where they are.
            if (stream.client == PulseRecords::kInvalidIndex || stream.sink != oldSink->index)
                continue;
            moving.first.push_back(index);
            if (!stream.restoreID.isEmpty())
                moving.second.append(stream.restoreID);
        }
        return moving;
    });
    if (!isPipeWire())
        m_connection->unpinRestoredSinkInputs(previous, restoreIDs);
    for (std::uint32_t index : toMove)
        m_connection->moveSinkInput(index, *name);
    return kAudioHardwareNoError;
}

OSStatus PulseAudioHardware::setDefaultInput(AudioObjectID deviceID) {
    const auto name = nameOf(deviceID, Kind::Source);
    if (!name)
        return kAudioHardwareBadDeviceError;
    return m_connection->setDefaultSource(*name);
}

OSStatus PulseAudioHardware::setVolume(AudioObjectID deviceID,
                                       const AudioObjectPropertyAddress& address, float scalar) {
    const auto object = m_ids.lookup(deviceID);
    if (!object)
        return kAudioHardwareBadObjectError;
    const Kind kind = object->first;
    const QString& name = object->second;
    auto volumes = m_connection->readMirror([&](const PulseMirror& mirror) {
        const auto* device = kind == Kind::Sink ? mirror.sink(name) : mirror.source(name);
        return device ? device->volume : std::vector<std::uint32_t>{};
    });
    if (volumes.empty())
        return kAudioHardwareBadDeviceError;
    const std::uint32_t value = toServerVolume(scalar);
    if (address.mElement == 0) {
        std::fill(volumes.begin(), volumes.end(), value);
    } else {
        // Callers set the whole device and then each channel: the whole-device write has set
        // the channels already, and a stalled server is not asked twice.
        if (volumes[address.mElement - 1] == value)
            return kAudioHardwareNoError;
        volumes[address.mElement - 1] = value;
    }
    return m_connection->writeDevice(targetOf(kind), name, {volumes, std::nullopt});
}

OSStatus PulseAudioHardware::setMute(AudioObjectID deviceID, const AudioObjectPropertyAddress&,
                                     bool mute) {
    const auto object = m_ids.lookup(deviceID);
    if (!object)
        return kAudioHardwareBadObjectError;
    const auto& [kind, name] = *object;
    return m_connection->writeDevice(targetOf(kind), name, {std::nullopt, mute});
}

OSStatus PulseAudioHardware::AudioObjectAddPropertyListenerBlock(
    AudioObjectID objectID, const AudioObjectPropertyAddress& address,
    AudioObjectPropertyListenerBlock listener, AudioObjectPropertyListenerToken& outToken) {
    if (!listener)
        return kAudioHardwareIllegalOperationError;
    if (objectID != kAudioObjectSystemObject && !m_ids.lookup(objectID))
        return kAudioHardwareBadObjectError;
    outToken = m_nextToken++;
    m_listeners[outToken] = {objectID, address, std::move(listener)};
    return kAudioHardwareNoError;
}

OSStatus
PulseAudioHardware::AudioObjectRemovePropertyListenerBlock(AudioObjectPropertyListenerToken token) {
    return m_listeners.erase(token) ? kAudioHardwareNoError : kAudioHardwareIllegalOperationError;
}

void PulseAudioHardware::deliver(const PulseMirror::Notices& notices) {
    removeAbandonedAggregates();
    struct Event {
        AudioObjectID objectID;
        AudioObjectPropertyAddress address;
        bool operator==(const Event&) const = default;
    };
    std::vector<Event> events;
    for (const auto& notice : notices) {
        Event event{kAudioObjectSystemObject,
                    {notice.selector, kAudioObjectPropertyScopeGlobal, 0}};
        if (notice.target == PulseMirror::Target::Sink)
            event = {m_ids.idFor(Kind::Sink, notice.name),
                     {notice.selector, kAudioObjectPropertyScopeOutput, 0}};
        else if (notice.target == PulseMirror::Target::Source)
            event = {m_ids.idFor(Kind::Source, notice.name),
                     {notice.selector, kAudioObjectPropertyScopeInput, 0}};
        if (std::find(events.begin(), events.end(), event) == events.end())
            events.push_back(event);
    }
    // A listener may add or remove listeners: call a copy, and skip the ones removed meanwhile.
    const auto listeners = m_listeners;
    for (const auto& [token, listener] : listeners) {
        std::vector<AudioObjectPropertyAddress> addresses;
        for (const auto& event : events) {
            const bool scopeFits = listener.address.mScope == event.address.mScope ||
                                   listener.address.mScope == fourCharCode("****") ||
                                   event.objectID == kAudioObjectSystemObject;
            if (listener.objectID == event.objectID &&
                listener.address.mSelector == event.address.mSelector && scopeFits)
                addresses.push_back(event.address);
        }
        if (!addresses.empty() && m_listeners.count(token))
            listener.block(addresses);
    }
}

OSStatus PulseAudioHardware::AudioHardwareCreateAggregateDevice(const QVariantMap& description,
                                                                AudioObjectID& outDeviceID) {
    if (!description.value(kAudioAggregateDeviceTapListKey).toList().isEmpty())
        return createTapAggregate(description, outDeviceID);
    const QString uid = description.value(kAudioAggregateDeviceUIDKey).toString();
    const QString name = description.value(kAudioAggregateDeviceNameKey).toString();
    const QString master = description.value(kAudioAggregateDeviceMainSubDeviceKey).toString();
    QStringList members;
    for (const QVariant& subdevice :
         description.value(kAudioAggregateDeviceSubDeviceListKey).toList())
        members.append(subdevice.toMap().value(kAudioSubDeviceUIDKey).toString());
    if (uid.isEmpty() || members.isEmpty() || uid.contains(QLatin1Char(' ')))
        return kAudioHardwareIllegalOperationError;
    // The clock master leads: module-combine-sink has no clock-master argument, so the first
    // slave is the master by convention. "stacked" needs nothing: every slave plays all channels.
    if (members.contains(master)) {
        members.removeAll(master);
        members.prepend(master);
    }
    const auto [membersPresent, uidTaken] =
        m_connection->readMirror([&](const PulseMirror& mirror) {
            return std::make_pair(
                std::all_of(members.begin(), members.end(),
                            [&](const QString& member) { return mirror.sink(member); }),
                mirror.sink(uid) != nullptr);
        });
    if (!membersPresent || members.contains(uid))
        return kAudioHardwareBadDeviceError;
    // A combined sink under this UID is a leftover of ours (a load that answered after its
    // timeout, or an earlier run): it makes way. Any other sink of that name is refused.
    if (uidTaken) {
        const OSStatus cleared = AudioHardwareDestroyAggregateDevice(m_ids.idFor(Kind::Sink, uid));
        if (cleared != kAudioHardwareNoError)
            return cleared == kAudioHardwareNotRunningError ? cleared
                                                            : kAudioHardwareBadDeviceError;
    }

    const auto server = isPipeWire() ? PulseModuleArguments::Server::PipeWire
                                     : PulseModuleArguments::Server::PulseAudio;
    std::uint32_t moduleIndex = PulseRecords::kInvalidIndex;
    OSStatus status = m_connection->loadModule(
        kCombineModule,
        PulseModuleArguments::combineSink(uid, name, members, server, std::int32_t(::getpid())),
        moduleIndex);
    if (status == kAudioHardwareNotRunningError)
        m_abandoned.insert(uid); // the server may still carry the load out once it answers
    if (status != kAudioHardwareNoError)
        return status;
    // PipeWire answers the load before the sink exists, and the module's record comes with a
    // later event on both: wait for the events, so that whoever unloads the module right away (a
    // group rebuilt at once) finds it as the owner of its sink.
    status = m_connection->waitForMirror([&](const PulseMirror& mirror) {
        const auto* sink = mirror.sink(uid);
        return sink && sink->ownerModule == moduleIndex && mirror.module(moduleIndex);
    });
    if (status != kAudioHardwareNoError) {
        m_abandoned.insert(uid);
        m_connection->unloadModule(moduleIndex);
        return status;
    }
    m_abandoned.remove(uid);
    outDeviceID = m_ids.idFor(Kind::Sink, uid);
    return kAudioHardwareNoError;
}

// When a combined default sink's master is gone too: rather a device than another of Ondril's own
// sinks, which the default may outlive.
QString PulseAudioHardware::standInSink(const QString& leaving) const {
    return m_connection->readMirror([&](const PulseMirror& mirror) {
        QString ownSink;
        for (const auto* sink : mirror.sinksInServerOrder()) {
            if (sink->name == leaving)
                continue;
            if (!sink->name.startsWith(kOwnSinkPrefix))
                return sink->name;
            if (ownSink.isEmpty())
                ownSink = sink->name;
        }
        return ownSink;
    });
}

OSStatus PulseAudioHardware::AudioHardwareDestroyAggregateDevice(AudioObjectID deviceID) {
    if (m_tapAggregates.erase(deviceID))
        return kAudioHardwareNoError;
    const auto name = nameOf(deviceID, Kind::Sink);
    if (!name)
        return kAudioHardwareBadDeviceError;
    struct Owner {
        std::uint32_t module;
        QString master;
        bool isDefault;
        std::int32_t pid;
    };
    const auto owner =
        m_connection->readMirror([&](const PulseMirror& mirror) -> std::optional<Owner> {
            const auto* sink = mirror.sink(*name);
            const auto* module = sink ? mirror.module(sink->ownerModule) : nullptr;
            if (!module || module->name != kCombineModule)
                return std::nullopt;
            const QString master = firstSlave(module->argument);
            return Owner{module->index, mirror.sink(master) ? master : QString(),
                         mirror.server().defaultSink == *name, sink->ownerPid};
        });
    if (!owner)
        return kAudioHardwareBadDeviceError;
    if (ownedByAnotherLiveProcess(owner->pid))
        return kAudioHardwareIllegalOperationError;
    // Streams that follow the default would fall to whatever sink the server picks (on
    // PulseAudio the lowest index, often the built-in speakers) while the sink is rebuilt or
    // removed: hand the default to the clock master first, so that sound stays on the group's
    // devices. On PulseAudio this also matters because it remembers the default by name: a
    // combined sink rebuilt under the same name would become the default again while still being
    // set up, streams would move into it, and PulseAudio 16's module-combine-sink then aborts the
    // daemon (a second rate-adjust timer). Whoever rebuilds makes the new sink the default.
    if (owner->isDefault) {
        const QString standIn = owner->master.isEmpty() ? standInSink(*name) : owner->master;
        if (!standIn.isEmpty())
            m_connection->setDefaultSink(standIn);
    }
    const OSStatus status = m_connection->unloadModule(owner->module);
    if (status == kAudioHardwareNotRunningError)
        m_abandoned.insert(*name); // removed once the server answers again
    if (status != kAudioHardwareNoError)
        return status;
    // PulseAudio unloads a module after it has answered: wait for the sink's removal, so that an
    // aggregate rebuilt under the same UID right away does not collide with it.
    if (m_connection->waitForMirror([&](const PulseMirror& mirror) {
            return !mirror.sink(*name);
        }) != kAudioHardwareNoError)
        m_connection->forgetSink(*name);
    return kAudioHardwareNoError;
}

void PulseAudioHardware::removeAbandonedAggregates() {
    const QSet<QString> abandoned = m_abandoned;
    for (const QString& uid : abandoned) {
        const bool present = m_connection->readMirror(
            [&](const PulseMirror& mirror) { return mirror.sink(uid) != nullptr; });
        if (!present)
            continue;
        // The sink's event may come before its module's, which brings no notice of its own.
        m_connection->waitForMirror([&](const PulseMirror& mirror) {
            const auto* sink = mirror.sink(uid);
            return !sink || mirror.module(sink->ownerModule);
        });
        if (AudioHardwareDestroyAggregateDevice(m_ids.idFor(Kind::Sink, uid)) ==
            kAudioHardwareNoError)
            m_abandoned.remove(uid);
    }
}

OSStatus PulseAudioHardware::AudioHardwareCreateProcessTap(const CATapDescription& description,
                                                           AudioObjectID& outTapID) {
    // Only what per-app sessions ask for: a stereo mixdown of processes, muted while tapped.
    if (!description.isMixdown || description.uuid.isNull() ||
        description.muteBehavior != CATapMuteBehavior::CATapMutedWhenTapped)
        return kAudioHardwareUnsupportedOperationError;
    std::vector<std::int32_t> pids;
    for (AudioObjectID process : description.processes)
        if (const auto object = m_ids.lookup(process); object && object->first == Kind::Process)
            pids.push_back(object->second.toInt());
    if (!m_tapGuard && !m_guardProgram.isEmpty())
        m_tapGuard = std::make_unique<PulseTapGuard>(m_guardProgram);
    auto tap = std::make_unique<PulseTap>(*m_connection, *this, m_homes, m_tapGuard.get(),
                                          description.uuid, pids);
    if (const OSStatus status = tap->create(); status != kAudioHardwareNoError)
        return status; // the tap's destruction unloads what did load
    outTapID = m_ids.idFor(Kind::Tap, description.uuid.toString());
    m_taps[outTapID] = std::move(tap);
    return kAudioHardwareNoError;
}

OSStatus PulseAudioHardware::AudioHardwareDestroyProcessTap(AudioObjectID tapID) {
    return m_taps.erase(tapID) ? kAudioHardwareNoError : kAudioHardwareBadObjectError;
}

// A private aggregate of one tap and its destinations: every destination gets a playback stream
// of its own, so "stacked" needs nothing further; on PulseAudio each stream follows its sink's
// clock through a rate controller that starts from what earlier paths to that sink learned,
// PipeWire does that by itself.
OSStatus PulseAudioHardware::createTapAggregate(const QVariantMap& description,
                                                AudioObjectID& outDeviceID) {
    const QVariantList taps = description.value(kAudioAggregateDeviceTapListKey).toList();
    const QUuid tapUUID(taps.first().toMap().value(kAudioSubTapUIDKey).toString());
    const auto tap = std::find_if(m_taps.begin(), m_taps.end(), [&](const auto& entry) {
        return entry.second->uuid() == tapUUID;
    });
    QStringList destinations;
    for (const QVariant& subdevice :
         description.value(kAudioAggregateDeviceSubDeviceListKey).toList())
        destinations.append(subdevice.toMap().value(kAudioSubDeviceUIDKey).toString());
    const bool present = m_connection->readMirror([&](const PulseMirror& mirror) {
        return std::all_of(destinations.begin(), destinations.end(),
                           [&](const QString& sink) { return mirror.sink(sink) != nullptr; });
    });
    if (taps.size() != 1 || tap == m_taps.end() || destinations.isEmpty() || !present)
        return kAudioHardwareBadDeviceError;
    outDeviceID =
        m_ids.idFor(Kind::TapAggregate, description.value(kAudioAggregateDeviceUIDKey).toString());
    m_tapAggregates[outDeviceID] =
        std::make_unique<PulseTapAggregate>(tap->first, tap->second->sinkName(), destinations,
                                            isPipeWire() ? nullptr : &m_learnedRates);
    return kAudioHardwareNoError;
}

OSStatus PulseAudioHardware::AudioDeviceCreateIOProcIDWithBlock(AudioDeviceIOProcID& outProcID,
                                                                AudioObjectID deviceID,
                                                                AudioDeviceIOBlock block) {
    const auto aggregate = m_tapAggregates.find(deviceID);
    if (aggregate == m_tapAggregates.end())
        return kAudioHardwareBadDeviceError;
    if (aggregate->second->hasBlock())
        return kAudioHardwareIllegalOperationError;
    aggregate->second->setBlock(std::move(block));
    outProcID = 1; // one procedure per aggregate
    return kAudioHardwareNoError;
}

OSStatus PulseAudioHardware::AudioDeviceDestroyIOProcID(AudioObjectID deviceID,
                                                        AudioDeviceIOProcID) {
    const auto aggregate = m_tapAggregates.find(deviceID);
    if (aggregate == m_tapAggregates.end())
        return kAudioHardwareBadDeviceError;
    aggregate->second->stop();
    aggregate->second->setBlock({});
    return kAudioHardwareNoError;
}

// The streams run before the tap takes the application's audio, so that the switch from the
// server's own controls leaves no gap longer than the path's latency.
OSStatus PulseAudioHardware::AudioDeviceStart(AudioObjectID deviceID, AudioDeviceIOProcID) {
    const auto aggregate = m_tapAggregates.find(deviceID);
    if (aggregate == m_tapAggregates.end())
        return kAudioHardwareBadDeviceError;
    const auto tap = m_taps.find(aggregate->second->tapID());
    if (tap == m_taps.end())
        return kAudioHardwareBadObjectError;
    if (const OSStatus status = aggregate->second->start(); status != kAudioHardwareNoError)
        return status;
    tap->second->engage();
    return kAudioHardwareNoError;
}

OSStatus PulseAudioHardware::AudioDeviceStop(AudioObjectID deviceID, AudioDeviceIOProcID) {
    const auto aggregate = m_tapAggregates.find(deviceID);
    if (aggregate == m_tapAggregates.end())
        return kAudioHardwareBadDeviceError;
    aggregate->second->stop();
    return kAudioHardwareNoError;
}
