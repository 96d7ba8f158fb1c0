#include "platform/pulse/PulseMirror.h"

#include <algorithm>

PulseMirror::Notices PulseMirror::upsertDevice(QMap<QString, PulseRecords::Device>& devices,
                                               std::map<std::uint32_t, QString>& names,
                                               Target target, const PulseRecords::Device& device) {
    Notices notices;
    // A renamed object is a removal and an addition: the name is its identity.
    const auto previousName = names.find(device.index);
    if (previousName != names.end() && previousName->second != device.name) {
        devices.remove(previousName->second);
        notices.push_back({Target::System, {}, kAudioHardwarePropertyDevices});
    }
    names[device.index] = device.name;
    const auto existing = devices.find(device.name);
    if (existing == devices.end()) {
        devices.insert(device.name, device);
        notices.push_back({Target::System, {}, kAudioHardwarePropertyDevices});
        return notices;
    }
    const PulseRecords::Device old = *existing;
    *existing = device;
    if (old.index != device.index)
        names.erase(old.index);
    if (old.volume != device.volume)
        notices.push_back({target, device.name, kAudioDevicePropertyVolumeScalar});
    if (old.mute != device.mute)
        notices.push_back({target, device.name, kAudioDevicePropertyMute});
    if (old.description != device.description)
        notices.push_back({target, device.name, kAudioObjectPropertyName});
    if (old.channels() != device.channels())
        notices.push_back({target, device.name, kAudioDevicePropertyStreamConfiguration});
    return notices;
}

PulseMirror::Notices PulseMirror::removeDevice(QMap<QString, PulseRecords::Device>& devices,
                                               std::map<std::uint32_t, QString>& names,
                                               std::uint32_t index) {
    const auto name = names.find(index);
    if (name == names.end())
        return {};
    const auto device = devices.find(name->second);
    const bool known = device != devices.end() && device->index == index;
    if (known)
        devices.erase(device);
    names.erase(name);
    if (!known)
        return {};
    return {{Target::System, {}, kAudioHardwarePropertyDevices}};
}

PulseMirror::Notices PulseMirror::upsertSink(const PulseRecords::Device& sink) {
    return upsertDevice(m_sinks, m_sinkNames, Target::Sink, sink);
}

PulseMirror::Notices PulseMirror::removeSink(std::uint32_t index) {
    return removeDevice(m_sinks, m_sinkNames, index);
}

PulseMirror::Notices PulseMirror::upsertSource(const PulseRecords::Device& source) {
    // Monitors are not devices: an input is a source that hears something of its own.
    if (source.isMonitor)
        return removeSource(source.index);
    return upsertDevice(m_sources, m_sourceNames, Target::Source, source);
}

PulseMirror::Notices PulseMirror::removeSource(std::uint32_t index) {
    return removeDevice(m_sources, m_sourceNames, index);
}

PulseMirror::Notices PulseMirror::upsertStream(const PulseRecords::Stream& stream) {
    const auto existing = m_streams.find(stream.index);
    if (existing != m_streams.end() && existing->second == stream)
        return {};
    m_streams[stream.index] = stream;
    return {{Target::System, {}, kAudioHardwarePropertyProcessObjectList}};
}

PulseMirror::Notices PulseMirror::removeStream(std::uint32_t index) {
    if (m_streams.erase(index) == 0)
        return {};
    return {{Target::System, {}, kAudioHardwarePropertyProcessObjectList}};
}

PulseMirror::Notices PulseMirror::upsertClient(const PulseRecords::Client& client) {
    const auto existing = m_clients.find(client.index);
    if (existing != m_clients.end() && existing->second == client)
        return {};
    m_clients[client.index] = client;
    return {{Target::System, {}, kAudioHardwarePropertyProcessObjectList}};
}

PulseMirror::Notices PulseMirror::removeClient(std::uint32_t index) {
    if (m_clients.erase(index) == 0)
        return {};
    return {{Target::System, {}, kAudioHardwarePropertyProcessObjectList}};
}

