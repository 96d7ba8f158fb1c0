#include "platform/AudioBackend.h"

#include "platform/pulse/PulseAudioHardware.h"
#include "platform/simulated/SimulatedAudioHardware.h"

#include <QFileInfo>
#include <QStandardPaths>

namespace {
// How long a sound server has to answer before it counts as absent.
constexpr int kConnectTimeoutMs = 1000;

// Where libpulse looks for the server first: PULSE_SERVER, else the user's runtime folder.
QString serverAddress() {
    QString socket = qEnvironmentVariable("PULSE_SERVER");
    if (socket.startsWith(QLatin1String("unix:")))
        socket.remove(0, 5);
    if (socket.isEmpty() && qEnvironmentVariableIsSet("XDG_RUNTIME_DIR"))
        socket = qEnvironmentVariable("XDG_RUNTIME_DIR") + QStringLiteral("/pulse/native");
    return socket;
}

// A server may still be starting (a program started at login) when its socket is there or one is
// installed; only with neither is there nothing to wait for.
bool soundServerExpected() {
    const QString socket = serverAddress();
    if (!socket.isEmpty() && QFileInfo::exists(socket))
        return true;
    return !QStandardPaths::findExecutable(QStringLiteral("pulseaudio")).isEmpty() ||
           !QStandardPaths::findExecutable(QStringLiteral("pipewire-pulse")).isEmpty();
}
} // namespace

namespace AudioBackend {

std::optional<Choice> parseChoice(const QString& text) {
    if (text == QLatin1String("auto"))
        return Choice::automatic;
    if (text == QLatin1String("pulse"))
        return Choice::pulse;
    if (text == QLatin1String("simulated"))
        return Choice::simulated;
    return std::nullopt;
}

Result make(Choice choice) {
    Result result;
    switch (choice) {
    case Choice::simulated:
        result.hardware = SimulatedAudioHardware::withDemoDevices();
        break;
    case Choice::pulse:
        result.hardware = PulseAudioHardware::connect(kConnectTimeoutMs);
        if (!result.hardware)
            result.error =
                QStringLiteral("no sound server (PulseAudio or PipeWire) answered at %1; "
                               "start one, or try --backend=simulated")
                    .arg(serverAddress().isEmpty() ? QStringLiteral("its default address")
                                                   : serverAddress());
        break;
    case Choice::automatic:
        if (soundServerExpected()) {
            // The real service shows the server's devices once it answers, however late.
            result.hardware =
                PulseAudioHardware::connect(kConnectTimeoutMs, PulseAudioHardware::Absent::Wait);
        } else {
            result.notice = QStringLiteral(
                "no sound server (PulseAudio or PipeWire) is installed or running; using the "
                "simulated audio service");
            result.hardware = SimulatedAudioHardware::withDemoDevices();
        }
        break;
    }
    return result;
}

} // namespace AudioBackend
