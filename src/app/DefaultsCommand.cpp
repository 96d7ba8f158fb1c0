#include "app/CommandLine.h"

#include "platform/UserDefaults.h"

#include <QFile>

#include <cmath>
#include <cstdio>
#include <optional>

// `ondril defaults read [KEY] | write KEY [--bool|--string|--array|--dict|--data-file F] VALUE... |
// delete KEY`, after the desktop's own defaults tool.
//
// Output of `read`: a text stored at the top level of a key is printed as it stands, so that
// scripts can use it; every other value is printed in a JSON-like notation: true/false, numbers,
// texts in double quotes with JSON escapes, arrays in [ ], dictionaries in { } with quoted keys,
// and binary data as <hex> (two lower-case hex digits per byte, e.g. <00ff1a>; <> when empty).
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

QString formatValue(const QVariant& value) {
    switch (value.typeId()) {
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QMetaType::Double:
        return formatNumber(value.toDouble());
    case QMetaType::QString:
        return quoted(value.toString());
    case QMetaType::QByteArray:
        return u'<' + QString::fromLatin1(value.toByteArray().toHex()) + u'>';
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
    printLine(value->typeId() == QMetaType::QString ? value->toString() : formatValue(*value));
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
    QStringList rest = arguments.mid(1);
    QString type = QStringLiteral("--string");
    if (!rest.isEmpty() && rest.first().startsWith(QLatin1String("--")))
        type = rest.takeFirst();

    QVariant value;
    if (type == QLatin1String("--string") || type == QLatin1String("--bool")) {
        if (rest.size() != 1)
            return usage(QStringLiteral("%1 takes exactly one value").arg(type));
        if (type == QLatin1String("--string")) {
            value = rest.first();
        } else {
            const auto flag = parseBool(rest.first());
            if (!flag)
                return usage(QStringLiteral("--bool takes true, false, yes, no, 1 or 0, not '%1'")
                                 .arg(rest.first()));
            value = *flag;
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
        return usage(QStringLiteral("unknown type %1 (use --bool, --string, --array, --dict or "
                                    "--data-file)")
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
