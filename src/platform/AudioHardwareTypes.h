#pragma once

// The vocabulary of the audio service: object ids, property addresses, status codes, buffer lists
// and the descriptions of aggregates and taps. The names follow the audio-service API the logic
// was designed against, so that the code above the seam reads like the algorithms it implements.

#include <QString>
#include <QStringList>
#include <QUuid>
#include <QVariantMap>

#include <cstdint>
#include <functional>
#include <string_view>
#include <variant>
#include <vector>

using AudioObjectID = std::uint32_t;
using OSStatus = std::int32_t;
using AudioObjectPropertySelector = std::uint32_t;
using AudioObjectPropertyScope = std::uint32_t;
using AudioObjectPropertyElement = std::uint32_t;
using AudioDeviceIOProcID = std::uint32_t;

// A four-character code as the audio service spells its constants: 'dev#' is 0x64657623.
constexpr std::uint32_t fourCharCode(std::string_view code) {
    return (std::uint32_t(std::uint8_t(code[0])) << 24) |
           (std::uint32_t(std::uint8_t(code[1])) << 16) |
           (std::uint32_t(std::uint8_t(code[2])) << 8) | std::uint32_t(std::uint8_t(code[3]));
}

constexpr AudioObjectID kAudioObjectUnknown = 0;
constexpr AudioObjectID kAudioObjectSystemObject = 1;

// Selectors.
constexpr AudioObjectPropertySelector kAudioHardwarePropertyDevices = fourCharCode("dev#");
constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultOutputDevice =
    fourCharCode("dOut");
constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultInputDevice =
    fourCharCode("dIn ");
constexpr AudioObjectPropertySelector kAudioHardwarePropertyProcessObjectList =
    fourCharCode("prs#");
constexpr AudioObjectPropertySelector kAudioHardwarePropertyTapList = fourCharCode("tps#");
constexpr AudioObjectPropertySelector kAudioDevicePropertyStreamConfiguration =
    fourCharCode("slay");
constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceUID = fourCharCode("uid ");
constexpr AudioObjectPropertySelector kAudioObjectPropertyName = fourCharCode("lnam");
constexpr AudioObjectPropertySelector kAudioDevicePropertyTransportType = fourCharCode("tran");
constexpr AudioObjectPropertySelector kAudioDevicePropertyVolumeScalar = fourCharCode("volm");
constexpr AudioObjectPropertySelector kAudioDevicePropertyMute = fourCharCode("mute");
constexpr AudioObjectPropertySelector kAudioDevicePropertyNominalSampleRate = fourCharCode("nsrt");
constexpr AudioObjectPropertySelector kAudioProcessPropertyPID = fourCharCode("ppid");
constexpr AudioObjectPropertySelector kAudioProcessPropertyBundleID = fourCharCode("pbid");
constexpr AudioObjectPropertySelector kAudioProcessPropertyIsRunningOutput = fourCharCode("piro");
constexpr AudioObjectPropertySelector kAudioTapPropertyUID = fourCharCode("tuid");

// Scopes.
constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeGlobal = fourCharCode("glob");
constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeOutput = fourCharCode("outp");
constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeInput = fourCharCode("inpt");

// Elements.
constexpr AudioObjectPropertyElement kAudioObjectPropertyElementMain = 0;

// Transport types.
constexpr std::uint32_t kAudioDeviceTransportTypeBuiltIn = fourCharCode("bltn");
constexpr std::uint32_t kAudioDeviceTransportTypeUSB = fourCharCode("usb ");
constexpr std::uint32_t kAudioDeviceTransportTypeBluetooth = fourCharCode("blue");
constexpr std::uint32_t kAudioDeviceTransportTypeHDMI = fourCharCode("hdmi");
constexpr std::uint32_t kAudioDeviceTransportTypeDisplayPort = fourCharCode("dprt");
constexpr std::uint32_t kAudioDeviceTransportTypeAirPlay = fourCharCode("airp");
constexpr std::uint32_t kAudioDeviceTransportTypeAggregate = fourCharCode("grup");
constexpr std::uint32_t kAudioDeviceTransportTypeVirtual = fourCharCode("virt");
constexpr std::uint32_t kAudioDeviceTransportTypeUnknown = 0;

// Status codes. Success is 0; every failure is one of these, never an exception.
constexpr OSStatus kAudioHardwareNoError = 0;
constexpr OSStatus kAudioHardwareNotRunningError = OSStatus(fourCharCode("stop"));
constexpr OSStatus kAudioHardwareUnspecifiedError = OSStatus(fourCharCode("what"));
constexpr OSStatus kAudioHardwareUnknownPropertyError = OSStatus(fourCharCode("who?"));
constexpr OSStatus kAudioHardwareBadPropertySizeError = OSStatus(fourCharCode("!siz"));
constexpr OSStatus kAudioHardwareIllegalOperationError = OSStatus(fourCharCode("nope"));
constexpr OSStatus kAudioHardwareBadObjectError = OSStatus(fourCharCode("!obj"));
constexpr OSStatus kAudioHardwareBadDeviceError = OSStatus(fourCharCode("!dev"));
constexpr OSStatus kAudioHardwareUnsupportedOperationError = OSStatus(fourCharCode("unop"));
constexpr OSStatus kAudioDevicePermissionsError = OSStatus(fourCharCode("!hog"));

