#include "app/AppDelegate.h"
#include "app/CommandLine.h"
#include "platform/AudioBackend.h"
#include "platform/QuitSignals.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QGuiApplication>
#include <QTextStream>

#include <cstdio>
#include <memory>

namespace {

void printLine(FILE* stream, const QString& line) {
    std::fprintf(stream, "ondril: %s\n", qPrintable(line));
}

// The options shared by the program and its subcommands; subcommands get the rest of the line.
struct Invocation {
    AudioBackend::Choice backend = AudioBackend::Choice::automatic;
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
                       "  defaults read|write|delete ...   read and edit the settings store"));
    parser.addHelpOption();
    parser.addVersionOption();
    QCommandLineOption backendOption(QStringLiteral("backend"),
                                     QStringLiteral("Audio service: auto, pulse or simulated."),
                                     QStringLiteral("backend"), QStringLiteral("auto"));
    parser.addOption(backendOption);
    parser.addPositionalArgument(QStringLiteral("subcommand"),
                                 QStringLiteral("devices or defaults"),
                                 QStringLiteral("[subcommand [arguments...]]"));
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);

    if (!parser.parse(arguments)) {
        printLine(stderr, parser.errorText());
        exitStatus = 2;
        return std::nullopt;
    }
    if (parser.isSet(QStringLiteral("help"))) {
        parser.showHelp(0);
    }
    if (parser.isSet(QStringLiteral("version"))) {
        parser.showVersion();
    }

    Invocation invocation;
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

bool installAudioBackend(AudioBackend::Choice choice) {
    auto result = AudioBackend::make(choice);
    if (!result.notice.isEmpty())
        printLine(stderr, result.notice);
    if (!result.hardware) {
        printLine(stderr, result.error);
        return false;
    }
    AudioHardware::install(std::move(result.hardware));
    return true;
}

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

    int exitStatus = 0;
    auto invocation = parseInvocation(arguments, exitStatus);
    if (!invocation)
        return exitStatus;
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
        if (!installAudioBackend(invocation->backend))
            return 1;
        return DevicesCommand::run(invocation->subcommandArguments);
    }

    if (!hasDisplay()) {
        printLine(
            stderr,
            QStringLiteral(
                "no display to show the tray icon on (DISPLAY and WAYLAND_DISPLAY are unset)"));
        return 1;
    }
    QGuiApplication app(argc, argv);
    QGuiApplication::setQuitOnLastWindowClosed(false);
    if (!installAudioBackend(invocation->backend))
        return 1;
    AppDelegate delegate;
    const QuitSignals quitSignals; // SIGTERM and SIGINT quit like "Quit Ondril"
    return app.exec();
}
