#include "app/AppDelegate.h"
#include "app/CommandLine.h"
#include "app/ControlCommand.h"
#include "app/InstanceChannel.h"
#include "app/InstanceClient.h"
#include "platform/AudioBackend.h"
#include "platform/DisplayPlatform.h"
#include "platform/QuitSignals.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QGuiApplication>
#include <QTextStream>

#include <cstdio>
#include <memory>
#include <optional>

namespace {

void printLine(FILE* stream, const QString& line) {
    std::fprintf(stream, "ondril: %s\n", qPrintable(line));
}

// The options shared by the program and its subcommands; subcommands get the rest of the line.
struct Invocation {
    AudioBackend::Choice backend = AudioBackend::Choice::automatic;
    bool headless = false;
    QString subcommand;
    QStringList subcommandArguments;
};

// `--backend` is the program's option, and may also stand after a subcommand
// (`ondril devices --json --backend=simulated`): take it out of the subcommand's arguments.
QStringList takeBackendOption(QStringList arguments, QString& backend) {
    for (int i = 0; i < arguments.size();) {
        if (arguments[i].startsWith(QLatin1String("--backend="))) {
            backend = arguments[i].mid(int(qstrlen("--backend=")));
            arguments.removeAt(i);
        } else if (arguments[i] == QLatin1String("--backend") && i + 1 < arguments.size()) {
            backend = arguments[i + 1];
            arguments.remove(i, 2);
        } else {
            ++i;
        }
    }
    return arguments;
}

std::optional<Invocation> parseInvocation(const QStringList& arguments, int& exitStatus) {
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Ondril: several outputs as one, per-app volume, automatic switching.\n\n"
                       "Subcommands:\n"
                       "  devices [--json]       list output and input devices\n"
                       "  defaults read|write|delete ...   read and edit the settings store\n"
                       "  status [--json]        what the running instance does\n"
                       "  groups|apps|configs ...   list or change them in the running instance\n"
                       "  ondril:URL...          hand URL commands to the running instance\n"
                       "devices and defaults each have their own --help."));
    // Our own help option: Qt's would also offer --help-all, which has nothing more to show.
    const QCommandLineOption helpOption({QStringLiteral("h"), QStringLiteral("help")},
                                        QStringLiteral("Displays this help."));
    parser.addOption(helpOption);
    parser.addVersionOption();
    QCommandLineOption backendOption(QStringLiteral("backend"),
                                     QStringLiteral("Audio service: auto, pulse or simulated."),
                                     QStringLiteral("backend"), QStringLiteral("auto"));
    parser.addOption(backendOption);
    parser.addOption({QStringLiteral("headless"),
                      QStringLiteral("Run the engine only: no tray, no panel, no display.")});
    parser.addPositionalArgument(QStringLiteral("subcommand"),
                                 QStringLiteral("devices or defaults"),
                                 QStringLiteral("[subcommand [arguments...]]"));
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);

    if (!parser.parse(arguments)) {
        printLine(stderr, parser.errorText() + QStringLiteral(" (see ondril --help)"));
        exitStatus = 2;
        return std::nullopt;
    }
    if (parser.isSet(helpOption)) {
        // Qt names the program only once an application object exists, which is made later.
        const QString help = parser.helpText();
        std::fprintf(stdout, "Usage: ondril [options] [subcommand [arguments...]]\n%s",
                     qPrintable(help.section(u'\n', 1)));
        exitStatus = 0;
        return std::nullopt;
    }
    if (parser.isSet(QStringLiteral("version"))) {
        parser.showVersion();
    }

    Invocation invocation;
    invocation.headless = parser.isSet(QStringLiteral("headless"));
    QString backend = parser.value(backendOption);
    const QStringList positional = parser.positionalArguments();
    if (!positional.isEmpty()) {
        invocation.subcommand = positional.first();
        invocation.subcommandArguments = takeBackendOption(positional.mid(1), backend);
    }
    auto choice = AudioBackend::parseChoice(backend);
    if (!choice) {
        printLine(
            stderr,
            QStringLiteral("unknown backend '%1' (use auto, pulse or simulated)").arg(backend));
        exitStatus = 2;
        return std::nullopt;
    }
    invocation.backend = *choice;
    return invocation;
}

bool installAudioBackend(AudioBackend::Choice choice, const QString& program = {}) {
    auto result = AudioBackend::make(choice, program);
    if (!result.notice.isEmpty())
        printLine(stderr, result.notice);
    if (!result.hardware) {
        printLine(stderr, result.error);
        return false;
    }
    AudioHardware::install(std::move(result.hardware));
    return true;
}

