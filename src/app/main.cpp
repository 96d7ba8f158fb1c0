#include "app/AppDelegate.h"
#include "app/CommandLine.h"
#include "platform/AudioBackend.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QGuiApplication>
#include <QTextStream>

#include <cstdio>
#include <memory>

namespace {

void printLine(FILE* stream, const QString& line)
{
    std::fprintf(stream, "ondril: %s\n", qPrintable(line));
}

// The options shared by the program and its subcommands; subcommands get the rest of the line.
struct Invocation {
    AudioBackend::Choice backend = AudioBackend::Choice::automatic;
    QString subcommand;
    QStringList subcommandArguments;
};

std::optional<Invocation> parseInvocation(const QStringList& arguments, int& exitStatus)
{
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
    parser.addPositionalArgument(QStringLiteral("subcommand"), QStringLiteral("devices or defaults"),
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
    auto choice = AudioBackend::parseChoice(parser.value(backendOption));
    if (!choice) {
        printLine(stderr, QStringLiteral("unknown backend '%1' (use auto, pulse or simulated)")
                              .arg(parser.value(backendOption)));
        exitStatus = 2;
        return std::nullopt;
    }
    invocation.backend = *choice;
    const QStringList positional = parser.positionalArguments();
    if (!positional.isEmpty()) {
        invocation.subcommand = positional.first();
        invocation.subcommandArguments = positional.mid(1);
    }
    return invocation;
}

bool installAudioBackend(AudioBackend::Choice choice)
{
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

} // namespace

int main(int argc, char* argv[])
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);

    // The settings tool needs neither a display nor a sound server.
    const bool isSubcommand = argc > 1 && (arguments.contains(QStringLiteral("defaults"))
                                           || arguments.contains(QStringLiteral("devices")));
    std::unique_ptr<QCoreApplication> app;
    if (isSubcommand)
        app = std::make_unique<QCoreApplication>(argc, argv);
    else
        app = std::make_unique<QGuiApplication>(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("ondril"));
    QCoreApplication::setOrganizationName(QStringLiteral("Ondril"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ONDRIL_VERSION));

    int exitStatus = 0;
    auto invocation = parseInvocation(arguments, exitStatus);
    if (!invocation)
        return exitStatus;

    if (invocation->subcommand == QLatin1String("defaults"))
        return DefaultsCommand::run(invocation->subcommandArguments);
    if (!invocation->subcommand.isEmpty() && invocation->subcommand != QLatin1String("devices")) {
        printLine(stderr, QStringLiteral("unknown subcommand '%1' (see ondril --help)").arg(invocation->subcommand));
        return 2;
    }
    if (!installAudioBackend(invocation->backend))
        return 1;
    if (invocation->subcommand == QLatin1String("devices"))
        return DevicesCommand::run(invocation->subcommandArguments);

    AppDelegate delegate;
    return app->exec();
}
