#pragma once

#include "platform/AudioHardware.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <optional>

// Chooses the realisation of the audio service the program runs on.
namespace AudioBackend {

enum class Choice { automatic, pulse, simulated };

std::optional<Choice> parseChoice(const QString& text); // "auto", "pulse", "simulated"

// Connecting to a server also installs running applications that know what its streams say of
// their processes. `automatic` runs on the sound server, waiting for it when it does not answer
// yet, and falls back to the simulated service (telling why in `notice`) only when no server is
// running or installed. `pulse` fails (nullptr, `error` set) without a server.
struct Result {
    std::unique_ptr<AudioHardware> hardware;
    QString notice; // one line for stderr, empty when there is nothing to say
    QString error;  // one line for stderr when hardware is null
};

// `program` is the running executable when this process is Ondril itself, not a tool or a test:
// the service may then start it again as a helper that outlives a crash of this process.
Result make(Choice choice, const QString& program = {});

// This process as one of those helpers, when `arguments` (the whole command line) start one: it
// runs to its end, and its exit status is returned. Nothing for any other command line.
std::optional<int> runHelper(int argc, char* argv[], const QStringList& arguments);

} // namespace AudioBackend
