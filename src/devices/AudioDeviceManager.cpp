#include "devices/AudioDeviceManager.h"

#include <QCollator>
#include <QMetaObject>
#include <QPointer>

#include <algorithm>
#include <cmath>

namespace {

const QString kDefaultDeviceAggregatePrefix = QStringLiteral("CADefaultDeviceAggregate");
const QString kGroupUIDPrefix = QStringLiteral("com.kestrivane.ondril.group.");
const QString kUnknownDeviceName = QStringLiteral("Unknown Device");

constexpr AudioObjectPropertyElement kVolumeElements[] = {0, 1, 2};

AudioObjectPropertyAddress globalAddress(AudioObjectPropertySelector selector) {
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}

AudioObjectPropertyAddress
outputAddress(AudioObjectPropertySelector selector,
              AudioObjectPropertyElement element = kAudioObjectPropertyElementMain) {
    return {selector, kAudioObjectPropertyScopeOutput, element};
}

template <typename T>
std::optional<T> readValue(const AudioHardware& hardware, AudioObjectID objectID,
                           const AudioObjectPropertyAddress& address) {
    AudioPropertyValue value;
    if (hardware.AudioObjectGetPropertyData(objectID, address, value) != kAudioHardwareNoError)
        return std::nullopt;
    if (const T* typed = std::get_if<T>(&value))
        return *typed;
    return std::nullopt;
}

// Size first, then data, as the service's protocol has it: a failure of either reads as nothing.
template <typename T>
std::optional<T> readSizedValue(const AudioHardware& hardware, AudioObjectID objectID,
                                const AudioObjectPropertyAddress& address) {
    std::uint32_t size = 0;
    if (hardware.AudioObjectGetPropertyDataSize(objectID, address, size) != kAudioHardwareNoError)
        return std::nullopt;
    return readValue<T>(hardware, objectID, address);
}

bool hasChannels(const AudioHardware& hardware, AudioObjectID deviceID,
                 AudioObjectPropertyScope scope) {
    const auto configuration = readSizedValue<AudioStreamConfiguration>(
        hardware, deviceID,
        {kAudioDevicePropertyStreamConfiguration, scope, kAudioObjectPropertyElementMain});
    if (!configuration)
        return false;
    const auto& buffers = configuration->channelsPerBuffer;
    return std::any_of(buffers.begin(), buffers.end(),
                       [](std::uint32_t channels) { return channels != 0; });
}

std::optional<QString> readName(const AudioHardware& hardware, AudioObjectID deviceID) {
    return readValue<QString>(hardware, deviceID, globalAddress(kAudioObjectPropertyName));
}

bool isAirPlay(const AudioHardware& hardware, AudioObjectID deviceID) {
    const auto address = globalAddress(kAudioDevicePropertyTransportType);
    if (!hardware.AudioObjectHasProperty(deviceID, address))
        return false;
    return readValue<std::uint32_t>(hardware, deviceID, address) ==
           kAudioDeviceTransportTypeAirPlay;
}

bool isSettable(const AudioHardware& hardware, AudioObjectID deviceID,
                const AudioObjectPropertyAddress& address) {
    if (!hardware.AudioObjectHasProperty(deviceID, address))
        return false;
    bool settable = false;
    return hardware.AudioObjectIsPropertySettable(deviceID, address, settable) ==
               kAudioHardwareNoError &&
           settable;
}

// Locale-aware and case-insensitive; std::stable_sort keeps equal names in the service's order.
void sortByName(QList<AudioDevice>& devices) {
    QCollator collator;
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(devices.begin(), devices.end(),
                     [&collator](const AudioDevice& a, const AudioDevice& b) {
                         return collator.compare(a.name, b.name) < 0;
                     });
}

std::optional<AudioObjectID> findByUID(const QList<AudioDevice>& devices, const QString& uid) {
    for (const AudioDevice& device : devices)
        if (device.uid == uid)
            return device.id;
    QStringList uids;
    for (const AudioDevice& device : devices)
        uids.append(device.uid);
    if (const auto match = AudioDevice::matchingUID(uid, uids)) {
        for (const AudioDevice& device : devices)
            if (device.uid == *match)
                return device.id;
    }
    return std::nullopt;
}

} // namespace

