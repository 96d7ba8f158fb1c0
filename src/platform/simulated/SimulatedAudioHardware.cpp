#include "platform/simulated/SimulatedAudioHardware.h"

#include <QMetaObject>
#include <QVariantList>

#include <algorithm>

namespace {

constexpr AudioObjectID kFirstObjectID = 100;
constexpr float kDefaultSampleRate = 48000.0f;

using FaultKey = std::pair<AudioObjectID, AudioObjectPropertySelector>;

bool hasNonZeroChannels(const std::vector<std::uint32_t>& channels) {
    return std::any_of(channels.begin(), channels.end(), [](std::uint32_t c) { return c != 0; });
}

std::uint32_t sum(const std::vector<std::uint32_t>& channels) {
    std::uint32_t total = 0;
    for (auto c : channels)
        total += c;
    return total;
}

} // namespace

struct SimulatedAudioHardware::State {
    struct Device {
        DeviceSpec spec;
        bool isAggregate = false;
        QVariantMap description; // aggregates only
    };
    struct Process {
        ProcessSpec spec;
    };
    struct Tap {
        CATapDescription description;
    };
    struct Listener {
        AudioObjectID objectID = kAudioObjectUnknown;
        AudioObjectPropertySelector selector = 0;
        AudioObjectPropertyListenerBlock block;
    };
    struct IOProc {
        AudioObjectID deviceID = kAudioObjectUnknown;
        AudioDeviceIOBlock block;
        bool started = false;
    };

    AudioObjectID nextObjectID = kFirstObjectID;
    std::vector<AudioObjectID> deviceOrder;
    std::map<AudioObjectID, Device> devices;
    std::vector<AudioObjectID> processOrder;
    std::map<AudioObjectID, Process> processes;
    std::vector<AudioObjectID> tapOrder;
    std::map<AudioObjectID, Tap> taps;
    AudioObjectID defaultOutput = kAudioObjectUnknown;
    AudioObjectID defaultInput = kAudioObjectUnknown;

    AudioObjectPropertyListenerToken nextListenerToken = 1;
    std::map<AudioObjectPropertyListenerToken, Listener> listeners;

    AudioDeviceIOProcID nextProcID = 1;
    std::map<AudioDeviceIOProcID, IOProc> ioProcs;
    std::map<AudioObjectID, double> sampleTimes;

    int aggregateFailuresLeft = 0;
    OSStatus aggregateFailureStatus = kAudioHardwareNoError;
    int tapFailuresLeft = 0;
    OSStatus tapFailureStatus = kAudioHardwareNoError;
    std::map<FaultKey, OSStatus> readFaults;
    std::map<FaultKey, OSStatus> writeFaults;

    std::map<AudioObjectPropertySelector, int> setCalls;
    int createAggregateCalls = 0;
    int destroyAggregateCalls = 0;

    const Device* device(AudioObjectID id) const {
        auto it = devices.find(id);
        return it == devices.end() ? nullptr : &it->second;
    }
    Device* device(AudioObjectID id) {
        auto it = devices.find(id);
        return it == devices.end() ? nullptr : &it->second;
    }

    std::optional<AudioObjectID> deviceWithUID(const QString& uid) const {
        for (auto id : deviceOrder) {
            const Device& d = devices.at(id);
            if (d.spec.hasUID && d.spec.uid == uid)
                return id;
        }
        return std::nullopt;
    }

    std::vector<AudioObjectID> aggregateMembers(const Device& aggregate) const {
        std::vector<AudioObjectID> members;
        const auto list =
            aggregate.description.value(kAudioAggregateDeviceSubDeviceListKey).toList();
        for (const QVariant& entry : list) {
            if (auto id = deviceWithUID(entry.toMap().value(kAudioSubDeviceUIDKey).toString()))
                members.push_back(*id);
        }
        return members;
    }

