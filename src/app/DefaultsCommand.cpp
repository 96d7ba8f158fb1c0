#include "app/CommandLine.h"

#include "platform/UserDefaults.h"

#include <QFile>
#include <QJsonDocument>

#include <cmath>
#include <cstdio>
#include <optional>

// `ondril defaults read|write|delete`, after the desktop's own defaults tool; `helpText` below
// says what each does.
//
// Output of `read`: a text stored at the top level of a key is printed as it stands, so that
// scripts can use it; every other value is printed in a JSON-like notation: true/false, numbers,
// texts in double quotes with JSON escapes, arrays in [ ], dictionaries in { } with quoted keys.
// Binary data that holds a JSON object or array (the stored groups, say) is printed as that JSON,
// indented when it is the value read; other data as <base64:…> (<base64:> when empty).
// `read` with no key prints one line per key, sorted: `KEY = VALUE`, with texts quoted.
//
// Exit statuses: 0 done; 1 the key is absent, a file cannot be read, or the store cannot be
// written; 2 the command line is malformed.

namespace {

constexpr int statusOK = 0;
constexpr int statusFailed = 1;
constexpr int statusUsage = 2;

void printError(const QString& message) {
    std::fprintf(stderr, "ondril: %s\n", qPrintable(message));
}

const char* const helpText = "Usage: ondril defaults read [KEY]\n"
                             "       ondril defaults write KEY [TYPE] VALUE...\n"
                             "       ondril defaults delete KEY\n"
                             "\n"
                             "Reads and edits Ondril's settings store, also while Ondril runs.\n"
                             "\n"
                             "Types for write (the default is --string):\n"
                             "  --string TEXT           a text\n"
                             "  --bool true|false       also yes|no and 1|0\n"
                             "  --int N, --float X      a number\n"
                             "  --array VALUE...        an array of texts\n"
                             "  --dict KEY VALUE...     a dictionary of texts\n"
                             "  --data-file FILE        binary data, the file's bytes\n";

bool isHelp(const QString& argument) {
    return argument == QLatin1String("--help") || argument == QLatin1String("-h");
}

// One line, so that a script's log shows what was wrong at a glance.
int usage(const QString& problem) {
    printError(problem + QStringLiteral(" (see ondril --help)"));
    return statusUsage;
}

QString quoted(const QString& text) {
    QString out = QStringLiteral("\"");
    for (QChar c : text) {
        switch (c.unicode()) {
        case '"':
            out += QStringLiteral("\\\"");
            break;
        case '\\':
            out += QStringLiteral("\\\\");
            break;
        case '\n':
            out += QStringLiteral("\\n");
            break;
        case '\t':
            out += QStringLiteral("\\t");
            break;
        case '\r':
            out += QStringLiteral("\\r");
            break;
        default:
            if (c.unicode() < 0x20)
                out += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
            else
                out += c;
        }
    }
    return out + u'"';
}

QString formatNumber(double value) {
    if (std::isfinite(value) && value == std::trunc(value) && std::fabs(value) < 1e15)
        return QString::number(qint64(value));
    return QString::number(value, 'g', 17);
}

// Stored JSON (a group list) is shown as JSON, so that it can be read and piped on.
QString formatData(const QByteArray& data, QJsonDocument::JsonFormat format) {
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    if (error.error == QJsonParseError::NoError && !document.isNull())
        return QString::fromUtf8(document.toJson(format)).trimmed();
    return QStringLiteral("<base64:") + QString::fromLatin1(data.toBase64()) + u'>';
}

QString formatValue(const QVariant& value) {
    switch (value.typeId()) {
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QMetaType::Double:
        return formatNumber(value.toDouble());
    case QMetaType::QString:
        return quoted(value.toString());
    case QMetaType::QByteArray:
        return formatData(value.toByteArray(), QJsonDocument::Compact);
    case QMetaType::QVariantList: {
        QStringList parts;
        for (const QVariant& element : value.toList())
            parts << formatValue(element);
        return u'[' + parts.join(QStringLiteral(", ")) + u']';
    }
    case QMetaType::QVariantMap: {
        QStringList parts;
        const QVariantMap map = value.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            parts << quoted(it.key()) + QStringLiteral(": ") + formatValue(it.value());
        return u'{' + parts.join(QStringLiteral(", ")) + u'}';
    }
    default:
        return QStringLiteral("<unknown>");
    }
}

void printLine(const QString& line) {
    std::fprintf(stdout, "%s\n", line.toUtf8().constData());
}

int read(UserDefaults& defaults, const QStringList& arguments) {
    if (defaults.isReadOnly())
        return statusFailed; // the store has said why
    if (arguments.size() > 1)
        return usage(QStringLiteral("defaults read takes at most one key"));
    if (arguments.isEmpty()) {
        for (const QString& key : defaults.allKeys())
            if (const auto value = defaults.objectForKey(key))
                printLine(key + QStringLiteral(" = ") + formatValue(*value));
        return statusOK;
    }
    const QString& key = arguments.first();
    const auto value = defaults.objectForKey(key);
    if (!value) {
        printError(QStringLiteral("the key %1 does not exist").arg(key));
        return statusFailed;
    }
    if (value->typeId() == QMetaType::QString)
        printLine(value->toString());
    else if (value->typeId() == QMetaType::QByteArray)
        printLine(formatData(value->toByteArray(), QJsonDocument::Indented));
    else
        printLine(formatValue(*value));
    return statusOK;
}

std::optional<bool> parseBool(const QString& text) {
    const QString lower = text.toLower();
    if (lower == QLatin1String("true") || lower == QLatin1String("yes") ||
        lower == QLatin1String("1"))
        return true;
    if (lower == QLatin1String("false") || lower == QLatin1String("no") ||
        lower == QLatin1String("0"))
        return false;
    return std::nullopt;
}

int write(UserDefaults& defaults, const QStringList& arguments) {
    if (arguments.isEmpty())
        return usage(QStringLiteral("defaults write needs a key"));
    const QString& key = arguments.first();
    if (key.startsWith(u'-'))
        return usage(QStringLiteral("defaults write needs a key before '%1'").arg(key));
    QStringList rest = arguments.mid(1);
    QString type = QStringLiteral("--string");
    if (!rest.isEmpty() && rest.first().startsWith(QLatin1String("--")))
        type = rest.takeFirst();

    QVariant value;
    const QStringList singleValueTypes{QStringLiteral("--string"), QStringLiteral("--bool"),
                                       QStringLiteral("--int"), QStringLiteral("--float")};
    if (singleValueTypes.contains(type)) {
        if (rest.size() != 1)
            return usage(QStringLiteral("%1 takes exactly one value").arg(type));
        const QString& text = rest.first();
        bool ok = true;
        if (type == QLatin1String("--string")) {
            value = text;
        } else if (type == QLatin1String("--bool")) {
            const auto flag = parseBool(text);
            ok = flag.has_value();
            value = flag.value_or(false);
        } else if (type == QLatin1String("--int")) {
            value = double(text.toLongLong(&ok));
        } else {
            const double number = text.toDouble(&ok);
            ok = ok && std::isfinite(number);
            value = number;
        }
        if (!ok) {
            const char* accepted =
                type == QLatin1String("--bool")
                    ? "true, false, yes, no, 1 or 0"
                    : (type == QLatin1String("--int") ? "a whole number" : "a finite number");
            return usage(
                QStringLiteral("%1 takes %2, not '%3'").arg(type, QLatin1String(accepted), text));
        }
    } else if (type == QLatin1String("--array")) {
        value = QVariantList(rest.cbegin(), rest.cend());
    } else if (type == QLatin1String("--dict")) {
        if (rest.size() % 2 != 0)
            return usage(QStringLiteral("--dict takes key and value pairs; '%1' has no value")
                             .arg(rest.last()));
        QVariantMap map;
        for (qsizetype i = 0; i < rest.size(); i += 2)
            map.insert(rest[i], rest[i + 1]);
        value = map;
    } else if (type == QLatin1String("--data-file")) {
        if (rest.size() != 1)
            return usage(QStringLiteral("--data-file takes exactly one file name"));
        QFile file(rest.first());
        if (!file.open(QIODevice::ReadOnly)) {
            printError(QStringLiteral("cannot read %1: %2").arg(rest.first(), file.errorString()));
            return statusFailed;
        }
        value = file.readAll();
    } else {
        return usage(QStringLiteral("unknown type %1 (use --string, --bool, --int, --float, "
                                    "--array, --dict or --data-file)")
                         .arg(type));
    }

    if (!defaults.setObject(value, key)) {
        printError(QStringLiteral("could not write %1").arg(defaults.filePath()));
        return statusFailed;
    }
    return statusOK;
}

int remove(UserDefaults& defaults, const QStringList& arguments) {
    if (arguments.size() != 1)
        return usage(QStringLiteral("defaults delete takes exactly one key"));
    const QString& key = arguments.first();
    if (!defaults.objectForKey(key)) {
        printError(QStringLiteral("the key %1 does not exist").arg(key));
        return statusFailed;
    }
    if (!defaults.removeObjectForKey(key)) {
        printError(QStringLiteral("could not write %1").arg(defaults.filePath()));
        return statusFailed;
    }
    return statusOK;
}

} // namespace

int DefaultsCommand::run(const QStringList& arguments) {
    // `defaults --help` and `defaults write --help …` ask for help, never for a key named so.
    if (arguments.value(0).startsWith(u'-') || isHelp(arguments.value(1))) {
        if (!isHelp(arguments.value(0)) && !isHelp(arguments.value(1)))
            return usage(QStringLiteral("unknown option '%1' for defaults").arg(arguments.first()));
        std::fputs(helpText, stdout);
        return statusOK;
    }
    if (arguments.isEmpty())
        return usage(QStringLiteral("defaults needs read, write or delete"));
    const QString& verb = arguments.first();
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    if (verb == QLatin1String("read"))
        return read(defaults, arguments.mid(1));
    if (verb == QLatin1String("write"))
        return write(defaults, arguments.mid(1));
    if (verb == QLatin1String("delete"))
        return remove(defaults, arguments.mid(1));
    return usage(
        QStringLiteral("unknown defaults command '%1' (use read, write or delete)").arg(verb));
}