AudioDeviceManager::AudioDeviceManager(AudioHardware& hardware, QObject* parent)
    : QObject(parent)
    , m_hardware(hardware) {
    refresh();

    // The listeners outlive nothing: the destructor removes them, and the weak pointer covers a
    // delivery already on its way when the manager goes.
    const QPointer<AudioDeviceManager> weakSelf(this);
    for (auto selector : {kAudioHardwarePropertyDevices, kAudioHardwarePropertyDefaultOutputDevice,
                          kAudioHardwarePropertyDefaultInputDevice}) {
        AudioObjectPropertyListenerToken token = 0;
        const OSStatus status = m_hardware.AudioObjectAddPropertyListenerBlock(
            kAudioObjectSystemObject, globalAddress(selector),
            [weakSelf](const std::vector<AudioObjectPropertyAddress>&) {
                if (weakSelf)
                    weakSelf->refresh();
            },
            token);
        if (status == kAudioHardwareNoError)
            m_listenerTokens.push_back(token);
    }
}

AudioDeviceManager::~AudioDeviceManager() {
    for (auto token : m_listenerTokens)
        m_hardware.AudioObjectRemovePropertyListenerBlock(token);
}

AudioDeviceManager& AudioDeviceManager::shared() {
    // Never destroyed, like the service it listens to.
    static AudioDeviceManager* manager = new AudioDeviceManager(AudioHardware::shared());
    return *manager;
}

AudioObjectID AudioDeviceManager::readDefaultOutputID() const {
    return readValue<std::uint32_t>(m_hardware, kAudioObjectSystemObject,
                                    globalAddress(kAudioHardwarePropertyDefaultOutputDevice))
        .value_or(kAudioObjectUnknown);
}

AudioObjectID AudioDeviceManager::readDefaultInputID() const {
    const auto address = globalAddress(kAudioHardwarePropertyDefaultInputDevice);
    if (!m_hardware.AudioObjectHasProperty(kAudioObjectSystemObject, address))
        return kAudioObjectUnknown;
    return readValue<std::uint32_t>(m_hardware, kAudioObjectSystemObject, address)
        .value_or(kAudioObjectUnknown);
}

std::optional<QString> AudioDeviceManager::readUID(AudioObjectID objectID) const {
    return readValue<QString>(m_hardware, objectID, globalAddress(kAudioDevicePropertyDeviceUID));
}

bool AudioDeviceManager::setDefaultInputDevice(AudioObjectID deviceID) {
    return m_hardware.AudioObjectSetPropertyData(
               kAudioObjectSystemObject, globalAddress(kAudioHardwarePropertyDefaultInputDevice),
               AudioPropertyValue(std::uint32_t(deviceID))) == kAudioHardwareNoError;
}

void AudioDeviceManager::refresh() {
    const AudioObjectID defaultOutput = readDefaultOutputID();
    const AudioObjectID defaultInput = readDefaultInputID();
    const std::vector<AudioObjectID> deviceIDs =
        readSizedValue<std::vector<AudioObjectID>>(m_hardware, kAudioObjectSystemObject,
                                                   globalAddress(kAudioHardwarePropertyDevices))
            .value_or(std::vector<AudioObjectID>{});

    QList<AudioDevice> outputs;
    for (AudioObjectID id : deviceIDs) {
        if (!hasChannels(m_hardware, id, kAudioObjectPropertyScopeOutput))
            continue;
        const auto uid = readUID(id);
        const auto name = readName(m_hardware, id);
        // The service's own stand-in for the default device is not a device the user picks.
        if (uid.value_or(QString()).startsWith(kDefaultDeviceAggregatePrefix) ||
            name.value_or(QString()).startsWith(kDefaultDeviceAggregatePrefix))
            continue;
        AudioDevice device;
        device.id = id;
        device.uid = uid.value_or(QString());
        device.name = name.value_or(kUnknownDeviceName);
        device.volume = volume(id);
        device.isVolumeSettable = isVolumeSettable(id);
        device.isAirPlay = isAirPlay(m_hardware, id);
        device.isInput = false;
        outputs.append(device);
    }
    sortByName(outputs);

    QList<AudioDevice> inputs;
    for (AudioObjectID id : deviceIDs) {
        if (!hasChannels(m_hardware, id, kAudioObjectPropertyScopeInput))
            continue;
        const auto uid = readUID(id);
        if (uid && uid->startsWith(kGroupUIDPrefix))
            continue;
        AudioDevice device;
        device.id = id;
        device.uid = uid.value_or(QString());
        device.name = readName(m_hardware, id).value_or(kUnknownDeviceName);
        device.isInput = true;
        inputs.append(device);
    }
    sortByName(inputs);

    QMetaObject::invokeMethod(
        this,
        [this, defaultOutput, defaultInput, outputs = std::move(outputs),
         inputs = std::move(inputs)]() mutable {
            publish(defaultOutput, defaultInput, std::move(outputs), std::move(inputs));
        },
        Qt::QueuedConnection);
}

