#pragma once

#include <QString>

#include <cstdint>
#include <vector>

struct pa_sink_info;
struct pa_source_info;
struct pa_sink_input_info;
struct pa_client_info;
struct pa_module_info;
struct pa_server_info;

// Plain copies of what the server says of its objects, taken on the mainloop thread so that the
// main thread never touches libpulse's own structures. Volumes stay in the server's units.
namespace PulseRecords {

constexpr std::uint32_t kInvalidIndex = 0xffffffffu;
// A combined sink's property naming the pid of the Ondril process that made it.
constexpr const char* kOwnerPidProperty = "ondril.owner.pid";

struct Device {
    std::uint32_t index = kInvalidIndex;
    QString name;
    QString description;
    std::vector<std::uint32_t> volume; // one pa_volume_t per channel
    bool mute = false;
    std::uint32_t ownerModule = kInvalidIndex;
    std::uint32_t transportType = 0;
    bool isMonitor = false;
    QString monitorSource;     // of a sink: the source that carries what it plays
    std::int32_t ownerPid = 0; // the Ondril process that made a combined sink, 0 for any other
    std::uint32_t channels() const { return std::uint32_t(volume.size()); }
    friend bool operator==(const Device&, const Device&) = default;
};

struct Stream {
    std::uint32_t index = kInvalidIndex;
    std::uint32_t client = kInvalidIndex;
    std::uint32_t sink = kInvalidIndex; // PipeWire says invalid while a stream is being placed
    std::uint32_t ownerModule = kInvalidIndex;
    bool corked = false;
    std::int32_t pid = 0; // from the stream's own properties, 0 when it has none
    QString binary;
    QString restoreID;          // the stream-restore entry that remembers the stream's sink, if any
    std::uint32_t channels = 0; // of its volume
    // Who the stream says it belongs to: application.id, pipewire.access.portal.app_id,
    // application.name and application.icon_name, empty when not set.
    QString applicationID{};
    QString portalAppID{};
    QString applicationName{};
    QString iconName{};
    friend bool operator==(const Stream&, const Stream&) = default;
};

struct Client {
    std::uint32_t index = kInvalidIndex;
    std::int32_t pid = 0;
    QString binary;
    friend bool operator==(const Client&, const Client&) = default;
};

struct Module {
    std::uint32_t index = kInvalidIndex;
    QString name;
    QString argument;
};

struct Server {
    QString serverName;
    QString defaultSink;
    QString defaultSource;
};

Device fromSink(const pa_sink_info& info);
Device fromSource(const pa_source_info& info);
Stream fromSinkInput(const pa_sink_input_info& info);
Client fromClient(const pa_client_info& info);
Module fromModule(const pa_module_info& info);
Server fromServer(const pa_server_info& info);

} // namespace PulseRecords
