#include "app/ControlCommand.h"

#include "app/InstanceClient.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QUrl>

#include <cstdio>

namespace {

void printError(const QString& line) {
    std::fprintf(stderr, "ondril: %s\n", qPrintable(line));
}

void print(const QString& text) {
    std::fputs(qPrintable(text), stdout);
}

int usage(const QString& line) {
    printError(line);
    return 2;
}

QString encoded(const QString& value) {
    return QString::fromUtf8(QUrl::toPercentEncoding(value));
}

int send(const QString& url) {
    InstanceClient client;
    if (client.open({url}))
        return 0;
    printError(client.failure());
    return 1;
}

std::optional<QJsonDocument> ask(const QString& what) {
    InstanceClient client;
    const auto answer = client.query(what);
    if (!answer) {
        printError(client.failure());
        return std::nullopt;
    }
    return QJsonDocument::fromJson(answer->toUtf8());
}

QString percent(double value) {
    return QString::number(qRound(value * 100)) + QLatin1Char('%');
}

QString deviceText(const QJsonValue& device) {
    if (!device.isObject())
        return QStringLiteral("none");
    const QJsonObject object = device.toObject();
    return QStringLiteral("%1 (%2)").arg(object.value(QStringLiteral("name")).toString(),
                                         object.value(QStringLiteral("uid")).toString());
}

QString groupsText(const QJsonArray& groups) {
    QString text;
    for (const QJsonValue& value : groups) {
        const QJsonObject group = value.toObject();
        text += QStringLiteral("%1 %2  %3  volume %4  %5 outputs\n")
                    .arg(group.value(QStringLiteral("active")).toBool() ? QLatin1Char('*')
                                                                        : QLatin1Char(' '))
                    .arg(group.value(QStringLiteral("name")).toString(),
                         group.value(QStringLiteral("id")).toString(),
                         percent(group.value(QStringLiteral("masterVolume")).toDouble()))
                    .arg(group.value(QStringLiteral("memberUIDs")).toArray().size());
    }
    return text;
}

QString appsText(const QJsonArray& apps) {
    QString text;
    for (const QJsonValue& value : apps) {
        const QJsonObject app = value.toObject();
        QStringList routes;
        for (const QJsonValue& uid : app.value(QStringLiteral("routeUIDs")).toArray())
            routes << uid.toString();
        text +=
            QStringLiteral("%1  volume %2%3  %4%5\n")
                .arg(app.value(QStringLiteral("bundleID")).toString(),
                     percent(app.value(QStringLiteral("volume")).toDouble()),
                     app.value(QStringLiteral("muted")).toBool() ? QStringLiteral(" muted")
                                                                 : QString(),
                     routes.isEmpty() ? QStringLiteral("default output")
                                      : routes.join(QStringLiteral(", ")),
                     app.value(QStringLiteral("session")).toBool()
                         ? QStringLiteral("  (session running)")
                     : app.value(QStringLiteral("running")).toBool() ? QStringLiteral("  (running)")
                                                                     : QString());
    }
    return text;
}

QString configsText(const QJsonArray& configs) {
    QString text;
    for (const QJsonValue& value : configs) {
        const QJsonObject config = value.toObject();
        text += config.value(QStringLiteral("name")).toString() + QLatin1Char('\n');
    }
    return text;
}

QString statusText(const QJsonObject& status) {
    QString group = QStringLiteral("none");
    if (const QJsonValue active = status.value(QStringLiteral("activeGroup")); active.isObject()) {
        const QJsonObject object = active.toObject();
        group = QStringLiteral("%1, volume %2%3")
                    .arg(object.value(QStringLiteral("name")).toString(),
                         percent(object.value(QStringLiteral("masterVolume")).toDouble()),
                         object.value(QStringLiteral("muted")).toBool() ? QStringLiteral(", muted")
                                                                        : QString());
    }
    return QStringLiteral("Output: %1\nInput: %2\nActive group: %3\n\nGroups:\n%4\nApps:\n%5\n"
                          "Quick configs:\n%6")
        .arg(deviceText(status.value(QStringLiteral("defaultOutput"))),
             deviceText(status.value(QStringLiteral("defaultInput"))), group,
             groupsText(status.value(QStringLiteral("groups")).toArray()),
             appsText(status.value(QStringLiteral("apps")).toArray()),
             configsText(status.value(QStringLiteral("configs")).toArray()));
}

// `status`, or a listing (`groups`, `apps`, `configs`), as text or, with --json, as the JSON.
int show(const QString& what, const QStringList& arguments) {
    const bool json = arguments == QStringList{QStringLiteral("--json")};
    if (!json && !arguments.isEmpty())
        return usage(QStringLiteral("usage: ondril %1 [--json]").arg(what));
    const auto document = ask(what);
    if (!document)
        return 1;
    if (json)
        print(QString::fromUtf8(document->toJson(QJsonDocument::Indented)));
    else if (what == QLatin1String("status"))
        print(statusText(document->object()));
    else if (what == QLatin1String("groups"))
        print(groupsText(document->array()));
    else if (what == QLatin1String("apps"))
        print(appsText(document->array()));
    else
        print(configsText(document->array()));
    return 0;
}

int groups(const QStringList& arguments) {
    if (arguments.size() == 2 && arguments[0] == QLatin1String("activate"))
        return send(QStringLiteral("ondril://activate?group=") + encoded(arguments[1]));
    if (arguments == QStringList{QStringLiteral("deactivate")})
        return send(QStringLiteral("ondril://deactivate"));
    if (arguments.isEmpty() || arguments == QStringList{QStringLiteral("--json")})
        return show(QStringLiteral("groups"), arguments);
    return usage(QStringLiteral("usage: ondril groups [--json] | activate NAME | deactivate"));
}

int configs(const QStringList& arguments) {
    if (arguments.size() == 2 &&
        (arguments[0] == QLatin1String("save") || arguments[0] == QLatin1String("apply")))
        return send(
            QStringLiteral("ondril://config?%1=%2").arg(arguments[0], encoded(arguments[1])));
    if (arguments.isEmpty() || arguments == QStringList{QStringLiteral("--json")})
        return show(QStringLiteral("configs"), arguments);
    return usage(QStringLiteral("usage: ondril configs [--json] | save NAME | apply NAME"));
}

// `apps set BUNDLE [--volume V] [--mute on|off] [--route UID|NAME|default]`.
int apps(const QStringList& arguments) {
    if (arguments.isEmpty() || arguments == QStringList{QStringLiteral("--json")})
        return show(QStringLiteral("apps"), arguments);
    const QString appsUsage = QStringLiteral(
        "usage: ondril apps [--json] | set BUNDLE [--volume PERCENT] [--mute on|off] "
        "[--route UID|NAME|default]");
    if (arguments.size() < 4 || arguments[0] != QLatin1String("set") || arguments.size() % 2)
        return usage(appsUsage);
    QString url = QStringLiteral("ondril://app?bundle=") + encoded(arguments[1]);
    for (int i = 2; i < arguments.size(); i += 2) {
        const QString& option = arguments[i];
        const QString& value = arguments[i + 1];
        if (option == QLatin1String("--volume"))
            url += QStringLiteral("&volume=") + encoded(value);
        else if (option == QLatin1String("--mute") &&
                 (value == QLatin1String("on") || value == QLatin1String("off")))
            url += value == QLatin1String("on") ? QStringLiteral("&mute=true")
                                                : QStringLiteral("&mute=false");
        else if (option == QLatin1String("--route"))
            url += QStringLiteral("&device=") + encoded(value);
        else
            return usage(appsUsage);
    }
    return send(url);
}

} // namespace

namespace ControlCommand {

bool isControlSubcommand(const QString& word) {
    static const QStringList words{QStringLiteral("status"), QStringLiteral("groups"),
                                   QStringLiteral("apps"), QStringLiteral("configs")};
    return words.contains(word);
}

bool looksLikeURL(const QString& argument) {
    static const QRegularExpression scheme(QStringLiteral("^[A-Za-z][A-Za-z0-9+.-]*:"));
    return scheme.match(argument).hasMatch();
}

int openURLs(const QStringList& arguments) {
    for (const QString& argument : arguments)
        if (!argument.startsWith(QLatin1String("ondril:")))
            return usage(QStringLiteral("not an ondril: URL: %1").arg(argument));
    InstanceClient client;
    if (client.open(arguments))
        return 0;
    printError(client.failure());
    return 1;
}

int run(const QString& subcommand, const QStringList& arguments) {
    if (subcommand == QLatin1String("status"))
        return show(subcommand, arguments);
    if (subcommand == QLatin1String("groups"))
        return groups(arguments);
    if (subcommand == QLatin1String("apps"))
        return apps(arguments);
    return configs(arguments);
}

} // namespace ControlCommand
