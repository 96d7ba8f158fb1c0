#pragma once

#include "platform/AudioHardware.h"

#include <QString>

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

Result make(Choice choice);

} // namespace AudioBackend