// --- One running instance ------------------------------------------------------------------
// The name (or socket) is claimed before the engine starts: a second launch hands over to the
// running instance and leaves without touching the sound server.
int handOverToRunningInstance() {
    InstanceClient client;
    printLine(stderr, QStringLiteral("already running; the running instance goes on"));
    if (!client.activate())
        printLine(stderr, client.failure());
    return 0;
}

// A second launch is found and hands over under a plain application object, so that it never
// opens a display connection. Nothing when no other instance runs.
std::optional<int> handOverIfRunning(int argc, char* argv[]) {
    const QCoreApplication app(argc, argv);
    if (!InstanceChannel::isHeldElsewhere())
        return std::nullopt;
    return handOverToRunningInstance();
}

int runInstance(int argc, char* argv[], const Invocation& invocation, bool headless) {
    std::unique_ptr<QCoreApplication> app;
    if (headless) {
        app = std::make_unique<QCoreApplication>(argc, argv);
    } else {
        if (const auto status = handOverIfRunning(argc, argv))
            return *status;
        DisplayPlatform::choose();
        // Widgets only for the tray icon's fallback on desktops without a StatusNotifierItem host.
        app = std::make_unique<QApplication>(argc, argv);
    }
    // From here on SIGTERM and SIGINT end the event loop, so that a clean quit stops every session.
    const QuitSignals quitSignals;
    InstanceChannel channel;
    switch (channel.claim()) {
    case InstanceChannel::Claim::secondary: // started at the same moment as the other one
        return handOverToRunningInstance();
    case InstanceChannel::Claim::unavailable:
        printLine(stderr,
                  QStringLiteral("no control from other programs: %1").arg(channel.failure()));
        break;
    case InstanceChannel::Claim::primary:
        break;
    }
    if (!headless)
        QGuiApplication::setQuitOnLastWindowClosed(false);
    if (!installAudioBackend(invocation.backend, QCoreApplication::applicationFilePath()))
        return 1;
    AppDelegate delegate(headless);
    delegate.listenTo(channel);
    return app->exec();
}
// ---------------------------------------------------------------------------------------------

bool hasDisplay() {
    return !qEnvironmentVariableIsEmpty("DISPLAY") ||
           !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ||
           !qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM");
}

} // namespace

int main(int argc, char* argv[]) {
    QCoreApplication::setApplicationName(QStringLiteral("ondril"));
    QCoreApplication::setOrganizationName(QStringLiteral("Ondril"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ONDRIL_VERSION));

    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    if (const auto status = AudioBackend::runHelper(argc, argv, arguments))
        return *status;

    int exitStatus = 0;
    auto invocation = parseInvocation(arguments, exitStatus);
    if (!invocation)
        return exitStatus;
    // Commands for the running instance: no display, no sound server of their own.
    if (ControlCommand::looksLikeURL(invocation->subcommand)) {
        QCoreApplication app(argc, argv);
        return ControlCommand::openURLs(QStringList{invocation->subcommand} +
                                        invocation->subcommandArguments);
    }
    if (ControlCommand::isControlSubcommand(invocation->subcommand)) {
        QCoreApplication app(argc, argv);
        return ControlCommand::run(invocation->subcommand, invocation->subcommandArguments);
    }
    if (!invocation->subcommand.isEmpty() && invocation->subcommand != QLatin1String("defaults") &&
        invocation->subcommand != QLatin1String("devices")) {
        printLine(stderr, QStringLiteral("unknown subcommand '%1' (see ondril --help)")
                              .arg(invocation->subcommand));
        return 2;
    }

    // The subcommands are tools of their own: they need no display.
    if (!invocation->subcommand.isEmpty()) {
        QCoreApplication app(argc, argv);
        if (invocation->subcommand == QLatin1String("defaults"))
            return DefaultsCommand::run(invocation->subcommandArguments);
        if (const auto status = DevicesCommand::checkArguments(invocation->subcommandArguments))
            return *status;
        if (!installAudioBackend(invocation->backend))
            return 1;
        return DevicesCommand::run(invocation->subcommandArguments);
    }

    bool headless = invocation->headless;
    if (!headless && !hasDisplay()) {
        printLine(stderr, QStringLiteral("no display (DISPLAY and WAYLAND_DISPLAY are unset): "
                                         "running headless, without tray or panel"));
        headless = true;
    }
    return runInstance(argc, argv, *invocation, headless);
}