    std::uint32_t tapChannels(const Device& aggregate) const {
        std::uint32_t channels = 0;
        const auto list = aggregate.description.value(kAudioAggregateDeviceTapListKey).toList();
        for (const QVariant& entry : list) {
            const QString uid = entry.toMap().value(kAudioSubTapUIDKey).toString();
            for (const auto& [id, tap] : taps) {
                if (tap.description.uuid.toString(QUuid::WithoutBraces)
                        .compare(uid, Qt::CaseInsensitive) == 0)
                    channels += tap.description.isMono ? 1 : 2;
            }
        }
        return channels;
    }

    // An aggregate's channels follow its present members, so a member that goes away shrinks it
    // like the real service does: stacked members share their channels, others are laid side by
    // side.
    std::vector<std::uint32_t> channels(const Device& device, bool output) const {
        if (!device.isAggregate)
            return output ? device.spec.outputChannels : device.spec.inputChannels;
        const bool stacked =
            device.description.value(kAudioAggregateDeviceIsStackedKey).toInt() != 0;
        std::uint32_t total = 0;
        for (auto memberID : aggregateMembers(device)) {
            const Device& member = devices.at(memberID);
            const std::uint32_t memberChannels =
                sum(output ? member.spec.outputChannels : member.spec.inputChannels);
            total = stacked ? std::max(total, memberChannels) : total + memberChannels;
        }
        if (!output)
            total += tapChannels(device);
        if (total == 0)
            return {};
        return {total};
    }

    bool hasOutput(AudioObjectID id) const {
        const Device* d = device(id);
        return d && hasNonZeroChannels(channels(*d, true));
    }
    bool hasInput(AudioObjectID id) const {
        const Device* d = device(id);
        return d && hasNonZeroChannels(channels(*d, false));
    }
};

SimulatedAudioHardware::SimulatedAudioHardware(QObject* parent)
    : AudioHardware(parent)
    , d(std::make_unique<State>()) {}

SimulatedAudioHardware::~SimulatedAudioHardware() = default;

std::unique_ptr<SimulatedAudioHardware> SimulatedAudioHardware::withDemoDevices() {
    auto hardware = std::make_unique<SimulatedAudioHardware>();

    auto addOutput = [&](const char* uid, const char* name, std::uint32_t transport,
                         std::map<AudioObjectPropertyElement, float> volume) {
        DeviceSpec spec;
        spec.uid = QString::fromLatin1(uid);
        spec.name = QString::fromLatin1(name);
        spec.transportType = transport;
        spec.volume = std::move(volume);
        return hardware->addDevice(spec);
    };
    addOutput("alsa_output.pci-0000_01_00.1.hdmi-stereo", "Studio Display Left",
              kAudioDeviceTransportTypeHDMI, {{0, 0.6f}});
    addOutput("alsa_output.pci-0000_01_00.1.hdmi-stereo-extra1", "Studio Display Right",
              kAudioDeviceTransportTypeDisplayPort, {{0, 0.6f}});
    const AudioObjectID builtInID =
        addOutput("alsa_output.pci-0000_00_1f.3.analog-stereo", "Built-in Speakers",
                  kAudioDeviceTransportTypeBuiltIn, {{0, 0.5f}});
    // Channel controls only, as many Bluetooth headsets have.
    addOutput("bluez_output.00_1B_66_A1_B2_C3.1", "Headphones", kAudioDeviceTransportTypeBluetooth,
              {{1, 0.4f}, {2, 0.4f}});
    addOutput("raop_output.Living-Room.local.192.168.1.40.7000", "Living Room",
              kAudioDeviceTransportTypeAirPlay, {{0, 0.3f}});

    DeviceSpec microphone;
    microphone.uid = QStringLiteral("alsa_input.usb-Generic_USB_Microphone-00.mono-fallback");
    microphone.name = QStringLiteral("USB Microphone");
    microphone.transportType = kAudioDeviceTransportTypeUSB;
    microphone.outputChannels = {};
    microphone.inputChannels = {1};
    microphone.volume = {};
    const AudioObjectID microphoneID = hardware->addDevice(microphone);

    hardware->d->defaultOutput = builtInID;
    hardware->d->defaultInput = microphoneID;
    return hardware;
}

