#pragma once

#include "platform/AudioHardwareTypes.h"
#include "platform/pulse/PulseRecords.h"

#include <QMap>
#include <QString>

#include <map>
#include <vector>

// What the program knows of the server: sinks and non-monitor sources keyed by name, streams,
// clients and modules keyed by index, and the server's defaults. Each update says what changed
// as notices, which become listener calls. Copes with the server's races: a "change" may come
// before the "new", a remove for an object never seen, and PipeWire's placeholder default name
// while a default sink goes away. Not thread-safe by itself; its owner locks it.
class PulseMirror {
public:
    enum class Target { System, Sink, Source };
    struct Notice {
        Target target = Target::System;
        QString name; // of the sink or source; empty for the system object
        AudioObjectPropertySelector selector = 0;
        friend bool operator==(const Notice&, const Notice&) = default;
    };
    using Notices = std::vector<Notice>;

    // PipeWire answers "@DEFAULT_SINK@" for a default while its session manager settles one.
    static bool isPlaceholderName(const QString& name) { return name.startsWith(QLatin1Char('@')); }

    struct Process {
        std::int32_t pid = 0;
        QString binary;
        bool isRunningOutput = false;
    };

    Notices upsertSink(const PulseRecords::Device& sink);
    Notices removeSink(std::uint32_t index);
    Notices upsertSource(const PulseRecords::Device& source);
    Notices removeSource(std::uint32_t index);
    Notices upsertStream(const PulseRecords::Stream& stream);
    Notices removeStream(std::uint32_t index);
    Notices upsertClient(const PulseRecords::Client& client);
    Notices removeClient(std::uint32_t index);
    Notices upsertModule(const PulseRecords::Module& module); // modules give no notices
    Notices removeModule(std::uint32_t index);
    Notices setServer(const PulseRecords::Server& server);

    // Every notice a wholesale replacement deserves: devices, defaults and processes.
    static Notices resynchronisation();

    const PulseRecords::Device* sink(const QString& name) const;
    const PulseRecords::Device* source(const QString& name) const;
    const PulseRecords::Module* module(std::uint32_t index) const;
    std::vector<const PulseRecords::Device*> sinksInServerOrder() const;
    std::vector<const PulseRecords::Device*> sourcesInServerOrder() const;
    const std::map<std::uint32_t, PulseRecords::Stream>& streams() const { return m_streams; }
    std::vector<Process> processes() const; // by pid, ascending
    const PulseRecords::Server& server() const { return m_server; }

private:
    static Notices upsertDevice(QMap<QString, PulseRecords::Device>& devices,
                                std::map<std::uint32_t, QString>& names, Target target,
                                const PulseRecords::Device& device);
    static Notices removeDevice(QMap<QString, PulseRecords::Device>& devices,
                                std::map<std::uint32_t, QString>& names, std::uint32_t index);
    std::int32_t pidOf(const PulseRecords::Stream& stream) const;

    QMap<QString, PulseRecords::Device> m_sinks;
    std::map<std::uint32_t, QString> m_sinkNames;
    QMap<QString, PulseRecords::Device> m_sources;
    std::map<std::uint32_t, QString> m_sourceNames;
    std::map<std::uint32_t, PulseRecords::Stream> m_streams;
    std::map<std::uint32_t, PulseRecords::Client> m_clients;
    std::map<std::uint32_t, PulseRecords::Module> m_modules;
    PulseRecords::Server m_server;
};
