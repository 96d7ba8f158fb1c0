#pragma once

#include <QString>
#include <QStringList>

#include <cstdint>

// The argument line of module-combine-sink for an aggregate. The two servers parse module
// arguments differently: PulseAudio unescapes a backslash inside quotes, PipeWire 0.3 keeps it.
// A description with blanks and an apostrophe survives on PulseAudio as written; on PipeWire the
// apostrophe and double quote become their typographic forms, since there is no way to quote
// them there. Backslashes are dropped on both.
class PulseModuleArguments {
public:
    enum class Server { PulseAudio, PipeWire };

    // `slaves` in the order they are given: the first is the clock master by convention, since
    // neither server takes a clock-master argument (both resample the others against the first).
    // `ownerPid` goes into the sink's properties, so that other Ondril processes leave it alone.
    static QString combineSink(const QString& sinkName, const QString& description,
                               const QStringList& slaves, Server server, std::int32_t ownerPid);
    // What a description turns into on the server.
    static QString quotableDescription(const QString& description, Server server);
};