PulseMirror::Notices PulseMirror::upsertModule(const PulseRecords::Module& module) {
    m_modules[module.index] = module;
    return {};
}

PulseMirror::Notices PulseMirror::removeModule(std::uint32_t index) {
    m_modules.erase(index);
    return {};
}

PulseMirror::Notices PulseMirror::setServer(const PulseRecords::Server& server) {
    Notices notices;
    m_server.serverName = server.serverName;
    if (!isPlaceholderName(server.defaultSink) && server.defaultSink != m_server.defaultSink) {
        m_server.defaultSink = server.defaultSink;
        notices.push_back({Target::System, {}, kAudioHardwarePropertyDefaultOutputDevice});
    }
    if (!isPlaceholderName(server.defaultSource) &&
        server.defaultSource != m_server.defaultSource) {
        m_server.defaultSource = server.defaultSource;
        notices.push_back({Target::System, {}, kAudioHardwarePropertyDefaultInputDevice});
    }
    return notices;
}

PulseMirror::Notices PulseMirror::resynchronisation() {
    return {{Target::System, {}, kAudioHardwarePropertyDevices},
            {Target::System, {}, kAudioHardwarePropertyDefaultOutputDevice},
            {Target::System, {}, kAudioHardwarePropertyDefaultInputDevice},
            {Target::System, {}, kAudioHardwarePropertyProcessObjectList}};
}

const PulseRecords::Device* PulseMirror::sink(const QString& name) const {
    const auto found = m_sinks.constFind(name);
    return found == m_sinks.constEnd() ? nullptr : &*found;
}

const PulseRecords::Device* PulseMirror::source(const QString& name) const {
    const auto found = m_sources.constFind(name);
    return found == m_sources.constEnd() ? nullptr : &*found;
}

const PulseRecords::Module* PulseMirror::module(std::uint32_t index) const {
    const auto found = m_modules.find(index);
    return found == m_modules.end() ? nullptr : &found->second;
}

std::vector<const PulseRecords::Device*> PulseMirror::sinksInServerOrder() const {
    std::vector<const PulseRecords::Device*> sinks;
    for (const auto& sink : m_sinks)
        sinks.push_back(&sink);
    std::sort(sinks.begin(), sinks.end(), [](auto* a, auto* b) { return a->index < b->index; });
    return sinks;
}

std::vector<const PulseRecords::Device*> PulseMirror::sourcesInServerOrder() const {
    std::vector<const PulseRecords::Device*> sources;
    for (const auto& source : m_sources)
        sources.push_back(&source);
    std::sort(sources.begin(), sources.end(), [](auto* a, auto* b) { return a->index < b->index; });
    return sources;
}

std::int32_t PulseMirror::pidOf(const PulseRecords::Stream& stream) const {
    if (stream.pid != 0)
        return stream.pid;
    const auto client = m_clients.find(stream.client);
    return client == m_clients.end() ? 0 : client->second.pid;
}

std::vector<PulseMirror::Process> PulseMirror::processes() const {
    std::map<std::int32_t, Process> byPid;
    for (const auto& [index, stream] : m_streams) {
        // Streams a module plays (a combined sink's feeds to its members) belong to no process.
        if (stream.client == PulseRecords::kInvalidIndex)
            continue;
        const std::int32_t pid = pidOf(stream);
        if (pid == 0)
            continue;
        Process& process = byPid[pid];
        process.pid = pid;
        if (process.binary.isEmpty()) {
            const auto client = m_clients.find(stream.client);
            process.binary = !stream.binary.isEmpty()    ? stream.binary
                             : client != m_clients.end() ? client->second.binary
                                                         : QString();
        }
        process.isRunningOutput = process.isRunningOutput || !stream.corked;
    }
    std::vector<Process> processes;
    for (const auto& [pid, process] : byPid)
        processes.push_back(process);
    return processes;
}
