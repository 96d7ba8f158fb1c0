#include "platform/pulse/PulseRecords.h"

#include "platform/AudioHardwareTypes.h"

#include <pulse/introspect.h>
#include <pulse/proplist.h>

namespace {

QString property(const pa_proplist* properties, const char* key) {
    const char* value = properties ? pa_proplist_gets(properties, key) : nullptr;
    return value ? QString::fromUtf8(value) : QString();
}

std::vector<std::uint32_t> channelVolumes(const pa_cvolume& volume) {
    return {volume.values, volume.values + volume.channels};
}

// Coarse on purpose: only AirPlay and groups change what the program does; the rest picks icons.
std::uint32_t guessTransportType(const QString& name, const QString& driver,
                                 const pa_proplist* properties) {
    if (name.startsWith(QLatin1String("raop_output.")) ||
        name.startsWith(QLatin1String("raop_sink.")) || driver.contains(QLatin1String("raop")) ||
        !property(properties, "raop.ip").isEmpty() ||
        !property(properties, "raop.hostname").isEmpty())
        return kAudioDeviceTransportTypeAirPlay;
    if (driver.contains(QLatin1String("combine")) ||
        property(properties, "device.class") == QLatin1String("combine"))
        return kAudioDeviceTransportTypeAggregate;
    const QString bus = property(properties, "device.bus");
    const QString formFactor = property(properties, "device.form_factor");
    const QString profile = property(properties, "device.profile.name");
    if (bus == QLatin1String("bluetooth"))
        return kAudioDeviceTransportTypeBluetooth;
    if (bus == QLatin1String("usb"))
        return kAudioDeviceTransportTypeUSB;
    if (profile.contains(QLatin1String("hdmi")) || name.contains(QLatin1String("hdmi")))
        return kAudioDeviceTransportTypeHDMI;
    if (bus == QLatin1String("pci") || formFactor == QLatin1String("internal"))
        return kAudioDeviceTransportTypeBuiltIn;
    return kAudioDeviceTransportTypeVirtual;
}

std::int32_t pidOf(const pa_proplist* properties,
                   const char* key = PA_PROP_APPLICATION_PROCESS_ID) {
    bool ok = false;
    const int pid = property(properties, key).toInt(&ok);
    return ok ? pid : 0;
}

QString binaryOf(const pa_proplist* properties) {
    const QString binary = property(properties, PA_PROP_APPLICATION_PROCESS_BINARY);
    return binary.isEmpty() ? property(properties, PA_PROP_APPLICATION_NAME) : binary;
}

// The name module-stream-restore files a stream under: its own id property, else the first of
// role, application id, application name and media name.
QString restoreIDOf(const pa_proplist* properties) {
    const QString own = property(properties, "module-stream-restore.id");
    if (!own.isEmpty())
        return own;
    const std::pair<const char*, const char*> keys[] = {
        {PA_PROP_MEDIA_ROLE, "media-role"},
        {PA_PROP_APPLICATION_ID, "application-id"},
        {PA_PROP_APPLICATION_NAME, "application-name"},
        {PA_PROP_MEDIA_NAME, "media-name"},
    };
    for (const auto& [key, kind] : keys) {
        const QString value = property(properties, key);
        if (!value.isEmpty())
            return QStringLiteral("sink-input-by-%1:%2").arg(QLatin1String(kind), value);
    }
    return {};
}

// Sinks and sources are described by two structures with the same fields.
template <typename Info> PulseRecords::Device fromDeviceInfo(const Info& info) {
    PulseRecords::Device device;
    device.index = info.index;
    device.name = QString::fromUtf8(info.name);
    device.description = QString::fromUtf8(info.description ? info.description : info.name);
    device.volume = channelVolumes(info.volume);
    device.mute = info.mute != 0;
    device.ownerModule = info.owner_module;
    device.transportType = guessTransportType(
        device.name, QString::fromUtf8(info.driver ? info.driver : ""), info.proplist);
    device.ownerPid = pidOf(info.proplist, PulseRecords::kOwnerPidProperty);
    return device;
}

} // namespace

namespace PulseRecords {

Device fromSink(const pa_sink_info& info) {
    Device device = fromDeviceInfo(info);
    device.monitorSource =
        QString::fromUtf8(info.monitor_source_name ? info.monitor_source_name : "");
    return device;
}

Device fromSource(const pa_source_info& info) {
    Device device = fromDeviceInfo(info);
    device.isMonitor = info.monitor_of_sink != PA_INVALID_INDEX;
    return device;
}

Stream fromSinkInput(const pa_sink_input_info& info) {
    Stream stream;
    stream.index = info.index;
    stream.client = info.client;
    stream.sink = info.sink;
    stream.ownerModule = info.owner_module;
    stream.corked = info.corked != 0;
    stream.pid = pidOf(info.proplist);
    stream.binary = binaryOf(info.proplist);
    stream.restoreID = restoreIDOf(info.proplist);
    stream.channels = info.volume.channels;
    stream.applicationID = property(info.proplist, PA_PROP_APPLICATION_ID);
    stream.portalAppID = property(info.proplist, "pipewire.access.portal.app_id");
    stream.applicationName = property(info.proplist, PA_PROP_APPLICATION_NAME);
    stream.iconName = property(info.proplist, PA_PROP_APPLICATION_ICON_NAME);
    return stream;
}

Client fromClient(const pa_client_info& info) {
    Client client;
    client.index = info.index;
    client.pid = pidOf(info.proplist);
    client.binary = binaryOf(info.proplist);
    if (client.binary.isEmpty() && info.name)
        client.binary = QString::fromUtf8(info.name);
    return client;
}

Module fromModule(const pa_module_info& info) {
    return {info.index, QString::fromUtf8(info.name ? info.name : ""),
            QString::fromUtf8(info.argument ? info.argument : "")};
}

Server fromServer(const pa_server_info& info) {
    return {QString::fromUtf8(info.server_name ? info.server_name : ""),
            QString::fromUtf8(info.default_sink_name ? info.default_sink_name : ""),
            QString::fromUtf8(info.default_source_name ? info.default_source_name : "")};
}

} // namespace PulseRecords