void AudioDeviceManager::publish(AudioObjectID defaultOutputID, AudioObjectID defaultInputID,
                                 QList<AudioDevice> outputs, QList<AudioDevice> inputs) {
    // Every assignment is announced, also of an equal value: observers count on hearing each
    // refresh.
    m_defaultOutputID = defaultOutputID;
    emit defaultOutputIDChanged();
    m_defaultInputID = defaultInputID;
    emit defaultInputIDChanged();
    m_outputDevices = std::move(outputs);
    emit outputDevicesChanged();
    m_inputDevices = std::move(inputs);
    emit inputDevicesChanged();
}

std::optional<AudioObjectID> AudioDeviceManager::deviceIDForOutputUID(const QString& uid) const {
    return findByUID(m_outputDevices, uid);
}

std::optional<AudioObjectID> AudioDeviceManager::deviceIDForInputUID(const QString& uid) const {
    return findByUID(m_inputDevices, uid);
}

std::optional<float> AudioDeviceManager::volume(AudioObjectID deviceID) const {
    for (auto element : kVolumeElements) {
        const auto address = outputAddress(kAudioDevicePropertyVolumeScalar, element);
        if (!m_hardware.AudioObjectHasProperty(deviceID, address))
            continue;
        if (const auto value = readValue<float>(m_hardware, deviceID, address))
            return value;
    }
    return std::nullopt;
}

bool AudioDeviceManager::isVolumeSettable(AudioObjectID deviceID) const {
    return std::any_of(std::begin(kVolumeElements), std::end(kVolumeElements),
                       [&](AudioObjectPropertyElement element) {
                           return isSettable(
                               m_hardware, deviceID,
                               outputAddress(kAudioDevicePropertyVolumeScalar, element));
                       });
}

bool AudioDeviceManager::setVolume(float value, AudioObjectID deviceID) {
    if (std::isnan(value))
        return false; // no level to write; an infinity clamps to an end below
    const float clamped = std::clamp(value, 0.0f, 1.0f);
    // Every writable control is set: a device with a main and channel controls gets all of them.
    bool anyWritten = false;
    for (auto element : kVolumeElements) {
        const auto address = outputAddress(kAudioDevicePropertyVolumeScalar, element);
        if (!isSettable(m_hardware, deviceID, address))
            continue;
        if (m_hardware.AudioObjectSetPropertyData(deviceID, address, clamped) ==
            kAudioHardwareNoError)
            anyWritten = true;
    }
    if (!anyWritten)
        return false;

    QMetaObject::invokeMethod(
        this,
        [this, deviceID, clamped] {
            for (AudioDevice& device : m_outputDevices) {
                if (device.id == deviceID) {
                    device.volume = clamped;
                    emit outputDevicesChanged();
                    return;
                }
            }
        },
        Qt::QueuedConnection);
    return true;
}

std::optional<bool> AudioDeviceManager::isMuted(AudioObjectID deviceID,
                                                AudioObjectPropertyScope scope) const {
    const AudioObjectPropertyAddress address{kAudioDevicePropertyMute, scope,
                                             kAudioObjectPropertyElementMain};
    if (!m_hardware.AudioObjectHasProperty(deviceID, address))
        return std::nullopt;
    const auto value = readValue<std::uint32_t>(m_hardware, deviceID, address);
    if (!value)
        return std::nullopt;
    return *value != 0;
}

bool AudioDeviceManager::setMute(bool muted, AudioObjectID deviceID) {
    const auto address = outputAddress(kAudioDevicePropertyMute);
    if (!isSettable(m_hardware, deviceID, address))
        return false;
    return m_hardware.AudioObjectSetPropertyData(deviceID, address, std::uint32_t(muted ? 1 : 0)) ==
           kAudioHardwareNoError;
}