// --- Listeners ---

static void deliverLater(SimulatedAudioHardware* hardware, const std::function<void()>& delivery) {
    QMetaObject::invokeMethod(hardware, delivery, Qt::QueuedConnection);
}

void SimulatedAudioHardware::notify(AudioObjectID objectID, AudioObjectPropertySelector selector,
                                    AudioObjectPropertyScope scope,
                                    AudioObjectPropertyElement element) {
    const std::vector<AudioObjectPropertyAddress> addresses{{selector, scope, element}};
    for (const auto& [token, listener] : d->listeners) {
        if (listener.objectID != objectID || listener.selector != selector)
            continue;
        // The listener is looked up again at delivery, so removing it cancels what is queued.
        const AudioObjectPropertyListenerToken queuedToken = token;
        deliverLater(this, [this, queuedToken, addresses] {
            auto it = d->listeners.find(queuedToken);
            if (it == d->listeners.end())
                return;
            auto block = it->second.block; // the block may remove itself
            block(addresses);
        });
    }
}

OSStatus SimulatedAudioHardware::AudioObjectAddPropertyListenerBlock(
    AudioObjectID objectID, const AudioObjectPropertyAddress& address,
    AudioObjectPropertyListenerBlock listener, AudioObjectPropertyListenerToken& outToken) {
    if (!listener)
        return kAudioHardwareIllegalOperationError;
    if (!isObject(objectID))
        return kAudioHardwareBadObjectError;
    outToken = d->nextListenerToken++;
    d->listeners[outToken] = {objectID, address.mSelector, std::move(listener)};
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::AudioObjectRemovePropertyListenerBlock(
    AudioObjectPropertyListenerToken token) {
    return d->listeners.erase(token) ? kAudioHardwareNoError : kAudioHardwareIllegalOperationError;
}

int SimulatedAudioHardware::listenerCount() const {
    return int(d->listeners.size());
}

bool SimulatedAudioHardware::isObject(AudioObjectID objectID) const {
    return objectID == kAudioObjectSystemObject || d->devices.count(objectID) ||
           d->processes.count(objectID) || d->taps.count(objectID);
}

// --- Scripting ---

AudioObjectID SimulatedAudioHardware::addDevice(const DeviceSpec& spec) {
    const AudioObjectID id = d->nextObjectID++;
    d->devices[id] = State::Device{spec, false, {}};
    d->deviceOrder.push_back(id);
    notify(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);
    return id;
}

bool SimulatedAudioHardware::removeDevice(AudioObjectID deviceID) {
    if (!d->devices.count(deviceID))
        return false;
    forgetDevice(deviceID);
    return true;
}

// What the service does when a device goes: its procedures stop, and a default that pointed at it
// moves to the first device left that can take its place.
void SimulatedAudioHardware::forgetDevice(AudioObjectID deviceID) {
    d->devices.erase(deviceID);
    d->deviceOrder.erase(std::remove(d->deviceOrder.begin(), d->deviceOrder.end(), deviceID),
                         d->deviceOrder.end());
    for (auto it = d->ioProcs.begin(); it != d->ioProcs.end();) {
        if (it->second.deviceID == deviceID)
            it = d->ioProcs.erase(it);
        else
            ++it;
    }
    d->sampleTimes.erase(deviceID);
    notify(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);

    if (d->defaultOutput == deviceID) {
        d->defaultOutput = kAudioObjectUnknown;
        for (auto id : d->deviceOrder) {
            if (d->hasOutput(id)) {
                d->defaultOutput = id;
                break;
            }
        }
        notify(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice);
    }
    if (d->defaultInput == deviceID) {
        d->defaultInput = kAudioObjectUnknown;
        for (auto id : d->deviceOrder) {
            if (d->hasInput(id)) {
                d->defaultInput = id;
                break;
            }
        }
        notify(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultInputDevice);
    }
}

std::optional<AudioObjectID> SimulatedAudioHardware::deviceWithUID(const QString& uid) const {
    return d->deviceWithUID(uid);
}

void SimulatedAudioHardware::setDefaultOutputDevice(AudioObjectID deviceID) {
    if (d->defaultOutput == deviceID)
        return;
    d->defaultOutput = deviceID;
    notify(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice);
}

void SimulatedAudioHardware::setDefaultInputDevice(AudioObjectID deviceID) {
    if (d->defaultInput == deviceID)
        return;
    d->defaultInput = deviceID;
    notify(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultInputDevice);
}

void SimulatedAudioHardware::setDeviceVolume(AudioObjectID deviceID,
                                             AudioObjectPropertyElement element, float value) {
    State::Device* device = d->device(deviceID);
    if (!device)
        return;
    device->spec.volume[element] = std::clamp(value, 0.0f, 1.0f);
    notify(deviceID, kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, element);
}

void SimulatedAudioHardware::setDeviceMute(AudioObjectID deviceID, bool muted) {
    State::Device* device = d->device(deviceID);
    if (!device)
        return;
    device->spec.mute = muted;
    notify(deviceID, kAudioDevicePropertyMute, kAudioObjectPropertyScopeOutput);
}

AudioObjectID SimulatedAudioHardware::addProcess(const ProcessSpec& spec) {
    const AudioObjectID id = d->nextObjectID++;
    d->processes[id] = State::Process{spec};
    d->processOrder.push_back(id);
    notify(kAudioObjectSystemObject, kAudioHardwarePropertyProcessObjectList);
    return id;
}

bool SimulatedAudioHardware::removeProcess(AudioObjectID processID) {
    if (!d->processes.erase(processID))
        return false;
    d->processOrder.erase(std::remove(d->processOrder.begin(), d->processOrder.end(), processID),
                          d->processOrder.end());
    notify(kAudioObjectSystemObject, kAudioHardwarePropertyProcessObjectList);
    return true;
}

void SimulatedAudioHardware::setProcessRunningOutput(AudioObjectID processID, bool running) {
    auto it = d->processes.find(processID);
    if (it == d->processes.end() || it->second.spec.isRunningOutput == running)
        return;
    it->second.spec.isRunningOutput = running;
    notify(processID, kAudioProcessPropertyIsRunningOutput);
}

// --- Inspection ---

std::vector<AudioObjectID> SimulatedAudioHardware::aggregateDevices() const {
    std::vector<AudioObjectID> result;
    for (auto id : d->deviceOrder)
        if (d->devices.at(id).isAggregate)
            result.push_back(id);
    return result;
}

QVariantMap SimulatedAudioHardware::aggregateDescription(AudioObjectID deviceID) const {
    const State::Device* device = d->device(deviceID);
    return device && device->isAggregate ? device->description : QVariantMap{};
}

std::vector<AudioObjectID> SimulatedAudioHardware::processTaps() const {
    return d->tapOrder;
}

std::optional<CATapDescription> SimulatedAudioHardware::tapDescription(AudioObjectID tapID) const {
    auto it = d->taps.find(tapID);
    if (it == d->taps.end())
        return std::nullopt;
    return it->second.description;
}

int SimulatedAudioHardware::setPropertyCallCount(AudioObjectPropertySelector selector) const {
    auto it = d->setCalls.find(selector);
    return it == d->setCalls.end() ? 0 : it->second;
}

int SimulatedAudioHardware::createAggregateCallCount() const {
    return d->createAggregateCalls;
}

int SimulatedAudioHardware::destroyAggregateCallCount() const {
    return d->destroyAggregateCalls;
}

bool SimulatedAudioHardware::isDeviceRunning(AudioObjectID deviceID) const {
    return std::any_of(d->ioProcs.begin(), d->ioProcs.end(), [deviceID](const auto& entry) {
        return entry.second.deviceID == deviceID && entry.second.started;
    });
}

int SimulatedAudioHardware::ioProcCount(AudioObjectID deviceID) const {
    return int(std::count_if(d->ioProcs.begin(), d->ioProcs.end(), [deviceID](const auto& entry) {
        return entry.second.deviceID == deviceID;
    }));
}

// --- Faults ---

void SimulatedAudioHardware::failNextAggregateCreation(int count, OSStatus status) {
    d->aggregateFailuresLeft = count;
    d->aggregateFailureStatus = status;
}

void SimulatedAudioHardware::failNextTapCreation(int count, OSStatus status) {
    d->tapFailuresLeft = count;
    d->tapFailureStatus = status;
}

void SimulatedAudioHardware::failReads(AudioObjectID objectID, AudioObjectPropertySelector selector,
                                       OSStatus status) {
    d->readFaults[{objectID, selector}] = status;
}

void SimulatedAudioHardware::failWrites(AudioObjectID objectID,
                                        AudioObjectPropertySelector selector, OSStatus status) {
    d->writeFaults[{objectID, selector}] = status;
}

void SimulatedAudioHardware::clearFaults() {
    d->aggregateFailuresLeft = 0;
    d->tapFailuresLeft = 0;
    d->readFaults.clear();
    d->writeFaults.clear();
}

// --- Properties ---

std::optional<AudioPropertyValue>
SimulatedAudioHardware::propertyValue(AudioObjectID objectID,
                                      const AudioObjectPropertyAddress& address) const {
    const auto selector = address.mSelector;
    if (objectID == kAudioObjectSystemObject) {
        switch (selector) {
        case kAudioHardwarePropertyDevices:
            return AudioPropertyValue{d->deviceOrder};
        case kAudioHardwarePropertyDefaultOutputDevice:
            return AudioPropertyValue{std::uint32_t(d->defaultOutput)};
        case kAudioHardwarePropertyDefaultInputDevice:
            return AudioPropertyValue{std::uint32_t(d->defaultInput)};
        case kAudioHardwarePropertyProcessObjectList:
            return AudioPropertyValue{d->processOrder};
        case kAudioHardwarePropertyTapList:
            return AudioPropertyValue{d->tapOrder};
        default:
            return std::nullopt;
        }
    }
    if (const State::Device* device = d->device(objectID)) {
        const DeviceSpec& spec = device->spec;
        switch (selector) {
        case kAudioDevicePropertyStreamConfiguration:
            if (address.mScope == kAudioObjectPropertyScopeOutput)
                return AudioPropertyValue{AudioStreamConfiguration{d->channels(*device, true)}};
            if (address.mScope == kAudioObjectPropertyScopeInput)
                return AudioPropertyValue{AudioStreamConfiguration{d->channels(*device, false)}};
            return std::nullopt;
        case kAudioDevicePropertyDeviceUID:
            return spec.hasUID ? std::optional<AudioPropertyValue>(spec.uid) : std::nullopt;
        case kAudioObjectPropertyName:
            return spec.hasName ? std::optional<AudioPropertyValue>(spec.name) : std::nullopt;
        case kAudioDevicePropertyTransportType:
            return spec.hasTransportType ? std::optional<AudioPropertyValue>(spec.transportType)
                                         : std::nullopt;
        case kAudioDevicePropertyVolumeScalar: {
            auto it = spec.volume.find(address.mElement);
            return it == spec.volume.end() ? std::nullopt
                                           : std::optional<AudioPropertyValue>(it->second);
        }
        case kAudioDevicePropertyMute:
            if (!spec.mute || address.mElement != kAudioObjectPropertyElementMain)
                return std::nullopt;
            return AudioPropertyValue{std::uint32_t(*spec.mute ? 1 : 0)};
        case kAudioDevicePropertyNominalSampleRate:
            return AudioPropertyValue{double(kDefaultSampleRate)};
        default:
            return std::nullopt;
        }
    }
    if (auto it = d->processes.find(objectID); it != d->processes.end()) {
        const ProcessSpec& spec = it->second.spec;
        switch (selector) {
        case kAudioProcessPropertyPID:
            return AudioPropertyValue{std::int32_t(spec.pid)};
        case kAudioProcessPropertyBundleID:
            return AudioPropertyValue{spec.bundleID};
        case kAudioProcessPropertyIsRunningOutput:
            return AudioPropertyValue{std::uint32_t(spec.isRunningOutput ? 1 : 0)};
        default:
            return std::nullopt;
        }
    }
    if (auto it = d->taps.find(objectID); it != d->taps.end()) {
        if (selector == kAudioTapPropertyUID)
            return AudioPropertyValue{
                it->second.description.uuid.toString(QUuid::WithoutBraces).toUpper()};
        return std::nullopt;
    }
    return std::nullopt;
}

bool SimulatedAudioHardware::AudioObjectHasProperty(
    AudioObjectID objectID, const AudioObjectPropertyAddress& address) const {
    return propertyValue(objectID, address).has_value();
}

OSStatus SimulatedAudioHardware::AudioObjectIsPropertySettable(
    AudioObjectID objectID, const AudioObjectPropertyAddress& address, bool& outIsSettable) const {
    if (!isObject(objectID))
        return kAudioHardwareBadObjectError;
    if (!propertyValue(objectID, address))
        return kAudioHardwareUnknownPropertyError;
    outIsSettable = false;
    if (objectID == kAudioObjectSystemObject) {
        outIsSettable = address.mSelector == kAudioHardwarePropertyDefaultOutputDevice ||
                        address.mSelector == kAudioHardwarePropertyDefaultInputDevice;
    } else if (const State::Device* device = d->device(objectID)) {
        if (address.mSelector == kAudioDevicePropertyVolumeScalar)
            outIsSettable = !device->spec.readOnlyVolumeElements.count(address.mElement);
        else if (address.mSelector == kAudioDevicePropertyMute)
            outIsSettable = device->spec.muteSettable;
    }
    return kAudioHardwareNoError;
}

OSStatus
SimulatedAudioHardware::AudioObjectGetPropertyData(AudioObjectID objectID,
                                                   const AudioObjectPropertyAddress& address,
                                                   AudioPropertyValue& outData) const {
    if (auto fault = d->readFaults.find({objectID, address.mSelector});
        fault != d->readFaults.end())
        return fault->second;
    if (!isObject(objectID))
        return kAudioHardwareBadObjectError;
    auto value = propertyValue(objectID, address);
    if (!value)
        return kAudioHardwareUnknownPropertyError;
    outData = std::move(*value);
    return kAudioHardwareNoError;
}

OSStatus
SimulatedAudioHardware::AudioObjectSetPropertyData(AudioObjectID objectID,
                                                   const AudioObjectPropertyAddress& address,
                                                   const AudioPropertyValue& data) {
    if (auto fault = d->writeFaults.find({objectID, address.mSelector});
        fault != d->writeFaults.end())
        return fault->second;
    bool settable = false;
    if (OSStatus status = AudioObjectIsPropertySettable(objectID, address, settable);
        status != kAudioHardwareNoError)
        return status;
    if (!settable)
        return kAudioHardwareIllegalOperationError;

    const auto selector = address.mSelector;
    if (objectID == kAudioObjectSystemObject) {
        const auto* newDefault = std::get_if<std::uint32_t>(&data);
        if (!newDefault)
            return kAudioHardwareBadPropertySizeError;
        if (!d->devices.count(*newDefault))
            return kAudioHardwareBadObjectError;
        AudioObjectID& current = selector == kAudioHardwarePropertyDefaultOutputDevice
                                     ? d->defaultOutput
                                     : d->defaultInput;
        ++d->setCalls[selector];
        if (current != *newDefault) {
            current = *newDefault;
            notify(kAudioObjectSystemObject, selector);
        }
        return kAudioHardwareNoError;
    }

    State::Device& device = *d->device(objectID);
    if (selector == kAudioDevicePropertyVolumeScalar) {
        const auto* volume = std::get_if<float>(&data);
        if (!volume)
            return kAudioHardwareBadPropertySizeError;
        ++d->setCalls[selector];
        const float clamped = std::clamp(*volume, 0.0f, 1.0f);
        float& stored = device.spec.volume[address.mElement];
        if (stored != clamped) {
            stored = clamped;
            notify(objectID, selector, kAudioObjectPropertyScopeOutput, address.mElement);
        }
        return kAudioHardwareNoError;
    }
    if (selector == kAudioDevicePropertyMute) {
        const auto* mute = std::get_if<std::uint32_t>(&data);
        if (!mute)
            return kAudioHardwareBadPropertySizeError;
        ++d->setCalls[selector];
        if (*device.spec.mute != (*mute != 0)) {
            device.spec.mute = *mute != 0;
            notify(objectID, selector, kAudioObjectPropertyScopeOutput);
        }
        return kAudioHardwareNoError;
    }
    return kAudioHardwareUnknownPropertyError;
}

// --- Aggregates ---

OSStatus SimulatedAudioHardware::AudioHardwareCreateAggregateDevice(const QVariantMap& description,
                                                                    AudioObjectID& outDeviceID) {
    ++d->createAggregateCalls;
    if (d->aggregateFailuresLeft > 0) {
        --d->aggregateFailuresLeft;
        return d->aggregateFailureStatus;
    }
    const QString uid = description.value(kAudioAggregateDeviceUIDKey).toString();
    if (uid.isEmpty() || d->deviceWithUID(uid))
        return kAudioHardwareIllegalOperationError;
    for (const QVariant& entry :
         description.value(kAudioAggregateDeviceSubDeviceListKey).toList()) {
        if (!d->deviceWithUID(entry.toMap().value(kAudioSubDeviceUIDKey).toString()))
            return kAudioHardwareBadDeviceError;
    }
    for (const QVariant& entry : description.value(kAudioAggregateDeviceTapListKey).toList()) {
        const QUuid tapUUID = QUuid::fromString(entry.toMap().value(kAudioSubTapUIDKey).toString());
        const bool known = std::any_of(d->taps.begin(), d->taps.end(), [&](const auto& tap) {
            return !tapUUID.isNull() && tap.second.description.uuid == tapUUID;
        });
        if (!known)
            return kAudioHardwareBadObjectError;
    }

    DeviceSpec spec;
    spec.uid = uid;
    spec.name = description.value(kAudioAggregateDeviceNameKey).toString();
    spec.transportType = kAudioDeviceTransportTypeAggregate;
    spec.outputChannels = {};
    spec.inputChannels = {};
    spec.volume = {};
    spec.mute = std::nullopt;

    const AudioObjectID id = d->nextObjectID++;
    d->devices[id] = State::Device{spec, true, description};
    d->deviceOrder.push_back(id);
    notify(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);
    outDeviceID = id;
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::AudioHardwareDestroyAggregateDevice(AudioObjectID deviceID) {
    ++d->destroyAggregateCalls;
    const State::Device* device = d->device(deviceID);
    if (!device)
        return kAudioHardwareBadObjectError;
    if (!device->isAggregate)
        return kAudioHardwareIllegalOperationError;
    forgetDevice(deviceID);
    return kAudioHardwareNoError;
}

// --- Taps ---

OSStatus SimulatedAudioHardware::AudioHardwareCreateProcessTap(const CATapDescription& description,
                                                               AudioObjectID& outTapID) {
    if (d->tapFailuresLeft > 0) {
        --d->tapFailuresLeft;
        return d->tapFailureStatus;
    }
    // A tap of named processes needs them to exist; excluding one that is not there is harmless.
    if (!description.isExclusive) {
        for (auto processID : description.processes)
            if (!d->processes.count(processID))
                return kAudioHardwareBadObjectError;
    }

    CATapDescription stored = description;
    if (stored.uuid.isNull())
        stored.uuid = QUuid::createUuid();
    const AudioObjectID id = d->nextObjectID++;
    d->taps[id] = State::Tap{stored};
    d->tapOrder.push_back(id);
    notify(kAudioObjectSystemObject, kAudioHardwarePropertyTapList);
    outTapID = id;
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::AudioHardwareDestroyProcessTap(AudioObjectID tapID) {
    if (!d->taps.erase(tapID))
        return kAudioHardwareBadObjectError;
    d->tapOrder.erase(std::remove(d->tapOrder.begin(), d->tapOrder.end(), tapID),
                      d->tapOrder.end());
    notify(kAudioObjectSystemObject, kAudioHardwarePropertyTapList);
    return kAudioHardwareNoError;
}

// --- IO procedures ---

OSStatus SimulatedAudioHardware::AudioDeviceCreateIOProcIDWithBlock(AudioDeviceIOProcID& outProcID,
                                                                    AudioObjectID deviceID,
                                                                    AudioDeviceIOBlock block) {
    if (!d->device(deviceID))
        return kAudioHardwareBadDeviceError;
    if (!block)
        return kAudioHardwareIllegalOperationError;
    outProcID = d->nextProcID++;
    d->ioProcs[outProcID] = State::IOProc{deviceID, std::move(block), false};
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::AudioDeviceDestroyIOProcID(AudioObjectID deviceID,
                                                            AudioDeviceIOProcID procID) {
    auto it = d->ioProcs.find(procID);
    if (it == d->ioProcs.end() || it->second.deviceID != deviceID)
        return kAudioHardwareBadObjectError;
    d->ioProcs.erase(it);
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::setIOProcStarted(AudioObjectID deviceID,
                                                  AudioDeviceIOProcID procID, bool started) {
    if (!d->device(deviceID))
        return kAudioHardwareBadDeviceError;
    auto it = d->ioProcs.find(procID);
    if (it == d->ioProcs.end() || it->second.deviceID != deviceID)
        return kAudioHardwareBadObjectError;
    it->second.started = started;
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::AudioDeviceStart(AudioObjectID deviceID,
                                                  AudioDeviceIOProcID procID) {
    return setIOProcStarted(deviceID, procID, true);
}

OSStatus SimulatedAudioHardware::AudioDeviceStop(AudioObjectID deviceID,
                                                 AudioDeviceIOProcID procID) {
    return setIOProcStarted(deviceID, procID, false);
}

SimulatedAudioHardware::IOCycleResult
SimulatedAudioHardware::runIOCycle(AudioObjectID deviceID, const std::vector<float>& input,
                                   std::uint32_t frames) {
    IOCycleResult result;
    const State::Device* device = d->device(deviceID);
    if (!device) {
        result.status = kAudioHardwareBadDeviceError;
        return result;
    }
    const std::uint32_t outputChannels = sum(d->channels(*device, true));
    std::uint32_t inputChannels = sum(d->channels(*device, false));
    if (inputChannels == 0)
        inputChannels = outputChannels;

    std::vector<float> inputSamples = input;
    AudioBuffer inputBuffer{inputChannels, std::uint32_t(inputSamples.size() * sizeof(float)),
                            inputSamples.empty() ? nullptr : inputSamples.data()};
    const AudioBufferList inputList{1, &inputBuffer};

    result.output.assign(std::size_t(outputChannels) * frames, 0.0f);
    AudioBuffer outputBuffer{outputChannels, std::uint32_t(result.output.size() * sizeof(float)),
                             result.output.empty() ? nullptr : result.output.data()};
    AudioBufferList outputList{outputChannels ? 1u : 0u, &outputBuffer};

    double& sampleTime = d->sampleTimes[deviceID];
    const AudioTimeStamp now{sampleTime, 0};
    for (const auto& [procID, proc] : d->ioProcs) {
        if (proc.deviceID == deviceID && proc.started)
            proc.block(now, inputList, outputList);
    }
    sampleTime += frames;
    return result;
}