struct AudioObjectPropertyAddress {
    AudioObjectPropertySelector mSelector = 0;
    AudioObjectPropertyScope mScope = kAudioObjectPropertyScopeGlobal;
    AudioObjectPropertyElement mElement = kAudioObjectPropertyElementMain;

    friend bool operator==(const AudioObjectPropertyAddress&,
                           const AudioObjectPropertyAddress&) = default;
};

// The value of 'slay': one entry per buffer, each the number of interleaved channels in it.
struct AudioStreamConfiguration {
    std::vector<std::uint32_t> channelsPerBuffer;

    std::uint32_t totalChannels() const {
        std::uint32_t total = 0;
        for (auto channels : channelsPerBuffer)
            total += channels;
        return total;
    }
    friend bool operator==(const AudioStreamConfiguration&,
                           const AudioStreamConfiguration&) = default;
};

// What a property holds. Each selector has one kind of value:
//   'dev#', 'prs#', 'tps#'            -> object id list
//   'dOut', 'dIn ', 'tran', 'mute', 'piro' -> UInt32
//   'ppid'                            -> Int32
//   'volm', 'nsrt'                    -> Float32 (the sample rate as Float64 in the service, kept
//   as double here) 'uid ', 'lnam', 'pbid', 'tuid'    -> text 'slay'                            ->
//   stream configuration
using AudioPropertyValue =
    std::variant<std::monostate, std::uint32_t, std::int32_t, float, double, QString,
                 std::vector<AudioObjectID>, AudioStreamConfiguration>;

// The byte size the service reports for a value, as the size-then-data protocol expects: an id
// list is 4 bytes per id, a stream configuration is the header plus 16 bytes per buffer, a text
// is one reference.
std::uint32_t audioPropertyValueByteSize(const AudioPropertyValue& value);

// Real-time buffers, shaped after the service's buffer lists: interleaved 32-bit float frames.
struct AudioBuffer {
    std::uint32_t mNumberChannels = 0;
    std::uint32_t mDataByteSize = 0;
    void* mData = nullptr;
};

struct AudioBufferList {
    std::uint32_t mNumberBuffers = 0;
    AudioBuffer* mBuffers = nullptr; // caller-owned array of mNumberBuffers entries
};

struct AudioTimeStamp {
    double mSampleTime = 0;
    std::uint64_t mHostTime = 0;
};

// Runs on the real-time thread of the device: no allocation, no lock, no log, no Qt object.
using AudioDeviceIOBlock = std::function<void(
    const AudioTimeStamp& now, const AudioBufferList& inInputData, AudioBufferList& outOutputData)>;

// Listeners are delivered on the main thread, after the change, with the addresses that changed.
using AudioObjectPropertyListenerBlock =
    std::function<void(const std::vector<AudioObjectPropertyAddress>&)>;
using AudioObjectPropertyListenerToken = std::uint64_t;

// Keys of an aggregate-device description (a dictionary, as the service takes it).
inline const QString kAudioAggregateDeviceNameKey = QStringLiteral("name");
inline const QString kAudioAggregateDeviceUIDKey = QStringLiteral("uid");
inline const QString kAudioAggregateDeviceIsStackedKey = QStringLiteral("stacked");
inline const QString kAudioAggregateDeviceIsPrivateKey = QStringLiteral("private");
inline const QString kAudioAggregateDeviceMainSubDeviceKey = QStringLiteral("master");
inline const QString kAudioAggregateDeviceSubDeviceListKey = QStringLiteral("subdevices");
inline const QString kAudioAggregateDeviceTapListKey = QStringLiteral("taps");
inline const QString kAudioAggregateDeviceTapAutoStartKey = QStringLiteral("tapautostart");
inline const QString kAudioSubDeviceUIDKey = QStringLiteral("uid");
inline const QString kAudioSubDeviceDriftCompensationKey = QStringLiteral("drift");
inline const QString kAudioSubTapUIDKey = QStringLiteral("uid");
inline const QString kAudioSubTapDriftCompensationKey = QStringLiteral("drift");

enum class CATapMuteBehavior { CATapUnmuted = 0, CATapMuted = 1, CATapMutedWhenTapped = 2 };

// What a process tap captures: either a mixdown of the listed processes, or everything but them.
struct CATapDescription {
    std::vector<AudioObjectID> processes;
    bool isMixdown = true;
    bool isMono = false;
    bool isExclusive = false; // true: every process except `processes` (global-but-exclude)
    QString name;
    bool isPrivate = true;
    CATapMuteBehavior muteBehavior = CATapMuteBehavior::CATapUnmuted;
    QUuid uuid;
};
