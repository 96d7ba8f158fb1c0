#include "platform/AudioBackend.h"

#include "platform/RunningApplications.h"
#include "platform/linux/ProcRunningApplications.h"
#include "platform/pulse/PulseAudioHardware.h"
#include "platform/pulse/PulseTapGuard.h"
#include "platform/simulated/SimulatedAudioHardware.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QPointer>
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

// The server's realisation, with the desktop's running applications told what its streams say
// of their processes.
std::unique_ptr<AudioHardware> connectToServer(PulseAudioHardware::Absent absent,
                                               const QString& program) {
    std::unique_ptr<PulseAudioHardware> pulse =
        PulseAudioHardware::connect(kConnectTimeoutMs, absent);
    if (!pulse)
        return nullptr;
    if (!program.isEmpty())
        pulse->guardTapsWith(program);
    auto applications = std::make_unique<ProcRunningApplications>();
    applications->setStreamIdentities(
        [server = QPointer<PulseAudioHardware>(pulse.get())](std::int32_t pid) {
            return server ? server->streamIdentity(pid) : std::nullopt;
        });
    RunningApplications::install(std::move(applications));
    SoundLibrary::install(pulse->makeSoundLibrary());
    return pulse;
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

Result make(Choice choice, const QString& program) {
    Result result;
    switch (choice) {
    case Choice::simulated:
        result.hardware = SimulatedAudioHardware::withDemoDevices();
        break;
    case Choice::pulse:
        result.hardware = connectToServer(PulseAudioHardware::Absent::Fail, program);
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
            result.hardware = connectToServer(PulseAudioHardware::Absent::Wait, program);
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

std::optional<int> runHelper(int argc, char* argv[], const QStringList& arguments) {
    if (arguments.size() != 3 || arguments[1] != PulseTapGuard::kArgument)
        return std::nullopt;
    bool isNumber = false;
    const std::int32_t ownerPid = arguments[2].toInt(&isNumber);
    if (!isNumber || ownerPid <= 0)
        return 2;
    const QCoreApplication app(argc, argv);
    return PulseTapGuard::run(ownerPid);
}

} // namespace AudioBackend
